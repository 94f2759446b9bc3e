#include "nuvSemaphore.h"

#include "nuvFileSystem.h"
#include "nuvLogCapture.h"
#include "nuvTestCapabilityDevice.h"
#include "nuvTestInterprocess.h"
#include "nuvTestThread.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {
NuvTest::Fault ourSemgetFault, ourSemctlFault, ourSemopFault, ourOpenFault;
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

using NuvTest::expectFailure;
using NuvTest::Fault;
using SemaphorePtr = std::unique_ptr< Semaphore >;

class SemaphoreTest : public NuvTest::InterprocessFixture
{
protected:
    ~SemaphoreTest() override
    {
        for ( Fault* const ptr :
              { &ourSemgetFault, &ourSemctlFault, &ourSemopFault, &ourOpenFault } ) {
            ptr->disarm();
        }
    }

    static SemaphorePtr make( const char* namePtr, unsigned int count = 1 )
    {
        return std::make_unique< Semaphore >( namePtr, count );
    }
    static int value( int handle, int idx = 0 ) { return ::semctl( handle, idx, GETVAL ); }
    // @return count and use count
    static std::string values( const Semaphore& semaphore )
    {
        return std::to_string( value( semaphore.handle() ) ) + "/" +
               std::to_string( semaphore.useCount() );
    }
    static void setValue( int handle, int idx, int value )
    {
        ::semctl( handle, idx, SETVAL, value );
    }
    static void removeSet( int handle ) { ASSERT_EQ( ::semctl( handle, 0, IPC_RMID ), 0 ); }
    // A set as others leave one, of the key file of that name (the directory itself: "").
    static int makeSet( const std::string& name, int nbrOfSemaphores )
    {
        if ( !name.empty() )
            NuvTest::writeFile( ipc( name ), "" );
        return ::semget( Io::FileSystem::ftok( ipc( name ).c_str(), 1 ), nbrOfSemaphores,
                         IPC_CREAT | IPC_EXCL | 0660 );
    }
    static int masterHandle()
    {
        return ::semget( Io::FileSystem::ftok( ipc( "" ).c_str(), 1 ), 1, 0 );
    }
    static int masterValue() { return value( masterHandle() ); }
    static bool waitForWaiter( int handle )
    {
        return NuvTest::waitFor( [=] { return ::semctl( handle, 0, GETNCNT ) == 1; } );
    }
    int nbrOfNewSets() const { return nbrOfKernelObjects( "sem" ) - myNbrOfSetsBefore; }

    const SemaphorePtr myWarmUp = make( "warmUp" ); // the master set exists from here on
    const int myNbrOfSetsBefore = nbrOfKernelObjects( "sem" );
};

TEST_F( SemaphoreTest, SetHasTheDocumentedKeyOwnerModeAndValues )
{
    const Semaphore semaphore( "a/b", 7 );
    EXPECT_EQ( semaphore.fileName(), ipc( "sem_a-b" ) );
    struct stat fileStatus;
    ASSERT_EQ( ::stat( semaphore.fileName(), &fileStatus ), 0 );
    EXPECT_EQ( fileStatus.st_mode & 07777, 0660u );
    semid_ds setStatus;
    ASSERT_EQ( ::semget( static_cast< key_t >( fileStatus.st_ino ), 2, 0 ), semaphore.handle() );
    ASSERT_EQ( ::semctl( semaphore.handle(), 0, IPC_STAT, &setStatus ), 0 );
    EXPECT_EQ( setStatus.sem_perm.mode & 0777, 0660 );
    EXPECT_EQ( setStatus.sem_perm.uid, ::geteuid() );
    EXPECT_EQ( setStatus.sem_perm.gid, ::getegid() );
    EXPECT_EQ( setStatus.sem_nsems, 2u );
    EXPECT_EQ( values( semaphore ), "7/1" );
    EXPECT_EQ( masterValue(), 1 );
}

TEST_F( SemaphoreTest, UsersShareOneSetAndTheLastRemovesIt )
{
    SemaphorePtr firstPtr = make( "shared", 2 );
    SemaphorePtr secondPtr = make( "shared", 9 );
    EXPECT_TRUE( firstPtr->isCreated() && !secondPtr->isCreated() );
    EXPECT_EQ( secondPtr->handle(), firstPtr->handle() );
    EXPECT_EQ( values( *secondPtr ), "2/2" );
    EXPECT_TRUE( firstPtr->wait() && secondPtr->peek() );
    EXPECT_FALSE( firstPtr->peek() );
    firstPtr.reset();
    EXPECT_EQ( values( *secondPtr ), "0/1" );
    EXPECT_TRUE( exists( "sem_shared" ) );
    secondPtr.reset();
    EXPECT_FALSE( exists( "sem_shared" ) );
    EXPECT_EQ( nbrOfNewSets(), 0 );
}

TEST_F( SemaphoreTest, TimedPeekTriesOnceOrUntilItsTimeHasPassed )
{
    Semaphore semaphore( "peeked", 0 );
    {
        NuvTest::CapabilityDeviceDouble device;
        ourDevicePtr = &device;
        ourNbrOfSemops = 0;
        EXPECT_FALSE( semaphore.peek( 0 ) );
        EXPECT_EQ( ourNbrOfSemops, 1 );
        EXPECT_FALSE( semaphore.peek( 5 ) );
        EXPECT_EQ( ourNbrOfSemops, 1 + 6 ); // at 0, 1 ... 5 ms
        EXPECT_EQ( ourClockMs, 5u );
        ourDevicePtr = nullptr;
    }
    std::thread poster = NuvTest::startThread( [&] {
        NuvTest::waitFor(
            [before = ourNbrOfSemops.load()] { return ourNbrOfSemops > before + 3; } );
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
    const auto peek = [&] { return semaphore.peek(); };
    const auto timedPeek = [&] { return semaphore.peek( 1000 ); };
    const auto post = [&] { return semaphore.post(); };
    const auto wait = [&] { return semaphore.wait(); };
    const struct
    {
        const char* namePtr;
        std::function< bool() > operation;
        int errorNbr;
        bool result;
        int nbrOfSemops;
        unsigned int secondsSlept;
    } cases[] = {
        { "peek", peek, EINTR, true, 2, 0 },
        { "peek, other", peek, EFBIG, false, 1, 0 },
        { "timed peek", timedPeek, EINTR, true, 2, 0 },
        { "timed peek, other", timedPeek, EFBIG, false, 1, 0 },
        { "post", post, EINTR, true, 2, 0 },
        { "post, unavailable", post, EAGAIN, true, 2, 1 },
        { "post, removed", post, EIDRM, false, 1, 0 },
        { "wait", wait, EINTR, true, 2, 0 },
        { "wait, unavailable", wait, EAGAIN, true, 2, 0 },
        { "free", [&] { return post() && wait(); }, 0, true, 2, 0 }, // no call fails
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.namePtr );
        setValue( semaphore.handle(), 0, 1 );
        ourNbrOfSemops = 0;
        ourSecondsSlept = 0;
        if ( row.errorNbr != 0 )
            ourSemopFault.arm( 1, row.errorNbr );
        EXPECT_EQ( row.operation(), row.result );
        EXPECT_EQ( ourNbrOfSemops, row.nbrOfSemops );
        EXPECT_EQ( ourSecondsSlept, row.secondsSlept );
        ourSemopFault.disarm();
    }
}

TEST_F( SemaphoreTest, WaitsBlockUntilWhatTheyWaitForIsGivenBack )
{
    Semaphore semaphore( "blocking", 0 );
    SemaphorePtr destroyedPtr = make( "destroyed" );
    MasterSemaphore master;
    const struct
    {
        const char* namePtr;
        std::function< void() > operation;
        bool isForMaster;
    } cases[] = {
        { "wait", [&] { semaphore.wait(); }, false },
        { "construction", [] { EXPECT_TRUE( make( "other" )->isCreated() ); }, true },
        { "destruction", [&] { destroyedPtr.reset(); }, true },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.namePtr );
        MasterSemaphore::Lock lock;
        if ( row.isForMaster )
            master.acquire( &lock );
        std::atomic< bool > isOver = false;
        std::thread waiter = NuvTest::startThread( [&] {
            row.operation();
            isOver = true;
        } );
        EXPECT_TRUE( waitForWaiter( row.isForMaster ? masterHandle() : semaphore.handle() ) );
        EXPECT_FALSE( isOver );
        if ( row.isForMaster )
            lock.unlock();
        else
            EXPECT_TRUE( semaphore.post() );
        waiter.join();
        EXPECT_EQ( value( semaphore.handle() ), 0 );
        EXPECT_EQ( masterValue(), 1 );
    }
}

TEST_F( SemaphoreTest, FailedWaitIsAResourceFailure )
{
    Semaphore none;
    Semaphore removed( "removed", 0 );
    std::thread remover = NuvTest::startThread( [&] {
        waitForWaiter( removed.handle() );
        removeSet( removed.handle() );
    } );
    const std::string text = "failed: doSemOp( -1, semaphoreIdx, mySemaphoreHandle ),  ";
    expectFailure( text + "Identifier removed", [&] { removed.wait(); } );
    remover.join();
    for ( Semaphore* const semaphorePtr : { &none, &removed } ) {
        expectFailure( text, [&] { semaphorePtr->wait(); } );
        expectFailure( text, [&] { SemaphoreLock lock( semaphorePtr ); } );
        SemaphoreLock lock( semaphorePtr, SemaphoreLock::stateUnlocked );
        EXPECT_FALSE( lock.lockOrLog() ); // and its destructor has nothing to give back
        EXPECT_FALSE( semaphorePtr->post() || semaphorePtr->peek() );
        EXPECT_EQ( semaphorePtr->useCount(), 0 );
    }
    EXPECT_EQ( none.handle(), -1 );
    EXPECT_STREQ( none.fileName(), "" );
}

TEST_F( SemaphoreTest, LockFollowsItsTableOfStates )
{
    Semaphore semaphore( "locked", 1 );
    const auto count = [&] { return value( semaphore.handle() ); };
    expectFailure( "failed: mySemaPtr != NULL (", [] { SemaphoreLock lock( nullptr ); } );
    {
        const SemaphoreLock lock( &semaphore );
        EXPECT_EQ( count(), 0 );
        EXPECT_FALSE( SemaphoreLock( &semaphore, SemaphoreLock::stateUnlocked ).lock( 2 ) );
        EXPECT_EQ( count(), 0 ) << "a lock that timed out has posted";
    }
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
}

TEST_F( SemaphoreTest, ExtremeCounts )
{
    expectFailure( "failed: initialCount <= maxCount", [] { make( "counts", 32768 ); } );
    EXPECT_FALSE( exists( "sem_counts" ) );
    Semaphore semaphore( "counts", 32767 );
    EXPECT_FALSE( semaphore.post() );
    EXPECT_TRUE( semaphore.peek() && semaphore.post() );
    setValue( semaphore.handle(), Semaphore::useCountIdx, 32767 );
    expectFailure( "failed: mySemaphoreHandle >= 0,  ", [] { make( "counts" ); } );
    setValue( semaphore.handle(), Semaphore::useCountIdx, 1 );
}

TEST_F( SemaphoreTest, WhatOthersHaveLeftIsJoinedMadeAnewOrRefused )
{
    // Of use count 0: by a creator killed after its first call, by a last user before its last one.
    for ( const int count : { 0, 5 } ) {
        const int handle = makeSet( "sem_nobodys", 2 );
        setValue( handle, 0, count );
        const Semaphore semaphore( "nobodys", 3 );
        EXPECT_EQ( semaphore.handle(), handle );
        EXPECT_TRUE( semaphore.isCreated() );
        EXPECT_EQ( values( semaphore ), "3/1" );
    }
    // By a user that was killed.
    setValue( makeSet( "sem_killed", 2 ), Semaphore::useCountIdx, 1 );
    {
        const Semaphore semaphore( "killed", 1 );
        EXPECT_FALSE( semaphore.isCreated() );
        EXPECT_EQ( values( semaphore ), "0/2" );
        setValue( semaphore.handle(), Semaphore::useCountIdx, 0 ); // must not hold the destructor
    }
    const int foreign = makeSet( "sem_foreign", 1 );
    expectFailure( "failed: mySemaphoreHandle >= 0,  Invalid argument", [] { make( "foreign" ); } );
    removeSet( foreign );
    EXPECT_EQ( nbrOfNewSets(), 0 );
}

TEST_F( SemaphoreTest, SetRemovedUnderItsUserTakesOnlyItsOwnFilesAlong )
{
    SemaphorePtr oldPtr = make( "removed" );
    removeSet( oldPtr->handle() );
    SemaphorePtr freshPtr = make( "removed" ); // a new set of the same key file
    EXPECT_TRUE( freshPtr->isCreated() );
    oldPtr.reset();
    EXPECT_TRUE( exists( "sem_removed" ) );
    EXPECT_EQ( values( *freshPtr ), "1/1" );
    NuvTest::writeFile( ipc( "companion" ), "" );
    freshPtr->companionFileName( ipc( "companion" ).c_str() );
    removeSet( freshPtr->handle() );
    freshPtr.reset();
    EXPECT_FALSE( exists( "sem_removed" ) || exists( "companion" ) );

    oldPtr = make( "raced" ); // removed between the next one's creation and opening
    ourBeforeSemget = [&] { removeSet( oldPtr->handle() ); };
    const Semaphore raced( "raced", 4 );
    EXPECT_TRUE( raced.isCreated() );
    EXPECT_EQ( values( raced ), "4/1" );
}

TEST_F( SemaphoreTest, RemovalThatIsRefusedIsTriedOnceMoreWithTheCapability )
{
    NuvTest::CapabilityDeviceDouble device;
    const std::string text = "errSystemError could not remove " + ipc( "sem_refused" ) + " errno ";
    const struct
    {
        int errorNbr;
        Fault::Kind kind;
        bool hasDevice;
        int nbrOfStrikes;
        bool isRemoved;
    } cases[] = {
        { EPERM, Fault::once, true, 1, true },
        { EPERM, Fault::forGood, true, 2, false },
        { EPERM, Fault::forGood, false, 1, false },
        { EINVAL, Fault::forGood, true, 1, false },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( &row - cases );
        const Log::Capture capture;
        device.setOpen( row.hasDevice );
        SemaphorePtr semaphorePtr = make( "refused" );
        const int handle = semaphorePtr->handle();
        ourSemctlFault.arm( 1, row.errorNbr, row.kind );
        semaphorePtr.reset();
        EXPECT_EQ( ourSemctlFault.nbrOfStrikes(), row.nbrOfStrikes );
        ourSemctlFault.disarm();
        EXPECT_EQ( capture.contains( text + std::to_string( row.errorNbr ) ), !row.isRemoved );
        EXPECT_EQ( ::semctl( handle, 0, IPC_RMID ) != 0, row.isRemoved );
        EXPECT_EQ( exists( "sem_refused" ), row.errorNbr == EINVAL ) << "the set may be another's";
    }
}

TEST_F( SemaphoreTest, FailedCallsLeaveNothingBehindAndNothingLocked )
{
    const std::pair< Fault*, int > cases[] = {
        { &ourOpenFault, EACCES },  { &ourSemgetFault, ENOSPC }, { &ourSemgetFault, ENOMEM },
        { &ourSemctlFault, EPERM }, { &ourSemopFault, EFBIG },
    };
    for ( const auto& [faultPtr, errorNbr] : cases ) {
        for ( int n = 1; n == 1 || faultPtr->nbrOfStrikes() != 0; ++n ) {
            SCOPED_TRACE( std::to_string( errorNbr ) + " in call " + std::to_string( n ) );
            SemaphorePtr semaphorePtr;
            faultPtr->arm( n, errorNbr );
            try {
                semaphorePtr = make( "faulty" );
            } catch ( const ResourceException& exception ) {
                EXPECT_NE( std::strstr( exception.what(), std::strerror( errorNbr ) ), nullptr );
            }
            faultPtr->disarm();
            if ( masterValue() == 0 ) // the post itself was made to fail
                setValue( masterHandle(), 0, 1 );
            semaphorePtr.reset();
            EXPECT_EQ( nbrOfNewSets(), 0 );
            EXPECT_FALSE( exists( "sem_faulty" ) );
            EXPECT_EQ( masterValue(), 1 );
            ASSERT_LT( n, 20 );
        }
    }
}

TEST_F( SemaphoreTest, MasterSetIsCompletedWhenItsCreatorWasKilled )
{
    removeSet( masterHandle() );
    const int handle = makeSet( "", 1 );
    MasterSemaphore master;
    EXPECT_EQ( master.handle(), handle );
    EXPECT_EQ( masterValue(), 1 );
    {
        MasterSemaphore::Lock lock;
        lock.lock(); // without a semaphore yet
        EXPECT_FALSE( lock.isHeld() || MasterSemaphore::isHeldByThisThread() );
        master.acquire( &lock );
        EXPECT_TRUE( lock.isHeld() && MasterSemaphore::isHeldByThisThread() );
        const MasterSemaphore other; // what is taken is not half-made
        EXPECT_EQ( masterValue(), 0 );
        lock.unlock();
        EXPECT_EQ( masterValue(), 1 );
        EXPECT_FALSE( MasterSemaphore::isHeldByThisThread() );
        lock.lock();
        EXPECT_EQ( masterValue(), 0 );
    }
    make( "afterwards" ); // whose object of the master semaphore knows the old set
    EXPECT_EQ( masterValue(), 1 );
}

TEST_F( SemaphoreTest, LockPostsOnlyTheMasterSetThatItTook )
{
    MasterSemaphore master;
    MasterSemaphore::Lock lock;
    master.acquire( &lock );
    removeSet( masterHandle() );
    EXPECT_TRUE( master.wait() ) << "a removed set is opened, or made, anew";
    EXPECT_EQ( masterValue(), 0 );
    lock.unlock();
    EXPECT_EQ( masterValue(), 0 );
    EXPECT_TRUE( master.post() );
    EXPECT_EQ( masterValue(), 1 );
}

TEST_F( SemaphoreTest, MissingDirectoryIsAResourceFailure )
{
    const std::string directory = root( "ixoRoot/tmp/ipc" );
    ASSERT_EQ( ::rename( directory.c_str(), ( directory + "2" ).c_str() ), 0 );
    expectFailure( "failed: myHandle >= 0,  No such file", [] { MasterSemaphore(); } );
    expectFailure( "failed: semaphoreFileHandle.isValid(),  No such file", [] { make( "x" ); } );
    ASSERT_EQ( ::rename( ( directory + "2" ).c_str(), directory.c_str() ), 0 );
    EXPECT_EQ( masterValue(), 1 );
}

} // namespace
} // namespace Nuv::Mt
