#include "nuvTestFrame.h"

#include <csignal>
#include <string>
#include <utility>

namespace {

using namespace NuvTest;

std::size_t nbrOf( const std::string& sought, const std::string& text )
{
    std::size_t n = 0;
    for ( std::size_t pos = text.find( sought ); pos != std::string::npos;
          pos = text.find( sought, pos + 1 ) )
        ++n;
    return n;
}

} // namespace

TEST_F( ProcessFrame, ResultOfNuvMainIsTheExitStatus )
{
    const std::pair< const char*, int > cases[] = {
        { "0", 0 }, { "5", 5 }, { "-1", 255 }, { "300", 44 } };
    for ( const auto& [argumentPtr, status] : cases )
        EXPECT_EQ( run( { "none", "return", argumentPtr } ).exitStatus(), status );
    EXPECT_EQ( run( { "none", "exit", "9" } ).exitStatus(), 9 ); // from the thread "main"
}

TEST_F( ProcessFrame, SmallestExampleLogsItsLine )
{
    EXPECT_EQ( runProgram( tool( "hello" ), start( { "frame" } ) ).exitStatus(), 0 );
    EXPECT_EQ( nbrOf( " hello/W hello, frame\n", readFile( path( "log/main.log" ) ) ), 1u );
}

TEST_F( ProcessFrame, EscapedExceptionIsLoggedByItsCategory )
{
    const char* const texts[] = {
        "(NUVS logic exception) one",
        "(STL logic error) two",
        "(STL bad cast) std::bad_cast",
        "(STL bad typeid) std::bad_typeid",
        "(STL bad exception) std::bad_exception",
        "(resource exception) six",
        "(out of memory) std::bad_alloc",
        "(NUVS runtime exception) eight [0,4]",
        "(ioStreams failure) nine: iostream error",
        "(STL runtime error) ten",
        "(STL exception) bad_function_call",
        "unknown exception!",
    };
    int kind = 0;
    for ( const std::string text : texts ) {
        EXPECT_EQ( run( { "none", "throw", std::to_string( ++kind ) } ).exitStatus(), 255 );
        const std::string line = "Syslog/F errSystemError threadStart catch" + text + "\n";
        EXPECT_EQ( nbrOf( line, readFile( path( "log/main.log" ) ) ), 1u ) << text;
    }
}

TEST_F( ProcessFrame, ProgramWithoutNuvMainLinksAndAssertsAtItsStart )
{
    const Outcome outcome = runProgram( program( "mainless" ), start( {} ) );
    EXPECT_EQ( outcome.exitStatus(), 3 );
    EXPECT_EQ( outcome.output.find( "nuvAssert: Condition failed: Nuv::main != NULL (FILE: " ), 0u )
        << outcome.output;
    EXPECT_EQ( nbrOf( "Condition failed: Nuv::main != NULL", readFile( path( "log/main.log" ) ) ),
               1u );
}

TEST_F( ProcessFrame, TerminationSignalEndsOnlyWhereAnObserverLeavesIt )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    const struct
    {
        std::string observer;
        int signalNbr;
        int endStatus; ///< 7: lives on
    } rows[] = { { "ignore", SIGTERM, 255 }, { "ignore", SIGINT, 255 }, { "ignore", SIGHUP, 255 },
                 { "claim", SIGTERM, 7 },    { "claim", SIGHUP, 7 },    { "none", SIGTERM, 7 },
                 { "none", SIGINT, 7 },      { "ignore", SIGUSR1, 7 },  { "ignore", SIGQUIT, 7 } };
    for ( const auto& row : rows ) {
        SCOPED_TRACE( row.observer + " " + std::to_string( row.signalNbr ) );
        Listener listener( program( "frameProbe" ), start( { row.observer, "listen" } ) );
        listener.child().kill( row.signalNbr );
        if ( row.observer != "none" ) {
            EXPECT_EQ( listener.child().readLine(), "signal " + std::to_string( row.signalNbr ) );
        }
        EXPECT_TRUE( row.endStatus != 7 || listener.isAlive() );
        EXPECT_EQ( row.endStatus == 7 ? listener.exitStatus()
                                      : listener.child().wait().exitStatus(),
                   row.endStatus );
    }
}

TEST_F( ProcessFrame, RaisedSignalGoesToTheInitialThread )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    ChildProcess child( program( "frameProbe" ), start( { "ignore", "raise", "15" } ) );
    EXPECT_EQ( child.wait().exitStatus(), 255 );
    EXPECT_EQ( run( { "ignore", "raise", "6" } ).signal(), SIGABRT );
    EXPECT_EQ( readFile( path( "core/frameProbe/core.txt" ) ).substr( 0, 18 ),
               "Application thread" );
}

TEST_F( ProcessFrame, ThrowingObserverIsLoggedAndDispatchingGoesOn )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    Listener listener( program( "frameProbe" ), start( { "throw", "listen" } ) );
    const std::string line = "errSystemError sigHandlerRoutine catch(STL runtime error) observer\n";
    for ( std::size_t n = 1; n <= 2; ++n ) {
        listener.child().kill( SIGTERM );
        EXPECT_TRUE(
            waitFor( [&] { return nbrOf( line, readFile( path( "log/main.log" ) ) ) == n; } ) );
    }
    EXPECT_EQ( listener.exitStatus(), 7 );
}

TEST_F( ProcessFrame, InterruptionsOfABlockedThreadAreNeverLost )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    ChildProcess child( program( "frameProbe" ), start( { "claim", "interrupt", "1000" } ) );
    const std::string lines[] = { child.readLine(), child.readLine() };
    EXPECT_EQ( lines[lines[0] == "ready"], "signal 30" ) << "which may be dispatched after all";
    child.closeInput();
    EXPECT_EQ( child.wait().exitStatus(), 7 );
}

TEST_F( ProcessFrame, ForkedChildEndsWithWhatItSaidAndNothingOfTheParent )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    EXPECT_EQ( run( { "none", "forkExit" } ).output,
               "child\nparent\nstatus 0\nparent's exit handler\n" );
    Listener listener( program( "frameProbe" ), start( { "ignore", "forkSignal" } ) );
    EXPECT_TRUE( listener.isAlive() );
    EXPECT_EQ( listener.exitStatus(), 0 );
}
