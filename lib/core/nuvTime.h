#pragma once

#include "nuv.h"

#include <cstdint>
#include <sys/time.h>

namespace Nuv::Utils {

/// An absolute time: unsigned 64-bit nanoseconds since 1970-01-01 00:00:00 UTC, until the year
/// 2554.
///
/// Threads: a value; const operations may run concurrently.
/// Bytes:   8, the count alone.
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

    /// A time before 1970 becomes the zero time.
    void set( const timeval& value );
    constexpr void set( std::uint64_t nanoseconds ) { myNs = nanoseconds; }

    constexpr std::uint64_t ns() const { return myNs; }
    /// Whole microseconds; the rest below one is dropped.
    operator timeval() const;

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
