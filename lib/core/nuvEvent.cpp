#include "nuvEvent.h"

#include "nuvIpcFile.h"
#include "nuvOs.h"
#include "nuvPathname.h"
#include "nuvTime.h"
#include "nuvWaitMark.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::Mt {

namespace {

constexpr char signalByte = 'S';

void writeSignal( int fd )
{
    // A full FIFO or pipe holds signals enough.
    [[maybe_unused]] const ssize_t ignored = ::write( fd, &signalByte, sizeof( signalByte ) );
}

// Takes all the bytes there are at this moment. @return how many
std::uint64_t takeSignals( int fd )
{
    char bytes[512];
    std::uint64_t total = 0;
    for ( ;; ) {
        const ssize_t nbrOfBytes =
            Utils::retryOnEintr( [&] { return ::read( fd, bytes, sizeof( bytes ) ); } );
        if ( nbrOfBytes > 0 )
            total += static_cast< std::uint64_t >( nbrOfBytes );
        if ( nbrOfBytes < static_cast< ssize_t >( sizeof( bytes ) ) )
            return total;
    }
}

bool isFifo( int fd )
{
    struct stat status;
    return ::fstat( fd, &status ) == 0 && S_ISFIFO( status.st_mode );
}

Utils::Handle openNonBlocking( const char* pathPtr, int mode )
{
    return Utils::Handle(
        Utils::retryOnEintr( [=] { return ::open( pathPtr, mode | O_NONBLOCK | O_CLOEXEC ); } ) );
}

// Without keeping the time of the last read, where the FIFO is ours: a tenth of a wait's cost.
Utils::Handle openForReading( const char* pathPtr )
{
    Utils::Handle handle = openNonBlocking( pathPtr, O_RDONLY | O_NOATIME );
    if ( !handle.isValid() && errno == EPERM )
        handle = openNonBlocking( pathPtr, O_RDONLY );
    return handle;
}

// A pipe between waits on mixed lists: making and closing one would cost three system calls a wait.
// A child of fork() shares its parent's and must not use it.
std::atomic< unsigned int > ourNbrOfForks = 0;

struct PipeSlot
{
    ~PipeSlot() { ourIsGone = true; }

    Utils::Handle readEnd;
    Utils::Handle writeEnd;
    unsigned int nbrOfForks = 0;

    // Waits of exit handlers come after the thread's own storage has gone.
    static thread_local bool ourIsGone;
};

thread_local bool PipeSlot::ourIsGone = false;
thread_local PipeSlot ourPipeSlot;

void takeKeptPipe( Utils::Handle* readEndPtr, Utils::Handle* writeEndPtr )
{
    if ( PipeSlot::ourIsGone )
        return;
    Utils::Handle readEnd = std::move( ourPipeSlot.readEnd );
    Utils::Handle writeEnd = std::move( ourPipeSlot.writeEnd );
    if ( ourPipeSlot.nbrOfForks != ourNbrOfForks.load( std::memory_order_relaxed ) )
        return;
    *readEndPtr = std::move( readEnd );
    *writeEndPtr = std::move( writeEnd );
}

void makePipe( Utils::Handle* readEndPtr, Utils::Handle* writeEndPtr )
{
    [[maybe_unused]] static const int registered = ::pthread_atfork(
        nullptr, nullptr, [] { ourNbrOfForks.fetch_add( 1, std::memory_order_relaxed ); } );
    int ends[2] = { Utils::Handle::invalid, Utils::Handle::invalid };
    if ( ::pipe2( ends, O_NONBLOCK | O_CLOEXEC ) != 0 )
        return;
    readEndPtr->reset( ends[0] );
    writeEndPtr->reset( ends[1] );
}

bool isAnyNamed( std::span< Event* const > events )
{
    return std::any_of( events.begin(), events.end(),
                        []( const Event* p ) { return p->isNamed(); } );
}

int firstPending( std::span< Event* const > events )
{
    for ( std::size_t i = 0; i < events.size(); ++i ) {
        if ( events[i]->readAndReset() )
            return static_cast< int >( i );
    }
    return -1;
}

int waitUntilFired( WaitEventImpl& impl, std::span< Event* const > events, std::uint32_t timeoutMs )
{
    // Looking once blocks nobody, and without a limit no clock is read.
    std::optional< WaitMark > mark;
    std::optional< Utils::MsTimer > timer;
    if ( timeoutMs != 0 )
        mark.emplace( WaitKind::events );
    if ( timeoutMs != Event::infinite )
        timer.emplace();
    while ( impl.wait( timeoutMs ) ) {
        const int fired = firstPending( events );
        if ( fired >= 0 )
            return fired;
        if ( timer )
            timer->decrementByElapsedTime( &timeoutMs );
        if ( timeoutMs == 0 )
            break;
    }
    return -1;
}

int waitOn( std::span< Event* const > events, unsigned int timeoutMs )
{
    for ( const Event* const eventPtr : events ) {
        nuvAssert( eventPtr != NULL );
    }
    if ( isAnyNamed( events ) ) {
        NamedWaitEventImpl impl( events );
        return waitUntilFired( impl, events, timeoutMs );
    }
    // Registering with a pending event would only lead back here.
    const int fired = firstPending( events );
    if ( fired >= 0 || timeoutMs == 0 )
        return fired;
    NonNamedWaitEventImpl impl( events );
    return waitUntilFired( impl, events, timeoutMs );
}

class PosixLock
{
public:
    explicit PosixLock( pthread_mutex_t* mutexPtr )
        : myMutexPtr( mutexPtr )
    {
        ::pthread_mutex_lock( myMutexPtr );
    }
    PosixLock( const PosixLock& ) = delete;
    PosixLock& operator=( const PosixLock& ) = delete;
    ~PosixLock() { ::pthread_mutex_unlock( myMutexPtr ); }

private:
    pthread_mutex_t* myMutexPtr;
};

} // namespace

timespec computeTimeOfDayToTimeout( unsigned int timeoutMs, clockid_t clock )
{
    constexpr long nsPerSec = 1000000000;
    timespec deadline;
    ::clock_gettime( clock, &deadline );
    deadline.tv_sec += static_cast< time_t >( timeoutMs / 1000 );
    deadline.tv_nsec += static_cast< long >( timeoutMs % 1000 ) * 1000000;
    if ( deadline.tv_nsec >= nsPerSec ) {
        deadline.tv_nsec -= nsPerSec;
        ++deadline.tv_sec;
    }
    return deadline;
}

Event::Event()
    : myObjIsNamed( false )
{
}

Event::Event( const std::string& name )
    : myObjIsNamed( true )
    , myCreationSemaphore( "evt_" + name, 1 )
{
    const std::string directory = Io::Pathname( Io::Pathname::ipcDirectory ).str();
    myFifoPathname = ( directory + "/evt_" + name ).c_str();
    // Two last users that leave at the same time each see the other: whoever removes the set then
    // takes the FIFO along.
    myCreationSemaphore.companionFileName( myFifoPathname.cStr() );
    int errorNbr = 0;
    {
        const SemaphoreLock lock( &myCreationSemaphore );
        openFifo();
        errorNbr = errno;
    }
    errno = errorNbr;
    nuvCheckResource( myReadOnlyFd.isValid() && myWriteOnlyFd.isValid() );
}

void Event::openFifo()
{
    const char* const pathPtr = myFifoPathname.cStr();
    if ( ::access( pathPtr, F_OK ) != 0 ) {
        Utils::SecurityInfo security( Utils::SecurityInfo::ipcObject,
                                      Utils::SecurityInfo::ownerAndGroup );
        Io::IpcFile::createFifo( pathPtr, security );
    }
    myReadOnlyFd = openForReading( pathPtr );
    if ( !myReadOnlyFd.isValid() )
        return;
    if ( !isFifo( myReadOnlyFd.fd() ) ) { // an ordinary file would be pending for ever
        myReadOnlyFd.reset();
        errno = EEXIST;
        return;
    }
    myWriteOnlyFd = openNonBlocking( pathPtr, O_WRONLY ); // there is a reader: this process
}

Event::~Event()
{
    if ( myObjIsNamed ) {
        SemaphoreLock lock( &myCreationSemaphore, SemaphoreLock::stateUnlocked );
        if ( lock.lockOrLog() && myCreationSemaphore.useCount() <= 1 )
            ::unlink( myFifoPathname.cStr() );
        return;
    }
    const MutexLock lock( myMutex );
    if ( !myWaitEventImpls.empty() ) {
        static constexpr char text[] = "!myWaitEventImpls.empty() [Event::~Event()]\n";
        [[maybe_unused]] const ssize_t ignored = ::write( STDERR_FILENO, text, sizeof( text ) - 1 );
    }
}

void Event::signal()
{
    if ( myObjIsNamed ) {
        writeSignal( myWriteOnlyFd.fd() );
        return;
    }
    const MutexLock lock( myMutex );
    mySignalled = true;
    std::for_each( myWaitEventImpls.rbegin(), myWaitEventImpls.rend(),
                   []( WaitEventImpl* implPtr ) { implPtr->signal(); } );
}

bool Event::readAndReset()
{
    const MutexLock lock( myMutex );
    if ( !myObjIsNamed )
        return std::exchange( mySignalled, false );
    const std::uint64_t nbrOfSignals = takeSignals( myReadOnlyFd.fd() );
    myNbrOfSignalsTaken.fetch_add( nbrOfSignals, std::memory_order_relaxed );
    return nbrOfSignals != 0;
}

// Where waits find the event pending, a first read saves the poll; where they block, it is a call
// too many. Which of the two it is here, the last wait tells.
// @return whether the event was pending, its signal consumed
bool Event::takeAtOnce()
{
    const std::uint8_t nbrOfBlindWaits = myNbrOfBlindWaits.load( std::memory_order_relaxed );
    if ( nbrOfBlindWaits != 0 ) {
        myNbrOfBlindWaits.store( nbrOfBlindWaits - 1, std::memory_order_relaxed );
        return false;
    }
    const bool isPending = readAndReset();
    if ( !isPending )
        myNbrOfBlindWaits.store( maxNbrOfBlindWaits, std::memory_order_relaxed );
    return isPending;
}

bool Event::wait( unsigned int timeoutMs )
{
    if ( timeoutMs == 0 )
        return readAndReset();
    if ( myObjIsNamed && takeAtOnce() )
        return true;
    Event* const thisPtr = this;
    return waitOn( std::span( &thisPtr, 1 ), timeoutMs ) == 0;
}

void Event::addWaitEventImpl( WaitEventImpl* implPtr )
{
    nuvAssert( !myObjIsNamed );
    const MutexLock lock( myMutex );
    myWaitEventImpls.push_back( implPtr );
    if ( mySignalled )
        implPtr->signal();
}

void Event::removeWaitEventImpl( WaitEventImpl* implPtr )
{
    nuvAssert( !myObjIsNamed );
    const MutexLock lock( myMutex );
    const auto iter = std::find( myWaitEventImpls.begin(), myWaitEventImpls.end(), implPtr );
    nuvAssert( iter != myWaitEventImpls.end() );
    myWaitEventImpls.erase( iter );
}

int MultiEvent::waitOnEvents( const std::vector< Event* >& events, unsigned int timeoutMs )
{
    return waitOn( events, timeoutMs );
}

int MultiEvent::waitOnEvents( const std::list< Event* >& events, unsigned int timeoutMs )
{
    return waitOnEvents( std::vector< Event* >( events.begin(), events.end() ), timeoutMs );
}

int MultiEvent::waitOnEvents( std::initializer_list< Event* > events, unsigned int timeoutMs )
{
    return waitOn( std::span( events.begin(), events.size() ), timeoutMs );
}

WaitEventImpl::WaitEventImpl( const Events& events )
    : myOwnEvents( events )
    , myEvents( myOwnEvents )
{
}

WaitEventImpl::WaitEventImpl( std::span< Event* const > events )
    : myEvents( events )
{
}

WaitEventImpl::~WaitEventImpl() = default;

WaitEventImpl* WaitEventImpl::create( const Events& events )
{
    if ( isAnyNamed( events ) )
        return new NamedWaitEventImpl( events );
    return new NonNamedWaitEventImpl( events );
}

void WaitEventImpl::addToEventLists()
{
    for ( Event* const eventPtr : myEvents ) {
        if ( !eventPtr->isNamed() )
            eventPtr->addWaitEventImpl( this );
        ++myNbrOfListed;
    }
}

void WaitEventImpl::removeFromEventLists()
{
    for ( Event* const eventPtr : myEvents.first( myNbrOfListed ) ) {
        if ( !eventPtr->isNamed() )
            eventPtr->removeWaitEventImpl( this );
    }
    myNbrOfListed = 0;
}

NonNamedWaitEventImpl::NonNamedWaitEventImpl( const Events& events )
    : WaitEventImpl( events )
{
    init();
}

NonNamedWaitEventImpl::NonNamedWaitEventImpl( std::span< Event* const > events )
    : WaitEventImpl( events )
{
    init();
}

void NonNamedWaitEventImpl::init()
{
    nuvCheckResource( ::pthread_mutex_init( &myMutex, NULL ) == 0 );
    nuvCheckResource( ::pthread_cond_init( &myCondVar, NULL ) == 0 );
    try {
        addToEventLists();
    } catch ( ... ) { // no memory for a place in a list
        removeFromEventLists();
        throw;
    }
}

NonNamedWaitEventImpl::~NonNamedWaitEventImpl()
{
    removeFromEventLists();
    ::pthread_cond_destroy( &myCondVar );
    ::pthread_mutex_destroy( &myMutex );
}

void NonNamedWaitEventImpl::signal()
{
    {
        const PosixLock lock( &myMutex );
        mySignalled = true;
    }
    // With the mutex free the waiter need not block on it again; the event's mutex, which the
    // caller holds, keeps this object alive.
    ::pthread_cond_signal( &myCondVar );
}

bool NonNamedWaitEventImpl::wait( unsigned int timeoutMs )
{
    const PosixLock lock( &myMutex );
    int result = 0;
    if ( !mySignalled ) {
        if ( timeoutMs == Utils::MsTimer::infinite ) {
            result = ::pthread_cond_wait( &myCondVar, &myMutex );
        } else {
            // By the monotonic clock: a step of the time of day neither stretches nor cuts it.
            const timespec deadline = computeTimeOfDayToTimeout( timeoutMs, CLOCK_MONOTONIC );
            result = ::pthread_cond_clockwait( &myCondVar, &myMutex, CLOCK_MONOTONIC, &deadline );
        }
    }
    mySignalled = false;
    return result != ETIMEDOUT;
}

NamedWaitEventImpl::NamedWaitEventImpl( const Events& events )
    : WaitEventImpl( events )
{
    init();
}

NamedWaitEventImpl::NamedWaitEventImpl( std::span< Event* const > events )
    : WaitEventImpl( events )
{
    init();
}

void NamedWaitEventImpl::init()
{
    const std::size_t maxNbrOfDescriptors = myEvents.size() + 1;
    if ( maxNbrOfDescriptors > nbrOfInlineDescriptors )
        myManyDescriptors.resize( maxNbrOfDescriptors );
    pollfd* const firstPtr =
        myManyDescriptors.empty() ? myInlineDescriptors.data() : myManyDescriptors.data();
    std::size_t nbrOfDescriptors = 0;
    const auto watch = [&]( int fd ) { firstPtr[nbrOfDescriptors++] = { fd, POLLIN, 0 }; };

    const bool isMixed = !std::all_of( myEvents.begin(), myEvents.end(),
                                       []( const Event* p ) { return p->isNamed(); } );
    if ( isMixed ) {
        takeKeptPipe( &myReadOnlyFd, &myWriteOnlyFd );
        if ( !myReadOnlyFd.isValid() )
            makePipe( &myReadOnlyFd, &myWriteOnlyFd );
        nuvCheckResource( myReadOnlyFd.isValid() && myWriteOnlyFd.isValid() );
        watch( myReadOnlyFd.fd() );
    }
    for ( const Event* const eventPtr : myEvents ) {
        if ( eventPtr->isNamed() )
            watch( eventPtr->readFd() );
    }
    myDescriptors = std::span( firstPtr, nbrOfDescriptors );
    if ( !isMixed )
        return;
    try {
        addToEventLists();
    } catch ( ... ) { // no memory for a place in a list
        removeFromEventLists();
        throw;
    }
}

NamedWaitEventImpl::~NamedWaitEventImpl()
{
    removeFromEventLists();
    if ( myReadOnlyFd.isValid() )
        releasePipe();
}

// Nobody signals this wait any more: what is in the pipe now is all.
void NamedWaitEventImpl::releasePipe()
{
    if ( PipeSlot::ourIsGone || ourPipeSlot.readEnd.isValid() )
        return; // closed
    takeSignals( myReadOnlyFd.fd() );
    ourPipeSlot.readEnd = std::move( myReadOnlyFd );
    ourPipeSlot.writeEnd = std::move( myWriteOnlyFd );
    ourPipeSlot.nbrOfForks = ourNbrOfForks.load( std::memory_order_relaxed );
}

void NamedWaitEventImpl::signal()
{
    writeSignal( myWriteOnlyFd.fd() );
}

bool NamedWaitEventImpl::wait( unsigned int timeoutMs )
{
    const bool isLimited = timeoutMs != Event::infinite;
    // poll() counts with a sign: a longer wait comes back for the rest.
    const int pollMs =
        isLimited ? static_cast< int >( std::min< unsigned int >( timeoutMs, INT_MAX ) ) : -1;
    const int result = ::poll( myDescriptors.data(), myDescriptors.size(), pollMs );
    // Left in the pipe, the byte of a signal that somebody else consumes would end every later
    // poll.
    if ( result > 0 && myReadOnlyFd.isValid() && myDescriptors[0].revents != 0 )
        takeSignals( myReadOnlyFd.fd() );
    return result != 0 || ( isLimited && timeoutMs > INT_MAX );
}

} // namespace Nuv::Mt
