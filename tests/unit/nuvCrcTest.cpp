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

} // namespace
} // namespace Nuv::Utils
