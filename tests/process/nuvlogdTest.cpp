#include "nuvLogFile.h"
#include "nuvToolFixture.h"
#include "nuvlogdCollector.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <memory>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace NuvTest;
using Nuv::LogApp::LossAccount;

class Nuvlogd : public ToolFixture
{
protected:
    /// Stops the daemon where it does not hold the ring's semaphore, for which writers would wait.
    static void stopOutsideOfTheRing( ChildProcess& daemon )
    {
        struct stat status;
        const std::string keyFile = RootFixture::root( "ixoRoot/tmp/ipc/sem_IpFifo_logAppFifo" );
        ASSERT_EQ( ::stat( keyFile.c_str(), &status ), 0 );
        const int id = ::semget( static_cast< key_t >( status.st_ino ), 0, 0 );
        const auto isFree = [=] { return ::semctl( id, 0, GETVAL ) == 1; };
        EXPECT_TRUE( waitFor( [&] {
            daemon.kill( SIGSTOP );
            waitFor( [&] {
                return readFile( "/proc/" + std::to_string( daemon.pid() ) + "/status" )
                           .find( "State:\tT" ) != std::string::npos;
            } );
            if ( waitFor( isFree, std::chrono::milliseconds( 20 ) ) )
                return true;
            daemon.kill( SIGCONT );
            return false;
        } ) );
    }

    void SetUp() override { NUV_SKIP_IF_SIGNALS_BREAK_THREADS(); }

    static constexpr const char* bigFile = "[logApp]\nenabled = true\nfileMaxSizeInK = 8192\n";

    static std::unique_ptr< ChildProcess > startDaemon()
    {
        auto daemonPtr = std::make_unique< ChildProcess >( tool( "nuvlogd" ) );
        EXPECT_EQ( daemonPtr->readLine(), "nuvlogd: ready" );
        return daemonPtr;
    }

    static Start emitter( int count, const std::string& prefix )
    {
        return { { "zone", std::to_string( count ), prefix }, {} };
    }

    static std::vector< std::string > logLines()
    {
        Nuv::Log::LogFileReader reader( installation( "log/main.log" ) );
        std::vector< std::string > lines;
        std::string line;
        while ( reader.readLine( &line ) )
            lines.push_back( line );
        return lines;
    }

    static std::ptrdiff_t nbrOfLinesWith( const std::string& text )
    {
        const std::vector< std::string > lines = logLines();
        return std::count_if( lines.begin(), lines.end(), [&]( const std::string& line ) {
            return line.find( text ) != std::string::npos;
        } );
    }

    static bool waitForLine( const std::string& text )
    {
        return waitFor( [&] { return nbrOfLinesWith( text ) > 0; } );
    }

    /// The sum of what the lines about overwritten ones say.
    static int nbrReportedLost()
    {
        int sum = 0;
        for ( const std::string& line : logLines() ) {
            const std::size_t end = line.find( " lines were overwritten" );
            if ( end != std::string::npos )
                sum += std::atoi( line.c_str() + line.rfind( ' ', end - 1 ) );
        }
        return sum;
    }
};

} // namespace

TEST_F( Nuvlogd, SigtermLosesNothingOfWhatTheFifoHolds )
{
    configure( bigFile + std::string( "fifoSizeInK = 1024\n" ) );
    const auto daemonPtr = startDaemon();
    stopOutsideOfTheRing( *daemonPtr ); // so that everything is still in the ring
    constexpr int nbrOfLines = 400;
    std::vector< std::unique_ptr< ChildProcess > > writers;
    for ( const char* prefixPtr : { "first", "second", "third", "fourth" } )
        writers.push_back( std::make_unique< ChildProcess >( program( "logEmitter" ),
                                                             emitter( nbrOfLines, prefixPtr ) ) );
    for ( const auto& writerPtr : writers )
        EXPECT_EQ( writerPtr->readLine(), "done" );
    daemonPtr->kill( SIGTERM );
    daemonPtr->kill( SIGCONT );
    EXPECT_EQ( daemonPtr->wait().exitStatus(), 0 );

    std::map< std::string, int > next; // in order, none missing
    for ( const std::string& line : logLines() ) {
        for ( const char* prefixPtr : { "first", "second", "third", "fourth" } ) {
            const std::size_t at = line.find( std::string( "zone/W " ) + prefixPtr + ' ' );
            if ( at != std::string::npos ) {
                EXPECT_EQ( std::atoi( line.c_str() + line.find( ' ', at + 7 ) ),
                           next[prefixPtr]++ );
            }
        }
    }
    for ( const auto& [prefix, count] : next )
        EXPECT_EQ( count, nbrOfLines ) << prefix;
    EXPECT_EQ( next.size(), 4u );
    EXPECT_EQ( nbrOfLinesWith( "stopped: 160" ), 1 ); // with what nuvlogd itself has to say
    EXPECT_EQ( nbrOfLinesWith( " lines written, 0 lost" ), 2 );
    for ( const auto& writerPtr : writers ) {
        writerPtr->closeInput();
        EXPECT_EQ( writerPtr->wait().exitStatus(), 0 );
    }
}

TEST_F( Nuvlogd, LinesThatWereOverwrittenAreCountedExactly )
{
    configure( bigFile + std::string( "fifoSizeInK = 8\n" ) );
    const auto daemonPtr = startDaemon();
    constexpr int nbrOfRounds = 4;
    stopOutsideOfTheRing( *daemonPtr ); // while 500 lines go into a ring that holds fewer
    ChildProcess writer( program( "logEmitter" ), emitter( 500, "line" ) );
    for ( int round = 1; round <= nbrOfRounds; ++round ) {
        EXPECT_EQ( writer.readLine(), "done" );
        daemonPtr->kill( SIGCONT );
        const auto isAccounted = [&] {
            return nbrOfLinesWith( "zone/W line" ) + nbrReportedLost() == 500 * round;
        };
        EXPECT_TRUE( waitFor( isAccounted, std::chrono::seconds( 20 ) ) )
            << nbrOfLinesWith( "zone/W line" ) << " + " << nbrReportedLost();
        if ( round < nbrOfRounds )
            stopOutsideOfTheRing( *daemonPtr );
        writer.writeInput( round < nbrOfRounds ? "more\n" : "end\n" );
    }
    EXPECT_GT( nbrReportedLost(), 1000 );
    daemonPtr->kill( SIGUSR1 );
    EXPECT_TRUE( waitForLine( "status: " ) );
    EXPECT_EQ( nbrOfLinesWith( ", since " ), nbrOfLinesWith( "were overwritten" ) );
    EXPECT_EQ( writer.wait().exitStatus(), 0 );
    daemonPtr->kill( SIGINT );
    EXPECT_EQ( daemonPtr->wait().exitStatus(), 0 );
}

TEST_F( Nuvlogd, RefusalsSayWhyAndEndWithTheirStatus )
{
    const auto expect = []( const Outcome& outcome, int status, const std::string& text ) {
        EXPECT_EQ( outcome.exitStatus(), status ) << outcome.errors;
        EXPECT_NE( ( outcome.output + outcome.errors ).find( text ), std::string::npos )
            << outcome.output << outcome.errors;
    };
    expect( runProgram( tool( "nuvlogd" ) ), 1, "is not enabled" );
    expect( runProgram( tool( "nuvlogd" ), { { "--unknown" }, {} } ), 2, "--unknown" );
    expect( runProgram( tool( "nuvlogd" ), { { "--help" }, {} } ), 0, "SIGTERM" );
    configure( bigFile + std::string( "fileName = taken\n" ) );
    ASSERT_EQ( ::mkdir( installation( "log/taken" ).c_str(), 0755 ), 0 );
    expect( runProgram( tool( "nuvlogd" ) ), 1, "taken cannot be opened" );
    configure( bigFile );
    const auto daemonPtr = startDaemon();
    expect( runProgram( tool( "nuvlogd" ) ), 1,
            "already runs as process " + std::to_string( daemonPtr->pid() ) );
    daemonPtr->kill( SIGTERM );
    EXPECT_EQ( daemonPtr->wait().exitStatus(), 0 );
}

TEST_F( Nuvlogd, GoesOnWhenTheEventsFifoIsRemoved )
{
    configure( bigFile );
    const auto daemonPtr = startDaemon();
    ASSERT_EQ( ::unlink( installation( "tmp/ipc/evt_IpFifo_logAppFifo" ).c_str() ), 0 );
    EXPECT_TRUE( waitForLine( "files of the FIFO were removed or replaced" ) );
    ChildProcess writer( program( "logEmitter" ), emitter( 1, "late" ) );
    EXPECT_EQ( writer.readLine(), "done" );
    EXPECT_TRUE( waitForLine( "late 0" ) );
    writer.closeInput();
    EXPECT_EQ( writer.wait().exitStatus(), 0 );
    daemonPtr->kill( SIGTERM );
    EXPECT_EQ( daemonPtr->wait().exitStatus(), 0 );
}

TEST_F( Nuvlogd, SuccessorOfAKilledOneLosesNothingAndRepairLeavesNothing )
{
    configure( bigFile );
    auto daemonPtr = startDaemon();
    ChildProcess writer( program( "logEmitter" ), emitter( 20, "line" ) );
    EXPECT_EQ( writer.readLine(), "done" );
    EXPECT_TRUE( waitForLine( "line 19" ) ); // then it sleeps, and holds nothing
    stopOutsideOfTheRing( *daemonPtr );
    writer.writeInput( "more\n" );
    EXPECT_EQ( writer.readLine(), "done" );
    daemonPtr->kill( SIGKILL );
    daemonPtr->wait();
    EXPECT_EQ( nuvctl( { "ipc", "doctor" } ).exitStatus(), 1 );

    daemonPtr = startDaemon();
    EXPECT_TRUE( waitFor( [] { return nbrOfLinesWith( "zone/W line" ) == 40; } ) );
    const Outcome repair = nuvctl( { "ipc", "repair", "--yes" } );
    EXPECT_EQ( repair.exitStatus(), 0 ) << repair.output << repair.errors;
    writer.closeInput();
    EXPECT_EQ( writer.wait().exitStatus(), 0 );
    daemonPtr->kill( SIGTERM );
    EXPECT_EQ( daemonPtr->wait().exitStatus(), 0 );
    EXPECT_EQ( nbrOfLinesWith( ", 0 lost" ), 3 ); // twice started, once stopped
    for ( const Nuv::Tools::Segment& segment : Nuv::Tools::readSegments() )
        EXPECT_EQ( segment.mySize, 8804u ) << "left: segment " << segment.myId;
}

TEST( LossAccount, CountsWhatWasAnnouncedAndNotRead )
{
    const struct
    {
        const char* namePtr;
        std::uint64_t announced, read;
        bool isExact;
        std::uint64_t nbrNew;
    } steps[] = {
        { "a reader before this one took the signals", 0, 7, true, 0 },
        { "as many read as announced", 5, 12, true, 0 },
        { "read ahead of the signals", 5, 15, false, 0 },
        { "the signals come after", 8, 15, true, 0 },
        { "three lost, for sure", 20, 24, false, 3 },
        { "two more", 30, 32, true, 2 },
        { "no line twice", 31, 33, true, 0 },
    };
    LossAccount account;
    for ( const auto& step : steps ) {
        SCOPED_TRACE( step.namePtr );
        EXPECT_EQ( account.update( step.announced, step.read, step.isExact ), step.nbrNew );
    }
    EXPECT_EQ( account.nbrLost(), 5u );
}
