#include "nuvTestFrame.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <regex>
#include <sstream>
#include <tuple>

namespace {

using namespace NuvTest;

constexpr bool isWide = sizeof( void* ) == 8;

class CrashReport : public ProcessFrame
{
protected:
    std::string corePath( const std::string& relative = "" ) const
    {
        return path( "core/frameProbe" + ( relative.empty() ? "" : "/" + relative ) );
    }

    /// The regular files of the core directory, in the order of a directory scan.
    std::vector< std::string > files() const
    {
        std::vector< std::string > names;
        for ( const auto& entry : std::filesystem::directory_iterator( corePath() ) )
            if ( entry.is_regular_file() )
                names.push_back( entry.path().filename() );
        return names;
    }

    /// The lines of core.txt; a crash that is handled leaves no other file.
    std::vector< std::string > reportLines() const
    {
        EXPECT_EQ( files(), std::vector< std::string >{ "core.txt" } );
        std::istringstream stream( readFile( corePath( "core.txt" ) ) );
        std::vector< std::string > lines;
        for ( std::string line; std::getline( stream, line ); )
            lines.push_back( line );
        return lines;
    }

    static std::string headLine( int processId, int signalNbr )
    {
        return "Application thread " + std::to_string( processId ) +
               " received trap: " + std::to_string( signalNbr );
    }
    static std::ptrdiff_t nbrOfHeads( const std::vector< std::string >& lines )
    {
        return std::ranges::count_if( lines, []( const std::string& line ) {
            return line.starts_with( "Application thread " );
        } );
    }
};

} // namespace

TEST_F( CrashReport, HasItsLayoutToTheLetter )
{
    const std::string digits = isWide ? "16" : "8";
    const char* const names[] = { "?ax", "?bx", "?dx", "?cx",     "?di",     "?si",     "?ip",
                                  "?bp", "?sp", "",    "cs ",     "es ",     "ds ",     "gs ",
                                  "fs ", "ss ", "",    "efl    ", "u?sp   ", "trapno ", "err    " };
    ChildProcess child( program( "frameProbe" ), start( { "none", "segv" } ) );
    EXPECT_EQ( child.wait().signal(), SIGABRT );
    const std::vector< std::string > lines = reportLines();
    const std::size_t first = std::size( names ) + 2; // of the backtrace
    ASSERT_GT( lines.size(), first + 3 );
    EXPECT_EQ( lines[0], headLine( child.pid(), SIGSEGV ) );
    EXPECT_EQ( lines[1], std::string( 62, '-' ) );
    std::string programCounter;
    for ( std::size_t i = 0; i < std::size( names ); ++i ) {
        const std::string& line = lines[i + 2];
        std::string name = names[i];
        std::ranges::replace( name, '?', isWide ? 'r' : 'e' );
        std::smatch match;
        const std::regex pattern( name + "   0x([0-9a-f]{" + digits + "})  (-?[0-9]+)" );
        ASSERT_TRUE( name.empty() ? line.empty() : std::regex_match( line, match, pattern ) )
            << line;
        if ( name.empty() )
            continue;
        // The decimal is the same word, signed.
        EXPECT_EQ( static_cast< long >( std::stoul( match[1], nullptr, 16 ) ),
                   std::stol( match[2] ) );
        EXPECT_TRUE( name.find( "di" ) != 1 || match[2] == "-2" ) << "put there by the probe";
        if ( name.find( "ip" ) == 1 )
            programCounter = match[1];
    }
    EXPECT_EQ( lines[first], std::string( 62, '-' ) );
#if !defined( __SANITIZE_ADDRESS__ ) &&                                                            \
    !defined( __SANITIZE_THREAD__ ) // they add a frame of theirs
    EXPECT_NE( lines[first + 1].find( "nuvcore" ), std::string::npos ) << "the handler itself";
    programCounter.erase( 0, programCounter.find_first_not_of( '0' ) );
    EXPECT_NE( lines[first + 2].find( "frameProbe(" ), std::string::npos );
    EXPECT_NE( lines[first + 2].find( "[0x" + programCounter + "]" ), std::string::npos )
        << lines[first + 2];
#endif
    EXPECT_LE( lines.size() - first - 1, 128u );
}

TEST_F( CrashReport, EachCrashSignalEndsTheProcessWithOneReport )
{
    const std::tuple< std::string, std::string, std::string, int > cases[] = {
        { "none", "segv", "", SIGSEGV },
        { "none", "signal", "6", SIGABRT },
        { "none", "signal", "8", SIGFPE },
        { "none", "signal", "4", SIGILL },
        { "none", "signal", "7", SIGBUS },
        { "none", "two", "", SIGSEGV },
        { "none", "abortMeanwhile", "", SIGSEGV },
        { "none", "overflow", "", SIGSEGV },
        { "overflow", "raise", "10", SIGSEGV }, // of the initial thread's stack
#if !defined( __SANITIZE_ADDRESS__ ) && !defined( __SANITIZE_THREAD__ ) // they bring another malloc
        { "none", "malloc", "", SIGSEGV }
#endif
    };
    for ( const auto& [observer, mode, argument, signalNbr] : cases ) {
        SCOPED_TRACE( mode + argument );
        Start rowStart = start( { observer, mode, argument } );
        // No thread has free blocks at hand: an allocation by the handler would meet the arena's
        // lock.
        rowStart.environment.push_back( "GLIBC_TUNABLES=glibc.malloc.tcache_count=0" );
        ChildProcess child( program( "frameProbe" ), rowStart );
        const Outcome outcome = child.wait();
        EXPECT_FALSE( outcome.isTimedOut );
        EXPECT_EQ( outcome.signal(), SIGABRT ) << outcome.errors;
        const std::vector< std::string > lines = reportLines(); // the last run's is gone
        ASSERT_FALSE( lines.empty() );
        EXPECT_EQ( lines[0], headLine( child.pid(), signalNbr ) );
        EXPECT_EQ( nbrOfHeads( lines ), 1 );
        EXPECT_GT( lines.size(), 26u ) << "no backtrace";
    }
}

TEST_F( CrashReport, ForkedChildAndParentReportEachUnderItsOwnProcess )
{
    ChildProcess child( program( "frameProbe" ), start( { "none", "forkedChild" } ) );
    const std::string said = child.readLine(); // process id and ending signal of the forked child
    EXPECT_EQ( child.wait().signal(), SIGABRT );
    const std::vector< std::string > lines = reportLines();
    ASSERT_EQ( nbrOfHeads( lines ), 2 );
    EXPECT_EQ( said.substr( said.find( ' ' ) ), " 6" );
    EXPECT_EQ( lines[0], headLine( std::atoi( said.c_str() ), SIGSEGV ) );
    EXPECT_NE( std::find( lines.begin(), lines.end(), headLine( child.pid(), SIGSEGV ) ),
               lines.end() );
}

TEST_F( CrashReport, StartKeepsTheFirstFileAndTheCrashRemovesItWhoeverWritesTheCore )
{
    for ( const char* const namePtr : { "core.3", "core.1", "core.txt" } )
        writeFile( corePath( namePtr ), "of an earlier run" );
    writeFile( corePath( "folder/file" ), "not its business" );
    const std::string firstFound = files().at( 0 );
    EXPECT_EQ( run( { "none", "return" } ).exitStatus(), 0 );
    EXPECT_EQ( files(), std::vector< std::string >{ firstFound } );
    EXPECT_EQ( run( { "none", "segv" } ).signal(), SIGABRT );
    EXPECT_EQ( nbrOfHeads( reportLines() ), 1 );
    EXPECT_EQ( run( { "none", "core" } ).signal(), SIGSEGV ) << "with enabled core files";
    EXPECT_FALSE( std::filesystem::exists( corePath( "core.txt" ) ) );
    EXPECT_EQ( readFile( corePath( "folder/file" ) ), "not its business" );
}

TEST_F( CrashReport, GoesToStandardOutputWithoutACoreDirectory )
{
    writeFile( corePath(), "a file in the directory's place" );
    const Outcome outcome = run( { "none", "segv" } );
    EXPECT_EQ( outcome.signal(), SIGABRT );
    EXPECT_EQ( outcome.output.find( "Application thread " ), 0u );
    EXPECT_NE( outcome.output.find( "frameProbe(" ), std::string::npos );
}
