// Regular expressions against those of Python, with patterns for which both rules agree: of the
// alternatives at most one can begin, and a repeated group always takes the same characters.

#include "nuvTestRegEx.h"
#include "nuvTestSupport.h"

#include <random>
#include <sstream>

namespace {

class Patterns
{
public:
    unsigned int below( unsigned int limit ) { return myEngine() % limit; }

    std::string pattern()
    {
        std::string text;
        do
            text = pieces( 2 );
        while ( text.size() > 60 );
        return ( below( 4 ) == 0 ? "^" : "" ) + text + ( below( 4 ) == 0 ? "$" : "" );
    }
    std::string subject()
    {
        std::string text;
        for ( unsigned int size = below( 20 ); size != 0; --size )
            text += "aaabbc-"[below( 7 )];
        return text;
    }

private:
    std::string pick( const std::vector< std::string >& list )
    {
        return list[below( list.size() )];
    }
    std::string repeat() { return pick( { "*", "+", "?", "{2}", "{1,2}", "{2,}", "{0,3}" } ); }

    std::string pieces( unsigned int depth )
    {
        std::string text;
        do
            text += piece( depth );
        while ( below( 5 ) > 1 );
        return text;
    }
    std::string piece( unsigned int depth )
    {
        switch ( below( depth == 0 ? 3 : 6 ) ) {
        case 0:
            return pick( { "a", "b", "[ab]", "[^a]", ".", "[a-c]", "\\-", "\\x62" } ) + repeat();
        case 1:
            return pick( { "(ab|c)", "([ab]b)", "(a|b|-)", "(a(b)(.))" } ) + repeat();
        case 2:
            return pick( { "a", "b", "ab", "[bc]", ".", "[^-]" } );
        case 3:
            return "(a" + maybe( depth ) + "|b" + maybe( depth ) + "|[^ab]" + maybe( depth ) + ")";
        default:
            return "(" + pieces( depth - 1 ) + ")";
        }
    }
    std::string maybe( unsigned int depth ) { return below( 2 ) == 0 ? "" : pieces( depth - 1 ); }

    std::minstd_rand myEngine{ 7 };
};

constexpr const char* pythonText = R"(
import re, sys
for line in open(sys.argv[1]):
    pattern, subject = line.rstrip("\n").split("\t")
    match = re.search(pattern, subject, re.S)
    if not match or match.start() == len(subject) and pattern[0] != "^":
        print("none")
        continue
    spans = [match.span(i) for i in range(match.re.groups + 1)]
    print(*(("" if a < 0 else "%d-%d" % (a, b)) + ("!" if i and a == b else "")
            for i, (a, b) in enumerate(spans)))
)";

TEST( RegExPeer, GivesWhatPythonGives )
{
    Patterns patterns;
    std::string input;
    std::string ours;
    for ( int i = 0; i < 4000; ++i ) {
        const std::string pattern = patterns.pattern();
        SCOPED_TRACE( pattern );
        const Nuv::Utils::RegEx regEx( pattern.c_str() );
        for ( int j = 0; j < 5; ++j ) {
            const std::string subject = patterns.subject();
            input += pattern + '\t' + subject + '\n';
            ours += NuvTest::matchOf( regEx, subject ) + '\t' + pattern + '\t' + subject + '\n';
        }
    }
    const NuvTest::TemporaryFolder folder;
    NuvTest::writeFile( folder.path( "pairs" ), input );
    NuvTest::Start start;
    start.arguments = { "-c", pythonText, folder.path( "pairs" ) };
    const NuvTest::Outcome outcome = NuvTest::runProgram( "/usr/bin/python3", start );
    if ( outcome.exitStatus() == 127 )
        GTEST_SKIP() << "python3 is not installed";
    ASSERT_EQ( 0, outcome.exitStatus() ) << outcome.errors;
    std::istringstream theirLines( outcome.output );
    std::istringstream ourLines( ours );
    int nbrOfMatches = 0;
    for ( std::string ourLine, theirLine; std::getline( ourLines, ourLine ); ) {
        std::getline( theirLines, theirLine );
        ASSERT_EQ( theirLine, ourLine.substr( 0, ourLine.find( '\t' ) ) ) << ourLine;
        nbrOfMatches += theirLine != "none";
    }
    EXPECT_GT( nbrOfMatches, 5000 );
}

} // namespace
