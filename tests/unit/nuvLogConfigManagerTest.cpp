#include "nuvLogConfigManager.h"

#include "nuvTestSupport.h"

#include <array>
#include <sstream>

namespace Nuv::Log {
namespace {

/// Processes with a root, and so a zone table, of their own. Each runs the commands of logProbe.
class LogConfig : public ::testing::Test
{
protected:
    void configure( const std::string& text ) const
    {
        NuvTest::writeFile( root( "etc/log.conf" ), text );
    }

    std::string root( const std::string& relative ) const
    {
        return myHome.path( "ixoRoot/" + relative );
    }

    NuvTest::Start start( const std::vector< std::string >& commands ) const
    {
        return { commands, { "HOME=" + myHome.path() } };
    }

    /// @return what the commands print
    std::string run( const std::vector< std::string >& commands ) const
    {
        const NuvTest::Outcome outcome =
            NuvTest::runProgram( NuvTest::program( "logProbe" ), start( commands ) );
        EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.errors;
        return outcome.output;
    }

    std::string log( const std::string& name ) const
    {
        return NuvTest::readFile( root( "log/" + name ) );
    }

    NuvTest::TemporaryFolder myHome;
};

using LogConfigFile = LogConfig;
using LogConfigTable = LogConfig;
using LogConfigBinding = LogConfig;

const std::string ourMarker( endOfFileMarker );

TEST_F( LogConfigFile, MissingOneGivesTheDefaults )
{
    EXPECT_EQ( "x warning 7e main\nmain file main.log 245760 127.1.128.1 80\n",
               run( { "zone x", "drain main" } ) );
}

TEST_F( LogConfigFile, ZoneSectionsAreReadForgivingly )
{
    configure( "[zone/upper]\nseverity = DeBuG\nflags = ZoneName+Severity\ndrain = d\n"
               "[zone/unknown]\nseverity = loud\nflags = loud quiet\n"
               "[zone/empty]\nflags =\n"
               "[zone/none]\nseverity = none\nflags = sequencenbr;currenttime\n"
               "[zone/abcdefghijklmnopqr]\nseverity = error\ndrain = abcdefghijklmnopqr\n"
               "[zone/a/b]\nseverity = timing\n"
               "[zone/number]\nseverity = 3\ndrain = 0x10\n" );
    const struct
    {
        const char* namePtr;
        const char* rowPtr;
    } cases[] = {
        { "upper", "upper debug 60 d\n" },
        { "unknown", "unknown warning 0 main\n" },
        { "empty", "empty warning 0 main\n" },
        { "none", "none none 3 main\n" },
        { "abcdefghijklmnoXYZ", "abcdefghijklmno error 7e abcdefghijklmno\n" },
        { "a/b", "a/b timing 7e main\n" },
        { "b", "b warning 7e main\n" },
        { "number", "number warning 7e 16\n" },
    };
    for ( const auto& one : cases )
        EXPECT_EQ( one.rowPtr, run( { std::string( "zone " ) + one.namePtr } ) );
}

TEST_F( LogConfigFile, DrainSectionsAreReadForgivingly )
{
    configure( "[drain/x]\ntype = File\n[drain/typeless]\nfileMaxSizeInK = 2\n"
               "[drain/named]\ntype = file\nfileName = n.txt\nfileMaxSizeInK = 0\n"
               "[drain/unknown]\ntype = pigeon\n[drain/text]\ntype=file\nfileMaxSizeInK = many\n"
               "[drain/big]\nfileMaxSizeInK = 4194305\n"
               "[drain/null]\ntype = NULL\nfileName = n\n[drain/err]\ntype = stderr\n"
               "[drain/out]\ntype = stdout\n[drain/sys]\ntype = syslog\n"
               "[drain/web]\ntype = http\nremotePort = 8080\nremoteAddr = 10.0.0.1\n"
               "[drain/port]\ntype = http\nremotePort = 65536\n"
               "[drain/abcdefghijklmnopqr]\ntype = file\n"
               "[drain/nowhere]\nfileName = missing/x.log\n" );
    const std::string rest = " 127.1.128.1 80\n";
    const std::array< std::array< std::string, 2 >, 14 > cases = { {
        { "x", "x file x.log 245760" + rest },
        { "typeless", "typeless file typeless.log 2048" + rest },
        { "named", "named file n.txt 0" + rest },
        { "unknown", "unknown file unknown.log 245760" + rest },
        { "text", "text file text.log 245760" + rest },
        { "big", "big file big.log 1024" + rest }, // multiplied in 32 bits
        { "null", "null null main.log 245760" + rest },
        { "err", "err stderr main.log 245760" + rest },
        { "out", "out stdout main.log 245760" + rest },
        { "sys", "sys syslog main.log 245760" + rest },
        { "web", "web http main.log 245760 10.0.0.1 8080\n" },
        { "port", "port http main.log 245760" + rest },
        { "abcdefghijklmnoX", "abcdefghijklmno file abcdefghijklmno.log 245760" + rest },
        { "nowhere", "nowhere null missing/x.log 245760" + rest },
    } };
    std::vector< std::string > commands;
    std::string expected;
    for ( const auto& one : cases ) {
        commands.push_back( "drain " + one[0] );
        expected += one[1];
    }
    EXPECT_EQ( expected, run( commands ) );
}

TEST_F( LogConfigFile, TimeModeIsUniversalIfItSaysSo )
{
    const struct
    {
        const char* confPtr;
        bool isUniversal;
    } cases[] = { { "timemode = utc\n", true }, { "timemode = UTC\n", false }, { "", false } };
    for ( const auto& one : cases ) {
        SCOPED_TRACE( one.confPtr );
        configure( std::string( one.confPtr ) + "[zone/x]\nflags = currenttime\ndrain = x\n"
                                                "[drain/x]\ntype = stderr\n" );
        // A zone half an hour off shows in the minutes, which pass between two calls at most once.
        NuvTest::Start here = start( { "log x error text" } );
        here.environment.push_back( "TZ=XXX-0:30" );
        const auto minutes = []( std::time_t time ) { return time / 60 % 60; };
        const std::time_t before = std::time( nullptr );
        const NuvTest::Outcome outcome =
            NuvTest::runProgram( NuvTest::program( "logProbe" ), here );
        const std::time_t after = std::time( nullptr );
        const std::time_t shown = std::stol( outcome.errors.substr( 13, 2 ) );
        const std::time_t offset = one.isUniversal ? 0 : 1800;
        EXPECT_TRUE( shown == minutes( before + offset ) || shown == minutes( after + offset ) )
            << outcome.errors;
    }
}

TEST_F( LogConfigTable, FirstProcessDecidesAZoneAndAnyChangesIt )
{
    configure( "[zone/x]\nseverity = error\n" );
    NuvTest::ChildProcess holder( NuvTest::program( "logProbe" ),
                                  start( { "source x debug", "ready", "wait", "emit late" } ) );
    EXPECT_EQ( "ready", holder.readLine() );
    configure( "[zone/x]\nseverity = timing\n" );
    EXPECT_EQ( "x error 7e main\n", run( { "zone x" } ) ) << "the file is not read again";
    EXPECT_EQ( "1\n0\n0\nx debug 7e main\n",
               run( { "severity x debug", "severity x DEBUG", "severity x loud", "zone x" } ) );
    run( { "flags x 20" } );
    holder.writeInput( "go\n" );
    EXPECT_EQ( 0, holder.wait().exitStatus() );
    EXPECT_EQ( "x late\n" + ourMarker, log( "main.log" ) )
        << "seen by the running process at its next statement";
    EXPECT_EQ( "x timing 7e main\n", run( { "zone x" } ) ) << "the table went with its last user";
}

TEST_F( LogConfigTable, PresetWinsOverOverrideWinsOverFile )
{
    configure( "[zone/a]\nseverity = error\nflags = zonename\n[zone/c]\nseverity = error\n" );
    EXPECT_EQ(
        "1\na debug 7f main\nb debug 7f main\n1\nc timing 7f main\n1\nd fatal 7f main\n"
        "1\nc none 7f main\nd none 7f main\n",
        run( { "severity * debug", "flags * 7f", "zone a", "zone b", "severity c timing", "zone c",
               "severity d fatal", "zone d", "severity * none", "zone c", "zone d" } ) );
    EXPECT_EQ( "n warning 7e main\n", run( { "flags n 20", "zone n" } ) )
        << "flags are not kept for a zone that does not exist";
    EXPECT_EQ( "1\nabcdefghijklmno error 7e main\n",
               run( { "severity abcdefghijklmnopq error", "zone abcdefghijklmnoXYZ" } ) );
}

TEST_F( LogConfigTable, FullZoneTableGivesRecordsOfTheProcess )
{
    configure( "[zone/over]\nseverity = error\nflags = zonename\n" );
    NuvTest::ChildProcess filler( NuvTest::program( "logProbe" ),
                                  start( { "fill 120", "ready", "wait" } ) );
    filler.readLine();
    EXPECT_EQ( "over error 20 main\n1\nover debug 20 main\n1\nover timing 1 main\n",
               run( { "zone over", "severity over debug", "zone over", "severity * timing",
                      "flags over 1", "zone over" } ) );
    std::istringstream table( run( { "zones" } ) );
    std::string row;
    int nbrOfRows = 0;
    for ( ; std::getline( table, row ); ++nbrOfRows )
        EXPECT_EQ( "fill" + std::to_string( nbrOfRows ) + " timing 7e main", row );
    EXPECT_EQ( 100, nbrOfRows );
    run( { "log over error text" } );
    EXPECT_TRUE( log( "main.log" ).find( "over text\n" ) != std::string::npos );
    filler.closeInput();
    EXPECT_EQ( 0, filler.wait().exitStatus() );
}

TEST_F( LogConfigTable, FullPresetTableRefuses )
{
    EXPECT_EQ( "101 presets, 4 refused\n1\n0\nx warning 7e main\n0\nx debug 7e main\n",
               run( { "presets 105", "severity preset100 debug", "severity x debug", "zone x",
                      "severity x debug", "zone x" } ) );
}

TEST_F( LogConfigTable, DamagedTableIsNeverFollowed )
{
    EXPECT_EQ( "x warning 7e main\n0\nx debug 7e main\n",
               run( { "damage 999999 65535 77", "zone x", "severity x debug", "zone x" } ) )
        << "full: the zone is the process's own";
    EXPECT_EQ( "x warning 7e main\ny warning 7e main\ny warning 7e main\n",
               run( { "zone x", "damage -5 0 0", "zone y", "zones" } ) )
        << "empty";
    EXPECT_EQ( "x warning 7e main\n#damaged debug 7e main\n",
               run( { "zone x", "damage 1 0 -3", "zone #damaged" } ) );
    EXPECT_EQ( "x warning 7e main\n#damaged none 7e main\n",
               run( { "zone x", "damage 1 0 7", "zone #damaged" } ) );
}

TEST_F( LogConfigBinding, SourcesMadeMeanwhileAreBoundInOrderAndSilentUntilThen )
{
    configure( "[zone/first]\nflags=zonename\n[zone/third]\nflags=zonename\n"
               "[zone/Nuv]\nflags=zonename\n[zone/Syslog]\nflags=zonename\n"
               "[zone/builder]\nflags=zonename\n" );
    const std::string rows = run( { "pending", "zones" } );
    EXPECT_EQ( "first warning 20 main\nthird warning 20 main\nSyslog warning 20 main\n"
               "builder warning 20 main\nNuv warning 20 main\n",
               rows );
    EXPECT_EQ( "builder builder\nfirst bound\nthird bound\nSyslog bound\nNuv bound\n" + ourMarker,
               log( "main.log" ) );
}

TEST_F( LogConfigBinding, HttpDrainSaysTimeZoneAndSeverityItself )
{
    configure( "[zone/w]\ndrain = w\n[drain/w]\ntype = http\n" );
    EXPECT_EQ( "w warning 7e w\nw warning 18 w\n",
               run( { "zone w", "source w error", "zone w" } ) );
}

TEST_F( LogConfigBinding, DrainIsClosedWithItsLastSource )
{
    ConfigManager& manager = *ConfigManager::singletonPtr();
    auto aPtr = std::make_unique< Source >( error, "x" );
    Drain* const drainPtr = aPtr->drainPtr();
    EXPECT_EQ( "main", drainPtr->name().view() );
    {
        const Source b( error, "y" );
        EXPECT_EQ( drainPtr, b.drainPtr() ) << "one per name";
    }
    aPtr.reset();
    manager.closeDrain( nullptr );
    Drain* const againPtr = manager.openDrain( "other" );
    EXPECT_EQ( againPtr, manager.openDrain( "other" ) );
    manager.closeDrain( againPtr );
    EXPECT_EQ( againPtr, manager.openDrain( "other" ) ) << "one reference was left";
    manager.closeDrain( againPtr );
    manager.closeDrain( againPtr );
}

TEST_F( LogConfigBinding, SourceThatOutlivesTheManagerIsUnboundAgain )
{
    configure( "[zone/late]\nflags = zonename\n" );
    EXPECT_EQ( "", run( { "late" } ) );
    EXPECT_EQ( "late in time\n" + ourMarker, log( "main.log" ) );
}

TEST_F( LogConfigBinding, WithoutInterprocessObjectsSourcesThrowAndTheLibraryDoesNot )
{
    NuvTest::writeFile( root( "tmp" ), "no directory" );
    EXPECT_EQ( "exception nuvCheckResource",
               run( { "standard lost", "log x error lost" } ).substr( 0, 26 ) );
}

TEST_F( LogConfigBinding, ForkedChildLogsWhateverOtherThreadsHold )
{
    EXPECT_EQ( "100 children\n", run( { "source child error", "fork" } ) );
}

// ---------------------------------------------------------------------------- log application

class LogConfigApp : public LogConfig
{
protected:
    LogConfigApp()
    {
        configure( "[logApp]\nenabled = true\nzoneAndDrainName = theLogApplication\n"
                   "fileName = app.log\nfileMaxSizeInK = 1\nfifoName = theFifoOfTheApp\n"
                   "fifoSizeInK = 1\n"
                   "[zone/sys]\ndrain = syslog\n[zone/x]\nflags = zonename\ndrain = main\n" );
    }
};

TEST_F( LogConfigApp, ZonesWriteIntoTheFifoUnlessBoundToTheSystemLog )
{
    EXPECT_EQ( "x warning 20 theFifoOfTheApp\nsys warning 7e syslog\n"
               "theLogApplicati none 0 theLogApplicati\nx warning 20 theFifoOfTheApp\n"
               "sys warning 7e syslog\n"
               "theLogApplicati file app.log 1024 127.1.128.1 80\n"
               "theFifoOfTheApp fifo theFifoOfTheApp 1024 127.1.128.1 80\n",
               run( { "zone x", "zone sys", "zones", "drain theLogApplication",
                      "drain theFifoOfTheApp" } ) );
    EXPECT_EQ( "<x text>\n", run( { "log x error text", "fifo" } ) );
    EXPECT_EQ( "", log( "app.log" ) );
}

TEST_F( LogConfigApp, ItsOwnZoneIsLeftOutOfChangesOfAll )
{
    EXPECT_EQ( "x warning 20 theFifoOfTheApp\n1\ntheLogApplicati none 0 theLogApplicati\n"
               "x debug 7f theFifoOfTheApp\n1\ntheLogApplicati error 0 theLogApplicati\n"
               "x debug 7f theFifoOfTheApp\n",
               run( { "zone x", "severity * debug", "flags * 7f", "zones",
                      "severity theLogApplication error", "zones" } ) );
}

TEST_F( LogConfigApp, MessageThatForcesOthersOutIsOneOverrun )
{
    // 85 entries of 12 bytes leave 8 of 1028; each of 256 then forces many out.
    EXPECT_EQ(
        "0\n0\n0\n3\n3\n0\n",
        run( { "source x error", "repeat 85 a", "overruns",
               "log x error " + std::string( 250, 'b' ), "log x error " + std::string( 250, 'c' ),
               "log x error " + std::string( 250, 'd' ), "overruns" } ) );
}

TEST_F( LogConfigApp, UselessFifoSizeIsTheDefault )
{
    configure( "[logApp]\nenabled = true\nfifoSizeInK = 0\n" );
    EXPECT_EQ( "logAppFifo fifo logAppFifo 245760 127.1.128.1 80\n",
               run( { "drain logAppFifo" } ) );
    configure( "[logApp]\nenabled = yes\n" );
    EXPECT_EQ( "exception nuvAssert: Condition failed: myInterprocessDrainPtr != NULL",
               run( { "fifo" } ).substr( 0, 69 ) );
}

TEST_F( LogConfigApp, OneNameForFileAndFifoLosesNeither )
{
    configure( "[logApp]\nenabled = true\nzoneAndDrainName = same\nfifoName = same\n" );
    EXPECT_EQ( "same fifo same 245760 127.1.128.1 80\n",
               run( { "drain same", "log x error text" } ) );
}

} // namespace
} // namespace Nuv::Log
