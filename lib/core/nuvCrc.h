#pragma once

#include "nuv.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Nuv::Utils {

/// The running register of the IEEE 802.3 CRC-32: reflected, polynomial 0xEDB88320.
///
/// The register begins with the caller's value and value() is the register as it is: nothing is
/// inverted behind the caller's back. The check sum that archives and Ethernet use begins with
/// 0xFFFFFFFF and is inverted in the end, which is what checksum() does. Bytes may come in any
/// portions.
///
/// Threads: one at a time; checksum() any. The tables are made by the compiler.
/// Cost:    16 bytes a step by 16 tables of 1 KiB.
/// Example: Crc32::checksum( "123456789", 9 ) == 0xCBF43926
class NUV_API Crc32
{
public:
    using Table = std::array< std::uint32_t, 256 >;

    /// Entry i: the register after the one byte i, begun with 0.
    static const Table ourTable;

    /// @param initial the register before the first byte
    explicit Crc32( std::uint32_t initial )
        : myValue( initial )
    {
    }

    /// @return the finished check sum: begun with 0xFFFFFFFF, inverted in the end
    static std::uint32_t checksum( const void* ptr, std::size_t nbrOfBytes );

    Crc32& update( const void* ptr, std::size_t nbrOfBytes );

    std::uint32_t value() const { return myValue; }

private:
    std::uint32_t myValue;
};

/// The running register of the CCITT CRC-16: most significant bit first, polynomial 0x1021.
///
/// As with Crc32, the register begins with the caller's value and value() is the register as it
/// is. The family differs in that first value alone; the check values over "123456789":
///
/// | first value          | result | known as            |
/// |----------------------|--------|---------------------|
/// | 0xFFFF (checksum())  | 0x29B1 | CCITT-FALSE, IBM-3740 |
/// | 0x0000               | 0x31C3 | XMODEM              |
/// | 0x1D0F               | 0xE5CC | AUG-CCITT           |
///
/// Threads: one at a time; checksum() any. The tables are made by the compiler.
/// Cost:    8 bytes a step by 8 tables of 512 bytes.
/// Example: Crc16::checksum( "123456789", 9 ) == 0x29B1
class NUV_API Crc16
{
public:
    using Table = std::array< std::uint16_t, 256 >;

    /// Entry i: the register after the one byte i, begun with 0.
    static const Table ourTable;

    /// @param initial the register before the first byte
    explicit Crc16( std::uint16_t initial )
        : myValue( initial )
    {
    }

    /// @return the register begun with 0xFFFF
    static std::uint16_t checksum( const void* ptr, std::size_t nbrOfBytes );

    Crc16& update( const void* ptr, std::size_t nbrOfBytes );

    std::uint16_t value() const { return myValue; }

private:
    std::uint16_t myValue;
};

} // namespace Nuv::Utils
