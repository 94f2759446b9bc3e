#include "nuvLog.h"

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"
#include "nuvLogDrain.h"

#include "nuvTestSupport.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <iomanip>
#include <locale>
#include <new>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

static std::atomic< int > ourNbrOfAllocations = 0;

void* operator new( std::size_t size )
{
    ++ourNbrOfAllocations;
    if ( void* const ptr = std::malloc( size ) )
        return ptr;
    throw std::bad_alloc();
}
void operator delete( void* ptr ) noexcept
{
    std::free( ptr );
}
void operator delete( void* ptr, std::size_t ) noexcept
{
    std::free( ptr );
}

namespace Nuv::Log {
namespace {

/// Makes the text alone a line, and all severities pass.
struct PlainZone
{
    explicit PlainZone( const char* namePtr, Severity threshold = debug, unsigned int flags = 0 )
    {
        ConfigManager::singletonPtr()->openZone( namePtr );
        LogAppHelper::zoneSeverity( severityKeyword( threshold ), namePtr );
        LogAppHelper::zoneFlags( flags, namePtr );
    }
};

std::vector< std::string > lines( const Capture& capture )
{
    std::vector< std::string > result;
    for ( const Capture::Message& message : capture.messages() )
        result.push_back( message.line );
    return result;
}

using Lines = std::vector< std::string >;

TEST( LogKeywords, SeveritiesAndFlagsHaveTheirNames )
{
    Severity severity = off;
    const char letters[] = "_DTWEF?";
    const char* const keywords[] = { "off",   "debug", "timing", "warning",
                                     "error", "fatal", "none" };
    for ( int i = off; i <= none; ++i ) {
        EXPECT_EQ( letters[i], severityLetter( static_cast< Severity >( i ) ) );
        EXPECT_STREQ( keywords[i], severityKeyword( static_cast< Severity >( i ) ) );
        EXPECT_EQ( i != off, severityFromKeyword( keywords[i], &severity ) );
        EXPECT_EQ( i, severity );
    }
    for ( const char* keywordPtr : { "DEBUG", "", "debug ", "deb" } )
        EXPECT_FALSE( severityFromKeyword( keywordPtr, &severity ) ) << keywordPtr;
    EXPECT_EQ( '?', severityLetter( static_cast< Severity >( -1 ) ) );
    EXPECT_STREQ( "?", severityKeyword( static_cast< Severity >( 7 ) ) );

    const struct
    {
        const char* textPtr;
        std::uint32_t flags;
    } cases[] = {
        { "currenttime,elapsedtime,appname,threadid,zonename,severity", defaultZoneFlags },
        { "sequencenbr", 0x01 },
        { "CurrentTime", 0x02 },
        { "elapsedtime;appname", 0x0C },
        { " threadid\t", 0x10 },
        { "zonename+severity", 0x60 },
        { "zonename zonename nonsense", 0x20 },
        { "nonsense", 0 },
        { "", 0 },
    };
    for ( const auto& one : cases ) {
        EXPECT_EQ( one.flags, zoneFlagsFromText( one.textPtr ) ) << one.textPtr;
        EXPECT_EQ( one.flags, zoneFlagsFromText( zoneFlagsText( one.flags ) ) ) << one.textPtr;
    }
}

TEST( LogSource, EmitsFromTheThresholdOn )
{
    const PlainZone zone( "threshold" );
    SourceSet sources( "threshold" );
    Capture capture( "threshold" );
    for ( int threshold = debug; threshold <= none; ++threshold ) {
        SCOPED_TRACE( threshold );
        LogAppHelper::zoneSeverity( severityKeyword( static_cast< Severity >( threshold ) ),
                                    "threshold" );
        for ( int severity = debug; severity < fatal; ++severity ) {
            const Source& source = sources.source( static_cast< Severity >( severity ) );
            EXPECT_EQ( severity >= threshold, source.mayEmit() ) << severity;
        }
    }
    EXPECT_THROW( ConfigManager::singletonPtr()->zoneSeverity( off, "threshold" ), LogicException );
    LogAppHelper::zoneSeverity( "debug", "threshold" );
    sources.preference( excludeDebug );
    EXPECT_EQ( excludeDebug, sources.preference() );
    nuvLogTo( sources.source( debug ) ) << "lost";
    sources.preference( includeDebug );
    EXPECT_EQ( includeDebug, sources.preference() );
    nuvLogTo( sources.source( debug ) ) << "kept";
    EXPECT_EQ( Lines{ "kept" }, lines( capture ) );
}

TEST( LogSource, BelongsToItsZoneOrToSyslogIfFatal )
{
    EXPECT_EQ( "Nuv", Source( warning, nullptr ).zone().myName.view() );
    EXPECT_EQ( "abcdefghijklmno", Source( warning, "abcdefghijklmnopq" ).zone().myName.view() );
    EXPECT_EQ( "Syslog", Source( fatal, "any" ).zone().myName.view() );
    EXPECT_EQ( "Syslog", getStandardSource( fatal ).zone().myName.view() );
    EXPECT_EQ( "Nuv", getStandardSource( error ).zone().myName.view() );
    for ( unsigned int i = 0; i < 5; ++i ) {
        const Source& source = *Utils::CtlTransImplLogSourceSet::singletonPtr()->sourcePtr( i );
        EXPECT_EQ( static_cast< Severity >( i + 1 ), source.severity() );
        EXPECT_EQ( i < 4 ? "ctlTransImpl" : "Syslog", source.zone().myName.view() );
    }
}

TEST( LogSource, UnboundOneEmitsNothing )
{
    const Source source;
    EXPECT_FALSE( source.mayEmit() );
    EXPECT_EQ( nullptr, source.drainPtr() );
    Capture capture;
    Helper( source ).logStream() << "unbound";
    EXPECT_EQ( Lines{}, lines( capture ) );
}

TEST( LogStatement, EvaluatesOperandsOnlyIfItEmits )
{
    const PlainZone zone( "statement", error );
    const Source source( warning, "statement" );
    Capture capture( "statement" );
    int nbrOfCalls = 0;
    if ( true )
        nuvLogTo( source ) << ++nbrOfCalls;
    else
        ADD_FAILURE() << "the statement has taken the else";
    EXPECT_EQ( 0, nbrOfCalls );
    LogAppHelper::zoneSeverity( "warning", "statement" );
    nuvLogTo( source ) << ++nbrOfCalls << ' ' << 0.5 << " %s " << std::string( "a\0b\n", 4 );
    EXPECT_EQ( Lines{ std::string( "1 0.5 %s a\0b\n", 13 ) }, lines( capture ) );
}

TEST( LogStatement, LeavesErrnoAloneAndShowsIt )
{
    const PlainZone zone( "errno", debug, defaultZoneFlags );
    const Source source( error, "errno" );
    Capture capture( "errno" );
    errno = EXDEV;
    nuvLogTo( source ) << "errno " << errno;
    EXPECT_EQ( EXDEV, errno );
    EXPECT_TRUE( capture.contains( "errno " + std::to_string( EXDEV ) ) );
}

TEST( LogStatement, FormatOfOneMessageDoesNotReachTheNext )
{
    const PlainZone zone( "format" );
    const Source source( error, "format" );
    Capture capture( "format" );
    {
        Helper helper( source );
        helper.logStream() << std::hex << std::showbase << std::uppercase << std::setfill( '*' )
                           << std::setprecision( 2 ) << 255 << ' ' << std::setw( 4 ) << 1;
        helper.logStream().exceptions( std::ios_base::failbit );
        helper.logStream().width( 9 );
    }
    nuvLogTo( source ) << 255 << ' ' << std::setw( 3 ) << 1 << ' ' << 1.23456;
    Helper( source ).logStream().setstate( std::ios_base::failbit );
    nuvLogTo( source ) << std::string( 100000, 'x' );
    nuvLogTo( source ) << "after";
    EXPECT_EQ( ( Lines{ "0XFF *0X1", "255   1 1.23456", "", std::string( 100000, 'x' ), "after" } ),
               lines( capture ) );
}

TEST( LogStatement, NumbersFollowTheGlobalLocale )
{
    struct Grouping : std::numpunct< char >
    {
        std::string do_grouping() const override { return "\3"; }
        char do_thousands_sep() const override { return '\''; }
    };
    const PlainZone zone( "locale" );
    const Source source( error, "locale" );
    Capture capture( "locale" );
    nuvLogTo( source ) << 1234567;
    const std::locale before =
        std::locale::global( std::locale( std::locale::classic(), new Grouping ) );
    nuvLogTo( source ) << 1234567;
    std::locale::global( before );
    nuvLogTo( source ) << 1234567;
    EXPECT_EQ( ( Lines{ "1234567", "1'234'567", "1234567" } ), lines( capture ) );
}

TEST( LogStatement, AllocatesNothingOnceTheThreadHasLogged )
{
    const PlainZone zone( "allocates", debug, 0x7F );
    const Source source( error, "allocates" );
    for ( int i = 0; i < 3; ++i ) {
        ourNbrOfAllocations = 0;
        nuvLogTo( source ) << "into a file " << i << " of more than the first 128 bytes: "
                           << "0123456789012345678901234567890123456789" << 'x' << 1.5;
    }
    EXPECT_EQ( 0, ourNbrOfAllocations );
}

TEST( LogStatement, ExceptionOfAnOperandPassesAndWhatWasWrittenIsEmitted )
{
    const PlainZone zone( "throws" );
    const Source source( error, "throws" );
    Capture capture( "throws" );
    const auto fail = []() -> int { throw std::runtime_error( "operand" ); };
    EXPECT_THROW( nuvLogTo( source ) << "begun " << fail(), std::runtime_error );
    nuvLogTo( source ) << "next";
    EXPECT_EQ( ( Lines{ "begun ", "next" } ), lines( capture ) );
}

TEST( LogReentry, MessageWithinAMessageIsDropped )
{
    const PlainZone zone( "inner" );
    const Source source( error, "inner" );
    Capture capture( "inner" );
    const auto inner = [&source] {
        nuvLogTo( source ) << "dropped";
        return "outer";
    };
    nuvLogTo( source ) << inner();
    {
        const Helper outer( source );
        std::thread( [&source] { nuvLogTo( source ) << "other thread"; } ).join();
    }
    nuvLogTo( source ) << "next";
    EXPECT_EQ( ( Lines{ "outer", "other thread", "", "next" } ), lines( capture ) );
}

TEST( LogThreads, EndingThreadMayLogFromItsOwnDestructors )
{
    const PlainZone zone( "ending" );
    static const Source source( error, "ending" );
    struct LogsAtEnd
    {
        ~LogsAtEnd() { nuvLogTo( source ) << "end " << std::setw( 3 ) << 1; }
    };
    Capture capture( "ending" );
    std::thread( [] {
        static thread_local LogsAtEnd object;
        static_cast< void >( object ); // destroyed after the stream of the first message
        nuvLogTo( source ) << "first";
    } ).join();
    EXPECT_EQ( ( Lines{ "first", "end   1" } ), lines( capture ) );
}

TEST( LogThreads, SourcesOfManyThreadsComeAndGoWhileOthersLog )
{
    const PlainZone zone( "threads" );
    Capture capture( "threads" );
    std::vector< std::thread > threads;
    for ( int t = 0; t < 4; ++t ) {
        threads.emplace_back( [] {
            for ( int i = 0; i < 100; ++i ) {
                const SourceSet sources( "threads" );
                nuvLogTo( sources.source( warning ) ) << "line";
                LogAppHelper::zoneFlags( 0, "threads" );
            }
        } );
    }
    for ( std::thread& thread : threads )
        thread.join();
    EXPECT_EQ( Lines( 400, "line" ), lines( capture ) );
}

TEST( LogDump, RowsShowOffsetBytesAndCharacters )
{
    const PlainZone zone( "dump" );
    const Source source( debug, "dump" );
    Capture capture( "dump" );
    source.dump( "AB\n", 3, "hdr" );
    source.dump( "", 0, "title" );
    source.dump( "0123456789abcdef\x80", 17, nullptr );
    const std::string blank3 = "   ";
    std::string row2 = "  0010: 80 ";
    for ( int i = 0; i < 7; ++i )
        row2 += blank3;
    row2 += "| ";
    for ( int i = 0; i < 8; ++i )
        row2 += blank3;
    EXPECT_EQ(
        ( Lines{
            "hdr\n  0000: 41 42 0A                | " + std::string( 24, ' ' ) + " [AB." +
                std::string( 13, ' ' ) + "]\n",
            "title\n",
            "\n  0000: 30 31 32 33 34 35 36 37 | 38 39 61 62 63 64 65 66  [0123456789abcdef]\n" +
                row2 + " [." + std::string( 15, ' ' ) + "]\n" } ),
        lines( capture ) );
    capture.clear();
    source.dump( std::string( 65552, 'x' ).data(), 65552, nullptr );
    EXPECT_TRUE( capture.contains( "\n  FFF0: 78" ) );
    EXPECT_TRUE( capture.contains( "\n  10000: 78" ) );
    LogAppHelper::zoneSeverity( "none", "dump" );
    capture.clear();
    source.dump( "x", 1, nullptr );
    EXPECT_EQ( Lines{}, lines( capture ) );
}

TEST( LogBuffer, TextIsCutAtTheMaximumAndAtANul )
{
    const PlainZone zone( "Nuv" );
    Capture capture( "Nuv" );
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

TEST( LogAssertion, FailureIsAFatalMessageOnceTheProcessLogs )
{
    getStandardSource( debug );
    Capture capture( "Syslog" );
    EXPECT_THROW( nuvAssert( 1 == 2, "three" ), LogicException );
    ASSERT_EQ( 1u, capture.messages().size() );
    EXPECT_EQ( fatal, capture.messages()[0].severity );
    EXPECT_TRUE(
        capture.contains( "nuvAssert: Condition failed: 1 == 2,  three (FILE: nuvLogTest" ) );
    // One that fails within a message cannot recurse.
    const PlainZone zone( "asserts" );
    const Source source( error, "asserts" );
    const auto fail = []() -> int {
        nuvAssert( 1 == 3 );
        return 0;
    };
    EXPECT_THROW( nuvLogTo( source ) << fail(), LogicException );
    EXPECT_EQ( 1u, capture.messages().size() );
}

TEST( LogAssertion, FailureBeforeTheProcessLogsOnlyThrows )
{
    const NuvTest::TemporaryFolder home;
    const NuvTest::Outcome outcome = NuvTest::runProgram(
        NuvTest::program( "logProbe" ), { { "assert" }, { "HOME=" + home.path() } } );
    EXPECT_EQ( "LogicException\nno manager\n", outcome.output );
}

TEST( LogCapture, NestsAndTakesItsZoneOnly )
{
    const PlainZone zoneA( "a" );
    const PlainZone zoneB( "b" );
    const Source a( error, "a" );
    const Source b( error, "b" );
    Capture all;
    auto innerPtr = std::make_unique< Capture >( "a" );
    nuvLogTo( a ) << 1;
    nuvLogTo( b ) << 2;
    {
        const Capture innermost;
        innerPtr.reset(); // not the newest
        nuvLogTo( a ) << 3;
        EXPECT_EQ( Lines{ "3" }, lines( innermost ) );
    }
    nuvLogTo( a ) << 4;
    EXPECT_EQ( ( Lines{ "2", "4" } ), lines( all ) );
    EXPECT_EQ( "b", all.messages()[0].zoneName );
}

} // namespace
} // namespace Nuv::Log
