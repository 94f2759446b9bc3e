#include "nuvCrc.h"

#include <gtest/gtest.h>

#include <string>

namespace Nuv::Utils {
namespace {

TEST( CrcValues, CheckValuesOfTheFamilies )
{
    const auto crc32 = []( std::uint32_t begin ) {
        return Crc32( begin ).update( "123456789", 9 ).value();
    };
    const auto crc16 = []( std::uint16_t begin ) {
        return Crc16( begin ).update( "123456789", 9 ).value();
    };
    EXPECT_EQ( 0xCBF43926u, Crc32::checksum( "123456789", 9 ) );
    EXPECT_EQ( ~0xCBF43926u, crc32( 0xFFFFFFFF ) ); // nothing is inverted
    EXPECT_EQ( 0x2DFD2D88u, crc32( 0 ) );
    EXPECT_EQ( 0x29B1u, Crc16::checksum( "123456789", 9 ) );
    EXPECT_EQ( 0x31C3u, crc16( 0 ) );
    EXPECT_EQ( 0xE5CCu, crc16( 0x1D0F ) );
    EXPECT_EQ( 0x77073096u, Crc32::ourTable[1] );
    EXPECT_EQ( 0x1021u, Crc16::ourTable[1] );
}

// The portions of many bytes against one byte at a time, at every length and alignment.
TEST( CrcValues, PortionsDoNotMatter )
{
    std::string bytes;
    for ( unsigned int i = 0; i < 80; ++i )
        bytes += static_cast< char >( i * i * 37 + 11 );
    for ( std::size_t begin = 0; begin < 9; ++begin ) {
        Crc32 slow32( 0xDEADBEEF );
        Crc16 slow16( 0xBEEF );
        for ( std::size_t length = 0; begin + length < bytes.size(); ++length ) {
            const char* const ptr = bytes.data() + begin;
            Crc32 fast32( 0xDEADBEEF );
            Crc16 fast16( 0xBEEF );
            ASSERT_EQ( slow32.value(), fast32.update( ptr, length ).value() );
            ASSERT_EQ( slow16.value(), fast16.update( ptr, length ).value() );
            slow32.update( ptr + length, 1 );
            slow16.update( ptr + length, 1 );
        }
    }
}

} // namespace
} // namespace Nuv::Utils
