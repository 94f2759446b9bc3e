#include "nuvCrc.h"

#include <gtest/gtest.h>

#include <string>

namespace Nuv::Utils {
namespace {

const std::string digits = "123456789";

TEST( CrcTables, FirstEntriesAreTheFamilies )
{
    EXPECT_EQ( 0u, Crc32::ourTable[0] );
    EXPECT_EQ( 0x77073096u, Crc32::ourTable[1] );
    EXPECT_EQ( 0x2D02EF8Du, Crc32::ourTable[255] );
    EXPECT_EQ( 0u, Crc16::ourTable[0] );
    EXPECT_EQ( 0x1021u, Crc16::ourTable[1] );
    EXPECT_EQ( 0x1EF0u, Crc16::ourTable[255] );
}

TEST( CrcValues, CheckValuesOfTheFamilies )
{
    EXPECT_EQ( 0xCBF43926u, Crc32::checksum( digits.data(), digits.size() ) );
    EXPECT_EQ( 0x29B1u, Crc16::checksum( digits.data(), digits.size() ) );
    struct Case
    {
        std::uint32_t initial;
        std::uint32_t crc32;
        std::uint32_t crc16;
    };
    // The first column cut to 16 bits begins a CRC-16. Nothing is inverted.
    for ( const Case& c :
          { Case{ 0xFFFFFFFF, ~0xCBF43926u, 0x29B1 }, Case{ 0, 0x2DFD2D88, 0x31C3 } } ) {
        SCOPED_TRACE( c.initial );
        EXPECT_EQ( c.crc32, Crc32( c.initial ).update( digits.data(), digits.size() ).value() );
        EXPECT_EQ( c.crc16, Crc16( static_cast< std::uint16_t >( c.initial ) )
                                .update( digits.data(), digits.size() )
                                .value() );
    }
    EXPECT_EQ( 0xE5CCu, Crc16( 0x1D0F ).update( digits.data(), digits.size() ).value() );
    EXPECT_EQ( 0x1234u, Crc16( 0x1234 ).update( nullptr, 0 ).value() );
    EXPECT_EQ( 0x12345678u, Crc32( 0x12345678 ).update( nullptr, 0 ).value() );
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
            const std::size_t cut = length / 3;
            ASSERT_EQ(
                slow32.value(),
                Crc32( 0xDEADBEEF ).update( ptr, cut ).update( ptr + cut, length - cut ).value() );
            ASSERT_EQ(
                slow16.value(),
                Crc16( 0xBEEF ).update( ptr, cut ).update( ptr + cut, length - cut ).value() );
            const std::uint8_t byte = static_cast< std::uint8_t >( ptr[length] );
            const std::uint32_t value32 = slow32.value();
            EXPECT_EQ( value32 >> 8 ^ Crc32::ourTable[( value32 ^ byte ) & 0xFF],
                       slow32.update( ptr + length, 1 ).value() );
            const std::uint16_t value16 = slow16.value();
            EXPECT_EQ( ( value16 << 8 & 0xFFFF ) ^ Crc16::ourTable[value16 >> 8 ^ byte],
                       slow16.update( ptr + length, 1 ).value() );
        }
    }
}

} // namespace
} // namespace Nuv::Utils
