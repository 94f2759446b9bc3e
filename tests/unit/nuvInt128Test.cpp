#include "nuvInt128.h"

#include "nuvBuffer.h"
#include "nuvTestSupport.h"

#include <cmath>
#include <random>
#include <sstream>
#include <stdexcept>
#include <tuple>

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
std::uint64_t half()
{
    static std::mt19937_64 engine{ 20240229 };
    static constexpr std::uint64_t edges[] = {
        0, 1, 2, ones >> 33, 1u << 31, ones >> 32, ones << 32, ones >> 1, 1ull << 63, ones };
    const std::uint64_t bits = engine();
    return bits % 3 == 0 ? edges[bits / 3 % std::size( edges )] : engine() >> bits % 64;
}

TEST( Int128Text, ParsedByPrefixUpToTheFirstOtherCharacter )
{
    std::istringstream rows( // TEXT=VALUE
        "=0 -=0 0=0 0x=0 -1=-1 0x1f=31 -0xFf=-255 017=15 018=1 12ab=12 0X1f=0 +1=0 0xg=0 1@=1 1[=1 "
        "0x1`=1 18446744073709551616=18446744073709551616 "
        "-170141183460469231731687303715884105728=-170141183460469231731687303715884105728 "
        "0xffffffffffffffffffffffffffffffff=-1 340282366920938463463374607431768211457=1 "
        "03777777777777777777777777777777777777777777=-1" );
    for ( std::string row; rows >> row; ) {
        const Int128 value( row.substr( 0, row.find( '=' ) ).c_str() );
        EXPECT_EQ( row.substr( row.find( '=' ) + 1 ), text( value ) ) << row;
        EXPECT_TRUE( UInt128( row.substr( 0, row.find( '=' ) ).c_str() ) == UInt128( value ) );
    }
    EXPECT_EQ( "00", text( Int128( nullptr ) ) + text( Int128( " 1" ) ) );
}

TEST( Int128Text, WrittenInEveryRadix )
{
    EXPECT_EQ( "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF", text( greatest, 16 ) );
    EXPECT_EQ( "-1" + std::string( 127, '0' ), text( least, 2 ) );
    EXPECT_EQ( "F5LXX1ZZ5PNORYNQGLHZMSP33", text( greatest, 36 ) );
    EXPECT_EQ( "10000000000000000000", text( UInt128( 10000000000000000000u ) ) );
    for ( const int radix : { INT32_MIN, -2, 0, 1, 37, 100 } ) {
        EXPECT_EQ( "(invalid radix)", text( Int128( 5 ), radix ) );
        EXPECT_EQ( "0", text( Int128( 0 ), radix ) );
    }
    for ( int radix = 2; radix <= 36; ++radix ) {
        for ( int i = 0; i < 50; ++i ) {
            const UInt128 value( half(), half() );
            UInt128 again = 0;
            for ( const char c : text( value, radix ) )
                again = again * radix + ( c <= '9' ? c - '0' : c - 'A' + 10 );
            ASSERT_TRUE( again == value ) << radix;
        }
    }
}

TEST( Int128Division, TruncatesAndTheRemainderFollowsTheDividend )
{
    const std::tuple< Int128, Int128, Int128, Int128 > rows[] = {
        { 7, 2, 3, 1 },          { -7, 2, -3, -1 },      { 7, -2, -3, 1 },  { -7, -2, 3, -1 },
        { least, -1, least, 0 }, { least, 1, least, 0 }, { 3, least, 0, 3 } };
    for ( const auto& [a, b, quotient, rest] : rows ) {
        SCOPED_TRACE( text( a ) + " by " + text( b ) );
        Int128 changed = a;
        EXPECT_TRUE( ( changed /= b ) == quotient && a / b == quotient );
        changed = a;
        EXPECT_TRUE( ( changed %= b ) == rest && a % b == rest );
        changed = a;
        EXPECT_TRUE( changed.div( b, &changed ) == quotient && changed == rest ); // into itself
    }
    Int128 a = 1;
    const auto nameOf = []( const auto& call ) {
        return NuvTest::textOf< std::domain_error >( call );
    };
    EXPECT_EQ( "operator/", nameOf( [&] { a = a / 0; } ) );
    EXPECT_EQ( "operator%", nameOf( [&] { a = a % 0; } ) );
    EXPECT_EQ( "operator/=", nameOf( [&] { a /= 0; } ) );
    EXPECT_EQ( "operator%=", nameOf( [&] { a %= 0; } ) );
    EXPECT_EQ( "div", nameOf( [&] { a.div( 0, nullptr ); } ) );
    EXPECT_TRUE( a == 1 );
}

TEST( Int128Division, QuotientAndRemainderAreTheOnlyOnesThatFit )
{
    const auto isRight = []( const auto& a, const auto& b ) {
        std::decay_t< decltype( a ) > rest;
        const auto quotient = a.div( b, &rest );
        return quotient * b + rest == a && ( rest == 0 || ( rest < 0 ) == ( a < 0 ) ) &&
               UInt128( rest < 0 ? -rest : rest ) < UInt128( b < 0 ? -b : b );
    };
    for ( int i = 0; i < 20000; ++i ) {
        const UInt128 a( half(), half() ), b( i % 3 == 0 ? 0 : half(), half() );
        ASSERT_TRUE( !b || ( isRight( a, b ) && isRight( Int128( a ), Int128( b ) ) ) )
            << text( a, 16 ) << " by " << text( b, 16 );
    }
}

#if defined( __SIZEOF_INT128__ )
__extension__ using NativeSigned = __int128;
__extension__ using NativeUnsigned = unsigned __int128;

template < class Number, class Native >
void compareWithNative()
{
    const auto native = []( const Number& value ) {
        return static_cast< Native >(
            NativeUnsigned( static_cast< std::uint64_t >( value.high() ) ) << 64 | value.low() );
    };
    for ( int i = 0; i < 100000; ++i ) {
        const Number a( UInt128( half(), half() ) ), b( UInt128( half(), half() ) );
        const Native x = native( a ), y = native( b );
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
                           ( a == b ) == ( x == y ) && !a == !x && ( a && b ) == ( x && y ) &&
                           ( a || b ) == ( x || y ) && static_cast< float >( x ) == a.toFloat() &&
                           static_cast< double >( x ) == a.toDouble() &&
                           static_cast< long double >( x ) == a.toLongDouble();
        ASSERT_TRUE( agree ) << text( a, 16 ) << ' ' << text( b, 16 ) << ' ' << count;
    }
}

TEST( Int128Operators, AgreeWithTheCompilersOwn )
{
    compareWithNative< Int128, NativeSigned >();
    compareWithNative< UInt128, NativeUnsigned >();
}
#endif

TEST( Int128Operators, StepsCarryAndCountsAreModulo128 )
{
    UInt128 value( ones );
    EXPECT_TRUE( ++value == UInt128( 1, 0 ) && value-- == UInt128( 1, 0 ) );
    EXPECT_TRUE( value++ == ones && --value == ones );
    EXPECT_TRUE( Int128( -8 ) >> 128 == -8 && Int128( -8 ) << 256 == -8 );
    EXPECT_TRUE( Int128( 1 ) << 129 == 2 && least >> 127 == -1 && least >> 64 == INT64_MIN );
    Int128 bits = 0;
    for ( const unsigned int index : { 0, 63, 64, 127, 128 + 5 } )
        bits.bit( index, true );
    EXPECT_TRUE( bits == Int128( INT64_MIN + 1, 0x8000000000000021 ) );
    EXPECT_TRUE( bits.bit( 5 ) && bits.bit( 127 + 128 ) && !bits.bit( 62 ) && !bits.bit( 65 ) );
    bits.bit( 127, false );
    EXPECT_TRUE( bits == Int128( 1, 0x8000000000000021 ) );
}

TEST( Int128Floating, RoundsOnce )
{
    // At the middle between two numbers and just above, with the deciding bit far below.
    const UInt128 middle = UInt128( 0x1000001 ) << 100;
    EXPECT_EQ( std::ldexp( 16777216.0f, 100 ), middle.toFloat() ); // tie to even
    EXPECT_EQ( std::ldexp( 16777218.0f, 100 ), ( middle + 1 ).toFloat() );
    const double above = std::nextafter( std::ldexp( 1.0, 120 ), HUGE_VAL );
    const UInt128 doubleMiddle = ( UInt128( 1 ) << 120 ) + ( UInt128( 1 ) << 67 );
    EXPECT_EQ( above, ( doubleMiddle + 1 ).toDouble() );
    EXPECT_EQ( -above, ( -Int128( doubleMiddle + 1 ) ).toDouble() );
    EXPECT_EQ( -std::ldexp( 1.0L, 127 ), least.toLongDouble() );
    EXPECT_EQ( HUGE_VALF, greatest.toFloat() );
}

TEST( Int128Floating, ConstructionTruncatesAndWraps )
{
    EXPECT_TRUE( Int128( 1.99 ) == 1 && Int128( -1.99f ) == -1 && Int128( -0.5 ) == 0 );
    EXPECT_TRUE( Int128( -18446744073709551616.0 ) == Int128( -1, 0 ) );
    EXPECT_TRUE( Int128( 18446744073709551615.0L ) == ones );
    EXPECT_TRUE( Int128( std::ldexp( -1.0, 127 ) ) == least && UInt128( -1.0 ) == greatest );
    EXPECT_TRUE( UInt128( std::ldexp( 3.0, 127 ) ) == UInt128( least ) ); // modulo 2^128
    EXPECT_TRUE( UInt128( std::ldexp( 1.0L, 191 ) ) == 0 );
    EXPECT_TRUE( Int128( HUGE_VAL ) == 0 && Int128( -HUGE_VALF ) == 0 && Int128( NAN ) == 0 );
}

} // namespace
} // namespace Nuv::Utils
