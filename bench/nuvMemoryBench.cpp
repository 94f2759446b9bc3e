#include "nuvBenchProcess.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <string>

namespace {

const NuvBench::Root ourRoot; // the programs' too

struct Report
{
    int residentKiB = 0;
    int nbrOfFiles = 0;
    int nbrOfThreads = 0;
};

/// @return what the program of that name says of itself
Report reportOf( const char* namePtr )
{
    Report report;
    const std::string path = std::string( NUV_BENCH_PROGRAMS "/" ) + namePtr;
    std::FILE* const pipePtr = ::popen( path.c_str(), "r" );
    if ( pipePtr == nullptr || std::fscanf( pipePtr, "%d %d %d", &report.residentKiB,
                                            &report.nbrOfFiles, &report.nbrOfThreads ) != 3 )
        report = Report();
    if ( pipePtr != nullptr )
        ::pclose( pipePtr );
    return report;
}

void compare( benchmark::State& state, const char* namePtr )
{
    Report empty;
    Report ours;
    for ( [[maybe_unused]] auto one : state ) {
        empty = reportOf( "memoryEmpty" );
        ours = reportOf( namePtr );
    }
    if ( empty.residentKiB == 0 || ours.residentKiB == 0 )
        state.SkipWithError( "a program did not report" );
    state.counters["residentKiB"] = ours.residentKiB - empty.residentKiB;
    state.counters["filesAndThreads"] =
        ours.nbrOfFiles - empty.nbrOfFiles + ours.nbrOfThreads - empty.nbrOfThreads;
}

void BM_MemoryLinked( benchmark::State& state )
{
    compare( state, "memoryLinked" );
}
BENCHMARK( BM_MemoryLinked )->Iterations( 1 );

void BM_MemoryLogs( benchmark::State& state )
{
    compare( state, "memoryLogs" );
}
BENCHMARK( BM_MemoryLogs )->Iterations( 1 );

} // namespace
