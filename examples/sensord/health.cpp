#include "health.h"

#include "sampler.h"

#include <nuvTime.h>

#include <algorithm>
#include <limits>

namespace Sensor {

namespace {

using namespace Nuv::HealthAndSecurity;

constexpr std::uint64_t bucketSeconds[] = { History::minute, 60 * History::minute, History::day };

/// As a record's word holds it.
unsigned int word( std::uint64_t value )
{
    return static_cast< unsigned int >(
        std::min< std::uint64_t >( value, std::numeric_limits< unsigned int >::max() ) );
}

History::Counters countersOf( const Interface& interface )
{
    return { interface.myReceivedPackets,
             interface.myReceivedBytes / 1024,
             interface.myReceiveErrors,
             interface.myReceiveDrops,
             interface.mySentPackets,
             interface.mySentBytes / 1024,
             interface.mySendErrors + interface.mySendDrops };
}

} // namespace

void Health::setInterface( const Interface& interface, std::uint64_t seconds )
{
    if ( mySensors.count( interface.myName ) == 0 && mySensors.size() >= maxNbrOfVirtualsSensors )
        return;
    const auto [iter, isNew] = mySensors.try_emplace( interface.myName );
    VirtualSensor& sensor = iter->second;
    if ( isNew )
        sensor.myNumber = static_cast< unsigned int >( mySensors.size() - 1 );
    sensor.myHistory.add( seconds, countersOf( interface ) );
    VirtualSensorStatusSetter& setter = mySetter.virtualSensorSetter( sensor.myNumber );
    setter.name( interface.myName.c_str() );
    for ( const BucketName bucket : { lastMinute, lastHour, lastDay } ) {
        const History::Counters n = sensor.myHistory.increase( bucketSeconds[bucket] );
        setter.setBucketStatus( bucket, word( n[0] ), word( n[1] ), word( n[2] ), word( n[3] ),
                                word( n[4] ), word( n[5] ), word( n[6] ) );
    }
    const History::Counters n = sensor.myHistory.increase( History::minute );
    myNbrReceived += n[0];
    myNbrDropped += n[3];
    myFound += interface.myName + ".received " + std::to_string( interface.myReceivedPackets ) +
               "\n" + interface.myName + ".sent " + std::to_string( interface.mySentPackets ) +
               "\n";
}

void Health::lookAtInterfaces( std::uint64_t seconds )
{
    std::string text;
    unsigned int nbrOfBad = 0;
    readFile( "/proc/net/dev", &text );
    for ( const auto& [name, sensor] : mySensors )
        mySetter.virtualSensorSetter( sensor.myNumber ).name( "" ); // unless it is still there
    myNbrReceived = 0;
    myNbrDropped = 0;
    for ( const Interface& interface : parseNetDev( text, &nbrOfBad ) )
        setInterface( interface, seconds );
    mySetter.setMissedPacketPct(
        word( 100 * myNbrDropped / std::max< std::uint64_t >( myNbrReceived + myNbrDropped, 1 ) ) );
}

void Health::look()
{
    std::string text;
    Load load;
    Memory memory;
    myFound.clear();
    if ( readFile( "/proc/loadavg", &text ) && parseLoadAvg( text, &load ) )
        mySetter.setSensorLoadValue( load.myOneMinute );
    if ( readFile( "/proc/meminfo", &text ) && parseMemInfo( text, &memory ) &&
         memory.myTotal > 0 ) {
        const std::uint64_t used = memory.myTotal - std::min( memory.myAvailable, memory.myTotal );
        mySetter.setMemoryUsedPct( word( 100 * used / memory.myTotal ) );
    }
    myFound += "load " + std::to_string( mySetter.sensorStatus().sensorLoadValue ) +
               "\nmemory-used-percent " + std::to_string( mySetter.sensorStatus().memoryUsedPct ) +
               "\n";
    lookAtInterfaces( Nuv::Utils::Time().ns() / Nuv::Utils::Time::nsPerSec );
}

void Health::commit( ExtendedExecutionStates state, const Activity& activity, const char* textPtr )
{
    look();
    mySetter.setFeedshareNumOfFailures( activity.myNbrOfRestarts );
    mySetter.setExtendedExecutionStatus(
        state, activity.myIntervalMs, activity.myNbrOfMessages, word( mySensors.size() ),
        static_cast< unsigned int >( activity.myHelperPid ), textPtr );
    mySetter.commitToSharedMemory();
    const Nuv::Mt::MutexLock lock( myMutex );
    myCounters = myFound;
}

std::string Health::counters() const
{
    const Nuv::Mt::MutexLock lock( myMutex );
    return myCounters;
}

} // namespace Sensor
