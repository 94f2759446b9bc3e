#include "nuvHttpRequest.h"

#include "nuvHttpCookieCache.h"
#include "nuvTestHttp.h"
#include "nuvTestInterprocess.h"
#include "nuvTestWrap.h"

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
    HttpRequests() { HttpCookieCache::singletonPtr()->clearCookies( nullptr ); }
};

std::string failure( int reason, int errorNbr )
{
    return std::to_string( reason ) + "," + std::to_string( errorNbr );
}

// The content that the action has got, in the output if there is one, or "reason,error number".
std::string outcomeOf( HttpGetRequest& get, const std::ostringstream* outputPtr,
                       const std::function< void() >& action )
{
    try {
        action();
    } catch ( const Http::Exception& e ) {
        return failure( e.reason(), e.errorNbr() );
    }
    return outputPtr != nullptr ? outputPtr->str() : get.response().bodyBuffer().str();
}

std::string issued( HttpGetRequest& get, std::ostringstream* outputPtr = nullptr )
{
    const std::string outcome = outcomeOf( get, outputPtr, [&] { get.issue( "/", outputPtr ); } );
    EXPECT_EQ( get.receivedResponseSize(), outputPtr != nullptr
                                               ? outputPtr->str().size()
                                               : get.response().bodyBuffer().size() );
    return outcome;
}

// What a GET makes of an answer, then what was not read.
std::string got( const std::string& answer, bool usesOutput, bool stops = false )
{
    MemoryConnection connection( answer );
    HttpGetRequest get( &connection );
    get.stopAtContentLength( stops );
    std::ostringstream output;
    const std::string outcome = issued( get, usesOutput ? &output : nullptr );
    const std::string rest = connection.notRead();
    return rest.empty() ? outcome : outcome + " rest " + rest;
}

using Connection = std::unique_ptr< TcpConnectionStream >;

Connection connect( const ScriptedServer& server )
{
    return Connection(
        HttpRequest::createTcpRequestConnectionStream( server.address(), 1500, 1500, 5000 ) );
}

const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string sized = ok + "Content-Length: ";
const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";

} // namespace

TEST_F( HttpRequests, ReadEveryFormOfContent )
{
    const auto many = []( const std::string& unit ) {
        std::string text;
        while ( text.size() < 3000000 )
            text += unit;
        return text;
    };
    const std::string longLine = "HTTP/1.1 200 " + std::string( 1009, 'x' );
    const struct
    {
        std::string answer;
        std::string content;     // its begin, if it ends with "..."
        std::string output = {}; // empty: the same
    } cases[] = {
        { sized + "5\r\n\r\nhello", "hello" },
        { sized + "5\r\n\r\nhellomore", "hello rest more", "3,325" },
        { sized + "0\r\n\r\nmore", " rest more" },
        { sized + "6\r\n\r\nhello", "3,325" },
        { sized + "-1\r\n\r\nhello", "3,325 rest hello" },
        { sized + "99999999999\r\n\r\nhello", "3,325 rest hello" },
        { sized + "4000000000\r\n\r\nhello", "3,325" },
        { ok + "Connection: CLOSE\r\n\r\nhello", "hello" },
        { ok + "Connection: keep-alive\r\n\r\nhello", "3,344 rest hello" },
        { ok + "\r\nhello", "3,337 rest hello" },
        { "HTTP/1.1 100 Continue\r\n\r\n" + ok, "3,337 rest " + ok },
        { sized + "3\r\nTransfer-Encoding: Chunked\r\n\r\n5\r\nhello\r\n1 \t\r\n!skipped\r\n"
                  "0\r\nTrailer: x\r\n\r\nmore",
          "hello! rest more" },
        { chunked + "00000005\r\nhello\r\n0\r\n\r\n", "hello" },
        { chunked + "000000005\r\n", "3,409 rest \r\n" },
        { chunked + "5;ext\r\n", "3,409 rest ext\r\n" },
        { chunked + "\r\n", "3,409 rest \n" },
        { chunked + "5\n", "3,409" },
        { chunked + "5\r\rhello", "3,470 rest hello" },
        { chunked + "FFFFFFFF\r\nhell", "3,431" },
        { chunked + "5\r\nhello0\r", "3,470" },
        { chunked + "5\r\nhello", "3,463" },
        { chunked + "0\r\nTrailer", "3,463" },
        { chunked + "0\r\n" + many( "x" ), "3,463 rest ..." },
        { chunked + "0\r\n" + many( "t: x\r\n" ), "3,463 rest ..." },
        { chunked + "5" + many( " " ), "3,463 rest ..." },
        { ok + many( "A: b\r\n" ), "3,337 rest ..." },
        { ok + many( "x" ), "3,337 rest ..." },
        { many( "x" ), "3,217 rest ..." },
        { "", "3,212" },
        { "HTTP/1.1 200 \xC3\xA4\r\n", "3,212 rest \xA4\r\n" },
        { "HTTP/1.1 200\r\n\r\n", "3,518 rest \r\n" },
        { "HTTP/2.0 200 OK\r\n", "3,501" },
        { "\r\n" + ok, "3,501 rest " + ok },
        { "HTTP/1.1 0 OK\r\n", "3,509" },
        { "HTTP/1.1 OK\r\n", "3,509" },
        { "HTTP/1.1 4294967496 OK\r\n", "3,509" },
        { longLine + "\n\n", "3,337" }, // of 1023 bytes, then 1024
        { longLine + "x\n\n", "3,217 rest \n" },
    };
    for ( const auto& test : cases ) {
        SCOPED_TRACE( test.answer.substr( 0, 200 ) );
        for ( const bool usesOutput : { false, true } ) {
            std::string expected = usesOutput && !test.output.empty() ? test.output : test.content;
            std::string found = got( test.answer, usesOutput );
            if ( expected.ends_with( "..." ) )
                found.replace( expected.size() - 3, std::string::npos, "..." );
            EXPECT_EQ( expected, found );
        }
    }
    EXPECT_EQ( "hello rest more", got( sized + "5\r\n\r\nhellomore", true, true ) );
}

TEST_F( HttpRequests, WriteTheirLinesInOrder )
{
    const std::string answer = sized + "2\r\nSet-Cookie: id=7; path=/p;\r\n\r\nab";
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
    EXPECT_EQ( "2,586", outcomeOf( get, nullptr, [&] { get.resume( &connection, nullptr ); } ) );
}

TEST_F( HttpRequests, ResumeWhereTheyWereBrokenOff )
{
    const std::string first = ok + "Date: then\r\nContent-Length: 10\r\n";
    const std::string tagged = first + "ETag: \"v1\"\r\n\r\nhello";
    const std::string part = "HTTP/1.1 206 P\r\n";
    const std::string byTag = "If-Range: \"v1\"\r\n";
    const struct
    {
        std::string first;
        std::string second;
        std::string sent;
        std::string outcome;
        std::string outputOutcome = outcome;
    } cases[] = {
        { tagged, part + "Content-Length: 5\r\n\r\nworld", byTag, "helloworld" },
        { first + "\r\nhello", part + "Content-Length: 5\r\n\r\nworld", "If-Range: then\r\n",
          "helloworld" },
        { tagged,
          part + "Content-Range: bytes 5-9/10\r\nTransfer-Encoding: chunked\r\n\r\n"
                 "5\r\nworld\r\n0\r\n\r\n",
          byTag, "helloworld" },
        { tagged, part + "Connection: close\r\n\r\nworld", byTag, "helloworld" },
        { tagged, part + "Content-Length: 6\r\n\r\nworlds", byTag, "3,300", "helloworlds" },
        { tagged, part + "Content-Range: bytes 4-9/10\r\nContent-Length: 5\r\n\r\nworld", byTag,
          "3,266" },
        { tagged, sized + "5\r\n\r\nworld", byTag, "3,266" },
        { tagged, "", byTag, "3,212" },
    };
    for ( const auto& test : cases ) {
        for ( const bool usesOutput : { false, true } ) {
            SCOPED_TRACE( test.second + ( usesOutput ? " output" : "" ) );
            MemoryConnection one( test.first );
            MemoryConnection two( test.second, "10.9.9.9" );
            std::ostringstream output;
            std::ostringstream* const outputPtr = usesOutput ? &output : nullptr;
            HttpGetRequest get( &one );
            get.readIdleTimeoutInSeconds( 4 );
            EXPECT_EQ( "3,325", issued( get, outputPtr ) );
            EXPECT_EQ( 5u, get.receivedResponseSize() );
            EXPECT_EQ( usesOutput ? test.outputOutcome : test.outcome,
                       outcomeOf( get, outputPtr, [&] { get.resume( &two, outputPtr ); } ) );
            for ( const std::string& line : { test.sent, std::string( "Range: bytes=5-\r\n" ),
                                              std::string( "Host: 10.9.9.9\r\n" ) } )
                EXPECT_NE( std::string::npos, two.sent().find( line ) ) << two.sent();
            EXPECT_EQ( 4u, two.idleTimeout );
            EXPECT_EQ( 0u, get.headerMap().count( Http::headerRange ) +
                               get.headerMap().count( Http::headerIfRange ) );
        }
    }
}

TEST_F( HttpRequests, ReportAnOutputThatTakesNothing )
{
    MemoryConnection connection( sized + "5\r\n\r\nhello" );
    HttpGetRequest get( &connection );
    struct Full : std::streambuf
    {
    } full;
    std::ostream nowhere( &full );
    EXPECT_EQ( "3,325", outcomeOf( get, nullptr, [&] { get.issue( "/", &nowhere ); } ) );
    EXPECT_TRUE( nowhere.bad() );
    NuvTest::expectFailure( "connectionPtr != NULL", [] { HttpGetRequest none( nullptr ); } );
    NuvTest::expectFailure( "uriPtr != NULL", [&] { get.issue( nullptr, nullptr ); } );
}

// -------------------------------------------------------------------------------- over sockets

TEST_F( HttpRequests, ReadAnAnswerHoweverItIsCut )
{
    const std::string body( 3000, 'b' );
    const std::string answers[] = { sized + "3000\r\n\r\n" + body,
                                    chunked + "BB8\r\n" + body + "\r\n0\r\n\r\n" };
    ScriptedServer server( { [&]( const Peer& peer ) {
        for ( int i = 0; i < 4; ++i ) {
            peer.readRequest();
            ( peer.*( i < 2 ? &Peer::sendSlowly : &Peer::send ) )( answers[i % 2] );
        }
        peer.stall();
    } } );
    const Connection connection = connect( server );
    for ( int i = 0; i < 4; ++i ) {
        HttpGetRequest get( connection.get() );
        get.stopAtContentLength( true );
        std::ostringstream output;
        EXPECT_TRUE( body == issued( get, i % 2 == 0 ? &output : nullptr ) ) << i;
    }
}

TEST_F( HttpRequests, FailByReasonWhenThePeerMisbehaves )
{
    const std::string part = sized + "5000\r\n\r\n" + std::string( 2000, 'x' );
    const struct
    {
        std::string answer; // empty: does not even read the request
        void ( Peer::*endPtr )() const;
        std::string outcome;
    } cases[] = {
        { "", nullptr, failure( 1, ECONNRESET ) },
        { "HTTP/1.1 200 OK\r\nCo", &Peer::reset, failure( 1, ECONNRESET ) },
        { part, &Peer::reset, failure( 1, ECONNRESET ) },
        { part, nullptr, "3,325" },
        { "HTTP/1.1", &Peer::stall, "1,0" },
        { part, &Peer::stall, "1,0" },
    };
    for ( const auto& test : cases ) {
        ScriptedServer server( { [&]( const Peer& peer ) {
            if ( !test.answer.empty() && peer.readRequest() )
                peer.send( test.answer );
            if ( test.endPtr != nullptr )
                ( peer.*test.endPtr )();
        } } );
        for ( const bool usesOutput : { false, true } ) {
            SCOPED_TRACE( test.answer.substr( 0, 50 ) + " " + test.outcome );
            const Connection connection = connect( server );
            HttpGetRequest get( connection.get() );
            get.readIdleTimeoutInSeconds( 1 );
            std::ostringstream output;
            const std::string outcome = issued( get, usesOutput ? &output : nullptr );
            const bool isEarly = outcome == failure( 1, EPIPE ) || outcome == "3,212";
            EXPECT_EQ( test.outcome, isEarly ? test.outcome : outcome );
        }
    }
}

TEST_F( HttpRequests, TakeOneSendAndOneReceiveWhenSmall )
{
    ScriptedServer server( { []( const Peer& peer ) {
        while ( peer.readRequest() )
            peer.send( sized + "4\r\n\r\nbody" );
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

TEST_F( HttpRequests, StreamBuffersStopAtAShortWrite )
{
    struct Slow : AbstractSocketStreamBuf
    {
        Slow()
            : AbstractSocketStreamBuf( 10, 10 )
        {
        }
        int read( char*, int ) override { return 0; }
        int write( const char*, int count ) override { return std::min( count, 10 ); }
        void readIdleTimeoutInSecondsImpl( unsigned int ) override {}
    } slow;
    const std::string text( 35, 'x' );
    EXPECT_EQ( 15, slow.sputn( text.data(), 15 ) ) << "ten directly, five kept";
    EXPECT_EQ( 0, slow.pubsync() );
    EXPECT_EQ( 10, slow.sputn( text.data(), 35 ) );
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
    const Connection stream = connect( server );
    TcpConnectionStream::timerCallback( nullptr, stream.get() );
    EXPECT_EQ( EOF, stream->istreamPtr()->get() );
    NuvTest::expectFailure( "objPtr != NULL",
                            [] { TcpConnectionStream::timerCallback( nullptr, nullptr ); } );
    NuvTest::expectFailure( "mySocketPtr != NULL",
                            [] { SocketStreamBuf none( nullptr, 10, 10 ); } );
}
