#include "nuvTestSupport.h"

#include <csignal>
#include <tuple>
#include <unistd.h>

namespace {

using namespace NuvTest;

using Isolation = RootFixture;

// An outer instance of this program's launcher, with a shell command for a test.
Outcome isolated( const std::string& command )
{
    const std::string launcher = program( "../isolated" );
    return runProgram( launcher, { { "/bin/sh", "-c", command }, {} } );
}

} // namespace

TEST_F( Isolation, ProgramsOfBothWidthsExecuteEachOtherOnOneRoot )
{
    const std::string narrow = program( "widthProbe", 32 ), wide = program( "widthProbe", 64 );
    NUV_SKIP_WITHOUT( narrow.empty() ? narrow : wide );
    const Outcome outcome = runProgram( wide, { { narrow, wide, narrow }, {} } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
    EXPECT_EQ( outcome.output,
               "64 " + root() + "\n32 " + root() + "\n64 " + root() + "\n32 " + root() + "\n" );
}

TEST_F( Isolation, RootIsFreshAndGoneAfterwards )
{
    const Outcome outcome = isolated( "ls -A; touch left; echo $HOME" );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
    ASSERT_EQ( outcome.output.compare( 0, 1, "/" ), 0 ) << "the root was not empty";
    const std::string other = outcome.output.substr( 0, outcome.output.size() - 1 );
    EXPECT_TRUE( other != root() && ::access( other.c_str(), F_OK ) != 0 );
}

TEST_F( Isolation, LeftoversFailAPassingTest )
{
    const std::tuple< const char*, const char*, int > cases[] = {
        { "true", "", 0 },
        { "exit 3", "", 3 },
        { "ipcmk -S 1", "", 0 }, // the set that guards a root folder stays by contract
        { "ipcmk -S 2", "System V sem", 99 },
        { "ipcmk -M 10", "System V shm", 99 },
        { "ipcmk -Q", "System V msg", 99 },
        { "sleep 1000 & exit 0", "sleep 1000", 99 },
        { "ipcmk -M 10; exit 3", "System V shm", 3 },
    };
    for ( const auto& [commandPtr, messagePtr, status] : cases ) {
        SCOPED_TRACE( commandPtr );
        const Outcome outcome = isolated( commandPtr );
        EXPECT_EQ( outcome.exitStatus(), status );
        EXPECT_NE( outcome.errors.find( messagePtr ), std::string::npos );
        EXPECT_EQ( outcome.errors.empty(), *messagePtr == '\0' );
    }
}

TEST_F( Isolation, ChildrenAreCollectedByStatusSignalTextAndTimeout )
{
    const Outcome failed = runInChild( [] { throw std::runtime_error( "out of order" ); } );
    EXPECT_EQ( failed.exitStatus(), 2 );
    EXPECT_EQ( failed.errors, "exception: out of order\n" );

    EXPECT_EQ( runInChild( [] { ::raise( SIGKILL ); } ).signal(), SIGKILL );
    EXPECT_EQ( runProgram( root( "missing" ) ).exitStatus(), 127 );

    const Outcome late = runInChild( [] { ::pause(); }, std::chrono::milliseconds( 20 ) );
    EXPECT_TRUE( late.isTimedOut );
    EXPECT_EQ( late.exitStatus(), -1 );

    ChildProcess cat( "/bin/cat" );
    cat.writeInput( "one\ntwo\n" );
    EXPECT_EQ( cat.readLine(), "one" );
    EXPECT_EQ( cat.readLine(), "two" );
    cat.closeInput();
    EXPECT_EQ( cat.wait().exitStatus(), 0 );
}
