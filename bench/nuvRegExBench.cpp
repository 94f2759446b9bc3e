// peers: pcre2 boost_regex
#include "nuvRegEx.h"

#include <benchmark/benchmark.h>

#include <string>

#if NUV_PEER_PCRE2
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#endif
#if NUV_PEER_BOOST_REGEX
#include <boost/regex.hpp>
#endif

namespace {

using Nuv::Utils::RegEx;

const std::string uriPattern = "^(([^:/?#]+):)?(//([^/?#]*))?([^?#]*)(\\?([^#]*))?(#(.*))?";
const std::string uri = "http://user@sensor.example.com:8080/cgi-bin/status?id=17#part";
const std::string literal = "needle";
const std::string alternation = "needle|thread|button|cotton";

// Words of small letters, the one that is looked for at the end.
const std::string& longText()
{
    static const std::string text = [] {
        std::string result;
        std::uint32_t number = 1;
        while ( result.size() < 65536 - literal.size() )
            result += "etaoinshrdlcumwf gpybvk  "[( number = number * 1664525 + 1013904223 ) %
                                                  25000 / 1000];
        return result + literal;
    }();
    return text;
}

std::string repeated( const std::string& text, std::int64_t count )
{
    std::string result;
    while ( count-- > 0 )
        result += text;
    return result;
}

// Sixty nodes, none of which is sure of its place, and nothing that matches.
const std::string hostilePattern = repeated( "(a|aa|[ab]b?)+(.*a.*|a+b?)?", 4 ) + "c";

std::string hostileText( std::int64_t size )
{
    return std::string( static_cast< std::size_t >( size ), 'a' );
}

void searchOurs( benchmark::State& state, const std::string& pattern, const std::string& subject,
                 bool isFound = true )
{
    const RegEx regEx( pattern.c_str() );
    RegEx::SearchResults results;
    for ( auto _ : state ) {
        if ( regEx.search( subject.c_str(), &results ) != isFound )
            state.SkipWithError( "not what is there" );
        benchmark::DoNotOptimize( results.data() );
    }
    state.counters["steps"] = static_cast< double >( RegEx::lastNbrOfSteps() );
}

void BM_RegExUri( benchmark::State& state )
{
    searchOurs( state, uriPattern, uri );
}
BENCHMARK( BM_RegExUri );

void BM_RegExLiteral( benchmark::State& state )
{
    searchOurs( state, literal, longText() );
}
BENCHMARK( BM_RegExLiteral );

void BM_RegExAlternation( benchmark::State& state )
{
    searchOurs( state, alternation, longText() );
}
BENCHMARK( BM_RegExAlternation );

void BM_RegExBlowUp( benchmark::State& state )
{
    searchOurs( state, "(a|aa)+b", std::string( 28, 'a' ), false );
}
BENCHMARK( BM_RegExBlowUp );

void BM_RegExSeries( benchmark::State& state )
{
    searchOurs( state, repeated( "(a|b)", state.range( 0 ) ), repeated( "ab", state.range( 0 ) ) );
}
BENCHMARK( BM_RegExSeries )->Arg( 32 )->Arg( 64 );

void BM_RegExHostile( benchmark::State& state )
{
    searchOurs( state, hostilePattern, hostileText( state.range( 0 ) ), false );
}
BENCHMARK( BM_RegExHostile )->Arg( 2048 )->Arg( 4096 )->Unit( benchmark::kMillisecond );

void BM_RegExCompile( benchmark::State& state )
{
    for ( auto _ : state )
        benchmark::DoNotOptimize( RegEx( uriPattern.c_str() ) );
}
BENCHMARK( BM_RegExCompile );

#if NUV_PEER_PCRE2
pcre2_code* compiledByPcre2( const std::string& pattern )
{
    int error = 0;
    PCRE2_SIZE place = 0;
    return pcre2_compile( reinterpret_cast< PCRE2_SPTR >( pattern.data() ), pattern.size(),
                          PCRE2_DOTALL | PCRE2_DOLLAR_ENDONLY, &error, &place, nullptr );
}

void searchPcre2( benchmark::State& state, const std::string& pattern, const std::string& subject )
{
    pcre2_code* const codePtr = compiledByPcre2( pattern );
    pcre2_match_data* const dataPtr = pcre2_match_data_create_from_pattern( codePtr, nullptr );
    for ( auto _ : state ) {
        if ( pcre2_match( codePtr, reinterpret_cast< PCRE2_SPTR >( subject.data() ), subject.size(),
                          0, PCRE2_NO_UTF_CHECK, dataPtr, nullptr ) < 0 )
            state.SkipWithError( "not found" );
    }
    pcre2_match_data_free( dataPtr );
    pcre2_code_free( codePtr );
}

void BM_RegExUri_Pcre2( benchmark::State& state )
{
    searchPcre2( state, uriPattern, uri );
}
BENCHMARK( BM_RegExUri_Pcre2 );

void BM_RegExLiteral_Pcre2( benchmark::State& state )
{
    searchPcre2( state, literal, longText() );
}
BENCHMARK( BM_RegExLiteral_Pcre2 );

void BM_RegExAlternation_Pcre2( benchmark::State& state )
{
    searchPcre2( state, alternation, longText() );
}
BENCHMARK( BM_RegExAlternation_Pcre2 );

void BM_RegExSeries_Pcre2( benchmark::State& state )
{
    searchPcre2( state, repeated( "(a|b)", state.range( 0 ) ), repeated( "ab", state.range( 0 ) ) );
}
BENCHMARK( BM_RegExSeries_Pcre2 )->Arg( 64 );

void BM_RegExCompile_Pcre2( benchmark::State& state )
{
    for ( auto _ : state )
        pcre2_code_free( compiledByPcre2( uriPattern ) );
}
BENCHMARK( BM_RegExCompile_Pcre2 );
#endif

#if NUV_PEER_BOOST_REGEX
void BM_RegExUri_Boost( benchmark::State& state )
{
    const boost::regex regEx( uriPattern );
    boost::cmatch results;
    for ( auto _ : state ) {
        if ( !boost::regex_search( uri.c_str(), results, regEx ) )
            state.SkipWithError( "not found" );
    }
}
BENCHMARK( BM_RegExUri_Boost );
#endif

} // namespace
