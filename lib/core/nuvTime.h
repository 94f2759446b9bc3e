#pragma once

#include "nuv.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <sys/time.h>

namespace Nuv::Utils {

class TimeZone;

/// An absolute time: unsigned 64-bit nanoseconds since 1970-01-01 00:00:00 UTC, until the year
/// 2554.
///
/// Broken-down times outside 1970 to 2554 become the nearest end of that range. A format is that of
/// strftime() in the process's locale. "%Z" and "%z" give the zone's abbreviation and offset
/// ("+0100", "-0530"); "%s" is the C library's and knows nothing of the zone.
///
/// Threads: a value; const operations may run concurrently.
/// Errors:  a text of more than 1 MiB comes out empty.
/// Bytes:   8, the count alone.
/// Example: Time().asString( "%Y-%m-%d %H:%M:%S %Z", TimeZone() )
class NUV_API Time
{
public:
    static constexpr std::uint64_t nsPerUs = 1000;
    static constexpr std::uint64_t nsPerMs = 1000000;
    static constexpr std::uint64_t nsPerSec = 1000000000;
    static constexpr std::uint64_t usPerMs = 1000;
    static constexpr std::uint64_t usPerSec = 1000000;
    static constexpr std::uint64_t msPerSec = 1000;

    /// Now, by the time of day (gettimeofday: microsecond resolution).
    Time();
    constexpr explicit Time( std::uint64_t nanoseconds )
        : myNs( nanoseconds )
    {
    }

    // Link seam: the conversions by calendar are defined in nuvTimeZone.cpp, whose unit owns the
    // arithmetic of the calendar and of the zones.

    /// The fields, read as UTC; they need not be normal (see TimeZone::timeCode()).
    explicit Time( const std::tm& fields );
    /// The fields, read as local time of the zone; a time that comes twice is the one in standard
    /// time, and so is one that is skipped ( 02:30 before a gap of an hour is 03:30 behind it ).
    /// @throws TimeZone::Exception if the zone has no standard time at that moment
    Time( const std::tm& fields, const TimeZone& zone );

    /// A time before 1970 or behind 2554 becomes the nearest end of the range.
    void set( const timeval& value );
    constexpr void set( std::uint64_t nanoseconds ) { myNs = nanoseconds; }

    constexpr std::uint64_t ns() const { return myNs; }
    /// Whole microseconds; the rest below one is dropped.
    operator timeval() const;

    /// Whole seconds since 1970.
    constexpr std::uint64_t seconds() const { return myNs / nsPerSec; }
    /// @return the text in UTC
    std::string asString( std::string_view format ) const;
    /// @return the text in the zone's local time
    std::string asString( std::string_view format, const TimeZone& zone ) const;

    friend constexpr auto operator<=>( const Time&, const Time& ) = default;

private:
    std::uint64_t myNs;
};

/// A millisecond stopwatch for time-outs; 32 bits, so it tells spans of up to 49.7 days.
///
/// Reads the capability device's clock where the device has one, else a monotonic clock cut to 32
/// bits, so a step of the wall clock neither stretches nor cuts a time-out.
///
/// Threads: one at a time; const operations may run concurrently.
/// Errors:  none; a reading that the open device refuses is taken from the monotonic clock.
/// Cost:    a clock reading for each operation; one request where the device is open.
/// Example: MsTimer timer; while ( !done() && timer.totalTime() < timeoutMs ) work();
class NUV_API MsTimer
{
public:
    /// An unlimited time-out.
    static constexpr std::uint32_t infinite = 0xFFFFFFFF;

    MsTimer();
    virtual ~MsTimer();

    void reset();

    /// @return ms since the last call, construction or reset(), modulo 2^32
    std::uint32_t elapsedTime();
    /// Takes elapsedTime() off *msPtr, which stops at 0; `infinite` is left as it is (and the
    /// elapsed time goes on counting).
    void decrementByElapsedTime( std::uint32_t* msPtr );

    /// @return ms since construction or reset(), modulo 2^32
    std::uint32_t totalTime() const;

    /// @return the clock's reading in ms; only differences, modulo 2^32, mean anything
    static std::uint32_t clockMs();

private:
    std::uint32_t myStartMs;
    std::uint32_t myLastMs;
};

} // namespace Nuv::Utils
