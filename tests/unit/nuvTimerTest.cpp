#include "nuvTimer.h"

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"

#include "nuvTestCapabilityDevice.h"
#include "nuvTestInterprocess.h"

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

namespace Nuv::Utils {
namespace {

using NuvTest::waitFor;

// The millisecond clock of all tests: it moves only when a test moves it.
class MovedClock
{
public:
    MovedClock() { advance( 0 ); }
    void advance( std::uint32_t ms ) { myDevice.setClockMs( myNowMs += ms ); }

private:
    std::uint32_t myNowMs = 0xFFFFFF00; // wraps soon
    NuvTest::CapabilityDeviceDouble myDevice;
};

// Outlives the timer thread.
MovedClock& movedClock()
{
    static MovedClock* const ourClockPtr = new MovedClock();
    return *ourClockPtr;
}

class Counter
{
public:
    explicit Counter( std::function< void() > action = nullptr )
        : myAction( std::move( action ) )
    {
    }

    static void call( Timer*, void* counterPtr )
    {
        auto& counter = *static_cast< Counter* >( counterPtr );
        const std::function< void() > action = counter.myAction;
        ++counter.myCount;
        if ( action )
            action();
    }
    int count() const { return myCount; }
    bool reaches( int count ) const
    {
        return waitFor( [=, this] { return myCount >= count; } );
    }

private:
    std::function< void() > myAction;
    std::atomic< int > myCount = 0;
};

class Timers : public NuvTest::RootFixture
{
protected:
    Timers()
        : myClock( movedClock() )
        , myProbe( &Counter::call, &myProbeCounter )
    {
    }
    void TearDown() override { NuvTest::removeInterprocessObjects(); }

    // Moves the clock, by a second at least, and returns when the timer thread has served what is
    // due: the probe as well, in the same walk.
    void pass( std::uint32_t ms )
    {
        const int before = myProbeCounter.count();
        myProbe.expireTime( 1, Timer::oneShot );
        myClock.advance( ms );
        wake();
        for ( int i = 0; !waitFor( [&] { return myProbeCounter.count() > before; },
                                   std::chrono::milliseconds( 100 ) );
              ++i ) {
            ASSERT_LT( i, 100 );
            wake();
        }
        const Mt::MutexLock served( TimerTask::actionMutex() );
    }
    static void wake()
    {
        const Mt::MutexLock lock( TimerTask::actionMutex() ); // not to wait for what it wakes
        Timer( []( Timer*, void* ) {}, nullptr ).expireTime( 1, Timer::oneShot );
    }

    MovedClock& myClock;
    Counter myProbeCounter;
    Timer myProbe;
};

TEST_F( Timers, ExpireOnceOrAgainAndAgain )
{
    Counter once;
    Counter again;
    Timer onceTimer( &Counter::call, &once );
    Timer againTimer( &Counter::call, &again );
    onceTimer.expireTime( 3, Timer::oneShot );
    againTimer.expireTime( 2, Timer::periodic );
    EXPECT_TRUE( onceTimer.isArmed() );
    const int expected[][2] = { { 0, 0 }, { 0, 1 }, { 1, 1 }, { 1, 2 }, { 1, 2 }, { 1, 3 } };
    for ( const auto& [onceCount, againCount] : expected ) { // the clock wraps meanwhile
        pass( 1000 );
        EXPECT_EQ( once.count(), onceCount );
        EXPECT_EQ( again.count(), againCount );
    }
    EXPECT_FALSE( onceTimer.isArmed() );
    EXPECT_TRUE( againTimer.isArmed() );
    againTimer.expireTime( 0, Timer::periodic );
    EXPECT_FALSE( againTimer.isArmed() );
    againTimer.enableAction();
    pass( 10000 );
    EXPECT_EQ( again.count(), 3 );
}

TEST_F( Timers, ReachAlmostTheWrapOfTheClock )
{
    Counter counter;
    Timer timer( &Counter::call, &counter );
    timer.expireTime( Timer::maxSeconds, Timer::oneShot );
    for ( int day = 0; day < 49; ++day )
        pass( 86400 * 1000 );
    EXPECT_EQ( counter.count(), 0 );
    pass( Timer::maxSeconds * 1000 - 49u * 86400 * 1000 );
    EXPECT_EQ( counter.count(), 1 );
    EXPECT_THROW( timer.expireTime( Timer::maxSeconds + 1, Timer::oneShot ), LogicException );
}

TEST_F( Timers, CountAnewFromTheEndOfTheActionAndFromEachArming )
{
    Counter slow( [this] { myClock.advance( 5000 ); } );
    Counter other;
    Timer slowTimer( &Counter::call, &slow );
    Timer otherTimer( &Counter::call, &other );
    slowTimer.expireTime( 3, Timer::periodic );
    pass( 3000 ); // and 5000 in the action
    EXPECT_EQ( slow.count(), 1 );
    otherTimer.expireTime( 4, Timer::oneShot );
    pass( 2500 );
    EXPECT_EQ( slow.count(), 1 );
    otherTimer.expireTime( 4, Timer::oneShot );
    pass( 2500 ); // and 5000 in the slow action, while the other timer expires
    EXPECT_EQ( slow.count(), 2 );
    EXPECT_TRUE( other.reaches( 1 ) );
}

TEST_F( Timers, ADisabledActionIsSkippedUntilTheTimerIsArmedAgain )
{
    Counter counter;
    Timer timer( &Counter::call, &counter );
    timer.expireTime( 1, Timer::periodic );
    timer.disableAction();
    timer.doAction();
    pass( 1500 ); // arms again, which enables
    EXPECT_EQ( counter.count(), 0 );
    pass( 1500 );
    EXPECT_EQ( counter.count(), 1 );
    timer.doAction();
    EXPECT_EQ( counter.count(), 2 );
    Timer none;
    none.doAction();
    none.enableAction();
    NuvTest::expectFailure( "myAlarmActionFunc != NULL", [&] { none.doAction(); } );
    none.setCallBack( &Counter::call, &counter );
    none.doAction();
    EXPECT_EQ( counter.count(), 3 );
}

TEST_F( Timers, AnActionMayRearmDisarmAndDestroyTimers )
{
    std::unique_ptr< Timer > timers[4];
    Counter rearming( [&] { timers[0]->expireTime( 2, Timer::oneShot ); } );
    Counter disarming( [&] { timers[1]->expireTime( 0, Timer::oneShot ); } );
    Counter suicidal( [&] { timers[2].reset(); } );
    Counter murderous( [&] { timers[0].reset(), timers[1].reset(); } );
    Counter* const counters[] = { &rearming, &disarming, &suicidal, &murderous };
    for ( int i = 0; i < 4; ++i ) {
        timers[i] = std::make_unique< Timer >( &Counter::call, counters[i] );
        timers[i]->expireTime( i == 3 ? 4 : 1, Timer::periodic );
    }
    pass( 1000 );
    EXPECT_TRUE( timers[0]->isArmed() );
    EXPECT_FALSE( timers[1]->isArmed() );
    EXPECT_EQ( timers[2], nullptr );
    pass( 2000 );
    pass( 1000 );
    EXPECT_EQ( rearming.count(), 2 );
    EXPECT_EQ( disarming.count(), 1 );
    EXPECT_EQ( suicidal.count(), 1 );
    EXPECT_EQ( murderous.count(), 1 );
    EXPECT_EQ( timers[1], nullptr );
    // The same by a direct call.
    timers[2] = std::make_unique< Timer >( &Counter::call, &suicidal );
    timers[2]->doAction();
    EXPECT_EQ( timers[2], nullptr );
}

TEST_F( Timers, DestructionAndDisarmingWaitForTheAction )
{
    for ( const bool isDestroying : { true, false } ) {
        std::atomic< bool > isEntered = false;
        std::atomic< bool > mayLeave = false;
        std::atomic< bool > hasLeft = false;
        Counter slow( [&] {
            isEntered = true;
            waitFor( [&] { return mayLeave.load(); } );
            hasLeft = true;
        } );
        auto timerPtr = std::make_unique< Timer >( &Counter::call, &slow );
        timerPtr->expireTime( 1, Timer::periodic );
        myClock.advance( 1000 );
        wake();
        ASSERT_TRUE( waitFor( [&] { return isEntered.load(); } ) );
        std::thread helper( [&] {
            std::this_thread::sleep_for(
                std::chrono::milliseconds( 20 ) ); // gives a fault its chance
            mayLeave = true;
        } );
        if ( isDestroying )
            timerPtr.reset();
        else
            timerPtr->expireTime( 0, Timer::oneShot );
        EXPECT_TRUE( hasLeft );
        helper.join();
        pass( 5000 );
        EXPECT_EQ( slow.count(), 1 );
    }
}

TEST_F( Timers, WhatAnActionThrowsIsLoggedAndTheThreadGoesOn )
{
    Log::ConfigManager::singletonPtr();
    const Log::Capture capture;
    Counter throwing( [] { throw std::runtime_error( "no luck" ); } );
    Timer timer( &Counter::call, &throwing );
    timer.expireTime( 1, Timer::periodic );
    pass( 1000 );
    pass( 1000 );
    EXPECT_EQ( throwing.count(), 2 );
    EXPECT_TRUE(
        capture.contains( "errSystemError timer action catch(STL runtime error) no luck" ) );
}

TEST_F( Timers, AreArmedAndDestroyedFromManyThreadsAtOnce )
{
    Counter counter( [] {} );
    std::vector< std::thread > threads;
    for ( int i = 0; i < 4; ++i ) {
        threads.emplace_back( [&, i] {
            for ( int k = 0; k < 300; ++k ) {
                Timer timer( &Counter::call, &counter );
                timer.expireTime( 1 + static_cast< unsigned int >( k % 3 ), Timer::periodic );
                timer.doAction();
                if ( k % 2 == i % 2 )
                    timer.expireTime( 0, Timer::oneShot );
            }
        } );
    }
    for ( int i = 0; i < 20; ++i )
        pass( 1000 );
    for ( std::thread& thread : threads )
        thread.join();
    EXPECT_GE( counter.count(), 1200 );
}

TEST( TimerProcess, EndsWithTimersArmedFromAnActionAndInAForkedChild )
{
    static Timer ourTimer;
    ourTimer.expireTime( 1000, Timer::periodic );
    const auto outcome = NuvTest::runInChild( [] {
        EXPECT_FALSE( ourTimer.isArmed() );
        ourTimer.expireTime( 1, Timer::oneShot );
        std::exit( 0 );
    } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
}

} // namespace
} // namespace Nuv::Utils
