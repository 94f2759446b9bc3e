#include "nuvGetopt.h"

#include "nuvTestSupport.h"

#include <string>
#include <vector>

namespace Nuv {
namespace {

// Parses the arguments, which follow the program's name, to the end: "a" for an option, "b=value"
// for one with an argument, "?x" for one that was refused, and the index of the first operand.
std::string parse( std::vector< std::string > arguments, const char* optionsPtr )
{
    arguments.insert( arguments.begin(), "program" );
    std::vector< char* > argv;
    for ( std::string& argument : arguments )
        argv.push_back( argument.data() );
    argv.push_back( nullptr );
    const int argc = static_cast< int >( arguments.size() );
    std::string result;
    optind = 1;
    for ( int c = 0; ( c = getopt( argc, argv.data(), optionsPtr ) ) != -1; ) {
        result += static_cast< char >( c );
        if ( c == '?' )
            result += static_cast< char >( optopt );
        if ( optarg != nullptr )
            result += std::string( "=" ) + optarg;
        result += ' ';
    }
    EXPECT_EQ( nullptr, optarg );
    return result + std::to_string( optind );
}

TEST( GetoptParsing, FollowsTheTable )
{
    struct Row
    {
        const char *optionsPtr, *resultPtr, *errorsPtr;
        std::vector< std::string > arguments;
    };
    const Row rows[] = {
        { "ab:", "a b=value b=x 5", "", { "-a", "-bvalue", "-b", "x", "file" } },
        { "ab", "a b 2", "", { "-ab" } },
        { "ab:", "a b=rest a 3", "", { "-abrest", "-a" } },
        { "a", "1", "", {} },
        { "a", "a 3", "", { "-a", "--", "-a" } },
        { "a", "a 2", "", { "-a", "-", "-a" } },
        { "a", "a 2", "", { "-a-a", "x" } }, // '-' within an argument ends as "--" does
        { "b:", "b=-b 3", "", { "-b", "-b" } },
        { "b:", "b= 2", "Required argument for -b option missing.\n", { "-b" } },
        { ":b:", "b= 2", "", { "-b" } },
        { "a", "?% a 2", "Illegal option \"%\".\n", { "-%a" } },
        { "a", "?x a 2", "Unknown option \"-x\".\n", { "-xa" } },
    };
    for ( const auto& row : rows ) {
        SCOPED_TRACE( row.resultPtr );
        ::testing::internal::CaptureStderr();
        EXPECT_EQ( row.resultPtr, parse( row.arguments, row.optionsPtr ) );
        EXPECT_EQ( row.errorsPtr, ::testing::internal::GetCapturedStderr() );
    }
}

TEST( GetoptParsing, StartsAnewWhereTheCallerSetsTheIndex )
{
    char program[] = "program", cluster[] = "-abcdef", other[] = "-xyz", single[] = "-z";
    char* const longArgv[] = { program, cluster, other, nullptr };
    char* const shortArgv[] = { program, single, nullptr };
    const char* const options = "abcdefxyz";
    optind = 1;
    EXPECT_EQ( 'a', getopt( 3, longArgv, options ) );
    EXPECT_EQ( 'b', getopt( 3, longArgv, options ) );
    EXPECT_EQ( 'z', getopt( 2, shortArgv, options ) ); // its argument is shorter than the old index
    EXPECT_EQ( 2, optind );
    for ( const int index : { 3, 4, -1 } ) {
        optind = index;
        EXPECT_EQ( -1, getopt( 4, longArgv, "a" ) );
    }
}

} // namespace
} // namespace Nuv
