// peers: gmp
#include "nuvMpi.h"

#include <benchmark/benchmark.h>

#include <string>

#if NUV_PEER_GMP
#include <gmp.h>
#endif

namespace {

using namespace Nuv::Utils;

const std::string& digits()
{
    static const std::string text = [] {
        std::string result;
        std::uint32_t number = 1;
        while ( result.size() < 1000 )
            result += static_cast< char >(
                '1' + ( ( number = number * 1664525 + 1013904223 ) >> 24 ) % 9 );
        return result;
    }();
    return text;
}

void BM_MpiFromDecimal( benchmark::State& state )
{
    Mpi number;
    for ( auto _ : state ) {
        number.setAsciiDecimal( digits().c_str() );
        benchmark::DoNotOptimize( number.bytes().data() );
    }
}
BENCHMARK( BM_MpiFromDecimal );

void BM_MpiToDecimal( benchmark::State& state )
{
    Mpi number;
    number.setAsciiDecimal( digits().c_str() );
    Buffer text;
    for ( auto _ : state ) {
        number.getAsciiDecimal( &text );
        benchmark::DoNotOptimize( text.data() );
    }
    if ( text != digits() )
        state.SkipWithError( "not the digits that were read" );
}
BENCHMARK( BM_MpiToDecimal );

#if NUV_PEER_GMP
void BM_MpiFromDecimal_Gmp( benchmark::State& state )
{
    mpz_t number;
    mpz_init( number );
    for ( auto _ : state ) {
        mpz_set_str( number, digits().c_str(), 10 );
        benchmark::DoNotOptimize( &number );
    }
    mpz_clear( number );
}
BENCHMARK( BM_MpiFromDecimal_Gmp );

void BM_MpiToDecimal_Gmp( benchmark::State& state )
{
    mpz_t number;
    mpz_init_set_str( number, digits().c_str(), 10 );
    std::string text( digits().size() + 2, '\0' );
    for ( auto _ : state )
        benchmark::DoNotOptimize( mpz_get_str( text.data(), 10, number ) );
    mpz_clear( number );
}
BENCHMARK( BM_MpiToDecimal_Gmp );
#endif

} // namespace
