// Header blocks against Boost.Beast's parser: blocks that are well formed must give the same
// values.

#include "nuvHttp.h"
#include "nuvTestSupport.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http.hpp>
#include <random>
#include <sstream>

namespace {

namespace Beast = boost::beast::http;
using namespace Nuv::Net;

Http::HeaderMap ours( const std::string& block )
{
    std::stringbuf input( block );
    Http::HeaderMap headers;
    Http::readHeaders( &input, &headers );
    return headers;
}

/// What the peer finds; the last value of a name holds, as with us. @return whether it takes the
/// block
bool peers( const std::string& block, Http::HeaderMap* headersPtr )
{
    const std::string text = "HTTP/1.1 200 OK\r\n" + block;
    Beast::response_parser< Beast::empty_body > parser;
    boost::system::error_code error;
    parser.put( boost::asio::buffer( text ), error );
    for ( const auto& field : parser.get() ) {
        std::string name( field.name_string() );
        for ( char& c : name )
            c = static_cast< char >( std::tolower( c ) );
        Http::HttpHeader header{};
        if ( Http::headerTypeExists( name.c_str(), &header ) )
            ( *headersPtr )[header] = std::string( field.value() );
    }
    return parser.is_header_done();
}

TEST( HttpHeaderPeers, wellFormedBlocksGiveTheSame )
{
    const char* const names[] = { "Date",      "SERVER",           "etag",       "Vary",
                                  "x-unknown", "Refresh",          "Set-Cookie", "Keep-Alive",
                                  "Allow",     "WWW-Authenticate", "Via",        "Last-Modified" };
    const std::string bytes = "azAZ09 \t:;,=\"()/-_~\x80\xff";
    std::mt19937 engine( 4711 );
    const auto below = [&engine]( std::size_t limit ) { return engine() % limit; };
    for ( int i = 0; i < 2000; ++i ) {
        std::string block;
        for ( std::size_t lines = below( 12 ); lines != 0; --lines ) {
            block += names[below( std::size( names ) )];
            block += below( 3 ) == 0 ? ":" : ": ";
            // A tab inside is a bad byte to us, and white space at the end is kept: neither here.
            for ( std::size_t size = below( below( 20 ) == 0 ? 400 : 40 ); size != 0; --size ) {
                const char c = bytes[below( bytes.size() )];
                block += c == '\t' ? 'x' : c;
            }
            block += "v" + std::string( below( 6 ) == 0 ? "\r\n folded" : "" ) + "\r\n";
        }
        block += "\r\n";
        Http::HeaderMap expected;
        ASSERT_TRUE( peers( block, &expected ) ) << block;
        ASSERT_EQ( ours( block ), expected ) << block;
    }
}

TEST( HttpHeaderPeers, differencesThatAreMeant )
{
    Http::HeaderMap peer;
    // White space at a value's end stays; lines may end in a bare LF; a bad line alone is dropped.
    EXPECT_EQ( ours( "ETag: a \r\n\r\n" )[Http::headerETag], "a " );
    EXPECT_TRUE( peers( "ETag: a \r\n\r\n", &peer ) );
    EXPECT_EQ( peer[Http::headerETag], "a" );
    EXPECT_EQ( ours( "ETag: a\n\n" )[Http::headerETag], "a" );
    EXPECT_FALSE( peers( "ETag: a\n\n", &peer ) );
    EXPECT_EQ( ours( "Via: a\x01\r\nETag: b\r\n\r\n" ).size(), 1U );
    EXPECT_FALSE( peers( "Via: a\x01\r\nETag: b\r\n\r\n", &peer ) );
}

} // namespace
