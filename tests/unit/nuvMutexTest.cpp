#include "nuvMutex.h"

#include "nuvTestInterprocess.h"
#include "nuvTestWrap.h"

#include <csignal>
#include <new>
#include <thread>

namespace {
NuvTest::Fault ourFault;
}

NUV_FAIL_CALLS( ourFault, errno, int, pthread_mutex_init,
                ( pthread_mutex_t * ptr, const pthread_mutexattr_t* attrPtr ), ( ptr, attrPtr ) )

namespace Nuv::Mt {
namespace {

// Storage of a mutex, whose life the tests begin and end.
alignas( Mutex ) unsigned char ourZeroFilled[sizeof( Mutex )];
Mutex& ourMutex = *reinterpret_cast< Mutex* >( ourZeroFilled );

// The exit is for a thread that still waits after that time.
bool isFreeForOthers( Mutex& mutex )
{
    std::atomic< bool > isEntered = false;
    std::thread other( [&] {
        mutex.enter();
        isEntered = true;
        mutex.exit();
    } );
    const bool isFree =
        NuvTest::waitFor( [&] { return isEntered.load(); }, std::chrono::milliseconds( 200 ) );
    if ( !isFree )
        mutex.exit();
    other.join();
    return isFree;
}

TEST( MutexLife, OperationsOutsideItDoNothing )
{
    ourMutex.exit();
    for ( int life = 0; life < 2; ++life ) {
        EXPECT_FALSE( ourMutex.enter() );
        {
            const MutexLock early( ourMutex );
            new ( ourZeroFilled ) Mutex();
            ASSERT_TRUE( ourMutex.enter() );
        }
        EXPECT_FALSE( isFreeForOthers( ourMutex ) ) << "a guard exited that had not entered";
        ourMutex.~Mutex();
    }
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        new ( ourZeroFilled ) Mutex();
        std::thread( [] { ourMutex.enter(); } ).join();
        ourMutex.~Mutex();
    } );
    EXPECT_EQ( outcome.signal(), SIGABRT );
    EXPECT_EQ( outcome.errors, "Mutex was still locked in ~Mutex\n" );
}

TEST( MutexExclusion, HolderEntersAgainAndOthersWaitForItsLastExit )
{
    Mutex mutex;
    {
        MutexLock lock( mutex );
        NuvTest::expectFailure( "failed: myState != stateLocked (", [&] { lock.lock(); } );
        {
            const MutexLock inner( mutex );
        }
        EXPECT_FALSE( isFreeForOthers( mutex ) ); // which exited for us
        mutex.enter();
        lock.unlock();
        EXPECT_TRUE( isFreeForOthers( mutex ) );
        NuvTest::expectFailure( "failed: myState == stateLocked (", [&] { lock.unlock(); } );
        lock.lock();
    }
    EXPECT_TRUE( isFreeForOthers( mutex ) );
    ourFault.arm( 1, EAGAIN );
    NuvTest::expectFailure( "Condition failed: ::pthread_mutex_init( &myMutex, &attr ) == 0,  ",
                            [] { const Mutex failed; } );
    ourFault.disarm();
}

} // namespace
} // namespace Nuv::Mt
