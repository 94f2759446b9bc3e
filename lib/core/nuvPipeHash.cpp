#include "nuvPipeHash.h"

#include <bit>
#include <cstring>

#if defined( __SSE2__ )
#include <emmintrin.h>
#endif

namespace Nuv::Io {

namespace {

constexpr std::uint32_t factor = 63;

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

// The hash is a polynomial in 63, so that the bytes of a block can be summed by their weights
// without waiting for each other.

#if defined( __SSE2__ )

constexpr std::size_t blockSize = 32;
constexpr unsigned int nbrOfLanes = 8;

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

// Every lane takes four bytes of each block; the lanes are weighted at the end.
std::uint32_t hashBlocks( const char* ptr, std::size_t nbrOfBlocks )
{
    const __m128i blockWeight = _mm_set1_epi32( static_cast< int >( power( blockSize ) ) );
    QuadLanes first;
    QuadLanes second;
    for ( std::size_t i = 0; i < nbrOfBlocks; ++i, ptr += blockSize ) {
        first.add( quads( ptr ), blockWeight );
        second.add( quads( ptr + 16 ), blockWeight );
    }
    std::uint32_t lanes[nbrOfLanes];
    first.store( lanes );
    second.store( lanes + 4 );
    std::uint32_t hash = 0;
    for ( const std::uint32_t lane : lanes ) {
        hash = hash * power( 4 ) + lane;
    }
    return hash;
}

#else

constexpr std::size_t blockSize = 16;

static_assert( std::endian::native == std::endian::little );

// Two sums of two bytes each, b0 * 63 + b1 in the lower half and b2 * 63 + b3 in the upper one. The
// bytes are taken as unsigned, 128 too large.
std::uint32_t pairs( const char* ptr )
{
    std::uint32_t word;
    std::memcpy( &word, ptr, sizeof( word ) );
    word ^= 0x80808080;
    const std::uint32_t even = word & 0x00FF00FF;
    return ( even << 6 ) - even + ( ( word - even ) >> 8 );
}

std::uint32_t hashBlocks( const char* ptr, std::size_t nbrOfBlocks )
{
    constexpr std::uint32_t surplus = [] {
        std::uint32_t sum = 0;
        for ( unsigned int i = 0; i < blockSize; ++i ) {
            sum = sum * factor + 128;
        }
        return sum;
    }();
    std::uint32_t hash = 0;
    for ( std::size_t i = 0; i < nbrOfBlocks; ++i, ptr += blockSize ) {
        const std::uint32_t p0 = pairs( ptr );
        const std::uint32_t p1 = pairs( ptr + 4 );
        const std::uint32_t p2 = pairs( ptr + 8 );
        const std::uint32_t p3 = pairs( ptr + 12 );
        const std::uint32_t lower = ( p0 & 0xFFFF ) * power( 12 ) + ( p1 & 0xFFFF ) * power( 8 ) +
                                    ( p2 & 0xFFFF ) * power( 4 ) + ( p3 & 0xFFFF );
        const std::uint32_t upper = ( p0 >> 16 ) * power( 12 ) + ( p1 >> 16 ) * power( 8 ) +
                                    ( p2 >> 16 ) * power( 4 ) + ( p3 >> 16 );
        hash = hash * power( blockSize ) + lower * power( 2 ) + upper - surplus;
    }
    return hash;
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
    const std::uint32_t hash = hashBlocks( data.data(), nbrOfBlocks );
    return hashBytes( hash, data.data() + nbrOfBlocks * blockSize, length % blockSize );
}

} // namespace Nuv::Io
