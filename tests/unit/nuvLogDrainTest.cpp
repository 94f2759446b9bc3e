#include "nuvLogDrain.h"

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"
#include "nuvPathname.h"
#include "nuvSubsystemInfo.h"

#include "nuvTestSupport.h"

#include <cstdarg>
#include <ctime>
#include <iostream>
#include <pthread.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

namespace {

std::uint64_t ourNow = 0; // ns; 0 leaves the time as it is
int ourNbrOfPidCalls = 0;

struct SystemLog
{
    int nbrOfOpens = 0;
    int facility = 0;
    std::string ident;
    int level = -1;
    std::string format;
    std::string text;
} ourSystemLog;

} // namespace

extern "C" {
#if defined( __i386__ )
int __real___gettimeofday64( timeval*, void* );
int __wrap___gettimeofday64( timeval* nowPtr, void* zonePtr )
#else
int __real_gettimeofday( timeval*, void* );
int __wrap_gettimeofday( timeval* nowPtr, void* zonePtr )
#endif
{
    if ( ourNow == 0 )
#if defined( __i386__ )
        return __real___gettimeofday64( nowPtr, zonePtr );
#else
        return __real_gettimeofday( nowPtr, zonePtr );
#endif
    nowPtr->tv_sec = static_cast< std::time_t >( ourNow / 1000000000 );
    nowPtr->tv_usec = static_cast< ::suseconds_t >( ourNow / 1000 % 1000000 );
    return 0;
}

void __wrap_openlog( const char* identPtr, int options, int facility )
{
    ++ourSystemLog.nbrOfOpens;
    ourSystemLog.ident = identPtr;
    ourSystemLog.facility = facility + options;
}

void __wrap_syslog( int level, const char* formatPtr, ... )
{
    char text[1000];
    va_list arguments;
    va_start( arguments, formatPtr );
    std::vsnprintf( text, sizeof( text ), formatPtr, arguments );
    va_end( arguments );
    ourSystemLog.level = level;
    ourSystemLog.format = formatPtr;
    ourSystemLog.text = text;
}

pid_t __real_getpid();
pid_t __wrap_getpid()
{
    ++ourNbrOfPidCalls;
    return __real_getpid();
}
}

namespace Nuv::Log {
namespace {

constexpr std::uint64_t msInNs = 1000000;
/// 2026-11-16 21:38:22.123 universal time.
constexpr std::uint64_t ourTime = 1794865102123ull * msInNs;

class LogDrain : public ::testing::Test
{
protected:
    LogDrain()
    {
        Io::Pathname( Io::Pathname::rootDirectory ); // makes the folders
        ::setenv( "TZ", "UTC", 1 );
        ::tzset();
    }
    ~LogDrain() override
    {
        ourNow = 0;
        Drain::ourTimeMode = Drain::localTime;
    }

    static Drain::Options options( Drain::Options::Type type, const std::string& fileName = "x.log",
                                   std::uint64_t maxSize = 1000 )
    {
        Drain::Options result;
        result.type = type;
        result.fileName = fileName;
        result.maxSize = maxSize;
        return result;
    }

    static std::string pathname( const std::string& fileName )
    {
        return Io::Pathname( Io::Pathname::rootDirectory, Utils::String( "log/" + fileName ) )
            .str();
    }
};

using LogPreamble = LogDrain;
using LogTimeStamp = LogDrain;

/// One line of the zone with these flags.
std::string line( const Source& source, unsigned int flags, const char* textPtr )
{
    LogAppHelper::zoneFlags( flags, "p" );
    const Capture capture( "p" );
    nuvLogTo( source ) << textPtr;
    return capture.messages().empty() ? "nothing" : capture.messages()[0].line;
}

TEST_F( LogPreamble, FieldsStandInOrderEachByItsFlag )
{
    ourNow = ourTime;
    Io::Pathname::setPathnameOfExecutable( "/opt/bin/mainApp.d/mainApp.bin" );
    const Source source( warning, "p" );
    line( source, 0x04, "so that nothing has elapsed" );
    const std::string pid = std::to_string( ::getpid() );
    const struct
    {
        unsigned int flags;
        std::string preamble;
    } cases[] = {
        { 0x00, "" },
        { 0x01, "00000002 " },
        { 0x02, "16Nov2026 21:38:22.123 " },
        { 0x04, "0.000 " },
        { 0x08, "mainApp " },
        { 0x10, "[" + pid + "] " },
        { 0x18, "mainApp[" + pid + "] " },
        { 0x20, "p " },
        { 0x40, "/W " },
        { 0x60, "p/W " },
        { 0x7E, "16Nov2026 21:38:22.123 0.000 mainApp[" + pid + "] p/W " },
        { 0x7F, "00000012 16Nov2026 21:38:22.123 0.000 mainApp[" + pid + "] p/W " },
        { 0xFFFFFF80, "" },
    };
    for ( const auto& one : cases ) {
        SCOPED_TRACE( one.flags );
        EXPECT_EQ( one.preamble + "text", line( source, one.flags, "text" ) );
    }
}

TEST_F( LogPreamble, ApplicationNameFollowsThreadThenProgram )
{
    const Source source( warning, "p" );
    Io::Pathname::setPathnameOfExecutable( "/opt/first.d/first" );
    EXPECT_EQ( "first text", line( source, 0x08, "text" ) );
    Io::Pathname::setPathnameOfExecutable( "/opt/second.exe" );
    EXPECT_EQ( "second text", line( source, 0x08, "text" ) );
    std::thread( [&source] {
        Mt::SubsystemInfo::threadletonPtr()->nameStrPtr(
            Mt::SubsystemInfo::NamePtr( new std::string( "subsystem" ) ) );
        EXPECT_EQ( "subsystem text", line( source, 0x08, "text" ) );
        Mt::SubsystemInfo::threadletonPtr()->nameStrPtr(
            Mt::SubsystemInfo::NamePtr( new std::string ) );
        EXPECT_EQ( "second text", line( source, 0x08, "text" ) );
        Mt::ThreadletonMgr::singletonPtr()->deleteThreadletons();
    } ).join();
    std::string name;
    Drain::appName( &name );
    EXPECT_EQ( "second", name );
    Io::Pathname::setPathnameOfExecutable( "" );
    EXPECT_EQ( "nuvLogDrainTest text", line( source, 0x08, "text" ) );
    const std::string longName( 300, 'n' );
    Io::Pathname::setPathnameOfExecutable( ( "/" + longName ).c_str() );
    EXPECT_EQ( longName.substr( 0, 255 ) + " text", line( source, 0x08, "text" ) );
}

TEST_F( LogPreamble, ProcessIdIsAskedForOnceAndRightInAForkedChild )
{
    const Source source( warning, "p" );
    line( source, 0x10, "first" );
    ourNbrOfPidCalls = 0;
    line( source, 0x10, "second" );
    EXPECT_EQ( 0, ourNbrOfPidCalls );
    const NuvTest::Outcome outcome = NuvTest::runInChild( [&source] {
        EXPECT_EQ( "[" + std::to_string( ::getpid() ) + "] third", line( source, 0x10, "third" ) );
    } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.output;
}

TEST_F( LogTimeStamp, ElapsedIsCutToMillisecondsAndNeverNegative )
{
    ourNow = ourTime;
    Drain drain( "d", options( Drain::Options::null ), 0 );
    const struct
    {
        std::uint64_t now;
        unsigned int elapsed;
        unsigned int millisecond;
    } cases[] = {
        { ourTime, 0, 123 },
        { ourTime + 999999, 0, 123 }, // below a millisecond
        { ourTime + 61250 * msInNs, 61249, 373 },
        { ourTime - 5 * msInNs, 0, 118 }, // the clock went back
        { ourTime, 5, 123 },
        { ourTime + 0x100000003 * msInNs, 3, 422 }, // 32 bits
    };
    for ( const auto& one : cases ) {
        SCOPED_TRACE( one.now );
        ourNow = one.now;
        std::tm time;
        unsigned int millisecond = 0;
        EXPECT_EQ( one.elapsed, drain.timeStamp( &time, &millisecond ) );
        EXPECT_EQ( one.millisecond, millisecond );
        const auto second = static_cast< std::time_t >( one.now / 1000000000 );
        std::tm expected = *std::gmtime( &second );
        EXPECT_EQ( std::mktime( &expected ), std::mktime( &time ) );
    }
    const Source source( warning, "p" );
    line( source, 0x04, "before" );
    ourNow += 61250 * msInNs;
    EXPECT_EQ( "61.250 text", line( source, 0x04, "text" ) );
    ourNow += 61250 * msInNs;
    EXPECT_EQ( "61.250 text", line( source, 0x04, "text" ) );
}

TEST_F( LogTimeStamp, LocalOrUniversalByMode )
{
    ::setenv( "TZ", "XXX-5:30", 1 );
    ::tzset();
    ourNow = ourTime + 1000 * msInNs;
    const Source source( warning, "p" );
    EXPECT_EQ( "17Nov2026 03:08:23.123 text", line( source, 0x02, "text" ) );
    Drain::ourTimeMode = Drain::universalTime;
    EXPECT_EQ( "16Nov2026 21:38:23.123 text", line( source, 0x02, "text" ) );
    ourNow += 1000 * msInNs;
    EXPECT_EQ( "16Nov2026 21:38:24.123 text", line( source, 0x02, "text" ) );
}

// ------------------------------------------------------------------------------------ outputs

/// Stands in for a standard stream's buffer.
struct Stream : std::stringbuf
{
    explicit Stream( std::ostream& stream )
        : myStream( stream )
        , myBufferPtr( stream.rdbuf( this ) )
    {
    }
    ~Stream() override { myStream.rdbuf( myBufferPtr ); }

    std::streamsize xsputn( const char* ptr, std::streamsize count ) override
    {
        if ( myThrows )
            throw std::runtime_error( "stream" );
        return std::stringbuf::xsputn( ptr, myFails ? count / 2 : count );
    }
    int sync() override { return ++nbrOfFlushes, 0; }

    std::ostream& myStream;
    std::streambuf* myBufferPtr;
    bool myThrows = false;
    bool myFails = false;
    int nbrOfFlushes = 0;
};

const Utils::Buffer ourMessage( "a\0%s\nb", 6 );

TEST_F( LogDrain, StandardStreamsGetLinesAndOnlyErrorIsFlushed )
{
    Stream out( std::cout );
    Stream error( std::cerr );
    {
        Drain outDrain( "o", options( Drain::Options::standardOutput ), 0 );
        Drain errorDrain( "e", options( Drain::Options::standardError ), 0 );
        outDrain.outputMessage( warning, ourMessage, "z" );
        errorDrain.outputMessage( warning, ourMessage, "z" );
        EXPECT_EQ( ourMessage.str() + "\n", out.str() );
        EXPECT_EQ( ourMessage.str() + "\n", error.str() );
        EXPECT_EQ( 0, out.nbrOfFlushes );
        EXPECT_EQ( 1, error.nbrOfFlushes );
        EXPECT_EQ( 0u, outDrain.nbrOfLost() + errorDrain.nbrOfLost() );

        // What the stream's owner throws, or does not take, reaches nobody who logs.
        out.myThrows = true;
        EXPECT_NO_THROW( outDrain.outputMessage( warning, ourMessage, "z" ) );
        error.myFails = true;
        errorDrain.outputMessage( warning, ourMessage, "z" );
        EXPECT_EQ( 2u, outDrain.nbrOfLost() + errorDrain.nbrOfLost() );
        out.myThrows = false;
        outDrain.outputMessage( warning, Utils::Buffer(), "z" );
    }
    EXPECT_EQ( ourMessage.str() + "\n\n", out.str() ) << "the drain's end leaves the stream alone";
}

TEST_F( LogDrain, FileIsOpenedUnderTheLogFolderOrTheDrainIsNull )
{
    {
        Drain drain( "d", options( Drain::Options::file ), 0 );
        EXPECT_EQ( Drain::Options::file, drain.options().type );
        drain.outputMessage( error, ourMessage, "z" );
        NuvTest::writeFile( pathname( "x.log" ), "other\n" + std::string( endOfFileMarker ) );
        drain.seekFileMarker();
        drain.outputMessage( error, ourMessage, "z" );
    }
    EXPECT_EQ( "other\n" + ourMessage.str() + "\n" + std::string( endOfFileMarker ),
               NuvTest::readFile( pathname( "x.log" ) ) );
    for ( const char* namePtr : { "missing/x.log", "../../../../../../../../..", "." } ) {
        Drain drain( "d", options( Drain::Options::file, namePtr ), 0 );
        EXPECT_EQ( Drain::Options::null, drain.options().type ) << namePtr;
        drain.outputMessage( error, ourMessage, "z" );
        drain.seekFileMarker();
        EXPECT_EQ( 0u, drain.nbrOfLost() ) << "discarding is what a null drain is for";
    }
}

TEST_F( LogDrain, SystemLogIsOpenedOnceAndGetsTextAsData )
{
    Drain a( "a", options( Drain::Options::syslog ), LOG_LOCAL3 );
    Drain b( "b", options( Drain::Options::syslog ), LOG_LOCAL4 );
    EXPECT_EQ( 1, ourSystemLog.nbrOfOpens );
    EXPECT_EQ( "nuvs", ourSystemLog.ident );
    EXPECT_EQ( LOG_LOCAL3, ourSystemLog.facility );
    const int levels[] = { 0, 7, 6, 4, 3, 2, 2 };
    for ( int severity = -1; severity <= none; ++severity ) {
        b.outputMessage( static_cast< Severity >( severity ), ourMessage, "z" );
        EXPECT_EQ( levels[std::max( severity, 0 )], ourSystemLog.level );
        EXPECT_EQ( "a %s\nb", ourSystemLog.text );
        EXPECT_EQ( "%.*s", ourSystemLog.format );
    }
    b.outputMessage( error, Utils::Buffer( ourMessage, 2 ), "z" );
    EXPECT_EQ( "%s\nb", ourSystemLog.text );
}

TEST_F( LogDrain, FifoGetsOneEntryAndCountsWhatItForcesOut )
{
    Drain drain( "f", options( Drain::Options::fifo, "drainFifo", 0x100000000 + 64 ), 0 );
    ASSERT_NE( nullptr, drain.fifoPtr() ) << "64 bytes: the low 32 bits count";
    Drain::ourFifoOverrunCount = 0;
    const Utils::Buffer twelve( "123456789012" ); // an entry of 16 bytes, four of which fit in 68
    for ( int i = 0; i < 4; ++i )
        drain.outputMessage( error, twelve, "z" );
    EXPECT_EQ( 0u, Drain::ourFifoOverrunCount );
    drain.outputMessage( error, ourMessage, "z" );
    EXPECT_EQ( 1u, Drain::ourFifoOverrunCount );
    Utils::Buffer entry;
    for ( int i = 0; i < 3; ++i )
        EXPECT_TRUE( drain.fifoPtr()->read( &entry ) && entry == twelve );
    EXPECT_TRUE( drain.fifoPtr()->read( &entry ) && entry == ourMessage ) << "no line feed";
    EXPECT_FALSE( drain.fifoPtr()->read( &entry ) );
    Drain::ourFifoOverrunCount = 0;
}

TEST_F( LogDrain, HttpMessagesAreCountedAsLostAndUnknownTypesAreNull )
{
    Drain http( "h", options( Drain::Options::http ), 0 );
    http.outputMessage( error, ourMessage, "z" );
    EXPECT_EQ( Drain::Options::http, http.options().type );
    EXPECT_EQ( 1u, http.nbrOfLost() );
    for ( const int type : { 0, 7, -1 } ) {
        Drain drain( "abcdefghijklmnopqr", options( static_cast< Drain::Options::Type >( type ) ),
                     0 );
        EXPECT_EQ( Drain::Options::null, drain.options().type );
        EXPECT_EQ( "abcdefghijklmno", drain.name().view() );
    }
}

TEST_F( LogDrain, KeywordsStandForTypes )
{
    const char* const keywords[] = { "null",   "stderr", "stdout", "file",
                                     "syslog", "fifo",   "http",   "?" };
    for ( int i = 0; i < 8; ++i ) {
        const auto type = static_cast< Drain::Options::Type >( i );
        EXPECT_STREQ( keywords[i], Drain::typeKeyword( type ) );
        auto found = Drain::Options::null;
        EXPECT_EQ( i != 5 && i != 7, Drain::typeFromKeyword( keywords[i], &found ) );
        EXPECT_EQ( i != 5 && i != 7 ? type : Drain::Options::null, found );
    }
}

TEST_F( LogDrain, LinesOfManyThreadsStayWholeAndAreCounted )
{
    const Source source( error, "many" );
    LogAppHelper::zoneFlags( 0, "many" );
    const std::uint32_t before = source.drainPtr()->sequenceNbr();
    std::vector< std::thread > threads;
    for ( int t = 0; t < 4; ++t ) {
        threads.emplace_back( [&source, t] {
            const std::string text( 50, static_cast< char >( 'a' + t ) );
            for ( int i = 0; i < 500; ++i )
                nuvLogTo( source ) << text;
        } );
    }
    for ( std::thread& thread : threads )
        thread.join();
    EXPECT_EQ( before + 2000, source.drainPtr()->sequenceNbr() );
    LogFileReader reader( pathname( "main.log" ), 245760 );
    std::string text;
    int counts[4] = {};
    while ( reader.readLine( &text ) ) {
        if ( text == std::string( 50, text.empty() ? ' ' : text[0] ) )
            ++counts[text[0] - 'a'];
    }
    EXPECT_EQ( ( std::vector< int >{ 500, 500, 500, 500 } ),
               std::vector< int >( counts, counts + 4 ) );
}

TEST_F( LogDrain, CancelledThreadFinishesItsMessage )
{
    const Source source( error, "cancel" );
    LogAppHelper::zoneFlags( 0, "cancel" );
    std::atomic< bool > isStarted = false;
    std::thread thread( [&] {
        for ( ;; ) {
            isStarted = true;
            nuvLogTo( source ) << "cancelled";
            ::pthread_testcancel();
        }
    } );
    ASSERT_TRUE( NuvTest::waitFor( [&] { return isStarted.load(); } ) );
    ASSERT_EQ( 0, ::pthread_cancel( thread.native_handle() ) );
    thread.join();
    nuvLogTo( source ) << "goes on";
    EXPECT_TRUE( NuvTest::readFile( pathname( "main.log" ) ).find( "\ngoes on\n" ) !=
                 std::string::npos );
}

} // namespace
} // namespace Nuv::Log
