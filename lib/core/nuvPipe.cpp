#include "nuvPipe.h"

#include "nuvConfig.h"
#include "nuvOs.h"
#include "nuvPathname.h"
#include "nuvSingleton.h"
#include "nuvTime.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::Io {

extern Mt::Mutex CtConfigSingletonPtrMutex;
Mt::Mutex CtConfigSingletonPtrMutex;

namespace {

constexpr unsigned int defaultReadWaitSec = 30;
constexpr unsigned int defaultHandshakeMs = 30000;
constexpr unsigned int openRetryUs = 500;
constexpr int wantedPipeSize = 256 * 1024; // a message of 64 KiB fits with its header

Utils::String fifoName( const char* prefixPtr, const char* namePtr )
{
    const std::string name = std::string( prefixPtr ) + namePtr;
    return Pathname( Pathname::ipcDirectory, Utils::String( name ) ).str();
}

// A descriptor of a FIFO is got without waiting for the other side in the kernel, which could last
// for ever. @return invalid, with errno
Utils::Handle openFifo( const Utils::String& pathname, int flags )
{
    return Utils::Handle( Utils::retryOnEintr(
        [&] { return ::open( pathname.c_str(), flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY ); } ) );
}

// Of the semaphore that tells of an available server. Should this process be killed before
// keepTaken(), the system posts what it took: else the server would wait for a client that is not
// there, and no other could connect. @return false when the time is over
bool takeRevocably( const Mt::Semaphore& semaphore, unsigned int timeoutMs )
{
    const Utils::MsTimer timer;
    for ( ;; ) {
        sembuf take = { Mt::Semaphore::semaphoreIdx, -1, IPC_NOWAIT | SEM_UNDO };
        if ( Utils::retryOnEintr( [&] { return ::semop( semaphore.handle(), &take, 1 ); } ) == 0 )
            return true;
        if ( errno != EAGAIN || timer.totalTime() >= timeoutMs )
            return false;
        ::usleep( 1000 );
    }
}

void keepTaken( const Mt::Semaphore& semaphore )
{
    sembuf keep[] = { { Mt::Semaphore::semaphoreIdx, +1, SEM_UNDO },
                      { Mt::Semaphore::semaphoreIdx, -1, 0 } }; // in one step: nobody sees it free
    Utils::retryOnEintr( [&] { return ::semop( semaphore.handle(), keep, 2 ); } );
}

// One client at a time: a second one would take posts that are meant for the first. The lock is on
// the key file of the clients' semaphore; the system opens it when its holder is killed.
// @param timeoutMsPtr is lessened by the time waited
// @return invalid when the time is over
Utils::Handle takeTurn( const Mt::Semaphore& semaphore, unsigned int* timeoutMsPtr )
{
    Utils::MsTimer timer;
    Utils::Handle turn( Utils::retryOnEintr(
        [&] { return ::open( semaphore.fileName(), O_RDONLY | O_CLOEXEC | O_NOCTTY ); } ) );
    while ( turn.isValid() && ::flock( turn, LOCK_EX | LOCK_NB ) != 0 ) {
        const bool isTaken = errno == EWOULDBLOCK || errno == EINTR;
        timer.decrementByElapsedTime( timeoutMsPtr );
        if ( !isTaken || *timeoutMsPtr == 0 )
            turn.reset();
        else
            ::usleep( 1000 );
    }
    return turn;
}

bool makeBlocking( int fd )
{
    const int flags = ::fcntl( fd, F_GETFL );
    return flags >= 0 && ::fcntl( fd, F_SETFL, flags & ~O_NONBLOCK ) == 0;
}

} // namespace

// ---- settings ---------------------------------------------------------------------------------

std::atomic< unsigned int > CtConfig::maxPipeReadWaitTimeInSec = defaultReadWaitSec;
std::atomic< unsigned int > CtConfig::handshakeTimeoutMs = defaultHandshakeMs;

CtConfig* CtConfig::singletonPtr()
{
    return Utils::Singleton< CtConfig >::ptr( CtConfigSingletonPtrMutex );
}

CtConfig::CtConfig()
{
    const Pathname pathname( Pathname::rootDirectory, "etc/mainApp.conf" );
    const Utils::Config config( pathname.cStr() );
    maxPipeReadWaitTimeInSec =
        config.uIntValue( "ControlTransaction", "maxWaitTimeForPipeRead", defaultReadWaitSec );
}

// ---- what both ends have ----------------------------------------------------------------------

PipeEnd::PipeEnd( const char* classNamePtr, const char* namePtr, bool isServer )
    : myClassNamePtr( classNamePtr )
    , mySources( "IoPipe" )
    , myInPipeNameStr( fifoName( isServer ? "pipe_toSrvr_" : "pipe_fmSrvr_", namePtr ) )
    , myOutPipeNameStr( fifoName( isServer ? "pipe_fmSrvr_" : "pipe_toSrvr_", namePtr ) )
    , myServerConnectSema( std::string( "pipe_SrvrConnect_" ) + namePtr, 0 )
    , myClientConnectSema( std::string( "pipe_ClntConnect_" ) + namePtr, 0 )
    , myFrame( classNamePtr, &mySources )
{
}

void PipeEnd::logStep( const char* textPtr, const char* functionPtr ) const
{
    nuvLogTo( mySources.source( Log::debug ) )
        << textPtr << " [" << myClassNamePtr << "::" << functionPtr << "]";
}

void PipeEnd::logOpenError( const char* textPtr, const Utils::String& pathname, int errorNbr ) const
{
    nuvLogTo( mySources.source( Log::error ) )
        << textPtr << pathname << " error: " << std::strerror( errorNbr ) << " [" << myClassNamePtr
        << "::connect]";
}

bool PipeEnd::waitForPeer( Mt::Semaphore* semaphorePtr ) const
{
    return semaphorePtr->peek( CtConfig::handshakeTimeoutMs.load( std::memory_order_relaxed ) );
}

bool PipeEnd::openIn()
{
    myInFd = openFifo( myInPipeNameStr, O_RDONLY );
    return myInFd.isValid();
}

// There is nobody to write to until the other side has the FIFO open for reading.
bool PipeEnd::openOut()
{
    const Utils::MsTimer timer;
    for ( ;; ) {
        myOutFd = openFifo( myOutPipeNameStr, O_WRONLY );
        if ( myOutFd.isValid() )
            break;
        if ( errno != ENXIO )
            return false;
        if ( timer.totalTime() >= CtConfig::handshakeTimeoutMs.load( std::memory_order_relaxed ) ) {
            errno = ETIMEDOUT;
            return false;
        }
        ::usleep( openRetryUs );
    }
    ::fcntl( myOutFd, F_SETPIPE_SZ, wantedPipeSize ); // a small pipe does too
    return makeBlocking( myOutFd );
}

void PipeEnd::close()
{
    myInFd.reset();
    myOutFd.reset();
}

// ---- server -----------------------------------------------------------------------------------

ServerPipe::ServerPipe( const char* namePtr )
    : PipeEnd( "ServerPipe", namePtr, true )
{
    Utils::SecurityInfo security( Utils::SecurityInfo::ipcObject,
                                  Utils::SecurityInfo::ownerAndGroup );
    const auto make = [&]( const Utils::String& pathname ) {
        security.applyUmask();
        const bool made = ::mkfifo( pathname.c_str(), security.mode() ) == 0;
        const int errorNbr = errno;
        security.restoreUmask();
        if ( made ) {
            security.applyGroupOwnership( pathname.c_str() );
            return true;
        }
        nuvLogTo( mySources.source( Log::error ) )
            << "errSystemError mkfifo failed to create " << pathname
            << " error: " << std::strerror( errorNbr ) << " [ServerPipe::ServerPipe]";
        return false;
    };
    bool made = make( myInPipeNameStr );
    if ( made && !make( myOutPipeNameStr ) ) {
        ::unlink( myInPipeNameStr.c_str() );
        made = false;
    }
    if ( !made )
        throw Exception( "The specified Io::ServerPipe name is already in use.", 0, 0 );
    myMark = openFifo( myInPipeNameStr, O_PATH );
    while ( myServerConnectSema.peek() || myClientConnectSema.peek() ) {
    }
}

ServerPipe::~ServerPipe()
{
    if ( myFrame.isStopped() && !myIsStopTaken )
        myClientConnectSema.peek();
    ::unlink( myInPipeNameStr.c_str() );
    ::unlink( myOutPipeNameStr.c_str() );
}

void ServerPipe::connect()
{
    static constexpr char text[] = "errSystemError open error on ";
    static constexpr char failure[] = "The connect to the specified Io::ServerPipe failed.";
    logStep( "Begin", "connect" );
    close();
    if ( myIsStopTaken )
        throw Exception( failure, 0, 0 );
    while ( myServerConnectSema.peek() ) { // for a client that died meanwhile
    }
    myServerConnectSema.post();
    logStep( "   myClientConnectSema.wait()", "connect" );
    myClientConnectSema.wait();
    if ( myFrame.isStopped() ) {
        myIsStopTaken = true;
        myServerConnectSema.peek(); // no client shall take this server for available
        throw Exception( failure, 0, 0 );
    }
    logStep( "   ::open( myInPipeNameStr )", "connect" );
    const Utils::String* failedPtr = openIn() ? nullptr : &myInPipeNameStr;
    if ( failedPtr == nullptr ) {
        logStep( "   ::open( myOutPipeNameStr )", "connect" );
        failedPtr = openOut() ? nullptr : &myOutPipeNameStr;
    }
    if ( failedPtr != nullptr ) {
        logOpenError( text, *failedPtr, errno );
        close();
        throw Exception( failure, 0, 0 );
    }
    logStep( "Before connect complete notify", "connect" );
    myServerConnectSema.post();
    logStep( "End", "connect" );
}

void ServerPipe::disconnect()
{
    logStep( "Begin", "disconnect" );
    const bool wasConnected = isConnected();
    close();
    logStep( "   myServerConnectSema.post()", "disconnect" );
    if ( wasConnected ) {
        myServerConnectSema.post();
        logStep( "   myClientConnectSema.wait()", "disconnect" );
        // A client that is gone does not answer; what was posted for it would greet the next one.
        if ( !waitForPeer( &myClientConnectSema ) )
            myServerConnectSema.peek();
    }
    logStep( "End", "disconnect" );
}

void ServerPipe::readMsg( Utils::Buffer* messagePtr )
{
    if ( !myFrame.read( myInFd, myInPipeNameStr, messagePtr,
                        CtConfig::maxPipeReadWaitTimeInSec.load( std::memory_order_relaxed ),
                        PipeFrame::Patience::fromFirstByte ) )
        throw Exception( "The read from the specified Io::ServerPipe failed.", 0, 0 );
}

void ServerPipe::writeMsg( const Utils::Buffer& message )
{
    if ( !myFrame.write( myOutFd, myOutPipeNameStr, message ) )
        throw Exception( "The write to the specified Io::ServerPipe failed.", 0, 0 );
}

void ServerPipe::drainPipe()
{
    if ( !myFrame.drain( myInFd, myInPipeNameStr,
                         CtConfig::maxPipeReadWaitTimeInSec.load( std::memory_order_relaxed ) ) )
        throw Exception( "Failed to clear contents from the specified Io::ServerPipe.", 0, 0 );
}

void ServerPipe::stop()
{
    myFrame.stop();
    myClientConnectSema.post(); // what connect() waits for
}

// ---- client -----------------------------------------------------------------------------------

ClientPipe::ClientPipe( const char* namePtr )
    : PipeEnd( "ClientPipe", namePtr, false )
{
}

void ClientPipe::connect( unsigned int timeoutMs, bool quiet )
{
    static constexpr char text[] = "errSystemError open failed on ";
    static constexpr char failure[] = "The connect to the specified Io::ClientPipe failed.";
    logStep( "Begin", "connect" );
    close();
    myTurn.reset();
    Utils::Handle turn = takeTurn( myClientConnectSema, &timeoutMs );
    if ( !turn.isValid() || !takeRevocably( myServerConnectSema, timeoutMs ) ) {
        if ( !quiet ) {
            nuvLogTo( mySources.source( Log::error ) )
                << "errSystemError connect timed out [ClientPipe::connect]";
        }
        throw Exception( failure, 0, 0 );
    }
    logStep( "   myClientConnectSema.post()", "connect" );
    myClientConnectSema.post();
    keepTaken( myServerConnectSema );
    logStep( "   ::open( myOutPipeNameStr )", "connect" );
    const Utils::String* failedPtr = openOut() ? nullptr : &myOutPipeNameStr;
    if ( failedPtr == nullptr ) {
        logStep( "   ::open( myInPipeNameStr )", "connect" );
        failedPtr = openIn() ? nullptr : &myInPipeNameStr;
    }
    if ( failedPtr != nullptr ) {
        logOpenError( text, *failedPtr, errno );
        close();
        throw Exception( failure, 0, 0 );
    }
    logStep( "Before connect complete wait", "connect" );
    if ( !waitForPeer( &myServerConnectSema ) )
        logStep( "Wait for Server connect complete timed out", "connect" );
    myTurn = std::move( turn );
    logStep( "End", "connect" );
}

void ClientPipe::disconnect()
{
    logStep( "Begin", "disconnect" );
    // Without a connection a post would be taken for the next client's.
    const bool wasConnected = myInFd.isValid() || myOutFd.isValid();
    if ( wasConnected )
        waitForPeer( &myServerConnectSema );
    close();
    logStep( "   myClientConnectSema.post()", "disconnect" );
    if ( wasConnected )
        myClientConnectSema.post();
    myTurn.reset();
    logStep( "End", "disconnect" );
}

void ClientPipe::disconnectWriter()
{
    logStep( "Begin", "disconnectWriter" );
    myOutFd.reset();
    logStep( "End", "disconnectWriter" );
}

void ClientPipe::readMsg( Utils::Buffer* messagePtr, unsigned int timeoutSec )
{
    if ( !myFrame.read( myInFd, myInPipeNameStr, messagePtr, timeoutSec,
                        PipeFrame::Patience::fromStart ) )
        throw Exception( "The read from the specified Io::ServerPipe failed.", 0, 0 );
}

void ClientPipe::writeMsg( const Utils::Buffer& message )
{
    if ( !myFrame.write( myOutFd, myOutPipeNameStr, message ) )
        throw Exception( "The write to the specified Io::ClientPipe failed.", 0, 0 );
}

void ClientPipe::drainPipe()
{
    if ( !myFrame.drain( myInFd, myInPipeNameStr,
                         CtConfig::maxPipeReadWaitTimeInSec.load( std::memory_order_relaxed ) ) )
        throw Exception( "Failed to clear contents from the specified Io::ClientPipe.", 0, 0 );
}

} // namespace Nuv::Io
