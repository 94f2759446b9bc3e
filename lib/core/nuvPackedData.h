#pragma once

#include "nuv.h"

#include <bit>
#include <cstddef>
#include <cstdint>

namespace Nuv::Utils {

/// Fixed-width integers and bit fields at byte offsets of a caller's memory, in one byte order.
///
/// A value is 8, 16, 32 or 64 bits that begin at a byte offset, aligned or not. A field is a run
/// of bits inside such a value: highBit is the number of its most significant bit (0 is the
/// value's least significant one), width the number of its bits. In the byte 0xA5 the field of
/// highBit 7 and width 4 is 0xA, or -6 read as signed.
///
/// Reading a field masks it; a signed one is extended from its top bit. Writing one leaves the
/// other bits of its value as they are and ignores what the new value has beyond width.
///
/// Threads: one writer, or readers only.
/// Errors:  highBit outside the value, width 0 and width > highBit + 1 fail nuvAssert. Offsets
///          are not checked: the size is what the caller recorded, for the caller's own checks.
/// Owns:    nothing; the memory is borrowed for the object's life or until initialize().
/// Example: BigEndianPackedData header( bytes, 20 ); header.unsigned16BitField( 6, 12, 13 );
class NUV_API PackedData
{
public:
    PackedData() = default;
    PackedData( unsigned char* dataPtr, std::size_t nbrOfBytes )
        : myDataPtr( dataPtr )
        , myNbrOfBytes( nbrOfBytes )
    {
    }
    virtual ~PackedData();

    virtual std::uint16_t unsigned16BitValue( std::size_t offset ) const = 0;
    virtual std::uint32_t unsigned32BitValue( std::size_t offset ) const = 0;
    virtual std::uint64_t unsigned64BitValue( std::size_t offset ) const = 0;

    virtual std::uint16_t unsigned16BitField( std::size_t offset, unsigned int highBit,
                                              unsigned int width ) const;
    virtual std::uint32_t unsigned32BitField( std::size_t offset, unsigned int highBit,
                                              unsigned int width ) const;
    virtual std::uint64_t unsigned64BitField( std::size_t offset, unsigned int highBit,
                                              unsigned int width ) const;

    virtual std::int16_t signed16BitValue( std::size_t offset ) const = 0;
    virtual std::int32_t signed32BitValue( std::size_t offset ) const = 0;
    virtual std::int64_t signed64BitValue( std::size_t offset ) const = 0;

    // A signed value is written by the same bits.
    virtual void set16BitValue( std::uint16_t value, std::size_t offset ) = 0;
    virtual void set32BitValue( std::uint32_t value, std::size_t offset ) = 0;
    virtual void set64BitValue( std::uint64_t value, std::size_t offset ) = 0;

    std::uint8_t unsigned8BitValue( std::size_t offset ) const { return myDataPtr[offset]; }
    std::uint8_t unsigned8BitField( std::size_t offset, unsigned int highBit,
                                    unsigned int width ) const;
    std::int8_t signed8BitValue( std::size_t offset ) const
    {
        return static_cast< std::int8_t >( myDataPtr[offset] );
    }
    std::int8_t signed8BitField( std::size_t offset, unsigned int highBit,
                                 unsigned int width ) const;
    std::int16_t signed16BitField( std::size_t offset, unsigned int highBit,
                                   unsigned int width ) const;
    std::int32_t signed32BitField( std::size_t offset, unsigned int highBit,
                                   unsigned int width ) const;
    std::int64_t signed64BitField( std::size_t offset, unsigned int highBit,
                                   unsigned int width ) const;

    void set8BitValue( std::uint8_t value, std::size_t offset ) { myDataPtr[offset] = value; }
    void set8BitField( std::uint8_t value, std::size_t offset, unsigned int highBit,
                       unsigned int width );
    void set16BitField( std::uint16_t value, std::size_t offset, unsigned int highBit,
                        unsigned int width );
    void set32BitField( std::uint32_t value, std::size_t offset, unsigned int highBit,
                        unsigned int width );
    void set64BitField( std::uint64_t value, std::size_t offset, unsigned int highBit,
                        unsigned int width );

    /// Turns the object to other memory, under the constructor's terms.
    void initialize( unsigned char* dataPtr, std::size_t nbrOfBytes );

    unsigned char* dataPtr() const { return myDataPtr; }
    std::size_t nbrOfBytes() const { return myNbrOfBytes; }

protected:
    unsigned char* myDataPtr = nullptr;
    std::size_t myNbrOfBytes = 0;
};

/// PackedData whose values have the byte at the offset that comes first in this order.
template < std::endian order >
class NUV_API OrderedPackedData : public PackedData
{
public:
    using PackedData::PackedData;

    std::uint16_t unsigned16BitValue( std::size_t offset ) const override;
    std::uint32_t unsigned32BitValue( std::size_t offset ) const override;
    std::uint64_t unsigned64BitValue( std::size_t offset ) const override;
    std::int16_t signed16BitValue( std::size_t offset ) const override;
    std::int32_t signed32BitValue( std::size_t offset ) const override;
    std::int64_t signed64BitValue( std::size_t offset ) const override;
    void set16BitValue( std::uint16_t value, std::size_t offset ) override;
    void set32BitValue( std::uint32_t value, std::size_t offset ) override;
    void set64BitValue( std::uint64_t value, std::size_t offset ) override;
};

extern template class NUV_API OrderedPackedData< std::endian::little >;
extern template class NUV_API OrderedPackedData< std::endian::big >;

/// The least significant byte at the offset.
using LittleEndianPackedData = OrderedPackedData< std::endian::little >;
/// The most significant byte at the offset.
using BigEndianPackedData = OrderedPackedData< std::endian::big >;

} // namespace Nuv::Utils
