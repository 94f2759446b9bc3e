#include "nuvCrc.h"

#include <bit>
#include <cstring>

namespace Nuv::Utils {
namespace {

static_assert( std::endian::native == std::endian::little, "the portions below are read as such" );

template < class Table, std::size_t nbrOfTables >
using Tables = std::array< Table, nbrOfTables >;

constexpr Crc32::Table makeCrc32Table()
{
    Crc32::Table table{};
    for ( std::uint32_t i = 0; i < table.size(); ++i ) {
        std::uint32_t entry = i;
        for ( int bit = 0; bit < 8; ++bit )
            entry = ( entry >> 1 ) ^ ( ( entry & 1 ) != 0 ? 0xEDB88320u : 0 );
        table[i] = entry;
    }
    return table;
}

constexpr Crc16::Table makeCrc16Table()
{
    Crc16::Table table{};
    for ( std::uint32_t i = 0; i < table.size(); ++i ) {
        std::uint32_t entry = i << 8;
        for ( int bit = 0; bit < 8; ++bit )
            entry = ( entry << 1 ) ^ ( ( entry & 0x8000 ) != 0 ? 0x1021u : 0 );
        table[i] = static_cast< std::uint16_t >( entry );
    }
    return table;
}

constexpr std::uint32_t step( const Crc32::Table& table, std::uint32_t value, std::uint8_t byte )
{
    return ( value >> 8 ) ^ table[( value ^ byte ) & 0xFF];
}

constexpr std::uint16_t step( const Crc16::Table& table, std::uint16_t value, std::uint8_t byte )
{
    return static_cast< std::uint16_t >( ( value << 8 ) ^ table[( value >> 8 ) ^ byte] );
}

// Table n holds the first table's entries after n more bytes of zero, so that a portion of bytes is
// looked up all at once, each byte in the table of its distance to the portion's end.
template < class Table, std::size_t nbrOfTables >
constexpr Tables< Table, nbrOfTables > makeTables( const Table& first )
{
    Tables< Table, nbrOfTables > tables{ first };
    for ( std::size_t n = 1; n < nbrOfTables; ++n )
        for ( std::size_t i = 0; i < first.size(); ++i )
            tables[n][i] = step( first, tables[n - 1][i], 0 );
    return tables;
}

constexpr auto crc32Tables = makeTables< Crc32::Table, 16 >( makeCrc32Table() );
constexpr auto crc16Tables = makeTables< Crc16::Table, 8 >( makeCrc16Table() );

template < class Word >
Word load( const unsigned char* ptr )
{
    Word word;
    std::memcpy( &word, ptr, sizeof( word ) );
    return word;
}

// The look-ups of four successive bytes, the last of which is nbrOfBytesAfter from the end.
template < std::size_t nbrOfBytesAfter, class TablesOfCrc >
auto lookUp( const TablesOfCrc& tables, std::uint32_t word )
{
    return tables[nbrOfBytesAfter + 3][word & 0xFF] ^
           tables[nbrOfBytesAfter + 2][( word >> 8 ) & 0xFF] ^
           tables[nbrOfBytesAfter + 1][( word >> 16 ) & 0xFF] ^ tables[nbrOfBytesAfter][word >> 24];
}

} // namespace

constinit const Crc32::Table Crc32::ourTable = crc32Tables[0];
constinit const Crc16::Table Crc16::ourTable = crc16Tables[0];

std::uint32_t Crc32::checksum( const void* ptr, std::size_t nbrOfBytes )
{
    return ~Crc32( 0xFFFFFFFF ).update( ptr, nbrOfBytes ).value();
}

Crc32& Crc32::update( const void* ptr, std::size_t nbrOfBytes )
{
    const unsigned char* bytePtr = static_cast< const unsigned char* >( ptr );
    std::uint32_t value = myValue;
    for ( ; nbrOfBytes >= 16; nbrOfBytes -= 16, bytePtr += 16 ) {
        value = lookUp< 12 >( crc32Tables, value ^ load< std::uint32_t >( bytePtr ) ) ^
                lookUp< 8 >( crc32Tables, load< std::uint32_t >( bytePtr + 4 ) ) ^
                lookUp< 4 >( crc32Tables, load< std::uint32_t >( bytePtr + 8 ) ) ^
                lookUp< 0 >( crc32Tables, load< std::uint32_t >( bytePtr + 12 ) );
    }
    for ( ; nbrOfBytes != 0; --nbrOfBytes )
        value = step( crc32Tables[0], value, *bytePtr++ );
    myValue = value;
    return *this;
}

std::uint16_t Crc16::checksum( const void* ptr, std::size_t nbrOfBytes )
{
    return Crc16( 0xFFFF ).update( ptr, nbrOfBytes ).value();
}

Crc16& Crc16::update( const void* ptr, std::size_t nbrOfBytes )
{
    const unsigned char* bytePtr = static_cast< const unsigned char* >( ptr );
    std::uint16_t value = myValue;
    for ( ; nbrOfBytes >= 8; nbrOfBytes -= 8, bytePtr += 8 ) {
        // The register's more significant byte meets the earlier byte.
        const std::uint32_t swapped =
            static_cast< std::uint32_t >( ( value >> 8 ) | ( ( value & 0xFF ) << 8 ) );
        value = static_cast< std::uint16_t >(
            lookUp< 4 >( crc16Tables, swapped ^ load< std::uint32_t >( bytePtr ) ) ^
            lookUp< 0 >( crc16Tables, load< std::uint32_t >( bytePtr + 4 ) ) );
    }
    for ( ; nbrOfBytes != 0; --nbrOfBytes )
        value = step( crc16Tables[0], value, *bytePtr++ );
    myValue = value;
    return *this;
}

} // namespace Nuv::Utils
