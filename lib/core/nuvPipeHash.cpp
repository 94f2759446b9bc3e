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

__m128i multiply( __m128i a, __m128i b )
{
    const __m128i even = _mm_mul_epu32( a, b );
    const __m128i odd = _mm_mul_epu32( _mm_srli_epi64( a, 32 ), _mm_srli_epi64( b, 32 ) );
    return _mm_unpacklo_epi32( _mm_shuffle_epi32( even, _MM_SHUFFLE( 0, 0, 2, 0 ) ),
                               _mm_shuffle_epi32( odd, _MM_SHUFFLE( 0, 0, 2, 0 ) ) );
}

// Four sums of four bytes each: ((b0 * 63 + b1) * 63 + b2) * 63 + b3.
__m128i quads( __m128i bytes )
{
    const __m128i pairWeights = _mm_set1_epi32( 0x0001003F ); // 63, 1
    const __m128i quadWeights = _mm_set1_epi32( 0x00010F81 ); // 3969, 1
    const __m128i low = _mm_srai_epi16( _mm_unpacklo_epi8( bytes, bytes ), 8 );
    const __m128i high = _mm_srai_epi16( _mm_unpackhi_epi8( bytes, bytes ), 8 );
    return _mm_madd_epi16(
        _mm_packs_epi32( _mm_madd_epi16( low, pairWeights ), _mm_madd_epi16( high, pairWeights ) ),
        quadWeights );
}

void sumBlocks( const char* ptr, std::size_t nbrOfBlocks, std::uint32_t ( &lanes )[nbrOfLanes] )
{
    const __m128i blockWeight = _mm_set1_epi32( static_cast< int >( power( blockSize ) ) );
    __m128i first = _mm_setzero_si128();
    __m128i second = _mm_setzero_si128();
    for ( std::size_t i = 0; i < nbrOfBlocks; ++i, ptr += blockSize ) {
        const auto* const blockPtr = reinterpret_cast< const __m128i* >( ptr );
        first =
            _mm_add_epi32( multiply( first, blockWeight ), quads( _mm_loadu_si128( blockPtr ) ) );
        second = _mm_add_epi32( multiply( second, blockWeight ),
                                quads( _mm_loadu_si128( blockPtr + 1 ) ) );
    }
    _mm_storeu_si128( reinterpret_cast< __m128i* >( lanes ), first );
    _mm_storeu_si128( reinterpret_cast< __m128i* >( lanes ) + 1, second );
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
