#include "nuvSemaphore.h"

#include "nuvFileSystem.h"
#include "nuvLogCapture.h"
#include "nuvTestCapabilityDevice.h"
#include "nuvTestSupport.h"
#include "nuvTestThread.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {
NuvTest::Fault ourSemgetFault;
NuvTest::Fault ourSemctlFault;
NuvTest::Fault ourSemopFault;
NuvTest::Fault ourOpenFault;
std::atomic< int > ourNbrOfSemops = 0;
std::atomic< unsigned int > ourSecondsSlept = 0;
NuvTest::CapabilityDeviceDouble* ourDevicePtr = nullptr; // if set, whose clock sleeps advance
std::uint32_t ourClockMs = 0;
std::function< void() > ourBeforeSemget; // runs once, before the next call that creates nothing
} // namespace

// NOLINTBEGIN: the linker gives these names
extern "C" int __real_semget( key_t, int, int );
extern "C" int __wrap_semget( key_t key, int nbrOfSemaphores, int flags )
{
    if ( ( flags & IPC_CREAT ) == 0 && ourBeforeSemget )
        std::exchange( ourBeforeSemget, nullptr )();
    return ourSemgetFault.strikes() ? -1 : __real_semget( key, nbrOfSemaphores, flags );
}
#if defined( __i386__ )
#define NUV_SEMCTL( prefix ) prefix##__semctl64
#define NUV_OPEN( prefix ) prefix##open64
#else
#define NUV_SEMCTL( prefix ) prefix##semctl
#define NUV_OPEN( prefix ) prefix##open
#endif
extern "C" int NUV_SEMCTL( __real_ )( int, int, int, ... );
extern "C" int NUV_SEMCTL( __wrap_ )( int handle, int idx, int command, ... )
{
    va_list arguments;
    va_start( arguments, command );
    void* const argumentPtr = va_arg( arguments, void* );
    va_end( arguments );
    // Queries tell; only what changes a set is made to fail.
    const bool isChange = command != GETVAL && command != IPC_STAT;
    return isChange && ourSemctlFault.strikes()
               ? -1
               : NUV_SEMCTL( __real_ )( handle, idx, command, argumentPtr );
}
extern "C" int __real_semop( int, sembuf*, size_t );
extern "C" int __wrap_semop( int handle, sembuf* operationsPtr, size_t count )
{
    ++ourNbrOfSemops;
    return ourSemopFault.strikes() ? -1 : __real_semop( handle, operationsPtr, count );
}
extern "C" int NUV_OPEN( __real_ )( const char*, int, ... );
extern "C" int NUV_OPEN( __wrap_ )( const char* pathPtr, int flags, ... )
{
    va_list arguments;
    va_start( arguments, flags );
    const int mode = va_arg( arguments, int );
    va_end( arguments );
    return ourOpenFault.strikes() ? -1 : NUV_OPEN( __real_ )( pathPtr, flags, mode );
}
extern "C" unsigned int __wrap_sleep( unsigned int seconds )
{
    ourSecondsSlept += seconds;
    return 0;
}
extern "C" int __real_usleep( useconds_t );
extern "C" int __wrap_usleep( useconds_t microseconds )
{
    if ( ourDevicePtr == nullptr )
        return __real_usleep( microseconds );
    ourDevicePtr->setClockMs( ourClockMs += microseconds / 1000 );
    return 0;
}
// NOLINTEND

namespace Nuv::Mt {
namespace {

class SemaphoreTest : public NuvTest::RootFixture
{
protected:
    ~SemaphoreTest() override
    {
        for ( NuvTest::Fault* const faultPtr :
              { &ourSemgetFault, &ourSemctlFault, &ourSemopFault, &ourOpenFault } ) {
            faultPtr->disarm();
        }
    }

    static std::string keyFile( const std::string& name )
    {
        return root( "ixoRoot/tmp/ipc/sem_" + name );
    }
    static bool exists( const std::string& path ) { return ::access( path.c_str(), F_OK ) == 0; }
    static int value( int handle, int idx ) { return ::semctl( handle, idx, GETVAL ); }
    static void setValue( int handle, int idx, int value )
    {
        ::semctl( handle, idx, SETVAL, value );
    }
    static void removeSet( int handle ) { ASSERT_EQ( ::semctl( handle, 0, IPC_RMID ), 0 ); }
    static key_t key( const std::string& path ) { return Io::FileSystem::ftok( path.c_str(), 1 ); }

    // Sets of two semaphores in the test's namespace.
    static int nbrOfSets()
    {
        std::ifstream file( "/proc/sysvipc/sem" );
        std::string line;
        int count = 0;
        while ( std::getline( file, line ) ) {
            int setKey, id, mode, nbrOfSemaphores;
            count += std::sscanf( line.c_str(), "%d %d %o %d", &setKey, &id, &mode,
                                  &nbrOfSemaphores ) == 4 &&
                     nbrOfSemaphores == 2;
        }
        return count;
    }
    // Sets of this class's semaphores: the library logs through others.
    const int myNbrOfSetsBefore = nbrOfSets();

    static int masterHandle() { return ::semget( key( root( "ixoRoot/tmp/ipc" ) ), 1, 0 ); }
    static int masterValue() { return value( masterHandle(), 0 ); }
};

// @return text of the resource failure, "" if there was none
template < class Action >
std::string resourceFailure( Action&& action )
{
    try {
        action();
    } catch ( const ResourceException& exception ) {
        return exception.what();
    }
    return "";
}

bool contains( const std::string& text, const std::string& part )
{
    return text.find( part ) != std::string::npos;
}

TEST_F( SemaphoreTest, SetHasTheDocumentedKeyOwnerModeAndValues )
{
    const Semaphore semaphore( "a/b", 7 );
    const std::string path = keyFile( "a-b" );
    EXPECT_EQ( semaphore.fileName(), path );
    struct stat fileStatus;
    ASSERT_EQ( ::stat( path.c_str(), &fileStatus ), 0 );
    EXPECT_EQ( fileStatus.st_mode & 07777, 0660u );

    semid_ds setStatus;
    ASSERT_EQ( ::semget( static_cast< key_t >( fileStatus.st_ino ), 2, 0 ), semaphore.handle() );
    ASSERT_EQ( ::semctl( semaphore.handle(), 0, IPC_STAT, &setStatus ), 0 );
    EXPECT_EQ( setStatus.sem_perm.mode & 0777, 0660 );
    EXPECT_EQ( setStatus.sem_perm.uid, ::geteuid() );
    EXPECT_EQ( setStatus.sem_perm.gid, ::getegid() );
    EXPECT_EQ( setStatus.sem_nsems, 2u );
    EXPECT_EQ( value( semaphore.handle(), 0 ), 7 );
    EXPECT_EQ( value( semaphore.handle(), 1 ), 1 );
    EXPECT_EQ( masterValue(), 1 );
}

TEST_F( SemaphoreTest, UsersShareOneSetAndTheLastRemovesIt )
{
    auto firstPtr = std::make_unique< Semaphore >( "shared", 2 );
    auto secondPtr = std::make_unique< Semaphore >( "shared", 9 );
    EXPECT_TRUE( firstPtr->isCreated() );
    EXPECT_FALSE( secondPtr->isCreated() );
    EXPECT_EQ( secondPtr->handle(), firstPtr->handle() );
    EXPECT_EQ( secondPtr->useCount(), 2 );
    EXPECT_TRUE( firstPtr->wait() );
    EXPECT_TRUE( secondPtr->peek() );
    EXPECT_FALSE( firstPtr->peek() ) << "the second initial count was not ignored";
    firstPtr.reset();
    EXPECT_EQ( secondPtr->useCount(), 1 );
    EXPECT_TRUE( exists( keyFile( "shared" ) ) );
    secondPtr.reset();
    EXPECT_FALSE( exists( keyFile( "shared" ) ) );
    EXPECT_EQ( nbrOfSets(), myNbrOfSetsBefore );
}

TEST_F( SemaphoreTest, TimedPeekTriesOnceOrUntilItsTimeHasPassed )
{
    Semaphore semaphore( "peeked", 0 );
    ourNbrOfSemops = 0;
    EXPECT_FALSE( semaphore.peek( 0 ) );
    EXPECT_EQ( ourNbrOfSemops, 1 );
    {
        NuvTest::CapabilityDeviceDouble device;
        ourDevicePtr = &device;
        ourNbrOfSemops = 0;
        EXPECT_FALSE( semaphore.peek( 5 ) );
        EXPECT_EQ( ourNbrOfSemops, 6 ); // at 0, 1 ... 5 ms
        EXPECT_EQ( ourClockMs, 5u );
        ourDevicePtr = nullptr;
    }

    std::thread poster = NuvTest::startThread( [&] {
        NuvTest::waitFor(
            [nbrBefore = ourNbrOfSemops.load()] { return ourNbrOfSemops > nbrBefore + 3; } );
        semaphore.post();
    } );
    EXPECT_TRUE( semaphore.peek( Semaphore::infinite ) );
    poster.join();
    removeSet( semaphore.handle() );
    EXPECT_FALSE( semaphore.peek( Semaphore::infinite ) ) << "any other failure ends it";
}

TEST_F( SemaphoreTest, InterruptionsAreRepeatedAndOtherFailuresReported )
{
    WaitMark( WaitKind::events ); // this thread has a record from here on
    Semaphore semaphore( "interrupted", 1 );
    const struct
    {
        const char* namePtr;
        std::function< bool() > operation;
        int errorNbr;
        bool result;
        int nbrOfSemops;
        unsigned int secondsSlept;
    } cases[] = {
        { "peek", [&] { return semaphore.peek(); }, EINTR, true, 2, 0 },
        { "peek", [&] { return semaphore.peek(); }, EFBIG, false, 1, 0 },
        { "timed peek", [&] { return semaphore.peek( 1000 ); }, EINTR, true, 2, 0 },
        { "timed peek", [&] { return semaphore.peek( 1000 ); }, EFBIG, false, 1, 0 },
        { "post", [&] { return semaphore.post(); }, EINTR, true, 2, 0 },
        { "post", [&] { return semaphore.post(); }, EAGAIN, true, 2, 1 },
        { "post", [&] { return semaphore.post(); }, EIDRM, false, 1, 0 },
        { "wait", [&] { return semaphore.wait(); }, EINTR, true, 2, 0 },
        { "wait", [&] { return semaphore.wait(); }, EAGAIN, true, 2, 0 },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( std::string( row.namePtr ) + " " + std::to_string( row.errorNbr ) );
        setValue( semaphore.handle(), 0, 1 );
        ourNbrOfSemops = 0;
        ourSecondsSlept = 0;
        ourSemopFault.arm( 1, row.errorNbr );
        EXPECT_EQ( row.operation(), row.result );
        EXPECT_EQ( ourNbrOfSemops, row.nbrOfSemops );
        EXPECT_EQ( ourSecondsSlept, row.secondsSlept );
        ourSemopFault.disarm();
    }
    setValue( semaphore.handle(), 0, 1 );
    ourNbrOfSemops = 0;
    EXPECT_TRUE( semaphore.wait() && semaphore.post() );
    EXPECT_EQ( ourNbrOfSemops, 2 ) << "a pair on a free semaphore is two calls";
}

TEST_F( SemaphoreTest, WaitBlocksUntilPosted )
{
    Semaphore semaphore( "blocking", 0 );
    std::atomic< bool > isTaken = false;
    std::thread waiter = NuvTest::startThread( [&] {
        semaphore.wait();
        isTaken = true;
    } );
    EXPECT_TRUE(
        NuvTest::waitFor( [&] { return ::semctl( semaphore.handle(), 0, GETNCNT ) == 1; } ) );
    EXPECT_FALSE( isTaken );
    EXPECT_TRUE( semaphore.post() );
    waiter.join();
    EXPECT_EQ( value( semaphore.handle(), 0 ), 0 );
}

TEST_F( SemaphoreTest, ConstructionAndDestructionWaitForTheMasterSemaphore )
{
    Semaphore( "warmUp", 1 );
    MasterSemaphore master;
    for ( const bool isConstruction : { true, false } ) {
        SCOPED_TRACE( isConstruction );
        auto semaphorePtr = std::make_unique< Semaphore >( "waiting", 1 );
        MasterSemaphore::Lock lock;
        master.acquire( &lock );
        std::atomic< bool > isOver = false;
        std::thread other = NuvTest::startThread( [&] {
            if ( isConstruction )
                EXPECT_EQ( Semaphore( "other", 3 ).useCount(), 1 );
            else
                semaphorePtr.reset();
            isOver = true;
        } );
        EXPECT_TRUE( NuvTest::waitFor(
            [&] { return ::semctl( masterHandle(), 0, GETNCNT ) == 1 || isOver; } ) );
        EXPECT_FALSE( isOver );
        lock.unlock();
        other.join();
        EXPECT_EQ( masterValue(), 1 );
    }
}

TEST_F( SemaphoreTest, FailedWaitIsAResourceFailure )
{
    Semaphore none;
    Semaphore removed( "removed", 0 );
    std::thread remover = NuvTest::startThread( [&] {
        NuvTest::waitFor( [&] { return ::semctl( removed.handle(), 0, GETNCNT ) == 1; } );
        removeSet( removed.handle() );
    } );
    const std::string text = "failed: doSemOp( -1, semaphoreIdx, mySemaphoreHandle ),  ";
    EXPECT_TRUE(
        contains( resourceFailure( [&] { removed.wait(); } ), text + "Identifier removed" ) );
    remover.join();
    EXPECT_TRUE( contains( resourceFailure( [&] { removed.wait(); } ), text ) );
    EXPECT_TRUE( contains( resourceFailure( [&] { none.wait(); } ), text ) );
    EXPECT_TRUE( contains( resourceFailure( [&] { SemaphoreLock lock( &none ); } ), text ) );
    for ( Semaphore* const semaphorePtr : { &none, &removed } ) {
        EXPECT_FALSE( semaphorePtr->post() );
        EXPECT_FALSE( semaphorePtr->peek() );
        EXPECT_EQ( semaphorePtr->useCount(), 0 );
    }
    EXPECT_EQ( none.handle(), -1 );
    EXPECT_STREQ( none.fileName(), "" );
}

TEST_F( SemaphoreTest, LockFollowsItsTableOfStates )
{
    Semaphore semaphore( "locked", 1 );
    const auto count = [&] { return value( semaphore.handle(), 0 ); };
    try {
        SemaphoreLock lock( nullptr );
        ADD_FAILURE() << "no exception";
    } catch ( const LogicException& exception ) {
        EXPECT_TRUE( contains( exception.what(), "failed: mySemaPtr != NULL (" ) );
    }
    {
        const SemaphoreLock lock( &semaphore );
        EXPECT_EQ( count(), 0 );
        {
            SemaphoreLock late( &semaphore, SemaphoreLock::stateUnlocked );
            EXPECT_FALSE( late.lock( 2 ) );
        }
        EXPECT_EQ( count(), 0 ) << "a lock that timed out has posted";
    }
    EXPECT_EQ( count(), 1 );
    {
        SemaphoreLock lock( &semaphore, SemaphoreLock::stateUnlocked );
        EXPECT_EQ( count(), 1 );
        EXPECT_TRUE( lock.lock( 0 ) );
        EXPECT_EQ( count(), 0 );
        EXPECT_TRUE( lock.unlock() );
        EXPECT_EQ( count(), 1 );
        EXPECT_TRUE( lock.lock() );
    }
    EXPECT_EQ( count(), 1 );
    removeSet( semaphore.handle() );
    SemaphoreLock lock( &semaphore, SemaphoreLock::stateUnlocked );
    EXPECT_FALSE( lock.lockOrLog() ); // and the destructor has nothing to give back
}

TEST_F( SemaphoreTest, ExtremeCounts )
{
    EXPECT_THROW( Semaphore( "counts", Semaphore::maxCount + 1 ), LogicException );
    EXPECT_FALSE( exists( keyFile( "counts" ) ) );
    Semaphore semaphore( "counts", Semaphore::maxCount );
    EXPECT_FALSE( semaphore.post() );
    EXPECT_TRUE( semaphore.peek() );
    EXPECT_TRUE( semaphore.post() );
    setValue( semaphore.handle(), Semaphore::useCountIdx, 32767 );
    EXPECT_TRUE( contains( resourceFailure( [] { Semaphore( "counts", 1 ); } ),
                           "failed: mySemaphoreHandle >= 0,  " ) );
    setValue( semaphore.handle(), Semaphore::useCountIdx, 1 );
}

TEST_F( SemaphoreTest, SetThatNobodyUsesIsMadeAnew )
{
    // As left by a creator that was killed after the first call, and by a last user before the
    // last.
    for ( const int count : { 0, 5 } ) {
        SCOPED_TRACE( count );
        NuvTest::writeFile( keyFile( "halfMade" ), "" );
        const int handle = ::semget( key( keyFile( "halfMade" ) ), 2, IPC_CREAT | IPC_EXCL | 0660 );
        setValue( handle, 0, count );
        const Semaphore semaphore( "halfMade", 3 );
        EXPECT_EQ( semaphore.handle(), handle );
        EXPECT_TRUE( semaphore.isCreated() );
        EXPECT_EQ( value( handle, 0 ), 3 );
        EXPECT_EQ( semaphore.useCount(), 1 );
    }
    EXPECT_EQ( nbrOfSets(), myNbrOfSetsBefore );
}

TEST_F( SemaphoreTest, KilledUserLeavesItsUseToTheNext )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        static Semaphore* const leftPtr = new Semaphore( "killed", 1 );
        leftPtr->wait();
        ::_exit( 0 );
    } );
    ASSERT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
    Semaphore semaphore( "killed", 1 );
    EXPECT_FALSE( semaphore.isCreated() );
    EXPECT_FALSE( semaphore.peek() );
    EXPECT_EQ( semaphore.useCount(), 2 );
    setValue( semaphore.handle(), Semaphore::useCountIdx, 0 ); // must not hold the destructor
}

TEST_F( SemaphoreTest, SetRemovedUnderItsUserTakesOnlyItsOwnFilesAlong )
{
    auto oldPtr = std::make_unique< Semaphore >( "removed", 1 );
    removeSet( oldPtr->handle() );
    const Semaphore semaphore( "removed", 1 ); // a new set of the same key file
    EXPECT_TRUE( semaphore.isCreated() );
    oldPtr.reset();
    EXPECT_TRUE( exists( keyFile( "removed" ) ) );
    EXPECT_EQ( semaphore.useCount(), 1 );

    auto lonePtr = std::make_unique< Semaphore >( "lone", 1 );
    NuvTest::writeFile( root( "companion" ), "" );
    lonePtr->companionFileName( root( "companion" ).c_str() );
    removeSet( lonePtr->handle() );
    lonePtr.reset();
    EXPECT_FALSE( exists( keyFile( "lone" ) ) );
    EXPECT_FALSE( exists( root( "companion" ) ) );
}

TEST_F( SemaphoreTest, SetRemovedBetweenCreationAndOpeningIsMadeAnew )
{
    auto oldPtr = std::make_unique< Semaphore >( "raced", 1 );
    ourBeforeSemget = [&] { removeSet( oldPtr->handle() ); };
    const Semaphore semaphore( "raced", 4 );
    EXPECT_TRUE( semaphore.isCreated() );
    EXPECT_EQ( value( semaphore.handle(), 0 ), 4 );
    oldPtr.reset();
}

TEST_F( SemaphoreTest, ForeignSetOfAnotherShapeIsAResourceFailure )
{
    NuvTest::writeFile( keyFile( "foreign" ), "" );
    const int handle = ::semget( key( keyFile( "foreign" ) ), 1, IPC_CREAT | IPC_EXCL | 0660 );
    EXPECT_TRUE( contains( resourceFailure( [] { Semaphore( "foreign", 1 ); } ),
                           "failed: mySemaphoreHandle >= 0,  Invalid argument" ) );
    removeSet( handle );
}

TEST_F( SemaphoreTest, RemovalThatIsRefusedIsTriedOnceMoreWithTheCapability )
{
    NuvTest::CapabilityDeviceDouble device;
    const Log::Capture capture;
    const auto message = [&]( int errorNbr ) {
        return "errSystemError could not remove " + keyFile( "refused" ) + " errno " +
               std::to_string( errorNbr );
    };
    for ( const int nbrOfRefusals : { 1, 2 } ) {
        SCOPED_TRACE( nbrOfRefusals );
        auto semaphorePtr = std::make_unique< Semaphore >( "refused", 1 );
        const int handle = semaphorePtr->handle();
        ourSemctlFault.arm( 1, EPERM,
                            nbrOfRefusals == 1 ? NuvTest::Fault::once : NuvTest::Fault::forGood );
        semaphorePtr.reset();
        EXPECT_EQ( ourSemctlFault.nbrOfStrikes(), nbrOfRefusals );
        ourSemctlFault.disarm();
        EXPECT_FALSE( exists( keyFile( "refused" ) ) ) << "in every case";
        EXPECT_EQ( capture.contains( message( EPERM ) ), nbrOfRefusals == 2 );
        EXPECT_EQ( nbrOfSets(), myNbrOfSetsBefore + nbrOfRefusals - 1 );
        if ( nbrOfRefusals == 2 )
            removeSet( handle );
    }
    auto removedPtr = std::make_unique< Semaphore >( "refused", 1 );
    removeSet( removedPtr->handle() );
    removedPtr.reset();
    EXPECT_TRUE( capture.contains( message( EINVAL ) ) );
    device.setOpen( false );
    auto semaphorePtr = std::make_unique< Semaphore >( "refused", 1 );
    const int handle = semaphorePtr->handle();
    ourSemctlFault.arm( 1, EPERM, NuvTest::Fault::forGood );
    semaphorePtr.reset();
    EXPECT_EQ( ourSemctlFault.nbrOfStrikes(), 1 ) << "tried again without the capability";
    ourSemctlFault.disarm();
    removeSet( handle );
}

TEST_F( SemaphoreTest, FailedCallsLeaveNothingBehindAndNothingLocked )
{
    Semaphore( "warmUp", 1 ); // the master semaphore's objects exist from here on
    const struct
    {
        const char* callPtr;
        NuvTest::Fault* faultPtr;
        int errorNbr;
    } cases[] = {
        { "open", &ourOpenFault, EACCES },     { "semget", &ourSemgetFault, ENOSPC },
        { "semget", &ourSemgetFault, ENOMEM }, { "semctl", &ourSemctlFault, EPERM },
        { "semop", &ourSemopFault, EFBIG },
    };
    for ( const auto& row : cases ) {
        bool isStruck = true;
        for ( int n = 1; isStruck; ++n ) {
            SCOPED_TRACE( row.callPtr + std::to_string( n ) );
            std::unique_ptr< Semaphore > semaphorePtr;
            row.faultPtr->arm( n, row.errorNbr );
            const std::string text = resourceFailure(
                [&] { semaphorePtr = std::make_unique< Semaphore >( "faulty", 1 ); } );
            isStruck = row.faultPtr->nbrOfStrikes() != 0;
            row.faultPtr->disarm();
            EXPECT_TRUE( semaphorePtr != nullptr ||
                         contains( text, std::strerror( row.errorNbr ) ) )
                << text;
            if ( masterValue() == 0 ) // the post itself was made to fail
                setValue( masterHandle(), 0, 1 );
            semaphorePtr.reset();
            EXPECT_EQ( nbrOfSets(), myNbrOfSetsBefore );
            EXPECT_EQ( masterValue(), 1 );
            ASSERT_LT( n, 20 );
        }
    }
}

TEST_F( SemaphoreTest, MasterSetIsCompletedWhenItsCreatorWasKilled )
{
    const std::string directory = root( "ixoRoot/tmp/ipc" );
    const Semaphore outer( "outer", 1 ); // whose objects know the old master set
    removeSet( masterHandle() );
    const int handle = ::semget( key( directory ), 1, IPC_CREAT | IPC_EXCL | 0660 );
    MasterSemaphore master;
    EXPECT_EQ( master.handle(), handle );
    EXPECT_EQ( masterValue(), 1 );
    {
        MasterSemaphore::Lock lock;
        master.acquire( &lock );
        EXPECT_TRUE( lock.isHeld() && MasterSemaphore::isHeldByThisThread() );
        EXPECT_EQ( masterValue(), 0 );
        const MasterSemaphore other; // taken is not half-made
        EXPECT_EQ( masterValue(), 0 );
        lock.unlock();
        EXPECT_EQ( masterValue(), 1 );
        EXPECT_FALSE( MasterSemaphore::isHeldByThisThread() );
        lock.lock();
    }
    EXPECT_EQ( masterValue(), 1 );
    const Semaphore afterwards( "afterwards", 1 ); // finds the new set
    EXPECT_EQ( masterValue(), 1 );
}

TEST_F( SemaphoreTest, LockPostsOnlyTheMasterSetThatItTook )
{
    MasterSemaphore master;
    MasterSemaphore::Lock lock;
    master.acquire( &lock );
    removeSet( masterHandle() );
    MasterSemaphore::Lock fresh; // opens, or makes, a set anew
    master.acquire( &fresh );
    EXPECT_EQ( masterValue(), 0 );
    lock.unlock();
    EXPECT_EQ( masterValue(), 0 );
    fresh.unlock();
    EXPECT_EQ( masterValue(), 1 );
    removeSet( masterHandle() );
    EXPECT_TRUE( master.wait() );
    EXPECT_EQ( masterValue(), 0 );
    EXPECT_TRUE( master.post() );
    MasterSemaphore::Lock idle;
    idle.lock(); // without a semaphore
    EXPECT_FALSE( idle.isHeld() );
    EXPECT_EQ( masterValue(), 1 );
}

TEST_F( SemaphoreTest, MissingDirectoryIsAResourceFailure )
{
    const Semaphore before( "before", 1 );
    const std::string directory = root( "ixoRoot/tmp/ipc" );
    ASSERT_EQ( ::rename( directory.c_str(), ( directory + "2" ).c_str() ), 0 );
    EXPECT_TRUE( contains( resourceFailure( [] { MasterSemaphore(); } ),
                           "failed: myHandle >= 0,  No such file" ) );
    EXPECT_TRUE( contains( resourceFailure( [] { Semaphore( "x", 1 ); } ),
                           "failed: semaphoreFileHandle.isValid(),  No such file" ) );
    ASSERT_EQ( ::rename( ( directory + "2" ).c_str(), directory.c_str() ), 0 );
    EXPECT_EQ( masterValue(), 1 );
}

} // namespace
} // namespace Nuv::Mt
