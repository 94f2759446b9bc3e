// peers: spdlog poco
#include "nuvLog.h"

#include "nuvBenchLog.h"

#include <benchmark/benchmark.h>

#ifdef NUV_PEER_SPDLOG
#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#endif
#ifdef NUV_PEER_POCO
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>
#endif

using namespace Nuv;

namespace {

constexpr std::size_t ourMaxSize = 240 * 1024;

const NuvBench::LogRoot ourRoot( "[zone/off]\nseverity = error\n"
                                 "[zone/null]\ndrain = null\n[drain/null]\ntype = null\n"
                                 "[zone/file]\ndrain = file\n[drain/file]\ntype = file\n" );

int ourNumber = 4711;

void BM_LogDisabled( benchmark::State& state )
{
    static const Log::Source ourSource( Log::warning, "off" );
    for ( [[maybe_unused]] auto one : state ) {
        nuvLogTo( ourSource ) << "link " << ourNumber << " is down";
        benchmark::ClobberMemory();
    }
}
BENCHMARK( BM_LogDisabled );

void write( benchmark::State& state, const Log::Source& source )
{
    for ( [[maybe_unused]] auto one : state )
        nuvLogTo( source ) << "link " << ourNumber << " is down, "
                           << "eth0"
                           << " took over";
}

void BM_LogNull( benchmark::State& state )
{
    static const Log::Source ourSource( Log::warning, "null" );
    write( state, ourSource );
}
BENCHMARK( BM_LogNull )->Threads( 1 )->Threads( 2 )->UseRealTime();

void BM_LogFile( benchmark::State& state )
{
    static const Log::Source ourSource( Log::warning, "file" );
    write( state, ourSource );
}
BENCHMARK( BM_LogFile )->Threads( 1 )->Threads( 2 )->UseRealTime();

#ifdef NUV_PEER_POCO
void BM_LogDisabled_Poco( benchmark::State& state )
{
    static Poco::Logger& ourLogger =
        Poco::Logger::create( "bench", new Poco::NullChannel, Poco::Message::PRIO_ERROR );
    for ( [[maybe_unused]] auto one : state ) {
        if ( ourLogger.warning() ) // as the library's macros test it
            ourLogger.warning( "link " + std::to_string( ourNumber ) + " is down" );
        benchmark::ClobberMemory();
    }
}
BENCHMARK( BM_LogDisabled_Poco );
#endif

#ifdef NUV_PEER_SPDLOG
void write( benchmark::State& state, spdlog::logger& logger )
{
    for ( [[maybe_unused]] auto one : state )
        logger.warn( "link {} is down, {} took over", ourNumber, "eth0" );
}

void BM_LogNull_Spdlog( benchmark::State& state )
{
    static spdlog::logger ourLogger(
        "null", std::make_shared< spdlog::sinks::basic_file_sink_mt >( "/dev/null" ) );
    write( state, ourLogger );
}
BENCHMARK( BM_LogNull_Spdlog )->Threads( 1 )->Threads( 2 )->UseRealTime();

spdlog::logger makeFileLogger()
{
    spdlog::logger logger( "file", std::make_shared< spdlog::sinks::rotating_file_sink_mt >(
                                       ourRoot.path( "spdlog.log" ), ourMaxSize, 1 ) );
    logger.flush_on( spdlog::level::trace );
    return logger;
}

void BM_LogFile_Spdlog( benchmark::State& state )
{
    static spdlog::logger ourLogger = makeFileLogger();
    write( state, ourLogger );
}
BENCHMARK( BM_LogFile_Spdlog )->Threads( 1 )->Threads( 2 )->UseRealTime();
#endif

} // namespace
