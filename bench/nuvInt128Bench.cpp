// peers: boost
#include "nuvBuffer.h"
#include "nuvInt128.h"

#include <benchmark/benchmark.h>

#include <array>
#include <random>
#include <string>

#if NUV_PEER_BOOST
#if defined( __GNUC__ ) && !defined( __clang__ )
#pragma GCC diagnostic ignored "-Wrestrict" // g++ 12 misjudges the peer's str()
#endif
#include <boost/multiprecision/cpp_int.hpp>
#endif

namespace {

using namespace Nuv::Utils;

// Operands of 65 to 127 bits, and divisors of 1 to 127 bits.
struct Operands
{
    Operands()
    {
        std::mt19937_64 engine( 5 );
        for ( std::size_t i = 0; i < count; ++i ) {
            a[i] =
                Int128( static_cast< std::int64_t >( engine() >> ( 1 + i % 60 ) | 1 ), engine() );
            b[i] = Int128( UInt128( engine(), engine() ) >>
                           static_cast< unsigned int >( 1 + i * 7 % 127 ) ) |
                   1;
            Buffer buffer;
            a[i].toString( &buffer, 10 );
            text[i] = buffer.str();
        }
    }
    static constexpr std::size_t count = 256;
    std::array< Int128, count > a;
    std::array< Int128, count > b;
    std::array< std::string, count > text;
};
const Operands operands;

// The time of one operation; the operands are read anew each time.
template < class Operation >
void run( benchmark::State& state, Operation operation )
{
    std::size_t i = 0;
    for ( auto _ : state ) {
        operation( i );
        i = ( i + 1 ) % Operands::count;
    }
}

void BM_Int128Multiply( benchmark::State& state )
{
    run( state,
         []( std::size_t i ) { benchmark::DoNotOptimize( operands.a[i] * operands.b[i] ); } );
}
BENCHMARK( BM_Int128Multiply );

void BM_Int128Divide( benchmark::State& state )
{
    run( state,
         []( std::size_t i ) { benchmark::DoNotOptimize( operands.a[i] / operands.b[i] ); } );
}
BENCHMARK( BM_Int128Divide );

void BM_Int128ToDecimal( benchmark::State& state )
{
    Buffer buffer( 64 );
    run( state, [&]( std::size_t i ) {
        operands.a[i].toString( &buffer, 10 );
        benchmark::DoNotOptimize( buffer.data() );
    } );
}
BENCHMARK( BM_Int128ToDecimal );

void BM_Int128FromDecimal( benchmark::State& state )
{
    run( state,
         []( std::size_t i ) { benchmark::DoNotOptimize( Int128( operands.text[i].c_str() ) ); } );
}
BENCHMARK( BM_Int128FromDecimal );

#if defined( __SIZEOF_INT128__ )
__extension__ using Native = __int128;

const std::array< Native, Operands::count > nativeA = [] {
    std::array< Native, Operands::count > result;
    for ( std::size_t i = 0; i < result.size(); ++i )
        result[i] = Native( operands.a[i].high() ) << 64 | operands.a[i].low();
    return result;
}();
const std::array< Native, Operands::count > nativeB = [] {
    std::array< Native, Operands::count > result;
    for ( std::size_t i = 0; i < result.size(); ++i )
        result[i] = Native( operands.b[i].high() ) << 64 | operands.b[i].low();
    return result;
}();

void BM_Int128Multiply_Native( benchmark::State& state )
{
    run( state, []( std::size_t i ) {
        Native product = nativeA[i] * nativeB[i];
        benchmark::DoNotOptimize( product );
    } );
}
BENCHMARK( BM_Int128Multiply_Native );

void BM_Int128Divide_Native( benchmark::State& state )
{
    run( state, []( std::size_t i ) {
        Native quotient = nativeA[i] / nativeB[i];
        benchmark::DoNotOptimize( quotient );
    } );
}
BENCHMARK( BM_Int128Divide_Native );
#endif

#if NUV_PEER_BOOST
using Peer = boost::multiprecision::int128_t;

void BM_Int128ToDecimal_Boost( benchmark::State& state )
{
    std::array< Peer, Operands::count > values;
    for ( std::size_t i = 0; i < values.size(); ++i )
        values[i] = Peer( operands.text[i] );
    run( state, [&]( std::size_t i ) { benchmark::DoNotOptimize( values[i].str() ); } );
}
BENCHMARK( BM_Int128ToDecimal_Boost );

void BM_Int128FromDecimal_Boost( benchmark::State& state )
{
    run( state, []( std::size_t i ) { benchmark::DoNotOptimize( Peer( operands.text[i] ) ); } );
}
BENCHMARK( BM_Int128FromDecimal_Boost );
#endif

} // namespace
