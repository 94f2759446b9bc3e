#pragma once

#include "nuvIpAddr.h"
#include "nuvMutex.h"
#include "nuvUtils.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace Nuv::Net {

enum SocketExceptionReason
{
    socketInitFailed = 0,    ///< "socket init failed"; kept for its number, not thrown
    socketWrongVersion = 1,  ///< "socket wrong version"; kept for its number, not thrown
    socketAllocFailed = 2,   ///< "socket failed to allocate"
    socketError = 3,         ///< "socket error"
    socketConnectFailed = 4, ///< "socket connect failed"
    socketBindFailed = 5,    ///< "socket bind failed"
    socketListenFailed = 6,  ///< "socket listen failed"
    socketAcceptFailed = 7,  ///< "socket accept failed"
    socketReadTimedOut = 8   ///< "socket read timed out"
};

/// A failed socket operation: the reason tells which one, the error number is errno.
class NUV_API SocketException : public RuntimeException
{
public:
    using RuntimeException::RuntimeException;
    void getReasonStr() const override;
};

/// An IPv4 socket whose blocking calls can be broken off from another thread.
///
/// | operation on                          | an open socket      | a closed socket |
/// |---------------------------------------|---------------------|-----------------|
/// | bind                                  | acts, 0             | nothing, 0      |
/// | listen, connect, accept, shutdown...  | acts, 0             | nothing, -1     |
/// | write                                 | number of bytes     | nothing, -1     |
/// | read                                  | number of bytes     | nothing, 0      |
/// | recvFrom                              | number of bytes     | nothing, -1     |
/// | setOpt, getOpt                        | acts, 0             | nothing, -1     |
/// | close                                 | close()'s result    | nothing, -1     |
/// | sendTo, getLocalAddr                  | acts                | throw, EBADF    |
///
/// A socket is open from its construction until close(), and never again. read, connect, accept and
/// recvFrom register the calling thread while they block. close() interrupts that thread, waits
/// until it has left the call, and only then closes the descriptor, so that no call ever runs on a
/// descriptor that belongs to somebody else by now. The call that was broken off throws the reason
/// of its kind with EINTR.
///
/// The calls wait for the descriptor with signal 30 deliverable, and keep that signal as it is for
/// the thread at all other times: no interruption is lost, and one that comes too late does nothing
/// but end some later wait early, which then waits on. They wait also on a descriptor that was made
/// non-blocking, and they keep to SO_RCVTIMEO and SO_SNDTIMEO (EAGAIN, for connect EINPROGRESS).
///
/// Threads: any thread may close; only one blocked thread per socket is tracked, so one thread at a
///          time reads. write and sendTo are not registered: a thread that blocks in these is not
///          woken by close().
/// Errors:  SocketException, see its reasons; it leaves the socket open.
/// Owns:    its descriptor, which is close-on-exec if the library opened it.
/// Cost:    a read that finds no data: signal mask, poll, receive; while reads come back full, the
///          next one begins with the receive.
class NUV_API IpSocket
{
public:
    /// What stands for "no thread".
    static const unsigned long ourInvalidThreadBlockId = 0;

    /// @throws SocketException socketAllocFailed
    IpSocket( int domain, int type, int protocol );
    /// Takes over a descriptor that is open.
    IpSocket( int domain, int type, int protocol, int socketFd );
    IpSocket( const IpSocket& ) = delete;
    IpSocket& operator=( const IpSocket& ) = delete;
    virtual ~IpSocket();

    virtual int bind( const IpAddress& address );
    /// Whether there is something to receive; waits half a millisecond for it.
    /// @param countPtr may be null; receives the number of waiting bytes if there are any
    /// @return false if not, and for a closed socket
    virtual bool isRecvDataAvailable( int* countPtr );

    /// See the class. The wait takes as long as the other thread needs to leave its call, usually
    /// well below a millisecond; the interruption is repeated every 500 ms.
    int close();
    void getLocalAddr( Utils::Ptr< IpAddress >* addressPtrPtr ) const;

    bool isOpen() const { return myIsOpen.load( std::memory_order_acquire ); }
    /// -1 once closed.
    int socketFd() const { return mySocketFd.load( std::memory_order_relaxed ); }
    int domain() const { return myDomain; }
    int type() const { return myType; }
    int protocol() const { return myProtocol; }

protected:
    /// No time-out, in ms.
    static constexpr int waitForEver = -1;

    /// Shows the calling thread as blocked for a scope.
    class BlockedScope;

    int setOptImpl( int level, int name, const void* valuePtr, unsigned int length );
    int getOptImpl( int level, int name, void* valuePtr, unsigned int* lengthPtr ) const;

    /// For a registered thread: waits for the events, at most so long (negative: for ever).
    /// @return false with errno EAGAIN when time is over, EINTR when the socket is being closed, or
    ///         the system's failure
    bool waitFor( short events, int timeoutMs );
    /// For a registered thread: calls receive() (which must not block) until it brings something.
    /// @param doesBegin the first call comes before the first wait
    template < class Receive >
    ssize_t receiveWith( Receive receive, bool doesBegin, int timeoutMs );
    bool isClosing() const { return myIsClosing.load( std::memory_order_acquire ); }
    /// SO_RCVTIMEO or SO_SNDTIMEO in ms, waitForEver without one; errno stays.
    int systemTimeoutMs( int optionName ) const;
    /// The former, asked for once after each change.
    int receiveTimeoutMs();

private:
    static constexpr int ourUnknownTimeout = -2;

    int myDomain;
    int myType;
    int myProtocol;
    std::atomic< bool > myIsOpen;
    std::atomic< int > mySocketFd;
    std::atomic< bool > myIsClosing = false;
    std::atomic< unsigned long > myBlockedThreadId = ourInvalidThreadBlockId;
    mutable Mt::Mutex myMutex; // leaf; guards changes of the three above
    std::atomic< int > myReceiveTimeoutMs = ourUnknownTimeout;
};

/// The options of any socket, each as a setter and a const getter of one name.
///
/// Booleans travel as an int of 0 or 1; a boolean getter tells whether the value is not 0.
/// Errors:  SocketException socketError; setters and getters of a closed socket do nothing and
///          give 0, false or zeros.
/// Example: socket.soReuseAddr( true ); if ( socket.soError() != 0 ) giveUp();
class NUV_API SocketOptions
{
public:
    /// @return 0, -1 for a closed socket
    virtual int setOpt( int level, int name, const void* valuePtr, unsigned int length ) = 0;
    /// @param lengthPtr the room on entry, what was stored on return
    virtual int getOpt( int level, int name, void* valuePtr, unsigned int* lengthPtr ) const = 0;
    virtual ~SocketOptions();

    void soBroadcast( bool value ) { setInt( SOL_SOCKET, SO_BROADCAST, value ); }
    bool soBroadcast() const { return getInt( SOL_SOCKET, SO_BROADCAST ) != 0; }
    void soDebug( bool value ) { setInt( SOL_SOCKET, SO_DEBUG, value ); }
    bool soDebug() const { return getInt( SOL_SOCKET, SO_DEBUG ) != 0; }
    void soDontRoute( bool value ) { setInt( SOL_SOCKET, SO_DONTROUTE, value ); }
    bool soDontRoute() const { return getInt( SOL_SOCKET, SO_DONTROUTE ) != 0; }
    /// The pending error, which reading clears.
    int soError() const { return getInt( SOL_SOCKET, SO_ERROR ); }
    void soKeepAlive( bool value ) { setInt( SOL_SOCKET, SO_KEEPALIVE, value ); }
    bool soKeepAlive() const { return getInt( SOL_SOCKET, SO_KEEPALIVE ) != 0; }
    void soLinger( const linger& value );
    linger soLinger() const;
    void soOobInline( bool value ) { setInt( SOL_SOCKET, SO_OOBINLINE, value ); }
    bool soOobInline() const { return getInt( SOL_SOCKET, SO_OOBINLINE ) != 0; }
    /// In bytes; the system keeps the double of what it is given.
    void soRcvBufSize( int value ) { setInt( SOL_SOCKET, SO_RCVBUF, value ); }
    int soRcvBufSize() const { return getInt( SOL_SOCKET, SO_RCVBUF ); }
    void soSndBufSize( int value ) { setInt( SOL_SOCKET, SO_SNDBUF, value ); }
    int soSndBufSize() const { return getInt( SOL_SOCKET, SO_SNDBUF ); }
    void soRcvLowWater( int value ) { setInt( SOL_SOCKET, SO_RCVLOWAT, value ); }
    int soRcvLowWater() const { return getInt( SOL_SOCKET, SO_RCVLOWAT ); }
    /// The platform refuses a change of this one.
    void soSndLowWater( int value ) { setInt( SOL_SOCKET, SO_SNDLOWAT, value ); }
    int soSndLowWater() const { return getInt( SOL_SOCKET, SO_SNDLOWAT ); }
    /// 0 is none.
    void soRcvTimeOut( const timeval& value );
    timeval soRcvTimeOut() const;
    void soSndTimeOut( const timeval& value );
    timeval soSndTimeOut() const;
    void soReuseAddr( bool value ) { setInt( SOL_SOCKET, SO_REUSEADDR, value ); }
    bool soReuseAddr() const { return getInt( SOL_SOCKET, SO_REUSEADDR ) != 0; }
    int soType() const { return getInt( SOL_SOCKET, SO_TYPE ); }
    /// The same option as soReuseAddr(): the platform has none for looping back.
    void soUseLoopBack( bool value ) { soReuseAddr( value ); }
    bool soUseLoopBack() const { return soReuseAddr(); }

protected:
    void setInt( int level, int name, int value );
    int getInt( int level, int name ) const;

private:
    void setTime( int name, const timeval& value );
    timeval getTime( int name ) const;
};

class NUV_API IpSocketOptions : public SocketOptions
{
public:
    /// For raw sockets alone.
    void ipHeaderIncl( bool value ) { setInt( IPPROTO_IP, IP_HDRINCL, value ); }
    bool ipHeaderIncl() const { return getInt( IPPROTO_IP, IP_HDRINCL ) != 0; }
    /// 1 to 255.
    void ipTtl( int value ) { setInt( IPPROTO_IP, IP_TTL, value ); }
    int ipTtl() const { return getInt( IPPROTO_IP, IP_TTL ); }
};

class NUV_API TcpSocketOptions : public IpSocketOptions
{
public:
    void tcpNoDelay( bool value ) { setInt( IPPROTO_TCP, TCP_NODELAY, value ); }
    bool tcpNoDelay() const { return getInt( IPPROTO_TCP, TCP_NODELAY ) != 0; }
};

/// A stream socket; see IpSocket for what its operations give when it is closed.
///
/// Example: TcpSocket socket( AF_INET, SOCK_STREAM, 0 ); socket.connect( address );
class NUV_API TcpSocket : public IpSocket, public TcpSocketOptions
{
public:
    /// The running program's name, cut to 31 characters, from the process's first accept() on.
    static char ourProgName[32];

    /// A time-out of connect() and timedRead() that never comes.
    static constexpr unsigned int infinite = 0xFFFFFFFF;

    using IpSocket::IpSocket;
    ~TcpSocket() override;

    virtual int listen( int backlog );
    /// Blocks until a peer connects; peers that have gone again meanwhile are passed over.
    /// @param socketPtrPtr receives the peer's socket (close-on-exec)
    /// @param addressPtrPtr receives its address. If the system gives none, the peer's descriptor
    /// is
    ///        closed and nothing is stored.
    /// @return 0, -1 for a closed socket or one of another domain
    /// @throws SocketException socketAcceptFailed, also when close() ends the wait
    virtual int accept( Utils::Ptr< TcpSocket >* socketPtrPtr,
                        Utils::Ptr< IpAddress >* addressPtrPtr );
    /// Blocks for as long as the system tries, unless SO_SNDTIMEO is set.
    virtual int connect( const IpAddress& address );
    virtual int shutdownInput();
    virtual int shutdownOutput();
    virtual int shutdownInputAndOutput();
    /// One system call, which blocks while the peer does not take what is sent. A peer that is gone
    /// raises no signal.
    /// @return number of bytes taken, which may be less than length
    virtual int write( const void* bufferPtr, int length, int unused = 0 );
    /// @return number of bytes, 0 at the end of the stream
    virtual int read( void* bufferPtr, int length, int unused = 0 );
    int setOpt( int level, int name, const void* valuePtr, unsigned int length ) override;
    int getOpt( int level, int name, void* valuePtr, unsigned int* lengthPtr ) const override;

    /// As connect(), for at most so many ms. An attempt that has timed out is given up: the socket
    /// may connect again.
    /// @throws SocketException socketConnectFailed with ETIMEDOUT when time is over
    int connect( const IpAddress& address, unsigned int timeoutMs );
    /// As read(), for at most so many ms.
    /// @throws SocketException socketReadTimedOut, error number 0, when time is over
    int timedRead( void* bufferPtr, int length, unsigned int timeoutMs );

private:
    int shutdown( int how );
    bool connectWithin( const IpAddress& address, int timeoutMs );
    int readWithin( void* bufferPtr, int length, int timeoutMs );
    int acceptPeer( sockaddr_in* addressPtr, socklen_t* lengthPtr );

    bool myDidFillBuffer = false; // the last read: more is likely there already
};

/// A datagram socket; see IpSocket for what its operations give when it is closed.
class NUV_API UdpSocket : public IpSocket, public IpSocketOptions
{
public:
    using IpSocket::IpSocket;
    ~UdpSocket() override;

    int setOpt( int level, int name, const void* valuePtr, unsigned int length ) override;
    int getOpt( int level, int name, void* valuePtr, unsigned int* lengthPtr ) const override;

    /// Blocks until a datagram comes (unless flags has MSG_DONTWAIT).
    /// @param addressPtrPtr receives the sender's address
    /// @return number of bytes; what did not fit into the buffer is lost
    int recvFrom( Utils::Ptr< IpAddress >* addressPtrPtr, void* bufferPtr, int length, int flags );
    int sendTo( const IpAddress& address, const void* bufferPtr, int length, int flags );
};

/// Waits until one of several sockets is ready.
///
/// | operation            | interest                       | highest descriptor        |
/// |----------------------|--------------------------------|---------------------------|
/// | construction, clear  | named sets emptied             | 0                         |
/// | add                  | set in the named sets          | raised to the socket's    |
/// | remove               | cleared in the named sets      | stays                     |
/// | select               | only what is ready stays       | 0                         |
///
/// After select() the sets hold what is ready: isSet() reads them. Before the next select() fill
/// them again, by clear() and add().
///
/// A set holds descriptors below 1024. A greater one is in no set (nothing beyond a set is ever
/// touched), but makes select() refuse until the next clear(). A closed socket is passed over.
///
/// Threads: one at a time.
/// Errors:  SocketException socketError.
/// Example: SocketMonitor m; m.add( &socket, SocketMonitor::read ); if ( m.select( time ) > 0 ) ...
class NUV_API SocketMonitor
{
public:
    /// To be combined by "|".
    enum Flags
    {
        read = 1,
        write = 2,
        exception = 4
    };

    SocketMonitor();

    void clear( int flags );
    void add( const IpSocket* socketPtr, int flags );
    void add( const std::list< IpSocket* >& sockets, int flags );
    void remove( const IpSocket* socketPtr, int flags );
    /// @param timeout the platform takes the time it waited off
    /// @return number of ready descriptors, 0 when time is over
    int select( timeval& timeout );
    bool isSet( const IpSocket* socketPtr, int flags ) const;

private:
    static constexpr int nbrOfSets = 3;

    fd_set mySets[nbrOfSets];
    int myMaxFd = 0;
};
static_assert( sizeof( fd_set ) == 128 );

} // namespace Nuv::Net
