#include "nuvHttp.h"

#include "nuvBase64.h"
#include "nuvBuffer.h"
#include "nuvLog.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <streambuf>
#include <string_view>

namespace Nuv::Net::Http {

namespace {

using Log::debug;
using Log::getStandardSource;

char toLower( char c )
{
    return c >= 'A' && c <= 'Z' ? static_cast< char >( c - 'A' + 'a' ) : c;
}

} // namespace

void Exception::getReasonStr() const
{
    using Map = Utils::StaticMap< int, const char* >;
    static constexpr Map::Pair ourReasonMap[] = {
        { tlsNotSupported, "TLS not supported" },
        { connectionFailed, "HTTP connection failed" },
        { sendFailed, "Send HTTP request failed" },
        { receiveFailed, "Receive HTTP response failed" },
    };
    constexpr Map reasonMap( ourReasonMap );
    const auto i = reasonMap.find( myReason );
    if ( i == reasonMap.end() )
        RuntimeException::getReasonStr();
    else
        myText = i->value;
}

// ------------------------------------------------------------------------------- header blocks

void readHeaders( std::streambuf* streamBufPtr, HeaderMap* headerMapPtr,
                  const HeaderLimits& limits )
{
    headerMapPtr->clear();
    HttpParserHelper::parseHeaders( streamBufPtr, headerMapPtr, limits );
}

void writeHeaders( std::ostream& stream, const HeaderMap& headerMap )
{
    for ( const auto& [header, value] : headerMap ) {
        const auto text = ourHeaderTextLookupMap.find( header );
        if ( value.empty() || text == ourHeaderTextLookupMap.end() )
            continue;
        stream << text->value << ": " << value << "\r\n";
        nuvLogTo( getStandardSource( debug ) )
            << "HTTP header [" << text->value << ": " << value << "]";
    }
}

void writeVariables( std::ostream& stream, const VariableMap& variables )
{
    const char* separatorPtr = "";
    for ( const auto& [name, value] : variables ) {
        stream << separatorPtr << name << '=' << value;
        separatorPtr = "&";
    }
}

bool contentLengthHeaderExists( const HeaderMap& headerMap, unsigned int* lengthPtr )
{
    const auto i = headerMap.find( headerContentLength );
    if ( i == headerMap.end() )
        return false;
    bool overflows = false;
    const std::int64_t value = Utils::strtoi64( i->second.c_str(), nullptr, 10, &overflows );
    *lengthPtr = overflows || value < 0 || value > invalidContentLength
                     ? invalidContentLength
                     : static_cast< unsigned int >( value );
    return true;
}

void insertContentLengthHeader( unsigned int length, HeaderMap* headerMapPtr )
{
    ( *headerMapPtr )[headerContentLength] = std::to_string( length );
}

void insertDateHeader( const Utils::Time& time, HeaderMap* headerMapPtr )
{
    char text[httpTimeTextSize];
    timeToHttpText( time, text );
    ( *headerMapPtr )[headerDate] = text;
}

// ------------------------------------------------------------------------- basic authorization

namespace {

std::string_view skipWhiteSpace( std::string_view text )
{
    return text.substr( std::min( text.find_first_not_of( " \t\r\n" ), text.size() ) );
}

bool decodeBase64( std::string_view text, Utils::Buffer* bytesPtr )
{
    try {
        Utils::Base64 base64( Utils::Base64::growOutput );
        base64.reverseUpdate( Utils::Buffer( text ), bytesPtr );
        base64.reverseFinal( bytesPtr );
    } catch ( const Utils::Base64::Exception& ) {
        return false;
    }
    return true;
}

} // namespace

void insertBasicAuthorizationHeader( const char* usernamePtr, const char* passwordPtr,
                                     HeaderMap* headerMapPtr )
{
    nuvAssert( usernamePtr != NULL );
    nuvAssert( passwordPtr != NULL );
    nuvAssert( headerMapPtr != NULL );
    if ( *usernamePtr != '\0' )
        encodeBasicAuthorizationHeaderStr( usernamePtr, passwordPtr,
                                           &( *headerMapPtr )[headerAuthorization] );
}

void encodeBasicAuthorizationHeaderStr( const char* usernamePtr, const char* passwordPtr,
                                        std::string* textPtr )
{
    nuvAssert( usernamePtr != NULL && passwordPtr != NULL );
    Utils::Base64 base64( Utils::Base64::growOutput );
    Utils::Buffer text;
    base64.forwardUpdate( Utils::Buffer( std::string( usernamePtr ) + ":" + passwordPtr ), &text );
    base64.forwardFinal( &text );
    textPtr->assign( "Basic " ).append( text );
    std::erase( *textPtr, '\n' );
}

bool basicAuthorizationHeaderExists( const HeaderMap& headerMap, std::string* usernamePtr,
                                     std::string* passwordPtr )
{
    const auto i = headerMap.find( headerAuthorization );
    if ( i == headerMap.end() )
        return false;
    constexpr std::string_view scheme = "basic";
    std::string_view text = skipWhiteSpace( i->second );
    if ( !std::equal( scheme.begin(), scheme.end(), text.begin(),
                      text.begin() + std::min( scheme.size(), text.size() ),
                      []( char a, char b ) { return a == toLower( b ); } ) )
        return false;
    text = skipWhiteSpace( text.substr( scheme.size() ) );
    Utils::Buffer decoded;
    if ( !decodeBase64( text, &decoded ) )
        return false;
    const std::string_view pair = decoded;
    const std::size_t colon = pair.find( ':' );
    if ( colon == std::string_view::npos || colon == 0 )
        return false;
    *usernamePtr = pair.substr( 0, colon );
    *passwordPtr = pair.substr( colon + 1 ).substr( 0, pair.substr( colon + 1 ).find( '\0' ) );
    return true;
}

// --------------------------------------------------------------------------------------- dates

namespace {

constexpr const char* dayNames[] = { "Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat" };
constexpr const char* monthNames[] = { "Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec" };

bool isLeapYear( std::int64_t year )
{
    return year % 4 == 0 && ( year % 100 != 0 || year % 400 == 0 );
}

int daysOfMonth( std::int64_t year, int month )
{
    constexpr int days[] = { 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31 };
    return month == 1 && isLeapYear( year ) ? 29 : days[month];
}

bool isGregorian( const std::tm& t, std::int64_t year )
{
    return t.tm_sec >= 0 && t.tm_sec <= 60 && t.tm_min >= 0 && t.tm_min <= 59 && t.tm_hour >= 0 &&
           t.tm_hour <= 23 && t.tm_mon >= 0 && t.tm_mon <= 11 && year >= 1582 && t.tm_mday >= 1 &&
           t.tm_mday <= daysOfMonth( year, t.tm_mon );
}

/// From 1 March 1600, where the leap day ends a year of the count.
std::int64_t dayNbr( std::int64_t year, int month, int day )
{
    constexpr int monthStarts[] = { 306, 337, 0, 31, 61, 92, 122, 153, 184, 214, 245, 275 };
    const std::int64_t y = ( month < 2 ? year - 1 : year ) - 1600;
    const std::int64_t era = y >= 0 ? y / 400 : -1;
    const std::int64_t yearOfEra = y - era * 400;
    return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + monthStarts[month] +
           day - 1;
}

} // namespace

void timeToHttpText( const Utils::Time& time, char* textPtr )
{
    const auto seconds = static_cast< std::time_t >( time.ns() / Utils::Time::nsPerSec );
    std::tm t{};
    ::gmtime_r( &seconds, &t );
    std::snprintf( textPtr, httpTimeTextSize, "%s, %02d %s %d %02d:%02d:%02d UTC",
                   dayNames[t.tm_wday], t.tm_mday, monthNames[t.tm_mon], t.tm_year + 1900,
                   t.tm_hour, t.tm_min, t.tm_sec );
}

bool convertGregorianTime( Utils::Time* timePtr, std::tm* tmPtr )
{
    const std::int64_t year = std::int64_t{ tmPtr->tm_year } + 1900;
    if ( !isGregorian( *tmPtr, year ) )
        return false;
    const std::int64_t number = dayNbr( year, tmPtr->tm_mon, tmPtr->tm_mday );
    const std::int64_t days = number - 135080;
    const std::int64_t seconds =
        days * 86400 + tmPtr->tm_hour * 3600 + tmPtr->tm_min * 60 + tmPtr->tm_sec;
    constexpr std::int64_t maxSeconds = 0xFFFFFFFFFFFFFFFF / Utils::Time::nsPerSec;
    if ( days < 0 || seconds > maxSeconds )
        return false;
    tmPtr->tm_wday = static_cast< int >( ( number - 135076 ) % 7 );
    tmPtr->tm_yday = static_cast< int >( number - dayNbr( year, 0, 1 ) );
    tmPtr->tm_isdst = 0;
    timePtr->set( static_cast< std::uint64_t >( seconds ) * Utils::Time::nsPerSec );
    return true;
}

// ----------------------------------------------------------------------------------- encodings

namespace {

void appendHex( unsigned char byte, std::string* textPtr )
{
    constexpr char digits[] = "0123456789ABCDEF";
    textPtr->append( { '%', digits[byte >> 4], digits[byte & 15] } );
}

/// '~' and those from 32 to 63 that have a meaning in URIs and forms.
bool isEncoded( char c )
{
    return c == '~' || ( c != '\0' && std::strchr( "\"%&+/<=>?", c ) != nullptr );
}

} // namespace

void urlEncodeStr( const char* textPtr, std::string* encodedPtr )
{
    encodedPtr->clear();
    for ( ; *textPtr != '\0'; ++textPtr ) {
        const auto byte = static_cast< unsigned char >( *textPtr );
        if ( byte == ' ' )
            encodedPtr->push_back( '+' );
        else if ( isEncoded( *textPtr ) || byte < 31 )
            appendHex( byte, encodedPtr );
        else
            encodedPtr->push_back( *textPtr );
    }
}

void escapeUriStr( const char* textPtr, std::string* escapedPtr )
{
    escapedPtr->clear();
    for ( ; *textPtr != '\0'; ++textPtr ) {
        if ( isEncoded( *textPtr ) || *textPtr == ' ' )
            appendHex( static_cast< unsigned char >( *textPtr ), escapedPtr );
        else
            escapedPtr->push_back( *textPtr );
    }
}

} // namespace Nuv::Net::Http
