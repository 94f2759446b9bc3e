#include "nuvInt128.h"

#include "nuvBuffer.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace Nuv::Utils {
namespace {

static_assert( std::numeric_limits< long double >::digits == 64, "holds a half exactly" );
constexpr long double twoTo64 = 18446744073709551616.0L;

constexpr int maxRadix = 36;

// For each radix its greatest power below 2^64: as many digits are handled in one word.
struct Chunk
{
    std::uint64_t myPower = 1;
    unsigned int myNbrOfDigits = 0;
};

constexpr auto chunks = [] {
    std::array< Chunk, maxRadix + 1 > all{};
    for ( unsigned int radix = 2; radix <= maxRadix; ++radix ) {
        while ( all[radix].myPower <= UINT64_MAX / radix ) {
            all[radix].myPower *= radix;
            ++all[radix].myNbrOfDigits;
        }
    }
    return all;
}();

constexpr unsigned int noDigit = 255;

constexpr unsigned int digitOf( char c )
{
    if ( c >= '0' && c <= '9' )
        return static_cast< unsigned int >( c - '0' );
    const char lower = static_cast< char >( c | 0x20 );
    return lower >= 'a' && lower <= 'z' ? static_cast< unsigned int >( lower - 'a' ) + 10 : noDigit;
}

// The digits at the front of the text, modulo 2^128.
UInt128 parseDigits( const char* textPtr, unsigned int radix )
{
    const std::uint64_t fullScale = chunks[radix].myPower;
    UInt128 value = 0;
    std::uint64_t scale = 1;
    std::uint64_t chunk = 0;
    for ( unsigned int digit; ( digit = digitOf( *textPtr ) ) < radix; ++textPtr ) {
        if ( scale == fullScale ) {
            value = value * scale + chunk;
            scale = 1;
            chunk = 0;
        }
        chunk = chunk * radix + digit;
        scale *= radix;
    }
    return value * scale + chunk;
}

UInt128 parse( const char* textPtr )
{
    if ( textPtr == nullptr )
        return 0;
    const bool isNegative = *textPtr == '-';
    textPtr += isNegative ? 1 : 0;
    unsigned int radix = 10;
    if ( *textPtr == '0' ) {
        radix = textPtr[1] == 'x' ? 16 : 8;
        textPtr += radix == 16 ? 2 : 1;
    }
    const UInt128 value = parseDigits( textPtr, radix );
    return isNegative ? -value : value;
}

// Truncated toward zero, modulo 2^128.
UInt128 fromFloating( long double number )
{
    const long double magnitude = std::fabs( number );
    if ( !( magnitude >= 1 ) || std::isinf( magnitude ) )
        return 0;
    int exponent = 0;
    const long double fraction = std::frexp( magnitude, &exponent );
    const int shift = exponent - 64;
    if ( shift >= 128 )
        return 0;
    UInt128 value = static_cast< std::uint64_t >( std::ldexp( fraction, 64 ) );
    if ( shift >= 0 )
        value <<= static_cast< unsigned int >( shift );
    else
        value >>= static_cast< unsigned int >( -shift );
    return number < 0 ? -value : value;
}

unsigned int bitWidth( const UInt128& value )
{
    const int width =
        value.high() != 0 ? 64 + std::bit_width( value.high() ) : std::bit_width( value.low() );
    return static_cast< unsigned int >( width );
}

// The rounding is done on integers, and scaling by a power of two is exact: no register of greater
// precision can round a second time.
template < class Floating >
Floating rounded( const UInt128& magnitude )
{
    constexpr unsigned int nbrOfDigits = std::numeric_limits< Floating >::digits;
    const unsigned int width = bitWidth( magnitude );
    if ( width <= nbrOfDigits )
        return static_cast< Floating >( magnitude.low() );
    const unsigned int shift = width - nbrOfDigits;
    std::uint64_t digits = ( magnitude >> shift ).low();
    const UInt128 rest = magnitude & ( ( UInt128( 1 ) << shift ) - 1 );
    const UInt128 half = UInt128( 1 ) << ( shift - 1 );
    if ( rest > half || ( rest == half && ( digits & 1 ) != 0 ) )
        ++digits;
    return std::ldexp( static_cast< Floating >( digits ), static_cast< int >( shift ) );
}

#if defined( __SIZEOF_INT128__ )

__extension__ using Native = unsigned __int128;

Native nativeOf( const UInt128& value )
{
    return Native( value.high() ) << 64 | value.low();
}

UInt128 fromNative( Native value )
{
    return UInt128( static_cast< std::uint64_t >( value >> 64 ),
                    static_cast< std::uint64_t >( value ) );
}

UInt128 quotient( UInt128 dividend, UInt128 divisor, UInt128* remainderPtr )
{
    if ( ( dividend.high() | divisor.high() ) == 0 ) {
        *remainderPtr = dividend.low() % divisor.low();
        return dividend.low() / divisor.low();
    }
    const Native result = nativeOf( dividend ) / nativeOf( divisor );
    *remainderPtr = fromNative( nativeOf( dividend ) - result * nativeOf( divisor ) );
    return fromNative( result );
}

#else

// Least significant digit first.
using Digits = std::array< std::uint32_t, 5 >;

Digits digitsOf( const UInt128& value )
{
    return { static_cast< std::uint32_t >( value.low() ),
             static_cast< std::uint32_t >( value.low() >> 32 ),
             static_cast< std::uint32_t >( value.high() ),
             static_cast< std::uint32_t >( value.high() >> 32 ), 0 };
}

UInt128 valueOf( const Digits& digits )
{
    return UInt128( std::uint64_t( digits[3] ) << 32 | digits[2],
                    std::uint64_t( digits[1] ) << 32 | digits[0] );
}

UInt128 shortQuotient( UInt128 dividend, std::uint32_t divisor, UInt128* remainderPtr )
{
    Digits digits = digitsOf( dividend );
    std::uint64_t rest = 0;
    for ( std::size_t i = 4; i-- > 0; ) {
        rest = rest << 32 | digits[i];
        digits[i] = static_cast< std::uint32_t >( rest / divisor );
        rest %= divisor;
    }
    *remainderPtr = rest;
    return valueOf( digits );
}

// One digit of the quotient of u (from digit j on) by v, whose top bit is set; u keeps the rest.
// The estimate from the leading digits is at most two too large; what the test against the second
// digit leaves is put right by adding v back.
std::uint32_t quotientDigit( Digits& u, const Digits& v, std::size_t nbrOfDigits, std::size_t j )
{
    constexpr std::uint64_t base = std::uint64_t( 1 ) << 32;
    const std::uint64_t leading =
        std::uint64_t( u[j + nbrOfDigits] ) << 32 | u[j + nbrOfDigits - 1];
    std::uint64_t estimate = leading / v[nbrOfDigits - 1];
    std::uint64_t rest = leading % v[nbrOfDigits - 1];
    while ( estimate >= base ||
            estimate * v[nbrOfDigits - 2] > ( rest << 32 | u[j + nbrOfDigits - 2] ) ) {
        --estimate;
        rest += v[nbrOfDigits - 1];
        if ( rest >= base )
            break;
    }
    std::int64_t borrow = 0;
    for ( std::size_t i = 0; i <= nbrOfDigits; ++i ) {
        const std::uint64_t product = i < nbrOfDigits ? estimate * v[i] : 0;
        const std::int64_t digit = std::int64_t( u[i + j] ) - borrow -
                                   static_cast< std::int64_t >( product & ( base - 1 ) );
        u[i + j] = static_cast< std::uint32_t >( digit );
        borrow = static_cast< std::int64_t >( product >> 32 ) - ( digit >> 32 );
    }
    if ( borrow == 0 )
        return static_cast< std::uint32_t >( estimate );
    std::uint64_t carry = 0;
    for ( std::size_t i = 0; i <= nbrOfDigits; ++i ) {
        carry += std::uint64_t( u[i + j] ) + ( i < nbrOfDigits ? v[i] : 0 );
        u[i + j] = static_cast< std::uint32_t >( carry );
        carry >>= 32;
    }
    return static_cast< std::uint32_t >( estimate - 1 );
}

UInt128 quotient( UInt128 dividend, UInt128 divisor, UInt128* remainderPtr )
{
    const unsigned int width = bitWidth( divisor );
    if ( width <= 32 )
        return shortQuotient( dividend, static_cast< std::uint32_t >( divisor.low() ),
                              remainderPtr );
    if ( dividend < divisor ) {
        *remainderPtr = dividend;
        return 0;
    }
    const std::size_t nbrOfDigits = ( width + 31 ) / 32;
    const unsigned int shift = static_cast< unsigned int >( 32 * nbrOfDigits ) - width;
    const Digits v = digitsOf( divisor << shift );
    Digits u = digitsOf( dividend << shift );
    if ( shift != 0 )
        u[4] = static_cast< std::uint32_t >( ( dividend >> ( 128 - shift ) ).low() );
    Digits result{};
    for ( std::size_t j = 5 - nbrOfDigits; j-- > 0; )
        result[j] = quotientDigit( u, v, nbrOfDigits, j );
    *remainderPtr = valueOf( u ) >> shift;
    return valueOf( result );
}

#endif

// The digits of a magnitude that is not zero, ending before endPtr.
char* writeDigits( UInt128 magnitude, unsigned int radix, char* endPtr )
{
    const Chunk& chunk = chunks[radix];
    for ( ;; ) {
        UInt128 rest = magnitude;
        magnitude = 0;
        if ( rest >= chunk.myPower )
            magnitude = quotient( rest, chunk.myPower, &rest );
        char digits[64];
        const char* const digitsEndPtr = std::to_chars( digits, digits + sizeof( digits ),
                                                        rest.low(), static_cast< int >( radix ) )
                                             .ptr;
        const std::size_t nbrOfDigits = static_cast< std::size_t >( digitsEndPtr - digits );
        char* const chunkEndPtr = endPtr;
        for ( std::size_t i = nbrOfDigits; i-- > 0; )
            *--endPtr = digits[i] >= 'a' ? static_cast< char >( digits[i] - 'a' + 'A' ) : digits[i];
        if ( !magnitude )
            return endPtr;
        while ( endPtr != chunkEndPtr - chunk.myNbrOfDigits )
            *--endPtr = '0';
    }
}

} // namespace

template < class High >
BasicInt128< High >::BasicInt128( const char* textPtr )
    : BasicInt128( parse( textPtr ) )
{
}

template < class High >
BasicInt128< High >::BasicInt128( float number )
    : BasicInt128( fromFloating( number ) )
{
}

template < class High >
BasicInt128< High >::BasicInt128( double number )
    : BasicInt128( fromFloating( number ) )
{
}

template < class High >
BasicInt128< High >::BasicInt128( long double number )
    : BasicInt128( fromFloating( number ) )
{
}

template < class High >
UInt128 BasicInt128< High >::magnitude() const
{
    const UInt128 bits( *this );
    return myHigh < 0 ? -bits : bits;
}

template < class High >
BasicInt128< High > BasicInt128< High >::divided( const BasicInt128& divisor,
                                                  BasicInt128* remainderPtr,
                                                  const char* operationPtr ) const
{
    if ( !divisor )
        throw std::domain_error( operationPtr );
    UInt128 rest;
    const UInt128 result = quotient( magnitude(), divisor.magnitude(), &rest );
    const bool isNegative = ( myHigh < 0 ) != ( divisor.myHigh < 0 );
    if ( remainderPtr != nullptr )
        *remainderPtr = BasicInt128( myHigh < 0 ? -rest : rest );
    return BasicInt128( isNegative ? -result : result );
}

template < class High >
float BasicInt128< High >::toFloat() const
{
    const float number = rounded< float >( magnitude() );
    return myHigh < 0 ? -number : number;
}

template < class High >
double BasicInt128< High >::toDouble() const
{
    const double number = rounded< double >( magnitude() );
    return myHigh < 0 ? -number : number;
}

template < class High >
long double BasicInt128< High >::toLongDouble() const
{
    // Both summands are exact, so that the sum alone rounds.
    const UInt128 bits = magnitude();
    const long double number = static_cast< long double >( bits.high() ) * twoTo64 +
                               static_cast< long double >( bits.low() );
    return myHigh < 0 ? -number : number;
}

template < class High >
void BasicInt128< High >::toString( Buffer* bufferPtr, int radix ) const
{
    nuvAssert( bufferPtr != NULL );
    if ( !*this ) {
        bufferPtr->assign( "0", 1 );
        return;
    }
    if ( radix < 2 || radix > maxRadix ) {
        *bufferPtr = "(invalid radix)";
        return;
    }
    char text[129];
    char* const endPtr = text + sizeof( text );
    char* beginPtr = writeDigits( magnitude(), static_cast< unsigned int >( radix ), endPtr );
    if ( myHigh < 0 )
        *--beginPtr = '-';
    bufferPtr->assign( beginPtr, static_cast< std::size_t >( endPtr - beginPtr ) );
}

template class BasicInt128< std::int64_t >;
template class BasicInt128< std::uint64_t >;

} // namespace Nuv::Utils
