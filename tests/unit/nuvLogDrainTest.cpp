#include "nuvLogDrain.h"

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"
#include "nuvPathname.h"
#include "nuvSubsystemInfo.h"

#include "nuvTestSupport.h"
#include "nuvTestThread.h"
#include "nuvTestWrap.h"

#include <ctime>
#include <iostream>
#include <pthread.h>
#include <sstream>
#include <sys/time.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#ifdef __i386__
#define OUR_TIME_OF_DAY __gettimeofday64
#else
#define OUR_TIME_OF_DAY gettimeofday
#endif

namespace {

constexpr std::uint64_t ourTime = 1794865102123; // ms; 2026-11-16 21:38:22.123 universal time
std::uint64_t ourNow = ourTime;
std::string ourSystemLogText;

int putNow( timeval* nowPtr )
{
    nowPtr->tv_sec = static_cast< std::time_t >( ourNow / 1000 );
    nowPtr->tv_usec = static_cast< ::suseconds_t >( ourNow % 1000 * 1000 + 999 );
    return 0;
}

} // namespace

NUV_WRAP( int, OUR_TIME_OF_DAY, (timeval * nowPtr, void*), putNow( nowPtr ) )
NUV_WRAP( void, syslog, ( int, const char*, int length, const char* textPtr ),
          static_cast< void >( ourSystemLogText = std::string( textPtr, textPtr + length ) ) )

namespace Nuv::Log {
namespace {

class LogDrain : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { ::setenv( "TZ", "XXX-5:30", 1 ), ::tzset(); }

    static Drain::Options options( Drain::Options::Type type, const char* namePtr = "x.log" )
    {
        return { .type = type, .fileName = namePtr };
    }
    static std::string pathname( const char* namePtr )
    {
        return NuvTest::RootFixture::root( "ixoRoot/log/" ) + namePtr;
    }
    /// What stands before the text in a line of the zone with these flags.
    std::string preamble( unsigned int flags ) const
    {
        LogAppHelper::zoneFlags( flags, "p" );
        const Capture capture( "p" );
        nuvLogTo( mySource ) << "text";
        const std::string line = capture.messages().at( 0 ).line;
        EXPECT_TRUE( line.ends_with( "text" ) ) << line;
        return line.substr( 0, line.size() - 4 );
    }

    const Source mySource{ warning, "p" };
};

const Utils::Buffer ourMessage( "a\0%s\nb", 6 );

TEST_F( LogDrain, PreambleHasItsFieldsInOrderEachByItsFlag )
{
    Io::Pathname::setPathnameOfExecutable( "/opt/bin/mainApp.d/mainApp.bin" );
    preamble( 0x04 ); // so that nothing has elapsed
    const std::uint32_t sequenceNbr = mySource.drainPtr()->sequenceNbr();
    ASSERT_LT( sequenceNbr, 9u );
    const std::string pid = "[" + std::to_string( ::getpid() ) + "] ";
    const std::tuple< std::uint64_t, unsigned int, std::string > cases[] = {
        { ourTime, 0x01, "0000000" + std::to_string( sequenceNbr ) + " " },
        { ourTime, 0x00, "" },
        { ourTime, 0x02, "17Nov2026 03:08:22.123 " },
        { ourTime, 0x04, "0.000 " },
        { ourTime, 0x08, "mainApp " },
        { ourTime, 0x10, pid },
        { ourTime, 0x20, "p " },
        { ourTime, 0x40, "/W " },
        { ourTime, 0x7E, "17Nov2026 03:08:22.123 0.000 mainApp" + pid + "p/W " },
        { ourTime, 0xFFFFFF80, "" },
        { ourTime + 61250, 0x06, "17Nov2026 03:09:23.373 61.250 " },
        { ourTime - 5, 0x06, "17Nov2026 03:08:22.118 0.000 " },
        { ourTime, 0x06, "17Nov2026 03:08:22.123 0.005 " },
        { ourTime + 0x100000003, 0x06, "05Jan2027 20:11:09.422 0.003 " },
    };
    for ( const auto& [now, flags, text] : cases ) {
        ourNow = now;
        EXPECT_EQ( text, preamble( flags ) ) << flags;
    }
    Drain::ourTimeMode = Drain::universalTime;
    EXPECT_EQ( "05Jan2027 14:41:09.422 ", preamble( 0x02 ) );
    NuvTest::passInChild(
        [&] { EXPECT_EQ( "[" + std::to_string( ::getpid() ) + "] ", preamble( 0x10 ) ); } );
}

TEST_F( LogDrain, ApplicationNameFollowsThreadThenProgram )
{
    const std::string longName( 300, 'n' );
    const std::pair< std::string, std::string > cases[] = {
        { "/opt/first.d/first", "first " },
        { "/opt/second.exe", "second " },
        { "", "nuvLogDrainTest " },
        { "/" + longName, longName.substr( 0, 255 ) + " " },
    };
    for ( const auto& [pathname, name] : cases ) {
        Io::Pathname::setPathnameOfExecutable( pathname.c_str() );
        EXPECT_EQ( name, preamble( 0x08 ) );
    }
    NuvTest::startThread( [&] {
        for ( const std::string name : { "subsystem", "" } ) {
            Mt::SubsystemInfo::threadletonPtr()->nameStrPtr(
                Mt::SubsystemInfo::NamePtr( new std::string( name ) ) );
            EXPECT_EQ( name.empty() ? cases[3].second : name + " ", preamble( 0x08 ) );
        }
    } ).join();
}

/// Stands in for a standard stream's buffer.
struct Stream : std::stringbuf
{
    std::streamsize xsputn( const char* ptr, std::streamsize count ) override
    {
        if ( myThrows )
            throw std::runtime_error( "stream" );
        return std::stringbuf::xsputn( ptr, count );
    }
    int sync() override { return ++nbrOfFlushes, 0; }

    bool myThrows = false;
    int nbrOfFlushes = 0;
};

TEST_F( LogDrain, StandardStreamsGetLinesAndOnlyErrorIsFlushed )
{
    for ( const auto type : { Drain::Options::standardError, Drain::Options::standardOutput } ) {
        const bool isError = type == Drain::Options::standardError;
        Stream buffer;
        std::ostream& stream = isError ? std::cerr : std::cout;
        std::streambuf* const beforePtr = stream.rdbuf( &buffer );
        Drain drain( "d", options( type ), 0 );
        stream.rdbuf( beforePtr );
        drain.outputMessage( warning, ourMessage, "z" );
        drain.outputMessage( warning, Utils::Buffer(), "z" );
        EXPECT_EQ( ourMessage.str() + "\n\n", buffer.str() );
        EXPECT_EQ( isError ? 2 : 0, buffer.nbrOfFlushes );
        EXPECT_EQ( 0u, drain.nbrOfLost() );
        buffer.myThrows = true; // which reaches nobody who logs
        EXPECT_NO_THROW( drain.outputMessage( warning, ourMessage, "z" ) );
        EXPECT_EQ( 1u, drain.nbrOfLost() );
    }
}

TEST_F( LogDrain, EveryTypeGetsTheBytesAndAFileThatCannotBeOpenedIsNull )
{
    Drain file( "f", options( Drain::Options::file ), 0 );
    const std::string other = "other\n" + std::string( endOfFileMarker );
    NuvTest::writeFile( pathname( "x.log" ), other );
    file.seekFileMarker();
    file.outputMessage( error, ourMessage, "z" );
    EXPECT_EQ( "other\n" + ourMessage.str() + other.substr( 5 ),
               NuvTest::readFile( pathname( "x.log" ) ) );
    for ( const char* namePtr : { "missing/x.log", "../../../../../../../../..", "." } ) {
        Drain drain( "d", options( Drain::Options::file, namePtr ), 0 );
        EXPECT_EQ( Drain::Options::null, drain.options().type ) << namePtr;
        drain.outputMessage( error, ourMessage, "z" );
        drain.seekFileMarker();
        EXPECT_EQ( 0u, drain.nbrOfLost() ) << "discarding is what a null drain is for";
    }
    Drain( "s", options( Drain::Options::syslog ), 0 ).outputMessage( error, ourMessage, "z" );
    EXPECT_EQ( "a %s\nb", ourSystemLogText ) << "a NUL would end the text";
}

TEST_F( LogDrain, LinesOfManyThreadsStayWholeAlsoWhenOneIsCancelled )
{
    LogAppHelper::zoneFlags( 0, "p" );
    std::atomic< bool > isStarted = false;
    std::thread cancelled( [&] {
        for ( ;; ) {
            nuvLogTo( mySource ) << "cancelled";
            isStarted = true;
            ::pthread_testcancel();
        }
    } );
    EXPECT_TRUE( NuvTest::waitFor( [&] { return isStarted.load(); } ) );
    EXPECT_EQ( 0, ::pthread_cancel( cancelled.native_handle() ) );
    cancelled.join();
    const std::uint32_t before = mySource.drainPtr()->sequenceNbr();
    std::vector< std::thread > threads;
    for ( const char letter : { 'a', 'b', 'c', 'd' } ) {
        threads.emplace_back( [&, letter] {
            for ( int i = 0; i < 500; ++i )
                nuvLogTo( mySource ) << std::string( 50, letter );
        } );
    }
    for ( std::thread& thread : threads )
        thread.join();
    EXPECT_EQ( before + 2000, mySource.drainPtr()->sequenceNbr() );
    LogFileReader reader( pathname( "main.log" ), 245760 );
    std::map< std::string, int > counts;
    for ( std::string line; reader.readLine( &line ); )
        ++counts[line];
    for ( const char letter : { 'a', 'b', 'c', 'd' } )
        EXPECT_EQ( 500, counts[std::string( 50, letter )] );
}

} // namespace
} // namespace Nuv::Log
