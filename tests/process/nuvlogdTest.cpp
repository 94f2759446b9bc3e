#include "nuvLogFile.h"
#include "nuvToolFixture.h"
#include "nuvlogdCollector.h"

#include <csignal>
#include <deque>
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

    static std::vector< std::string > linesWith( const std::string& text )
    {
        Nuv::Log::LogFileReader reader( installation( "log/main.log" ) );
        std::vector< std::string > lines;
        for ( std::string line; reader.readLine( &line ); ) {
            if ( line.find( text ) != std::string::npos )
                lines.push_back( line );
        }
        return lines;
    }

    static bool waitForLine( const std::string& text )
    {
        return waitFor( [&] { return !linesWith( text ).empty(); } );
    }

    /// The sum of what the lines about overwritten ones say.
    static std::size_t nbrReportedLost()
    {
        std::size_t sum = 0;
        for ( const std::string& line : linesWith( " lines were overwritten" ) )
            sum += std::stoul( line.substr( line.rfind( ' ', line.find( " lines were" ) - 1 ) ) );
        return sum;
    }
};

} // namespace

TEST_F( Nuvlogd, SigtermLosesNothingOfWhatTheFifoHolds )
{
    configure( bigFile + std::string( "fifoSizeInK = 1024\n" ) );
    Daemon daemon;
    stopOutsideOfTheRing( daemon ); // so that everything is still in the ring
    std::deque< Writer > writers;
    for ( const char* const prefixPtr : { "first", "second", "third", "fourth" } )
        writers.emplace_back( 400, prefixPtr );
    for ( Writer& writer : writers )
        EXPECT_EQ( writer.readLine(), "done" );
    daemon.kill( SIGTERM );
    daemon.end( SIGCONT );

    for ( const std::string prefix : { "first ", "second ", "third ", "fourth " } ) {
        int number = 0; // in order, none missing
        for ( const std::string& line : linesWith( "zone/W " + prefix ) )
            EXPECT_NE( line.find( prefix + std::to_string( number++ ) + " " ), std::string::npos );
        EXPECT_EQ( number, 400 ) << prefix;
    }
    EXPECT_EQ( linesWith( "stopped: 160" ).size(), 1u ); // with what nuvlogd itself has to say
    EXPECT_EQ( linesWith( " lines written, 0 lost" ).size(), 2u );
    for ( Writer& writer : writers )
        writer.end();
}

TEST_F( Nuvlogd, LinesThatWereOverwrittenAreCountedExactly )
{
    configure( bigFile + std::string( "fifoSizeInK = 8\n" ) );
    Daemon daemon;
    constexpr std::size_t nbrOfRounds = 4;
    daemon.kill( SIGUSR1 ); // what it has to say itself is out of the ring after that
    EXPECT_TRUE( waitForLine( "status: " ) );
    stopOutsideOfTheRing( daemon ); // while 500 lines go into a ring that holds fewer
    Writer writer( 500, "line" );
    for ( std::size_t round = 1; round <= nbrOfRounds; ++round ) {
        EXPECT_EQ( writer.readLine(), "done" );
        daemon.kill( SIGCONT );
        EXPECT_TRUE( waitFor( [&] {
            return linesWith( "zone/W line" ).size() + nbrReportedLost() == 500 * round;
        } ) );
        if ( round < nbrOfRounds )
            stopOutsideOfTheRing( daemon );
        writer.writeInput( round < nbrOfRounds ? "more\n" : "end\n" );
    }
    EXPECT_GT( nbrReportedLost(), 1000u );
    EXPECT_EQ( linesWith( ", since " ).size(), linesWith( "were overwritten" ).size() );
    EXPECT_EQ( writer.wait().exitStatus(), 0 );
    daemon.end( SIGINT );
}

TEST_F( Nuvlogd, RefusalsSayWhyAndEndWithTheirStatus )
{
    expect( 1, "is not enabled", {}, "nuvlogd" );
    expect( 2, "--unknown", { "--unknown" }, "nuvlogd" );
    expect( 0, "SIGTERM", { "--help" }, "nuvlogd" );
    configure( bigFile + std::string( "fileName = taken\n" ) );
    ASSERT_EQ( ::mkdir( installation( "log/taken" ).c_str(), 0755 ), 0 );
    expect( 1, "taken cannot be opened", {}, "nuvlogd" );
    configure( bigFile );
    Daemon daemon;
    expect( 1, "already runs as process " + std::to_string( daemon.pid() ), {}, "nuvlogd" );
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
    expect( 1, "", { "ipc", "doctor" } );

    daemonPtr = std::make_unique< Daemon >();
    EXPECT_TRUE( waitFor( [] { return linesWith( "zone/W line" ).size() == 40u; } ) );
    expect( 0, "", { "ipc", "repair", "--yes" } );
    writer.end();
    daemonPtr->end();
    EXPECT_EQ( linesWith( ", 0 lost" ).size(), 3u ); // twice started, once stopped
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
