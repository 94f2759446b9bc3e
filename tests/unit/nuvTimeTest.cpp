#include "nuvTime.h"

#include "nuvTestCapabilityDevice.h"

#include <ctime>
#include <gtest/gtest.h>
#include <tuple>

namespace Nuv::Utils {
namespace {

TEST( TimeConversion, KeepsMicrosecondsAndDropsTheRest )
{
    const std::tuple< std::int64_t, int, std::uint64_t > rows[] = {
        { 0, 999999, 999999000 },
        { 0x80000000, 5, 2147483648000005000 } }; // beyond the 32-bit seconds
    for ( const auto& [seconds, microseconds, ns] : rows ) {
        timeval value{};
        value.tv_sec = seconds;
        value.tv_usec = microseconds;
        Time time( 77 );
        time.set( value );
        EXPECT_EQ( time.ns(), ns );
        const timeval back = Time( ns + 999 );
        EXPECT_EQ( back.tv_sec, seconds );
        EXPECT_EQ( back.tv_usec, microseconds );
    }
    Time early( 77 );
    early.set( timeval{ -1, 999999 } );
    EXPECT_EQ( early, Time( 0 ) );
    const std::time_t before = ::time( nullptr );
    EXPECT_TRUE( timeval( Time() ).tv_sec >= before && timeval( Time() ).tv_sec <= before + 60 );
}

class MsTimerOnDevice : public ::testing::Test
{
protected:
    NuvTest::CapabilityDeviceDouble myDevice;
};

TEST_F( MsTimerOnDevice, CountsAcrossTheWrapOfTheClockAndDecrementsToZeroButNotInfinite )
{
    constexpr std::uint32_t infinite = MsTimer::infinite;
    const std::uint32_t rows[][3] = { { 40, 4, 36 }, { 40, 41, 0 }, { infinite, 50, infinite } };
    for ( const auto& [before, elapsedMs, after] : rows ) {
        myDevice.setClockMs( 0xFFFFFFF0 );
        MsTimer timer;
        myDevice.setClockMs( 0xFFFFFFF0 + elapsedMs );
        EXPECT_EQ( timer.totalTime(), elapsedMs );
        std::uint32_t ms = before;
        timer.decrementByElapsedTime( &ms );
        EXPECT_EQ( ms, after );
        // Only a finite time-out takes what has elapsed.
        EXPECT_EQ( timer.elapsedTime(), before == infinite ? elapsedMs : 0 );
        timer.reset();
        EXPECT_EQ( timer.totalTime(), 0u );
    }
}

std::uint32_t monotonicMs()
{
    timespec now;
    ::clock_gettime( CLOCK_MONOTONIC, &now );
    return static_cast< std::uint32_t >( now.tv_sec * std::int64_t{ 1000 } +
                                         now.tv_nsec / 1000000 );
}

TEST_F( MsTimerOnDevice, WithoutAReadingTheMonotonicClockServes )
{
    for ( const bool isOpen : { true, false } ) {
        myDevice.setOpen( isOpen );
        myDevice.setRefusing( isOpen );
        myDevice.setClockMs( monotonicMs() + 1000000 );
        const std::uint32_t before = monotonicMs();
        const std::uint32_t reading = MsTimer::clockMs();
        EXPECT_LE( reading - before, monotonicMs() - before );
    }
}

} // namespace
} // namespace Nuv::Utils
