#include "nuvTime.h"

#include "nuvTestCapabilityDevice.h"

#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>

namespace Nuv::Utils {
namespace {

TEST( TimeConversion, KeepsMicrosecondsAndDropsTheRest )
{
    const struct
    {
        std::int64_t seconds;
        int microseconds;
        std::uint64_t ns;
    } rows[] = { { 0, 0, 0 },
                 { 0, 999999, 999999000 },
                 { 1, 1, 1000001000 },
                 { 0x80000000, 5, 2147483648000005000 }, // beyond the 32-bit seconds
                 { 18446744073, 709551, 18446744073709551000u } };
    for ( const auto& row : rows ) {
        SCOPED_TRACE( row.ns );
        timeval value{};
        value.tv_sec = row.seconds;
        value.tv_usec = row.microseconds;
        Time time( 77 );
        time.set( value );
        EXPECT_EQ( time.ns(), row.ns );
        const timeval back =
            Time( row.ns + 999 - row.ns % 1000 - ( row.seconds > 18000000000 ? 500 : 0 ) );
        EXPECT_EQ( back.tv_sec, row.seconds );
        EXPECT_EQ( back.tv_usec, row.microseconds );
    }
    Time early( 77 );
    early.set( timeval{ -1, 999999 } );
    EXPECT_EQ( early, Time( 0 ) );
}

TEST( TimeConversion, DefaultIsTheTimeOfDay )
{
    const std::time_t before = ::time( nullptr );
    const timeval now = Time();
    EXPECT_GE( now.tv_sec, before );
    EXPECT_LE( now.tv_sec, ::time( nullptr ) );
    EXPECT_LT( Time( 1 ), Time( 2 ) );
}

class MsTimerOnDevice : public ::testing::Test
{
protected:
    NuvTest::CapabilityDeviceDouble myDevice;
};

TEST_F( MsTimerOnDevice, CountsAcrossTheWrapOfTheClock )
{
    myDevice.setClockMs( 0xFFFFFFF0 );
    MsTimer timer;
    EXPECT_EQ( timer.totalTime(), 0u );
    myDevice.setClockMs( 0x10 );
    EXPECT_EQ( timer.totalTime(), 0x20u );
    EXPECT_EQ( timer.elapsedTime(), 0x20u );
    myDevice.setClockMs( 0x15 );
    EXPECT_EQ( timer.elapsedTime(), 5u );
    EXPECT_EQ( timer.elapsedTime(), 0u );
    EXPECT_EQ( timer.totalTime(), 0x25u );
    timer.reset();
    EXPECT_EQ( timer.totalTime(), 0u );
    EXPECT_EQ( timer.elapsedTime(), 0u );
}

TEST_F( MsTimerOnDevice, DecrementStopsAtZeroAndLeavesInfiniteAlone )
{
    const struct
    {
        std::uint32_t ms;
        std::uint32_t elapsedMs;
        std::uint32_t leftMs;
    } rows[] = { { 10, 4, 6 },
                 { 10, 10, 0 },
                 { 10, 11, 0 },
                 { 0, 1, 0 },
                 { MsTimer::infinite - 1, 1, MsTimer::infinite - 2 },
                 { MsTimer::infinite, 50, MsTimer::infinite } };
    for ( const auto& row : rows ) {
        SCOPED_TRACE( row.ms );
        myDevice.setClockMs( 1000 );
        MsTimer timer;
        myDevice.setClockMs( 1000 + row.elapsedMs );
        std::uint32_t ms = row.ms;
        timer.decrementByElapsedTime( &ms );
        EXPECT_EQ( ms, row.leftMs );
        // Only a finite time-out takes what has elapsed.
        EXPECT_EQ( timer.elapsedTime(), row.ms == MsTimer::infinite ? row.elapsedMs : 0 );
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
        SCOPED_TRACE( isOpen );
        myDevice.setOpen( isOpen );
        myDevice.setRefusing( isOpen );
        myDevice.setClockMs( monotonicMs() + 1000000 );
        const std::uint32_t before = monotonicMs();
        const std::uint32_t reading = MsTimer::clockMs();
        EXPECT_LE( reading - before, monotonicMs() - before );
    }
}

TEST( CapabilityDeviceAbsent, EveryRequestFailsAndChangesNothing )
{
    CapabilityDevice& device = CapabilityDevice::instance();
    if ( device.isOpen() )
        GTEST_SKIP() << "this machine has the capability device";
    std::uint32_t value = 5;
    for ( const auto& request :
          { +[]( CapabilityDevice&d, std::uint32_t*ptr ) { return d.readCapabilities( ptr ); },
            +[]( CapabilityDevice&d, std::uint32_t*ptr ) { return d.readClockMs( ptr ); },
            +[]( CapabilityDevice&d, std::uint32_t* ) { return d.setCapabilities( 1 ); },
            +[]( CapabilityDevice&d, std::uint32_t* ) { return d.setAffinity( 1 ); } } ) {
        errno = 0;
        EXPECT_FALSE( request( device, &value ) );
        EXPECT_EQ( errno, ENODEV );
        EXPECT_EQ( value, 5u );
    }
}

} // namespace
} // namespace Nuv::Utils
