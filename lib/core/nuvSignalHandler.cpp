#include "nuvSignalHandler.h"

#include "nuvCrashReport.h"
#include "nuvOs.h"
#include "nuvPathname.h"
#include "nuvSingleton.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::Mt {

extern Mutex SignalHandlerSingletonPtrMutex;
Mutex SignalHandlerSingletonPtrMutex;

namespace {

constexpr int interruptSignals[] = { SIGHUP,  SIGINT,  SIGUSR1, SIGUSR2, SIGQUIT,
                                     SIGCONT, SIGTTIN, SIGTTOU, SIGTERM, SIGCHLD,
                                     SIGPIPE, SIGALRM, SIGIO,   SIGURG,  SIGPWR };

// A pipe's end as signal context reads it.
class SignalFd
{
public:
    bool isValid() const { return fd() >= 0; }
    int fd() const { return myFd.load( std::memory_order_relaxed ); }
    void set( int value ) { myFd.store( value, std::memory_order_relaxed ); }
    void close()
    {
        const int old = myFd.exchange( Utils::Handle::invalid, std::memory_order_relaxed );
        if ( old >= 0 )
            ::close( old );
    }

private:
    std::atomic< int > myFd = Utils::Handle::invalid;
    static_assert( std::atomic< int >::is_always_lock_free );
};

SignalFd ourSigReadOnlyFd;
SignalFd ourSigWriteOnlyFd;
std::atomic< pid_t > ourPipeOwner = 0;

std::atomic< pthread_t > ourSigwaitThreadId{};
std::atomic< bool > ourHasDispatcher = false;

sigset_t ourDefaultAppSet{};

// Interruptions of this thread, counted by the handler. Initial-exec: the first access in a thread
// may be the handler's, and must not allocate.
thread_local volatile unsigned int ourNbrOfInterruptions
    __attribute__( ( tls_model( "initial-exec" ) ) ) = 0;

sigset_t setOf( int sig )
{
    sigset_t set;
    sigemptyset( &set );
    sigaddset( &set, sig );
    return set;
}

// In signal context. A child that shares or inherited the pipe must not feed it, and a full pipe
// must not block a thread that may be the one that empties it.
void interruptSigHandler( int sig )
{
    if ( sig == SignalHandler::interruptSignal )
        ourNbrOfInterruptions = ourNbrOfInterruptions + 1;
    pollfd descriptor{ ourSigWriteOnlyFd.fd(), POLLOUT, 0 };
    if ( ourPipeOwner.load( std::memory_order_relaxed ) == ::getpid() &&
         ::poll( &descriptor, 1, 0 ) == 1 ) {
        const unsigned char byte = static_cast< unsigned char >( sig );
        Utils::retryOnEintr( [&] { return ::write( descriptor.fd, &byte, 1 ); } );
    }
    errno = EINTR;
}

void createPipe()
{
    int fds[2] = { Utils::Handle::invalid, Utils::Handle::invalid };
    Utils::SecurityInfo info( Utils::SecurityInfo::fileObject, Utils::SecurityInfo::ownerAndGroup );
    info.applyUmask();
    [[maybe_unused]] const int result = ::pipe2( fds, O_CLOEXEC ); // a failure leaves fds invalid
    const int errorNbr = errno;
    info.restoreUmask();
    ourSigReadOnlyFd.set( fds[0] );
    ourSigWriteOnlyFd.set( fds[1] );
    errno = errorNbr;
    nuvCheckResource( ourSigReadOnlyFd.isValid() && ourSigWriteOnlyFd.isValid() );
    for ( const int fd : fds ) {
        info.applyGroupOwnership( fd );
    }
    ::fcntl( fds[0], F_SETFL, ::fcntl( fds[0], F_GETFL ) | O_NONBLOCK );
    ourPipeOwner.store( ::getpid(), std::memory_order_relaxed );
}

void installInterruptHandler()
{
    const sigset_t set = SignalHandler::interruptSet();
    struct sigaction action
    {
    };
    action.sa_handler = &interruptSigHandler;
    action.sa_mask = set;
    for ( const int sig : interruptSignals ) {
        ::sigaction( sig, &action, nullptr );
    }
    ::pthread_sigmask( SIG_UNBLOCK, &set, nullptr );
}

// In a process without the singleton the signal would end it.
void handleInterruptSignal()
{
    static std::atomic< bool > ourIsHandled = false;
    if ( ourIsHandled.load( std::memory_order_relaxed ) )
        return;
    struct sigaction action
    {
    };
    ::sigaction( SignalHandler::interruptSignal, nullptr, &action );
    if ( ( action.sa_flags & SA_SIGINFO ) == 0 && action.sa_handler == SIG_DFL ) {
        action = {};
        action.sa_handler = &interruptSigHandler;
        action.sa_mask = SignalHandler::interruptSet();
        ::sigaction( SignalHandler::interruptSignal, &action, nullptr );
    }
    ourIsHandled.store( true, std::memory_order_relaxed );
}

std::string applicationName()
{
    const std::string name =
        Io::Pathname( Io::Pathname::executablePathname ).nameStrSansExtension();
    const std::size_t start = name.find_first_not_of( '-' );
    return start == std::string::npos ? std::string() : name.substr( start );
}

void createCoreDirectory( const Io::Pathname& directory )
{
    if ( directory.isDirectory() )
        return;
    Utils::SecurityInfo info( Utils::SecurityInfo::fileObject, Utils::SecurityInfo::ownerAndGroup );
    for ( const Io::Pathname& pathname :
          { Io::Pathname( Io::Pathname::rootDirectory, "core" ), directory } ) {
        info.applyUmask();
        const bool isCreated = ::mkdir( pathname.cStr(), 0770 ) == 0;
        info.restoreUmask();
        if ( isCreated )
            info.applyGroupOwnership( pathname.cStr() );
    }
}

// The first regular file that the scan finds stays. @return its pathname, empty without one
std::string keepOneFile( const Io::Pathname& directory )
{
    std::string kept;
    for ( Io::Pathname::Iterator i = directory.begin(); i != directory.end(); ++i ) {
        const Io::Pathname pathname( directory, *i );
        if ( !pathname.isFile() )
            continue;
        if ( kept.empty() )
            kept = pathname.str();
        else
            pathname.remove();
    }
    return kept;
}

void prepareCoreDirectory()
{
    SignalHandler::recordExecutable( program_invocation_name );
    const Io::Pathname directory( Io::Pathname::rootDirectory, "core/" + applicationName() );
    createCoreDirectory( directory );
    CrashReport::directories( directory.str(), keepOneFile( directory ) );
}

} // namespace

SignalHandler* SignalHandler::singletonPtr()
{
    return Utils::Singleton< SignalHandler >::ptr( SignalHandlerSingletonPtrMutex );
}

SignalHandler::SignalHandler()
{
    createPipe();
    installInterruptHandler();
    prepareCoreDirectory();
    // Never destroyed: this thread may crash as late as during exit.
    alignas( AlternateSignalStack ) static std::byte ourSignalStack[sizeof( AlternateSignalStack )];
    new ( ourSignalStack ) AlternateSignalStack;
    CrashReport::installHandler();
}

SignalHandler::~SignalHandler()
{
    ourSigWriteOnlyFd.close();
    ourSigReadOnlyFd.close();
}

bool SignalHandler::handleSignal( int sig )
{
    const MutexLock lock( myMutex );
    mySignalNumber = sig;
    myHandled = false;
    notifyObservers( *this );
    return myHandled;
}

void SignalHandler::sigHandlerRoutine( int sig )
{
    SignalHandler* const handlerPtr = singletonPtr();
    const bool isClaimed = handlerPtr->handleSignal( sig );
    const bool isTermination =
        sig > 0 && sig < 32 && ( ourDefaultTerminationSignals >> sig & 1 ) != 0;
    if ( isClaimed || !isTermination || !handlerPtr->hasObservers() )
        return;
    if ( sig == SIGABRT )
        std::abort();
    std::exit( -1 );
}

NUV_STARTUP sigset_t SignalHandler::interruptSet()
{
    sigset_t set;
    sigemptyset( &set );
    for ( const int sig : interruptSignals ) {
        sigaddset( &set, sig );
    }
    return set;
}

NUV_STARTUP void SignalHandler::blockSignals()
{
    const sigset_t set = SignalHandler::interruptSet();
    ::pthread_sigmask( SIG_BLOCK, &set, &ourDefaultAppSet );
}

void SignalHandler::raise( int sig )
{
    nuvAssert( sig > 0 && sig < NSIG );
    if ( ourHasDispatcher.load( std::memory_order_acquire ) )
        ::pthread_kill( ourSigwaitThreadId.load( std::memory_order_relaxed ), sig );
    else
        ::kill( ::getpid(), sig );
}

void SignalHandler::interruptSystemCall( unsigned long thread )
{
    nuvAssert( thread != 0 );
    handleInterruptSignal();
    ::pthread_kill( static_cast< pthread_t >( thread ), interruptSignal );
}

void SignalHandler::recordExecutable( const char* fallbackPtr )
{
    if ( Io::Pathname( Io::Pathname::executablePathname ).isValid() )
        return;
    char path[PATH_MAX];
    const ssize_t length = ::readlink( "/proc/self/exe", path, sizeof( path ) - 1 );
    path[length > 0 ? length : 0] = '\0';
    Io::Pathname::setPathnameOfExecutable( length > 0 ? path : fallbackPtr );
}

void SignalHandler::becomeDispatcher()
{
    ourSigwaitThreadId.store( ::pthread_self(), std::memory_order_relaxed );
    ourHasDispatcher.store( true, std::memory_order_release );
}

int SignalHandler::readFd()
{
    return ourSigReadOnlyFd.fd();
}

const sigset_t& SignalHandler::defaultAppSet()
{
    return ourDefaultAppSet;
}

InterruptibleCall::InterruptibleCall()
    : myNbrOfInterruptions( ourNbrOfInterruptions )
{
    const sigset_t set = setOf( SignalHandler::interruptSignal );
    ::pthread_sigmask( SIG_UNBLOCK, &set, &mySavedSet );
}

InterruptibleCall::~InterruptibleCall()
{
    ::pthread_sigmask( SIG_SETMASK, &mySavedSet, nullptr );
}

bool InterruptibleCall::isInterrupted() const
{
    return ourNbrOfInterruptions != myNbrOfInterruptions;
}

int InterruptibleCall::poll( pollfd* descriptorsPtr, nfds_t nbrOfDescriptors, int timeoutMs,
                             const std::atomic< bool >* endPtr )
{
    const sigset_t signalSet = setOf( SignalHandler::interruptSignal );
    sigset_t set;
    ::pthread_sigmask( SIG_BLOCK, &signalSet, &set );
    const bool isBlocked = sigismember( &set, SignalHandler::interruptSignal ) == 1;
    sigdelset( &set, SignalHandler::interruptSignal );
    const timespec timeout{ timeoutMs / 1000, timeoutMs % 1000 * 1000000L };
    int result = -1;
    errno = EINTR;
    if ( endPtr == nullptr || !endPtr->load( std::memory_order_acquire ) )
        result =
            ::ppoll( descriptorsPtr, nbrOfDescriptors, timeoutMs < 0 ? nullptr : &timeout, &set );
    if ( !isBlocked ) {
        const int errorNbr = errno;
        ::pthread_sigmask( SIG_UNBLOCK, &signalSet, nullptr );
        errno = errorNbr;
    }
    return result;
}

} // namespace Nuv::Mt
