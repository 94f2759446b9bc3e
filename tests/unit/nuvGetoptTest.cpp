#include "nuvGetopt.h"

#include "nuvTestSupport.h"

#include <gtest/gtest.h>
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
    for ( std::string& argument : arguments ) {
        argv.push_back( argument.data() );
    }
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
    const struct
    {
        const char* optionsPtr;
        std::vector< std::string > arguments;
        const char* resultPtr;
        const char* errorsPtr;
    } rows[] = {
        { "ab:", { "-a", "-bvalue", "-b", "x", "file" }, "a b=value b=x 5", "" },
        { "ab", { "-ab" }, "a b 2", "" },
        { "ab:", { "-abrest", "-a" }, "a b=rest a 3", "" },
        { "a", {}, "1", "" },
        { "a", { "file", "-a" }, "1", "" },
        { "a", { "-a", "--", "-a" }, "a 3", "" },
        { "a", { "-a", "-", "-a" }, "a 2", "" },
        { "a", { "-a-a", "x" }, "a 2", "" }, // '-' within an argument ends as "--" does
        { "b:", { "-b", "-b" }, "b=-b 3", "" },
        { "b:", { "-b" }, "b= 2", "Required argument for -b option missing.\n" },
        { ":b:", { "-b" }, "b= 2", "" },
        { "a", { "-%a" }, "?% a 2", "Illegal option \"%\".\n" },
        { ":a", { "-%" }, "?% 2", "" },
        { "a", { "-xa" }, "?x a 2", "Unknown option \"-x\".\n" },
        { "a:", { "-:" }, "?: 2", "Illegal option \":\".\n" },
        { "", { "-x" }, "?x 2", "Unknown option \"-x\".\n" },
    };
    for ( const auto& row : rows ) {
        SCOPED_TRACE( row.resultPtr );
        ::testing::internal::CaptureStderr();
        EXPECT_EQ( row.resultPtr, parse( row.arguments, row.optionsPtr ) );
        EXPECT_EQ( row.errorsPtr, ::testing::internal::GetCapturedStderr() );
    }
}

TEST( GetoptParsing, OpterrZeroSilencesTheMessages )
{
    opterr = 0;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ( "?x ?% b= 3", parse( { "-x%", "-b" }, "b:" ) );
    EXPECT_EQ( "", ::testing::internal::GetCapturedStderr() );
    opterr = 1;
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
    optind = 1;
    EXPECT_EQ( 'a', getopt( 3, longArgv, options ) );
    optind = 2;
    EXPECT_EQ( 'x', getopt( 3, longArgv, options ) );
    for ( const int index : { 3, 4, -1 } ) {
        optind = index;
        EXPECT_EQ( -1, getopt( 4, longArgv, "a" ) );
    }
}

} // namespace
} // namespace Nuv
