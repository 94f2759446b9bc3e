#pragma once

#include "nuvHttpTables.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>

namespace Nuv::Net::Http {

/// A header block; one value for each header, in the order of the wire.
using HeaderMap = std::map< HttpHeader, std::string >;

/// What a header block may take, in bytes; a longer one is given up as if the stream had ended.
struct HeaderLimits
{
    std::size_t maxLineSize = 64 * 1024;
    std::size_t maxBlockSize = 1024 * 1024;
};

/// Character classes of RFC 2616, bits of HttpParserHelper::ourCharFlags.
enum CharFlags : std::uint8_t
{
    charAscii = 1,
    charControl = 2,
    charSeparator = 4,
    charDigit = 8,
    charHex = 16,
    charUpper = 32,
    charLower = 64
};

/// Takes one header line apart, byte by byte, and helps with dates and escapes.
///
/// | state        | space, tab | ":"   | any other byte                |
/// |--------------|------------|-------|-------------------------------|
/// | 0 name       | 1          | 2     | to the name, in lower case    |
/// | 1 after name | ignored    | 2     | ignored                       |
/// | 2 after ":"  | ignored    | value | 3, to the value               |
/// | 3 value      | to the value, trailing white space included        |||
///
/// Threads: one at a time; the static members any.
class NUV_API HttpParserHelper
{
public:
    /// The classes of each byte; none for 128 to 255.
    static const std::uint8_t ourCharFlags[256];

    enum DateToken
    {
        tokenSunday = 0,  // to Saturday 6
        tokenJanuary = 7, // to December 18
        tokenZone = 19,
        tokenNumber = 20,
        tokenOther = 21
    };
    using DateTokenMap = Utils::StaticMap< const char*, int >;
    static constexpr int ourDateTokenLookupSize = 39;
    static const DateTokenMap::Pair ourDateTokenLookupData[ourDateTokenLookupSize];

    /// Begins a line.
    void reset();
    void parseChar( char c )
    {
        if ( myCharState == inValue )
            myValue.push_back( c );
        else
            parseCharBeforeValue( c );
    }
    /// Does what parseChar() does with each.
    void parseChars( std::string_view chars );
    int charState() const { return myCharState; }
    const std::string& name() const { return myName; }
    const std::string& value() const { return myValue; }

    /// What readHeaders() does with an empty map.
    static void parseHeaders( std::streambuf* streamBufPtr, HeaderMap* headerMapPtr,
                              const HeaderLimits& limits = {} );

    /// Reads "Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT" (or "UTC") or
    /// "Sun Nov  6 08:49:37 1994". Ranges of the numbers are convertGregorianTime()'s business.
    /// Years below 70 are of this century, 70 to 99 of the last one.
    /// @return false, the fields then being of no use, for any other text and for a number that
    ///         does not fit
    static bool parseTime( std::tm* tmPtr, const char* textPtr );

    /// Replaces "%" and two hexadecimal digits by their byte. Of another "%" is left what follows
    /// it, taken as it is.
    static void unescapeHex( std::string* textPtr );
    /// Replaces "+" by a blank.
    static void unescapeSpace( std::string* textPtr );

private:
    enum CharState
    {
        inName = 0,
        afterName = 1,
        afterColon = 2,
        inValue = 3
    };

    void parseCharBeforeValue( char c );

    int myCharState = inName;
    std::string myName;
    std::string myValue;
};

} // namespace Nuv::Net::Http
