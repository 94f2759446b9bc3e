#pragma once

#include "nuvTimer.h"

#include "nuvTestCapabilityDevice.h"
#include "nuvTestSupport.h"

#include <atomic>

namespace NuvTest {

/// Tests of timers, on a millisecond clock that moves only when a test moves it.
class MovedTimers : public RootFixture
{
protected:
    MovedTimers()
        : myProbe(
              []( auto*, void* countPtr ) { ++*static_cast< std::atomic< int >* >( countPtr ); },
              &myNbrOfProbes )
    {
    }
    static void advance( std::uint32_t ms )
    {
        // Outlives the timer thread; begins a quarter of a second before the wrap.
        static CapabilityDeviceDouble* const ourDevicePtr = new CapabilityDeviceDouble();
        static std::atomic< std::uint32_t > ourNowMs = 0xFFFFFF00;
        ourDevicePtr->setClockMs( ourNowMs += ms );
    }
    /// Moves the clock, by a second at least, and returns when the timer thread has served what is
    /// due: the probe as well, in the same walk.
    void pass( std::uint32_t ms )
    {
        const int before = myNbrOfProbes;
        myProbe.expireTime( 1, Nuv::Utils::Timer::oneShot );
        advance( ms );
        wake();
        ASSERT_TRUE( waitFor( [&] { return myNbrOfProbes > before; } ) );
        const Nuv::Mt::MutexLock served( Nuv::Utils::TimerTask::actionMutex() );
    }
    /// To be called behind advance(): the thread sees that it is late.
    static void wake()
    {
        // Locked, so as not to wait for what it wakes.
        const Nuv::Mt::MutexLock lock( Nuv::Utils::TimerTask::actionMutex() );
        Nuv::Utils::Timer().expireTime( 1, Nuv::Utils::Timer::oneShot );
    }

private:
    const bool myIsBegun = ( advance( 0 ), true );
    std::atomic< int > myNbrOfProbes = 0;
    Nuv::Utils::Timer myProbe;
};

} // namespace NuvTest
