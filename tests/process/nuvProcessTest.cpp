#include "nuvProcess.h"
#include "nuvTestCapabilityDevice.h"
#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <istream>
#include <iterator>
#include <ostream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
NuvTest::Fault ourPipeFault, ourCloneFault;
}

NUV_FAIL_CALLS( ourPipeFault, -1, int, pipe2, ( int* fdsPtr, int flags ), ( fdsPtr, flags ) )
NUV_FAIL_CALLS( ourCloneFault, -1, int, clone,
                ( int ( *functionPtr )( void* ), void* stackPtr, int flags, void* ptr ),
                ( functionPtr, stackPtr, flags, ptr ) )
#if defined( __SANITIZE_THREAD__ ) // as the library calls it there
NUV_FAIL_CALLS( ourCloneFault, -1, int, __clone,
                ( int ( *functionPtr )( void* ), void* stackPtr, int flags, void* ptr ),
                ( functionPtr, stackPtr, flags, ptr ) )
#endif

namespace Nuv::Mt {
namespace {

using ChildProcesses = NuvTest::RootFixture;

auto nbrOfFds()
{
    return std::distance( std::filesystem::directory_iterator( "/proc/self/fd" ), {} );
}

std::string readAll( std::streambuf* bufPtr )
{
    return std::string( std::istreambuf_iterator< char >( bufPtr ), {} );
}

Process programOf( const char* pathPtr, const std::vector< const char* >& arguments )
{
    Process process( pathPtr );
    for ( const char* const argumentPtr : arguments ) {
        process.addArg( argumentPtr );
    }
    return process;
}

// The program's standard output and its exit value.
std::string outputOf( Process&& process )
{
    std::streambuf* outPtr = nullptr;
    process.spawn( nullptr, &outPtr, nullptr );
    const std::string output = readAll( outPtr );
    EXPECT_TRUE( process.waitForExit( 60000 ) );
    return output + "=" + std::to_string( process.exitValue() );
}

std::string spawnText( Process& process )
{
    std::streambuf* bufs[3] = {};
    try {
        process.spawn( &bufs[0], &bufs[1], &bufs[2] );
        return "spawned";
    } catch ( const Process::Exception& exception ) {
        return exception.what();
    } catch ( const ResourceException& exception ) {
        return exception.what();
    }
}

TEST_F( ChildProcesses, ThreePipesCarryMoreThanTheyHold )
{
    Process process =
        programOf( "/bin/sh", { "-c", "cat; echo end >&2; head -c 300000 /dev/zero >&2; exit 7" } );
    std::streambuf *inPtr = nullptr, *outPtr = nullptr, *errPtr = nullptr;
    process.spawn( &inPtr, &outPtr, &errPtr );
    EXPECT_FALSE( process.waitForExit( 0 ) );
    EXPECT_THROW( process.spawn( nullptr, nullptr, nullptr ), LogicException );
    std::string sent( 1 << 20, 'x' );
    sent[12345] = '\0';
    std::string errors;
    std::thread writer( [&] {
        std::ostream( inPtr ).write( sent.data(), static_cast< std::streamsize >( sent.size() ) );
        process.closeChildsStdin();
    } );
    std::thread errorReader( [&] { errors = readAll( errPtr ); } );
    EXPECT_EQ( sent, readAll( outPtr ) );
    writer.join();
    errorReader.join();
    EXPECT_EQ( "end\n" + std::string( 300000, '\0' ), errors );
    EXPECT_TRUE( process.waitForExit( Process::infinite ) );
    EXPECT_TRUE( process.waitForExit( 0 ) );
    EXPECT_EQ( 7, process.exitValue() );
    EXPECT_FALSE( process.isTerminatedBySignal() );
}

TEST_F( ChildProcesses, ExitsAreToldApart )
{
    const std::string script = root( "script" );
    NuvTest::writeFile( script, "#!/no/such/interpreter\n" );
    std::filesystem::permissions( script, std::filesystem::perms( 0755 ) );
    EXPECT_EQ( "Exec failed with 2, No such file or directory\n=127",
               outputOf( Process( script.c_str() ) ) );
    EXPECT_EQ( ".two words.=0",
               outputOf( programOf( "/bin/sh",
                                    { "-c", "printf '%s.' \"$0\" \"$@\"", "", "two words" } ) ) );

    Process killed( "/bin/cat" );
    std::streambuf* inPtr = nullptr;
    for ( int i = 0; i < 2; ++i ) { // the second start after the first exit is collected
        killed.spawn( &inPtr, nullptr, nullptr );
        ASSERT_EQ( 0, ::kill( killed.pid(), SIGTERM ) );
        EXPECT_TRUE( killed.waitForExit( 60000 ) );
        EXPECT_TRUE( killed.isTerminatedBySignal() );
        EXPECT_EQ( SIGTERM, killed.exitValue() );
    }
    // Nobody reads any more: the write fails, and this process lives on.
    std::ostream stream( inPtr );
    stream << std::string( 100000, 'x' ) << std::flush;
    EXPECT_FALSE( stream.good() );
}

TEST_F( ChildProcesses, WhatIsNoProgramIsRefusedAndNothingStaysOpen )
{
    NuvTest::writeFile( root( "plain" ), "#!/bin/sh\n" );
    const auto before = nbrOfFds();
    for ( const std::string& path :
          { root(), root( "plain" ), root( "missing" ), std::string() } ) {
        SCOPED_TRACE( path );
        Process process( path.c_str() );
        EXPECT_EQ( "spawn(): invalid pathname", spawnText( process ) );
        EXPECT_FALSE( process.isRunning() );
        EXPECT_THROW( process.waitForExit( 0 ), LogicException );
    }
    Process process( "/bin/../bin/true" );
    EXPECT_TRUE( process == Process( "/bin/true" ) );
    EXPECT_FALSE( process == programOf( "/bin/true", { "x" } ) );
    EXPECT_THROW( process.restartOnExit(), LogicException );
    EXPECT_THROW( process.addArg( nullptr ), LogicException );
    int nbrOfFailure = 0;
    for ( const char* streamPtr : { "stdin", "stdout", "stderr" } ) {
        ourPipeFault.arm( ++nbrOfFailure, EMFILE );
        EXPECT_EQ( std::string( "spawn(): could not redirect " ) + streamPtr +
                       ": Too many open files",
                   spawnText( process ) );
        EXPECT_EQ( before, nbrOfFds() );
    }
    ourPipeFault.disarm();
    ourCloneFault.arm( 1, EAGAIN );
    EXPECT_NE( std::string::npos, spawnText( process ).find( "pid > 0" ) );
    ourCloneFault.disarm();
    EXPECT_EQ( before, nbrOfFds() );
    EXPECT_EQ( "spawned", spawnText( process ) );
    EXPECT_TRUE( process.waitForExit( 60000 ) );
}

TEST_F( ChildProcesses, ChildHasNeitherForeignDescriptorsNorSignalSettings )
{
    rlimit limit;
    ASSERT_EQ( 0, ::getrlimit( RLIMIT_NOFILE, &limit ) );
    limit.rlim_cur = std::min< rlim_t >( 10100, limit.rlim_max );
    ASSERT_EQ( 0, ::setrlimit( RLIMIT_NOFILE, &limit ) );
    std::vector< int > fds;
    while ( fds.size() < 10000 && fds.size() + 50 < limit.rlim_cur ) {
        fds.push_back( ::dup( STDIN_FILENO ) );
    }
    // 3 is the listed directory itself.
    EXPECT_EQ( "0\n1\n2\n3\n=0", outputOf( programOf( "/bin/ls", { "/proc/self/fd" } ) ) );
    for ( const int fd : fds ) {
        ::close( fd );
    }
    ::signal( SIGPIPE, SIG_IGN );
    EXPECT_EQ(
        "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n=0",
        outputOf( programOf( "/bin/grep", { "-E", "^Sig(Blk|Ign)", "/proc/self/status" } ) ) );
    ::signal( SIGPIPE, SIG_DFL );
}

TEST_F( ChildProcesses, ChildRunsUnderTheIdentitiesAskedFor )
{
    if ( ::geteuid() != 0 )
        GTEST_SKIP() << "needs the superuser";
    NuvTest::CapabilityDeviceDouble device;
    const std::tuple< uid_t, uid_t, std::string > cases[] = {
        { Process::keepIdentity, Process::keepIdentity, "0 0" },
        { 65534, 65534, "65534 65534" },
        { Process::keepIdentity, 65534, "0 65534" },
        { 0, 0, "0 0" },
    };
    for ( const auto& [userId, effectiveUserId, expected] : cases ) {
        Process process = programOf( "/bin/sh", { "-pc", "echo $(id -ru) $(id -u)" } );
        process.userId( userId );
        process.effectiveUserId( effectiveUserId );
        EXPECT_EQ( expected + "\n=0", outputOf( std::move( process ) ) );
    }
#if !defined( __i386__ ) // an emulator does not share the parent's memory
    EXPECT_EQ( 2, device.nbrOfIdentityChanges );
    EXPECT_EQ( 1, device.nbrOfChangesToSuperuser );
#endif
    EXPECT_EQ( 0u, ::getuid() + ::geteuid() );
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        ASSERT_EQ( 0, ::setuid( 65534 ) );
        Process process( "/bin/true" );
        process.effectiveUserId( 0 );
        process.spawn( nullptr, nullptr, nullptr );
        EXPECT_TRUE( process.waitForExit( 60000 ) );
        EXPECT_EQ( 126, process.exitValue() );
    } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.errors;
    EXPECT_EQ( "errSystemError Process::spawn(): setreuid( 4294967295, 0 ) failed, err = "
               "Operation not permitted.\n",
               outcome.output );
}

TEST_F( ChildProcesses, ChildThatIsLeftRunningIsCollectedLater )
{
    const auto before = nbrOfFds();
    {
        Process left( "/bin/cat" );
        std::streambuf* inPtr = nullptr;
        left.spawn( &inPtr, nullptr, nullptr ); // ends with its input, after its object
    }
    EXPECT_TRUE( NuvTest::waitFor( [] {
        const Process any( "/bin/true" ); // its end collects what was left
        return ::waitpid( -1, nullptr, WNOHANG ) == -1 && errno == ECHILD;
    } ) );
    EXPECT_EQ( before, nbrOfFds() );
}

} // namespace
} // namespace Nuv::Mt
