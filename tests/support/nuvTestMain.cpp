#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

// ctest's word for "skipped", returned when not one of the chosen tests could run here.
static constexpr int skippedStatus = 77;

// A test program started by hand goes through the build's "isolated" as ctest's do, lest it works
// on the user's own home. (For a debugger: set NUV_ISOLATED=1 and HOME yourself.)
static void enterIsolation( char** argv )
{
    const std::filesystem::path programPath = std::filesystem::read_symlink( "/proc/self/exe" );
    const std::string isolated = programPath.parent_path() / "isolated";
    std::vector< const char* > arguments{ isolated.c_str(), programPath.c_str() };
    for ( char** argumentPtr = argv + 1; *argumentPtr != nullptr; ++argumentPtr )
        arguments.push_back( *argumentPtr );
    arguments.push_back( nullptr );
    ::execv( isolated.c_str(), const_cast< char* const* >( arguments.data() ) );
    std::perror( isolated.c_str() );
    std::exit( 1 );
}

int main( int argc, char** argv )
{
    if ( std::getenv( "NUV_ISOLATED" ) == nullptr )
        enterIsolation( argv );
    ::testing::InitGoogleTest( &argc, argv );
    const int status = RUN_ALL_TESTS();
    const ::testing::UnitTest& run = *::testing::UnitTest::GetInstance();
    const bool allSkipped =
        run.skipped_test_count() > 0 && run.skipped_test_count() == run.test_to_run_count();
    return status == 0 && allSkipped ? skippedStatus : status;
}
