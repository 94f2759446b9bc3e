#include "nuvLogFile.h"
#include "nuvToolFixture.h"
#include "nuvlogdCollector.h"

#include <algorithm>
#include <csignal>
#include <deque>
#include <map>
#include <memory>
#include <sstream>
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
        ASSERT_EQ( ::stat( installation( "tmp/ipc/sem_IpFifo_logAppFifo" ).c_str(), &status ), 0 );
        const int id = ::semget( static_cast< key_t >( status.st_ino ), 0, 0 );
        const std::string statusFile = "/proc/" + std::to_string( daemon.pid() ) + "/status";
        EXPECT_TRUE( waitFor( [&] {
            daemon.kill( SIGSTOP );
            waitFor(
                [&] { return readFile( statusFile ).find( "State:\tT" ) != std::string::npos; } );
            const auto isFree = [=] { return ::semctl( id, 0, GETVAL ) == 1; };
            if ( waitFor( isFree, std::chrono::milliseconds( 20 ) ) )
                return true;
            daemon.kill( SIGCONT );
            return false;
        } ) );
    }

    void SetUp() override { NUV_SKIP_IF_SIGNALS_BREAK_THREADS(); }

    static constexpr const char* bigFile = "[logApp]\nenabled = true\nfileMaxSizeInK = 8192\n";

    class Daemon : public ChildProcess
    {
    public:
        Daemon()
            : ChildProcess( tool( "nuvlogd" ) )
        {
            EXPECT_EQ( readLine(), "nuvlogd: ready" );
        }
        void end( int signalNbr = SIGTERM )
        {
            kill( signalNbr );
            EXPECT_EQ( wait().exitStatus(), 0 );
        }
    };

    /// Writes "zone/W PREFIX n" so many times, and again for each line of input.
    class Writer : public ChildProcess
    {
    public:
        Writer( int count, const char* prefixPtr )
            : ChildProcess( program( "logEmitter" ),
                            { { "zone", std::to_string( count ), prefixPtr }, {} } )
        {
        }
        void end()
        {
            closeInput();
            EXPECT_EQ( wait().exitStatus(), 0 );
        }
    };

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
    Daemon daemon;
    stopOutsideOfTheRing( daemon ); // so that everything is still in the ring
    const char* const prefixes[] = { "first", "second", "third", "fourth" };
    std::deque< Writer > writers;
    for ( const char* const prefixPtr : prefixes )
        writers.emplace_back( 400, prefixPtr );
    for ( Writer& writer : writers )
        EXPECT_EQ( writer.readLine(), "done" );
    daemon.kill( SIGTERM );
    daemon.end( SIGCONT );

    std::map< std::string, int > next; // in order, none missing
    for ( const std::string& line : logLines() ) {
        const std::size_t at = line.find( "zone/W " );
        if ( at == std::string::npos )
            continue;
        std::istringstream words( line.substr( at + 7 ) );
        std::string prefix;
        int number = -1;
        words >> prefix >> number;
        EXPECT_EQ( number, next[prefix]++ ) << line;
    }
    for ( const char* const prefixPtr : prefixes )
        EXPECT_EQ( next[prefixPtr], 400 ) << prefixPtr;
    EXPECT_EQ( nbrOfLinesWith( "stopped: 160" ), 1 ); // with what nuvlogd itself has to say
    EXPECT_EQ( nbrOfLinesWith( " lines written, 0 lost" ), 2 );
    for ( Writer& writer : writers )
        writer.end();
}

TEST_F( Nuvlogd, LinesThatWereOverwrittenAreCountedExactly )
{
    configure( bigFile + std::string( "fifoSizeInK = 8\n" ) );
    Daemon daemon;
    constexpr int nbrOfRounds = 4;
    stopOutsideOfTheRing( daemon ); // while 500 lines go into a ring that holds fewer
    Writer writer( 500, "line" );
    for ( int round = 1; round <= nbrOfRounds; ++round ) {
        EXPECT_EQ( writer.readLine(), "done" );
        daemon.kill( SIGCONT );
        const auto isAccounted = [&] {
            return nbrOfLinesWith( "zone/W line" ) + nbrReportedLost() == 500 * round;
        };
        EXPECT_TRUE( waitFor( isAccounted, std::chrono::seconds( 20 ) ) )
            << nbrOfLinesWith( "zone/W line" ) << " + " << nbrReportedLost();
        if ( round < nbrOfRounds )
            stopOutsideOfTheRing( daemon );
        writer.writeInput( round < nbrOfRounds ? "more\n" : "end\n" );
    }
    EXPECT_GT( nbrReportedLost(), 1000 );
    daemon.kill( SIGUSR1 );
    EXPECT_TRUE( waitForLine( "status: " ) );
    EXPECT_EQ( nbrOfLinesWith( ", since " ), nbrOfLinesWith( "were overwritten" ) );
    EXPECT_EQ( writer.wait().exitStatus(), 0 );
    daemon.end( SIGINT );
}

TEST_F( Nuvlogd, RefusalsSayWhyAndEndWithTheirStatus )
{
    const auto expect = []( int status, const std::string& text,
                            const std::vector< std::string >& arguments = {} ) {
        const Outcome outcome = runProgram( tool( "nuvlogd" ), { arguments, {} } );
        EXPECT_EQ( outcome.exitStatus(), status ) << outcome.errors;
        EXPECT_NE( ( outcome.output + outcome.errors ).find( text ), std::string::npos )
            << outcome.output << outcome.errors;
    };
    expect( 1, "is not enabled" );
    expect( 2, "--unknown", { "--unknown" } );
    expect( 0, "SIGTERM", { "--help" } );
    configure( bigFile + std::string( "fileName = taken\n" ) );
    ASSERT_EQ( ::mkdir( installation( "log/taken" ).c_str(), 0755 ), 0 );
    expect( 1, "taken cannot be opened" );
    configure( bigFile );
    Daemon daemon;
    expect( 1, "already runs as process " + std::to_string( daemon.pid() ) );
    daemon.end();
}

TEST_F( Nuvlogd, GoesOnWhenTheEventsFifoIsRemoved )
{
    configure( bigFile );
    Daemon daemon;
    ASSERT_EQ( ::unlink( installation( "tmp/ipc/evt_IpFifo_logAppFifo" ).c_str() ), 0 );
    EXPECT_TRUE( waitForLine( "files of the FIFO were removed or replaced" ) );
    Writer writer( 1, "late" );
    EXPECT_EQ( writer.readLine(), "done" );
    EXPECT_TRUE( waitForLine( "late 0" ) );
    writer.end();
    daemon.end();
}

TEST_F( Nuvlogd, SuccessorOfAKilledOneLosesNothingAndRepairLeavesNothing )
{
    configure( bigFile );
    auto daemonPtr = std::make_unique< Daemon >();
    Writer writer( 20, "line" );
    EXPECT_EQ( writer.readLine(), "done" );
    EXPECT_TRUE( waitForLine( "line 19" ) ); // then it sleeps, and holds nothing
    stopOutsideOfTheRing( *daemonPtr );
    writer.writeInput( "more\n" );
    EXPECT_EQ( writer.readLine(), "done" );
    daemonPtr->kill( SIGKILL );
    daemonPtr->wait();
    EXPECT_EQ( nuvctl( { "ipc", "doctor" } ).exitStatus(), 1 );

    daemonPtr = std::make_unique< Daemon >();
    EXPECT_TRUE( waitFor( [] { return nbrOfLinesWith( "zone/W line" ) == 40; } ) );
    const Outcome repair = nuvctl( { "ipc", "repair", "--yes" } );
    EXPECT_EQ( repair.exitStatus(), 0 ) << repair.output << repair.errors;
    writer.end();
    daemonPtr->end();
    EXPECT_EQ( nbrOfLinesWith( ", 0 lost" ), 3 ); // twice started, once stopped
    for ( const Nuv::Tools::Segment& segment : Nuv::Tools::readSegments() )
        EXPECT_EQ( segment.mySize, 8804u ) << "left: segment " << segment.myId;
}

TEST( LossAccount, CountsWhatWasAnnouncedAndNotRead )
{
    const std::tuple< std::uint64_t, std::uint64_t, bool, std::uint64_t > steps[] = {
        { 0, 7, true, 0 },    // a reader before this one took the signals
        { 5, 12, true, 0 },   // as many read as announced
        { 5, 15, false, 0 },  // read ahead of the signals
        { 8, 15, true, 0 },   // the signals come after
        { 20, 24, false, 3 }, // three lost, for sure
        { 30, 32, true, 2 },  // two more
        { 31, 33, true, 0 },  // no line twice
    };
    LossAccount account;
    for ( const auto& [announced, read, isExact, nbrNew] : steps )
        EXPECT_EQ( account.update( announced, read, isExact ), nbrNew ) << announced;
    EXPECT_EQ( account.nbrLost(), 5u );
}
