#include "nuvHttp.h"

#include "nuvBuffer.h"
#include "nuvLogCapture.h"
#include "nuvTestInterprocess.h"

#include <clocale>
#include <cstring>
#include <string>
#include <vector>

using namespace Nuv;
using namespace Nuv::Net::Http;

namespace {

class HttpHeaders : public NuvTest::RootFixture
{
protected:
    HttpHeaders()
    {
        const_cast< Log::Zone& >( Log::getStandardSource( Log::debug ).zone() )
            .severity( Log::debug );
    }
};

// A header map as "Header=value" texts joined by "|".
std::string textOf( const HeaderMap& headerMap )
{
    std::string text;
    for ( const auto& [header, value] : headerMap )
        text += ( text.empty() ? "" : "|" ) + std::string( headerTypeText( header ) ) + "=" + value;
    return text;
}

// What the block leaves, and behind ">" what of the stream was not read.
std::string parsed( const std::string& block, const HeaderLimits& limits = {} )
{
    Utils::BufferIStreamBuf input( block );
    HeaderMap headerMap{ { headerAge, "old" } };
    readHeaders( &input, &headerMap, limits );
    std::string rest( static_cast< std::size_t >( input.in_avail() > 0 ? input.in_avail() : 0 ),
                      '\0' );
    input.sgetn( rest.data(), static_cast< std::streamsize >( rest.size() ) );
    return textOf( headerMap ) + ">" + rest;
}

constexpr const char* endOfFile = "error while parsing HTTP request headers: end-of-file";

} // namespace

TEST( HttpTables, AgreeWithEachOtherAndReasonsHaveTheirText )
{
    for ( int i = 0; i < ourHttpHeaderTextLookupSize; ++i ) {
        std::string name = headerTypeText( static_cast< HttpHeader >( i ) );
        HttpHeader header = headerZip;
        EXPECT_EQ( name == "x-gzip" || name == "x-release_tag",
                   headerTypeExists( name.c_str(), &header ) );
        for ( char& c : name )
            c = static_cast< char >( std::tolower( c ) );
        ASSERT_TRUE( headerTypeExists( name.c_str(), &header ) ) << name;
        EXPECT_EQ( i, header );
    }
    EXPECT_STREQ( "Receive HTTP response failed [3,501]", Exception( "", 3, 501 ).what() );
    EXPECT_STREQ( "<unknown reason> [4,0]", Exception( "", 4, 0 ).what() );
    EXPECT_STREQ( "X-Torva-Qlex-Parameters", headerTypeText( static_cast< HttpHeader >( 51 ) ) );
    NuvTest::expectFailure( "findResult != ourHeaderTextLookupMap.end()",
                            [] { headerTypeText( static_cast< HttpHeader >( 55 ) ); } );
}

TEST_F( HttpHeaders, AreReadByTheTablesOfStates )
{
    // The last is the message that is logged, null for none but the echoes.
    const char* const cases[][3] = {
        { "\r\nrest", ">rest", nullptr },
        { "Host: a\r\nAge:1\n\r\nx", "Host=a|Age=1>x", nullptr },
        { "HOST: a\r\nhost:  b \r\n\n", "Host=b >", nullptr },
        { "Content-Type : text/html\r\n\n", "Content-Type=text/html>", nullptr },
        { "Content Type: x\r\n\n", ">", "0: unable to match header -- \"content\"" },
        { "no colon\r\nAge: 1\r\n\n", "Age=1>", "0: unable to match header -- \"no\"" },
        { ": x\r\n\n", ">", "unable to match header -- \"\"" },
        { "Host: a\r\n \t b\n\tc\r\n\n", "Host=a b c>", nullptr },
        { "Host: a\r\n \r\n\tb\r\n\n", "Host=a b>", nullptr },
        { "Age: 1\r\nHost: a\tb\r\nVia: v\r\n\n", "Via=v|Age=1>",
          "error while parsing HTTP header line 1: unexpected control characters" },
        { "\tHost: a\r\n\n", ">", "0: unexpected control" },
        { "Host: a\rb\r\nAge: 1\n\n", "Age=1>", "0: unexpected control" },
        { "\rHost: a\nAge: 1\n\n", "Age=1>", "0: unexpected control" },
        { "Host: a\x7f\nAge: 1\n\n", "Age=1>", "0: unexpected control" },
        { "Host: a\r\n \x01\nAge: 1\n\n", "Age=1>", "0: unexpected control" },
        { "Host: \xC3\xA4:/\"\n\n", "Host=\xC3\xA4:/\">", nullptr },
        { "Age: 1\r\nHost: a\r\n", "Age=1>", endOfFile },
        { "Age: 1\r\nHost: a\r\n ", "Age=1>", endOfFile },
        { "", ">", endOfFile },
    };
    for ( const auto& [block, result, message] : cases ) {
        SCOPED_TRACE( block );
        const Log::Capture capture( "Nuv" );
        EXPECT_EQ( result, parsed( block ) );
        EXPECT_EQ( message == endOfFile, capture.contains( endOfFile ) );
        EXPECT_EQ( message != nullptr, capture.contains( message != nullptr ? message : "error" ) );
    }
}

TEST_F( HttpHeaders, AreEchoedWithoutTheirLineEndAndEndWhereTheyGetTooLong )
{
    const Log::Capture capture( "Nuv" );
    parsed( "Host: a\r\n b\r\nAge: 1\nVia: \r\n\r\n" );
    for ( const char* echoPtr : { "[Host: a\r\n b]", "[Age: 1]", "[Via: ]" } )
        EXPECT_TRUE( capture.contains( "HTTP request header " + std::string( echoPtr ) ) );
    const std::string longValue( 90, 'v' );
    const std::string block = "Age: 1\r\nHost: " + longValue + "\r\nVia: 2\r\n\r\n";
    EXPECT_EQ( 0, parsed( block ).find( "Via=2|Host=v" ) );
    EXPECT_EQ( 0, parsed( block, { 97, 1000 } ).find( "Age=1>" ) );
    EXPECT_EQ( 0, parsed( block, { 98, 1000 } ).find( "Via=2" ) );
    EXPECT_EQ( 0, parsed( block, { 1000, 106 } ).find( "Host=" ) );
    EXPECT_EQ( 0, parsed( block, { 1000, 105 } ).find( "Age=1>" ) );
    // An endless line costs no more than the limit.
    EXPECT_EQ( ">", parsed( "Host: " + std::string( 200000, 'x' ) ).substr( 0, 1 ) );
}

TEST_F( HttpHeaders, AreWrittenInOrderWhereTheyHaveAValue )
{
    const Log::Capture capture( "Nuv" );
    Utils::OBufferStream stream;
    writeHeaders( stream, { { headerZip, "z" },
                            { headerDate, "d" },
                            { headerHost, "" },
                            { static_cast< HttpHeader >( 99 ), "x" } } );
    EXPECT_EQ( "Date: d\r\nZip: z\r\n", stream.view() );
    EXPECT_TRUE( capture.contains( "HTTP header [Date: d]" ) );
    stream.reset();
    writeVariables( stream, { { "b", "2" }, { "a", "x y" }, { "b", "1" } } );
    EXPECT_EQ( "a=x y&b=2&b=1", stream.view() );
}

TEST( HttpContentLength, IsNeverASizeThatNoBodyCanHave )
{
    const std::pair< const char*, unsigned int > cases[] = {
        { "12", 12 },
        { " +12x", 12 },
        { "x", 0 },
        { "-1", invalidContentLength },
        { "4294967294", 4294967294U },
        { "4294967296", invalidContentLength },
        { "99999999999999999999999", invalidContentLength } };
    unsigned int length = 7;
    for ( const auto& [text, expected] : cases ) {
        EXPECT_TRUE( contentLengthHeaderExists( { { headerContentLength, text } }, &length ) );
        EXPECT_EQ( expected, length ) << text;
    }
    HeaderMap headerMap;
    EXPECT_FALSE( contentLengthHeaderExists( headerMap, &length ) );
    insertContentLengthHeader( 4000000000U, &headerMap );
    insertDateHeader( Utils::Time( 0 ), &headerMap );
    EXPECT_EQ( "Date=Thu, 01 Jan 1970 00:00:00 UTC|Content-Length=4000000000",
               textOf( headerMap ) );
}

TEST( HttpAuthorization, IsReadBackOrRefusedWithoutTouchingTheOutput )
{
    const std::string longName = "a long name that makes more than sixty characters, in one";
    HeaderMap headerMap;
    insertBasicAuthorizationHeader( "", "x", &headerMap );
    EXPECT_TRUE( headerMap.empty() );
    insertBasicAuthorizationHeader( longName.c_str(), "pa:ss", &headerMap );
    const std::string written = headerMap[headerAuthorization];
    EXPECT_EQ( std::string::npos, written.find( '\n' ) );
    const std::string refused = "as before";
    const std::pair< std::string, std::string > cases[] = {
        { written, longName + " pa:ss" },
        { "basic dXNlcjpwYXNz", "user pass" },
        { " \t\r\nBaSiCdXNlcjpwYXNz", "user pass" },
        { "Basic dTo=", "u " },
        { "Basic dTpwAHg=", "u p" }, // the password ends at a zero byte
        { "Basic OnBhc3M=", refused },
        { "Basic dXNlcg==", refused },
        { "Basic dXNlcjpwYX", refused }, // incomplete quartet
        { "Basic d*NlcjpwYXNz", refused },
        { "Basic", refused },
        { "Bas", refused },
        { "Digest dXNlcjpwYXNz", refused },
        { "", refused } };
    for ( const auto& [value, result] : cases ) {
        SCOPED_TRACE( value );
        std::string user = "as";
        std::string password = "before";
        headerMap[headerAuthorization] = value;
        EXPECT_EQ( result != refused,
                   basicAuthorizationHeaderExists( headerMap, &user, &password ) );
        EXPECT_EQ( result, user + " " + password );
    }
    NuvTest::expectFailure( "usernamePtr != NULL",
                            [&] { insertBasicAuthorizationHeader( nullptr, "", &headerMap ); } );
    NuvTest::expectFailure( "passwordPtr != NULL",
                            [&] { insertBasicAuthorizationHeader( "", nullptr, &headerMap ); } );
    NuvTest::expectFailure( "headerMapPtr != NULL",
                            [] { insertBasicAuthorizationHeader( "", "", nullptr ); } );
}

TEST( HttpDates, AreReadInThreeForms )
{
    constexpr std::int64_t noDate = -2; // but parsed
    // -1: not parsed.
    const std::pair< const char*, std::int64_t > cases[] = {
        { "Sun, 06 Nov 1994 08:49:37 GMT", 784111777 },
        { "Sunday, 06-Nov-94 08:49:37 GMT", 784111777 },
        { "Sun Nov  6 08:49:37 1994", 784111777 },
        { "sun,06-nov-1994-08:49:37utc and more", 784111777 },
        { "Thu, 01 Jan 70 00:00:00 UTC", 0 },
        { "Thu, 01 Jan 69 00:00:00 UTC", 3124224000 },
        { "Thu, 29 Feb 2024 23:59:60 GMT", 1709251200 },
        { "Sun, 21 Jul 2554 23:34:34 GMT", noDate },
        { "Thu, 31 Dec 1969 23:59:59 GMT", noDate },
        { "Thu, 29 Feb 2023 00:00:00 GMT", noDate },
        { "Thu, 01 Jan 2000 24:00:00 GMT", noDate },
        { "Thu, 01 Jan 2000 00:00:61 GMT", noDate },
        { "Thu, 01 Jan 2147483647 00:00:00 GMT", noDate },
        { "01 Jan 1970 00:00:00 GMT", -1 },
        { "Thu, 01 Jan 1970 00:00:00", -1 },
        { "Thu, 01 Jan 1599 00:00:00 GMT", -1 },
        { "Thu Jan 1 00:00:00 150", -1 },
        { "Thu, 01 Jan 99999999999 00:00:00 GMT", -1 },
        { "Thursdayandmuchmorethanthis, 01 Jan 1970 00:00:00 GMT", -1 },
        { "", -1 },
    };
    for ( const auto& [text, seconds] : cases ) {
        SCOPED_TRACE( text );
        std::tm t{};
        t.tm_isdst = 1;
        Utils::Time time( 12345 );
        ASSERT_EQ( seconds != -1, HttpParserHelper::parseTime( &t, text ) );
        if ( seconds == -1 )
            continue;
        EXPECT_EQ( 0, t.tm_isdst );
        ASSERT_EQ( seconds != noDate, convertGregorianTime( &time, &t ) );
        EXPECT_EQ( seconds != noDate ? seconds * 1000000000 : 12345,
                   static_cast< std::int64_t >( time.ns() ) );
    }
}

TEST( HttpDates, ConvertAsThePlatformDoes )
{
    std::setlocale( LC_ALL, "" );
    for ( std::int64_t seconds = 0; seconds < 18000000000; seconds += 7654321 ) {
        const auto platformSeconds = static_cast< std::time_t >( seconds );
        std::tm expected{};
        ::gmtime_r( &platformSeconds, &expected );
        char text[httpTimeTextSize];
        Utils::Time time( static_cast< std::uint64_t >( seconds ) * Utils::Time::nsPerSec + 999 );
        timeToHttpText( time, text );
        std::tm t{};
        ASSERT_TRUE( HttpParserHelper::parseTime( &t, text ) ) << text;
        t.tm_wday = -1;
        ASSERT_TRUE( convertGregorianTime( &time, &t ) ) << text;
        ASSERT_EQ( static_cast< std::uint64_t >( seconds ), time.ns() / Utils::Time::nsPerSec );
        ASSERT_EQ( expected.tm_wday, t.tm_wday );
        ASSERT_EQ( expected.tm_yday, t.tm_yday );
    }
    char text[httpTimeTextSize];
    timeToHttpText( Utils::Time( 0xFFFFFFFFFFFFFFFF ), text );
    EXPECT_STREQ( "Sun, 21 Jul 2554 23:34:33 UTC", text );
}

TEST( HttpEncodings, AreWrittenByTheirTablesAndTakenBackByteByByte )
{
    std::string all;
    for ( int byte = 1; byte < 256; ++byte )
        all.push_back( static_cast< char >( byte ) );
    std::string form = "rubbish";
    std::string uri = "rubbish";
    urlEncodeStr( all.c_str(), &form );
    escapeUriStr( all.c_str(), &uri );
    EXPECT_EQ( 0, form.find( "%01%02%03" ) );
    EXPECT_NE( std::string::npos,
               form.find( "%1D%1E\x1F+!%22#$%25%26'()*%2B,-.%2F0123456789:;%3C%3D%3E%3F@A" ) );
    EXPECT_NE( std::string::npos, form.find( "{|}%7E\x7F\x80" ) );
    EXPECT_EQ( 0, uri.find( "\x01\x02\x03" ) );
    EXPECT_NE( std::string::npos, uri.find( "\x1E\x1F%20!%22#$%25%26'()*%2B,-.%2F0" ) );
    std::pair< std::string, std::string > cases[] = {
        { uri, all },      { "a%20b%2fc%2F", "a b/c/" },
        { "%", "" },       { "a%4", "a4" },
        { "%%41", "%41" }, { "%g1%41", "g1A" },
        { "%4%41", "4A" }, { "%00x", std::string( "\0x", 2 ) } };
    for ( auto& [text, decoded] : cases ) {
        HttpParserHelper::unescapeHex( &text );
        EXPECT_EQ( decoded, text );
    }
    std::string text = "+a+%2B+";
    HttpParserHelper::unescapeSpace( &text );
    EXPECT_EQ( " a %2B ", text );
}
