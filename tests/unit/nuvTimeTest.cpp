#include "nuvTime.h"

#include "nuvTestCapabilityDevice.h"

#include <ctime>
#include <gtest/gtest.h>

namespace Nuv::Utils {
namespace {

TEST( TimeConversion, KeepsMicrosecondsAndDropsTheRest )
{
    timeval value{};
    value.tv_sec = 0x80000000; // beyond 32 bits with a sign
    value.tv_usec = 999999;
    Time time( 77 );
    time.set( value );
    EXPECT_EQ( time.ns(), 2147483648999999000u );
    const timeval back = Time( 2147483648999999999 );
    EXPECT_EQ( back.tv_sec, value.tv_sec );
    EXPECT_EQ( back.tv_usec, 999999 );
    const std::pair< timeval, std::uint64_t > ends[] = {
        { { -1, 999999 }, 0 },
        { { 0, -1 }, 0 },
        { { INT64_MIN, 0 }, 0 },
        { { 1, -1 }, 999999000 },
        { { 18446744073, 709551 }, 18446744073709551000u },
        { { 18446744073, 709552 }, UINT64_MAX },
        { { INT64_MAX, 0 }, UINT64_MAX } };
    for ( const auto& [outside, ns] : ends ) {
        time.set( outside );
        EXPECT_EQ( time.ns(), ns );
    }
    const std::time_t before = ::time( nullptr );
    EXPECT_TRUE( timeval( Time() ).tv_sec >= before && timeval( Time() ).tv_sec <= before + 60 );
}

TEST( MsTimerOnDevice, CountsAcrossTheWrapOfTheClockAndDecrementsToZeroButNotInfinite )
{
    NuvTest::CapabilityDeviceDouble device;
    constexpr std::uint32_t infinite = MsTimer::infinite;
    const std::uint32_t rows[][3] = { { 40, 4, 36 }, { 40, 41, 0 }, { infinite, 50, infinite } };
    for ( const auto& [before, elapsedMs, after] : rows ) {
        device.setClockMs( 0xFFFFFFF0 );
        MsTimer timer;
        device.setClockMs( 0xFFFFFFF0 + elapsedMs );
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

TEST( MsTimerOnDevice, WithoutAReadingTheMonotonicClockServes )
{
    NuvTest::CapabilityDeviceDouble device;
    for ( const bool isOpen : { true, false } ) {
        device.setOpen( isOpen );
        device.setRefusing( isOpen );
        device.setClockMs( monotonicMs() + 1000000 );
        const std::uint32_t before = monotonicMs();
        const std::uint32_t reading = MsTimer::clockMs();
        EXPECT_LE( reading - before, monotonicMs() - before );
    }
}

} // namespace
} // namespace Nuv::Utils
