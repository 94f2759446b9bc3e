#include "nuvSocket.h"

#include "nuvLog.h"
#include "nuvPathname.h"
#include "nuvSignalHandler.h"
#include "nuvTime.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Nuv::Net {

namespace {

constexpr unsigned int interruptionPeriodMs = 500;

// Told by a thread that leaves a call on a socket that is being closed. One for all sockets: a
// closer has nothing of its own left to wait on once the other thread goes on.
constinit pthread_mutex_t ourLeaveMutex = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_cond_t ourLeaveCondition = PTHREAD_COND_INITIALIZER;

void tellLeave()
{
    ::pthread_mutex_lock( &ourLeaveMutex );
    ::pthread_cond_broadcast( &ourLeaveCondition );
    ::pthread_mutex_unlock( &ourLeaveMutex );
}

void waitForLeave( const std::atomic< unsigned long >& blockedThreadId )
{
    timespec end{};
    ::clock_gettime( CLOCK_MONOTONIC, &end );
    end.tv_nsec += static_cast< long >( interruptionPeriodMs * Utils::Time::nsPerMs );
    end.tv_sec += end.tv_nsec / static_cast< long >( Utils::Time::nsPerSec );
    end.tv_nsec %= static_cast< long >( Utils::Time::nsPerSec );
    ::pthread_mutex_lock( &ourLeaveMutex );
    int result = 0;
    while ( result == 0 && blockedThreadId.load( std::memory_order_acquire ) !=
                               IpSocket::ourInvalidThreadBlockId ) {
        result =
            ::pthread_cond_clockwait( &ourLeaveCondition, &ourLeaveMutex, CLOCK_MONOTONIC, &end );
    }
    ::pthread_mutex_unlock( &ourLeaveMutex );
}

[[noreturn]] void fail( SocketExceptionReason reason )
{
    throw SocketException( "", reason, errno );
}

int createSocket( int domain, int type, int protocol )
{
    const int fd = ::socket( domain, type | SOCK_CLOEXEC, protocol );
    if ( fd < 0 )
        fail( socketAllocFailed );
    return fd;
}

// The part of a time-out that is left; negative stays: for ever.
int remainingMs( int timeoutMs, const Utils::MsTimer& timer )
{
    if ( timeoutMs < 0 )
        return timeoutMs;
    const std::uint32_t elapsed = timer.totalTime();
    return elapsed >= static_cast< std::uint32_t >( timeoutMs )
               ? 0
               : timeoutMs - static_cast< int >( elapsed );
}

int pollTimeout( unsigned int timeoutMs )
{
    return timeoutMs == TcpSocket::infinite
               ? -1
               : static_cast< int >( std::min( timeoutMs, 0x7FFFFFFFU ) );
}

// Sets a descriptor non-blocking for a scope.
class NonBlockingScope
{
public:
    explicit NonBlockingScope( int fd )
        : myFd( fd )
        , myFlags( ::fcntl( fd, F_GETFL ) )
    {
        ::fcntl( fd, F_SETFL, myFlags | O_NONBLOCK );
    }
    NonBlockingScope( const NonBlockingScope& ) = delete;
    NonBlockingScope& operator=( const NonBlockingScope& ) = delete;
    ~NonBlockingScope()
    {
        const int errorNbr = errno;
        ::fcntl( myFd, F_SETFL, myFlags );
        errno = errorNbr;
    }

private:
    int myFd;
    int myFlags;
};

void recordProgName()
{
    static Mt::Mutex ourMutex;
    const Mt::MutexLock lock( ourMutex );
    if ( TcpSocket::ourProgName[0] != '\0' )
        return;
    const Utils::String name = Io::Pathname( Io::Pathname::executablePathname ).nameStr();
    constexpr std::size_t maxLength = sizeof( TcpSocket::ourProgName ) - 1;
    TcpSocket::ourProgName[name.copy( TcpSocket::ourProgName, maxLength )] = '\0';
}

} // namespace

void SocketException::getReasonStr() const
{
    using Map = Utils::StaticMap< int, const char* >;
    static constexpr Map::Pair ourReasonMap[] = {
        { socketInitFailed, "socket init failed" },
        { socketWrongVersion, "socket wrong version" },
        { socketAllocFailed, "socket failed to allocate" },
        { socketError, "socket error" },
        { socketConnectFailed, "socket connect failed" },
        { socketBindFailed, "socket bind failed" },
        { socketListenFailed, "socket listen failed" },
        { socketAcceptFailed, "socket accept failed" },
        { socketReadTimedOut, "socket read timed out" },
    };
    constexpr Map reasonMap( ourReasonMap );
    const auto i = reasonMap.find( myReason );
    nuvAssert( i != reasonMap.end() );
    myText = i->value;
}

// ------------------------------------------------------------------------------------ IpSocket

class IpSocket::BlockedScope
{
public:
    explicit BlockedScope( IpSocket& socket )
        : mySocket( socket )
    {
        const Mt::MutexLock lock( mySocket.myMutex );
        mySocket.myBlockedThreadId.store( ::pthread_self(), std::memory_order_relaxed );
        myIsOpen = mySocket.isOpen();
    }
    BlockedScope( const BlockedScope& ) = delete;
    BlockedScope& operator=( const BlockedScope& ) = delete;
    ~BlockedScope()
    {
        bool isClosing = false;
        {
            const Mt::MutexLock lock( mySocket.myMutex );
            isClosing = mySocket.isClosing();
            mySocket.myBlockedThreadId.store( ourInvalidThreadBlockId, std::memory_order_release );
        }
        // The socket may be gone from here on.
        if ( isClosing )
            tellLeave();
    }

    bool isOpen() const { return myIsOpen; }

private:
    IpSocket& mySocket;
    bool myIsOpen = false;
};

IpSocket::IpSocket( int domain, int type, int protocol )
    : IpSocket( domain, type, protocol, createSocket( domain, type, protocol ) )
{
}

IpSocket::IpSocket( int domain, int type, int protocol, int socketFd )
    : myDomain( domain )
    , myType( type )
    , myProtocol( protocol )
    , myIsOpen( true )
    , mySocketFd( socketFd )
{
}

IpSocket::~IpSocket()
{
    IpSocket::close();
}

int IpSocket::bind( const IpAddress& address )
{
    if ( !isOpen() )
        return 0;
    if ( ::bind( socketFd(), address, static_cast< socklen_t >( address.length() ) ) != 0 )
        fail( socketBindFailed );
    return 0;
}

bool IpSocket::isRecvDataAvailable( int* countPtr )
{
    if ( !isOpen() )
        return false;
    SocketMonitor monitor;
    monitor.add( this, SocketMonitor::read );
    timeval timeout{ 0, 500 };
    monitor.select( timeout );
    if ( !monitor.isSet( this, SocketMonitor::read ) )
        return false;
    if ( countPtr != nullptr && ::ioctl( socketFd(), FIONREAD, countPtr ) != 0 )
        fail( socketError );
    return true;
}

int IpSocket::close() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    const Mt::CancelState uncancellable;
    Mt::MutexLock lock( myMutex );
    if ( !isOpen() )
        return -1;
    myIsOpen.store( false, std::memory_order_release );
    myIsClosing.store( true, std::memory_order_release );
    for ( unsigned long id = 0; ( id = myBlockedThreadId.load( std::memory_order_acquire ) ) !=
                                ourInvalidThreadBlockId; ) {
        Mt::SignalHandler::interruptSystemCall( id );
        lock.unlock();
        waitForLeave( myBlockedThreadId );
        lock.lock();
    }
    const int result = ::close( mySocketFd.exchange( -1, std::memory_order_relaxed ) );
    myIsClosing.store( false, std::memory_order_release );
    return result;
}

void IpSocket::getLocalAddr( Utils::Ptr< IpAddress >* addressPtrPtr ) const
{
    alignas( sockaddr_in ) char buffer[128] = {};
    socklen_t length = sizeof( buffer );
    sockaddr* const addressPtr = reinterpret_cast< sockaddr* >( buffer );
    if ( ::getsockname( socketFd(), addressPtr, &length ) != 0 )
        fail( socketError );
    *addressPtrPtr = new IpV4Address( addressPtr, static_cast< int >( length ) );
}

int IpSocket::setOptImpl( int level, int name, const void* valuePtr, unsigned int length )
{
    if ( !isOpen() )
        return -1;
    if ( ::setsockopt( socketFd(), level, name, valuePtr, length ) != 0 )
        fail( socketError );
    if ( level == SOL_SOCKET && name == SO_RCVTIMEO )
        myReceiveTimeoutMs.store( ourUnknownTimeout, std::memory_order_relaxed );
    return 0;
}

int IpSocket::getOptImpl( int level, int name, void* valuePtr, unsigned int* lengthPtr ) const
{
    if ( !isOpen() )
        return -1;
    if ( ::getsockopt( socketFd(), level, name, valuePtr, lengthPtr ) != 0 )
        fail( socketError );
    return 0;
}

bool IpSocket::waitFor( short events, int timeoutMs )
{
    const Utils::MsTimer timer;
    pollfd descriptor{ socketFd(), events, 0 };
    for ( ;; ) {
        const int result = Mt::InterruptibleCall::poll(
            &descriptor, 1, remainingMs( timeoutMs, timer ), &myIsClosing );
        if ( result > 0 )
            return true;
        if ( result == 0 )
            errno = EAGAIN;
        if ( result == 0 || errno != EINTR || isClosing() )
            return false;
    }
}

template < class Receive >
ssize_t IpSocket::receiveWith( Receive receive, bool doesBegin, int timeoutMs )
{
    for ( bool waits = !doesBegin;; waits = true ) {
        if ( waits && !waitFor( POLLIN, timeoutMs ) )
            return -1;
        const ssize_t result = receive();
        if ( result >= 0 || ( errno != EAGAIN && errno != EINTR ) || isClosing() )
            return result;
    }
}

int IpSocket::systemTimeoutMs( int optionName ) const
{
    const int errorNbr = errno;
    timeval t{};
    socklen_t length = sizeof( t );
    const bool hasTime = ::getsockopt( socketFd(), SOL_SOCKET, optionName, &t, &length ) == 0 &&
                         ( t.tv_sec != 0 || t.tv_usec != 0 );
    errno = errorNbr;
    if ( !hasTime )
        return waitForEver;
    const std::uint64_t ms = static_cast< std::uint64_t >( t.tv_sec ) * Utils::Time::msPerSec +
                             ( static_cast< std::uint64_t >( t.tv_usec ) + 999 ) / 1000;
    return static_cast< int >( std::min< std::uint64_t >( ms, 0x7FFFFFFF ) );
}

int IpSocket::receiveTimeoutMs()
{
    int timeoutMs = myReceiveTimeoutMs.load( std::memory_order_relaxed );
    if ( timeoutMs == ourUnknownTimeout ) {
        timeoutMs = systemTimeoutMs( SO_RCVTIMEO );
        myReceiveTimeoutMs.store( timeoutMs, std::memory_order_relaxed );
    }
    return timeoutMs;
}

// ------------------------------------------------------------------------------- SocketOptions

SocketOptions::~SocketOptions() = default;

void SocketOptions::setInt( int level, int name, int value )
{
    setOpt( level, name, &value, sizeof( value ) );
}

int SocketOptions::getInt( int level, int name ) const
{
    int value = 0;
    unsigned int len = sizeof( value );
    getOpt( level, name, &value, &len );
    return value;
}

void SocketOptions::soLinger( const linger& value )
{
    setOpt( SOL_SOCKET, SO_LINGER, &value, sizeof( value ) );
}

linger SocketOptions::soLinger() const
{
    linger l{};
    unsigned int len = sizeof( l );
    getOpt( SOL_SOCKET, SO_LINGER, &l, &len );
    nuvAssert( len == sizeof( l ) );
    return l;
}

void SocketOptions::setTime( int name, const timeval& value )
{
    setOpt( SOL_SOCKET, name, &value, sizeof( value ) );
}

timeval SocketOptions::getTime( int name ) const
{
    timeval t{};
    unsigned int len = sizeof( t );
    getOpt( SOL_SOCKET, name, &t, &len );
    nuvAssert( len == sizeof( t ) );
    return t;
}

void SocketOptions::soRcvTimeOut( const timeval& value )
{
    setTime( SO_RCVTIMEO, value );
}

timeval SocketOptions::soRcvTimeOut() const
{
    return getTime( SO_RCVTIMEO );
}

void SocketOptions::soSndTimeOut( const timeval& value )
{
    setTime( SO_SNDTIMEO, value );
}

timeval SocketOptions::soSndTimeOut() const
{
    return getTime( SO_SNDTIMEO );
}

// ----------------------------------------------------------------------------------- TcpSocket

char TcpSocket::ourProgName[32] = "";

TcpSocket::~TcpSocket()
{
    close();
}

int TcpSocket::listen( int backlog )
{
    if ( !isOpen() )
        return -1;
    if ( ::listen( socketFd(), backlog ) != 0 )
        fail( socketListenFailed );
    return 0;
}

// The peer that poll() saw may have been taken by another process: then accept4() blocks, so it is
// interruptible as well.
int TcpSocket::acceptPeer( sockaddr_in* addressPtr, socklen_t* lengthPtr )
{
    if ( !waitFor( POLLIN, receiveTimeoutMs() ) )
        return -1;
    const Mt::InterruptibleCall call;
    if ( isClosing() ) {
        errno = EINTR;
        return -1;
    }
    *lengthPtr = sizeof( *addressPtr );
    return ::accept4( socketFd(), reinterpret_cast< sockaddr* >( addressPtr ), lengthPtr,
                      SOCK_CLOEXEC );
}

int TcpSocket::accept( Utils::Ptr< TcpSocket >* socketPtrPtr,
                       Utils::Ptr< IpAddress >* addressPtrPtr )
{
    recordProgName();
    const BlockedScope scope( *this );
    if ( !scope.isOpen() || domain() != AF_INET )
        return -1;
    sockaddr_in address{};
    socklen_t length = 0;
    Utils::Handle fd;
    while ( !fd.isValid() ) {
        if ( !isOpen() ) {
            errno = EINTR; // the closing came before the call
            fail( socketAcceptFailed );
        }
        fd.reset( acceptPeer( &address, &length ) );
        if ( !fd.isValid() && errno != EINTR && errno != EPROTO && errno != ECONNABORTED )
            fail( socketAcceptFailed );
    }
    if ( length == 0 )
        return 0;
    *addressPtrPtr = new IpV4Address( reinterpret_cast< const sockaddr* >( &address ),
                                      static_cast< int >( length ) );
    *socketPtrPtr = new TcpSocket( domain(), type(), protocol(), fd.fd() );
    fd.release();
    return 0;
}

int TcpSocket::connect( const IpAddress& address )
{
    const BlockedScope scope( *this );
    if ( !scope.isOpen() )
        return -1;
    if ( !connectWithin( address, systemTimeoutMs( SO_SNDTIMEO ) ) ) {
        if ( errno == EAGAIN )
            errno = EINPROGRESS;
        fail( socketConnectFailed );
    }
    return 0;
}

int TcpSocket::connect( const IpAddress& address, unsigned int timeoutMs )
{
    const BlockedScope scope( *this );
    if ( !scope.isOpen() )
        return -1;
    if ( !connectWithin( address, pollTimeout( timeoutMs ) ) ) {
        if ( errno == EAGAIN ) {
            // An attempt that goes on would refuse the next one.
            const sockaddr nobody{ AF_UNSPEC, {} };
            static_cast< void >( ::connect( socketFd(), &nobody, sizeof( nobody ) ) );
            errno = ETIMEDOUT;
        }
        fail( socketConnectFailed );
    }
    return 0;
}

/// @return false with errno; EAGAIN when time is over
bool TcpSocket::connectWithin( const IpAddress& address, int timeoutMs )
{
    const NonBlockingScope nonBlocking( socketFd() );
    if ( ::connect( socketFd(), address, static_cast< socklen_t >( address.length() ) ) == 0 )
        return true;
    // EAGAIN is the failure of an exhausted range of local ports, not a wait.
    if ( errno == EAGAIN )
        errno = EADDRNOTAVAIL;
    if ( errno != EINPROGRESS && errno != EALREADY && errno != EINTR )
        return false;
    if ( !waitFor( POLLOUT, timeoutMs ) )
        return false;
    // Only a second call takes the socket from "connecting" to "connected", or tells the failure.
    return ::connect( socketFd(), address, static_cast< socklen_t >( address.length() ) ) == 0 ||
           errno == EISCONN;
}

int TcpSocket::shutdown( int how )
{
    return isOpen() ? ::shutdown( socketFd(), how ) : -1;
}

int TcpSocket::shutdownInput()
{
    return shutdown( SHUT_RD );
}

int TcpSocket::shutdownOutput()
{
    return shutdown( SHUT_WR );
}

int TcpSocket::shutdownInputAndOutput()
{
    return shutdown( SHUT_RDWR );
}

int TcpSocket::write( const void* bufferPtr, int length, int )
{
    if ( !isOpen() )
        return -1;
    ssize_t result = -1;
    errno = EINVAL;
    if ( length >= 0 ) {
        do {
            result =
                ::send( socketFd(), bufferPtr, static_cast< std::size_t >( length ), MSG_NOSIGNAL );
        } while ( result == -1 && errno == EINTR && !isClosing() );
    }
    if ( result == -1 )
        fail( socketError );
    return static_cast< int >( result );
}

int TcpSocket::read( void* bufferPtr, int length, int )
{
    const BlockedScope scope( *this );
    if ( !scope.isOpen() )
        return 0;
    const int result = readWithin( bufferPtr, length, receiveTimeoutMs() );
    if ( result == -1 )
        fail( socketError );
    return result;
}

int TcpSocket::timedRead( void* bufferPtr, int length, unsigned int timeoutMs )
{
    const BlockedScope scope( *this );
    if ( !scope.isOpen() )
        return 0;
    const int result = readWithin( bufferPtr, length, pollTimeout( timeoutMs ) );
    if ( result == -1 && errno == EAGAIN )
        throw SocketException( "", socketReadTimedOut, 0 );
    if ( result == -1 )
        fail( socketError );
    return result;
}

int TcpSocket::readWithin( void* bufferPtr, int length, int timeoutMs )
{
    if ( length <= 0 ) {
        errno = EINVAL;
        return length == 0 ? 0 : -1;
    }
    const ssize_t result = receiveWith(
        [&] {
            return ::recv( socketFd(), bufferPtr, static_cast< std::size_t >( length ),
                           MSG_DONTWAIT );
        },
        myDidFillBuffer, timeoutMs );
    myDidFillBuffer = result == length;
    return static_cast< int >( result );
}

int TcpSocket::setOpt( int level, int name, const void* valuePtr, unsigned int length )
{
    return setOptImpl( level, name, valuePtr, length );
}

int TcpSocket::getOpt( int level, int name, void* valuePtr, unsigned int* lengthPtr ) const
{
    return getOptImpl( level, name, valuePtr, lengthPtr );
}

// ----------------------------------------------------------------------------------- UdpSocket

UdpSocket::~UdpSocket()
{
    close();
}

int UdpSocket::setOpt( int level, int name, const void* valuePtr, unsigned int length )
{
    return setOptImpl( level, name, valuePtr, length );
}

int UdpSocket::getOpt( int level, int name, void* valuePtr, unsigned int* lengthPtr ) const
{
    return getOptImpl( level, name, valuePtr, lengthPtr );
}

int UdpSocket::recvFrom( Utils::Ptr< IpAddress >* addressPtrPtr, void* bufferPtr, int length,
                         int flags )
{
    const BlockedScope scope( *this );
    if ( !scope.isOpen() )
        return -1;
    if ( domain() != AF_INET )
        fail( socketError );
    sockaddr_in address{};
    socklen_t addressLength = 0;
    ssize_t result = -1;
    errno = EINVAL;
    const auto receive = [&] {
        addressLength = sizeof( address );
        return ::recvfrom( socketFd(), bufferPtr, static_cast< std::size_t >( length ),
                           flags | MSG_DONTWAIT, reinterpret_cast< sockaddr* >( &address ),
                           &addressLength );
    };
    if ( length >= 0 && ( flags & MSG_DONTWAIT ) != 0 )
        result = Utils::retryOnEintr( receive );
    else if ( length >= 0 )
        result = receiveWith( receive, false, receiveTimeoutMs() );
    if ( result == -1 )
        fail( socketError );
    if ( addressLength != 0 )
        *addressPtrPtr = new IpV4Address( reinterpret_cast< const sockaddr* >( &address ),
                                          static_cast< int >( addressLength ) );
    return static_cast< int >( result );
}

int UdpSocket::sendTo( const IpAddress& address, const void* bufferPtr, int length, int flags )
{
    ssize_t result = -1;
    errno = EINVAL;
    if ( length >= 0 ) {
        do {
            result = ::sendto( socketFd(), bufferPtr, static_cast< std::size_t >( length ),
                               flags | MSG_NOSIGNAL, address,
                               static_cast< socklen_t >( address.length() ) );
        } while ( result == -1 && errno == EINTR && !isClosing() );
    }
    if ( result == -1 )
        fail( socketError );
    return static_cast< int >( result );
}

// ------------------------------------------------------------------------------- SocketMonitor

namespace {

bool isInSet( int fd )
{
    return fd >= 0 && fd < FD_SETSIZE;
}

} // namespace

SocketMonitor::SocketMonitor()
{
    clear( read | write | exception );
}

void SocketMonitor::clear( int flags )
{
    for ( int i = 0; i < nbrOfSets; ++i ) {
        if ( flags >> i & 1 )
            FD_ZERO( &mySets[i] );
    }
    myMaxFd = 0;
}

void SocketMonitor::add( const IpSocket* socketPtr, int flags )
{
    const int fd = socketPtr->socketFd();
    for ( int i = 0; i < nbrOfSets; ++i ) {
        if ( isInSet( fd ) && ( flags >> i & 1 ) )
            FD_SET( fd, &mySets[i] );
    }
    myMaxFd = std::max( myMaxFd, fd );
}

void SocketMonitor::add( const std::list< IpSocket* >& sockets, int flags )
{
    for ( const IpSocket* socketPtr : sockets ) {
        add( socketPtr, flags );
    }
}

void SocketMonitor::remove( const IpSocket* socketPtr, int flags )
{
    const int fd = socketPtr->socketFd();
    for ( int i = 0; i < nbrOfSets; ++i ) {
        if ( isInSet( fd ) && ( flags >> i & 1 ) )
            FD_CLR( fd, &mySets[i] );
    }
}

int SocketMonitor::select( timeval& timeout )
{
    const int maxFdP1 = myMaxFd + 1;
    if ( maxFdP1 > FD_SETSIZE ) {
        nuvLogTo( Log::getStandardSource( Log::debug ) ) << "Socket select maxFdP1 > FD_SETSIZE";
        throw SocketException( "", socketError, 0 );
    }
    const int result = Utils::retryOnEintr(
        [&] { return ::select( maxFdP1, &mySets[0], &mySets[1], &mySets[2], &timeout ); } );
    myMaxFd = 0;
    if ( result == -1 )
        fail( socketError );
    return result;
}

bool SocketMonitor::isSet( const IpSocket* socketPtr, int flags ) const
{
    const int fd = socketPtr->socketFd();
    for ( int i = 0; i < nbrOfSets; ++i ) {
        if ( isInSet( fd ) && ( flags >> i & 1 ) && FD_ISSET( fd, &mySets[i] ) )
            return true;
    }
    return false;
}

} // namespace Nuv::Net
