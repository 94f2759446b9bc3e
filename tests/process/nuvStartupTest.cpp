#include "nuvTestInterprocess.h"

#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace NuvTest;

std::set< std::string > namesIn( const std::string& directory )
{
    std::set< std::string > names;
    for ( const auto& entry : std::filesystem::directory_iterator( directory ) )
        names.insert( entry.path().filename() );
    return names;
}

int nbrOfSystemVObjects()
{
    using Kernel = InterprocessFixture;
    return Kernel::nbrOfKernelObjects( "sem" ) + Kernel::nbrOfKernelObjects( "shm" ) +
           Kernel::nbrOfKernelObjects( "msg" );
}

} // namespace

TEST( LibraryStartup, ProgramThatNeverCallsPaysNothing )
{
    const auto before = namesIn( RootFixture::root() );
    const int nbrOfObjects = nbrOfSystemVObjects();
    ChildProcess probe( [] { // without the descriptors that this test inherited
        ::close_range( 3, ~0U, 0 );
        ::execl( program( "idleProbe" ).c_str(), "idleProbe", nullptr );
        ::_exit( 127 );
    } );
    ASSERT_EQ( probe.readLine(), "up" );
    const std::string directory = "/proc/" + std::to_string( probe.pid() );
    EXPECT_EQ( namesIn( directory + "/fd" ), ( std::set< std::string >{ "0", "1", "2" } ) );
    // An emulator has a thread of its own.
    const bool isEmulated =
        std::filesystem::read_symlink( directory + "/exe" ).filename() != "idleProbe";
    EXPECT_EQ( namesIn( directory + "/task" ).size(), isEmulated ? 2u : 1u );
    EXPECT_EQ( namesIn( RootFixture::root() ), before );
    EXPECT_EQ( nbrOfSystemVObjects(), nbrOfObjects );
    const std::string status = readFile( directory + "/status" );
    std::uint64_t interrupts = 0; // blocked in the first thread; the others are not
    for ( const int sig : { 1, 2, 3, 10, 12, 13, 14, 15, 17, 18, 21, 22, 23, 29, 30 } )
        interrupts |= std::uint64_t{ 1 } << ( sig - 1 );
    EXPECT_EQ( std::stoull( status.substr( status.find( "SigBlk:\t" ) + 8 ), nullptr, 16 ),
               interrupts );
    probe.closeInput();
    EXPECT_EQ( probe.wait().exitStatus(), 0 );
    EXPECT_EQ( namesIn( RootFixture::root() ), before );
}

TEST( ProcessRestart, ExecutesTheCommandAtExitWithItsArgumentsAndStandardStreamsAlone )
{
    const std::string self = program( "restartProbe" );
    const Outcome outcome = runProgram( self, { { self, "name", "show", "", "b c", "" }, {} } );
    EXPECT_EQ( outcome.output, "name|show||b c||closed\n" );
    EXPECT_EQ( outcome.exitStatus(), 0 );
    const Outcome bare = runProgram( self, { { "/bin/pwd" }, {} } );
    EXPECT_EQ( bare.output, std::filesystem::current_path().string() + "\n" ) << bare.errors;
    const Outcome failed = runProgram( self, { { "/no/such", "a" }, {} } );
    EXPECT_EQ( failed.errors, "processAtExit() execv failed for Command: /no/such\n" );
    EXPECT_EQ( failed.exitStatus(), 3 );
}

// Needs several real users, so real root: the probe is installed set-user-id by the owner, and run
// by a login user.
TEST( SetUserIdProgram, HasItsOwnersRightsInScopesAndAtTheEnd )
{
    const std::pair< uid_t, const char* > cases[] = {
        { 4711, "main 1000 1000\n1\nsuid 1000 4711\nafter 1000 1000\n"
                "0\nsuper 1000 1000\nafter 1000 1000\n4711\n" },
        { 0, "main 1000 1000\n1\nsuid 1000 0\nafter 1000 1000\n"
             "1\nsuper 0 0\nafter 1000 1000\n0\n" } };
    for ( const auto& [owner, expectedPtr] : cases ) {
        const TemporaryFolder folder;
        const std::string installed = folder.path( "suidProbe" );
        const std::string made = folder.path( "made" );
        ASSERT_EQ( ::chmod( folder.path().c_str(), 0777 ), 0 );
        std::filesystem::copy_file( program( "suidProbe" ), installed );
        if ( ::geteuid() != 0 || ::chown( installed.c_str(), owner, owner ) != 0 )
            GTEST_SKIP() << "needs real root: several user ids";
        ASSERT_EQ( ::chmod( installed.c_str(), 04755 ), 0 );
        const Outcome outcome = runInChild( [&] {
            ::setenv( "ASAN_OPTIONS", "detect_leaks=0", 1 ); // not possible when set-user-id
            if ( ::setgid( 1000 ) == 0 && ::setuid( 1000 ) == 0 )
                ::execl( installed.c_str(), installed.c_str(), made.c_str(), nullptr );
            ::_exit( 127 );
        } );
        if ( outcome.exitStatus() == 127 )
            GTEST_SKIP() << "other users cannot read the library: " << outcome.errors;
        EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
        EXPECT_EQ( outcome.output, expectedPtr );
        struct stat info = {};
        EXPECT_EQ( ::stat( made.c_str(), &info ), 0 );
        EXPECT_EQ( info.st_uid, owner );
    }
}
