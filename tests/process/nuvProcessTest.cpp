#include "nuvProcess.h"
#include "nuvTestCapabilityDevice.h"
#include "nuvTestSupport.h"

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <filesystem>
#include <istream>
#include <iterator>
#include <ostream>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Nuv::Mt {
namespace {

NuvTest::Fault ourPipeFault;
NuvTest::Fault ourCloneFault;

} // namespace

extern "C" {
int __real_pipe2( int*, int );
int __wrap_pipe2( int* fdsPtr, int flags )
{
    return ourPipeFault.strikes() ? -1 : __real_pipe2( fdsPtr, flags );
}
int __real_clone( int ( * )( void* ), void*, int, void*, ... );
int __wrap_clone( int ( *functionPtr )( void* ), void* stackPtr, int flags, void* argumentPtr, ... )
{
    return ourCloneFault.strikes() ? -1 : __real_clone( functionPtr, stackPtr, flags, argumentPtr );
}
}

namespace {

using ChildProcesses = NuvTest::RootFixture;

std::size_t nbrOfFds()
{
    return static_cast< std::size_t >(
        std::distance( std::filesystem::directory_iterator( "/proc/self/fd" ),
                       std::filesystem::directory_iterator() ) );
}

bool hasNoChild()
{
    return ::waitpid( -1, nullptr, WNOHANG ) == -1 && errno == ECHILD;
}

std::string readAll( std::streambuf* bufPtr )
{
    return std::string( std::istreambuf_iterator< char >( bufPtr ),
                        std::istreambuf_iterator< char >() );
}

Process shell( const char* commandPtr )
{
    Process process( "/bin/sh" );
    process.addArg( "-c" );
    process.addArg( commandPtr );
    return process;
}

// The program's standard output and its exit value.
std::string outputOf( Process& process )
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
    } catch ( const Process::Exception& exception ) {
        return exception.what();
    } catch ( const ResourceException& exception ) {
        return exception.what();
    }
    return "spawned";
}

TEST_F( ChildProcesses, ThreePipesCarryMoreThanTheyHold )
{
    Process process = shell( "cat; echo end of input >&2; head -c 300000 /dev/zero >&2; exit 7" );
    std::streambuf* inPtr = nullptr;
    std::streambuf* outPtr = nullptr;
    std::streambuf* errPtr = nullptr;
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
    EXPECT_EQ( "end of input\n" + std::string( 300000, '\0' ), errors );
    EXPECT_TRUE( process.waitForExit( Process::infinite ) );
    EXPECT_TRUE( process.waitForExit( 0 ) );
    EXPECT_EQ( 7, process.exitValue() );
    EXPECT_FALSE( process.isTerminatedBySignal() );
    EXPECT_TRUE( hasNoChild() );
}

TEST_F( ChildProcesses, ExitsAreToldApart )
{
    const NuvTest::TemporaryFolder folder;
    const std::string script = folder.path( "script" );
    NuvTest::writeFile( script, "#!/no/such/interpreter\n" );
    ASSERT_EQ( 0, ::chmod( script.c_str(), 0755 ) );
    Process noInterpreter( script.c_str() );
    EXPECT_EQ( "Exec failed with 2, No such file or directory\n=127", outputOf( noInterpreter ) );
    Process good = shell( "printf '%s.' \"$0\" \"$@\"" );
    good.addArg( "" );
    good.addArg( "two words" );
    EXPECT_EQ( ".two words.=0", outputOf( good ) );
    EXPECT_EQ( ".two words.=0", outputOf( good ) ); // a second start after the exit is collected

    Process killed( "/bin/cat" );
    std::streambuf* inPtr = nullptr;
    killed.spawn( &inPtr, nullptr, nullptr );
    ASSERT_EQ( 0, ::kill( killed.pid(), SIGKILL ) );
    EXPECT_TRUE( killed.waitForExit( 60000 ) );
    EXPECT_TRUE( killed.isTerminatedBySignal() );
    EXPECT_EQ( SIGKILL, killed.exitValue() );
    // Nobody reads any more: the write fails, and this process lives on.
    std::ostream stream( inPtr );
    stream << std::string( 100000, 'x' ) << std::flush;
    EXPECT_FALSE( stream.good() );
}

TEST_F( ChildProcesses, WhatIsNoProgramIsRefusedAndNothingStaysOpen )
{
    const NuvTest::TemporaryFolder folder;
    NuvTest::writeFile( folder.path( "plain" ), "#!/bin/sh\n" );
    ASSERT_EQ( 0, ::chmod( folder.path( "plain" ).c_str(), 0644 ) );
    const std::size_t before = nbrOfFds();
    for ( const std::string& path :
          { folder.path(), folder.path( "plain" ), folder.path( "missing" ), std::string() } ) {
        SCOPED_TRACE( path );
        Process process( path.c_str() );
        EXPECT_EQ( "spawn(): invalid pathname", spawnText( process ) );
        EXPECT_FALSE( process.isRunning() );
        EXPECT_THROW( process.waitForExit( 0 ), LogicException );
    }
    Process process( "/bin/true" );
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

TEST_F( ChildProcesses, ChildHasNoForeignDescriptorsAndCanBeEndedBySignals )
{
    rlimit limit;
    ASSERT_EQ( 0, ::getrlimit( RLIMIT_NOFILE, &limit ) );
    rlim_t wanted = 10100;
    if ( limit.rlim_cur < wanted ) {
        limit.rlim_cur = std::min( wanted, limit.rlim_max );
        ASSERT_EQ( 0, ::setrlimit( RLIMIT_NOFILE, &limit ) );
    }
    std::vector< int > fds;
    while ( fds.size() < 10000 && fds.size() + 50 < limit.rlim_cur ) {
        fds.push_back( ::dup( STDIN_FILENO ) );
    }
    Process list( "/bin/ls" );
    list.addArg( "/proc/self/fd" );
    EXPECT_EQ( "0\n1\n2\n3\n=0", outputOf( list ) ); // 3 is the listed directory itself
    for ( const int fd : fds ) {
        ::close( fd );
    }
    Process masks( "/bin/grep" );
    masks.addArg( "-E" );
    masks.addArg( "^Sig(Blk|Ign)" );
    masks.addArg( "/proc/self/status" );
    ::signal( SIGPIPE, SIG_IGN );
    EXPECT_EQ( "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n=0", outputOf( masks ) );
    ::signal( SIGPIPE, SIG_DFL );

    Process sleeper = shell( "exec sleep 600" );
    sleeper.spawn( nullptr, nullptr, nullptr );
    ASSERT_EQ( 0, ::kill( sleeper.pid(), SIGTERM ) );
    EXPECT_TRUE( sleeper.waitForExit( 60000 ) );
    EXPECT_EQ( SIGTERM, sleeper.exitValue() );
}

TEST_F( ChildProcesses, ChildRunsUnderTheIdentitiesAskedFor )
{
    if ( ::geteuid() != 0 )
        GTEST_SKIP() << "needs the superuser";
    NuvTest::CapabilityDeviceDouble device;
    const struct
    {
        uid_t userId;
        uid_t effectiveUserId;
        const char* realPtr;
        const char* effectivePtr;
    } cases[] = {
        { Process::keepIdentity, Process::keepIdentity, "0\n=0", "0\n=0" },
        { 65534, 65534, "65534\n=0", "65534\n=0" },
        { Process::keepIdentity, 65534, "0\n=0", "65534\n=0" },
        { 0, 0, "0\n=0", "0\n=0" },
    };
    for ( const auto& entry : cases ) {
        SCOPED_TRACE( entry.effectiveUserId );
        Process process( "/usr/bin/id" );
        process.userId( entry.userId );
        process.effectiveUserId( entry.effectiveUserId );
        process.addArg( "-u" );
        EXPECT_EQ( entry.effectivePtr, outputOf( process ) );
        process.addArg( "-r" );
        EXPECT_EQ( entry.realPtr, outputOf( process ) );
    }
#if !defined( __i386__ ) // an emulator does not share the parent's memory
    EXPECT_EQ( 4, device.nbrOfIdentityChanges );
    EXPECT_EQ( 2, device.nbrOfChangesToSuperuser );
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

TEST_F( ChildProcesses, WaitEndsWithTheChildAndWithinItsTimeout )
{
    using Clock = std::chrono::steady_clock;
    Process process = shell( "sleep 0.05" );
    process.spawn( nullptr, nullptr, nullptr );
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE( process.waitForExit( 1 ) );
    EXPECT_TRUE( process.waitForExit( 60000 ) );
    const int fd = static_cast< int >( ::syscall( SYS_pidfd_open, ::getpid(), 0 ) );
    if ( fd >= 0 ) { // else the system cannot tell, and a second of sleep may pass
        ::close( fd );
        EXPECT_LT( Clock::now() - start, std::chrono::milliseconds( 900 ) );
    }
    const std::size_t before = nbrOfFds();
    {
        Process left( "/bin/cat" );
        std::streambuf* inPtr = nullptr;
        left.spawn( &inPtr, nullptr, nullptr ); // ends with its input, after its object
    }
    EXPECT_TRUE( NuvTest::waitFor( [] {
        const Process any( "/bin/true" ); // its end collects what was left
        return hasNoChild();
    } ) );
    EXPECT_EQ( before, nbrOfFds() );
}

TEST_F( ChildProcesses, DescriptionsAreComparedAndCopied )
{
    Process a( "/bin/../bin/cat" );
    EXPECT_TRUE( a == Process( "/bin/cat" ) );
    a.addArg( "x" );
    EXPECT_FALSE( a == Process( "/bin/cat" ) );
    EXPECT_TRUE( a == Process( a ) );
    EXPECT_THROW( a.restartOnExit(), LogicException );
    EXPECT_THROW( a.addArg( nullptr ), LogicException );
}

} // namespace
} // namespace Nuv::Mt
