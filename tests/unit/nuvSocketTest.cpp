#include "nuvSocket.h"

#include "nuvPathname.h"
#include "nuvSignalHandler.h"
#include "nuvTestInterprocess.h"
#include "nuvTestSupport.h"
#include "nuvTestThread.h"
#include "nuvTime.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <tuple>
#include <unistd.h>
#include <vector>

using namespace Nuv;
using namespace Nuv::Net;

namespace {

std::string failure( int reason, int errorNbr )
{
    return std::to_string( reason ) + "," + std::to_string( errorNbr );
}

// @return reason and error number of what the action throws, "none" if nothing
std::string thrownBy( const std::function< void() >& action )
{
    try {
        action();
    } catch ( const RuntimeException& e ) {
        return failure( e.reason(), e.errorNbr() );
    }
    return "none";
}

IpV4Address localAddress( const IpSocket& socket )
{
    Utils::Ptr< IpAddress > addressPtr;
    socket.getLocalAddr( &addressPtr );
    return static_cast< const IpV4Address& >( *addressPtr );
}

class Listener : public TcpSocket
{
public:
    explicit Listener( int backlog = 8 )
        : TcpSocket( AF_INET, SOCK_STREAM, 0 )
    {
        bind( IpV4Address( 0, INADDR_LOOPBACK ) );
        listen( backlog );
    }
    IpV4Address address() const { return localAddress( *this ); }
};

// Takes no further connection.
struct FullListener : Listener
{
    FullListener()
        : Listener( 0 )
    {
        while ( outcome == "none" ) {
            queue.push_back( std::make_unique< TcpSocket >( AF_INET, SOCK_STREAM, 0 ) );
            outcome = thrownBy( [this] { queue.back()->connect( address(), 30 ); } );
        }
    }

    std::vector< std::unique_ptr< TcpSocket > > queue;
    std::string outcome = "none"; // of the last attempt
};

struct Connection
{
    Connection()
    {
        client.connect( listener.address() );
        listener.accept( &serverPtr, &peerPtr );
    }

    Listener listener;
    TcpSocket client{ AF_INET, SOCK_STREAM, 0 };
    Utils::Ptr< TcpSocket > serverPtr;
    Utils::Ptr< IpAddress > peerPtr;
};

using Sockets = NuvTest::RootFixture;

} // namespace

TEST( IpV4Addresses, ComeFromEveryFormOfTheirFamilyOnly )
{
    in_addr network{};
    network.s_addr = htonl( 0x0A000001 );
    const IpV4Address address( 8080, network );
    sockaddr_in raw = *static_cast< const sockaddr_in* >( address );
    EXPECT_EQ( "10.0.0.1", address.asString() );
    EXPECT_EQ( htons( 8080 ), raw.sin_port );
    EXPECT_TRUE( address == IpV4Address( 8080, 0x0A000001u ) );
    EXPECT_TRUE( address == IpV4Address( 8080, "10.0.0.1" ) );
    EXPECT_TRUE( address == IpV4Address( raw ) );
    EXPECT_FALSE( address == IpV4Address( reinterpret_cast< sockaddr* >( &raw ), 15 ) );
    EXPECT_FALSE( address == IpV4Address( 8081, network ) );
    EXPECT_FALSE( address == IpV4Address( 8080, network, AF_INET6 ) );
    EXPECT_EQ( 0xFFFFFFFFu, IpV4Address( 1, "255.255.255.255" ).addrCode() );
    EXPECT_EQ( 0x7F000001u, IpV4Address( 1, "127.1" ).addrCode() );
    for ( const char* textPtr : { "1.2.3.256", "a.b.c.d", "1.2.3.4.5", "0xFFFFFFFF", " " } )
        EXPECT_EQ( "0,0", thrownBy( [&] { IpV4Address( 1, textPtr ); } ) ) << textPtr;
    NuvTest::expectFailure( "!ipAddrStr.empty()", [] { IpV4Address( 1, "" ); } );
    const auto resolve = []( const char* hostPtr ) {
        return Utils::Ptr< IpV4Address >( IpV4Address::getIpV4AddressByHostName( 80, hostPtr ) );
    };
    EXPECT_TRUE( *resolve( "127.0.0.2" ) == IpV4Address( 80, 0x7F000002u ) );
    for ( const char* hostPtr : { "::1", "no such host", "" } )
        EXPECT_EQ( "1,0", thrownBy( [&] { resolve( hostPtr ); } ) ) << hostPtr;
    EXPECT_STREQ( "Unable to resolve host name, bad address [1,0]",
                  IpAddrException( "", 1, 0 ).what() );
}

TEST_F( Sockets, ExchangeBytesUntilTheEndOfTheStream )
{
    Io::Pathname::setPathnameOfExecutable( "/bin/a-program-with-a-name-of-34-letters" );
    Connection c;
    EXPECT_EQ( "127.0.0.1", c.peerPtr->asString() );
    EXPECT_EQ( localAddress( c.client ).port(), c.peerPtr->port() );
    EXPECT_EQ( 5, c.client.write( "hello", 5 ) );
    char text[8] = {};
    EXPECT_EQ( 3, c.serverPtr->read( text, 3 ) );
    EXPECT_EQ( 2, c.serverPtr->read( text + 3, 5 ) ) << "after a read that filled its buffer";
    EXPECT_STREQ( "hello", text );
    EXPECT_EQ( 0, c.client.shutdownOutput() );
    EXPECT_EQ( 0, c.serverPtr->read( text, 5 ) );
    for ( const TcpSocket* const socketPtr : { &c.client, c.serverPtr.get() } )
        EXPECT_EQ( FD_CLOEXEC, ::fcntl( socketPtr->socketFd(), F_GETFD ) );
    EXPECT_EQ( 0, ::fcntl( c.client.socketFd(), F_GETFL ) & O_NONBLOCK );
    EXPECT_STREQ( "a-program-with-a-name-of-34-let", TcpSocket::ourProgName );
}

TEST_F( Sockets, ReportFailuresByReasonAndErrorNumber )
{
    Connection c;
    const IpV4Address taken = c.listener.address();
    TcpSocket fresh( AF_INET, SOCK_STREAM, 0 );
    UdpSocket local( AF_UNIX, SOCK_DGRAM, 0 );
    Utils::Ptr< TcpSocket > peerPtr;
    Utils::Ptr< IpAddress > addressPtr;
    char text[4];
    c.serverPtr->soRcvTimeOut( { 0, 20000 } );
    const std::tuple< int, int, std::function< void() > > cases[] = {
        { 2, EAFNOSUPPORT, [] { TcpSocket s( 999, SOCK_STREAM, 0 ); } },
        { 5, EADDRINUSE, [&] { fresh.bind( taken ); } },
        { 6, EINVAL, [&] { c.client.listen( 1 ); } },
        { 7, EINVAL, [&] { fresh.accept( &peerPtr, &addressPtr ); } },
        { 4, EISCONN, [&] { c.client.connect( taken ); } },
        { 3, ENOTCONN, [&] { fresh.read( text, 4 ); } },
        { 3, EINVAL, [&] { c.client.read( text, -1 ); } },
        { 3, EINVAL, [&] { c.client.write( text, -1 ); } },
        { 3, ENOPROTOOPT, [&] { c.client.setOpt( SOL_SOCKET, 999, text, 4 ); } },
        { 3, ENOPROTOOPT, [&] { c.client.ipHeaderIncl( true ); } },
        { 3, 99, [&] { errno = 99, local.recvFrom( &addressPtr, text, 4, 0 ); } },
        { 8, 0, [&] { c.client.timedRead( text, 4, 10 ); } },
        { 3, EAGAIN, [&] { c.serverPtr->read( text, 4 ); } } };
    for ( const auto& [reason, errorNbr, action] : cases )
        EXPECT_EQ( failure( reason, errorNbr ), thrownBy( action ) );
    EXPECT_TRUE( c.client.isOpen() ) << "an exception leaves the socket open";
    EXPECT_STREQ( "socket read timed out [8,0]", ( SocketException( "", 8, 0 ).what() ) );
    NuvTest::expectFailure( "i != reasonMap.end()", [] { SocketException( "", 9, 0 ).what(); } );
    // A peer that is gone: no signal, an exception.
    c.serverPtr->soLinger( { 1, 0 } );
    c.serverPtr->close();
    EXPECT_EQ( failure( 3, ECONNRESET ), thrownBy( [&] { c.client.read( text, 4 ); } ) );
    EXPECT_EQ( failure( 3, EPIPE ), thrownBy( [&] { c.client.write( text, 4 ); } ) );
}

TEST_F( Sockets, DoNothingOnceTheyAreClosed )
{
    Connection c;
    TcpSocket& s = c.client;
    UdpSocket udp( AF_INET, SOCK_DGRAM, 0 );
    EXPECT_EQ( 0, s.close() + udp.close() );
    const int reused = ::dup( STDOUT_FILENO );
    Utils::Ptr< TcpSocket > peerPtr;
    Utils::Ptr< IpAddress > addressPtr;
    char text[4];
    unsigned int length = 4;
    const IpV4Address address = c.listener.address();
    const int results[] = { s.close(),
                            s.listen( 1 ),
                            s.connect( address ),
                            s.accept( &peerPtr, &addressPtr ),
                            s.shutdownInputAndOutput(),
                            s.write( "x", 1 ),
                            s.setOpt( SOL_SOCKET, SO_KEEPALIVE, text, 4 ),
                            s.getOpt( SOL_SOCKET, SO_KEEPALIVE, text, &length ),
                            udp.recvFrom( &addressPtr, text, 4, 0 ) };
    EXPECT_THAT( results, testing::Each( -1 ) );
    EXPECT_EQ( 0, s.bind( address ) );
    EXPECT_EQ( 0, s.read( text, 4 ) );
    EXPECT_FALSE( s.isRecvDataAvailable( nullptr ) || peerPtr || addressPtr );
    EXPECT_EQ( failure( 3, EBADF ), thrownBy( [&] { udp.sendTo( address, "x", 1, 0 ); } ) );
    ::close( reused );
}

TEST_F( Sockets, CarryDatagramsWithTheirSender )
{
    UdpSocket a( AF_INET, SOCK_DGRAM, 0 );
    UdpSocket b( AF_INET, SOCK_DGRAM, 0 );
    for ( UdpSocket* const socketPtr : { &a, &b } )
        socketPtr->bind( IpV4Address( 0, INADDR_LOOPBACK ) );
    Utils::Ptr< IpAddress > senderPtr;
    char text[8] = {};
    EXPECT_EQ( failure( 3, EAGAIN ),
               thrownBy( [&] { b.recvFrom( &senderPtr, text, 8, MSG_DONTWAIT ); } ) );
    for ( const int length : { 2, 0 } ) {
        EXPECT_EQ( length, a.sendTo( localAddress( b ), "hi", length, 0 ) );
        EXPECT_EQ( length, b.recvFrom( &senderPtr, text, 8, 0 ) );
        EXPECT_STREQ( "hi", text );
        EXPECT_EQ( localAddress( a ).port(), senderPtr->port() );
    }
}

TEST_F( Sockets, KeepTheirOptions )
{
    TcpSocket s( AF_INET, SOCK_STREAM, 0 );
    s.soUseLoopBack( true );
    s.soKeepAlive( true );
    s.tcpNoDelay( true );
    s.soOobInline( true );
    s.soBroadcast( true );
    s.soDontRoute( true );
    EXPECT_TRUE( s.soReuseAddr() && s.soKeepAlive() && s.tcpNoDelay() && s.soOobInline() &&
                 s.soBroadcast() && s.soDontRoute() );
    s.soReuseAddr( false );
    EXPECT_FALSE( s.soUseLoopBack() || s.soDebug() || s.soError() );
    s.soLinger( { 1, 7 } );
    s.soSndTimeOut( { 3, 500000 } );
    s.ipTtl( 9 );
    s.soRcvBufSize( 8192 );
    s.soSndBufSize( 4096 );
    s.soRcvLowWater( 3 );
    const std::int64_t values[] = {
        s.soLinger().l_linger, s.soSndTimeOut().tv_sec, s.ipTtl(),
        s.soRcvBufSize(),      s.soSndBufSize(),        s.soRcvLowWater() };
    EXPECT_THAT( values, testing::ElementsAre( 7, 3, 9, 16384, 8192, 3 ) );
}

TEST_F( Sockets, TellWhatIsReady )
{
    Connection c;
    TcpSocket* const serverPtr = c.serverPtr.get();
    SocketMonitor monitor;
    monitor.add( { &c.client, serverPtr }, SocketMonitor::read | SocketMonitor::write );
    monitor.remove( serverPtr, SocketMonitor::write );
    EXPECT_FALSE( serverPtr->isRecvDataAvailable( nullptr ) );
    c.client.write( "abc", 3 );
    int count = 0;
    ASSERT_TRUE( NuvTest::waitFor( [&] { return serverPtr->isRecvDataAvailable( &count ); } ) );
    EXPECT_EQ( 3, count );
    timeval timeout{ 10, 0 };
    EXPECT_EQ( 2, monitor.select( timeout ) );
    EXPECT_TRUE( monitor.isSet( &c.client, SocketMonitor::write ) );
    EXPECT_FALSE( monitor.isSet( &c.client, SocketMonitor::read | SocketMonitor::exception ) );
    EXPECT_TRUE( monitor.isSet( serverPtr, SocketMonitor::read ) );
    EXPECT_FALSE( monitor.isSet( serverPtr, SocketMonitor::write ) );
}

TEST_F( Sockets, RefuseDescriptorsThatNoSetHolds )
{
    rlimit limit{};
    ::getrlimit( RLIMIT_NOFILE, &limit );
    limit.rlim_cur = std::min< rlim_t >( 2048, limit.rlim_max );
    ::setrlimit( RLIMIT_NOFILE, &limit );
    const int fd = ::fcntl( STDOUT_FILENO, F_DUPFD, 1500 );
    if ( fd < 0 )
        GTEST_SKIP() << "no descriptors above 1024 on this machine";
    IpSocket high( AF_INET, SOCK_STREAM, 0, fd );
    struct
    {
        SocketMonitor monitor;
        unsigned char behind[256] = {};
    } guarded;
    timeval timeout{};
    for ( int round = 0; round < 2; ++round ) {
        guarded.monitor.add( &high, 7 );
        EXPECT_EQ( failure( 3, 0 ), thrownBy( [&] { guarded.monitor.select( timeout ); } ) );
    }
    guarded.monitor.remove( &high, 7 );
    EXPECT_FALSE( guarded.monitor.isSet( &high, 7 ) );
    EXPECT_THAT( guarded.behind, testing::Each( 0 ) );
    guarded.monitor.clear( 7 );
    EXPECT_EQ( 0, guarded.monitor.select( timeout ) );
}

TEST_F( Sockets, GiveUpAConnectionInTime )
{
    const FullListener full;
    TcpSocket& last = *full.queue.back();
    EXPECT_EQ( failure( 4, ETIMEDOUT ), full.outcome );
    EXPECT_EQ( 0, ::fcntl( last.socketFd(), F_GETFL ) & O_NONBLOCK );
    Listener free;
    const IpV4Address gone = free.address();
    EXPECT_EQ( 0, last.connect( gone ) ) << "the attempt was given up";
    free.close();
    TcpSocket other( AF_INET, SOCK_STREAM, 0 );
    EXPECT_EQ( failure( 4, ECONNREFUSED ), thrownBy( [&] { other.connect( gone, 5000 ); } ) );
    other.soSndTimeOut( { 0, 30000 } );
    EXPECT_EQ( failure( 4, EINPROGRESS ), thrownBy( [&] { other.connect( full.address() ); } ) );
}

TEST_F( Sockets, LeaveABlockedCallWhenAnotherThreadCloses )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    const FullListener full;
    Connection c;
    int nbrOfSlow = 0;
    char text[4];
    Utils::Ptr< TcpSocket > peerPtr;
    Utils::Ptr< IpAddress > addressPtr;
    for ( int i = 0; i < 250; ++i ) {
        SCOPED_TRACE( i );
        TcpSocket reader( AF_INET, SOCK_STREAM, 0, ::dup( c.client.socketFd() ) );
        TcpSocket taker( AF_INET, SOCK_STREAM, 0, ::dup( c.client.socketFd() ) );
        TcpSocket connecting( AF_INET, SOCK_STREAM, 0 );
        Listener accepting;
        UdpSocket udp( AF_INET, SOCK_DGRAM, 0 );
        const auto takeTheSignal = [&] {
            sigset_t set;
            sigemptyset( &set );
            sigaddset( &set, Mt::SignalHandler::interruptSignal );
            ::pthread_sigmask( SIG_UNBLOCK, &set, nullptr );
            taker.timedRead( text, 4, 20000 );
        };
        const std::tuple< IpSocket&, int, std::function< void() > > calls[] = {
            { reader, 3, [&] { reader.read( text, 4 ); } },
            { taker, 3, takeTheSignal },
            { connecting, 4, [&] { connecting.connect( full.address() ); } },
            { accepting, 7, [&] { accepting.accept( &peerPtr, &addressPtr ); } },
            { udp, 3, [&] { udp.recvFrom( &addressPtr, text, 4, 0 ); } } };
        for ( const auto& [socket, reason, call] : calls ) {
            std::atomic< bool > isThere = false;
            std::string outcome;
            std::thread thread = NuvTest::startThread( [&, &action = call] {
                isThere = true;
                outcome = thrownBy( action );
            } );
            while ( !isThere ) {
            }
            for ( std::atomic< int > delay = i % 25 * 1000; delay > 0; --delay ) {
            }
            const Utils::MsTimer timer;
            EXPECT_EQ( 0, socket.close() );
            nbrOfSlow += timer.totalTime() >= 450;
            thread.join();
            // Closed before it was in the call, the socket does nothing.
            EXPECT_TRUE( outcome == "none" || outcome == failure( reason, EINTR ) ) << outcome;
        }
    }
    EXPECT_LE( nbrOfSlow, 1 ) << "closes that waited for a repetition of the interruption";
    // What comes too late ends no later wait.
    Mt::SignalHandler::interruptSystemCall( ::pthread_self() );
    EXPECT_EQ( failure( 8, 0 ), thrownBy( [&] { c.client.timedRead( text, 4, 20 ); } ) );
}
