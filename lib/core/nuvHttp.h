#pragma once

#include "nuvHttpParser.h"
#include "nuvTime.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <map>
#include <string>

/// What the HTTP client and the cookie cache share: header blocks, dates, encodings of texts.
///
/// Threads: any; all tables are constant.
/// Errors:  bad input never throws: it is skipped, or the function says false. The log lines go to
///          the standard source of severity debug.
namespace Nuv::Net::Http {

/// Query variables or form fields.
using VariableMap = std::multimap< std::string, std::string >;

/// A failed exchange. The error number is the socket's for connectionFailed, else it tells which
/// step failed; see HttpRequest.
class NUV_API Exception : public RuntimeException
{
public:
    enum Reason
    {
        tlsNotSupported = 0,  ///< "TLS not supported"
        connectionFailed = 1, ///< "HTTP connection failed"
        sendFailed = 2,       ///< "Send HTTP request failed"
        receiveFailed = 3     ///< "Receive HTTP response failed"
    };

    using RuntimeException::RuntimeException;
    void getReasonStr() const override;
};

// --- header blocks ------------------------------------------------------------------------------

/// Empties the map and reads one block into it, the blank line included. Bad lines (a control
/// character, a tab where no line is continued) and lines of unknown headers are logged and
/// skipped; of a header that occurs again the last one counts; names are taken in any case; a line
/// that begins with white space continues the one before, joined to it by one blank. At the end of
/// the stream the line that had not been followed by another byte is lost.
/// @param streamBufPtr what it throws passes
NUV_API void readHeaders( std::streambuf* streamBufPtr, HeaderMap* headerMapPtr,
                          const HeaderLimits& limits = {} );

/// Writes the headers that have a value, a line each; not the blank line that ends a block.
NUV_API void writeHeaders( std::ostream& stream, const HeaderMap& headerMap );

/// Writes name "=" value pairs joined by "&", as they are: the caller encodes them.
NUV_API void writeVariables( std::ostream& stream, const VariableMap& variables );

/// What contentLengthHeaderExists() gives for a value that is negative or does not fit.
inline constexpr unsigned int invalidContentLength = 0xFFFFFFFF;

/// @param lengthPtr receives the value of the leading digits (behind white space and sign), 0
///        without any, invalidContentLength for what no body can have
/// @return whether there is a Content-Length
NUV_API bool contentLengthHeaderExists( const HeaderMap& headerMap, unsigned int* lengthPtr );
NUV_API void insertContentLengthHeader( unsigned int length, HeaderMap* headerMapPtr );
NUV_API void insertDateHeader( const Utils::Time& time, HeaderMap* headerMapPtr );

// --- basic authorization ------------------------------------------------------------------------

/// Does nothing for an empty user name; null pointers fail nuvAssert.
NUV_API void insertBasicAuthorizationHeader( const char* usernamePtr, const char* passwordPtr,
                                             HeaderMap* headerMapPtr );
/// The header's value: "Basic " and the Base64 text of user ":" password, in one line.
NUV_API void encodeBasicAuthorizationHeaderStr( const char* usernamePtr, const char* passwordPtr,
                                                std::string* textPtr );
/// @return false, with user and password unchanged, without such a header, for another scheme, for
///         bad or incomplete Base64, and for an empty user name
NUV_API bool basicAuthorizationHeaderExists( const HeaderMap& headerMap, std::string* usernamePtr,
                                             std::string* passwordPtr );

// --- dates --------------------------------------------------------------------------------------

/// Room that timeToHttpText() needs.
inline constexpr std::size_t httpTimeTextSize = 64;

/// Writes "Thu, 01 Jan 1970 00:00:00 UTC": English and UTC whatever locale and zone are set.
NUV_API void timeToHttpText( const Utils::Time& time, char* textPtr );

/// Reads the fields as UTC. Day of the week and of the year are filled in, daylight time cleared.
/// @return false, nothing having changed, for fields that are no date of the Gregorian calendar,
///         and for a time that Utils::Time cannot hold (before 1970, after 2554)
NUV_API bool convertGregorianTime( Utils::Time* timePtr, std::tm* tmPtr );

// --- encodings ----------------------------------------------------------------------------------

/// Form encoding: blanks become "+"; of the others '"' '%' '&' '+' '/' '<' '=' '>' '?' '~' and
/// the bytes below 31 become "%" and two digits; all else is copied.
NUV_API void urlEncodeStr( const char* textPtr, std::string* encodedPtr );
/// The same for a part of a URI: blanks become "%20", control bytes are copied.
NUV_API void escapeUriStr( const char* textPtr, std::string* escapedPtr );

} // namespace Nuv::Net::Http
