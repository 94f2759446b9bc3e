#include "nuvLogConfigManager.h"

#include "nuvTestSupport.h"

#include <algorithm>
#include <filesystem>

namespace Nuv::Log {
namespace {

const std::string ourMarker( endOfFileMarker );

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
        const NuvTest::Outcome result =
            NuvTest::runProgram( NuvTest::program( "logProbe" ), start( commands ) );
        EXPECT_EQ( 0, result.exitStatus() ) << result.errors;
        return result.output;
    }
    std::string log() const { return NuvTest::readFile( root( "log/main.log" ) ); }

    NuvTest::TemporaryFolder myHome;
};

TEST_F( LogConfig, FileIsReadForgivingly )
{
    EXPECT_EQ( "x warning 7e main\nmain file main.log 245760 127.1.128.1 80\n",
               run( { "zone x", "drain main" } ) )
        << "without one";
    const std::string rest = " 127.1.128.1 80";
    const std::pair< std::string, std::string > cases[] = {
        { "[zone/up]\nseverity = DeBuG\nflags = ZoneName+Severity\ndrain = d", "up debug 60 d" },
        { "[zone/bad]\nseverity = loud\nflags = loud quiet", "bad warning 0 main" },
        { "[zone/n]\nseverity = none\nflags = sequencenbr;currenttime", "n none 3 main" },
        { "[zone/abcdefghijklmnopqr]\ndrain = abcdefghijklmnopqr",
          "abcdefghijklmno warning 7e abcdefghijklmno" },
        { "[zone/a/b]\nseverity = timing", "a/b timing 7e main" },
        { "[zone/number]\nseverity = 3\ndrain = 0x10", "number warning 7e 16" },
        { "[drain/x]\ntype = File", "x file x.log 245760" + rest },
        { "[drain/size]\nfileMaxSizeInK = 2", "size file size.log 2048" + rest },
        { "[drain/m]\ntype=file\nfileName = n.txt\nfileMaxSizeInK=0", "m file n.txt 0" + rest },
        { "[drain/fifo]\ntype = fifo", "fifo file fifo.log 245760" + rest },
        { "[drain/text]\nfileMaxSizeInK = many", "text file text.log 245760" + rest },
        { "[drain/big]\nfileMaxSizeInK = 4194305", "big file big.log 1024" + rest }, // 32 bits
        { "[drain/null]\ntype = NULL\nfileName = n", "null null main.log 245760" + rest },
        { "[drain/err]\ntype = stderr", "err stderr main.log 245760" + rest },
        { "[drain/out]\ntype = stdout", "out stdout main.log 245760" + rest },
        { "[drain/sys]\ntype = syslog", "sys syslog main.log 245760" + rest },
        { "[drain/web]\ntype = http\nremotePort = 8080\nremoteAddr = 10.0.0.1",
          "web http main.log 245760 10.0.0.1 8080" },
        { "[drain/port]\ntype = http\nremotePort=65536", "port http main.log 245760" + rest },
        { "[drain/off]\nfileName = missing/x.log", "off null missing/x.log 245760" + rest },
    };
    std::string text;
    std::vector< std::string > commands;
    std::string expected;
    for ( const auto& [section, row] : cases ) {
        text += section + "\n";
        commands.push_back( section.substr( 1, section.find( '/' ) - 1 ) + ' ' +
                            row.substr( 0, row.find( ' ' ) ) );
        expected += row + "\n";
    }
    commands.push_back( "timemode" );
    configure( "timemode = utc\n" + text );
    EXPECT_EQ( expected + "universal\n", run( commands ) );
    configure( "timemode = UTC\n" );
    EXPECT_EQ( "local\n", run( { "timemode" } ) );
}

TEST_F( LogConfig, FirstProcessDecidesAZoneAndAnyChangesIt )
{
    configure( "[zone/x]\nseverity = error\n" );
    NuvTest::ChildProcess holder( NuvTest::program( "logProbe" ),
                                  start( { "source x debug", "ready", "wait", "emit late" } ) );
    EXPECT_EQ( "ready", holder.readLine() );
    configure( "[zone/x]\nseverity = timing\n" );
    EXPECT_EQ( "x error 7e main\n1\n0\n0\nx debug 20 main\n",
               run( { "zone x", "severity x debug", "severity x DEBUG", "severity x loud",
                      "flags x 20", "zone x" } ) )
        << "the file is not read again";
    holder.writeInput( "go\n" );
    EXPECT_EQ( 0, holder.wait().exitStatus() );
    EXPECT_EQ( "x late\n" + ourMarker, log() ) << "seen at the next statement";
    EXPECT_EQ( "x timing 7e main\n", run( { "zone x" } ) ) << "the table went with its last user";
}

TEST_F( LogConfig, PresetWinsOverOverrideWinsOverFile )
{
    configure( "[zone/a]\nseverity = error\nflags = zonename\n[zone/c]\nseverity = error\n" );
    EXPECT_EQ(
        "1\na debug 7f main\nb debug 7f main\n1\nc timing 7f main\n1\nd fatal 7f main\n"
        "1\nc none 7f main\nd none 7f main\n",
        run( { "severity * debug", "flags * 7f", "zone a", "zone b", "severity c timing", "zone c",
               "severity d fatal", "zone d", "severity * none", "zone c", "zone d" } ) );
    EXPECT_EQ( "1\nabcdefghijklmno error 7e main\nn warning 7e main\n",
               run( { "severity abcdefghijklmnopq error", "zone abcdefghijklmnoXYZ", "flags n 20",
                      "zone n" } ) )
        << "flags are not kept for a zone that does not exist";
}

TEST_F( LogConfig, FullZoneTableGivesRecordsOfTheProcessAndAFullPresetTableRefuses )
{
    std::vector< std::string > commands;
    for ( int i = 0; i < 103; ++i )
        commands.push_back( "severity preset" + std::to_string( i ) + " debug" );
    commands.insert( commands.end(), { "severity preset100 timing", "zone preset100", "zone x",
                                       "severity x debug", "zone x" } );
    EXPECT_TRUE( run( commands )
                     .ends_with( "\n1\n0\n0\n1\npreset100 timing 7e main\nx warning 7e main\n0\nx "
                                 "debug 7e main\n" ) );
    configure( "[zone/over]\nseverity = error\nflags = zonename\n" );
    NuvTest::ChildProcess filler( NuvTest::program( "logProbe" ),
                                  start( { "fill 120", "ready", "wait" } ) );
    filler.readLine();
    EXPECT_EQ( "over error 20 main\n1\nover debug 20 main\n1\nover timing 1 main\n",
               run( { "zone over", "severity over debug", "zone over", "severity * timing",
                      "flags over 1", "zone over", "log over error text" } ) );
    EXPECT_EQ( "00000000 text\n" + ourMarker, log() );
    const std::string rows = run( { "zones" } );
    EXPECT_EQ( 100, std::ranges::count( rows, '\n' ) );
    EXPECT_TRUE( rows.ends_with( "fill99 timing 7e main\n" ) ) << rows;
    filler.closeInput();
    EXPECT_EQ( 0, filler.wait().exitStatus() );
}

TEST_F( LogConfig, DamagedTableIsNeverFollowed )
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

TEST_F( LogConfig, SourcesMadeMeanwhileAreBoundInOrderAndSilentUntilThen )
{
    configure( "[zone/first]\nflags=zonename\n[zone/third]\nflags=zonename\n"
               "[zone/Nuv]\nflags=zonename\n[zone/Syslog]\nflags=zonename\n"
               "[zone/builder]\nflags=zonename\n" );
    EXPECT_EQ( "first warning 20 main\nthird warning 20 main\nSyslog warning 20 main\n"
               "builder warning 20 main\nNuv warning 20 main\n",
               run( { "pending", "zones" } ) );
    EXPECT_EQ( "builder builder\nfirst bound\nthird bound\nSyslog bound\nNuv bound\n" + ourMarker,
               log() );
}

TEST_F( LogConfig, SourcesOutliveForksTheManagerAndMissingInterprocessObjects )
{
#if !defined( __SANITIZE_ADDRESS__ ) // whose allocator may hang in a fork beside other threads
    EXPECT_EQ( "100 children\n", run( { "source child error", "fork" } ) );
#endif
    configure( "[zone/late]\nflags = zonename\ndrain = late\n[drain/late]\ntype = file\n" );
    EXPECT_EQ( "", run( { "late" } ) );
    EXPECT_EQ( "late in time\n" + ourMarker, NuvTest::readFile( root( "log/late.log" ) ) );
    std::filesystem::remove_all( root( "tmp" ) );
    NuvTest::writeFile( root( "tmp" ), "no directory" );
    EXPECT_TRUE( run( { "standard lost", "log x error lost" } )
                     .starts_with( "exception nuvCheckResource" ) );
}

TEST_F( LogConfig, ProcessEndsWellWhileItsThreadsLog )
{
    for ( int i = 0; i < 10; ++i ) {
        configure( std::string( "[zone/own]\ndrain = own\n[logApp]\nenabled = " ) +
                   ( i % 2 == 0 ? "true" : "false" ) );
        EXPECT_EQ( run( { "exit" } ), "" );
    }
}

TEST_F( LogConfig, LogApplicationGetsTheLinesOfAllZonesButThoseOfTheSystemLog )
{
    configure( "[logApp]\nenabled = true\nzoneAndDrainName = theLogApplication\n"
               "fileName = app.log\nfileMaxSizeInK = 1\nfifoName = theFifoOfTheApp\n"
               "fifoSizeInK = 1\n[zone/sys]\ndrain = syslog\n"
               "[zone/x]\nflags = zonename\ndrain = main\n" );
    EXPECT_EQ( "x warning 20 theFifoOfTheApp\nsys warning 7e syslog\n"
               "theLogApplicati file app.log 1024 127.1.128.1 80\n"
               "theFifoOfTheApp fifo theFifoOfTheApp 1024 127.1.128.1 80\n<x text>\n",
               run( { "zone x", "zone sys", "drain theLogApplication", "drain theFifoOfTheApp",
                      "log x error text", "fifo" } ) );
    EXPECT_EQ( "", NuvTest::readFile( root( "log/app.log" ) ) );
    // Its own zone is left out of changes of all.
    EXPECT_EQ( "x warning 20 theFifoOfTheApp\n1\ntheLogApplicati none 0 theLogApplicati\n"
               "x debug 7f theFifoOfTheApp\n1\ntheLogApplicati error 0 theLogApplicati\n",
               run( { "zone x", "severity * debug", "flags * 7f", "zones",
                      "severity theLogApplication error", "zone theLogApplication" } ) );
    // 85 entries of 12 bytes leave 8 of 1028; each of 256 then forces many out: one overrun.
    std::vector< std::string > commands( 86, "log x error aaaaaa" );
    commands[0] = "source x error";
    commands.push_back( "overruns" );
    commands.insert( commands.end(), 3, "log x error " + std::string( 250, 'b' ) );
    commands.insert( commands.end(), 2, "overruns" );
    EXPECT_EQ( "0\n0\n3\n3\n0\n0\n", run( commands ) );
}

TEST_F( LogConfig, UselessOrClashingSettingsHaveAnOutcome )
{
    const std::string cases[][3] = {
        { "[logApp]\nenabled = true\nfifoSizeInK = 0", "drain logAppFifo",
          "logAppFifo fifo logAppFifo 245760 127.1.128.1 80\n" },
        { "[logApp]\nenabled = yes", "fifo",
          "exception nuvAssert: Condition failed: myInterprocessDrainPtr != NULL\n" },
        { "[logApp]\nenabled = true\nzoneAndDrainName = same\nfifoName = same", "drain same",
          "same fifo same 245760 127.1.128.1 80\n" },
        { "[zone/w]\ndrain = w\n[drain/w]\ntype = http", "source w error", "" },
    };
    for ( const auto& one : cases ) {
        configure( one[0] + "\n" );
        EXPECT_EQ( one[2], run( { one[1] } ) );
    }
    EXPECT_EQ( "w warning 7e w\nw warning 18 w\n", run( { "zone w", "source w error", "zone w" } ) )
        << "an HTTP request says time, zone and severity itself";
}

} // namespace
} // namespace Nuv::Log
