// peers: spdlog
#include "nuvThrottledLog.h"

#include "nuvBenchLog.h"

#include <benchmark/benchmark.h>

#ifdef NUV_PEER_SPDLOG
#include <spdlog/logger.h>
#include <spdlog/sinks/dup_filter_sink.h>
#include <spdlog/sinks/null_sink.h>
#endif

using namespace Nuv;

namespace {

const NuvBench::LogRoot ourRoot( "[zone/null]\ndrain = null\n[drain/null]\ntype = null\n" );

void BM_ThrottledSuppressed( benchmark::State& state )
{
    const Log::SourceSet sources( "null" );
    Log::ThrottledLogEntry entry( sources, "linkDown", 3600 );
    for ( [[maybe_unused]] auto one : state )
        nuvThrottledLogTo( Log::warning, &entry ) << "link " << 4711 << " is down";
}
BENCHMARK( BM_ThrottledSuppressed );

#ifdef NUV_PEER_SPDLOG
void BM_ThrottledSuppressed_Spdlog( benchmark::State& state )
{
    const auto filterPtr =
        std::make_shared< spdlog::sinks::dup_filter_sink_mt >( std::chrono::hours( 1 ) );
    filterPtr->add_sink( std::make_shared< spdlog::sinks::null_sink_mt >() );
    spdlog::logger logger( "filtered", filterPtr );
    for ( [[maybe_unused]] auto one : state )
        logger.warn( "link {} is down", 4711 );
}
BENCHMARK( BM_ThrottledSuppressed_Spdlog );
#endif

} // namespace
