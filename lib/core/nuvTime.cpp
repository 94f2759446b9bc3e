#include "nuvTime.h"

#include "nuvCapabilityDevice.h"

#include <ctime>

namespace Nuv::Utils {

Time::Time()
{
    timeval now;
    ::gettimeofday( &now, nullptr );
    set( now );
}

void Time::set( const timeval& value )
{
    const std::int64_t seconds = value.tv_sec;
    const std::int64_t microseconds = value.tv_usec;
    myNs = seconds < 0 ? 0
                       : static_cast< std::uint64_t >( seconds ) * nsPerSec +
                             static_cast< std::uint64_t >( microseconds ) * nsPerUs;
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
