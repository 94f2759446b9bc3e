#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"

#include "nuvMovedTimers.h"

#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace Nuv::Utils {
namespace {

using NuvTest::waitFor;
using Timers = NuvTest::MovedTimers;

// A timer that counts its actions.
struct Counted
{
    explicit Counted( std::function< void() > body = [] {} )
        : action( std::move( body ) )
    {
    }
    static void call( Timer*, void* countedPtr )
    {
        auto& counted = *static_cast< Counted* >( countedPtr );
        ++counted.count;
        counted.action();
    }

    std::function< void() > action;
    std::atomic< int > count = 0;
    std::unique_ptr< Timer > timerPtr = std::make_unique< Timer >( &call, this );
};

TEST_F( Timers, ExpireOnceOrAgainAndAgain )
{
    Counted once, again, disabled;
    once.timerPtr->expireTime( 3, Timer::oneShot );
    again.timerPtr->expireTime( 2, Timer::periodic );
    disabled.timerPtr->expireTime( 2, Timer::periodic );
    disabled.timerPtr->disableAction(); // until its first expiry, which arms again
    const std::vector< int > expected[] = { { 0, 0, 0 }, { 0, 1, 0 }, { 1, 1, 0 },
                                            { 1, 2, 1 }, { 1, 2, 1 }, { 1, 3, 2 } };
    for ( const auto& counts : expected ) { // the clock wraps meanwhile
        pass( 1000 );
        EXPECT_EQ( std::vector< int >( { once.count, again.count, disabled.count } ), counts );
    }
    EXPECT_TRUE( !once.timerPtr->isArmed() && again.timerPtr->isArmed() );
    again.timerPtr->expireTime( 0, Timer::periodic );
    EXPECT_FALSE( again.timerPtr->isArmed() );
    again.timerPtr->enableAction();
    pass( 10000 );
    EXPECT_EQ( again.count, 3 );
}

TEST_F( Timers, ReachAlmostTheWrapOfTheClock )
{
    Counted counted;
    counted.timerPtr->expireTime( Timer::maxSeconds, Timer::oneShot );
    for ( int day = 0; day < 49; ++day )
        pass( 86400 * 1000 );
    EXPECT_EQ( counted.count, 0 );
    pass( Timer::maxSeconds * 1000 - 49u * 86400 * 1000 );
    EXPECT_EQ( counted.count, 1 );
    EXPECT_THROW( counted.timerPtr->expireTime( Timer::maxSeconds + 1, Timer::oneShot ),
                  LogicException );
}

TEST_F( Timers, CountAnewFromTheEndOfTheActionAndFromEachArming )
{
    Counted slow( [] { advance( 5000 ); } ), other;
    slow.timerPtr->expireTime( 3, Timer::periodic );
    pass( 3000 ); // and 5000 in the action
    EXPECT_EQ( slow.count, 1 );
    for ( const int slowCount : { 1, 2 } ) {
        other.timerPtr->expireTime( 4, Timer::oneShot );
        pass( 2500 );
        EXPECT_EQ( slow.count, slowCount );
    }
    EXPECT_EQ( other.count, 1 ); // late, by the slow action
}

TEST_F( Timers, AnActionMayRearmDisarmDestroyAndThrow )
{
    Log::ConfigManager::singletonPtr();
    const Log::Capture capture;
    Counted rearming( [&] { rearming.timerPtr->expireTime( 2, Timer::oneShot ); } );
    Counted disarming( [&] { disarming.timerPtr->expireTime( 0, Timer::oneShot ); } );
    Counted suicidal( [&] { suicidal.timerPtr.reset(); } );
    Counted murderous( [&] { rearming.timerPtr.reset(), disarming.timerPtr.reset(); } );
    Counted throwing( [] { throw std::runtime_error( "no luck" ); } );
    for ( Counted* const countedPtr : { &rearming, &disarming, &suicidal, &throwing } )
        countedPtr->timerPtr->expireTime( 1, Timer::periodic );
    murderous.timerPtr->expireTime( 4, Timer::periodic );
    pass( 1000 );
    EXPECT_TRUE( rearming.timerPtr->isArmed() && !disarming.timerPtr->isArmed() );
    pass( 2000 );
    pass( 1000 );
    EXPECT_FALSE( suicidal.timerPtr || disarming.timerPtr );
    EXPECT_EQ( std::vector< int >( { rearming.count, disarming.count, suicidal.count,
                                     murderous.count, throwing.count } ),
               std::vector< int >( { 2, 1, 1, 1, 3 } ) );
    EXPECT_TRUE(
        capture.contains( "errSystemError timer action catch(STL runtime error) no luck" ) );
    suicidal.timerPtr = std::make_unique< Timer >( &Counted::call, &suicidal );
    suicidal.timerPtr->doAction();
    EXPECT_EQ( suicidal.timerPtr, nullptr );
}

TEST_F( Timers, DestructionAndDisarmingWaitForTheAction )
{
    for ( const bool isDestroying : { true, false } ) {
        std::atomic< bool > isEntered = false, mayLeave = false, hasLeft = false;
        Counted slow( [&] {
            isEntered = true;
            waitFor( [&] { return mayLeave.load(); } );
            hasLeft = true;
        } );
        slow.timerPtr->expireTime( 1, Timer::periodic );
        advance( 1000 );
        wake();
        ASSERT_TRUE( waitFor( [&] { return isEntered.load(); } ) );
        std::thread helper( [&] {
            std::this_thread::sleep_for( std::chrono::milliseconds( 20 ) ); // a fault's chance
            mayLeave = true;
        } );
        isDestroying ? slow.timerPtr.reset() : slow.timerPtr->expireTime( 0, Timer::oneShot );
        EXPECT_TRUE( hasLeft );
        helper.join();
        pass( 5000 );
        EXPECT_EQ( slow.count, 1 );
    }
}

TEST_F( Timers, AreArmedAndDestroyedFromManyThreadsAtOnce )
{
    Counted counted;
    std::vector< std::thread > threads;
    for ( int i = 0; i < 4; ++i ) {
        threads.emplace_back( [&] {
            for ( unsigned int k = 0; k < 300; ++k ) {
                Timer timer( &Counted::call, &counted );
                timer.expireTime( 1 + k % 3, Timer::periodic );
                timer.doAction();
                timer.expireTime( k % 2, Timer::oneShot ); // 0 disarms
            }
        } );
    }
    for ( int i = 0; i < 20; ++i )
        pass( 1000 );
    for ( std::thread& thread : threads )
        thread.join();
    EXPECT_GE( counted.count, 1200 );
}

// The child's last exit handler but a leak checker's, which knows nothing of the parent's threads.
bool ourIsChild = false;
const int ourIsRegistered = std::atexit( [] {
    if ( ourIsChild )
        ::_exit( ::testing::Test::HasFailure() ? 1 : 0 );
} );

// Both mutexes of an action are taken by a thread that the child does not have.
TEST( TimerProcess, AForkedChildEndsWithoutItsTimers )
{
    static std::atomic< int > ourState = 0;
    static Timer ourTimer( []( Timer*, void* ) {
        if ( ourState.exchange( 1 ) == 0 ) {
            ourState.notify_one();
            ourState.wait( 1 );
        }
    } );
    ourTimer.expireTime( 1000, Timer::periodic );
    std::thread busy( [] { ourTimer.doAction(); } );
    ourState.wait( 0 );
    const auto outcome = NuvTest::runInChild( [] {
        ourIsChild = true;
        EXPECT_FALSE( ourTimer.isArmed() );
        ourTimer.expireTime( 1, Timer::oneShot );
        ourTimer.doAction();
        std::exit( 2 );
    } );
    ourState = 2;
    ourState.notify_one();
    busy.join();
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
}

} // namespace
} // namespace Nuv::Utils
