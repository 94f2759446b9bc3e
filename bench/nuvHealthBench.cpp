#include "nuvBenchProcess.h"
#include "nuvGlobal.h"
#include "nuvGlobalHealthStatusAccessor.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <memory>
#include <sys/mman.h>
#include <vector>

namespace {

using namespace Nuv::HealthAndSecurity;

const NuvBench::Root ourRoot;

constexpr std::size_t recordSize = sizeof( CommonAppStatus ) + sizeof( SensorStatus );
static_assert( recordSize == 69848 );

/// The peer's shared memory.
char* sharedPtr()
{
    static void* const ourPtr =
        ::mmap( nullptr, recordSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
    return static_cast< char* >( ourPtr );
}

void BM_HealthCommit( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    SensorStatusSetter setter;
    for ( auto _ : state ) {
        setter.commitToSharedMemory();
    }
}
BENCHMARK( BM_HealthCommit );

void BM_HealthCommit_Memcpy( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    const std::vector< char > record( recordSize );
    for ( auto _ : state ) {
        std::memcpy( sharedPtr(), record.data(), recordSize );
        benchmark::ClobberMemory();
    }
}
BENCHMARK( BM_HealthCommit_Memcpy );

void BM_HealthRead( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    SensorStatusSetter().commitToSharedMemory();
    CommonAppStatus common;
    const auto sensorPtr = std::make_unique< SensorStatus >();
    auto* const globalPtr = Nuv::Utils::Global::singletonPtr();
    for ( auto _ : state ) {
        if ( !globalPtr->conditionalGetSensorStatus( &common, sensorPtr.get() ) )
            state.SkipWithError( "a torn read without a writer" );
    }
}
BENCHMARK( BM_HealthRead );

void BM_HealthRead_Memcpy( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    std::vector< char > record( recordSize );
    for ( auto _ : state ) {
        std::memcpy( record.data(), sharedPtr(), recordSize );
        benchmark::ClobberMemory();
    }
}
BENCHMARK( BM_HealthRead_Memcpy );

} // namespace
