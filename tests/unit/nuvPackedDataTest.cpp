#include "nuvPackedData.h"

#include <cstring>
#include <gtest/gtest.h>

namespace Nuv::Utils {
namespace {

TEST( PackedDataValues, ByteOrderDecidesAtAnyOffset )
{
    unsigned char bytes[] = { 0xEE, 0x81, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x88, 0 };
    unsigned char copy[sizeof( bytes )];
    BigEndianPackedData big( bytes, sizeof( bytes ) ), bigCopy( copy, sizeof( copy ) );
    LittleEndianPackedData little( bytes, sizeof( bytes ) ), littleCopy( copy, sizeof( copy ) );
    EXPECT_EQ( 0x81u, big.unsigned8BitValue( 1 ) );
    EXPECT_EQ( -127, big.signed8BitValue( 1 ) );
    const auto isCopied = [&] { return std::memcmp( copy, bytes, sizeof( copy ) ) == 0; };
#define NUV_CHECK_VALUES( bits, bigValue, littleValue )                                            \
    EXPECT_EQ( bigValue, big.unsigned##bits##BitValue( 1 ) );                                      \
    EXPECT_EQ( littleValue, little.unsigned##bits##BitValue( 1 ) );                                \
    EXPECT_EQ( static_cast< std::int##bits##_t >( bigValue ), big.signed##bits##BitValue( 1 ) );   \
    EXPECT_EQ( static_cast< std::int##bits##_t >( littleValue ),                                   \
               little.signed##bits##BitValue( 1 ) );                                               \
    std::memset( copy, 0xEE, sizeof( copy ) );                                                     \
    std::memset( bytes + 1 + bits / 8, 0xEE, sizeof( bytes ) - 1 - bits / 8 );                     \
    bigCopy.set##bits##BitValue( bigValue, 1 );                                                    \
    EXPECT_TRUE( isCopied() );                                                                     \
    std::memset( copy, 0xEE, sizeof( copy ) );                                                     \
    littleCopy.set##bits##BitValue( littleValue, 1 );                                              \
    EXPECT_TRUE( isCopied() )
    NUV_CHECK_VALUES( 64, 0x8102030405060788u, 0x8807060504030281u );
    NUV_CHECK_VALUES( 32, 0x81020304u, 0x04030281u );
    NUV_CHECK_VALUES( 16, 0x8102u, 0x0281u );
#undef NUV_CHECK_VALUES
}

// Every field of every width in values of every size, against the plain formula.
template < class Value, class Get, class GetSigned, class Set >
void checkFields( Get get, GetSigned getSigned, Set set, unsigned char* bytes )
{
    constexpr unsigned int nbrOfBits = 8 * sizeof( Value );
    const Value pattern = static_cast< Value >( 0x9E3779B97F4A7C15 );
    const Value other = static_cast< Value >( 0x5B6D4F3A21C8E7D2 );
    EXPECT_THROW( get( nbrOfBits, 1 ), LogicException );
    EXPECT_THROW( getSigned( 3, 0 ), LogicException );
    EXPECT_THROW( set( other, 3, 5 ), LogicException );
    for ( unsigned int highBit = 0; highBit < nbrOfBits; ++highBit ) {
        for ( unsigned int width = 1; width <= highBit + 1; ++width ) {
            SCOPED_TRACE( testing::Message() << nbrOfBits << ' ' << highBit << ' ' << width );
            const unsigned int shift = highBit - width + 1;
            const std::uint64_t mask = ~std::uint64_t( 0 ) >> ( 64 - width );
            std::memcpy( bytes, &pattern, sizeof( pattern ) );
            const std::uint64_t expected = ( std::uint64_t( pattern ) >> shift ) & mask;
            const bool isNegative = ( expected >> ( width - 1 ) ) != 0;
            ASSERT_EQ( expected, get( highBit, width ) );
            ASSERT_EQ( static_cast< std::int64_t >( isNegative ? expected | ~mask : expected ),
                       getSigned( highBit, width ) );
            set( other, highBit, width ); // more bits than the width has
            Value written;
            std::memcpy( &written, bytes, sizeof( written ) );
            ASSERT_EQ( other & mask, ( written >> shift ) & mask );
            ASSERT_EQ( pattern & ~( mask << shift ), written & ~( mask << shift ) );
        }
    }
}

TEST( PackedDataFields, EveryPlaceAndWidth )
{
    unsigned char bytes[8] = { 0x12, 0x34 };
    LittleEndianPackedData data( bytes, sizeof( bytes ) );
    BigEndianPackedData big;
    big.initialize( bytes, sizeof( bytes ) );
    EXPECT_EQ( 0x23, big.unsigned16BitField( 0, 11, 8 ) ); // in the byte order of the value
    EXPECT_EQ( 0x41, data.unsigned16BitField( 0, 11, 8 ) );
    big.set16BitField( 0xFF, 0, 11, 8 );
    EXPECT_EQ( 0xF41F, data.unsigned16BitValue( 0 ) );
#define NUV_CHECK_FIELDS( bits )                                                                   \
    checkFields< std::uint##bits##_t >(                                                            \
        [&]( auto h, auto w ) { return data.unsigned##bits##BitField( 0, h, w ); },                \
        [&]( auto h, auto w ) { return data.signed##bits##BitField( 0, h, w ); },                  \
        [&]( auto v, auto h, auto w ) { data.set##bits##BitField( v, 0, h, w ); }, bytes )
    NUV_CHECK_FIELDS( 8 );
    NUV_CHECK_FIELDS( 16 );
    NUV_CHECK_FIELDS( 32 );
    NUV_CHECK_FIELDS( 64 );
#undef NUV_CHECK_FIELDS
}

} // namespace
} // namespace Nuv::Utils
