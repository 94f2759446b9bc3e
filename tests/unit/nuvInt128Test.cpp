#include "nuvInt128.h"

#include "nuvBuffer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

namespace Nuv::Utils {
namespace {

constexpr std::uint64_t ones = ~std::uint64_t( 0 );
const Int128 least( INT64_MIN, 0 );
const UInt128 greatest( ones, ones );

template < class Number >
std::string text( const Number& number, int radix = 10 )
{
    Buffer buffer( "replaced" );
    number.toString( &buffer, radix );
    return buffer.str();
}

// Halves that make carries, borrows and quotient estimates go wrong, mixed with any.
struct Halves
{
    std::uint64_t operator()()
    {
        static constexpr std::uint64_t edges[] = { 0,
                                                   1,
                                                   2,
                                                   0x7FFFFFFF,
                                                   0x80000000,
                                                   0xFFFFFFFF,
                                                   0x100000000,
                                                   0x7FFFFFFFFFFFFFFF,
                                                   0x8000000000000000,
                                                   0xFFFFFFFF00000000,
                                                   ones - 1,
                                                   ones };
        const std::uint64_t bits = myEngine();
        switch ( bits % 3 ) {
        case 0:
            return edges[bits / 3 % std::size( edges )];
        case 1:
            return myEngine() >> ( bits / 3 % 64 );
        default:
            return myEngine();
        }
    }
    std::mt19937_64 myEngine{ 20240229 };
};

TEST( Int128Text, ParsedByPrefixUpToTheFirstOtherCharacter )
{
    struct Case
    {
        const char* textPtr;
        Int128 value;
    };
    for ( const Case& c : { Case{ nullptr, 0 },
                            Case{ "", 0 },
                            Case{ "-", 0 },
                            Case{ "0", 0 },
                            Case{ "0x", 0 },
                            Case{ "-1", Int128( -1, ones ) },
                            Case{ "0x1f", 31 },
                            Case{ "-0xFf", -255 },
                            Case{ "017", 15 },
                            Case{ "018", 1 },
                            Case{ "12ab", 12 },
                            Case{ "0X1f", 0 },
                            Case{ "+1", 0 },
                            Case{ " 1", 0 },
                            Case{ "0xg", 0 },
                            Case{ "1@", 1 },
                            Case{ "1[", 1 },
                            Case{ "0x1`", 1 },
                            Case{ "18446744073709551616", Int128( 1, 0 ) },
                            Case{ "-170141183460469231731687303715884105728", least },
                            Case{ "0xffffffffffffffffffffffffffffffff", -1 },
                            Case{ "340282366920938463463374607431768211457", 1 }, // wraps
                            Case{ "03777777777777777777777777777777777777777777", -1 } } ) {
        SCOPED_TRACE( c.textPtr == nullptr ? "null" : c.textPtr );
        EXPECT_TRUE( Int128( c.textPtr ) == c.value );
        EXPECT_TRUE( UInt128( c.textPtr ) == UInt128( c.value ) );
    }
}

TEST( Int128Text, WrittenInEveryRadix )
{
    EXPECT_EQ( "-1", text( Int128( "-1" ) ) );
    EXPECT_EQ( "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF", text( UInt128( "-1" ), 16 ) );
    EXPECT_EQ( std::string( 128, '1' ), text( greatest, 2 ) );
    EXPECT_EQ( "-1" + std::string( 127, '0' ), text( least, 2 ) );
    EXPECT_EQ( "F5LXX1ZZ5PNORYNQGLHZMSP33", text( greatest, 36 ) );
    EXPECT_EQ( "340282366920938463463374607431768211455", text( greatest ) );
    EXPECT_EQ( "10000000000000000000",
               text( UInt128( 10000000000000000000u ) ) ); // one word of digits
    EXPECT_EQ( "100000000000000000000000000000000000000",
               text( UInt128( "100000000000000000000000000000000000000" ) ) );
    for ( const int radix : { INT32_MIN, -2, 0, 1, 37, 100 } ) {
        EXPECT_EQ( "(invalid radix)", text( Int128( 5 ), radix ) );
        EXPECT_EQ( "0", text( Int128( 0 ), radix ) );
    }
    Halves halves;
    for ( int radix = 2; radix <= 36; ++radix ) {
        for ( int i = 0; i < 50; ++i ) {
            const UInt128 value( halves(), halves() );
            UInt128 again = 0;
            for ( const char c : text( value, radix ) ) {
                const int digit = c <= '9' ? c - '0' : c - 'A' + 10;
                ASSERT_TRUE( digit >= 0 && digit < radix );
                again = again * radix + digit;
            }
            ASSERT_TRUE( again == value ) << radix;
        }
    }
}

TEST( Int128Arithmetic, CarriesAndBorrowsCrossTheHalves )
{
    UInt128 value( ones );
    EXPECT_TRUE( ++value == UInt128( 1, 0 ) );
    EXPECT_TRUE( value-- == UInt128( 1, 0 ) );
    EXPECT_TRUE( value++ == ones );
    EXPECT_TRUE( --value == ones );
    EXPECT_TRUE( UInt128( ones ) + 1 == UInt128( 1, 0 ) );
    EXPECT_TRUE( UInt128( 1, 0 ) - 1 == ones );
    EXPECT_TRUE( greatest + 1 == 0 );
    EXPECT_TRUE( UInt128( 0 ) - 1 == greatest );
    EXPECT_TRUE( -Int128( 1, 0 ) == Int128( -1, 0 ) );
    EXPECT_TRUE( -least == least );
    EXPECT_TRUE( Int128( -5 ) == Int128( "-5" ) );
    EXPECT_TRUE( UInt128( -5 ) == UInt128( "-5" ) );
}

TEST( Int128Division, TruncatesAndTheRemainderFollowsTheDividend )
{
    struct Case
    {
        Int128 a, b, quotient, rest;
    };
    for ( const Case& c :
          { Case{ 7, 2, 3, 1 }, Case{ -7, 2, -3, -1 }, Case{ 7, -2, -3, 1 }, Case{ -7, -2, 3, -1 },
            Case{ least, -1, least, 0 }, Case{ least, 1, least, 0 }, Case{ 3, least, 0, 3 } } ) {
        SCOPED_TRACE( text( c.a ) + " by " + text( c.b ) );
        Int128 rest;
        EXPECT_TRUE( c.a.div( c.b, &rest ) == c.quotient );
        EXPECT_TRUE( rest == c.rest );
        EXPECT_TRUE( c.a / c.b == c.quotient );
        EXPECT_TRUE( c.a % c.b == c.rest );
        Int128 a = c.a;
        Int128 b = c.b;
        EXPECT_TRUE( ( a /= b ) == c.quotient );
        b = c.a;
        EXPECT_TRUE( ( b %= c.b ) == c.rest );
        EXPECT_TRUE( ( a = c.a ).div( c.b, &a ) == c.quotient && a == c.rest );
    }
}

TEST( Int128Division, ByZeroNamesTheOperation )
{
    Int128 a = 1;
    const auto nameOf = []( auto action ) -> std::string {
        try {
            action();
        } catch ( const std::domain_error& error ) {
            return error.what();
        }
        return "";
    };
    EXPECT_EQ( "operator/", nameOf( [&] { a = a / 0; } ) );
    EXPECT_EQ( "operator%", nameOf( [&] { a = a % 0; } ) );
    EXPECT_EQ( "operator/=", nameOf( [&] { a /= 0; } ) );
    EXPECT_EQ( "operator%=", nameOf( [&] { a %= 0; } ) );
    EXPECT_EQ( "div", nameOf( [&] { a.div( 0, nullptr ); } ) );
    EXPECT_TRUE( a == 1 );
}

// The long division, a bit at a time.
template < class Number >
void divideSlowly( const Number& a, const Number& b, Number* quotientPtr, Number* restPtr )
{
    const UInt128 dividend( a < 0 ? -a : a );
    const UInt128 divisor( b < 0 ? -b : b );
    UInt128 quotient = 0;
    UInt128 rest = 0;
    for ( unsigned int i = 128; i-- > 0; ) {
        const bool overflows = rest.bit( 127 );
        rest <<= 1;
        rest.bit( 0, dividend.bit( i ) );
        if ( overflows || rest >= divisor ) {
            rest -= divisor;
            quotient.bit( i, true );
        }
    }
    *quotientPtr = Number( ( a < 0 ) != ( b < 0 ) ? -quotient : quotient );
    *restPtr = Number( a < 0 ? -rest : rest );
}

template < class Number >
void checkDivisions()
{
    Halves halves;
    for ( int i = 0; i < 20000; ++i ) {
        const Number a( UInt128( halves(), halves() ) );
        const Number b( UInt128( i % 3 == 0 ? 0 : halves(), halves() ) );
        if ( !b )
            continue;
        Number quotient, rest, expectedQuotient, expectedRest;
        quotient = a.div( b, &rest );
        divideSlowly( a, b, &expectedQuotient, &expectedRest );
        ASSERT_TRUE( quotient == expectedQuotient && rest == expectedRest )
            << text( a, 16 ) << " by " << text( b, 16 );
        ASSERT_TRUE( quotient * b + rest == a );
    }
}

TEST( Int128Division, EqualsTheLongDivision )
{
    checkDivisions< UInt128 >();
    checkDivisions< Int128 >();
}

#if defined( __SIZEOF_INT128__ )
__extension__ using NativeSigned = __int128;
__extension__ using NativeUnsigned = unsigned __int128;

template < class Number, class Native >
void compareWithNative()
{
    Halves halves;
    const auto native = []( const Number& value ) {
        return static_cast< Native >(
            NativeUnsigned( static_cast< std::uint64_t >( value.high() ) ) << 64 | value.low() );
    };
    for ( int i = 0; i < 100000; ++i ) {
        const Number a( UInt128( halves(), halves() ) );
        const Number b( UInt128( halves(), halves() ) );
        const Native x = native( a );
        const Native y = native( b );
        const NativeUnsigned ux = static_cast< NativeUnsigned >( x );
        const NativeUnsigned uy = static_cast< NativeUnsigned >( y );
        const unsigned int count = static_cast< unsigned int >( a.low() ^ b.low() ) % 128;
        const bool agree = native( a + b ) == static_cast< Native >( ux + uy ) &&
                           native( a - b ) == static_cast< Native >( ux - uy ) &&
                           native( a * b ) == static_cast< Native >( ux * uy ) &&
                           native( -a ) == static_cast< Native >( -ux ) && native( ~a ) == ~x &&
                           native( +a ) == x && native( a & b ) == ( x & y ) &&
                           native( a | b ) == ( x | y ) && native( a ^ b ) == ( x ^ y ) &&
                           native( a << count ) == static_cast< Native >( ux << count ) &&
                           native( a >> count ) == x >> count && ( a < b ) == ( x < y ) &&
                           ( a <= b ) == ( x <= y ) && ( a > b ) == ( x > y ) &&
                           ( a >= b ) == ( x >= y ) && ( a == b ) == ( x == y ) &&
                           ( a != b ) == ( x != y ) && !a == !x && ( a && b ) == ( x && y ) &&
                           ( a || b ) == ( x || y );
        ASSERT_TRUE( agree ) << text( a, 16 ) << ' ' << text( b, 16 ) << ' ' << count;
        ASSERT_EQ( static_cast< float >( x ), a.toFloat() ) << text( a, 16 );
        ASSERT_EQ( static_cast< double >( x ), a.toDouble() ) << text( a, 16 );
        ASSERT_EQ( static_cast< long double >( x ), a.toLongDouble() ) << text( a, 16 );
        const bool isDivisible =
            y != 0 && !( Number::isSigned && y == static_cast< Native >( -1 ) );
        if ( isDivisible ) {
            ASSERT_TRUE( native( a / b ) == x / y && native( a % b ) == x % y ) << text( a, 16 );
        }
    }
}

TEST( Int128Operators, AgreeWithTheCompilersOwn )
{
    compareWithNative< Int128, NativeSigned >();
    compareWithNative< UInt128, NativeUnsigned >();
}
#endif

TEST( Int128Bits, CountsAndIndexesAreModulo128 )
{
    EXPECT_TRUE( Int128( -8 ) >> 1 == -4 );
    EXPECT_TRUE( Int128( -8 ) >> 128 == -8 );
    EXPECT_TRUE( Int128( -8 ) << 256 == -8 );
    EXPECT_TRUE( least >> 127 == -1 );
    EXPECT_TRUE( UInt128( least ) >> 127 == 1 );
    EXPECT_TRUE( least >> 64 == INT64_MIN );
    EXPECT_TRUE( Int128( 3 ) << 127 == least );
    EXPECT_TRUE( Int128( 1 ) << 64 == Int128( 1, 0 ) );
    EXPECT_TRUE( Int128( 1 ) << 129 == 2 );
    Int128 value = 0;
    for ( const unsigned int index : { 0, 63, 64, 127, 128 + 5 } ) {
        value.bit( index, true );
        EXPECT_TRUE( value.bit( index ) );
    }
    EXPECT_TRUE( value == Int128( INT64_MIN + 1, 0x8000000000000021 ) );
    EXPECT_TRUE( value.bit( 5 ) && value.bit( 127 + 128 ) && !value.bit( 62 ) && !value.bit( 65 ) );
    value.bit( 127, false );
    EXPECT_TRUE( value == Int128( 1, 0x8000000000000021 ) );
}

TEST( Int128Truth, AndOrNotLookAtBothHalves )
{
    const Int128 values[] = { 0, 1, Int128( 1, 0 ) };
    for ( const Int128& a : values ) {
        EXPECT_EQ( a == 0, !a );
        for ( const Int128& b : values ) {
            EXPECT_EQ( a != 0 && b != 0, a && b );
            EXPECT_EQ( a != 0 || b != 0, a || b );
        }
    }
    EXPECT_TRUE( Int128( -1 ) < 0 && least < Int128( -1, 0 ) &&
                 Int128( 1, 0 ) < Int128( 1, ones ) );
    EXPECT_FALSE( UInt128( -1 ) < 0 );
}

TEST( Int128Floating, RoundsOnce )
{
    // Just above and at the middle between two floats, with the deciding bit far below.
    const UInt128 middle = UInt128( 0x1000001 ) << 100;
    EXPECT_EQ( std::ldexp( 16777216.0f, 100 ), middle.toFloat() ); // tie to even
    EXPECT_EQ( std::ldexp( 16777218.0f, 100 ), ( middle + 1 ).toFloat() );
    EXPECT_EQ( std::ldexp( 16777220.0f, 100 ), ( UInt128( 0x1000003 ) << 100 ).toFloat() );
    const UInt128 doubleMiddle = ( UInt128( 1 ) << 120 ) + ( UInt128( 1 ) << 67 );
    EXPECT_EQ( std::ldexp( 1.0, 120 ), doubleMiddle.toDouble() );
    EXPECT_EQ( std::nextafter( std::ldexp( 1.0, 120 ), HUGE_VAL ),
               ( doubleMiddle + 1 ).toDouble() );
    EXPECT_EQ( -std::nextafter( std::ldexp( 1.0, 120 ), HUGE_VAL ),
               ( -Int128( doubleMiddle + 1 ) ).toDouble() );
    EXPECT_EQ( -std::ldexp( 1.0L, 127 ), least.toLongDouble() );
    EXPECT_EQ( -std::ldexp( 1.0f, 127 ), least.toFloat() );
    EXPECT_EQ( std::ldexp( 1.0, 128 ), greatest.toDouble() );
    EXPECT_EQ( std::numeric_limits< float >::infinity(), greatest.toFloat() );
    EXPECT_EQ( 0.0, Int128( 0 ).toDouble() );
    EXPECT_EQ( -3.0f, Int128( -3 ).toFloat() );
}

TEST( Int128Floating, ConstructionTruncatesAndWraps )
{
    EXPECT_TRUE( Int128( 1.99 ) == 1 );
    EXPECT_TRUE( Int128( -1.99f ) == -1 );
    EXPECT_TRUE( Int128( -0.5 ) == 0 );
    EXPECT_TRUE( Int128( -18446744073709551616.0 ) == Int128( -1, 0 ) );
    EXPECT_TRUE( Int128( 18446744073709551615.0L ) == ones );
    EXPECT_TRUE( Int128( 9007199254740993.0L ) == 9007199254740993 );
    EXPECT_TRUE( Int128( std::ldexp( -1.0, 127 ) ) == least );
    EXPECT_TRUE( UInt128( -1.0 ) == greatest );
    EXPECT_TRUE( UInt128( std::ldexp( 3.0, 127 ) ) == UInt128( least ) ); // modulo 2^128
    EXPECT_TRUE( UInt128( std::ldexp( 1.0, 128 ) ) == 0 );
    EXPECT_TRUE( UInt128( std::ldexp( 1.0L, 191 ) ) == 0 );
    EXPECT_TRUE( UInt128( std::numeric_limits< float >::max() ) ==
                 UInt128( 0xFFFFFF0000000000, 0 ) );
    EXPECT_TRUE( Int128( HUGE_VAL ) == 0 && Int128( -HUGE_VALF ) == 0 );
    EXPECT_TRUE( Int128( std::numeric_limits< double >::quiet_NaN() ) == 0 );
    Halves halves;
    for ( int i = 0; i < 10000; ++i ) {
        const Int128 value( static_cast< std::int64_t >( halves() ), halves() );
        const double number = value.toDouble();
        const Int128 back( number );
        if ( number != -std::ldexp( -1.0, 127 ) ) {
            ASSERT_EQ( number, back.toDouble() ) << text( value );
        }
        const Int128 distance = back < value ? value - back : back - value;
        ASSERT_TRUE( distance <= Int128( 1 ) << 74 || number == std::ldexp( 1.0, 127 ) )
            << text( value );
    }
}

} // namespace
} // namespace Nuv::Utils
