// peers: poco_net beast
#include "nuvHttp.h"
#include "nuvHttpCookieCache.h"

#include "nuvBenchLog.h"

#include <benchmark/benchmark.h>
#include <map>
#include <streambuf>
#include <string>
#include <tuple>

#ifdef NUV_PEER_POCO_NET
#include <Poco/Net/MessageHeader.h>
#include <sstream>
#endif
#ifdef NUV_PEER_BEAST
#include <boost/asio/buffer.hpp>
#include <boost/beast/http.hpp>
#endif

using namespace Nuv;

namespace {

const NuvBench::LogRoot ourRoot( "[zone/null]\ndrain = null\n[drain/null]\ntype = null\n" );

const std::string ourBlock = "Date: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
                             "Server: nginx/1.22.1\r\n"
                             "Content-Type: text/html; charset=utf-8\r\n"
                             "Content-Length: 48213\r\n"
                             "Connection: keep-alive\r\n"
                             "Keep-Alive: timeout=20\r\n"
                             "Last-Modified: Sat, 05 Nov 1994 12:00:00 GMT\r\n"
                             "ETag: \"65a1f0c2-bc55\"\r\n"
                             "Accept-Ranges: bytes\r\n"
                             "Cache-Control: max-age=3600, must-revalidate\r\n"
                             "Expires: Sun, 06 Nov 1994 09:49:37 GMT\r\n"
                             "Vary: Accept-Encoding, Accept-Language\r\n"
                             "Age: 120\r\n"
                             "Via: 1.1 cache-a, 1.1 cache-b\r\n"
                             "Content-Language: en\r\n"
                             "Content-Location: /rules/current/index.html\r\n"
                             "Allow: GET, HEAD, POST\r\n"
                             "Pragma: no-cache\r\n"
                             "Set-Cookie: session=0123456789abcdef; path=/rules;\r\n"
                             "Warning: 199 - \"nothing to see\"\r\n"
                             "\r\n";
constexpr std::size_t nbrOfHeaders = 20;

/// Gives out a text again and again without copying it.
class TextStreamBuf : public std::streambuf
{
public:
    void rewind( const std::string& text )
    {
        char* const ptr = const_cast< char* >( text.data() );
        setg( ptr, ptr, ptr + text.size() );
    }
};

void checkCount( benchmark::State& state, std::size_t count )
{
    if ( count != nbrOfHeaders )
        state.SkipWithError( "not every header was found" );
}

void BM_HttpHeaders( benchmark::State& state )
{
    TextStreamBuf input;
    Net::Http::HeaderMap headers;
    for ( [[maybe_unused]] auto one : state ) {
        input.rewind( ourBlock );
        Net::Http::readHeaders( &input, &headers );
    }
    checkCount( state, headers.size() );
}
BENCHMARK( BM_HttpHeaders );

#ifdef NUV_PEER_POCO_NET
void BM_HttpHeaders_Poco( benchmark::State& state )
{
    TextStreamBuf input;
    std::istream stream( &input );
    Poco::Net::MessageHeader headers;
    for ( [[maybe_unused]] auto one : state ) {
        input.rewind( ourBlock );
        stream.clear();
        headers.clear();
        headers.read( stream );
    }
    checkCount( state, headers.size() );
}
BENCHMARK( BM_HttpHeaders_Poco );
#endif

#ifdef NUV_PEER_BEAST
/// With a status line, without which it parses nothing.
void BM_HttpHeaders_Beast( benchmark::State& state )
{
    namespace Http = boost::beast::http;
    const std::string text = "HTTP/1.1 200 OK\r\n" + ourBlock;
    std::size_t count = 0;
    for ( [[maybe_unused]] auto one : state ) {
        Http::response_parser< Http::empty_body > parser;
        boost::system::error_code error;
        parser.put( boost::asio::buffer( text ), error );
        count = 0;
        for ( const auto& field : parser.get() ) {
            benchmark::DoNotOptimize( field.value().data() );
            ++count;
        }
    }
    checkCount( state, count );
}
BENCHMARK( BM_HttpHeaders_Beast );
#endif

// ----------------------------------------------------------------------------- cookies

constexpr int nbrOfCookies = 100;

/// Cookies of ten hosts; each has ten, of which two fit the URI.
std::string pathOfCookie( int i )
{
    return i % 5 == 0 ? "/rules" : "/other" + std::to_string( i );
}

void BM_CookieRetrieval( benchmark::State& state )
{
    Net::HttpCookieCache* const cachePtr = Net::HttpCookieCache::singletonPtr();
    cachePtr->clearCookies( nullptr );
    for ( int i = 0; i < nbrOfCookies; ++i ) {
        const std::string text =
            "name" + std::to_string( i ) + "=value; path=" + pathOfCookie( i ) + ";";
        cachePtr->cacheCookie( ( "10.0.0." + std::to_string( i / 10 ) ).c_str(), text.c_str() );
    }
    Net::HttpCookieCache::CookieInfoPtrSet cookies;
    for ( [[maybe_unused]] auto one : state )
        cachePtr->retrieveCookies( "10.0.0.5", "/rules/current", &cookies );
    if ( cookies.size() != 2 )
        state.SkipWithError( "not the cookies that fit" );
}
BENCHMARK( BM_CookieRetrieval );

/// The peer: a sorted map of values; what fits is copied.
void BM_CookieRetrieval_Map( benchmark::State& state )
{
    using Key = std::tuple< std::string, std::string, std::string >; // host, path, name
    std::map< Key, std::string > cookies;
    for ( int i = 0; i < nbrOfCookies; ++i ) {
        cookies[Key( "10.0.0." + std::to_string( i / 10 ), pathOfCookie( i ),
                     "name" + std::to_string( i ) )] = "value";
    }
    const std::string uri = "/rules/current";
    std::map< std::string, std::string > found;
    for ( [[maybe_unused]] auto one : state ) {
        found.clear();
        for ( auto i = cookies.lower_bound( Key( "10.0.0.5", "", "" ) );
              i != cookies.end() && std::get< 0 >( i->first ) == "10.0.0.5"; ++i ) {
            const std::string& path = std::get< 1 >( i->first );
            if ( uri.compare( 0, path.size(), path ) == 0 )
                found.emplace( std::get< 2 >( i->first ), i->second );
        }
    }
    if ( found.size() != 2 )
        state.SkipWithError( "not the cookies that fit" );
}
BENCHMARK( BM_CookieRetrieval_Map );

} // namespace
