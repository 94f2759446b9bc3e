#include "nuvTestHttp.h"
#include "nuvToolFixture.h"

#include <string>

using NuvTest::Outcome;
using NuvTest::ScriptedServer;
using Peer = ScriptedServer::Peer;

namespace {

const std::string ok = "HTTP/1.1 200 OK\r\nETag: \"1\"\r\n";

class NuvctlHttp : public NuvTest::ToolFixture
{
protected:
    static std::string uriOf( const ScriptedServer& server, const std::string& path )
    {
        return "http://127.0.0.1:" + std::to_string( server.address().port() ) + path;
    }
};

} // namespace

TEST_F( NuvctlHttp, FetchesAndGoesOnWhereItWasBrokenOff )
{
    const std::string file = root( "fetched" );
    ScriptedServer server(
        { []( const Peer& peer ) {
             peer.readRequest();
             peer.send( ok + "Content-Length: 10\r\n\r\nhello" );
         },
          []( const Peer& peer ) {
              peer.readRequest();
              peer.send( "HTTP/1.1 206 P\r\nETag: a\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nwo" );
          },
          []( const Peer& peer ) { peer.readRequest(); },
          []( const Peer& peer ) {
              peer.readRequest();
              peer.send( "HTTP/1.1 206 P\r\nContent-Length: 3\r\n\r\nrld" );
              peer.stall();
          },
          []( const Peer& peer ) {
              peer.readRequest();
              peer.send( "HTTP/1.1 404 Not Found\r\nContent-Length: 2\r\n\r\nno" );
          },
          []( const Peer& peer ) {
              peer.readRequest();
              peer.send( ok + "Content-Length: 4\r\n\r\nbody" );
          } } );
    const Outcome resumed = nuvctl( { "get", uriOf( server, "/f?q" ), "-o", file, "--resume" } );
    EXPECT_EQ( 0, resumed.exitStatus() ) << resumed.errors;
    EXPECT_EQ( "helloworld", NuvTest::readFile( file ) );
    EXPECT_NE( std::string::npos, resumed.errors.find( "broken off after 5 bytes" ) );
    ASSERT_EQ( 4u, server.requests().size() );
    EXPECT_EQ( 0, server.requests()[0].find( "GET /f?q HTTP/1.1\r\nHost: 127.0.0.1:" ) );
    EXPECT_NE( std::string::npos, server.requests()[1].find( "Range: bytes=5-" ) );
    EXPECT_NE( std::string::npos, server.requests()[3].find( "Range: bytes=7-" ) );
    const Outcome missing = nuvctl( { "get", uriOf( server, "/g" ), "-o", file } );
    EXPECT_EQ( 1, missing.exitStatus() );
    EXPECT_EQ( "nuvctl: the server answered 404 Not Found\n", missing.errors );
    EXPECT_EQ( "helloworld", NuvTest::readFile( file ) ) << "untouched";
    EXPECT_NE( 0, ::access( ( file + ".part" ).c_str(), F_OK ) );
    EXPECT_EQ( "body", nuvctl( { "get", uriOf( server, "/" ) } ).output );
}

TEST_F( NuvctlHttp, PostsAFileAndShowsTheAnswer )
{
    ScriptedServer server( { []( const Peer& peer ) {
        peer.readRequest();
        peer.send( ok + "Content-Length: 3\r\n\r\nyes" );
    } } );
    NuvTest::writeFile( root( "body" ), "a body" );
    const Outcome posted =
        nuvctl( { "post", uriOf( server, "/p" ), root( "body" ), "--type", "text/x" } );
    EXPECT_EQ( "yes", posted.output ) << posted.errors;
    ASSERT_EQ( 1u, server.requests().size() );
    EXPECT_NE( std::string::npos, server.requests()[0].find(
                                      "Content-Length: 6\r\nContent-Type: text/x\r\n\r\na body" ) );
}

TEST_F( NuvctlHttp, TakesUrisAndCookiesApart )
{
    EXPECT_EQ( "scheme: http\nhost: h\nport: 80\npath: p\nquery: q\nuri: http://h:80/p?q\n",
               nuvctl( { "uri", "http://h:80/p?q" } ).output );
    EXPECT_EQ( 1, nuvctl( { "uri", "http://:80" } ).exitStatus() );
    NuvTest::ChildProcess cookies( NuvTest::tool( "nuvctl" ),
                                   { { "cookies", "/a", "--json" }, {} } );
    cookies.writeInput( "x=1; path=/a;\ny=2; path=/b;\nz\n" );
    cookies.closeInput();
    EXPECT_NE( std::string::npos, cookies.wait().output.find( "\"sent\": \"x=1\"" ) );
}

TEST_F( NuvctlHttp, RefusesWhatCannotBeFetched )
{
    const char* const cases[][2] = {
        { "https://h/", "TLS is not supported" },
        { "ftp://h/", "does not begin with http://HOST" },
        { "http:///p", "does not begin with http://HOST" },
        { "http://u@h/", "user names are not supported" },
        { "http://h:x/", "its port is no number" },
        { "http://h:65536/", "its port is no number" },
        { "http://h/a b", "blank or control character" },
        { "http://[::1]/", "" },
        { "http://127.0.0.1:1/", "the connection failed: Connection refused" } };
    for ( const auto& test : cases ) {
        const Outcome outcome = nuvctl( { "get", test[0] } );
        EXPECT_EQ( 1, outcome.exitStatus() ) << test[0];
        EXPECT_NE( std::string::npos, outcome.errors.find( test[1] ) ) << outcome.errors;
    }
}

TEST_F( NuvctlHttp, ChecksAndCountsHttpDrains )
{
    const std::string logConf = "[zone/z]\ndrain = web\n[drain/web]\ntype = http\n"
                                "remoteAddr = 127.0.0.1\nremotePort = ";
    configure( logConf + "1\n" );
    EXPECT_NE( std::string::npos,
               nuvctl( { "check" } )
                   .output.find( "no server answers at 127.0.0.1:1: Connection refused" ) );
    NuvTest::ChildProcess holder(
        NuvTest::program( "logProbe" ),
        { { "source z error", "log z error lost", "ready", "wait" }, {} } );
    EXPECT_EQ( "ready", holder.readLine() );
    EXPECT_NE( std::string::npos,
               nuvctl( { "zones" } ).output.find( "drain web has lost 1 messages" ) );
    holder.closeInput();
    holder.wait();
    ScriptedServer server( { []( const Peer& peer ) { peer.stall(); } } );
    configure( logConf + std::to_string( server.address().port() ) + "\n" );
    EXPECT_EQ( std::string::npos, nuvctl( { "check" } ).output.find( "no server" ) );
}
