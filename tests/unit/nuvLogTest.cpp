#include "nuvLog.h"

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"
#include "nuvLogDrain.h"

#include "nuvTestSupport.h"

#include <cerrno>
#include <iomanip>
#include <stdexcept>
#include <thread>

namespace Nuv::Log {
namespace {

using Lines = std::vector< std::string >;

/// A zone whose lines are their texts alone, and of which each severity passes.
class LogZone : public ::testing::Test
{
protected:
    LogZone()
    {
        LogAppHelper::zoneSeverity( "debug", nullptr );
        LogAppHelper::zoneFlags( 0, nullptr );
    }

    static Lines lines( const Capture& capture )
    {
        Lines result;
        for ( const Capture::Message& message : capture.messages() )
            result.push_back( message.line );
        return result;
    }

    const Source mySource{ error, "zone" };
    Capture myCapture{ "zone" };
};

TEST_F( LogZone, SourceEmitsFromTheThresholdOn )
{
    SourceSet sources( "zone" );
    for ( int threshold = debug; threshold <= none; ++threshold ) {
        LogAppHelper::zoneSeverity( severityKeyword( static_cast< Severity >( threshold ) ),
                                    "zone" );
        for ( const auto severity : { debug, timing, warning, error } )
            EXPECT_EQ( severity >= threshold, sources.source( severity ).mayEmit() )
                << threshold << severity;
    }
    EXPECT_THROW( ConfigManager::singletonPtr()->zoneSeverity( off, "zone" ), LogicException );
    LogAppHelper::zoneSeverity( "debug", "zone" );
    sources.preference( excludeDebug );
    nuvLogTo( sources.source( debug ) ) << "lost";
    sources.preference( includeDebug );
    nuvLogTo( sources.source( debug ) ) << "kept";
    const Source unbound;
    nuvLogTo( unbound ) << "lost";
    Helper( unbound ).logStream() << "lost";
    EXPECT_EQ( Lines{ "kept" }, lines( myCapture ) );
}

TEST_F( LogZone, StatementEvaluatesOperandsOnlyIfItEmitsAndLeavesErrnoAlone )
{
    LogAppHelper::zoneSeverity( "fatal", "zone" );
    int nbrOfCalls = 0;
    if ( true )
        nuvLogTo( mySource ) << ++nbrOfCalls;
    else
        ADD_FAILURE() << "the statement has taken the else";
    EXPECT_EQ( 0, nbrOfCalls );
    LogAppHelper::zoneSeverity( "error", "zone" );
    LogAppHelper::zoneFlags( zoneName, "zone" );
    errno = EXDEV;
    nuvLogTo( mySource ) << ++nbrOfCalls << ' ' << 0.5 << " %s " << std::string( "a\0b\n", 4 )
                         << errno;
    EXPECT_EQ( EXDEV, errno );
    EXPECT_EQ( Lines{ "zone " + std::string( "1 0.5 %s a\0b\n", 13 ) + std::to_string( EXDEV ) },
               lines( myCapture ) );
}

TEST_F( LogZone, NothingOfAMessageReachesTheNext )
{
    {
        Helper helper( mySource );
        helper.logStream() << std::hex << std::showbase << std::uppercase << std::setfill( '*' )
                           << std::setprecision( 2 ) << 255 << ' ' << std::setw( 4 ) << 1;
        helper.logStream().exceptions( std::ios_base::failbit );
        helper.logStream().width( 9 );
    }
    nuvLogTo( mySource ) << 255 << ' ' << std::setw( 3 ) << 1 << ' ' << 1.23456;
    Helper( mySource ).logStream().setstate( std::ios_base::failbit );
    nuvLogTo( mySource ) << std::string( 100000, 'x' );
    const auto fail = []() -> int { throw std::runtime_error( "operand" ); };
    EXPECT_THROW( nuvLogTo( mySource ) << "begun " << fail(), std::runtime_error );
    nuvLogTo( mySource ) << "next";
    EXPECT_EQ( ( Lines{ "0XFF *0X1", "255   1 1.23456", "", std::string( 100000, 'x' ), "begun ",
                        "next" } ),
               lines( myCapture ) );
}

TEST_F( LogZone, MessageWithinAMessageIsDropped )
{
    const auto inner = [this] {
        nuvLogTo( mySource ) << "dropped";
        return "outer";
    };
    nuvLogTo( mySource ) << inner();
    {
        const Helper outer( mySource );
        std::thread( [this] { nuvLogTo( mySource ) << "other thread"; } ).join();
    }
    nuvLogTo( mySource ) << "next";
    EXPECT_EQ( ( Lines{ "outer", "other thread", "", "next" } ), lines( myCapture ) );
}

TEST_F( LogZone, EndingThreadMayLogFromItsOwnDestructors )
{
    static const Source* ourSourcePtr;
    ourSourcePtr = &mySource;
    struct LogsAtEnd
    {
        ~LogsAtEnd() { nuvLogTo( *ourSourcePtr ) << "end " << std::setw( 3 ) << 1; }
    };
    std::thread( [] {
        static thread_local LogsAtEnd object;
        static_cast< void >( object ); // destroyed after the stream of the first message
        nuvLogTo( *ourSourcePtr ) << "first";
    } ).join();
    EXPECT_EQ( ( Lines{ "first", "end   1" } ), lines( myCapture ) );
}

TEST_F( LogZone, SourcesOfManyThreadsComeAndGoWhileOthersLog )
{
    std::vector< std::thread > threads;
    for ( int t = 0; t < 4; ++t ) {
        threads.emplace_back( [] {
            for ( int i = 0; i < 100; ++i ) {
                const SourceSet sources( "zone" );
                nuvLogTo( sources.source( warning ) ) << "line";
                LogAppHelper::zoneFlags( 0, "zone" );
            }
        } );
    }
    for ( std::thread& thread : threads )
        thread.join();
    EXPECT_EQ( Lines( 400, "line" ), lines( myCapture ) );
}

TEST_F( LogZone, DumpHasRowsOfOffsetBytesAndCharacters )
{
    mySource.dump( "", 0, "title" );
    mySource.dump( "0123456789abcdef\x80", 17, nullptr );
    const std::string row =
        "  0000: 30 31 32 33 34 35 36 37 | 38 39 61 62 63 64 65 66  [0123456789abcdef]\n";
    const std::string row2 = "  0010: 80 " + std::string( 21, ' ' ) + "| " +
                             std::string( 24, ' ' ) + " [." + std::string( 15, ' ' ) + "]\n";
    EXPECT_EQ( ( Lines{ "title\n", "\n" + row + row2 } ), lines( myCapture ) );
    mySource.dump( std::string( 65552, 'x' ).data(), 65552, nullptr );
    EXPECT_TRUE( myCapture.contains( "\n  FFF0: 78" ) && myCapture.contains( "\n  10000: 78" ) );
    LogAppHelper::zoneSeverity( "none", "zone" );
    mySource.dump( "x", 1, nullptr );
    EXPECT_EQ( 3u, lines( myCapture ).size() );
}

TEST_F( LogZone, BufferIsCutAtTheMaximumAndAtANul )
{
    const Capture capture( "Nuv" );
    logBuffer( "p: ", Utils::Buffer( "0123456789" ), 4 );
    logBuffer( "p: ", Utils::Buffer( "0123456789" ), 10 );
    logBuffer( "p: ", Utils::Buffer( "ab\0cd", 5 ), 9 );
    logBuffer( "p: ", Utils::Buffer( "ab\0cd", 5 ), 4 );
    LogAppHelper::zoneSeverity( "timing", "Nuv" );
    logBuffer( "p: ", Utils::Buffer( "disabled" ), 4 );
    EXPECT_EQ( ( Lines{ "p: 0123  ... <buffer too long>", "p: 0123456789", "p: ab",
                        "p: ab  ... <buffer too long>" } ),
               lines( capture ) );
}

TEST_F( LogZone, FailedAssertionIsAFatalMessageOnceTheProcessLogs )
{
    const Capture capture( "Syslog" );
    EXPECT_THROW( nuvAssert( 1 == 2, "three" ), LogicException );
    const auto fail = []() -> int {
        nuvAssert( 1 == 3 );
        return 0;
    };
    EXPECT_THROW( nuvLogTo( mySource ) << fail(), LogicException );
    ASSERT_EQ( 1u, capture.messages().size() ) << "within a message it cannot recurse";
    EXPECT_EQ( fatal, capture.messages()[0].severity );
    EXPECT_TRUE(
        capture.contains( "nuvAssert: Condition failed: 1 == 2,  three (FILE: nuvLogTest" ) );
}

} // namespace
} // namespace Nuv::Log
