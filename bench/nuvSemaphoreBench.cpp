#include "nuvSemaphore.h"

#include "nuvBenchProcess.h"

#include <benchmark/benchmark.h>
#include <sys/ipc.h>
#include <sys/sem.h>

namespace {

const NuvBench::Root ourRoot;

void BM_SemaphorePair( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    Nuv::Mt::Semaphore semaphore( "bench", 1 );
    for ( auto _ : state ) {
        semaphore.wait();
        semaphore.post();
    }
}
BENCHMARK( BM_SemaphorePair );

void BM_SemaphorePair_Semop( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    const int handle = ::semget( IPC_PRIVATE, 2, 0600 );
    sembuf post = { 0, +1, 0 };
    sembuf wait = { 0, -1, 0 };
    ::semop( handle, &post, 1 );
    for ( auto _ : state ) {
        ::semop( handle, &wait, 1 );
        ::semop( handle, &post, 1 );
    }
    ::semctl( handle, 0, IPC_RMID );
}
BENCHMARK( BM_SemaphorePair_Semop );

} // namespace
