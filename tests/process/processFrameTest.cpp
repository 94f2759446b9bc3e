#include "nuvTestSupport.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <sys/shm.h>
#include <sys/stat.h>

namespace {

using namespace NuvTest;

// A root folder of its own for each test, and the probe run on it.
class ProcessFrame : public RootFixture
{
protected:
    void TearDown() override { removeInterprocessObjects(); }

    Start start( const std::vector< std::string >& arguments ) const
    {
        return { arguments, { "HOME=" + myHome.path() } };
    }
    Outcome run( const std::vector< std::string >& arguments ) const
    {
        return runProgram( program( "frameProbe" ), start( arguments ) );
    }
    std::string path( const std::string& relative ) const
    {
        return myHome.path( "ixoRoot/" + relative );
    }

private:
    TemporaryFolder myHome;
};

// An application that has reported "ready" and now waits for input.
class Listener
{
public:
    Listener( const std::string& programPath, const Start& start )
        : myChild( programPath, start )
    {
        EXPECT_EQ( line(), "ready" );
    }

    ChildProcess& child() { return myChild; }
    // @return whether Nuv::main still answers
    bool isAlive()
    {
        myChild.writeInput( "x" );
        return line() == "alive";
    }
    int exitStatus()
    {
        myChild.closeInput();
        return myChild.wait().exitStatus();
    }

private:
    // The news of a child's end come at any time.
    std::string line()
    {
        std::string text = myChild.readLine();
        return text == "signal 17" ? myChild.readLine() : text;
    }

    ChildProcess myChild;
};

std::size_t nbrOf( const std::string& sought, const std::string& text )
{
    std::size_t n = 0;
    for ( std::size_t pos = text.find( sought ); pos != std::string::npos;
          pos = text.find( sought, pos + 1 ) ) {
        ++n;
    }
    return n;
}

// The segment of thread records as a tool of any language sees it: bytes at offsets.
class Records
{
public:
    explicit Records( const std::string& keyFile )
    {
        struct stat info
        {
        };
        EXPECT_EQ( ::stat( keyFile.c_str(), &info ), 0 ) << keyFile;
        EXPECT_EQ( info.st_mode & 0777, 0660u );
        const int id = ::shmget( static_cast< key_t >( info.st_ino ), 8804, 0 );
        myBytesPtr = static_cast< const char* >( ::shmat( id, nullptr, SHM_RDONLY ) );
    }
    Records( const Records& ) = delete;
    Records& operator=( const Records& ) = delete;
    ~Records() { ::shmdt( myBytesPtr ); }

    std::int32_t header() const { return word( 0 ); }
    std::int32_t field( int record, int offset ) const { return word( 4 + 88 * record + offset ); }
    bool isUsed( int record ) const { return field( record, 0 ) == 1; }
    int processId( int record ) const { return field( record, 4 ); }
    int state( int record ) const { return field( record, 8 ); }
    int waitKind( int record ) const { return field( record, 12 ); }
    int waitObject( int record ) const { return field( record, 16 ); }
    std::string description( int record ) const { return myBytesPtr + 4 + 88 * record + 20; }
    std::string statusMessage( int record ) const { return myBytesPtr + 4 + 88 * record + 53; }
    int nbrOfUsed() const
    {
        int n = 0;
        for ( int k = 0; k < 100; ++k ) {
            n += isUsed( k ) ? 1 : 0;
        }
        return n;
    }

private:
    std::int32_t word( int offset ) const
    {
        std::int32_t value;
        std::memcpy( &value, myBytesPtr + offset, sizeof( value ) );
        return value;
    }

    const char* myBytesPtr = nullptr;
};

} // namespace

// ----------------------------------------------------------------------------------------- main
// task

TEST_F( ProcessFrame, ResultOfNuvMainIsTheExitStatus )
{
    for ( const auto& [argument, status] :
          std::map< std::string, int >{ { "0", 0 }, { "5", 5 }, { "-1", 255 }, { "300", 44 } } ) {
        SCOPED_TRACE( argument );
        EXPECT_EQ( run( { "none", "return", argument } ).exitStatus(), status );
    }
    EXPECT_EQ( run( { "nohandler", "return", "6" } ).exitStatus(), 6 );
    EXPECT_EQ( run( { "none", "exit", "9" } ).exitStatus(), 9 ); // from the thread "main"
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
    for ( const char* const textPtr : texts ) {
        SCOPED_TRACE( textPtr );
        EXPECT_EQ( run( { "none", "throw", std::to_string( ++kind ) } ).exitStatus(), 255 );
    }
    const std::string log = readFile( path( "log/main.log" ) );
    for ( const char* const textPtr : texts ) {
        EXPECT_EQ(
            nbrOf( "Syslog/F errSystemError threadStart catch" + std::string( textPtr ) + "\n",
                   log ),
            1u )
            << textPtr << "\n"
            << log;
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

// -------------------------------------------------------------------------------------------
// signals

TEST_F( ProcessFrame, TerminationSignalEndsOnlyWhereAnObserverLeavesIt )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    struct Row
    {
        const char* observerPtr;
        int signalNbr;
        int endStatus; ///< 0: lives on
    };
    const Row rows[] = {
        { "ignore", SIGTERM, 255 }, { "ignore", SIGINT, 255 }, { "ignore", SIGHUP, 255 },
        { "claim", SIGTERM, 0 },    { "claim", SIGHUP, 0 },    { "none", SIGTERM, 0 },
        { "none", SIGINT, 0 },      { "ignore", SIGUSR1, 0 },  { "ignore", SIGQUIT, 0 } };
    for ( const Row& row : rows ) {
        SCOPED_TRACE( std::string( row.observerPtr ) + " " + std::to_string( row.signalNbr ) );
        Listener listener( program( "frameProbe" ), start( { row.observerPtr, "listen" } ) );
        listener.child().kill( row.signalNbr );
        if ( std::strcmp( row.observerPtr, "none" ) != 0 ) {
            EXPECT_EQ( listener.child().readLine(), "signal " + std::to_string( row.signalNbr ) );
        }
        if ( row.endStatus != 0 ) {
            EXPECT_EQ( listener.child().wait().exitStatus(), row.endStatus );
            continue;
        }
        EXPECT_TRUE( listener.isAlive() );
        EXPECT_EQ( listener.exitStatus(), 7 );
    }
}

TEST_F( ProcessFrame, EveryInterruptSignalReachesTheObservers )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    Listener listener( program( "frameProbe" ), start( { "claim", "listen" } ) );
    for ( const int signalNbr : { 1, 2, 3, 10, 12, 13, 14, 15, 17, 18, 21, 22, 23, 29, 30 } ) {
        listener.child().kill( signalNbr );
        EXPECT_EQ( listener.child().readLine(), "signal " + std::to_string( signalNbr ) );
    }
    EXPECT_EQ( listener.exitStatus(), 7 );
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
    const Outcome outcome = run( { "claim", "interrupt", "1000" } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
    EXPECT_GT( nbrOf( "signal 30\n", outcome.output ), 0u );
    EXPECT_EQ( run( { "none", "interruptRead" } ).exitStatus(), 0 );
}

// ---------------------------------------------------------------------------------------------
// forks

TEST_F( ProcessFrame, ForkedChildEndsWithWhatItSaidAndNothingOfTheParent )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    EXPECT_EQ( run( { "none", "forkExit" } ).output,
               "child\nparent\nstatus 0\nparent's exit handler\n" );
}

TEST_F( ProcessFrame, SignalOfAForkedChildDoesNotReachTheParentsObservers )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    Listener listener( program( "frameProbe" ), start( { "ignore", "forkSignal" } ) );
    EXPECT_TRUE( listener.isAlive() );
    EXPECT_EQ( listener.exitStatus(), 0 );
}

// ------------------------------------------------------------------------------------ status
// records

TEST_F( ProcessFrame, ToolSeesEachThreadAndWhatItWaitsFor )
{
    ChildProcess child( program( "frameProbe" ), start( { "none", "records" } ) );
    const int semaphoreId = std::atoi( child.readLine().c_str() );
    EXPECT_EQ( child.readLine(), "ready" );
    const Records records( path( "tmp/ipc/shm_ubrdebug_frameProbe" ) );
    ASSERT_TRUE( waitFor( [&] { return records.waitKind( 2 ) == 2; } ) );
    EXPECT_EQ( records.header(), 2 );
    EXPECT_EQ( records.nbrOfUsed(), 3 );
    const char* const descriptions[] = { "Signal handler", "main",
                                         "a task whose name is longer than" };
    for ( int k = 0; k < 3; ++k ) {
        EXPECT_EQ( records.processId( k ), child.pid() );
        EXPECT_EQ( records.state( k ), 1 );
        EXPECT_EQ( records.description( k ), descriptions[k] );
        EXPECT_EQ( records.waitObject( k ), k == 2 ? semaphoreId : 0 );
    }
    child.closeInput(); // posts the semaphore
    EXPECT_EQ( child.readLine(), "waited" );
    EXPECT_EQ( child.wait().exitStatus(), 0 );
    EXPECT_EQ( records.waitKind( 2 ), 0 );
    EXPECT_EQ( records.waitObject( 2 ), 0 );
    EXPECT_EQ( records.statusMessage( 2 ), "has waited" );
    EXPECT_EQ( records.state( 2 ), 2 );
    EXPECT_EQ( records.nbrOfUsed(), 0 ) << "an orderly end releases every record";
}

TEST_F( ProcessFrame, RecordsOfAKilledProcessStayAndTheNextOneTakesFurtherOnes )
{
    const Start listen = start( { "none", "listen" } );
    Listener killed( program( "frameProbe" ), listen );
    killed.child().kill( SIGKILL );
    EXPECT_EQ( killed.child().wait().signal(), SIGKILL );
    {
        Listener next( program( "frameProbe" ), listen );
        const Records records( path( "tmp/ipc/shm_ubrdebug_frameProbe" ) );
        EXPECT_EQ( records.nbrOfUsed(), 4 );
        for ( int k = 0; k < 4; ++k ) {
            EXPECT_EQ( records.processId( k ), k < 2 ? killed.child().pid() : next.child().pid() );
            EXPECT_EQ( records.description( k ), k % 2 == 0 ? "Signal handler" : "main" );
        }
        EXPECT_EQ( next.exitStatus(), 7 );
        EXPECT_EQ( records.nbrOfUsed(), 2 );
    }
    EXPECT_EQ( run( { "none", "throw", "10" } ).exitStatus(), 255 );
    const Records records( path( "tmp/ipc/shm_ubrdebug_frameProbe" ) );
    EXPECT_EQ( records.state( 3 ), 3 ) << "ended by an exception";
}

TEST_F( ProcessFrame, ProcessesOfBothWidthsShareOneSegment )
{
    const std::string narrow = program( "frameProbe", 32 );
    const std::string wide = program( "frameProbe", 64 );
    NUV_SKIP_WITHOUT( narrow );
    NUV_SKIP_WITHOUT( wide );
    Listener first( narrow, start( { "none", "listen" } ) );
    Listener second( wide, start( { "none", "listen" } ) );
    const Records records( path( "tmp/ipc/shm_ubrdebug_frameProbe" ) );
    EXPECT_EQ( records.processId( 1 ), first.child().pid() );
    EXPECT_EQ( records.processId( 3 ), second.child().pid() );
    EXPECT_EQ( records.description( 1 ), "main" );
    EXPECT_EQ( records.description( 3 ), "main" );
    EXPECT_EQ( first.exitStatus(), 7 );
    EXPECT_EQ( second.exitStatus(), 7 );
}
