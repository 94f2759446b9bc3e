#pragma once

#include "nuv.h"

#include <compare>
#include <concepts>
#include <cstdint>
#include <type_traits>

namespace Nuv::Utils {

class Buffer;

/// Integer of 128 bits in two's complement: high x 2^64 + low. Int128 has a signed high half and
/// is a signed number; UInt128 has an unsigned one.
///
/// Arithmetic wraps modulo 2^128, as do conversions from numbers that do not fit. Shift counts
/// and bit numbers are taken modulo 128. Division truncates toward zero and the remainder has the
/// dividend's sign, so that a == q * b + r; the least Int128 divided by -1 wraps to itself.
///
/// Threads: as a plain integer.
/// Errors:  a zero divisor throws std::domain_error, whose text is the operation's name ("div",
///          "operator/", "operator/=", "operator%", "operator%="). Nothing else throws: parsing
///          stops silently at the first character that is no digit.
/// Cost:    no operation allocates but toString(). The division is the machine's where it has one
///          of this width, else by digits of 32 bits.
/// Bytes:   the low half at offset 0, the high half at offset 8, each in the machine's order.
/// Example: Int128 total( "0x1f" ); total *= 1000000007; total.toString( &text, 10 );
template < class High >
class NUV_API BasicInt128
{
public:
    static constexpr bool isSigned = std::is_signed_v< High >;

    constexpr BasicInt128() = default;

    /// Implicit: any built-in integer, extended by its sign.
    template < std::integral Number >
    requires( sizeof( Number ) <= sizeof( std::uint64_t ) ) constexpr BasicInt128( Number number )
        : myLow( static_cast< std::uint64_t >( number ) )
        , myHigh( 0 )
    {
        if constexpr ( std::is_signed_v< Number > )
            myHigh = static_cast< High >( number < 0 ? -1 : 0 );
    }

    constexpr BasicInt128( High high, std::uint64_t low )
        : myLow( low )
        , myHigh( high )
    {
    }

    /// The same bits under the other sign rule.
    template < class OtherHigh >
    constexpr explicit BasicInt128( const BasicInt128< OtherHigh >& other )
        : myLow( other.low() )
        , myHigh( static_cast< High >( other.high() ) )
    {
    }

    /// An optional '-', then "0x" for radix 16 or "0" for radix 8 (else 10), then digits up to
    /// the first character that is none below the radix. Letters of either case are the digits
    /// from 10 on.
    /// @param textPtr null, empty or without digits gives zero
    explicit BasicInt128( const char* textPtr );

    // Truncated toward zero and taken modulo 2^128; what is no number, or infinite, gives zero.
    explicit BasicInt128( float number );
    explicit BasicInt128( double number );
    explicit BasicInt128( long double number );

    // Arithmetic

    constexpr BasicInt128 operator+() const { return *this; }
    constexpr BasicInt128 operator-() const { return ++~*this; }

    constexpr BasicInt128& operator++()
    {
        if ( ++myLow == 0 )
            setHigh( highBits() + 1 );
        return *this;
    }
    constexpr BasicInt128& operator--()
    {
        if ( myLow-- == 0 )
            setHigh( highBits() - 1 );
        return *this;
    }
    constexpr BasicInt128 operator++( int )
    {
        const BasicInt128 old = *this;
        ++*this;
        return old;
    }
    constexpr BasicInt128 operator--( int )
    {
        const BasicInt128 old = *this;
        --*this;
        return old;
    }

    constexpr BasicInt128& operator+=( const BasicInt128& other )
    {
        myLow += other.myLow;
        setHigh( highBits() + other.highBits() + ( myLow < other.myLow ? 1 : 0 ) );
        return *this;
    }
    constexpr BasicInt128& operator-=( const BasicInt128& other )
    {
        const std::uint64_t borrow = myLow < other.myLow ? 1 : 0;
        setHigh( highBits() - other.highBits() - borrow );
        myLow -= other.myLow;
        return *this;
    }
    constexpr BasicInt128& operator*=( const BasicInt128& other )
    {
        const std::uint64_t crossed = highBits() * other.myLow + myLow * other.highBits();
        std::uint64_t carried = 0;
        myLow = multiplied( myLow, other.myLow, &carried );
        setHigh( carried + crossed );
        return *this;
    }
    BasicInt128& operator/=( const BasicInt128& divisor )
    {
        return *this = divided( divisor, nullptr, "operator/=" );
    }
    BasicInt128& operator%=( const BasicInt128& divisor )
    {
        divided( divisor, this, "operator%=" );
        return *this;
    }

    /// @param remainderPtr may be null, this object or the divisor
    /// @return the quotient
    BasicInt128 div( const BasicInt128& divisor, BasicInt128* remainderPtr ) const
    {
        return divided( divisor, remainderPtr, "div" );
    }

    friend constexpr BasicInt128 operator+( BasicInt128 a, const BasicInt128& b ) { return a += b; }
    friend constexpr BasicInt128 operator-( BasicInt128 a, const BasicInt128& b ) { return a -= b; }
    friend constexpr BasicInt128 operator*( BasicInt128 a, const BasicInt128& b ) { return a *= b; }
    friend BasicInt128 operator/( const BasicInt128& a, const BasicInt128& b )
    {
        return a.divided( b, nullptr, "operator/" );
    }
    friend BasicInt128 operator%( const BasicInt128& a, const BasicInt128& b )
    {
        BasicInt128 rest;
        a.divided( b, &rest, "operator%" );
        return rest;
    }

    // Bits

    constexpr BasicInt128 operator~() const
    {
        return BasicInt128( static_cast< High >( ~highBits() ), ~myLow );
    }
    constexpr BasicInt128& operator&=( const BasicInt128& other )
    {
        myLow &= other.myLow;
        setHigh( highBits() & other.highBits() );
        return *this;
    }
    constexpr BasicInt128& operator|=( const BasicInt128& other )
    {
        myLow |= other.myLow;
        setHigh( highBits() | other.highBits() );
        return *this;
    }
    constexpr BasicInt128& operator^=( const BasicInt128& other )
    {
        myLow ^= other.myLow;
        setHigh( highBits() ^ other.highBits() );
        return *this;
    }

    constexpr BasicInt128& operator<<=( unsigned int count )
    {
        count %= 128;
        if ( count >= 64 ) {
            setHigh( myLow << ( count - 64 ) );
            myLow = 0;
        } else if ( count != 0 ) {
            setHigh( highBits() << count | myLow >> ( 64 - count ) );
            myLow <<= count;
        }
        return *this;
    }
    /// Int128 fills with its sign, UInt128 with zeros.
    constexpr BasicInt128& operator>>=( unsigned int count )
    {
        count %= 128;
        if ( count >= 64 ) {
            myLow = static_cast< std::uint64_t >( myHigh >> ( count - 64 ) );
            myHigh = static_cast< High >( myHigh < 0 ? -1 : 0 );
        } else if ( count != 0 ) {
            myLow = myLow >> count | highBits() << ( 64 - count );
            myHigh >>= count;
        }
        return *this;
    }

    friend constexpr BasicInt128 operator&( BasicInt128 a, const BasicInt128& b ) { return a &= b; }
    friend constexpr BasicInt128 operator|( BasicInt128 a, const BasicInt128& b ) { return a |= b; }
    friend constexpr BasicInt128 operator^( BasicInt128 a, const BasicInt128& b ) { return a ^= b; }
    friend constexpr BasicInt128 operator<<( BasicInt128 a, unsigned int count )
    {
        return a <<= count;
    }
    friend constexpr BasicInt128 operator>>( BasicInt128 a, unsigned int count )
    {
        return a >>= count;
    }

    constexpr bool bit( unsigned int index ) const
    {
        index %= 128;
        return ( ( index < 64 ? myLow >> index : highBits() >> ( index - 64 ) ) & 1 ) != 0;
    }
    constexpr void bit( unsigned int index, bool value )
    {
        const BasicInt128 mask = BasicInt128( 1 ) << index;
        if ( value )
            *this |= mask;
        else
            *this &= ~mask;
    }

    // Truth and order. As any overloaded forms, && and || evaluate both sides.

    constexpr bool operator!() const { return !isNonZero(); }
    friend constexpr bool operator&&( const BasicInt128& a, const BasicInt128& b )
    {
        return a.isNonZero() && b.isNonZero();
    }
    friend constexpr bool operator||( const BasicInt128& a, const BasicInt128& b )
    {
        return a.isNonZero() || b.isNonZero();
    }
    friend constexpr bool operator==( const BasicInt128& a, const BasicInt128& b ) = default;
    friend constexpr std::strong_ordering operator<=>( const BasicInt128& a, const BasicInt128& b )
    {
        return a.myHigh == b.myHigh ? a.myLow <=> b.myLow : a.myHigh <=> b.myHigh;
    }

    // Conversion

    // The nearest number of the type, rounded once, a tie to the even one. UInt128 values from
    // 2^128 - 2^103 on give an infinite float.
    float toFloat() const;
    double toDouble() const;
    long double toLongDouble() const;

    /// Replaces the Buffer by the digits, '0' to '9' and 'A' to 'Z', with '-' before a negative
    /// value.
    /// @param radix 2 to 36; any other gives "(invalid radix)", unless the value is zero ("0")
    void toString( Buffer* bufferPtr, int radix ) const;

    constexpr High high() const { return myHigh; }
    constexpr std::uint64_t low() const { return myLow; }

private:
    constexpr bool isNonZero() const { return ( highBits() | myLow ) != 0; }
    constexpr std::uint64_t highBits() const { return static_cast< std::uint64_t >( myHigh ); }
    constexpr void setHigh( std::uint64_t bits ) { myHigh = static_cast< High >( bits ); }

    static constexpr std::uint64_t multiplied( std::uint64_t a, std::uint64_t b,
                                               std::uint64_t* highPtr )
    {
#if defined( __SIZEOF_INT128__ )
        __extension__ using Product = unsigned __int128;
        const Product product = Product( a ) * b;
        *highPtr = static_cast< std::uint64_t >( product >> 64 );
        return static_cast< std::uint64_t >( product );
#else
        const std::uint64_t mask = 0xFFFFFFFF;
        const std::uint64_t lowest = ( a & mask ) * ( b & mask );
        const std::uint64_t middle = ( a >> 32 ) * ( b & mask ) + ( lowest >> 32 );
        const std::uint64_t other = ( a & mask ) * ( b >> 32 ) + ( middle & mask );
        *highPtr = ( a >> 32 ) * ( b >> 32 ) + ( middle >> 32 ) + ( other >> 32 );
        return other << 32 | ( lowest & mask );
#endif
    }

    BasicInt128< std::uint64_t > magnitude() const;
    BasicInt128 divided( const BasicInt128& divisor, BasicInt128* remainderPtr,
                         const char* operationPtr ) const;

    std::uint64_t myLow = 0;
    High myHigh = 0;
};

extern template class BasicInt128< std::int64_t >;
extern template class BasicInt128< std::uint64_t >;

using Int128 = BasicInt128< std::int64_t >;
using UInt128 = BasicInt128< std::uint64_t >;

static_assert( sizeof( Int128 ) == 16 && sizeof( UInt128 ) == 16 );

} // namespace Nuv::Utils
