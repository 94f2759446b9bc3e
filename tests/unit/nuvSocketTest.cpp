#include "nuvSocket.h"

#include "nuvLogCapture.h"
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
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

using namespace Nuv;
using namespace Nuv::Net;

namespace {

constexpr std::uint32_t loopback = INADDR_LOOPBACK;

// @return reason and error number of what the action throws, "none" if nothing
template < class Action >
std::string thrownBy( const Action& action )
{
    try {
        action();
    } catch ( const RuntimeException& e ) {
        return std::to_string( e.reason() ) + "," + std::to_string( e.errorNbr() );
    }
    return "none";
}

std::string failure( int reason, int errorNbr )
{
    return std::to_string( reason ) + "," + std::to_string( errorNbr );
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
        bind( IpV4Address( 0, loopback ) );
        listen( backlog );
    }
    IpV4Address address() const { return localAddress( *this ); }
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

class Sockets : public NuvTest::RootFixture
{
};

} // namespace

TEST( IpV4Addresses, AreBuiltFromEveryFormAndGiveItBack )
{
    in_addr network{};
    network.s_addr = htonl( 0x0A000001 );
    const IpV4Address address( 8080, network );
    sockaddr_in raw = *static_cast< const sockaddr_in* >( address );
    EXPECT_EQ( 16, address.length() );
    EXPECT_EQ( "10.0.0.1", address.asString() );
    EXPECT_EQ( htons( 8080 ), raw.sin_port );
    EXPECT_EQ( 0x0A000001u, address.addrCode() );
    EXPECT_TRUE( address == IpV4Address( 8080, 0x0A000001u ) );
    EXPECT_TRUE( address == IpV4Address( 8080, "10.0.0.1" ) );
    EXPECT_TRUE( address == IpV4Address( raw ) );
    EXPECT_FALSE( address == IpV4Address( reinterpret_cast< sockaddr* >( &raw ), 15 ) );
    EXPECT_FALSE( address == IpV4Address( 8081, network ) );
    EXPECT_FALSE( address == IpV4Address( 8080, network, AF_INET6 ) );
}

TEST( IpV4Addresses, ComeFromTextsAndNamesOfTheirFamilyOnly )
{
    EXPECT_EQ( 0xFFFFFFFFu, IpV4Address( 1, "255.255.255.255" ).addrCode() );
    EXPECT_EQ( 0x7F000001u, IpV4Address( 1, "127.1" ).addrCode() );
    for ( const char* textPtr : { "1.2.3.256", "a.b.c.d", "1.2.3.4.5", "0xFFFFFFFF", " " } )
        EXPECT_EQ( "0,0", thrownBy( [&] { IpV4Address( 1, textPtr ); } ) ) << textPtr;
    NuvTest::expectFailure( "!ipAddrStr.empty()", [] { IpV4Address( 1, "" ); } );
    const Utils::Ptr< IpV4Address > addressPtr(
        IpV4Address::getIpV4AddressByHostName( 80, "127.0.0.2", AF_INET ) );
    EXPECT_TRUE( *addressPtr == IpV4Address( 80, 0x7F000002u ) );
    for ( const char* hostPtr : { "::1", "no such host", "" } )
        EXPECT_EQ( "1,0", thrownBy( [&] {
                       delete IpV4Address::getIpV4AddressByHostName( 80, hostPtr );
                   } ) )
            << hostPtr;
    EXPECT_STREQ( "string does not represent a valid ip address",
                  IpAddrException( "", 0, 0 ).what() );
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
    EXPECT_EQ( 0, c.serverPtr->read( text, 0 ) );
    EXPECT_EQ( 0, c.client.shutdownOutput() );
    EXPECT_EQ( 0, c.serverPtr->read( text, 5 ) );
    EXPECT_EQ( FD_CLOEXEC, ::fcntl( c.serverPtr->socketFd(), F_GETFD ) );
    EXPECT_EQ( FD_CLOEXEC, ::fcntl( c.client.socketFd(), F_GETFD ) );
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
    auto check = [line = 0]( int reason, int errorNbr, const auto& action ) mutable {
        EXPECT_EQ( failure( reason, errorNbr ), thrownBy( action ) ) << "case " << ++line;
    };
    check( 2, EAFNOSUPPORT, [] { TcpSocket s( 999, SOCK_STREAM, 0 ); } );
    check( 5, EADDRINUSE, [&] { fresh.bind( taken ); } );
    check( 6, EINVAL, [&] { c.client.listen( 1 ); } );
    check( 7, EINVAL, [&] { fresh.accept( &peerPtr, &addressPtr ); } );
    check( 4, EISCONN, [&] { c.client.connect( taken ); } );
    check( 3, ENOTCONN, [&] { fresh.read( text, 4 ); } );
    check( 3, EINVAL, [&] { c.client.read( text, -1 ); } );
    check( 3, EINVAL, [&] { c.client.write( text, -1 ); } );
    check( 3, ENOPROTOOPT, [&] { c.client.setOpt( SOL_SOCKET, 999, text, 4 ); } );
    check( 3, 99, [&] { errno = 99, local.recvFrom( &addressPtr, text, 4, 0 ); } );
    check( 8, 0, [&] { c.client.timedRead( text, 4, 10 ); } );
    c.client.soRcvTimeOut( { 0, 20000 } );
    check( 3, EAGAIN, [&] { c.client.read( text, 4 ); } );
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
    EXPECT_EQ( 0, c.client.close() );
    EXPECT_EQ( -1, c.client.close() );
    const int reused = ::dup( STDOUT_FILENO );
    Utils::Ptr< TcpSocket > peerPtr;
    Utils::Ptr< IpAddress > addressPtr;
    char text[4];
    unsigned int length = 4;
    EXPECT_EQ( 0, c.client.bind( c.listener.address() ) );
    EXPECT_EQ( -1, c.client.listen( 1 ) );
    EXPECT_EQ( -1, c.client.connect( c.listener.address() ) );
    EXPECT_EQ( -1, c.client.accept( &peerPtr, &addressPtr ) );
    EXPECT_EQ( -1, c.client.shutdownInputAndOutput() );
    EXPECT_EQ( -1, c.client.write( "x", 1 ) );
    EXPECT_EQ( 0, c.client.read( text, 4 ) );
    EXPECT_EQ( -1, c.client.setOpt( SOL_SOCKET, SO_KEEPALIVE, text, 4 ) );
    EXPECT_EQ( -1, c.client.getOpt( SOL_SOCKET, SO_KEEPALIVE, text, &length ) );
    EXPECT_FALSE( c.client.isRecvDataAvailable( nullptr ) );
    EXPECT_FALSE( peerPtr || addressPtr );
    UdpSocket udp( AF_INET, SOCK_DGRAM, 0 );
    udp.close();
    EXPECT_EQ( -1, udp.recvFrom( &addressPtr, text, 4, 0 ) );
    EXPECT_EQ( failure( 3, EBADF ),
               thrownBy( [&] { udp.sendTo( c.listener.address(), "x", 1, 0 ); } ) );
    ::close( reused );
}

TEST_F( Sockets, CarryDatagramsWithTheirSender )
{
    UdpSocket a( AF_INET, SOCK_DGRAM, 0 );
    UdpSocket b( AF_INET, SOCK_DGRAM, 0 );
    a.bind( IpV4Address( 0, loopback ) );
    b.bind( IpV4Address( 0, loopback ) );
    Utils::Ptr< IpAddress > senderPtr;
    char text[8] = {};
    EXPECT_EQ( failure( 3, EAGAIN ),
               thrownBy( [&] { b.recvFrom( &senderPtr, text, 8, MSG_DONTWAIT ); } ) );
    EXPECT_EQ( 2, a.sendTo( localAddress( b ), "hi", 2, 0 ) );
    EXPECT_EQ( 2, b.recvFrom( &senderPtr, text, 8, 0 ) );
    EXPECT_STREQ( "hi", text );
    EXPECT_EQ( localAddress( a ).port(), senderPtr->port() );
    EXPECT_EQ( 0, a.sendTo( localAddress( b ), "", 0, 0 ) );
    EXPECT_EQ( 0, b.recvFrom( &senderPtr, text, 8, 0 ) );
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
    const int values[] = { s.soLinger().l_linger,
                           static_cast< int >( s.soSndTimeOut().tv_sec ),
                           s.ipTtl(),
                           s.soRcvBufSize(),
                           s.soSndBufSize(),
                           s.soRcvLowWater(),
                           s.soType() };
    EXPECT_THAT( values, testing::ElementsAre( 7, 3, 9, 16384, 8192, 3, SOCK_STREAM ) );
    EXPECT_EQ( failure( 3, ENOPROTOOPT ), thrownBy( [&] { s.ipHeaderIncl( true ); } ) );
    struct Short : IpSocketOptions
    {
        int setOpt( int, int, const void*, unsigned int ) override { return 0; }
        int getOpt( int, int, void*, unsigned int* lengthPtr ) const override
        {
            return static_cast< int >( *lengthPtr = 1 );
        }
    } options;
    NuvTest::expectFailure( "len == sizeof( t )", [&] { options.soSndTimeOut(); } );
    NuvTest::expectFailure( "len == sizeof( l )", [&] { options.soLinger(); } );
}

TEST_F( Sockets, TellWhatIsReady )
{
    Connection c;
    SocketMonitor monitor;
    monitor.add( { &c.client, c.serverPtr.get() }, SocketMonitor::read | SocketMonitor::write );
    monitor.remove( c.serverPtr.get(), SocketMonitor::write );
    EXPECT_FALSE( c.serverPtr->isRecvDataAvailable( nullptr ) );
    c.client.write( "abc", 3 );
    timeval timeout{ 10, 0 };
    while ( !c.serverPtr->isRecvDataAvailable( nullptr ) ) {
    }
    EXPECT_EQ( 2, monitor.select( timeout ) );
    EXPECT_TRUE( monitor.isSet( &c.client, SocketMonitor::write ) );
    EXPECT_FALSE( monitor.isSet( &c.client, SocketMonitor::read | SocketMonitor::exception ) );
    EXPECT_TRUE( monitor.isSet( c.serverPtr.get(), SocketMonitor::read ) );
    EXPECT_FALSE( monitor.isSet( c.serverPtr.get(), SocketMonitor::write ) );
    int count = 0;
    EXPECT_TRUE( c.serverPtr->isRecvDataAvailable( &count ) );
    EXPECT_EQ( 3, count );
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
    const Log::Capture capture( "Nuv" );
    Log::Source& source = Log::getStandardSource( Log::debug );
    const_cast< Log::Zone& >( source.zone() ).severity( Log::debug );
    timeval timeout{};
    for ( int round = 0; round < 2; ++round ) {
        guarded.monitor.add( &high, 7 );
        EXPECT_EQ( failure( 3, 0 ), thrownBy( [&] { guarded.monitor.select( timeout ); } ) );
    }
    guarded.monitor.remove( &high, 7 );
    EXPECT_FALSE( guarded.monitor.isSet( &high, 7 ) );
    EXPECT_TRUE( capture.contains( "Socket select maxFdP1 > FD_SETSIZE" ) );
    for ( const unsigned char byte : guarded.behind )
        ASSERT_EQ( 0, byte );
    guarded.monitor.clear( 7 );
    EXPECT_EQ( 0, guarded.monitor.select( timeout ) );
}

TEST_F( Sockets, GiveUpAConnectionInTime )
{
    Listener full( 0 );
    std::vector< std::unique_ptr< TcpSocket > > queue;
    std::string outcome;
    while ( outcome.empty() || outcome == "none" ) {
        queue.push_back( std::make_unique< TcpSocket >( AF_INET, SOCK_STREAM, 0 ) );
        outcome = thrownBy( [&] { queue.back()->connect( full.address(), 30 ); } );
    }
    EXPECT_EQ( failure( 4, ETIMEDOUT ), outcome );
    EXPECT_EQ( 0, ::fcntl( queue.back()->socketFd(), F_GETFL ) & O_NONBLOCK );
    Listener free;
    EXPECT_EQ( 0, queue.back()->connect( free.address() ) ) << "the attempt was given up";
    TcpSocket limited( AF_INET, SOCK_STREAM, 0 );
    limited.soSndTimeOut( { 0, 30000 } );
    EXPECT_EQ( failure( 4, EINPROGRESS ), thrownBy( [&] { limited.connect( full.address() ); } ) );
    const IpV4Address gone = free.address();
    free.close();
    TcpSocket refused( AF_INET, SOCK_STREAM, 0 );
    EXPECT_EQ( failure( 4, ECONNREFUSED ), thrownBy( [&] { refused.connect( gone, 5000 ); } ) );
}

namespace {

// A thread in one blocking call, and the closing of its socket at some moment of that call.
template < class Socket >
void breakOff( Socket& socket, const std::function< void() >& call, int reason, int delay,
               int* nbrOfSlowPtr )
{
    std::atomic< bool > isThere = false;
    std::string outcome;
    std::thread thread = NuvTest::startThread( [&] {
        isThere = true;
        outcome = thrownBy( call );
    } );
    while ( !isThere ) {
    }
    for ( std::atomic< int > i = 0; i < delay; ++i ) {
    }
    const Utils::MsTimer timer;
    EXPECT_EQ( 0, socket.close() );
    *nbrOfSlowPtr += timer.totalTime() >= 450;
    thread.join();
    // Closed before it was in the call, the socket does nothing.
    EXPECT_TRUE( outcome == "none" || outcome == failure( reason, EINTR ) ) << outcome;
}

} // namespace

TEST_F( Sockets, LeaveABlockedCallWhenAnotherThreadCloses )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    Listener full( 0 );
    std::vector< std::unique_ptr< TcpSocket > > queue;
    do {
        queue.push_back( std::make_unique< TcpSocket >( AF_INET, SOCK_STREAM, 0 ) );
    } while ( thrownBy( [&] { queue.back()->connect( full.address(), 30 ); } ) == "none" );
    Connection c;
    int nbrOfSlow = 0;
    char text[4];
    Utils::Ptr< TcpSocket > peerPtr;
    Utils::Ptr< IpAddress > addressPtr;
    for ( int i = 0; i < 250; ++i ) {
        SCOPED_TRACE( i );
        const int delay = i % 25 * 1000;
        TcpSocket reader( AF_INET, SOCK_STREAM, 0, ::dup( c.client.socketFd() ) );
        breakOff(
            reader, [&] { reader.read( text, 4 ); }, 3, delay, &nbrOfSlow );
        TcpSocket connecting( AF_INET, SOCK_STREAM, 0 );
        breakOff(
            connecting, [&] { connecting.connect( full.address() ); }, 4, delay, &nbrOfSlow );
        Listener accepting;
        breakOff(
            accepting, [&] { accepting.accept( &peerPtr, &addressPtr ); }, 7, delay, &nbrOfSlow );
        UdpSocket udp( AF_INET, SOCK_DGRAM, 0 );
        breakOff(
            udp, [&] { udp.recvFrom( &addressPtr, text, 4, 0 ); }, 3, delay, &nbrOfSlow );
    }
    EXPECT_LE( nbrOfSlow, 1 ) << "closes that waited for a repetition of the interruption";
}

TEST_F( Sockets, AreBrokenOffInAThreadThatTakesTheSignalItself )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    Connection c;
    char text[4];
    int nbrOfSlow = 0;
    for ( int i = 0; i < 50; ++i ) {
        TcpSocket reader( AF_INET, SOCK_STREAM, 0, ::dup( c.client.socketFd() ) );
        const auto read = [&] {
            sigset_t set;
            sigemptyset( &set );
            sigaddset( &set, Mt::SignalHandler::interruptSignal );
            ::pthread_sigmask( SIG_UNBLOCK, &set, nullptr );
            reader.timedRead( text, 4, 20000 );
        };
        breakOff( reader, read, 3, i * 200, &nbrOfSlow );
    }
    EXPECT_LE( nbrOfSlow, 1 );
    // What comes too late ends no later wait.
    Mt::SignalHandler::interruptSystemCall( ::pthread_self() );
    EXPECT_EQ( failure( 8, 0 ), thrownBy( [&] { c.client.timedRead( text, 4, 20 ); } ) );
}
