#include "nuvHttpParser.h"

#include "nuvLog.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <streambuf>
#include <string_view>

namespace Nuv::Net::Http {

namespace {

using Log::debug;
using Log::getStandardSource;

constexpr char toLower( char c )
{
    return c >= 'A' && c <= 'Z' ? static_cast< char >( c - 'A' + 'a' ) : c;
}

unsigned int flagsOf( int c )
{
    return HttpParserHelper::ourCharFlags[static_cast< unsigned char >( c )];
}

} // namespace

// -------------------------------------------------------------------------------------- tables

namespace {

constexpr std::uint8_t flagsOfByte( int byte )
{
    const auto isIn = [byte]( int first, int last ) { return byte >= first && byte <= last; };
    unsigned int flags = byte < 128 ? charAscii : 0;
    if ( byte < 32 || byte == 127 )
        flags |= charControl;
    if ( isIn( '0', '9' ) )
        flags |= charDigit | charHex;
    if ( isIn( 'A', 'F' ) || isIn( 'a', 'f' ) )
        flags |= charHex;
    if ( isIn( 'A', 'Z' ) )
        flags |= charUpper;
    if ( isIn( 'a', 'z' ) )
        flags |= charLower;
    for ( const char c : std::string_view( " \t\"()<>@,;:\\/[]?={}" ) ) {
        if ( byte == c )
            flags |= charSeparator;
    }
    return static_cast< std::uint8_t >( flags );
}

} // namespace

#define NUV_FLAGS_4( n )                                                                           \
    flagsOfByte( n ), flagsOfByte( ( n ) + 1 ), flagsOfByte( ( n ) + 2 ), flagsOfByte( ( n ) + 3 )
#define NUV_FLAGS_16( n )                                                                          \
    NUV_FLAGS_4( n ), NUV_FLAGS_4( ( n ) + 4 ), NUV_FLAGS_4( ( n ) + 8 ), NUV_FLAGS_4( ( n ) + 12 )
#define NUV_FLAGS_64( n )                                                                          \
    NUV_FLAGS_16( n ), NUV_FLAGS_16( ( n ) + 16 ), NUV_FLAGS_16( ( n ) + 32 ),                     \
        NUV_FLAGS_16( ( n ) + 48 )
constexpr std::uint8_t HttpParserHelper::ourCharFlags[256] = {
    NUV_FLAGS_64( 0 ), NUV_FLAGS_64( 64 ), NUV_FLAGS_64( 128 ), NUV_FLAGS_64( 192 ) };
#undef NUV_FLAGS_64
#undef NUV_FLAGS_16
#undef NUV_FLAGS_4

constexpr HttpParserHelper::DateTokenMap::Pair
    HttpParserHelper::ourDateTokenLookupData[ourDateTokenLookupSize] = {
        { "apr", 10 },    { "april", 10 },     { "aug", 14 },      { "august", 14 },
        { "dec", 18 },    { "december", 18 },  { "feb", 8 },       { "february", 8 },
        { "fri", 5 },     { "friday", 5 },     { "gmt", 19 },      { "jan", 7 },
        { "january", 7 }, { "jul", 13 },       { "july", 13 },     { "jun", 12 },
        { "june", 12 },   { "mar", 9 },        { "march", 9 },     { "may", 11 },
        { "mon", 1 },     { "monday", 1 },     { "nov", 17 },      { "november", 17 },
        { "oct", 16 },    { "october", 16 },   { "sat", 6 },       { "saturday", 6 },
        { "sep", 15 },    { "september", 15 }, { "sun", 0 },       { "sunday", 0 },
        { "thu", 4 },     { "thursday", 4 },   { "tue", 2 },       { "tuesday", 2 },
        { "utc", 19 },    { "wed", 3 },        { "wednesday", 3 },
};
static_assert(
    HttpParserHelper::DateTokenMap( HttpParserHelper::ourDateTokenLookupData ).isSorted() );

// ---------------------------------------------------------------------------------------- line

void HttpParserHelper::reset()
{
    myCharState = inName;
    myName.clear();
    myValue.clear();
}

void HttpParserHelper::parseCharBeforeValue( char c )
{
    const bool isBlank = c == ' ' || c == '\t';
    if ( myCharState == afterColon ) {
        if ( isBlank )
            return;
        myCharState = inValue;
        myValue.push_back( c );
    } else if ( c == ':' ) {
        myCharState = afterColon;
    } else if ( myCharState == inName && isBlank ) {
        myCharState = afterName;
    } else if ( myCharState == inName ) {
        myName.push_back( toLower( c ) );
    }
}

void HttpParserHelper::parseChars( std::string_view chars )
{
    std::size_t i = 0;
    for ( ; i < chars.size() && myCharState != inValue; ++i )
        parseCharBeforeValue( chars[i] );
    myValue.append( chars.substr( i ) );
}

// ------------------------------------------------------------------------------- header blocks

namespace {

constexpr int endOfFile = std::char_traits< char >::eof();

/// The lines of one block.
class HeaderReader
{
public:
    HeaderReader( std::streambuf* streamBufPtr, const HeaderLimits& limits )
        : myStreamBuf( *streamBufPtr )
        , myLimits( limits )
        , myKeepsRaw( getStandardSource( debug ).mayEmit() )
    {
        if ( myKeepsRaw )
            myRaw.reserve( 256 );
    }

    void read( HeaderMap* headerMapPtr );

private:
    enum LineState
    {
        atStart = 0,
        crAtStart = 1,
        inside = 2,
        crInside = 3,
        afterLineEnd = 4,
        continuation = 5,
        bad = 6,
        // how a line is left
        endOfLine,
        droppedLine,
        endOfBlock,
        endOfStream
    };

    LineState readLine();
    int readRun( std::size_t* nbrOfLeftPtr );
    LineState nextState( LineState state, char c );
    LineState insideLine( char c, LineState stateAfterCr );
    void store( HeaderMap* headerMapPtr );
    std::string_view rawLine() const;

    std::streambuf& myStreamBuf;
    const HeaderLimits myLimits;
    const bool myKeepsRaw;
    HttpParserHelper myHelper;
    std::string myRaw;
    std::size_t myNbrOfBlockBytes = 0;
    int myLineNbr = 0;
};

void HeaderReader::read( HeaderMap* headerMapPtr )
{
    for ( ;; ++myLineNbr ) {
        switch ( readLine() ) {
        case endOfLine:
            store( headerMapPtr );
            break;
        case droppedLine:
            nuvLogTo( getStandardSource( debug ) )
                << "error while parsing HTTP header line " << myLineNbr
                << ": unexpected control characters";
            break;
        case endOfStream:
            nuvLogTo( getStandardSource( debug ) )
                << "error while parsing HTTP request headers: end-of-file";
            return;
        default:
            return;
        }
    }
}

HeaderReader::LineState HeaderReader::readLine()
{
    myHelper.reset();
    myRaw.clear();
    LineState state = atStart;
    std::size_t nbrOfLeft =
        std::min( myLimits.maxLineSize, myLimits.maxBlockSize - myNbrOfBlockBytes );
    for ( int c = myStreamBuf.sgetc(); c != endOfFile;
          c = state == inside ? readRun( &nbrOfLeft ) : myStreamBuf.snextc() ) {
        if ( state == afterLineEnd && c != ' ' && c != '\t' )
            return endOfLine;
        if ( nbrOfLeft-- == 0 )
            return endOfStream;
        ++myNbrOfBlockBytes;
        if ( myKeepsRaw )
            myRaw.push_back( static_cast< char >( c ) );
        state = nextState( state, static_cast< char >( c ) );
        if ( state > bad ) {
            myStreamBuf.sbumpc();
            return state;
        }
    }
    return endOfStream;
}

/// Leaves a byte that is inside a line, and takes those after it up to a control byte in one go.
/// @return the byte to go on with
int HeaderReader::readRun( std::size_t* nbrOfLeftPtr )
{
    char run[128];
    std::size_t size = 0;
    const std::size_t maxSize = std::min( sizeof( run ), *nbrOfLeftPtr );
    int c = myStreamBuf.snextc();
    while ( size < maxSize && c != endOfFile && ( flagsOf( c ) & charControl ) == 0 ) {
        run[size++] = static_cast< char >( c );
        c = myStreamBuf.snextc();
    }
    *nbrOfLeftPtr -= size;
    myNbrOfBlockBytes += size;
    myHelper.parseChars( { run, size } );
    if ( myKeepsRaw )
        myRaw.append( run, size );
    return c;
}

HeaderReader::LineState HeaderReader::nextState( LineState state, char c )
{
    switch ( state ) {
    case inside:
        return insideLine( c, crInside );
    case atStart:
        return c == '\n' ? endOfBlock : insideLine( c, crAtStart );
    case crAtStart:
        return c == '\n' ? endOfBlock : bad;
    case crInside:
        return c == '\n' ? afterLineEnd : bad;
    case afterLineEnd:
        return continuation;
    case continuation:
        if ( c == ' ' || c == '\t' )
            return continuation;
        if ( ( flagsOf( c ) & charControl ) == 0 )
            myHelper.parseChar( ' ' );
        return insideLine( c, crInside );
    default:
        return c == '\n' ? droppedLine : bad;
    }
}

HeaderReader::LineState HeaderReader::insideLine( char c, LineState stateAfterCr )
{
    if ( ( flagsOf( c ) & charControl ) == 0 ) {
        myHelper.parseChar( c );
        return inside;
    }
    if ( c == '\r' )
        return stateAfterCr;
    return c == '\n' ? afterLineEnd : bad;
}

std::string_view HeaderReader::rawLine() const
{
    std::string_view line = myRaw;
    if ( line.ends_with( '\n' ) )
        line.remove_suffix( 1 );
    if ( line.ends_with( '\r' ) )
        line.remove_suffix( 1 );
    return line;
}

void HeaderReader::store( HeaderMap* headerMapPtr )
{
    nuvLogTo( getStandardSource( debug ) ) << "HTTP request header [" << rawLine() << "]";
    HttpHeader header{};
    if ( headerTypeExists( myHelper.name().c_str(), &header ) )
        ( *headerMapPtr )[header] = myHelper.value();
    else
        nuvLogTo( getStandardSource( debug ) )
            << "error while parsing HTTP header line " << myLineNbr
            << ": unable to match header -- \"" << myHelper.name() << "\"";
}

} // namespace

void HttpParserHelper::parseHeaders( std::streambuf* streamBufPtr, HeaderMap* headerMapPtr,
                                     const HeaderLimits& limits )
{
    HeaderReader( streamBufPtr, limits ).read( headerMapPtr );
}

// --------------------------------------------------------------------------------------- dates

namespace {

/// @return false for the end of the text
struct DateScanner
{
    const char* myPtr;
    int myNumber = 0;

    bool next( int* tokenPtr );

private:
    int word();
    int number();
};

bool DateScanner::next( int* tokenPtr )
{
    while ( *myPtr == ',' || *myPtr == ' ' || *myPtr == ':' || *myPtr == '-' )
        ++myPtr;
    if ( *myPtr == '\0' )
        return false;
    const unsigned int flags = flagsOf( *myPtr );
    if ( flags & ( charUpper | charLower ) ) {
        *tokenPtr = word();
    } else if ( flags & charDigit ) {
        *tokenPtr = number();
    } else {
        *tokenPtr = HttpParserHelper::tokenOther;
        ++myPtr;
    }
    return true;
}

int DateScanner::word()
{
    char text[16];
    std::size_t length = 0;
    for ( ; flagsOf( *myPtr ) & ( charUpper | charLower ); ++myPtr ) {
        if ( length + 1 < sizeof( text ) )
            text[length++] = toLower( *myPtr );
    }
    constexpr const auto& data = HttpParserHelper::ourDateTokenLookupData;
    const HttpParserHelper::DateTokenMap map( data );
    const auto i = map.find( std::string_view( text, length ) );
    return i == map.end() ? HttpParserHelper::tokenOther : i->value;
}

int DateScanner::number()
{
    const char* const beginPtr = myPtr;
    while ( flagsOf( *myPtr ) & charDigit )
        ++myPtr;
    const auto result = std::from_chars( beginPtr, myPtr, myNumber );
    return result.ec == std::errc() ? HttpParserHelper::tokenNumber : HttpParserHelper::tokenOther;
}

bool setYear( std::tm* tmPtr, int number )
{
    if ( number < 100 )
        tmPtr->tm_year = number < 70 ? number + 100 : number;
    else
        tmPtr->tm_year = number - 1900;
    return number < 100 || number >= 1600;
}

/// One step of an order of fields: the state that a token of this kind leads to.
struct DateStep
{
    int state;
    char kind; // 'd'ay name, 'm'onth name, 'n'umber, 'z'one
    int nextState;
    int std::tm::*fieldPtr; // null: the year, or nothing for the zone
};

constexpr int dateIsRead = 13;
constexpr DateStep dateSteps[] = {
    { 0, 'd', 1, &std::tm::tm_wday },
    { 1, 'n', 2, &std::tm::tm_mday },
    { 1, 'm', 8, &std::tm::tm_mon },
    { 2, 'm', 3, &std::tm::tm_mon },
    { 3, 'n', 4, nullptr },
    { 4, 'n', 5, &std::tm::tm_hour },
    { 5, 'n', 6, &std::tm::tm_min },
    { 6, 'n', 7, &std::tm::tm_sec },
    { 7, 'z', dateIsRead, nullptr },
    { 8, 'n', 9, &std::tm::tm_mday },
    { 9, 'n', 10, &std::tm::tm_hour },
    { 10, 'n', 11, &std::tm::tm_min },
    { 11, 'n', 12, &std::tm::tm_sec },
    { 12, 'n', dateIsRead, nullptr },
};

char kindOf( int token )
{
    if ( token < HttpParserHelper::tokenJanuary )
        return 'd';
    if ( token < HttpParserHelper::tokenZone )
        return 'm';
    return token == HttpParserHelper::tokenZone     ? 'z'
           : token == HttpParserHelper::tokenNumber ? 'n'
                                                    : '?';
}

} // namespace

bool HttpParserHelper::parseTime( std::tm* tmPtr, const char* textPtr )
{
    tmPtr->tm_yday = 0;
    tmPtr->tm_isdst = 0;
    DateScanner scanner{ textPtr };
    int token = 0;
    for ( int state = 0; scanner.next( &token ); ) {
        const auto stepPtr = std::find_if(
            std::begin( dateSteps ), std::end( dateSteps ), [&]( const DateStep& step ) {
                return step.state == state && step.kind == kindOf( token );
            } );
        if ( stepPtr == std::end( dateSteps ) )
            return false;
        if ( stepPtr->fieldPtr != nullptr )
            tmPtr->*stepPtr->fieldPtr = stepPtr->kind == 'n'   ? scanner.myNumber
                                        : stepPtr->kind == 'm' ? token - tokenJanuary
                                                               : token;
        else if ( stepPtr->kind == 'n' && !setYear( tmPtr, scanner.myNumber ) )
            return false;
        state = stepPtr->nextState;
        if ( state == dateIsRead )
            return true;
    }
    return false;
}

// ------------------------------------------------------------------------------------- escapes

namespace {

int hexValue( char c )
{
    if ( flagsOf( c ) & charDigit )
        return c - '0';
    return toLower( c ) - 'a' + 10;
}

} // namespace

void HttpParserHelper::unescapeHex( std::string* textPtr )
{
    const std::string& text = *textPtr;
    const auto isHex = [&]( std::size_t pos ) {
        return pos < text.size() && ( flagsOf( text[pos] ) & charHex );
    };
    std::string result;
    result.reserve( text.size() );
    for ( std::size_t pos = 0; pos < text.size(); ++pos ) {
        const bool isEscape = text[pos] == '%';
        if ( isEscape && isHex( pos + 1 ) && isHex( pos + 2 ) ) {
            result.push_back(
                static_cast< char >( hexValue( text[pos + 1] ) * 16 + hexValue( text[pos + 2] ) ) );
            pos += 2;
        } else if ( !isEscape || ++pos < text.size() ) {
            result.push_back( text[pos] );
        }
    }
    *textPtr = std::move( result );
}

void HttpParserHelper::unescapeSpace( std::string* textPtr )
{
    std::replace( textPtr->begin(), textPtr->end(), '+', ' ' );
}

} // namespace Nuv::Net::Http
