#pragma once

#include "nuv.h"

#include <cstdint>
#include <sys/time.h>

namespace Nuv::Utils {

/// An absolute time: unsigned 64-bit nanoseconds since 1970-01-01 00:00:00 UTC.
///
/// Threads: a value; const operations may run concurrently.
class NUV_API Time
{
public:
    static constexpr std::uint64_t nsPerUs = 1000;
    static constexpr std::uint64_t nsPerMs = 1000000;
    static constexpr std::uint64_t nsPerSec = 1000000000;
    static constexpr std::uint64_t usPerMs = 1000;
    static constexpr std::uint64_t usPerSec = 1000000;
    static constexpr std::uint64_t msPerSec = 1000;

    /// Now, by the time of day (microsecond resolution).
    Time();
    constexpr explicit Time( std::uint64_t nanoseconds )
        : myNs( nanoseconds )
    {
    }

    void set( const timeval& value );
    constexpr void set( std::uint64_t nanoseconds ) { myNs = nanoseconds; }

    constexpr std::uint64_t ns() const { return myNs; }
    operator timeval() const;

    friend constexpr auto operator<=>( const Time&, const Time& ) = default;

private:
    std::uint64_t myNs;
};

/// A millisecond stopwatch for time-outs; 32 bits, wraps after 49.7 days.
///
/// Reads the capability device's clock where the device exists, else a monotonic clock cut to 32
/// bits, so a step of the wall clock neither stretches nor cuts a time-out.
///
/// Threads: one at a time.
class NUV_API MsTimer
{
public:
    /// An unlimited time-out.
    static constexpr std::uint32_t infinite = 0xFFFFFFFF;

    MsTimer();
    virtual ~MsTimer();

    void reset();

    /// @return ms since construction or reset()
    std::uint32_t totalTime() const;
    /// @return ms since the last call, construction or reset()
    std::uint32_t elapsedTime();
    /// Takes elapsedTime() off *msPtr, which stops at 0; `infinite` is left unchanged.
    void decrementByElapsedTime( std::uint32_t* msPtr );

    /// @return the clock's reading in ms
    static std::uint32_t clockMs();

private:
    std::uint32_t myStartMs;
    std::uint32_t myLastMs;
};

} // namespace Nuv::Utils
