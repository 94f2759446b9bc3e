#include "nuvToolFixture.h"
#include "nuvctlCheck.h"
#include "nuvctlZones.h"

#include "nuvPathname.h"

#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <tuple>
#include <unistd.h>

namespace {

using namespace NuvTest;
using Json = nlohmann::json;

class Nuvctl : public ToolFixture
{
protected:
    static std::string severityOf( const std::string& zone )
    {
        const Json table = json( { "zones" } );
        for ( const Json& entry : table["zones"] ) {
            if ( entry["name"] == zone )
                return entry["severity"];
        }
        return {};
    }

    /// Reads lines up to one with the text.
    static void readUntil( ChildProcess& child, const std::string& text )
    {
        while ( child.readLine().find( text ) == std::string::npos && !HasFailure() ) {
        }
    }

    /// A daemon that logs through several zones straight into log/main.log.
    class Sensord : public ChildProcess
    {
    public:
        explicit Sensord( const std::string& logConf )
            : ChildProcess( ( configure( logConf ), tool( "sensord" ) ),
                            { { "--interval-ms", "50" }, {} } )
        {
            EXPECT_EQ( readLine(), "sensord: ready" );
            EXPECT_TRUE( waitFor( [] {
                const Outcome outcome = nuvctl( { "threads", "sensord", "--json" } );
                return outcome.exitStatus() == 0 && Json::parse( outcome.output ).size() == 6;
            } ) );
        }
        void stop()
        {
            kill( doThreadsSurviveSignals() ? SIGTERM : SIGKILL );
            EXPECT_EQ( wait().exitStatus(), doThreadsSurviveSignals() ? 0 : -1 );
        }
    };
};

} // namespace

TEST_F( Nuvctl, WrongUsageIsTwoAndNotFoundIsOneAndNothingIsCreated )
{
    const std::tuple< int, const char*, std::vector< std::string > > cases[] = {
        { 2, "subcommand is required", {} },
        { 2, "no command \"unknown\"", { "unknown" } },
        { 0, "Exit status", { "--help" } },
        { 2, "excludes", { "zones", "set", "x", "--all", "--severity", "debug" } },
        { 2, "unknown severity", { "zones", "set", "x", "--severity", "DEBUG" } },
        { 2, "nonsense", { "zones", "set", "x", "--flags", "appname,nonsense" } },
        { 2, "--for", { "zones", "set", "x", "--severity", "debug", "--for", "0" } },
        { 1, "no zone table", { "zones", "set", "x", "--severity", "debug" } },
        { 2, "unknown severity", { "log", "zone", "none", "text" } },
        { 1, "cannot be read", { "log", "cat" } },
        { 1, "no FIFO", { "fifo", "missing" } },
        { 1, "no thread records", { "threads" } },
        { 2, "interval", { "threads", "--interval-ms", "1" } },
        { 0, "no problem", { "ipc", "doctor" } },
        { 1, "cannot be opened", { "ipc", "repair", "--yes" } },
        { 2, "--yes", { "ipc", "repair", "--json" } },
        { 1, "cannot be read", { "check", "missing.conf" } },
    };
    for ( const auto& [status, textPtr, arguments] : cases )
        expect( status, textPtr, arguments );
    EXPECT_NE( ::access( installation( "" ).c_str(), F_OK ), 0 ) << "a look created the root";
    EXPECT_TRUE( Nuv::Tools::readSemaphoreSets().empty() && Nuv::Tools::readSegments().empty() );
}

TEST_F( Nuvctl, RootIsFoundAsTheLibraryFindsIt )
{
    for ( const char* const homeConfPtr :
          { "", "ixoRootPathname = /tmp/../srv/y/\n", "ixoRootPathname = ???\n",
            "ixoRootPathname = \"\"\n", "[other]\nixoRootPathname = /srv/y\n" } ) {
        SCOPED_TRACE( homeConfPtr );
        writeFile( root( "nuvs.conf" ), homeConfPtr );
        const Outcome library = runInChild(
            [] { std::cout << Nuv::Io::Pathname( Nuv::Io::Pathname::rootDirectory ).str(); } );
        EXPECT_EQ( Json::parse( nuvctl( { "paths", "--json" } ).output )[0]["pathname"],
                   library.output );
    }
    ::unlink( root( "nuvs.conf" ).c_str() );
    std::system( "rm -rf /srv/y" );
}

TEST_F( Nuvctl, ShowsThreadsZonesAndObjectsOfADaemonAndReleasesThoseOfADeadOne )
{
    Sensord daemon( "[zone/net]\nseverity = debug\ndrain = null\n"
                    "[drain/null]\ntype = null\n" );
    const Json threads = json( { "threads", std::to_string( daemon.pid() ) } );
    ASSERT_EQ( threads.size(), 6u );
    EXPECT_EQ( threads[1]["description"], "main" );
    EXPECT_EQ( threads[1]["wait"], "events" );
    EXPECT_EQ( threads[1]["status"], "sampling" );
    for ( const Json& thread : threads )
        EXPECT_TRUE( thread["process"] == "sensord" && thread["alive"] == true ) << thread;
    expect( 1, "other", { "threads", "other" } );
    EXPECT_EQ( severityOf( "net" ), "debug" );
    EXPECT_EQ( severityOf( "mem" ), "warning" );
    const Json ipc = json( { "ipc" } );
    EXPECT_EQ( ipc["master"]["value"], 1 );
    for ( const Json& semaphore : ipc["semaphores"] )
        EXPECT_TRUE( semaphore["value"] == 1 && semaphore["useCount"] == 1 ) << semaphore;
    ASSERT_EQ( ipc["segments"].size(), 2u ); // the zone table, the thread records
    for ( const Json& segment : ipc["segments"] )
        EXPECT_EQ( segment["attached"], Json::array( { daemon.pid() } ) );
    EXPECT_TRUE( json( { "ipc", "doctor" } )["findings"].empty() );

    daemon.kill( SIGKILL );
    daemon.wait();
    for ( const Json& thread : json( { "threads", "sensord" } ) )
        EXPECT_EQ( thread["alive"], false );
    expect( 0, "(process is dead)", { "threads" } );
    expect( 0, "", { "ipc", "repair", "-y" } );
    expect( 1, "no thread records", { "threads" } );
    EXPECT_TRUE( json( { "ipc" } )["semaphores"].empty() );
}

TEST_F( Nuvctl, ChangedZonesComeBackAfterTheTimeOrAnInterruption )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    Sensord daemon( "[zone/net]\nseverity = error\n" );
    const Json before = json( { "zones" } );
    expect( 0, "", { "zones", "set", "net", "--severity", "debug", "--flags", "zonename" } );
    EXPECT_EQ( severityOf( "net" ), "debug" );
    EXPECT_EQ( json( { "zones" } )["presets"]["net"], "debug" );
    expect( 0, "",
            { "zones", "set", "net", "--severity", "error", "--flags",
              "currenttime elapsedtime;appname+threadid,zonename,severity" } );

    const Json settled = json( { "zones" } );
    EXPECT_EQ( settled["zones"], before["zones"] );
    // "later" is a zone that nobody has opened yet: it gets a preset, which goes again.
    const std::tuple< int, const char*, const char* > cases[] = { { 0, "net", "1" },
                                                                  { SIGINT, "--all", "1000" },
                                                                  { SIGTERM, "net", "1000" },
                                                                  { SIGHUP, "later", "1000" } };
    for ( const auto& [sig, zonePtr, secondsPtr] : cases ) {
        SCOPED_TRACE( zonePtr );
        ChildProcess set( tool( "nuvctl" ), { { "zones", "set", zonePtr, "--severity", "debug",
                                                "--flags", "appname", "--for", secondsPtr },
                                              {} } );
        readUntil( set, "put back" );
        if ( sig != 0 ) { // else the second may be over before the table is asked
            const Json zones = json( { "zones" } );
            EXPECT_EQ( severityOf( "net" ), sig == SIGHUP ? "error" : "debug" );
            EXPECT_EQ( zones["severityOverride"] == "debug", sig == SIGINT );
            EXPECT_EQ( zones["presets"].contains( "later" ), sig == SIGHUP ) << zones;
            set.kill( sig );
        }
        EXPECT_EQ( set.wait().exitStatus(), 0 );
        EXPECT_EQ( json( { "zones" } ), settled );
    }
    daemon.stop();
}

TEST_F( Nuvctl, WritesALineAndReadsTheLog )
{
    Sensord daemon( "[zone/quiet]\nseverity = fatal\n" );
    expect( 0, "", { "log", "mine", "warning", "two", "words" } );
    expect( 0, "", { "log", "emit", "cat", "error", "a zone called cat" } );
    expect( 1, "passes \"fatal\"", { "log", "quiet", "error", "unheard" } );
    daemon.stop();

    const std::string log = nuvctl( { "log", "cat" } ).output;
    EXPECT_NE( log.find( "mine/W two words\n" ), std::string::npos ) << log;
    EXPECT_NE( log.find( "cat/E a zone called cat\n" ), std::string::npos ) << log;
    EXPECT_TRUE( log.find( "unheard" ) == std::string::npos &&
                 log.find( "END OF" ) == std::string::npos );
    EXPECT_EQ( nuvctl( { "log", "cat", "main.log" } ).output, log );
    ChildProcess follow( tool( "nuvctl" ), { { "log", "follow" }, {} } );
    readUntil( follow, "a zone called cat" );
    expect( 0, "", { "log", "mine", "warning", "new" } );
    readUntil( follow, "mine/W new" );
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
        EXPECT_TRUE( ring["sound"] == true && ring["size"] == 1028 ) << ring;
        EXPECT_EQ( ring["attached"], Json::array( { writer.pid() } ) );
        const std::string newest = ring["entries"].back();
        EXPECT_NE( newest.find( "zone/W entry 8" ), std::string::npos ) << newest;
    }
    expect( 0, "", { "log", "zone", "warning", "text" } ); // the writer keeps the ring alive
    writer.closeInput();
    EXPECT_EQ( writer.wait().exitStatus(), 0 );
    expect( 1, "is nuvlogd running?", { "log", "zone", "warning", "text" } );
}

TEST_F( Nuvctl, WorksAndRefusesInsteadOfHangingWhileADeadProcessHoldsTheMaster )
{
    Sensord daemon( "" );
    // The set of one semaphore; taken by a process that does not give it back.
    for ( const Nuv::Tools::SemaphoreSet& set : Nuv::Tools::readSemaphoreSets() ) {
        sembuf take{ 0, -1, 0 };
        if ( set.myNbrOfSemaphores == 1 )
            runInChild( [&] { ::semop( set.myId, &take, 1 ); } );
    }
    ChildProcess blocked( tool( "sensord" ) ); // cannot start, and shows it
    EXPECT_TRUE( waitFor( [] { return json( { "ipc" } )["master"]["waiters"] == 1; } ) );
    EXPECT_EQ( json( { "threads", "sensord" } ).size(), 6u );
    EXPECT_EQ( severityOf( "net" ), "warning" );
    constexpr char taken[] = "the master semaphore is taken by process";
    expect( 1, taken, { "zones", "set", "--all", "--severity", "debug" } );
    expect( 1, taken, { "log", "zone", "warning", "text" } );
    const Json findings = json( { "ipc", "doctor" }, 1 )["findings"];
    ASSERT_EQ( findings.size(), 1u ) << findings;
    EXPECT_TRUE( findings[0]["kind"] == "master-taken" && findings[0]["certainty"] == "certain" );

    ChildProcess asked( tool( "nuvctl" ), { { "ipc", "repair" }, {} } );
    asked.writeInput( "n\n" );
    asked.closeInput();
    EXPECT_EQ( asked.wait().exitStatus(), 1 );
    const Json repair = json( { "ipc", "repair", "--yes" } );
    EXPECT_TRUE( repair["steps"][0]["done"] == true && repair["left"].empty() ) << repair;
    EXPECT_EQ( blocked.readLine(), "sensord: ready" );
    daemon.stop();
}

TEST_F( Nuvctl, CheckNamesWhatTheReaderForgives )
{
    const std::pair< const char*, const char* > cases[] = {
        { "timemode = utc\n[zone/a]\nseverity = WARNING\nflags = appname+Severity\n",
          "no mistake" },
        { "timemode = gmt\n", "\"gmt\" is none of local, utc" },
        { "Timemode = utc\n", "meant is \"timemode\"" },
        { "[zone/a]\nflags = zonename,colour\n", "unknown word \"colour\"" },
        { "[zone/a]\ndrain = b\n", "no section drain/b" },
        { "[zone/123456789012345A]\nseverity = error\n[zone/123456789012345B]\nseverity = debug\n",
          "equals \"123456789012345A\" in the first 15 characters" },
        { "[drain/d]\ntype = file\nfileMaxSizeInK = many\n", "\"many\" is no number" },
        { "[drain/d]\ntype = file\nfileName = no/such/folder\n", "cannot be created" },
        { "[drain/d]\ntype = file\n[drain/e]\ntype = file\nfileName = d.log\n",
          "the drain d writes the same file" },
        { "[drain/d]\ntype = syslog\nfileName = x\n", "no meaning for the type \"syslog\"" },
        { "[drain/d]\ntype = http\nremotePort = 65536\n", "out of the range 1 to 65535" },
        { "[syslog]\nfacility = mail\n", "local6 is taken" },
        { "[logApp]\nenabled = yes\n", "stays disabled" },
        { "[zone/a\nseverity = error\n", ":1: " },
        { "[drain/d]\ntype = file\nfileName = \"open\n", ":3: [drain/d] \"fileName\": quote" },
    };
    ASSERT_EQ( std::system( ( "mkdir -p " + installation( "log" ) + " " + root( "etc" ) ).c_str() ),
               0 );
    for ( const auto& [confPtr, textPtr] : cases ) {
        SCOPED_TRACE( confPtr );
        configure( confPtr );
        expect( textPtr == std::string( "no mistake" ) ? 0 : 1, textPtr,
                { "check", installation( "etc/log.conf" ) } );
    }
    writeFile( root( "other/nuvs.conf" ), "ixoRootPathname = here\ngroupName = nobody-at-all\n"
                                          "[WinNt]\nincludeSelf = perhaps\n" );
    EXPECT_EQ( json( { "check", root( "other/nuvs.conf" ) }, 1 )[0]["mistakes"].size(), 3u );
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
}
