#include "nuvTime.h"

#include "nuvCapabilityDevice.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace Nuv::Utils {

Time::Time()
{
    timeval now;
    ::gettimeofday( &now, nullptr );
    set( now );
}

void Time::set( const timeval& value )
{
    constexpr std::uint64_t maxNs = std::numeric_limits< std::uint64_t >::max();
    constexpr std::int64_t limit = maxNs / nsPerSec + 1;
    constexpr std::int64_t limitUs = limit * std::int64_t{ usPerSec };
    const std::int64_t us =
        std::clamp< std::int64_t >( value.tv_sec, -limit, limit ) * std::int64_t{ usPerSec } +
        std::clamp< std::int64_t >( value.tv_usec, -limitUs, limitUs );
    if ( us < 0 )
        myNs = 0;
    else
        myNs = us > std::int64_t{ maxNs / nsPerUs } ? maxNs
                                                    : static_cast< std::uint64_t >( us ) * nsPerUs;
}

Time::operator timeval() const
{
    timeval value;
    value.tv_sec = static_cast< decltype( value.tv_sec ) >( myNs / nsPerSec );
    value.tv_usec = static_cast< decltype( value.tv_usec ) >( myNs % nsPerSec / nsPerUs );
    return value;
}

MsTimer::MsTimer()
{
    reset();
}

MsTimer::~MsTimer() = default;

void MsTimer::reset()
{
    myStartMs = myLastMs = clockMs();
}

std::uint32_t MsTimer::elapsedTime()
{
    const std::uint32_t lastMs = myLastMs;
    myLastMs = clockMs();
    return myLastMs - lastMs;
}

void MsTimer::decrementByElapsedTime( std::uint32_t* msPtr )
{
    if ( *msPtr == infinite )
        return;
    const std::uint32_t elapsedMs = elapsedTime();
    *msPtr = *msPtr > elapsedMs ? *msPtr - elapsedMs : 0;
}

std::uint32_t MsTimer::totalTime() const
{
    return clockMs() - myStartMs;
}

std::uint32_t MsTimer::clockMs()
{
    std::uint32_t ms = 0;
    if ( CapabilityDevice::instance().readClockMs( &ms ) )
        return ms;
    timespec now;
    ::clock_gettime( CLOCK_MONOTONIC, &now );
    return static_cast< std::uint32_t >(
        static_cast< std::uint64_t >( now.tv_sec ) * Time::msPerSec +
        static_cast< std::uint64_t >( now.tv_nsec ) / Time::nsPerMs );
}

} // namespace Nuv::Utils
