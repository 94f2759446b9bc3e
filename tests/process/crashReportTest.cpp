#include "nuvTestFrame.h"

#include <algorithm>
#include <csignal>
#include <dirent.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>

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
        DIR* const dirPtr = ::opendir( corePath().c_str() );
        while ( const dirent* const entryPtr = dirPtr == nullptr ? nullptr : ::readdir( dirPtr ) ) {
            struct stat info
            {
            };
            if ( ::stat( corePath( entryPtr->d_name ).c_str(), &info ) == 0 &&
                 S_ISREG( info.st_mode ) )
                names.push_back( entryPtr->d_name );
        }
        if ( dirPtr != nullptr )
            ::closedir( dirPtr );
        return names;
    }

    /// The lines of core.txt; a crash that is handled leaves no other file.
    std::vector< std::string > reportLines() const
    {
        EXPECT_EQ( files(), std::vector< std::string >{ "core.txt" } );
        std::istringstream stream( readFile( corePath( "core.txt" ) ) );
        std::vector< std::string > lines;
        for ( std::string line; std::getline( stream, line ); ) {
            lines.push_back( line );
        }
        return lines;
    }

    static std::string headLine( int processId, int signalNbr )
    {
        return "Application thread " + std::to_string( processId ) +
               " received trap: " + std::to_string( signalNbr );
    }
};

std::size_t nbrOfHeads( const std::vector< std::string >& lines )
{
    return static_cast< std::size_t >(
        std::count_if( lines.begin(), lines.end(), []( const std::string& line ) {
            return line.find( "Application thread " ) == 0;
        } ) );
}

} // namespace

TEST_F( CrashReport, HasItsLayoutToTheLetter )
{
    const std::string digits = isWide ? "16" : "8";
    const std::vector< std::string > names =
        isWide
            ? std::vector< std::string >{ "rax",     "rbx",     "rdx",    "rcx", "rdi", "rsi",
                                          "rip",     "rbp",     "rsp",    "",    "cs ", "es ",
                                          "ds ",     "gs ",     "fs ",    "ss ", "",    "efl    ",
                                          "ursp   ", "trapno ", "err    " }
            : std::vector< std::string >{ "eax",     "ebx",     "edx",    "ecx", "edi", "esi",
                                          "eip",     "ebp",     "esp",    "",    "cs ", "es ",
                                          "ds ",     "gs ",     "fs ",    "ss ", "",    "efl    ",
                                          "uesp   ", "trapno ", "err    " };
    ChildProcess child( program( "frameProbe" ), start( { "none", "segv" } ) );
    EXPECT_EQ( child.wait().signal(), SIGABRT );
    const std::vector< std::string > lines = reportLines();
    ASSERT_GT( lines.size(), names.size() + 5 );
    EXPECT_EQ( lines[0], headLine( child.pid(), SIGSEGV ) );
    EXPECT_EQ( lines[1], std::string( 62, '-' ) );
    std::string programCounter;
    for ( std::size_t i = 0; i < names.size(); ++i ) {
        const std::string& line = lines[i + 2];
        std::smatch match;
        const std::regex pattern( names[i] + "   0x([0-9a-f]{" + digits + "})  (-?[0-9]+)" );
        ASSERT_TRUE( names[i].empty() ? line.empty() : std::regex_match( line, match, pattern ) )
            << line;
        if ( names[i].empty() )
            continue;
        // The decimal is the same word, signed.
        EXPECT_EQ( static_cast< long >( std::stoul( match[1], nullptr, 16 ) ),
                   std::stol( match[2] ) );
        if ( names[i][1] == 'd' && names[i][2] == 'i' ) {
            EXPECT_EQ( match[2], "-2" ); // put there by the probe
        }
        if ( names[i][1] == 'i' && names[i][2] == 'p' )
            programCounter = match[1];
    }
    const std::size_t first = names.size() + 2;
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
    struct Row
    {
        const char* modePtr;
        int signalNbr;
    };
    const Row rows[] = {
        { "segv", SIGSEGV },
        { "abrt", SIGABRT },
        { "fpe", SIGFPE },
        { "ill", SIGILL },
        { "bus", SIGBUS },
        { "two", SIGSEGV },
        { "abortMeanwhile", SIGSEGV },
        { "overflow", SIGSEGV },
#if !defined( __SANITIZE_ADDRESS__ ) && !defined( __SANITIZE_THREAD__ ) // they bring another malloc
        { "malloc", SIGSEGV }
#endif
    };
    for ( const Row& row : rows ) {
        SCOPED_TRACE( row.modePtr );
        Start rowStart = start( { "none", row.modePtr } );
        // No thread has free blocks at hand: an allocation by the handler would meet the arena's
        // lock.
        rowStart.environment.push_back( "GLIBC_TUNABLES=glibc.malloc.tcache_count=0" );
        ChildProcess child( program( "frameProbe" ), rowStart );
        const Outcome outcome = child.wait();
        EXPECT_FALSE( outcome.isTimedOut );
        EXPECT_EQ( outcome.signal(), SIGABRT ) << outcome.errors;
        const std::vector< std::string > lines = reportLines(); // the last run's is gone
        ASSERT_FALSE( lines.empty() );
        EXPECT_EQ( lines[0], headLine( child.pid(), row.signalNbr ) );
        EXPECT_EQ( nbrOfHeads( lines ), 1u );
        EXPECT_GT( lines.size(), 26u ) << "no backtrace";
    }
}

TEST_F( CrashReport, StackOverflowOfTheInitialThreadReportsToo )
{
    ChildProcess child( program( "frameProbe" ), start( { "overflow", "listen" } ) );
    EXPECT_EQ( child.readLine(), "ready" );
    child.kill( SIGUSR1 ); // the observer recurses without end
    EXPECT_EQ( child.wait().signal(), SIGABRT );
    EXPECT_EQ( reportLines().at( 0 ), headLine( child.pid(), SIGSEGV ) );
}

TEST_F( CrashReport, ForkedChildAndParentReportEachUnderItsOwnProcess )
{
    ChildProcess child( program( "frameProbe" ), start( { "none", "forkedChild" } ) );
    const std::string said = child.readLine(); // process id and ending signal of the forked child
    EXPECT_EQ( child.wait().signal(), SIGABRT );
    const std::vector< std::string > lines = reportLines();
    ASSERT_EQ( nbrOfHeads( lines ), 2u );
    EXPECT_EQ( said.substr( said.find( ' ' ) ), " 6" );
    EXPECT_EQ( lines[0], headLine( std::atoi( said.c_str() ), SIGSEGV ) );
    EXPECT_NE( std::find( lines.begin(), lines.end(), headLine( child.pid(), SIGSEGV ) ),
               lines.end() );
}

TEST_F( CrashReport, EnabledCoreFilesLeaveTheSignalToTheSystem )
{
    writeFile( corePath( "core.1" ), "of an earlier run" );
    const Outcome outcome = run( { "none", "core" } );
    EXPECT_EQ( outcome.signal(), SIGSEGV );
    const std::vector< std::string > left = files();
    EXPECT_EQ( std::count( left.begin(), left.end(), "core.txt" ), 0 );
    EXPECT_EQ( std::count( left.begin(), left.end(), "core.1" ), 0 );
}

TEST_F( CrashReport, StartKeepsTheFirstFileAndTheCrashRemovesIt )
{
    for ( const char* const namePtr : { "core.3", "core.1", "core.txt" } ) {
        writeFile( corePath( namePtr ), "of an earlier run" );
    }
    writeFile( corePath( "folder/file" ), "not its business" );
    const std::string firstFound = files().at( 0 );
    EXPECT_EQ( run( { "none", "return" } ).exitStatus(), 0 );
    EXPECT_EQ( files(), std::vector< std::string >{ firstFound } );
    EXPECT_EQ( readFile( corePath( "folder/file" ) ), "not its business" );
    EXPECT_EQ( run( { "none", "segv" } ).signal(), SIGABRT );
    EXPECT_EQ( nbrOfHeads( reportLines() ), 1u );
}

TEST_F( CrashReport, GoesToStandardOutputWithoutACoreDirectory )
{
    writeFile( corePath(), "a file in the directory's place" );
    const Outcome outcome = run( { "none", "segv" } );
    EXPECT_EQ( outcome.signal(), SIGABRT );
    EXPECT_EQ( outcome.output.find( "Application thread " ), 0u );
    EXPECT_NE( outcome.output.find( "frameProbe(" ), std::string::npos );
}
