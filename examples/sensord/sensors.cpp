#include "sensors.h"

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <thread>

namespace Sensor {

namespace {

using namespace Nuv;

/// How far a counter has come; 0 where it was reset.
std::uint64_t increase( std::uint64_t now, std::uint64_t before )
{
    return now >= before ? now - before : 0;
}

std::uint64_t perSecond( std::uint64_t amount, double seconds )
{
    return seconds > 0.0 ? static_cast< std::uint64_t >( static_cast< double >( amount ) / seconds )
                         : 0;
}

std::string hundredths( std::uint32_t value )
{
    const std::string decimals = std::to_string( value % 100 );
    return std::to_string( value / 100 ) + ( decimals.size() < 2 ? ".0" : "." ) + decimals;
}

} // namespace

std::string NetSampler::sample( const std::string& text, double seconds )
{
    unsigned int nbrOfBad = 0;
    const std::vector< Interface > interfaces = parseNetDev( text, &nbrOfBad );
    if ( nbrOfBad > 0 )
        nuvLogTo( source( Log::error ) ) << nbrOfBad << " lines of /proc/net/dev not understood";
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
    for ( const Interface& now : interfaces ) {
        const auto iter = myBefore.find( now.myName );
        if ( iter == myBefore.end() ) {
            if ( seconds > 0.0 )
                nuvLogTo( source( Log::warning ) ) << "new interface " << now.myName;
        } else {
            received += increase( now.myReceivedBytes, iter->second.myReceivedBytes );
            sent += increase( now.mySentBytes, iter->second.mySentBytes );
            compare( now, iter->second );
        }
        myBefore[now.myName] = now;
    }
    std::ostringstream found;
    found << interfaces.size() << " interfaces, in " << perSecond( received, seconds )
          << " B/s, out " << perSecond( sent, seconds ) << " B/s";
    return found.str();
}

void NetSampler::compare( const Interface& now, const Interface& before ) const
{
    const std::uint64_t errors = increase( now.myReceiveErrors, before.myReceiveErrors ) +
                                 increase( now.mySendErrors, before.mySendErrors );
    const std::uint64_t drops = increase( now.myReceiveDrops, before.myReceiveDrops ) +
                                increase( now.mySendDrops, before.mySendDrops );
    if ( errors > 0 || drops > 0 )
        nuvLogTo( source( Log::warning ) )
            << now.myName << ": " << errors << " new errors, " << drops << " new drops";
}

std::string MemSampler::sample( const std::string& text, double )
{
    Memory memory;
    if ( !parseMemInfo( text, &memory ) || memory.myTotal == 0 )
        return {};
    const std::uint64_t percent =
        std::min< std::uint64_t >( 100, memory.myAvailable / ( memory.myTotal / 100 + 1 ) );
    const bool isLow = percent < settings().myLowPercent;
    if ( isLow && !myIsLow )
        nuvLogTo( source( Log::warning ) ) << "memory is low: " << percent << " % available";
    else if ( !isLow && myIsLow )
        nuvLogTo( source( Log::warning ) )
            << "memory is enough again: " << percent << " % available";
    myIsLow = isLow;
    std::ostringstream found;
    found << memory.myAvailable / 1024 << " of " << memory.myTotal / 1024 << " MiB available, swap "
          << memory.mySwapFree / 1024 << " of " << memory.mySwapTotal / 1024 << " MiB free";
    return found.str();
}

std::string LoadSampler::sample( const std::string& text, double )
{
    Load load;
    if ( !parseLoadAvg( text, &load ) )
        return {};
    const std::uint64_t limit = std::uint64_t{ settings().myHighPerCpu } *
                                std::max( 1u, std::thread::hardware_concurrency() );
    const bool isHigh = load.myOneMinute > limit;
    if ( isHigh && !myIsHigh )
        nuvLogTo( source( Log::warning ) ) << "load is high: " << hundredths( load.myOneMinute );
    else if ( !isHigh && myIsHigh )
        nuvLogTo( source( Log::warning ) )
            << "load is normal again: " << hundredths( load.myOneMinute );
    myIsHigh = isHigh;
    std::ostringstream found;
    found << hundredths( load.myOneMinute ) << ' ' << hundredths( load.myFiveMinutes ) << ' '
          << hundredths( load.myFifteenMinutes ) << ", " << load.myNbrRunning << " of "
          << load.myNbrOfThreads << " threads run";
    return found.str();
}

std::string IrqSampler::sample( const std::string& text, double seconds )
{
    unsigned int nbrOfProcessors = 0;
    const std::vector< Interrupt > interrupts = parseInterrupts( text, &nbrOfProcessors );
    if ( interrupts.empty() )
        return {};
    std::uint64_t sum = 0;
    const Interrupt* busiestPtr = &interrupts.front();
    std::uint64_t busiest = 0;
    for ( const Interrupt& interrupt : interrupts ) {
        const auto [iter, isNew] = myBefore.emplace( interrupt.myName, interrupt.myTotal );
        const std::uint64_t rate =
            isNew ? 0 : perSecond( increase( interrupt.myTotal, iter->second ), seconds );
        iter->second = interrupt.myTotal;
        sum += rate;
        if ( rate > settings().myStormPerSecond )
            nuvLogTo( source( Log::warning ) ) << "interrupt " << interrupt.myName << " ("
                                               << interrupt.myDescription << "): " << rate << "/s";
        if ( rate > busiest ) {
            busiest = rate;
            busiestPtr = &interrupt;
        }
    }
    std::ostringstream found;
    found << sum << " interrupts/s on " << nbrOfProcessors << " processors, most of them "
          << busiestPtr->myName << " (" << busiest << "/s)";
    return found.str();
}

} // namespace Sensor
