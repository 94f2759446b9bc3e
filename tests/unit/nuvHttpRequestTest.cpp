#include "nuvHttpRequest.h"

#include "nuvHttpCookieCache.h"
#include "nuvLogCapture.h"
#include "nuvTestHttp.h"
#include "nuvTestInterprocess.h"
#include "nuvTestWrap.h"
#include "nuvTime.h"

#include <functional>
#include <sstream>
#include <string>

using namespace Nuv;
using namespace Nuv::Net;
using NuvTest::MemoryConnection;
using NuvTest::ScriptedServer;
using Peer = ScriptedServer::Peer;

namespace {

// Of this thread: the servers run on others.
thread_local int ourNbrOfSends = 0;
thread_local int ourNbrOfReceives = 0;

} // namespace

NUV_WRAP_REAL( ssize_t, send, ( int fd, const void* p, size_t n, int flags ),
               ( ++ourNbrOfSends, __real_send( fd, p, n, flags ) ) )
NUV_WRAP_REAL( ssize_t, recv, ( int fd, void* p, size_t n, int flags ),
               ( ++ourNbrOfReceives, __real_recv( fd, p, n, flags ) ) )

namespace {

class HttpRequests : public NuvTest::RootFixture
{
protected:
    HttpRequests()
    {
        const_cast< Log::Zone& >( Log::getStandardSource( Log::debug ).zone() )
            .severity( Log::debug );
        HttpCookieCache::singletonPtr()->clearCookies( nullptr );
    }
};

// "reason,error number" of a failure, else the outcome of the action.
std::string outcomeOf( const std::function< std::string() >& action )
{
    try {
        return action();
    } catch ( const Http::Exception& e ) {
        return std::to_string( e.reason() ) + "," + std::to_string( e.errorNbr() );
    }
}

std::string failure( int reason, int errorNbr )
{
    return std::to_string( reason ) + "," + std::to_string( errorNbr );
}

// What a GET makes of an answer: the content, or the failure; then what was not read.
std::string got( const std::string& answer, bool usesOutput, bool stops = false )
{
    MemoryConnection connection( answer );
    HttpGetRequest get( &connection );
    get.stopAtContentLength( stops );
    std::ostringstream output;
    const std::string outcome = outcomeOf( [&] {
        get.issue( "/", usesOutput ? &output : nullptr );
        EXPECT_EQ( get.response().bodyBuffer().size() + output.str().size(),
                   get.receivedResponseSize() );
        return usesOutput ? output.str() : get.response().bodyBuffer().str();
    } );
    const std::string rest = connection.notRead();
    return rest.empty() ? outcome : outcome + " rest " + rest;
}

using Connection = std::unique_ptr< TcpConnectionStream >;

Connection connect( const ScriptedServer& server )
{
    return Connection(
        HttpRequest::createTcpRequestConnectionStream( server.address(), 1500, 1500, 5000 ) );
}

constexpr const char* ok = "HTTP/1.1 200 OK\r\n";

} // namespace

TEST_F( HttpRequests, ReadEveryFormOfContent )
{
    const std::string head = ok;
    const struct
    {
        std::string answer;
        std::string content;
        const char* output; // null: the same
    } cases[] = {
        { head + "Content-Length: 5\r\n\r\nhello", "hello", nullptr },
        { head + "Content-Length: 5\r\n\r\nhellomore", "hello rest more", "3,325" },
        { head + "Content-Length: 0\r\n\r\nmore", " rest more", nullptr },
        { head + "Content-Length: 6\r\n\r\nhello", "3,325", nullptr },
        { head + "Content-Length: -1\r\n\r\nhello", "3,325 rest hello", nullptr },
        { head + "Content-Length: 99999999999\r\n\r\nhello", "3,325 rest hello", nullptr },
        { head + "Content-Length: 4000000000\r\n\r\nhello", "3,325", nullptr },
        { head + "Connection: CLOSE\r\n\r\nhello", "hello", nullptr },
        { head + "Connection: keep-alive\r\n\r\nhello", "3,344 rest hello", nullptr },
        { head + "\r\nhello", "3,337 rest hello", nullptr },
        { "HTTP/1.1 100 Continue\r\n\r\n" + head, "3,337 rest " + head, nullptr },
        { "HTTP/1.1 204 No Content\r\n\r\n", "3,337", nullptr },
        { head + "Transfer-Encoding: Chunked\r\nContent-Length: 3\r\n\r\n5\r\nhello\r\n1 \t\r\n!"
                 "skipped\r\n0\r\nTrailer: x\r\n\r\nmore",
          "hello! rest more", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n", "", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n00000005\r\nhello\r\n0\r\n\r\n", "hello",
          nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n000000005\r\n", "3,409 rest \r\n", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n5;ext\r\n", "3,409 rest ext\r\n", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n\r\n", "3,409 rest \n", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n5\n", "3,409", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n5\r\rhello", "3,470 rest hello", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n5\r\nhell", "3,431", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\nFFFFFFFF\r\nhell", "3,431", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello0\r", "3,470", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello", "3,463", nullptr },
        { head + "Transfer-Encoding: chunked\r\n\r\n0\r\nTrailer", "3,463", nullptr },
        { "", "3,212", nullptr },
        { "HTTP/1.1 200 OK", "3,212", nullptr },
        { "HTTP/1.1 200 \xC3\xA4\r\n", "3,212 rest \xA4\r\n", nullptr },
        { "HTTP/1.1 200\r\n\r\n", "3,518 rest \r\n", nullptr },
        { "HTTP/2.0 200 OK\r\n", "3,501", nullptr },
        { "\r\nHTTP/1.1 200 OK\r\n", "3,501 rest HTTP/1.1 200 OK\r\n", nullptr },
        { "HTTP/1.1 0 OK\r\n", "3,509", nullptr },
        { "HTTP/1.1 OK\r\n", "3,509", nullptr },
        { "HTTP/1.1 4294967496 OK\r\n", "3,509", nullptr },
    };
    for ( const auto& test : cases ) {
        SCOPED_TRACE( test.answer );
        EXPECT_EQ( test.content, got( test.answer, false ) );
        EXPECT_EQ( test.output != nullptr ? test.output : test.content, got( test.answer, true ) );
    }
    EXPECT_EQ( "hello rest more", got( head + "Content-Length: 5\r\n\r\nhellomore", true, true ) );
    // 1023 bytes of status line, then 1024.
    const std::string longReason( 1007, 'x' );
    EXPECT_EQ( "3,337", got( "HTTP/1.1 200 " + longReason + "xx\n\n", false ) );
    EXPECT_EQ( "3,217 rest \n\n",
               got( "HTTP/1.1 200 " + longReason + "xxx\n\n", false ).substr( 0, 13 ) + "\n" );
    // Trailers and the rest of a line have an end.
    const std::string chunked = head + "Transfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ( "3,463",
               got( chunked + "0\r\n" + std::string( 70000, 'x' ), false ).substr( 0, 5 ) );
    std::string trailers;
    for ( int i = 0; i < 20; ++i )
        trailers += std::string( 60000, 't' ) + "\r\n";
    EXPECT_EQ( "3,463", got( chunked + "0\r\n" + trailers + "\r\n", false ).substr( 0, 5 ) );
}

TEST_F( HttpRequests, LogTheirSteps )
{
    const Log::Capture capture( "Nuv" );
    got( std::string( ok ) + "Content-Length: 6\r\nSet-Cookie: a=b;\r\n\r\nhello", false );
    got( std::string( ok ) + "Connection: x\r\n\r\n", false );
    got( std::string( ok ) + "\r\n", false );
    for ( const char* textPtr :
          { "sendHeaders: to URI /", "addCachedCookiesToHeader: adding 0 cookies to cookie header",
            "addCachedCookiesToHeader: adding 1 cookies", "receiveResponse: Enter",
            "receiveResponse: received status line: HTTP/1.1 200 OK",
            "receiveResponse: cached cookie a=b;", "receiveResponse: reading content size 6",
            "receiveResponse: updated myReceivedResponseSize to 5",
            "receiveResponse: only read 5 bytes, contentLen = 6", "missing content length header",
            "connection header exists, but its value is not \"close\"",
            "missing content and connection header" } )
        EXPECT_TRUE( capture.contains( textPtr ) ) << textPtr;
}

TEST_F( HttpRequests, WriteTheirLinesInOrder )
{
    const std::string answer =
        std::string( ok ) + "Set-Cookie: id=7; path=/p;\r\nContent-Length: 2\r\n\r\nab";
    MemoryConnection connection( answer + answer + answer + answer );
    HttpGetRequest get( &connection );
    get.issue( "/path", nullptr );
    EXPECT_EQ( "GET /path HTTP/1.1\r\nHost: 10.1.2.3\r\nUser-Agent: Mozilla/4.76 [en] "
               "(compatible; U)\r\n\r\n",
               connection.sent() );
    EXPECT_EQ( " OK", get.response().reason() );
    EXPECT_EQ( 200, get.response().statusCode() );
    EXPECT_EQ( 1, get.response().version() );
    std::size_t sentSize = connection.sent().size();
    get.version( 0 );
    get.variables() = { { "b", "2" }, { "a", "1" } };
    get.headerMap()[Http::headerHost] = "mine";
    get.headerMap()[Http::headerUserAgent] = "me";
    get.headerMap()[Http::headerAccept] = "*";
    get.issue( "/page", nullptr );
    EXPECT_EQ( "GET /page?a=1&b=2 HTTP/1.0\r\nAccept: *\r\nHost: mine\r\nUser-Agent: me\r\n"
               "Cookie: id=7\r\n\r\n",
               connection.sent().substr( sentSize ) );
    EXPECT_EQ( 0u, get.headerMap().count( Http::headerCookie ) ) << "taken out again";
    char text[3] = {};
    get.response().body().read( text, 2 );
    EXPECT_STREQ( "ab", text );
    HttpPostRequest post( &connection );
    post.useCookieCache( false );
    post.readIdleTimeoutInSeconds( 9 );
    EXPECT_EQ( 9u, connection.idleTimeout );
    sentSize = connection.sent().size();
    post.issue( "/form", Http::VariableMap{ { "n", "v+w" } } );
    EXPECT_EQ( "POST /form HTTP/1.1\r\nHost: 10.1.2.3\r\nUser-Agent: Mozilla/4.76 [en] "
               "(compatible; U)\r\nContent-Length: 5\r\n"
               "Content-Type: application/x-www-form-urlencoded\r\n\r\nn=v+w",
               connection.sent().substr( sentSize ) );
    post.issue( "/empty", Utils::Buffer() );
    EXPECT_EQ( 2u, post.receivedResponseSize() ) << "counted anew";
    EXPECT_NE( std::string::npos, connection.sent().find( "Content-Length: 0\r\n" ) );
    EXPECT_EQ( failure( 2, 586 ), outcomeOf( [&] {
                   get.resume( &connection, nullptr );
                   return "";
               } ) );
}

TEST_F( HttpRequests, ResumeWhereTheyWereBrokenOff )
{
    const std::string first = std::string( ok ) + "Date: then\r\nContent-Length: 10\r\n";
    const std::string tagged = first + "ETag: \"v1\"\r\n\r\nhello";
    const struct
    {
        std::string first;
        std::string second;
        const char* sent;
        const char* outcome;
        const char* outputOutcome; // null: the same
    } cases[] = {
        { tagged, "HTTP/1.1 206 Part\r\nContent-Length: 5\r\n\r\nworld", "Range: bytes=5-\r\n",
          "helloworld", nullptr },
        { tagged, "HTTP/1.1 206 Part\r\nContent-Length: 5\r\n\r\nworld", "If-Range: \"v1\"\r\n",
          "helloworld", nullptr },
        { first + "\r\nhello", "HTTP/1.1 206 Part\r\nContent-Length: 5\r\n\r\nworld",
          "If-Range: then\r\n", "helloworld", nullptr },
        { tagged,
          "HTTP/1.1 206 P\r\nContent-Range: bytes 5-9/10\r\nTransfer-Encoding: chunked\r\n\r\n"
          "5\r\nworld\r\n0\r\n\r\n",
          "", "helloworld", nullptr },
        { tagged, "HTTP/1.1 206 P\r\nConnection: close\r\n\r\nworld", "", "helloworld", nullptr },
        { tagged, "HTTP/1.1 206 P\r\nContent-Length: 6\r\n\r\nworlds", "", "3,300", "helloworlds" },
        { tagged, "HTTP/1.1 206 P\r\nContent-Range: bytes 4-9/10\r\nContent-Length: 5\r\n\r\nworld",
          "", "3,266", nullptr },
        { tagged, std::string( ok ) + "Content-Length: 5\r\n\r\nworld", "", "3,266", nullptr },
        { tagged, "", "", "3,212", nullptr },
    };
    for ( const auto& test : cases ) {
        for ( const bool usesOutput : { false, true } ) {
            SCOPED_TRACE( test.second + ( usesOutput ? " output" : "" ) );
            MemoryConnection one( test.first );
            MemoryConnection two( test.second, "10.9.9.9" );
            std::ostringstream output;
            std::ostream* const outputPtr = usesOutput ? &output : nullptr;
            HttpGetRequest get( &one );
            get.readIdleTimeoutInSeconds( 4 );
            EXPECT_EQ( failure( 3, 325 ), outcomeOf( [&] {
                           get.issue( "/f", outputPtr );
                           return "";
                       } ) );
            EXPECT_EQ( 5u, get.receivedResponseSize() );
            const std::string outcome = outcomeOf( [&] {
                get.resume( &two, outputPtr );
                return usesOutput ? output.str() : get.response().bodyBuffer().str();
            } );
            EXPECT_EQ( usesOutput && test.outputOutcome ? test.outputOutcome : test.outcome,
                       outcome );
            EXPECT_NE( std::string::npos, two.sent().find( test.sent ) ) << two.sent();
            EXPECT_NE( std::string::npos, two.sent().find( "Host: 10.9.9.9\r\n" ) );
            EXPECT_EQ( 4u, two.idleTimeout );
            EXPECT_EQ( 0u, get.headerMap().count( Http::headerRange ) +
                               get.headerMap().count( Http::headerIfRange ) );
        }
    }
}

TEST_F( HttpRequests, ReportABodyOrOutputThatIsNotTaken )
{
    MemoryConnection connection( std::string( ok ) + "Content-Length: 5\r\n\r\nhello" );
    HttpGetRequest get( &connection );
    std::ostream nowhere( nullptr );
    struct Full : std::streambuf
    {
    } full;
    nowhere.rdbuf( &full );
    EXPECT_EQ( failure( 3, 325 ), outcomeOf( [&] {
                   get.issue( "/", &nowhere );
                   return "";
               } ) );
    EXPECT_TRUE( nowhere.bad() );
    MemoryConnection refusing( "" );
    HttpPostRequest post( &refusing );
    NuvTest::expectFailure( "connectionPtr != NULL", [] { HttpGetRequest none( nullptr ); } );
    NuvTest::expectFailure( "uriPtr != NULL",
                            [&] { post.issue( nullptr, Utils::Buffer( "x" ) ); } );
}

// -------------------------------------------------------------------------------- over sockets

TEST_F( HttpRequests, ReadAnAnswerHoweverItIsCut )
{
    const std::string body( 3000, 'b' );
    const std::string sized = std::string( ok ) + "Content-Length: 3000\r\n\r\n" + body;
    const std::string chunked =
        std::string( ok ) + "Transfer-Encoding: chunked\r\n\r\nBB8\r\n" + body + "\r\n0\r\n\r\n";
    ScriptedServer server( { [&]( const Peer& peer ) {
        peer.readRequest();
        peer.sendSlowly( sized );
        peer.readRequest();
        peer.sendSlowly( chunked );
        for ( const std::string& whole : { sized, chunked } ) {
            peer.readRequest();
            peer.send( whole );
        }
        peer.stall();
    } } );
    const Connection connection = connect( server );
    for ( int i = 0; i < 4; ++i ) {
        HttpGetRequest get( connection.get() );
        get.stopAtContentLength( true );
        std::ostringstream output;
        get.issue( "/", i % 2 == 0 ? &output : nullptr );
        EXPECT_TRUE( body == ( i % 2 == 0 ? output.str() : get.response().bodyBuffer().str() ) )
            << i;
    }
}

TEST_F( HttpRequests, FailByReasonWhenThePeerMisbehaves )
{
    const std::string head = std::string( ok ) + "Content-Length: 5000\r\n\r\n";
    const auto script = []( const std::string& answer, const auto& end ) {
        return [=]( const Peer& peer ) {
            peer.readRequest();
            peer.send( answer );
            ( peer.*end )();
        };
    };
    const std::string part = head + std::string( 2000, 'x' );
    const struct
    {
        const char* what;
        ScriptedServer::Script script;
        std::string outcome;
    } cases[] = {
        { "closed at once", []( const Peer& ) {}, failure( 1, ECONNRESET ) },
        { "head, reset", script( "HTTP/1.1 200 OK\r\nCo", &Peer::reset ),
          failure( 1, ECONNRESET ) },
        { "part, reset", script( part, &Peer::reset ), failure( 1, ECONNRESET ) },
        { "part, closed", [&]( const Peer& p ) { p.readRequest(), p.send( part ); },
          failure( 3, 325 ) },
        { "head, stalled", script( "HTTP/1.1", &Peer::stall ), failure( 1, 0 ) },
        { "part, stalled", script( part, &Peer::stall ), failure( 1, 0 ) },
    };
    for ( const auto& test : cases ) {
        ScriptedServer server( { test.script } );
        for ( const bool usesOutput : { false, true } ) {
            SCOPED_TRACE( test.what );
            const Connection connection = connect( server );
            HttpGetRequest get( connection.get() );
            get.readIdleTimeoutInSeconds( 1 );
            std::ostringstream output;
            const std::string outcome = outcomeOf( [&] {
                get.issue( "/", usesOutput ? &output : nullptr );
                return "no failure";
            } );
            const bool isEarly = outcome == failure( 1, EPIPE ) || outcome == failure( 3, 212 );
            EXPECT_EQ( test.outcome, isEarly ? test.outcome : outcome );
            EXPECT_EQ( get.receivedResponseSize(),
                       usesOutput ? output.str().size() : get.response().bodyBuffer().size() );
        }
    }
}

TEST_F( HttpRequests, EndWithoutEndWhenTheServerSendsForEver )
{
    const auto endless = []( const std::string& head, const std::string& more ) {
        return [=]( const Peer& peer ) {
            peer.readRequest();
            peer.send( head );
            std::string block;
            while ( block.size() < 100000 )
                block += more;
            for ( int i = 0; i < 100; ++i )
                peer.send( block );
        };
    };
    const std::string chunked = std::string( ok ) + "Transfer-Encoding: chunked\r\n\r\n";
    ScriptedServer server( { endless( ok, "A: b\r\n" ), endless( ok, "x" ),
                             endless( chunked + "5", " " ), endless( "", "x" ),
                             endless( chunked + "0\r\n", "t: x\r\n" ) } );
    for ( const char* expected : { "3,337", "3,337", "3,463", "3,217", "3,463" } ) {
        const Connection connection = connect( server );
        HttpGetRequest get( connection.get() );
        EXPECT_EQ( expected, outcomeOf( [&] {
                       get.issue( "/", nullptr );
                       return "";
                   } ) );
    }
}

TEST_F( HttpRequests, TakeOneSendAndOneReceiveWhenSmall )
{
    ScriptedServer server( { []( const Peer& peer ) {
        while ( peer.readRequest() )
            peer.send( std::string( ok ) + "Content-Length: 4\r\n\r\nbody" );
    } } );
    const Connection connection = connect( server );
    HttpPostRequest post( connection.get() );
    for ( int i = 0; i < 3; ++i ) {
        ourNbrOfSends = ourNbrOfReceives = 0;
        EXPECT_EQ( "body", post.issue( "/", Utils::Buffer( "content" ) )->bodyBuffer().str() );
        EXPECT_EQ( 1, ourNbrOfSends );
        EXPECT_EQ( 1, ourNbrOfReceives );
    }
}

TEST_F( HttpRequests, StreamBuffersKeepLimitsAndPutBack )
{
    ScriptedServer server( { []( const Peer& peer ) {
        peer.send( "0123456789abcdefghijklmnopqrstuvwxyz" );
        peer.stall();
    } } );
    TcpSocket socket( AF_INET, SOCK_STREAM, 0 );
    socket.connect( server.address() );
    SocketStreamBuf buf( &socket, 1, 1 ); // taken as 10
    EXPECT_EQ( 0, buf.readLimit( 24 ) );
    char text[64] = {};
    EXPECT_EQ( 3, buf.sgetn( text, 3 ) );
    EXPECT_EQ( '2', buf.sungetc() );
    EXPECT_EQ( 21 + 1, buf.sgetn( text, 60 ) ) << "up to the limit";
    EXPECT_STREQ( "23456789abcdefghijklmn", text );
    for ( const char c : { 'n', 'm', 'l', 'k' } )
        EXPECT_EQ( c, buf.sungetc() );
    EXPECT_EQ( EOF, buf.sungetc() );
    EXPECT_EQ( 24, buf.readLimit( 2 ) );
    EXPECT_EQ( 2, buf.sgetn( text, 10 ) ) << "what is buffered counts and is cut";
    EXPECT_EQ( 2, buf.readLimit( 0 ) );
    EXPECT_EQ( 12, buf.sgetn( text, 12 ) );
    EXPECT_EQ( 'o', text[0] );
    TcpConnectionStream* const streamPtr =
        HttpRequest::createTcpRequestConnectionStream( server.address(), 10, 10 );
    TcpConnectionStream::timerCallback( nullptr, streamPtr );
    EXPECT_EQ( EOF, streamPtr->istreamPtr()->get() );
    delete streamPtr;
    NuvTest::expectFailure( "objPtr != NULL",
                            [] { TcpConnectionStream::timerCallback( nullptr, nullptr ); } );
    NuvTest::expectFailure( "mySocketPtr != NULL",
                            [] { SocketStreamBuf none( nullptr, 10, 10 ); } );
}
