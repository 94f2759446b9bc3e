#include "nuvPipeHash.h"

#include <cstring>

#if defined( __SSE2__ )
#include <emmintrin.h>
#endif

namespace Nuv::Io {

namespace {

constexpr std::uint32_t factor = 63;
constexpr std::size_t blockSize = 32;
constexpr unsigned int nbrOfLanes = 8;

constexpr std::uint32_t power( unsigned int exponent )
{
    std::uint32_t result = 1;
    for ( unsigned int i = 0; i < exponent; ++i ) {
        result *= factor;
    }
    return result;
}

std::uint32_t hashBytes( std::uint32_t hash, const char* ptr, std::size_t length )
{
    for ( std::size_t i = 0; i < length; ++i ) {
        hash = hash * factor + static_cast< std::uint32_t >( static_cast< signed char >( ptr[i] ) );
    }
    return hash;
}

// The hash is a polynomial in 63, so that blocks can be summed in lanes that do not wait for each
// other: every lane takes four bytes of each block, and the lanes are weighted at the end.

#if defined( __SSE2__ )

// Four sums of four bytes each: ((b0 * 63 + b1) * 63 + b2) * 63 + b3.
__m128i quads( const char* ptr )
{
    const __m128i bytes = _mm_loadu_si128( reinterpret_cast< const __m128i* >( ptr ) );
    // The even bytes stand in the upper halves of the words, the product's upper half is taken.
    const __m128i even = _mm_mulhi_epi16( _mm_slli_epi16( bytes, 8 ), _mm_set1_epi16( 63 << 8 ) );
    const __m128i pairs = _mm_add_epi16( even, _mm_srai_epi16( bytes, 8 ) );
    return _mm_madd_epi16( pairs, _mm_set1_epi32( 0x00010F81 ) ); // 3969, 1
}

/// The lanes of 16 bytes, in the lower halves of 64-bit words; the upper ones hold nothing.
struct QuadLanes
{
    void add( __m128i sums, __m128i weight )
    {
        even = _mm_add_epi64( _mm_mul_epu32( even, weight ), sums );
        odd = _mm_add_epi64( _mm_mul_epu32( odd, weight ), _mm_srli_epi64( sums, 32 ) );
    }
    void store( std::uint32_t* lanesPtr ) const
    {
        const __m128i lower = _mm_shuffle_epi32( even, _MM_SHUFFLE( 3, 1, 2, 0 ) );
        const __m128i upper = _mm_shuffle_epi32( odd, _MM_SHUFFLE( 3, 1, 2, 0 ) );
        _mm_storeu_si128( reinterpret_cast< __m128i* >( lanesPtr ),
                          _mm_unpacklo_epi32( lower, upper ) );
    }

    __m128i even = _mm_setzero_si128();
    __m128i odd = _mm_setzero_si128();
};

void sumBlocks( const char* ptr, std::size_t nbrOfBlocks, std::uint32_t ( &lanes )[nbrOfLanes] )
{
    const __m128i blockWeight = _mm_set1_epi32( static_cast< int >( power( blockSize ) ) );
    QuadLanes first;
    QuadLanes second;
    for ( std::size_t i = 0; i < nbrOfBlocks; ++i, ptr += blockSize ) {
        first.add( quads( ptr ), blockWeight );
        second.add( quads( ptr + 16 ), blockWeight );
    }
    first.store( lanes );
    second.store( lanes + 4 );
}

#else

void sumBlocks( const char* ptr, std::size_t nbrOfBlocks, std::uint32_t ( &lanes )[nbrOfLanes] )
{
    constexpr std::uint32_t blockWeight = power( blockSize );
    for ( std::size_t i = 0; i < nbrOfBlocks; ++i, ptr += blockSize ) {
        for ( unsigned int lane = 0; lane < nbrOfLanes; ++lane ) {
            lanes[lane] = lanes[lane] * blockWeight + hashBytes( 0, ptr + 4 * lane, 4 );
        }
    }
}

#endif

} // namespace

std::uint32_t pipeDataHash( std::string_view data )
{
    if ( data.empty() )
        return 0;
    const void* const zeroPtr = std::memchr( data.data(), 0, data.size() );
    const std::size_t length =
        zeroPtr == nullptr
            ? data.size()
            : static_cast< std::size_t >( static_cast< const char* >( zeroPtr ) - data.data() );
    const std::size_t nbrOfBlocks = length / blockSize;
    std::uint32_t lanes[nbrOfLanes] = {};
    sumBlocks( data.data(), nbrOfBlocks, lanes );
    std::uint32_t hash = 0;
    for ( const std::uint32_t lane : lanes ) {
        hash = hash * power( 4 ) + lane;
    }
    return hashBytes( hash, data.data() + nbrOfBlocks * blockSize, length % blockSize );
}

} // namespace Nuv::Io
