#include "nuvMutex.h"

#include <benchmark/benchmark.h>
#include <mutex>

namespace {

void BM_MutexPair( benchmark::State& state )
{
    Nuv::Mt::Mutex mutex;
    for ( auto _ : state ) {
        const Nuv::Mt::MutexLock lock( mutex );
        benchmark::ClobberMemory();
    }
}
BENCHMARK( BM_MutexPair );

void BM_MutexPair_StdRecursive( benchmark::State& state )
{
    std::recursive_mutex mutex;
    for ( auto _ : state ) {
        const std::lock_guard< std::recursive_mutex > lock( mutex );
        benchmark::ClobberMemory();
    }
}
BENCHMARK( BM_MutexPair_StdRecursive );

} // namespace
