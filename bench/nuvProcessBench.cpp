#include "nuvProcess.h"

#include "nuvBenchProcess.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <vector>

namespace {

const NuvBench::Root ourRoot;

/// What the parent has in memory, in use.
const std::vector< char > ourBallast( 200 << 20, 'x' );

constexpr char program[] = "/bin/true";

void BM_ProcessSpawn( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    for ( auto _ : state ) {
        Nuv::Mt::Process process( program );
        std::streambuf* streams[3];
        process.spawn( &streams[0], &streams[1], &streams[2] );
        if ( !process.waitForExit( Nuv::Mt::Process::infinite ) || process.exitValue() != 0 )
            state.SkipWithError( "the program failed" );
    }
}
BENCHMARK( BM_ProcessSpawn )->UseRealTime()->Unit( benchmark::kMicrosecond );

// The child's end of each pipe in place of its stream; the others are closed on execution.
void BM_ProcessSpawn_PosixSpawn( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    char* const arguments[] = { const_cast< char* >( program ), nullptr };
    for ( auto _ : state ) {
        int pipes[3][2];
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init( &actions );
        for ( int fd = 0; fd < 3; ++fd ) {
            if ( ::pipe2( pipes[fd], O_CLOEXEC ) != 0 )
                std::abort();
            ::posix_spawn_file_actions_adddup2( &actions, pipes[fd][fd == 0 ? 0 : 1], fd );
        }
        pid_t pid = -1;
        int status = -1;
        if ( ::posix_spawn( &pid, program, &actions, nullptr, arguments, environ ) != 0 ||
             ::waitpid( pid, &status, 0 ) != pid || status != 0 )
            state.SkipWithError( "the program failed" );
        ::posix_spawn_file_actions_destroy( &actions );
        for ( const auto& ends : pipes ) {
            ::close( ends[0] );
            ::close( ends[1] );
        }
    }
}
BENCHMARK( BM_ProcessSpawn_PosixSpawn )->UseRealTime()->Unit( benchmark::kMicrosecond );

} // namespace
