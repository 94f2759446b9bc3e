// peers: date poco_util
#include "nuvTimeZone.h"
#include "nuvTimer.h"

#include "nuvBenchLog.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#ifdef NUV_PEER_DATE
#include <date/tz.h>
#endif
#ifdef NUV_PEER_POCO_UTIL
#include <Poco/Util/Timer.h>
#include <Poco/Util/TimerTask.h>
#endif

using namespace Nuv::Utils;

namespace {

const NuvBench::LogRoot ourRoot( "" );
constexpr const char* ourZoneName = "Europe/Berlin";
constexpr const char* ourFormat = "%Y-%m-%d %H:%M:%S %Z %z";

// Seconds from 1970 to 2037 in no order, so that no branch is foreseen.
const std::vector< std::int64_t >& times()
{
    static const std::vector< std::int64_t > ourTimes = [] {
        std::mt19937_64 engine( 6 );
        std::vector< std::int64_t > result( 4096 );
        for ( std::int64_t& time : result )
            time = static_cast< std::int64_t >( engine() % 2145916800 );
        return result;
    }();
    return ourTimes;
}

template < class Convert >
void run( benchmark::State& state, Convert convert )
{
    std::size_t i = 0;
    for ( [[maybe_unused]] auto one : state )
        benchmark::DoNotOptimize( convert( times()[i++ % 4096] ) );
}

const TimeZone& zone()
{
    static const TimeZone ourZone( ourZoneName );
    return ourZone;
}

void BM_ToLocal( benchmark::State& state )
{
    std::string abbreviation;
    int isDst = 0;
    run( state, [&]( std::int64_t utc ) { return zone().toLocal( utc, &abbreviation, &isDst ); } );
}
BENCHMARK( BM_ToLocal );

// Only times that come once: the peer throws for others.
std::int64_t unambiguous( std::int64_t time )
{
    return time - time % 86400 + 43200;
}

void BM_ToUtc( benchmark::State& state )
{
    run( state, []( std::int64_t local ) {
        return zone().toUtc( unambiguous( local ), TimeZone::standardTime );
    } );
}
BENCHMARK( BM_ToUtc );

#ifdef NUV_PEER_DATE
const date::time_zone& theirZone()
{
    static const date::time_zone* const ourZonePtr = date::locate_zone( ourZoneName );
    return *ourZonePtr;
}

void BM_ToLocal_Date( benchmark::State& state )
{
    run( state, []( std::int64_t utc ) {
        const date::sys_seconds time{ std::chrono::seconds( utc ) };
        const date::sys_info info = theirZone().get_info( time );
        return ( time + info.offset ).time_since_epoch().count() +
               static_cast< std::int64_t >( info.abbrev.size() );
    } );
}
BENCHMARK( BM_ToLocal_Date );

void BM_ToUtc_Date( benchmark::State& state )
{
    run( state, []( std::int64_t local ) {
        const date::local_seconds time{ std::chrono::seconds( unambiguous( local ) ) };
        return theirZone().to_sys( time ).time_since_epoch().count();
    } );
}
BENCHMARK( BM_ToUtc_Date );
#endif

void BM_DecodeTime( benchmark::State& state )
{
    std::tm fields;
    run( state, [&]( std::int64_t utc ) {
        TimeZone::decodeTime( &fields, utc );
        return fields.tm_yday;
    } );
}
BENCHMARK( BM_DecodeTime );

void BM_DecodeTime_Gmtime( benchmark::State& state )
{
    std::tm fields;
    run( state, [&]( std::int64_t utc ) {
        const std::time_t time = utc;
        return ::gmtime_r( &time, &fields )->tm_yday;
    } );
}
BENCHMARK( BM_DecodeTime_Gmtime );

std::vector< std::tm > allFields()
{
    std::vector< std::tm > result( times().size() );
    for ( std::size_t i = 0; i < result.size(); ++i )
        TimeZone::decodeTime( &result[i], times()[i] );
    return result;
}

template < class Convert >
void runFields( benchmark::State& state, Convert convert )
{
    std::vector< std::tm > fields = allFields();
    std::size_t i = 0;
    for ( [[maybe_unused]] auto one : state )
        benchmark::DoNotOptimize( convert( &fields[i++ % 4096] ) );
}

void BM_TimeCode( benchmark::State& state )
{
    runFields( state, []( std::tm* fieldsPtr ) { return TimeZone::timeCode( *fieldsPtr ); } );
}
BENCHMARK( BM_TimeCode );

void BM_TimeCode_Timegm( benchmark::State& state )
{
    runFields( state, &::timegm );
}
BENCHMARK( BM_TimeCode_Timegm );

void BM_AsString( benchmark::State& state )
{
    run( state, []( std::int64_t utc ) {
        return Time( static_cast< std::uint64_t >( utc ) * Time::nsPerSec ).asString( ourFormat );
    } );
}
BENCHMARK( BM_AsString );

void BM_AsString_Strftime( benchmark::State& state )
{
    char text[64];
    runFields( state, [&]( std::tm* fieldsPtr ) {
        return std::strftime( text, sizeof( text ), "%Y-%m-%d %H:%M:%S %Z %z", fieldsPtr );
    } );
}
BENCHMARK( BM_AsString_Strftime );

// ------------------------------------------------------------------------------------- timers

void doNothing( Timer*, void* ) {}

std::vector< std::unique_ptr< Timer > > armedTimers( std::int64_t count )
{
    std::vector< std::unique_ptr< Timer > > timers;
    for ( std::int64_t i = 0; i < count; ++i ) {
        timers.push_back( std::make_unique< Timer >( &doNothing ) );
        timers.back()->expireTime( 3600, Timer::periodic );
    }
    return timers;
}

void BM_TimerArmDisarm( benchmark::State& state )
{
    const auto others = armedTimers( state.range( 0 ) );
    Timer timer( &doNothing );
    for ( [[maybe_unused]] auto one : state ) {
        timer.expireTime( 3600, Timer::oneShot );
        timer.expireTime( 0, Timer::oneShot );
    }
}
BENCHMARK( BM_TimerArmDisarm )->Arg( 10 )->Arg( 10000 );

#ifdef NUV_PEER_POCO_UTIL
class NothingTask : public Poco::Util::TimerTask
{
public:
    void run() override {}
};

void BM_TimerArmDisarm_Poco( benchmark::State& state )
{
    constexpr long hourMs = 3600 * 1000;
    Poco::Util::Timer timer;
    for ( std::int64_t i = 0; i < state.range( 0 ); ++i )
        timer.schedule( new NothingTask(), hourMs, hourMs );
    for ( [[maybe_unused]] auto one : state ) {
        Poco::Util::TimerTask::Ptr taskPtr = new NothingTask();
        timer.schedule( taskPtr, hourMs, hourMs );
        taskPtr->cancel();
    }
    timer.cancel( false );
}
BENCHMARK( BM_TimerArmDisarm_Poco )->Arg( 10 )->Arg( 10000 )->Iterations( 20000 );
#endif

long nbrOfSwitches()
{
    long total = 0;
    for ( const auto& task : std::filesystem::directory_iterator( "/proc/self/task" ) ) {
        std::ifstream file( task.path() / "status" );
        for ( std::string word; file >> word; ) {
            long count = 0;
            if ( word == "voluntary_ctxt_switches:" && file >> count )
                total += count;
        }
    }
    return total;
}

// The thread that waits here wakes up once itself.
void BM_TimersIdle( benchmark::State& state )
{
    const auto timers = armedTimers( 1000 );
    std::this_thread::sleep_for( std::chrono::milliseconds( 300 ) );
    for ( [[maybe_unused]] auto one : state ) {
        const long before = nbrOfSwitches();
        std::this_thread::sleep_for( std::chrono::seconds( 3 ) );
        state.counters["wakeUpsPerMinute"] =
            static_cast< double >( nbrOfSwitches() - before - 1 ) * 20;
    }
}
BENCHMARK( BM_TimersIdle )->Iterations( 1 );

} // namespace
