#include "nuvSemaphore.h"

#include "nuvCapabilities.h"
#include "nuvCapabilityDevice.h"
#include "nuvFileSystem.h"
#include "nuvIpcFile.h"
#include "nuvLog.h"
#include "nuvOs.h"
#include "nuvPathname.h"
#include "nuvTime.h"
#include "nuvUtils.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <grp.h>
#include <optional>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#if defined( __SANITIZE_THREAD__ )
#define NUV_THREAD_SANITIZER
#elif defined( __has_feature )
#if __has_feature( thread_sanitizer )
#define NUV_THREAD_SANITIZER
#endif
#endif
#if defined( NUV_THREAD_SANITIZER )
extern "C" void __tsan_acquire( void* );
extern "C" void __tsan_release( void* );
#endif

namespace Nuv::Mt {

namespace {

constexpr int masterIdx = 0;
constexpr int nbrOfSemaphores = 2;
constexpr int masterMode = 0660;
constexpr unsigned int masterDefaultGroup = 50;

// How often a set may vanish between two calls before that is taken for a failure.
constexpr int maxNbrOfAttempts = 8;

// How often a semaphore that is taken is tried before the wait blocks: about the time that blocking
// and waking up take. Much less would come too late for a holder that is just being woken up
// itself.
constexpr int nbrOfQuickAttempts = 32;

thread_local int ourNbrOfMasterLocks = 0;

// The third argument of semctl(), which every program declares for itself.
union SemctlArgument {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// A semaphore orders memory between threads by the kernel's means, which ThreadSanitizer does not
// know: it is told here. Sets that share a word look more ordered than they are, no more.
#if defined( NUV_THREAD_SANITIZER )
std::array< char, 64 > ourSanitizerWords;

void* sanitizerWordPtr( int handle )
{
    return &ourSanitizerWords[static_cast< std::size_t >( handle ) % ourSanitizerWords.size()];
}
void noteTaken( int handle )
{
    __tsan_acquire( sanitizerWordPtr( handle ) );
}
void noteGiven( int handle )
{
    __tsan_release( sanitizerWordPtr( handle ) );
}
#else
void noteTaken( int ) {}
void noteGiven( int ) {}
#endif

// Inlined into wait() and post(): on processors that forget the way back at every system call, each
// frame between costs as much as the rest of them.
[[gnu::always_inline]] inline bool semOp( int operation, int semaphoreIdx, int semaphoreHandle,
                                          int flags )
{
    sembuf buffer;
    buffer.sem_num = static_cast< unsigned short >( semaphoreIdx );
    buffer.sem_op = static_cast< short >( operation );
    buffer.sem_flg = static_cast< short >( flags );
    if ( operation > 0 )
        noteGiven( semaphoreHandle );
    if ( ::semop( semaphoreHandle, &buffer, 1 ) != 0 )
        return false;
    if ( operation < 0 )
        noteTaken( semaphoreHandle );
    return true;
}

// Whether an error number tells that the set is no longer there.
bool isRemoved( int errorNbr )
{
    return errorNbr == EIDRM || errorNbr == EINVAL || errorNbr == ENOENT;
}

int semaphoreValue( int semaphoreHandle, int semaphoreIdx )
{
    return ::semctl( semaphoreHandle, semaphoreIdx, GETVAL );
}

bool setOwnership( int semaphoreHandle, gid_t groupId, mode_t mode )
{
    semid_ds status = {};
    status.sem_perm.uid = ::geteuid();
    status.sem_perm.gid = groupId;
    status.sem_perm.mode = static_cast< decltype( status.sem_perm.mode ) >( mode );
    SemctlArgument argument;
    argument.buf = &status;
    if ( ::semctl( semaphoreHandle, 0, IPC_SET, argument ) == 0 )
        return true;
    if ( errno != EINVAL )
        return false;
    // The user namespace of a container may not have that group: the creator's then.
    status.sem_perm.gid = ::getegid();
    return ::semctl( semaphoreHandle, 0, IPC_SET, argument ) == 0;
}

// Both values at once: a set of use count 0 has never been complete.
bool setValues( int semaphoreHandle, unsigned int initialCount )
{
    unsigned short values[nbrOfSemaphores];
    values[Semaphore::semaphoreIdx] = static_cast< unsigned short >( initialCount );
    values[Semaphore::useCountIdx] = 1;
    SemctlArgument argument;
    argument.array = values;
    return ::semctl( semaphoreHandle, 0, SETALL, argument ) == 0;
}

void removeKeepingErrno( int semaphoreHandle, const char* keyFilePtr )
{
    const int errorNbr = errno;
    if ( semaphoreHandle >= 0 )
        ::semctl( semaphoreHandle, 0, IPC_RMID );
    if ( keyFilePtr != nullptr )
        ::unlink( keyFilePtr );
    errno = errorNbr;
}

gid_t masterGroupId()
{
    std::vector< char > text( 1024 );
    group entry;
    group* foundPtr = nullptr;
    while ( ::getgrnam_r( "nuvs", &entry, text.data(), text.size(), &foundPtr ) == ERANGE ) {
        text.resize( 2 * text.size() );
    }
    return foundPtr != nullptr ? foundPtr->gr_gid : masterDefaultGroup;
}

// An exclusive lock of a directory, which ends with its process however that ends.
class DirectoryLock
{
public:
    explicit DirectoryLock( const char* pathPtr )
        : myDirectory( ::open( pathPtr, O_RDONLY | O_DIRECTORY | O_CLOEXEC ) )
    {
        if ( myDirectory.isValid() )
            Utils::retryOnEintr( [this] { return ::flock( myDirectory.fd(), LOCK_EX ); } );
    }
    DirectoryLock( const DirectoryLock& ) = delete;
    DirectoryLock& operator=( const DirectoryLock& ) = delete;
    ~DirectoryLock()
    {
        // By name: a child that was forked meanwhile holds a copy of the descriptor.
        const int errorNbr = errno;
        if ( myDirectory.isValid() )
            ::flock( myDirectory.fd(), LOCK_UN );
        errno = errorNbr;
    }

private:
    Utils::Handle myDirectory;
};

// The first operation, unlike SETVAL, leaves its time in the set: completed sets have one.
bool completeMasterSet( int handle )
{
    return setOwnership( handle, masterGroupId(), masterMode ) && semOp( +1, masterIdx, handle, 0 );
}

bool isMasterSetHalfMade( int handle )
{
    semid_ds status = {};
    SemctlArgument argument;
    argument.buf = &status;
    return ::semctl( handle, 0, IPC_STAT, argument ) == 0 && status.sem_otime == 0 &&
           semaphoreValue( handle, masterIdx ) == 0;
}

// @return the set's identifier, -1 with errno if it cannot be had
int openMasterSet()
{
    const Io::Pathname directory( Io::Pathname::ipcDirectory );
    const ::key_t key = Io::FileSystem::ftok( directory.cStr(), 1 );
    if ( key == -1 )
        return -1;
    const DirectoryLock directoryLock( directory.cStr() );
    int handle = -1;
    for ( int attempt = 0; attempt < maxNbrOfAttempts && handle < 0; ++attempt ) {
        handle = ::semget( key, 1, IPC_CREAT | IPC_EXCL | masterMode );
        if ( handle >= 0 ) {
            if ( completeMasterSet( handle ) )
                return handle;
            removeKeepingErrno( handle, nullptr );
            return -1;
        }
        handle = ::semget( key, 1, masterMode );
        if ( handle < 0 && !isRemoved( errno ) )
            return -1;
    }
    if ( handle >= 0 && isMasterSetHalfMade( handle ) && !completeMasterSet( handle ) )
        return -1;
    return handle;
}

// Constructors and destructors each have a master semaphore object, made on first use.
MasterSemaphore& masterOfConstruction()
{
    static MasterSemaphore master;
    return master;
}

MasterSemaphore* masterOfDestructionPtr() noexcept
{
    try {
        static MasterSemaphore master;
        return &master;
    } catch ( const ResourceException& ) { // logged; the destructor goes on without
        return nullptr;
    }
}

// doSemOp() after the first attempt, which has failed with errno.
bool doSemOpAgain( int operation, int semaphoreIdx, int semaphoreHandle, int flags )
{
    do {
        if ( errno == EAGAIN )
            ::sleep( 1 );
        else if ( errno != EINTR )
            return false;
    } while ( !semOp( operation, semaphoreIdx, semaphoreHandle, flags ) );
    return true;
}

static_assert( std::is_trivially_destructible_v< MasterSemaphore >,
               "semaphores are destroyed at exit, after function-local statics" );

} // namespace

bool doSemOp( int operation, int semaphoreIdx, int semaphoreHandle, int flags )
{
    return semOp( operation, semaphoreIdx, semaphoreHandle, flags ) ||
           doSemOpAgain( operation, semaphoreIdx, semaphoreHandle, flags );
}

MasterSemaphore::Lock::~Lock()
{
    if ( myState == 0 )
        unlock();
}

void MasterSemaphore::Lock::lock( bool showsWait )
{
    if ( mySemaphorePtr != nullptr && mySemaphorePtr->take( &myHeldHandle, showsWait ) )
        ++ourNbrOfMasterLocks;
    myState = 0;
}

void MasterSemaphore::Lock::unlock()
{
    if ( myHeldHandle >= 0 ) {
        doSemOp( +1, masterIdx, myHeldHandle );
        myHeldHandle = -1;
        --ourNbrOfMasterLocks;
    }
    myState = 1;
}

MasterSemaphore::MasterSemaphore()
    : myHandle( openMasterSet() )
{
    nuvCheckResource( myHandle >= 0 );
}

bool MasterSemaphore::wait()
{
    int handle;
    return take( &handle, false );
}

bool MasterSemaphore::post()
{
    return doSemOp( +1, masterIdx, handle() );
}

void MasterSemaphore::acquire( Lock* lockPtr )
{
    lockPtr->mySemaphorePtr = this;
    lockPtr->lock( false );
}

void MasterSemaphore::acquireShown( Lock* lockPtr )
{
    lockPtr->mySemaphorePtr = this;
    lockPtr->lock( true );
}

bool MasterSemaphore::isHeldByThisThread()
{
    return ourNbrOfMasterLocks != 0;
}

bool MasterSemaphore::take( int* handlePtr, bool showsWait )
{
    for ( int attempt = 0; attempt < maxNbrOfAttempts; ++attempt ) {
        const int handle = myHandle.load( std::memory_order_relaxed );
        *handlePtr = handle;
        if ( semOp( -1, masterIdx, handle, IPC_NOWAIT ) )
            return true;
        if ( errno == EAGAIN || errno == EINTR ) {
            std::optional< WaitMark > mark;
            if ( showsWait )
                mark.emplace( WaitKind::masterSemaphore );
            if ( doSemOp( -1, masterIdx, handle ) )
                return true;
        }
        if ( !isRemoved( errno ) )
            break;
        myHandle.store( openMasterSet(), std::memory_order_relaxed );
    }
    *handlePtr = -1;
    return false;
}

Semaphore::Semaphore() = default;

Semaphore::Semaphore( const std::string& name, unsigned int initialCount )
{
    nuvAssert( initialCount <= maxCount );
    // What may read the configuration or ask for groups comes before the master semaphore is taken.
    myFileName = Io::IpcFile::keyFilePathname( "sem_", name ).c_str();
    Utils::SecurityInfo security( Utils::SecurityInfo::semaphoreObject,
                                  Utils::SecurityInfo::ownerAndGroup );
    const char* failedConditionPtr = "masterLock.isHeld()";
    int errorNbr = 0;
    {
        MasterSemaphore::Lock masterLock;
        masterOfConstruction().acquireShown( &masterLock );
        if ( masterLock.isHeld() )
            failedConditionPtr = openSet( security, initialCount );
        errorNbr = errno;
    }
    // Reported only here: the report may wait on semaphores, or construct some.
    errno = errorNbr;
    nuvCheckResourceText( failedConditionPtr == nullptr, failedConditionPtr );
}

// The steps that are taken with the master semaphore held.
// @return null, or the text of the condition that failed, errno telling why
const char* Semaphore::openSet( Utils::SecurityInfo& security, unsigned int initialCount )
{
    if ( !Io::IpcFile::createKeyFile( myFileName.cStr(), security ) )
        return "semaphoreFileHandle.isValid()";
    const ::key_t key = Io::FileSystem::ftok( myFileName.cStr(), 1 );
    if ( key == -1 )
        return "semKey != static_cast< ::key_t >( -1 )";
    if ( key == IPC_PRIVATE ) { // would make a new set for each who asks
        errno = EDOM;
        return "semKey != IPC_PRIVATE";
    }
    return openSetOfKey( key, security.groupId(), initialCount );
}

// While the master semaphore is held no process of the library removes a set; only an operator's
// ipcrm can do so between the calls. Then the set is made anew.
const char* Semaphore::openSetOfKey( int key, unsigned int groupId, unsigned int initialCount )
{
    constexpr int mode = 0660;
    for ( int attempt = 0; attempt < maxNbrOfAttempts; ++attempt ) {
        mySemaphoreHandle = ::semget( key, nbrOfSemaphores, IPC_CREAT | IPC_EXCL | mode );
        if ( mySemaphoreHandle >= 0 ) {
            myCreated = true;
            if ( setOwnership( mySemaphoreHandle, groupId, mode ) &&
                 setValues( mySemaphoreHandle, initialCount ) )
                return nullptr;
            removeKeepingErrno( mySemaphoreHandle, myFileName.cStr() );
            return "setValues( mySemaphoreHandle, initialCount )";
        }
        if ( errno != EEXIST ) {
            removeKeepingErrno( -1, myFileName.cStr() ); // no set: the key file is nobody's
            return "errno == EEXIST";
        }
        mySemaphoreHandle = ::semget( key, nbrOfSemaphores, mode );
        if ( mySemaphoreHandle >= 0 && joinSet( groupId, initialCount ) )
            return nullptr;
        if ( !isRemoved( errno ) )
            break;
    }
    return "mySemaphoreHandle >= 0";
}

bool Semaphore::joinSet( unsigned int groupId, unsigned int initialCount )
{
    const int useCount = semaphoreValue( mySemaphoreHandle, useCountIdx );
    if ( useCount != 0 )
        return useCount > 0 && doSemOp( +1, useCountIdx, mySemaphoreHandle );
    // Nobody's: its creator or its last user was killed halfway. Only the owner may give it away.
    setOwnership( mySemaphoreHandle, groupId, 0660 );
    myCreated = setValues( mySemaphoreHandle, initialCount );
    return myCreated;
}

Semaphore::~Semaphore()
{
    if ( mySemaphoreHandle < 0 )
        return;
    int errorNbr = 0;
    {
        MasterSemaphore::Lock masterLock;
        if ( MasterSemaphore* const masterPtr = masterOfDestructionPtr() )
            masterPtr->acquireShown( &masterLock );
        errorNbr = leaveSet();
    }
    if ( errorNbr != 0 ) {
        nuvLogTo( Log::getStandardSource( Log::error ) )
            << "errSystemError could not remove " << myFileName.cStr() << " errno " << errorNbr;
    }
}

// @return 0, or the error number of a removal that failed
int Semaphore::leaveSet()
{
    // Without waiting: a use count that somebody has set to 0 must not hold us.
    Utils::retryOnEintr(
        [this] { return semOp( -1, useCountIdx, mySemaphoreHandle, IPC_NOWAIT ) ? 0 : -1; } );
    if ( semaphoreValue( mySemaphoreHandle, useCountIdx ) >= 1 )
        return 0;
    const int errorNbr = removeSet();
    if ( isRemoved( errorNbr ) &&
         ::semget( Io::FileSystem::ftok( myFileName.cStr(), 1 ), 0, 0 ) >= 0 )
        return errorNbr; // the key file has become another set's
    ::unlink( myFileName.cStr() );
    if ( !myCompanionFileName.empty() )
        ::unlink( myCompanionFileName.cStr() );
    return errorNbr;
}

int Semaphore::removeSet()
{
    if ( ::semctl( mySemaphoreHandle, 0, IPC_RMID ) == 0 )
        return 0;
    const int errorNbr = errno;
    if ( errorNbr != EPERM )
        return errorNbr;
    try {
        const Utils::ScopedCapabilities capabilities( Utils::capSysAdminMask );
        if ( !capabilities.isRaised() )
            return errorNbr;
        return ::semctl( mySemaphoreHandle, 0, IPC_RMID ) == 0 ? 0 : errno;
    } catch ( const ResourceException& ) { // the device refused; logged
        return errorNbr;
    }
}

bool Semaphore::decrementAtOnce()
{
    return semOp( -1, semaphoreIdx, mySemaphoreHandle, IPC_NOWAIT );
}

// Whoever holds a semaphore of this library mostly gives it back within two system calls. Blocking
// costs ten times that, and makes the holder hand the semaphore to a process that does not run yet:
// two that take turns would then block at every turn.
bool Semaphore::decrementSoon()
{
    static const bool isHeldByRunningOnes = std::thread::hardware_concurrency() > 1;
    for ( int i = 0; isHeldByRunningOnes && i < nbrOfQuickAttempts && errno == EAGAIN; ++i ) {
        if ( decrementAtOnce() )
            return true;
    }
    return false;
}

bool Semaphore::wait()
{
    return semOp( -1, semaphoreIdx, mySemaphoreHandle, IPC_NOWAIT ) || waitLonger();
}

bool Semaphore::waitLonger()
{
    if ( decrementSoon() )
        return true;
    // Claiming a record takes the master semaphore.
    std::optional< WaitMark > mark;
    if ( errno == EAGAIN && !MasterSemaphore::isHeldByThisThread() )
        mark.emplace( WaitKind::semaphore, mySemaphoreHandle );
    nuvCheckResource( doSemOp( -1, semaphoreIdx, mySemaphoreHandle ) );
    return true;
}

bool Semaphore::post()
{
    return semOp( +1, semaphoreIdx, mySemaphoreHandle, 0 ) ||
           doSemOpAgain( +1, semaphoreIdx, mySemaphoreHandle, 0 );
}

bool Semaphore::peek()
{
    return Utils::retryOnEintr( [this] { return decrementAtOnce() ? 0 : -1; } ) == 0;
}

bool Semaphore::peek( unsigned int timeoutMs )
{
    Utils::MsTimer timer;
    std::uint32_t remainingMs = timeoutMs;
    for ( ;; ) {
        if ( decrementAtOnce() )
            return true;
        if ( errno != EAGAIN && errno != EINTR )
            return false;
        timer.decrementByElapsedTime( &remainingMs );
        if ( remainingMs == 0 )
            return false;
        ::usleep( 1000 );
    }
}

int Semaphore::useCount() const
{
    return std::max( 0, semaphoreValue( mySemaphoreHandle, useCountIdx ) );
}

SemaphoreLock::SemaphoreLock( Semaphore* semaPtr, LockState state )
    : mySemaPtr( semaPtr )
    , myState( stateUnlocked )
{
    nuvAssert( mySemaPtr != NULL );
    if ( state == stateLocked )
        lock();
}

bool SemaphoreLock::lock()
{
    const bool result = mySemaPtr->wait();
    myState = stateLocked;
    return result;
}

bool SemaphoreLock::lock( unsigned int timeoutMs )
{
    const bool result = mySemaPtr->peek( timeoutMs );
    if ( result )
        myState = stateLocked;
    return result;
}

bool SemaphoreLock::lockOrLog() noexcept
{
    try {
        return lock();
    } catch ( const ResourceException& ) {
        return false;
    }
}

bool SemaphoreLock::unlock()
{
    const bool result = mySemaPtr->post();
    myState = stateUnlocked;
    return result;
}

} // namespace Nuv::Mt
