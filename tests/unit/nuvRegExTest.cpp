#include "nuvRegEx.h"

#include "nuvRegExMatcher.h"
#include "nuvTestRegEx.h"
#include "nuvTestWrap.h"

#include <pthread.h>
#include <random>
#include <string>
#include <thread>

namespace {
thread_local int ourNbrOfAllocations = 0;
}

NUV_WRAP_REAL( void*, NUV_SIZED( _Znw ), ( size_t n ), ++ourNbrOfAllocations,
               NUV_REAL( NUV_SIZED( _Znw ) )( n ) )

namespace Nuv::Utils {
namespace {

std::string refusalOf( const std::string& pattern, unsigned int flags = 0 )
{
    try {
        const RegEx regEx( pattern.c_str(), flags );
    } catch ( const RegEx::Exception& exception ) {
        return exception.what();
    }
    return "";
}

std::string repeated( const std::string& text, std::size_t count )
{
    std::string result;
    while ( count-- > 0 )
        result += text;
    return result;
}

using NuvTest::Ends;
using NuvTest::matchOf;
using NuvTest::none;
using NuvTest::textOf;

TEST( RegExSyntax, Refusals )
{
    const std::pair< std::string, std::vector< std::string > > cases[] = {
        { "unexpected end of string", { "", "a|", "(", "(a|" } },
        { "mismatched \"( )\"", { ")", "()", "(a|)" } },
        { "Expected end of string", { "a)" } },
        { "Expected ')'", { "(a" } },
        { "missing atom before \"|\"", { "|a", "a||b", "(|a)" } },
        { "'*', '+', or '?' follows nothing", { "*a", "(+a)", "a|?", "{2}" } },
        { "Two repeat operands in a row", { "a**", "a?{2}", "(a*)*+" } },
        { "Operand of '*' or '+' could be empty",
          { "(a*)*", "^*", "($)+", "(a|b?)+", "(a?b{0,3}){2}", "(a?){0,2}" } },
        { "'{' - repeat count not a valid decimal value",
          { "x{", "x{,2}", "x{a}", "x{256}", "x{0001}", "x{\\2}", "x{1,256}", "x{1,x}" } },
        { "'{n,m}' expected a ',' or '}'", { "x{2", "x{2-3}", "x{2\\}" } },
        { "'{n,m}' expected a '}'", { "x{2,3" } },
        { "'{n,m}' min count is greater than max count", { "x{3,2}", "x{2,0}" } },
        { "'{n,m}' max count is equal to zero", { "x{0}", "x{0,0}" } },
        { "Expected ']'", { "[", "[]", "[^]", "[a-", "[a\\]" } },
        { "Invalid [] range", { "[z-a]", "[a-\\]]" } },
        { "'\\' at end of string", { "a\\", "[\\" } },
        { "'0' follows '\\'", { "\\0", "[\\0]" } },
        { "'\\x' not followed by a hexadecimal digit", { "\\x", "\\xg", "\\x0", "\\x00" } },
        { "Too many subexpressions", { repeated( "(a)", 100 ), repeated( "(", 5000 ) } },
        { "Pattern too large", { repeated( "a", 65526 ), repeated( ".", 22000 ) } },
        // Besides the text's 65525 bytes there are a branch, the text's header and NUL, an end.
        { "", { repeated( "a", 65525 ), repeated( "(a)", 99 ), "[Z-a]", "x{255}" } } };
    for ( const auto& [text, patterns] : cases ) {
        for ( const std::string& pattern : patterns ) {
            SCOPED_TRACE( pattern.substr( 0, 40 ) );
            EXPECT_EQ( text, refusalOf( pattern ) );
            const RegEx silent( pattern.c_str(), RegEx::silentCompile );
            EXPECT_EQ( text.empty(), silent.isValid() );
            EXPECT_TRUE( silent.isValid() || matchOf( silent, "a" ) == "none" );
        }
    }
    EXPECT_EQ( "Invalid [] range", refusalOf( "[Z-a]", RegEx::caseInsensitive ) );
    EXPECT_THROW( RegEx( nullptr ), LogicException );
}

// Each case is "pattern subject match", with '_' for an empty subject.
void checkMatches( std::initializer_list< std::string > cases, unsigned int flags = 0 )
{
    for ( const std::string& text : cases ) {
        SCOPED_TRACE( text );
        const std::size_t first = text.find( ' ' );
        const std::size_t second = text.find( ' ', first + 1 );
        const std::string subject = text.substr( first + 1, second - first - 1 );
        EXPECT_EQ( text.substr( second + 1 ),
                   matchOf( RegEx( text.substr( 0, first ).c_str(), flags ),
                            subject == "_" ? "" : subject ) );
    }
}

TEST( RegExSyntax, AtomsAndSets )
{
    checkMatches(
        { "abc+ xabccc 1-6", "x{2,3} xxxx 0-3", "x{2} xxxx 0-2", "x{007,} xxxxxxxx 0-8" } );
    checkMatches( { "[]a] x] 1-2", "[^]a] ]ab 2-3", "[-a] b- 1-2", "[a-] b- 1-2",
                    "[a-c-e]+ xde-bc 2-6", "[--0]+ 1.-/0 1-5", "[]-a]+ z^a\\] 1-3" } );
    checkMatches( { "[a\\]\\-z]+ b-z]a 1-5", "[\\^a]+ b^a 1-3", "[\\x5ea]+ b^a 1-3",
                    "[a\\x2dz]+ b-za 1-4", "[a\\x5d]+ ]a 0-2", "[\\x61-\\x63]+ dcba 1-4",
                    "[.*$(|]+ a|($*. 1-6", "[^a-c]+ abcxyz 3-6", "[\\x01-\\xff]+ \x01\xFF 0-2",
                    ". \xFF 0-1" } );
    checkMatches( { "\\$\\(\\)\\*\\+\\.\\?\\[\\^\\{\\|\\\\\\]\\- $()*+.?[^{|\\]- 0-14",
                    "\\a\\b\\f\\n\\r\\t\\v \a\b\f\n\r\t\v 0-7",
                    "\\x2a\\x28\\x5B\\x7c\\x9\\q\\1 *([|\tq1 0-7", "\\x2a+ ** 0-2",
                    "a]b}c,d a]b}c,d 0-7" } );
    checkMatches( { "^b ab none", "b$ ab 1-2", "a^b a^b none", "^^a$$ a 0-1", "a|^b|c$ cb none",
                    "a _ none", "b* _ none", "^ _ 0-0", "^b*$ _ 0-0", "(^) _ none", "$ ab none",
                    "b* ab 0-0", "^?a aa 0-1", "a($)? aa 0-1 !" } );
    checkMatches( { "ABC xabcx 1-4", "a[B-D]+ xAbCdX 1-5", "\\x41 Aa none", "[\\Qa] QA 1-2" },
                  RegEx::caseInsensitive );
}

TEST( RegExSearch, LongestAlternativesAndGroups )
{
    const std::string uri = "^(([^:/?#]+):)?(//([^/?#]*))?([^?#]*)(\\?([^#]*))?(#(.*))?";
    const std::string authority = "^(([^:]+)@)?([^:]+)(:(.*))?";
    checkMatches(
        { "a|ab abc 0-2", "(a|ab)(c|bcd)? abcd 0-4 0-1 1-4", "(a|b)|(ab) ab 0-2 ! 0-2",
          "(a|(a))b ab 0-2 0-1 !", "(ab|a)(bc)?c abc 0-3 0-2 !", "((a)|(b))+ ab 0-2 1-2 0-1 1-2",
          "((a)b|ac)+ abac 0-4 2-4 0-1", "(a*)b b 0-1 0-0!", "((x*)y)+ xyy 0-3 2-3 2-2!",
          // A round or a road that was given up leaves nothing.
          "(a(b)?)+c?d|a ababe 0-1 ! !", "((ab)|a)+b aabb 0-4 1-3 1-3", "((ab)|(a))+b aab none",
          "(a|aa)+b aaab 0-4 2-3", "(x(a)?y)?xa xaz 0-2 ! !", "(a+|b)*c aabac 0-5 3-4",
          "(a{1,2}){2} aaa 0-3 2-3", "(ab?){2,3}ab aabab 0-5 1-3",
          uri + " http://u@h:80/p/q?x#f 0-21 0-5 0-4 5-13 7-13 13-17 17-19 18-19 19-21 20-21",
          uri + " p/q 0-3 ! ! ! ! 0-3 ! ! ! !", uri + " _ 0-0 ! ! ! ! 0-0! ! ! ! !",
          authority + " u@h:80 0-6 0-2 0-1 2-3 3-6 4-6", authority + " host 0-4 ! ! 0-4 ! !",
          "([a-zA-Z]+)(\\|[a-zA-Z]+)* mon|tue|wed 0-11 0-3 7-11" } );
}

TEST( RegExFormat, ReplacesGroupsAndTheMatch )
{
    const RegEx regEx( "(b+)(x)?(c)" );
    RegEx::SearchResults results;
    std::string text = "[";
    EXPECT_FALSE( regEx.search( "abb", &results ) );
    for ( const RegEx::SearchResults& unset : { results, RegEx::SearchResults() } ) {
        try {
            RegEx::format( &text, "x", unset );
            ADD_FAILURE() << "not refused";
        } catch ( const RegEx::Exception& exception ) {
            EXPECT_STREQ( "Attempting replace on invalid search.", exception.what() );
        }
    }
    const std::string subject = "abbcd";
    EXPECT_TRUE( regEx.search( subject.c_str(), &results ) );
    for ( const std::string templateAndText :
          { "<\\1> <bb>", " ", "&-\\0-\\3 bbc-bbc-c", "\\2 ", "\\4\\99\\18446744073709551617 ",
            "\\01 bb", "\\\\1\\& \\1&", "\\n\\ \\n\\", "\\\\\\1 \\bb" } ) {
        const std::size_t blank = templateAndText.find( ' ' );
        text = "[";
        RegEx::format( &text, templateAndText.substr( 0, blank ).c_str(), results );
        EXPECT_EQ( "[" + templateAndText.substr( blank + 1 ), text ) << templateAndText;
    }
    EXPECT_THROW( RegEx::format( &text, nullptr, results ), LogicException );
    EXPECT_THROW( regEx.search( nullptr ), LogicException );
}

std::uint64_t stepsOf( const std::string& pattern, const std::string& subject )
{
    const RegEx regEx( pattern.c_str() );
    regEx.search( subject.c_str() );
    return RegEx::lastNbrOfSteps();
}

TEST( RegExWork, HostilePatternsStayLinear )
{
    const std::string patterns[] = { "(a|aa)+b",
                                     "(a|a)+b",
                                     "((a|aa)+b?c?)+d",
                                     "(((a+)b?)+c?)+d",
                                     "(a+b?)+(a+b?)+(a+b?)+c",
                                     ".*.*.*x",
                                     "[^b]*a[^b]*a[^b]*b",
                                     ".*a.*a.*a.*b",
                                     "(.*a)?(.*a)?(.*a)?b",
                                     "(a{1,3}|aa)+(a|[ab]a)*b",
                                     repeated( "(a|a)", 60 ) + "b",
                                     repeated( "(a|aa)", 30 ) + "b",
                                     repeated( "a?", 60 ) + repeated( "a", 60 ) + "b",
                                     repeated( "(a|aa|[ab]b?)+(.*a.*|a+b?)?", 4 ) + "c" };
    for ( const std::string& pattern : patterns ) {
        SCOPED_TRACE( pattern );
        const std::uint64_t half = stepsOf( pattern, std::string( 2048, 'a' ) );
        const std::uint64_t whole = stepsOf( pattern, std::string( 4096, 'a' ) );
        EXPECT_LT( whole, half * 5 / 2 );
        EXPECT_LT( whole, 4096u * 400 );
    }
    EXPECT_LT( stepsOf( "(a|aa)+b", std::string( 28, 'a' ) ), 2000u );
    for ( const char* const alternatives : { "(a|b)", "(a|[ab])", "(a|ab|b)" } ) {
        const auto steps = [&]( std::size_t count ) {
            return stepsOf( repeated( alternatives, count ) + "$", repeated( "ab", count / 2 ) );
        };
        EXPECT_LT( steps( 64 ), steps( 32 ) * 5 / 2 ) << alternatives;
    }
}

TEST( RegExWork, SearchesAllocateNothingAndSkipWhatCannotBegin )
{
    const std::string longText = std::string( 100000, 'x' ) + "yab";
    const std::pair< const char*, std::string > cases[] = {
        { "^(([^:/?#]+):)?(//([^/?#]*))?([^?#]*)", "http://host/path" },
        { "(a|aa)+b", std::string( 300, 'a' ) },
        { "ya", longText },
        { "y+a", longText },
        { "(y|z)(a|c)", longText } };
    for ( const auto& [patternPtr, subject] : cases ) {
        const RegEx regEx( patternPtr );
        RegEx::SearchResults results;
        const bool isFound = regEx.search( subject.c_str(), &results );
        const int before = ourNbrOfAllocations;
        EXPECT_GT( before, 0 ) << "the calls are not intercepted";
        EXPECT_EQ( isFound, regEx.search( subject.c_str(), &results ) );
        EXPECT_EQ( before, ourNbrOfAllocations ) << patternPtr;
        EXPECT_TRUE( subject != longText || RegEx::lastNbrOfSteps() < 20 ) << patternPtr;
    }
}

// Rounds and nesting cost no stack but for repeats that lie in one another.
TEST( RegExWork, StackIsBounded )
{
#if defined( __SANITIZE_THREAD__ )
    GTEST_SKIP() << "the checker's own share of a stack is larger";
#endif
    pthread_attr_t saved;
    pthread_getattr_default_np( &saved );
    pthread_attr_t attributes;
    pthread_attr_init( &attributes );
    pthread_attr_setstacksize( &attributes, 512 * 1024 ); // with the sanitizers' share
    ASSERT_EQ( 0, pthread_setattr_default_np( &attributes ) );
    const std::string nested = repeated( "(", 99 ) + "a" + repeated( ")+", 99 ) + "b";
    std::thread( [&] {
        EXPECT_FALSE( RegEx( nested.c_str() ).search( std::string( 50, 'a' ).c_str() ) );
        EXPECT_TRUE( RegEx( "((a|b)c?)*$" ).search( repeated( "abc", 100000 ).c_str() ) );
        EXPECT_TRUE( RegEx( repeated( "(a|aa)?b*", 99 ).c_str() )
                         .search( repeated( "aab", 3000 ).c_str() ) );
    } ).join();
    pthread_setattr_default_np( &saved );
}

TEST( RegExThreads, SearchWithOneObject )
{
    const RegEx regEx( "((a|ab)(c|bcd)?)+x" );
    const std::string subjects[] = { "abcdacx", repeated( "abc", 400 ) + "x",
                                     repeated( "abcd", 300 ) };
    const std::string expected[] = { matchOf( regEx, subjects[0] ), matchOf( regEx, subjects[1] ),
                                     matchOf( regEx, subjects[2] ) };
    std::vector< std::thread > threads;
    for ( int i = 0; i < 4; ++i )
        threads.emplace_back( [&] {
            for ( int round = 0; round < 60; ++round )
                EXPECT_EQ( expected[round % 3], matchOf( regEx, subjects[round % 3] ) );
        } );
    for ( std::thread& thread : threads )
        thread.join();
}

/// The rule as it is told, node by node with all that follows, without a thought for time.
class PlainMatcher
{
public:
    PlainMatcher( const RegEx& regEx, const std::string& subject )
        : myProgram( regEx.program() )
        , mySubject( subject )
        , myEnds( 2 * regEx.nbrOfGroups() + 2, none )
        , myIsAnchored( RegExProgram::nodeType( myProgram, RegExProgram::headerSize ) ==
                            RegExProgram::bol &&
                        !isBranch( RegExProgram::nextNodePos( myProgram, 0 ) ) )
    {
    }

    /// As matchOf(); "" if it takes too long.
    std::string search()
    {
        const Ends unset = myEnds;
        bool isFound = false;
        for ( std::size_t start = 0; !isFound && start < ( myIsAnchored ? 1 : mySubject.size() );
              ++start ) {
            myEnds = unset;
            std::size_t at = start;
            isFound = match( 0, &at );
            myEnds[0] = start;
            myEnds[1] = isFound ? at : none;
        }
        return myNbrOfStepsLeft < 0 ? "" : textOf( myEnds );
    }

private:
    bool isBranch( std::size_t pos ) const
    {
        return RegExProgram::nodeType( myProgram, pos ) == RegExProgram::branch;
    }

    bool match( std::size_t pos, std::size_t* atPtr )
    {
        if ( --myNbrOfStepsLeft < 0 )
            return false;
        const std::size_t next = RegExProgram::nextNodePos( myProgram, pos );
        const unsigned int group = RegExProgram::nodeGroup( myProgram, pos );
        const std::size_t at = *atPtr;
        switch ( RegExProgram::nodeType( myProgram, pos ) ) {
        case RegExProgram::end:
            return true;
        case RegExProgram::branch:
            return isBranch( next ) ? matchAlternatives( pos, atPtr )
                                    : match( pos + RegExProgram::headerSize, atPtr );
        case RegExProgram::repeat:
            return matchRounds( pos, atPtr );
        case RegExProgram::open:
        case RegExProgram::close: {
            const bool isOpen = RegExProgram::nodeType( myProgram, pos ) == RegExProgram::open;
            if ( !match( next, atPtr ) )
                return false;
            myEnds[2 * group + ( isOpen ? 0 : 1 )] = at;
            return true;
        }
        default:
            return step( pos, atPtr ) && match( next, atPtr );
        }
    }

    bool step( std::size_t pos, std::size_t* atPtr ) const
    {
        const std::string_view text = RegExProgram::nodeText( myProgram, pos );
        const bool isAtEnd = *atPtr == mySubject.size();
        const char c = isAtEnd ? '\0' : mySubject[*atPtr];
        switch ( RegExProgram::nodeType( myProgram, pos ) ) {
        case RegExProgram::bol:
            return *atPtr == 0;
        case RegExProgram::eol:
            return isAtEnd;
        case RegExProgram::exactly:
            *atPtr += text.size();
            return mySubject.compare( *atPtr - text.size(), text.size(), text ) == 0;
        case RegExProgram::any:
            break;
        default:
            if ( ( text.find( c ) != std::string::npos ) !=
                 ( RegExProgram::nodeType( myProgram, pos ) == RegExProgram::anyOf ) )
                return false;
        }
        ++*atPtr;
        return !isAtEnd;
    }

    bool matchAlternatives( std::size_t pos, std::size_t* atPtr )
    {
        const Ends before = myEnds;
        Ends best;
        std::size_t farthest = 0;
        for ( ; isBranch( pos ); pos = RegExProgram::nextNodePos( myProgram, pos ) ) {
            std::size_t at = *atPtr;
            myEnds = before;
            if ( match( pos + RegExProgram::headerSize, &at ) &&
                 ( best.empty() || at > farthest ) ) {
                farthest = at;
                best = myEnds;
            }
        }
        myEnds = best.empty() ? before : best;
        *atPtr = best.empty() ? *atPtr : farthest;
        return !best.empty();
    }

    bool matchRounds( std::size_t pos, std::size_t* atPtr )
    {
        const std::size_t operandPos = pos + RegExProgram::repeatNodeSize;
        const std::size_t min = RegExProgram::byteAt( myProgram, pos + 3 );
        const std::size_t max = RegExProgram::byteAt( myProgram, pos + 4 );
        std::vector< std::pair< std::size_t, Ends > > rounds{ { *atPtr, myEnds } };
        for ( std::size_t at = *atPtr;
              ( max == 0 || rounds.size() <= max ) && match( operandPos, &at ); )
            rounds.emplace_back( at, myEnds );
        for ( ; rounds.size() > min; rounds.pop_back() ) {
            std::tie( *atPtr, myEnds ) = rounds.back();
            if ( match( RegExProgram::nextNodePos( myProgram, pos ), atPtr ) )
                return true;
        }
        return false;
    }

    const Buffer& myProgram;
    const std::string& mySubject;
    Ends myEnds;
    bool myIsAnchored;
    int myNbrOfStepsLeft = 20000;
};

/// Random patterns and subjects over few characters, so that they often meet.
class Random
{
public:
    explicit Random( unsigned int seed )
        : myEngine( seed )
    {
    }

    unsigned int below( unsigned int limit ) { return myEngine() % limit; }

    std::string pattern( unsigned int depth )
    {
        std::string text = branch( depth );
        while ( below( 5 ) < 2 )
            text += '|' + branch( depth );
        return text;
    }
    std::string subject()
    {
        std::string text;
        for ( unsigned int size = below( 14 ); size != 0; --size )
            text += "aaabbc"[below( 6 )];
        return text;
    }

private:
    std::string branch( unsigned int depth )
    {
        std::string text;
        do
            text += atom( depth ) + ops[below( ops.size() )];
        while ( below( 3 ) != 0 );
        return text;
    }
    std::string atom( unsigned int depth )
    {
        if ( depth > 0 && below( 3 ) == 0 )
            return '(' + pattern( depth - 1 ) + ')';
        return atoms[below( atoms.size() )];
    }

    const std::vector< std::string > ops{ "", "", "", "", "*", "+", "?", "{2}", "{1,2}", "{0,3}" };
    const std::vector< std::string > atoms{ "a", "b",    "c",     "ab", "aba", ".",
                                            "^", "[ab]", "[^ab]", "$",  "a",   "[^b]" };
    std::minstd_rand myEngine;
};

// As matchOf(), with all outcomes kept after so many steps.
std::string matchKeepingAll( const RegEx& regEx, const std::string& subject,
                             unsigned int nbrOfFreeSteps )
{
    const RegExPlan plan( regEx.program(), regEx.nbrOfGroups() );
    RegExScratch scratch;
    RegExMatcher matcher( plan, subject.c_str(), subject.size(), &scratch, nbrOfFreeSteps );
    std::vector< RegExGroup > groups( regEx.nbrOfGroups() + 1,
                                      { RegExMatcher::noMatch, RegExMatcher::noMatch } );
    matcher.search( groups.data() );
    Ends ends;
    for ( const RegExGroup& group : groups ) {
        const bool isSet = group.myEnd != RegExMatcher::noMatch;
        ends.insert( ends.end(), { isSet ? group.myStart : none, isSet ? group.myEnd : none } );
    }
    return textOf( ends );
}

TEST( RegExSearch, GivesWhatThePlainRuleGives )
{
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
    const int nbrOfPairsWanted = 20000;
#else
    const int nbrOfPairsWanted = sizeof( void* ) == 4 ? 50000 : 200000; // emulated: slow
#endif
    Random random( 20 );
    int nbrOfPairs = 0;
    int nbrOfMatches = 0;
    while ( nbrOfPairs < nbrOfPairsWanted ) {
        const std::string pattern = random.pattern( 3 );
        const RegEx regEx( pattern.c_str(), RegEx::silentCompile );
        for ( int i = 0; regEx.isValid() && i < 20; ++i ) {
            const std::string subject = random.subject();
            const std::string expected = PlainMatcher( regEx, subject ).search();
            if ( expected.empty() )
                continue;
            SCOPED_TRACE( pattern + " on " + subject );
            ASSERT_EQ( expected, matchOf( regEx, subject ) );
            ASSERT_EQ( expected, matchKeepingAll( regEx, subject, 0 ) );
            ASSERT_EQ( expected, matchKeepingAll( regEx, subject, random.below( 50 ) ) );
            ASSERT_EQ( expected != "none", regEx.search( subject.c_str() ) );
            ++nbrOfPairs;
            nbrOfMatches += expected != "none";
        }
    }
    EXPECT_GT( nbrOfMatches, nbrOfPairs / 3 );
    EXPECT_LT( nbrOfMatches, nbrOfPairs * 9 / 10 );
}

} // namespace
} // namespace Nuv::Utils
