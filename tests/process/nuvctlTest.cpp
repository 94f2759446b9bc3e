#include "nuvToolFixture.h"
#include "nuvctlCheck.h"
#include "nuvctlZones.h"

#include "nuvPathname.h"

#include <algorithm>
#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <unistd.h>

namespace {

using namespace NuvTest;
using Json = nlohmann::json;

class Nuvctl : public ToolFixture
{
protected:
    static Json json( std::vector< std::string > arguments, int expectedStatus = 0 )
    {
        arguments.emplace_back( "--json" );
        const Outcome outcome = nuvctl( arguments );
        EXPECT_EQ( outcome.exitStatus(), expectedStatus ) << outcome.errors;
        return Json::parse( outcome.output, nullptr, false );
    }

    /// A daemon that logs through several zones straight into log/main.log.
    static std::unique_ptr< ChildProcess > startSensord( const std::string& logConf )
    {
        configure( logConf );
        auto daemonPtr = std::make_unique< ChildProcess >( tool( "sensord" ),
                                                           Start{ { "--interval-ms", "50" }, {} } );
        EXPECT_EQ( daemonPtr->readLine(), "sensord: ready" );
        EXPECT_TRUE( waitFor( [] { return nbrOfThreads() == 6; } ) );
        return daemonPtr;
    }

    static std::size_t nbrOfThreads()
    {
        const Outcome outcome = nuvctl( { "threads", "sensord", "--json" } );
        return outcome.exitStatus() == 0 ? Json::parse( outcome.output ).size() : 0;
    }

    static std::string severityOf( const std::string& zone )
    {
        const Json table = json( { "zones" } );
        for ( const Json& entry : table["zones"] ) {
            if ( entry["name"] == zone )
                return entry["severity"];
        }
        return {};
    }

    /// Reads lines up to one with the text. @return false if there is none
    static bool readUntil( ChildProcess& child, const std::string& text )
    {
        std::string line;
        do
            line = child.readLine();
        while ( line.find( text ) == std::string::npos && !HasFailure() );
        return !HasFailure();
    }

    static void stop( ChildProcess& daemon )
    {
        const bool isOrderly = doThreadsSurviveSignals();
        daemon.kill( isOrderly ? SIGTERM : SIGKILL );
        const Outcome outcome = daemon.wait();
        if ( isOrderly ) {
            EXPECT_EQ( outcome.exitStatus(), 0 );
        }
    }
};

} // namespace

TEST_F( Nuvctl, WrongUsageIsTwoAndNotFoundIsOneAndNothingIsCreated )
{
    const struct
    {
        std::vector< std::string > arguments;
        int status;
        const char* textPtr;
    } cases[] = {
        { {}, 2, "subcommand is required" },
        { { "unknown" }, 2, "no command \"unknown\"" },
        { { "paths", "extra" }, 2, "extra" },
        { { "--help" }, 0, "Exit status" },
        { { "zones", "set", "--help" }, 0, "put the old values back" },
        { { "zones", "set" }, 2, "--all" },
        { { "zones", "set", "x", "--all", "--severity", "debug" }, 2, "excludes" },
        { { "zones", "set", "x" }, 2, "nothing to set" },
        { { "zones", "set", "x", "--severity", "DEBUG" }, 2, "unknown severity" },
        { { "zones", "set", "x", "--flags", "appname,nonsense" }, 2, "nonsense" },
        { { "zones", "set", "x", "--severity", "debug", "--for", "0" }, 2, "--for" },
        { { "zones", "set", "x", "--severity", "debug" }, 1, "no zone table" },
        { { "zones" }, 1, "no zone table" },
        { { "log" }, 2, "subcommand is required" },
        { { "log", "zone" }, 2, "severity" },
        { { "log", "zone", "loud", "text" }, 2, "unknown severity" },
        { { "log", "zone", "none", "text" }, 2, "unknown severity" },
        { { "log", "cat" }, 1, "cannot be read" },
        { { "fifo", "missing" }, 1, "no FIFO" },
        { { "threads" }, 1, "no thread records" },
        { { "threads", "--interval-ms", "1" }, 2, "interval" },
        { { "paths" }, 1, "does not exist" },
        { { "ipc" }, 1, "does not exist" },
        { { "ipc", "doctor" }, 0, "no problem" },
        { { "ipc", "repair", "--yes" }, 1, "cannot be opened" },
        { { "ipc", "repair", "--json" }, 2, "--yes" },
        { { "check" }, 0, "the defaults hold" },
        { { "check", "missing.conf" }, 1, "cannot be read" },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.textPtr );
        const Outcome outcome = nuvctl( row.arguments );
        EXPECT_EQ( outcome.exitStatus(), row.status ) << outcome.output << outcome.errors;
        EXPECT_NE( ( outcome.output + outcome.errors ).find( row.textPtr ), std::string::npos )
            << outcome.output << outcome.errors;
    }
    EXPECT_NE( ::access( installation( "" ).c_str(), F_OK ), 0 ) << "a look created the root";
    EXPECT_TRUE( Nuv::Tools::readSemaphoreSets().empty() );
    EXPECT_TRUE( Nuv::Tools::readSegments().empty() );
}

TEST_F( Nuvctl, RootIsFoundAsTheLibraryFindsIt )
{
    const struct
    {
        const char* homeConfPtr;
        std::string root;
    } cases[] = {
        { "", root( "ixoRoot" ) },
        { "ixoRootPathname = /tmp/../srv/y/\n", "/srv/y" },
        { "ixoRootPathname = ???\n", root( "ixoRoot" ) },
        { "ixoRootPathname = \"\"\n", "" },
        { "[other]\nixoRootPathname = /srv/y\n", root( "ixoRoot" ) },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.homeConfPtr );
        writeFile( root( "nuvs.conf" ), row.homeConfPtr );
        const Outcome library = runInChild(
            [] { std::cout << Nuv::Io::Pathname( Nuv::Io::Pathname::rootDirectory ).str(); } );
        const Outcome tool = nuvctl( { "paths", "--json" } );
        const std::string found = Json::parse( tool.output )[0]["pathname"];
        EXPECT_EQ( found, library.output );
        if ( !row.root.empty() ) {
            EXPECT_EQ( found, row.root );
        }
    }
    ::unlink( root( "nuvs.conf" ).c_str() );
    std::system( "rm -rf /srv/y" );
}

TEST_F( Nuvctl, ShowsThreadsZonesAndObjectsOfARunningDaemon )
{
    const auto daemonPtr = startSensord( "[zone/net]\nseverity = debug\ndrain = null\n"
                                         "[drain/null]\ntype = null\n" );
    const Json threads = json( { "threads", std::to_string( daemonPtr->pid() ) } );
    ASSERT_EQ( threads.size(), 6u );
    EXPECT_EQ( threads[0]["description"], "Signal handler" );
    EXPECT_EQ( threads[1]["description"], "main" );
    EXPECT_EQ( threads[1]["wait"], "events" );
    EXPECT_EQ( threads[1]["status"], "sampling" );
    for ( const Json& thread : threads ) {
        EXPECT_EQ( thread["process"], "sensord" );
        EXPECT_EQ( thread["alive"], true );
        EXPECT_EQ( thread["state"], "running" );
    }
    EXPECT_EQ( nuvctl( { "threads", "other" } ).exitStatus(), 1 );

    const Json zones = json( { "zones" } );
    EXPECT_EQ( severityOf( "net" ), "debug" );
    EXPECT_EQ( severityOf( "mem" ), "warning" );
    EXPECT_EQ( zones["severityOverride"], nullptr );

    const Json ipc = json( { "ipc" } );
    EXPECT_EQ( ipc["master"]["value"], 1 );
    for ( const Json& semaphore : ipc["semaphores"] ) {
        EXPECT_EQ( semaphore["value"], 1 ) << semaphore;
        EXPECT_EQ( semaphore["useCount"], 1 ) << semaphore;
        EXPECT_EQ( semaphore["waiters"], 0 ) << semaphore;
    }
    ASSERT_EQ( ipc["segments"].size(), 2u ); // the zone table, the thread records
    for ( const Json& segment : ipc["segments"] )
        EXPECT_EQ( segment["attached"], Json::array( { daemonPtr->pid() } ) );
    EXPECT_TRUE( json( { "ipc", "doctor" } )["findings"].empty() );
    stop( *daemonPtr );
}

TEST_F( Nuvctl, ChangedZonesComeBackAfterTheTimeOrAnInterruption )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    const auto daemonPtr = startSensord( "[zone/net]\nseverity = error\n" );
    const Json before = json( { "zones" } );
    EXPECT_EQ( nuvctl( { "zones", "set", "net", "--severity", "debug", "--flags", "zonename" } )
                   .exitStatus(),
               0 );
    EXPECT_EQ( severityOf( "net" ), "debug" );
    EXPECT_EQ( json( { "zones" } )["presets"]["net"], "debug" );
    EXPECT_EQ( nuvctl( { "zones", "set", "net", "--severity", "error", "--flags",
                         "currenttime elapsedtime;appname+threadid,zonename,severity" } )
                   .exitStatus(),
               0 );

    const Json settled = json( { "zones" } );
    EXPECT_EQ( settled["zones"], before["zones"] );
    for ( const int sig : { 0, SIGINT, SIGTERM, SIGHUP } ) {
        SCOPED_TRACE( sig );
        ChildProcess set( tool( "nuvctl" ),
                          { { "zones", "set", "--all", "--severity", "debug", "--flags", "appname",
                              "--for", sig == 0 ? "1" : "1000" },
                            {} } );
        ASSERT_TRUE( readUntil( set, "put back" ) );
        if ( sig != 0 ) { // else the second may be over before the table is asked
            EXPECT_EQ( severityOf( "net" ), "debug" );
            EXPECT_EQ( severityOf( "sensor" ), "debug" );
            EXPECT_EQ( json( { "zones" } )["severityOverride"], "debug" );
            set.kill( sig );
        }
        EXPECT_EQ( set.wait().exitStatus(), 0 );
        EXPECT_EQ( json( { "zones" } ), settled );
    }
    // A zone that nobody has opened yet: its preset, and that goes again.
    ChildProcess set( tool( "nuvctl" ),
                      { { "zones", "set", "later", "--severity", "debug", "--for", "1000" }, {} } );
    ASSERT_TRUE( readUntil( set, "put back" ) );
    EXPECT_EQ( json( { "zones" } )["presets"]["later"], "debug" );
    set.kill( SIGTERM );
    EXPECT_EQ( set.wait().exitStatus(), 0 );
    EXPECT_EQ( json( { "zones" } ), settled );
    stop( *daemonPtr );
}

TEST_F( Nuvctl, WritesALineAndReadsTheLog )
{
    const auto daemonPtr = startSensord( "[zone/quiet]\nseverity = fatal\n" );
    EXPECT_EQ( nuvctl( { "log", "mine", "warning", "two", "words" } ).exitStatus(), 0 );
    EXPECT_EQ( nuvctl( { "log", "emit", "cat", "error", "a zone called cat" } ).exitStatus(), 0 );
    const Outcome refused = nuvctl( { "log", "quiet", "error", "unheard" } );
    EXPECT_EQ( refused.exitStatus(), 1 );
    EXPECT_NE( refused.errors.find( "passes \"fatal\"" ), std::string::npos ) << refused.errors;
    stop( *daemonPtr );

    const std::string log = nuvctl( { "log", "cat" } ).output;
    EXPECT_NE( log.find( "mine/W two words\n" ), std::string::npos ) << log;
    EXPECT_NE( log.find( "cat/E a zone called cat\n" ), std::string::npos ) << log;
    EXPECT_EQ( log.find( "unheard" ), std::string::npos );
    EXPECT_EQ( log.find( "END OF FILE" ), std::string::npos );
    EXPECT_EQ( nuvctl( { "log", "cat", installation( "log/main.log" ) } ).output, log );
    EXPECT_EQ( nuvctl( { "log", "cat", "main.log" } ).output, log );
    std::istringstream lines( nuvctl( { "log", "cat", "--json" } ).output );
    std::string line;
    std::string joined;
    while ( std::getline( lines, line ) )
        joined += Json::parse( line )["line"].get< std::string >() + "\n";
    EXPECT_EQ( joined, log );

    ChildProcess follow( tool( "nuvctl" ), { { "log", "follow" }, {} } );
    ASSERT_TRUE( readUntil( follow, "a zone called cat" ) );
    EXPECT_EQ( nuvctl( { "log", "mine", "warning", "new" } ).exitStatus(), 0 );
    ASSERT_TRUE( readUntil( follow, "mine/W new" ) );
    follow.kill( SIGINT );
    EXPECT_EQ( follow.wait().signal(), SIGINT );
}

TEST_F( Nuvctl, ShowsARingWithoutTakingFromIt )
{
    configure( "[logApp]\nenabled = true\nfifoSizeInK = 1\n" );
    ChildProcess writer( program( "logEmitter" ), { { "zone", "9", "entry" }, {} } );
    ASSERT_EQ( writer.readLine(), "done" );
    for ( int i = 0; i < 2; ++i ) {
        const Json ring = json( { "fifo", "logAppFifo" } );
        EXPECT_EQ( ring["sound"], true );
        EXPECT_EQ( ring["size"], 1028 );
        EXPECT_EQ( ring["attached"], Json::array( { writer.pid() } ) );
        ASSERT_FALSE( ring["entries"].empty() );
        const std::string newest = ring["entries"].back();
        EXPECT_NE( newest.find( "zone/W entry 8" ), std::string::npos ) << newest;
    }
    const Outcome lost = nuvctl( { "log", "zone", "warning", "text" } );
    EXPECT_EQ( lost.exitStatus(), 0 ) << lost.errors; // the writer keeps the ring alive
    writer.closeInput();
    EXPECT_EQ( writer.wait().exitStatus(), 0 );
    const Outcome alone = nuvctl( { "log", "zone", "warning", "text" } );
    EXPECT_EQ( alone.exitStatus(), 1 );
    EXPECT_NE( alone.errors.find( "is nuvlogd running?" ), std::string::npos ) << alone.errors;
}

TEST_F( Nuvctl, WorksAndRefusesInsteadOfHangingWhileADeadProcessHoldsTheMaster )
{
    const auto daemonPtr = startSensord( "" );
    // The set of one semaphore; taken by a process that does not give it back.
    for ( const Nuv::Tools::SemaphoreSet& set : Nuv::Tools::readSemaphoreSets() ) {
        if ( set.myNbrOfSemaphores != 1 )
            continue;
        const Outcome taker = runInChild( [&set] {
            sembuf take{ 0, -1, 0 };
            EXPECT_EQ( ::semop( set.myId, &take, 1 ), 0 );
        } );
        ASSERT_EQ( taker.exitStatus(), 0 );
    }
    ChildProcess blocked( tool( "sensord" ) ); // cannot start, and shows it
    const auto waitsForMaster = [] { return json( { "ipc" } )["master"]["waiters"] == 1; };
    EXPECT_TRUE( waitFor( waitsForMaster ) );
    EXPECT_EQ( nbrOfThreads(), 6u );
    EXPECT_EQ( severityOf( "net" ), "warning" );
    for ( const std::vector< std::string >& arguments :
          { std::vector< std::string >{ "zones", "set", "--all", "--severity", "debug" },
            std::vector< std::string >{ "log", "zone", "warning", "text" } } ) {
        const Outcome outcome = nuvctl( arguments );
        EXPECT_EQ( outcome.exitStatus(), 1 );
        EXPECT_NE( outcome.errors.find( "the master semaphore is taken by process" ),
                   std::string::npos )
            << outcome.errors;
    }
    const Json findings = json( { "ipc", "doctor" }, 1 )["findings"];
    ASSERT_EQ( findings.size(), 1u ) << findings;
    EXPECT_EQ( findings[0]["kind"], "master-taken" );
    EXPECT_EQ( findings[0]["certainty"], "certain" );

    ChildProcess asked( tool( "nuvctl" ), { { "ipc", "repair" }, {} } );
    asked.writeInput( "n\n" );
    asked.closeInput();
    EXPECT_EQ( asked.wait().exitStatus(), 1 );
    const Json repair = json( { "ipc", "repair", "--yes" } );
    EXPECT_EQ( repair["steps"].size(), 1u ) << repair;
    EXPECT_EQ( repair["steps"][0]["done"], true );
    EXPECT_TRUE( repair["left"].empty() ) << repair;
    EXPECT_EQ( blocked.readLine(), "sensord: ready" );
    stop( blocked );
    stop( *daemonPtr );
}

TEST_F( Nuvctl, MarksRecordsOfTheDeadAndRepairReleasesThem )
{
    const auto deadPtr = startSensord( "" );
    deadPtr->kill( SIGKILL );
    deadPtr->wait();
    const Json threads = json( { "threads", "sensord" } );
    ASSERT_EQ( threads.size(), 6u );
    for ( const Json& thread : threads )
        EXPECT_EQ( thread["alive"], false );
    EXPECT_NE( nuvctl( { "threads" } ).output.find( "(process is dead)" ), std::string::npos );
    const Outcome repair = nuvctl( { "ipc", "repair", "-y" } );
    EXPECT_EQ( repair.exitStatus(), 0 ) << repair.output << repair.errors;
    EXPECT_EQ( nuvctl( { "threads" } ).exitStatus(), 1 );
    EXPECT_TRUE( json( { "ipc" } )["semaphores"].empty() );
}

TEST_F( Nuvctl, CheckNamesWhatTheReaderForgives )
{
    const struct
    {
        const char* confPtr;
        const char* textPtr; // null: no mistake
    } cases[] = {
        { "timemode = utc\n[zone/a]\nseverity = WARNING\nflags = zonename+Severity\n", nullptr },
        { "timemode = gmt\n", "\"gmt\" is none of local, utc" },
        { "Timemode = utc\n", "meant is \"timemode\"" },
        { "[logging]\nx = 1\n", "section unknown" },
        { "[zone/a]\nseverity = loud\n", "\"loud\" is none of" },
        { "[zone/a]\nflags = zonename,colour\n", "unknown word \"colour\"" },
        { "[zone/a]\ndrain = b\n", "no section drain/b" },
        { "[zone/a]\nlevel = debug\n", "\"level\": unknown" },
        { "[zone/123456789012345A]\nseverity = error\n[zone/123456789012345B]\nseverity = debug\n",
          "equals \"123456789012345A\" in the first 15 characters" },
        { "[drain/d]\ntype = files\n", "\"files\" is none of" },
        { "[drain/d]\ntype = file\nfileMaxSizeInK = many\n", "\"many\" is no number" },
        { "[drain/d]\ntype = file\nfileMaxSizeInK = -1\n", "-1 is out of the range" },
        { "[drain/d]\ntype = file\nfileName = ../../etc\n", "is no regular file" },
        { "[drain/d]\ntype = file\nfileName = no/such/folder\n", "cannot be created" },
        { "[drain/d]\ntype = file\n[drain/e]\ntype = file\nfileName = d.log\n",
          "the drain d writes the same file" },
        { "[drain/d]\ntype = syslog\nfileName = x\n", "no meaning for the type \"syslog\"" },
        { "[drain/d]\ntype = http\nremoteAddr = 1.2.3\n", "no dotted address" },
        { "[drain/d]\ntype = http\nremotePort = 65536\n", "out of the range 1 to 65535" },
        { "[syslog]\nfacility = mail\n", "local6 is taken" },
        { "[logApp]\nenabled = yes\n", "stays disabled" },
        { "[zone/a\nseverity = error\n", ":1: " },
        { "[drain/d]\ntype = file\nfileName = \"open\n", ":3: [drain/d] \"fileName\": quote" },
    };
    ASSERT_EQ( std::system( ( "mkdir -p " + installation( "log" ) + " " + root( "etc" ) ).c_str() ),
               0 );
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.confPtr );
        configure( row.confPtr );
        const Outcome outcome = nuvctl( { "check", installation( "etc/log.conf" ) } );
        EXPECT_EQ( outcome.exitStatus(), row.textPtr == nullptr ? 0 : 1 );
        EXPECT_NE( outcome.output.find( row.textPtr == nullptr ? "no mistake" : row.textPtr ),
                   std::string::npos )
            << outcome.output;
    }
    writeFile( root( "other/nuvs.conf" ), "ixoRootPathname = here\ngroupName = nobody-at-all\n"
                                          "[WinNt]\nincludeSelf = perhaps\n" );
    const Json files = json( { "check", root( "other/nuvs.conf" ) }, 1 );
    ASSERT_EQ( files[0]["mistakes"].size(), 3u ) << files;
    for ( const Json& mistake : files[0]["mistakes"] )
        EXPECT_EQ( mistake["line"], nullptr );
}

TEST( ZoneTable, CountsOutOfRangeAreCut )
{
    std::string bytes( sizeof( Nuv::Log::ConfigManager::Data ), '\xff' );
    const auto table = Nuv::Ctl::ZoneTable::parse( bytes );
    ASSERT_TRUE( table );
    EXPECT_TRUE( table->myZones.empty() );    // -1
    EXPECT_EQ( table->myPresets.size(), 1u ); // 65535, cut to the table, all of one name
    bytes.replace( offsetof( Nuv::Log::ConfigManager::Data, myNbrOfZones ), 4, "\xff\xff\xff\x7f",
                   4 );
    EXPECT_EQ( Nuv::Ctl::ZoneTable::parse( bytes )->myZones.size(), 100u );
    bytes.pop_back();
    EXPECT_FALSE( Nuv::Ctl::ZoneTable::parse( bytes ) );
}

TEST( ToolTable, AlignsByCharactersAndShowsNoControlBytes )
{
    ::testing::internal::CaptureStdout();
    Nuv::Ctl::Table table( { "A", "B" } );
    table.add( { "\xc3\xa4\xc3\xb6", "x" } );
    table.add( { "long", "\x1b[2J" } );
    table.print();
    EXPECT_EQ( ::testing::internal::GetCapturedStdout(),
               "A     B\n\xc3\xa4\xc3\xb6    x\nlong  \\x1b[2J\n" );
    EXPECT_EQ( Nuv::Ctl::ageText( 1000, 0 ), "-" );
    EXPECT_EQ( Nuv::Ctl::ageText( 1000, 1005 ), "0 s" );
    EXPECT_EQ( Nuv::Ctl::ageText( 100000, 99881 ), "119 s" );
    EXPECT_EQ( Nuv::Ctl::ageText( 100000, 99880 ), "2 min" );
    EXPECT_EQ( Nuv::Ctl::ageText( 1000000, 1000000 - 7200 ), "2 h" );
}
