#include "nuvMutex.h"

#include "nuvTestInterprocess.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <new>
#include <thread>

namespace {
NuvTest::Fault ourInitFault;
}

// NOLINTBEGIN: the linker gives these names
extern "C" int __real_pthread_mutex_init( pthread_mutex_t*, const pthread_mutexattr_t* );
extern "C" int __wrap_pthread_mutex_init( pthread_mutex_t* ptr, const pthread_mutexattr_t* attrPtr )
{
    return ourInitFault.strikes() ? errno : __real_pthread_mutex_init( ptr, attrPtr );
}
// NOLINTEND

namespace Nuv::Mt {
namespace {

// Storage of a mutex, whose life the test begins and ends.
struct Storage
{
    Mutex& mutex() { return *reinterpret_cast< Mutex* >( myBytes ); }
    void construct() { new ( myBytes ) Mutex(); }

    alignas( Mutex ) unsigned char myBytes[sizeof( Mutex )];
};

Storage ourZeroFilled;

bool isFreeForOthers( Mutex& mutex )
{
    // Whoever cannot have it within this time finds it taken; one that is free is had at once.
    std::atomic< bool > isEntered = false;
    std::thread other( [&] {
        mutex.enter();
        isEntered = true;
        mutex.exit();
    } );
    const bool isFree =
        NuvTest::waitFor( [&] { return isEntered.load(); }, std::chrono::milliseconds( 200 ) );
    if ( !isFree )
        mutex.exit(); // so that the other one ends
    other.join();
    return isFree;
}

TEST( MutexLife, OperationsOutsideItDoNothing )
{
    Mutex& mutex = ourZeroFilled.mutex();
    const Storage before = ourZeroFilled;
    EXPECT_FALSE( mutex.enter() );
    mutex.exit();
    {
        MutexLock lock( mutex );
        lock.unlock();
        lock.lock();
    }
    EXPECT_EQ( std::memcmp( &before, &ourZeroFilled, sizeof( before ) ), 0 );

    ourZeroFilled.construct();
    EXPECT_TRUE( mutex.enter() );
    mutex.exit();
    mutex.~Mutex();
    EXPECT_FALSE( mutex.enter() );
    EXPECT_FALSE(
        mutex.enter() ); // would block if the first one had locked: not recursive any more
    mutex.exit();
    EXPECT_FALSE( ourZeroFilled.myBytes[0] ) << "the flag is the first member";
}

TEST( MutexLife, GuardEnteredBeforeConstructionDoesNotExitAfterIt )
{
    static Storage storage;
    {
        const MutexLock early( storage.mutex() );
        storage.construct();
        ASSERT_TRUE( storage.mutex().enter() );
    }
    EXPECT_FALSE( isFreeForOthers( storage.mutex() ) ); // and gives it back
    storage.mutex().~Mutex();
}

TEST( MutexLife, DestructionWhileAnotherThreadHoldsItAborts )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        Storage storage;
        storage.construct();
        std::thread( [&] { storage.mutex().enter(); } ).join();
        storage.mutex().~Mutex();
    } );
    EXPECT_EQ( outcome.signal(), SIGABRT );
    EXPECT_EQ( outcome.errors, "Mutex was still locked in ~Mutex\n" );
}

TEST( MutexLife, FailedInitialisationIsAResourceFailure )
{
    ourInitFault.arm( 1, EAGAIN );
    NuvTest::expectFailure( "nuvCheckResource: Condition failed: "
                            "::pthread_mutex_init( &myMutex, &attr ) == 0,  ",
                            [] { const Mutex mutex; } );
    ourInitFault.disarm();
}

TEST( MutexExclusion, HolderEntersAgainAndOthersWaitForItsLastExit )
{
    Mutex mutex;
    {
        const MutexLock outer( mutex );
        {
            const MutexLock inner( mutex );
        }
        EXPECT_FALSE( isFreeForOthers( mutex ) ); // which exited for us
        mutex.enter();
    }
    EXPECT_TRUE( isFreeForOthers( mutex ) );
}

TEST( MutexExclusion, ThreadsTakeTurns )
{
    constexpr int nbrOfRounds = 20000;
    Mutex mutex;
    long sum = 0;
    const auto add = [&] {
        for ( int i = 0; i < nbrOfRounds; ++i ) {
            const MutexLock lock( mutex );
            const MutexLock again( mutex );
            ++sum;
        }
    };
    std::thread other( add );
    add();
    other.join();
    EXPECT_EQ( sum, 2 * nbrOfRounds );
}

TEST( MutexLockState, MisuseAssertsAndChangesNothing )
{
    Mutex mutex;
    {
        MutexLock lock( mutex );
        NuvTest::expectFailure( "failed: myState != stateLocked (", [&] { lock.lock(); } );
        lock.unlock();
        EXPECT_TRUE( isFreeForOthers( mutex ) );
        NuvTest::expectFailure( "failed: myState == stateLocked (", [&] { lock.unlock(); } );
        lock.lock();
        EXPECT_FALSE( isFreeForOthers( mutex ) );
        mutex.enter();
    }
    EXPECT_TRUE( isFreeForOthers( mutex ) );
}

} // namespace
} // namespace Nuv::Mt
