#include "nuvPackedData.h"

#include <gtest/gtest.h>

#include <cstring>

namespace Nuv::Utils {
namespace {

TEST( PackedDataValues, ByteOrderDecidesAtAnyOffset )
{
    unsigned char bytes[] = { 0, 0x81, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x88, 0 };
    const BigEndianPackedData big( bytes, sizeof( bytes ) );
    const LittleEndianPackedData little( bytes, sizeof( bytes ) );
    EXPECT_EQ( 0x8102u, big.unsigned16BitValue( 1 ) );
    EXPECT_EQ( 0x0281u, little.unsigned16BitValue( 1 ) );
    EXPECT_EQ( 0x81020304u, big.unsigned32BitValue( 1 ) );
    EXPECT_EQ( 0x04030281u, little.unsigned32BitValue( 1 ) );
    EXPECT_EQ( 0x8102030405060788u, big.unsigned64BitValue( 1 ) );
    EXPECT_EQ( 0x8807060504030281u, little.unsigned64BitValue( 1 ) );
    EXPECT_EQ( 0x81u, big.unsigned8BitValue( 1 ) );
    EXPECT_EQ( -127, big.signed8BitValue( 1 ) );
    EXPECT_EQ( static_cast< std::int16_t >( 0x8102 ), big.signed16BitValue( 1 ) );
    EXPECT_EQ( static_cast< std::int16_t >( 0x8807 ), little.signed16BitValue( 7 ) );
    EXPECT_EQ( static_cast< std::int32_t >( 0x81020304 ), big.signed32BitValue( 1 ) );
    EXPECT_EQ( static_cast< std::int32_t >( 0x88070605 ), little.signed32BitValue( 5 ) );
    EXPECT_EQ( static_cast< std::int64_t >( 0x8102030405060788 ), big.signed64BitValue( 1 ) );
    EXPECT_EQ( static_cast< std::int64_t >( 0x8807060504030281 ), little.signed64BitValue( 1 ) );
}

TEST( PackedDataValues, WritesTouchTheirBytesOnly )
{
    struct Case
    {
        unsigned int width;
        const char* bigPtr;
        const char* littlePtr;
    };
    constexpr std::uint64_t value = 0xA1B2C3D4E5F60718;
    for ( const Case& c : { Case{ 8, "..\x18.......", "..\x18......." },
                            Case{ 16, "..\x07\x18......", "..\x18\x07......" },
                            Case{ 32, "..\xE5\xF6\x07\x18....", "..\x18\x07\xF6\xE5...." },
                            Case{ 64, "..\xA1\xB2\xC3\xD4\xE5\xF6\x07\x18",
                                  "..\x18\x07\xF6\xE5\xD4\xC3\xB2\xA1" } } ) {
        SCOPED_TRACE( c.width );
        for ( const bool isBig : { true, false } ) {
            unsigned char bytes[11] = "..........";
            BigEndianPackedData big( bytes, sizeof( bytes ) );
            LittleEndianPackedData little;
            little.initialize( bytes, sizeof( bytes ) );
            EXPECT_EQ( bytes, little.dataPtr() );
            EXPECT_EQ( sizeof( bytes ), little.nbrOfBytes() );
            PackedData& data = isBig ? static_cast< PackedData& >( big ) : little;
            switch ( c.width ) {
            case 8:
                data.set8BitValue( static_cast< std::uint8_t >( value ), 2 );
                break;
            case 16:
                data.set16BitValue( static_cast< std::uint16_t >( value ), 2 );
                break;
            case 32:
                data.set32BitValue( static_cast< std::uint32_t >( value ), 2 );
                break;
            default:
                data.set64BitValue( value, 2 );
            }
            EXPECT_STREQ( isBig ? c.bigPtr : c.littlePtr, reinterpret_cast< char* >( bytes ) );
        }
    }
}

TEST( PackedDataFields, SampleByte )
{
    unsigned char byte = 0xA5;
    LittleEndianPackedData data( &byte, 1 );
    EXPECT_EQ( 0xA, data.unsigned8BitField( 0, 7, 4 ) );
    EXPECT_EQ( -6, data.signed8BitField( 0, 7, 4 ) );
    data.set8BitField( 3, 0, 7, 4 );
    EXPECT_EQ( 0x35, byte );
    data.set8BitField( 0xF2, 0, 3, 3 ); // 3 bits of the value count
    EXPECT_EQ( 0x35, byte );
}

// Every field of every width in values of every size, against the plain formula.
template < class Value, class Get, class GetSigned, class Set >
void checkFields( Get get, GetSigned getSigned, Set set, unsigned char* bytes )
{
    constexpr unsigned int nbrOfBits = 8 * sizeof( Value );
    const Value pattern = static_cast< Value >( 0x9E3779B97F4A7C15 );
    const Value other = static_cast< Value >( 0x5B6D4F3A21C8E7D2 );
    for ( unsigned int highBit = 0; highBit < nbrOfBits; ++highBit ) {
        for ( unsigned int width = 1; width <= highBit + 1; ++width ) {
            const unsigned int shift = highBit - width + 1;
            const std::uint64_t mask = ~std::uint64_t( 0 ) >> ( 64 - width );
            std::memcpy( bytes, &pattern, sizeof( pattern ) );
            const std::uint64_t expected = ( std::uint64_t( pattern ) >> shift ) & mask;
            const bool isNegative = ( expected >> ( width - 1 ) ) != 0;
            ASSERT_EQ( expected, get( highBit, width ) ) << highBit << ' ' << width;
            ASSERT_EQ( static_cast< std::int64_t >( isNegative ? expected | ~mask : expected ),
                       getSigned( highBit, width ) )
                << highBit << ' ' << width;
            set( other, highBit, width );
            Value written;
            std::memcpy( &written, bytes, sizeof( written ) );
            ASSERT_EQ( static_cast< Value >( ( pattern & ~( mask << shift ) ) | ( other & mask )
                                                                                    << shift ),
                       written )
                << highBit << ' ' << width;
        }
    }
}

TEST( PackedDataFields, EveryPlaceAndWidth )
{
    unsigned char bytes[8];
    LittleEndianPackedData data( bytes, sizeof( bytes ) );
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

TEST( PackedDataFields, UseTheByteOrderOfTheirValue )
{
    unsigned char bytes[] = { 0x12, 0x34 };
    BigEndianPackedData big( bytes, sizeof( bytes ) );
    EXPECT_EQ( 0x23, big.unsigned16BitField( 0, 11, 8 ) );
    EXPECT_EQ( 0x41, LittleEndianPackedData( bytes, 2 ).unsigned16BitField( 0, 11, 8 ) );
    big.set16BitField( 0xFF, 0, 11, 8 );
    EXPECT_EQ( 0x1F, bytes[0] );
    EXPECT_EQ( 0xF4, bytes[1] );
}

TEST( PackedDataFields, ImpossiblePlacesAssert )
{
    unsigned char bytes[8] = {};
    BigEndianPackedData data( bytes, sizeof( bytes ) );
    EXPECT_THROW( data.unsigned8BitField( 0, 8, 1 ), LogicException );
    EXPECT_THROW( data.unsigned16BitField( 0, 3, 0 ), LogicException );
    EXPECT_THROW( data.unsigned32BitField( 0, 3, 5 ), LogicException );
    EXPECT_THROW( data.signed64BitField( 0, 64, 64 ), LogicException );
    EXPECT_THROW( data.set64BitField( 1, 0, 63, 65 ), LogicException );
    EXPECT_THROW( data.set16BitField( 1, 0, 0xFFFFFFFF, 1 ), LogicException );
}

} // namespace
} // namespace Nuv::Utils
