#include "nuvSubsystemInfo.h"

#include "nuvFileSystem.h"
#include "nuvIpcFile.h"
#include "nuvMutex.h"
#include "nuvOs.h"
#include "nuvSemaphore.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

namespace Nuv::Mt {

namespace {

using ThreadDetails = SubsystemInfo::ThreadDetails;
using ThreadDetailsArray = SubsystemInfo::ThreadDetailsArray;

// The storage key of the per-thread instances.
std::atomic< LocalStorageKey > ourTlsKey = invalidLocalStorageKey;
Mutex SubsystemInfoTlsKeyMutex; // leaf of the lock order

// The process's segment; set once, attached until the process ends.
std::atomic< ThreadDetailsArray* > ourSegmentPtr = nullptr;

// What all threads share for which the segment has no record.
ThreadDetails ourOverflowRecord{};

// The process that claimed record k of the segment through this library; 0 for none. Tells its own
// records from those of other processes, also where process ids of several namespaces meet.
std::atomic< pid_t > ourClaims[ThreadDetailsArray::nbrOfRecords];

// Set when exit() has begun: records claimed from then on would stay behind.
std::atomic< bool > ourIsExiting = false;

template < class Word >
void store( Word& field, Word value )
{
    std::atomic_ref< Word >( field ).store( value, std::memory_order_relaxed );
}

// The field's last byte is only ever NUL, so a reader finds an end at every moment.
void storeText( char ( &field )[ThreadDetails::maxNbrOfTextChars + 1], const char* textPtr )
{
    std::size_t n = 0;
    for ( ; textPtr != nullptr && n < ThreadDetails::maxNbrOfTextChars && textPtr[n] != '\0';
          ++n ) {
        store( field[n], textPtr[n] );
    }
    store( field[n], '\0' );
    store( field[ThreadDetails::maxNbrOfTextChars], '\0' );
}

// The second word of /proc/<process>/status, the value of its first line, "Name:".
std::string processName()
{
    const std::string pathname = "/proc/" + std::to_string( ::getpid() ) + "/status";
    const Utils::Handle handle(
        Utils::retryOnEintr( [&] { return ::open( pathname.c_str(), O_RDONLY | O_CLOEXEC ); } ) );
    char bytes[256];
    const ssize_t nbrOfBytes =
        Utils::retryOnEintr( [&] { return ::read( handle, bytes, sizeof( bytes ) ); } );
    std::string name;
    if ( nbrOfBytes > 0 ) {
        Utils::TokenScanner< std::string > scanner(
            std::string( bytes, static_cast< std::size_t >( nbrOfBytes ) ) );
        scanner.next( nullptr, " \t\n" );
        scanner.next( &name, " \t\n" );
    }
    return name;
}

// What fails while the master semaphore is held is reported after it: the report may need it.
void unlockKeepingErrno( MasterSemaphore::Lock* lockPtr )
{
    const int errorNbr = errno;
    lockPtr->unlock();
    errno = errorNbr;
}

ThreadDetailsArray* clearedArray( void* memoryPtr )
{
    ThreadDetailsArray* const arrayPtr = static_cast< ThreadDetailsArray* >( memoryPtr );
    arrayPtr->clear();
    return arrayPtr;
}

void applyOwner( int segmentId, const Utils::SecurityInfo& info )
{
    ::shmid_ds settings{};
    if ( ::shmctl( segmentId, IPC_STAT, &settings ) != 0 )
        return;
    settings.shm_perm.uid = ::geteuid();
    settings.shm_perm.gid = info.groupId();
    settings.shm_perm.mode = 0660;
    ::shmctl( segmentId, IPC_SET, &settings );
}

ThreadDetailsArray* attach( ::key_t shmKey, const Utils::SecurityInfo& info )
{
    constexpr std::size_t nbrOfBytes = sizeof( ThreadDetailsArray );
    int segmentId = ::shmget( shmKey, nbrOfBytes, IPC_CREAT | IPC_EXCL | 0660 );
    const bool isCreated = segmentId >= 0;
    if ( isCreated )
        applyOwner( segmentId, info );
    else
        segmentId = ::shmget( shmKey, nbrOfBytes, 0660 );
    void* const memoryPtr = ::shmat( segmentId, nullptr, 0 );
    if ( memoryPtr == reinterpret_cast< void* >( -1 ) )
        return clearedArray( new ThreadDetailsArray );
    return isCreated ? clearedArray( memoryPtr ) : static_cast< ThreadDetailsArray* >( memoryPtr );
}

// Steps up to the attached segment, serialised machine-wide by the master semaphore.
ThreadDetailsArray* createSegment()
{
    static MasterSemaphore masterSemaphore;
    // Both may read the configuration, and so come before the lock is taken.
    Utils::SecurityInfo info( Utils::SecurityInfo::ipcObject, Utils::SecurityInfo::ownerAndGroup );
    const std::string pathname = Io::IpcFile::keyFilePathname( "shm_ubrdebug_", processName() );

    MasterSemaphore::Lock lock;
    masterSemaphore.acquire( &lock );
    if ( ThreadDetailsArray* const segmentPtr = ourSegmentPtr.load( std::memory_order_acquire ) )
        return segmentPtr;
    if ( Io::FileSystem::pathnameAttributes( pathname ) == 0 ) {
        const bool isCreated = Io::IpcFile::createKeyFile( pathname.c_str(), info );
        if ( !isCreated )
            unlockKeepingErrno( &lock );
        nuvCheckResourceText( isCreated, "mappingFileHandle.isValid()" );
    }
    const ::key_t shmKey = Io::FileSystem::ftok( pathname.c_str(), 1 );
    if ( shmKey == static_cast< ::key_t >( -1 ) )
        unlockKeepingErrno( &lock );
    nuvCheckResource( shmKey != static_cast< ::key_t >( -1 ) );
    ThreadDetailsArray* const segmentPtr = attach( shmKey, info );
    ourSegmentPtr.store( segmentPtr, std::memory_order_release );
    std::atexit( &SubsystemInfo::releaseAllAtExit );
    return segmentPtr;
}

} // namespace

void ThreadDetails::description( const char* textPtr )
{
    storeText( myDescription, textPtr );
}

void ThreadDetails::statusMessage( const char* textPtr )
{
    storeText( myStatusMessage, textPtr );
}

void ThreadDetails::state( State state )
{
    store( myState, static_cast< std::uint32_t >( state ) );
}

void ThreadDetails::wait( WaitKind kind, int object )
{
    store( myWaitObject, static_cast< std::int32_t >( object ) );
    store( myWaitKind, static_cast< std::uint32_t >( kind ) );
}

bool ThreadDetails::claim()
{
    const std::uint32_t old =
        std::atomic_ref< std::uint32_t >( myInUse ).exchange( 1, std::memory_order_acq_rel );
    if ( old != 0 )
        return false;
    store( myProcessId, static_cast< std::int32_t >( ::getpid() ) );
    state( stateNew );
    wait( WaitKind::none, 0 );
    description( nullptr );
    statusMessage( nullptr );
    return true;
}

void ThreadDetails::reset()
{
    std::atomic_ref< std::uint32_t >( myInUse ).exchange( 0, std::memory_order_acq_rel );
}

void ThreadDetails::clear()
{
    reset();
    store( myProcessId, std::int32_t{ 0 } );
    state( stateNew );
    wait( WaitKind::none, 0 );
    description( nullptr );
    statusMessage( nullptr );
}

ThreadDetails* ThreadDetailsArray::newDetail()
{
    for ( ThreadDetails& record : myRecords ) {
        if ( record.claim() )
            return &record;
    }
    return &ourOverflowRecord;
}

void ThreadDetailsArray::clear()
{
    store( myHeader, headerValue );
    for ( ThreadDetails& record : myRecords ) {
        record.clear();
    }
}

SubsystemInfo* SubsystemInfo::existingPtr()
{
    return static_cast< SubsystemInfo* >( tlsValue( ourTlsKey.load( std::memory_order_acquire ) ) );
}

SubsystemInfo* SubsystemInfo::threadletonPtr()
{
    if ( SubsystemInfo* const infoPtr = existingPtr() )
        return infoPtr;
    if ( ourTlsKey.load( std::memory_order_acquire ) == invalidLocalStorageKey ) {
        const MutexLock lock( SubsystemInfoTlsKeyMutex );
        if ( ourTlsKey.load( std::memory_order_relaxed ) == invalidLocalStorageKey ) {
            ourTlsKey.store( allocateLocalStorage(), std::memory_order_release );
            nuvCheckResource( ourTlsKey != invalidLocalStorageKey );
            ::pthread_atfork( nullptr, nullptr, &SubsystemInfo::forgetDetailInForkedChild );
        }
    }
    SubsystemInfo* const infoPtr = new SubsystemInfo;
    pushThreadleton( infoPtr );
    tlsValue( ourTlsKey.load( std::memory_order_acquire ), infoPtr );
    return infoPtr;
}

// The record belongs to the parent's thread; the child claims its own when it needs one.
void SubsystemInfo::forgetDetailInForkedChild()
{
    if ( SubsystemInfo* const infoPtr = existingPtr() )
        infoPtr->myDetailPtr = nullptr;
}

void SubsystemInfo::endForeignThread()
{
    if ( SubsystemInfo* const infoPtr = existingPtr() )
        infoPtr->releaseDetail( stateEndedNormally );
}

// Notices the end of a thread that has claimed a record without the thread body's help.
struct ForeignThread
{
    ~ForeignThread()
    {
        if ( hasRecord )
            SubsystemInfo::endForeignThread();
    }

    bool hasRecord = false;
};

void SubsystemInfo::nameStrPtr( const NamePtr& namePtr )
{
    myNamePtr = namePtr;
}

ThreadDetails* SubsystemInfo::allocDetail()
{
    // Cancelled in the middle, the thread would leave the master semaphore taken by nobody.
    const CancelState disabled;
    struct Scope
    {
        bool& flag;
        ~Scope() { flag = false; }
    } const scope{ myAllocating };
    myAllocating = true;

    thread_local ForeignThread ourForeignThread;
    ourForeignThread.hasRecord = !myIsLeftAtThreadEnd;
    ThreadDetailsArray* segmentPtr = ourSegmentPtr.load( std::memory_order_acquire );
    if ( segmentPtr == nullptr )
        segmentPtr = createSegment();
    if ( ourIsExiting.load( std::memory_order_relaxed ) )
        return myDetailPtr = &ourOverflowRecord;
    myDetailPtr = segmentPtr->newDetail();
    if ( myDetailPtr != &ourOverflowRecord )
        ourClaims[myDetailPtr - segmentPtr->myRecords].store( ::getpid(),
                                                              std::memory_order_relaxed );
    return myDetailPtr;
}

void SubsystemInfo::releaseDetail( State state )
{
    if ( myDetailPtr == nullptr )
        return;
    myDetailPtr->state( state );
    if ( myDetailPtr != &ourOverflowRecord ) {
        // The note goes first: once released, another thread may claim the record and note itself.
        ourClaims[myDetailPtr - ourSegmentPtr.load( std::memory_order_acquire )->myRecords].store(
            0, std::memory_order_relaxed );
        myDetailPtr->reset();
    }
    myDetailPtr = &ourOverflowRecord;
}

void SubsystemInfo::releaseAllAtExit()
{
    ThreadDetailsArray* const segmentPtr = ourSegmentPtr.load( std::memory_order_acquire );
    if ( segmentPtr == nullptr )
        return;
    ourIsExiting.store( true, std::memory_order_relaxed );
    const pid_t processId = ::getpid();
    for ( std::size_t k = 0; k < ThreadDetailsArray::nbrOfRecords; ++k ) {
        if ( ourClaims[k].exchange( 0, std::memory_order_relaxed ) == processId )
            segmentPtr->myRecords[k].reset();
    }
}

void SubsystemInfo::markCrashed() noexcept
{
    SubsystemInfo* const infoPtr = existingPtr();
    if ( infoPtr != nullptr && infoPtr->myDetailPtr != nullptr )
        infoPtr->myDetailPtr->state( stateCrashed );
}

SubsystemInfo::~SubsystemInfo()
{
    tlsValue( ourTlsKey.load( std::memory_order_acquire ), nullptr );
}

// The link seam that nuvWaitMark.h declares. A first mark sets up the thread's record; a mark that
// the set-up itself would make, or for which there is no memory or key file, is dropped.
void markWait( WaitKind kind, int object ) noexcept
{
    try {
        SubsystemInfo* const infoPtr = SubsystemInfo::threadletonPtr();
        // The end of a wait that could not be marked comes with the master semaphore held at times.
        const bool isNothingToClear = kind == WaitKind::none && infoPtr->myDetailPtr == nullptr;
        if ( !infoPtr->myAllocating && !isNothingToClear )
            infoPtr->detail()->wait( kind, object );
    } catch ( ... ) {
    }
}

} // namespace Nuv::Mt
