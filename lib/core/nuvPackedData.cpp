#include "nuvPackedData.h"

#include <cstring>
#include <type_traits>

namespace Nuv::Utils {
namespace {

template < class Value >
Value swapBytes( Value value )
{
    if constexpr ( sizeof( Value ) == 2 )
        return __builtin_bswap16( value );
    else if constexpr ( sizeof( Value ) == 4 )
        return __builtin_bswap32( value );
    else
        return __builtin_bswap64( value );
}

template < class Value, std::endian order >
Value load( const unsigned char* ptr )
{
    Value value;
    std::memcpy( &value, ptr, sizeof( value ) );
    return order == std::endian::native ? value : swapBytes( value );
}

template < class Value, std::endian order >
void store( unsigned char* ptr, Value value )
{
    if constexpr ( order != std::endian::native )
        value = swapBytes( value );
    std::memcpy( ptr, &value, sizeof( value ) );
}

// A field's place inside a value of the given type, checked.
template < class Value >
struct Field
{
    Field( unsigned int highBit, unsigned int width )
        : myShift( highBit - width + 1 )
        , myUnusedBits( nbrOfBits - width )
    {
        nuvAssert( highBit < nbrOfBits );
        nuvAssert( width > 0 && width <= highBit + 1 );
    }

    Value unsignedOf( Value value ) const
    {
        return static_cast< Value >( ( value >> myShift ) & mask() );
    }

    // The field is moved to the top of a signed value and back, which extends its top bit.
    auto signedOf( Value value ) const
    {
        using Signed = std::make_signed_t< Value >;
        const Signed atTop = static_cast< Signed >( unsignedOf( value ) << myUnusedBits );
        return static_cast< Signed >( atTop >> myUnusedBits );
    }

    Value replaced( Value value, Value field ) const
    {
        return static_cast< Value >( ( value & ~( mask() << myShift ) ) |
                                     ( ( field & mask() ) << myShift ) );
    }

private:
    static constexpr unsigned int nbrOfBits = 8 * sizeof( Value );

    std::uint64_t mask() const { return ~std::uint64_t( 0 ) >> ( 64 - nbrOfBits + myUnusedBits ); }

    unsigned int myShift;
    unsigned int myUnusedBits;
};

} // namespace

PackedData::~PackedData() = default;

void PackedData::initialize( unsigned char* dataPtr, std::size_t nbrOfBytes )
{
    myDataPtr = dataPtr;
    myNbrOfBytes = nbrOfBytes;
}

std::uint8_t PackedData::unsigned8BitField( std::size_t offset, unsigned int highBit,
                                            unsigned int width ) const
{
    return Field< std::uint8_t >( highBit, width ).unsignedOf( unsigned8BitValue( offset ) );
}

std::uint16_t PackedData::unsigned16BitField( std::size_t offset, unsigned int highBit,
                                              unsigned int width ) const
{
    return Field< std::uint16_t >( highBit, width ).unsignedOf( unsigned16BitValue( offset ) );
}

std::uint32_t PackedData::unsigned32BitField( std::size_t offset, unsigned int highBit,
                                              unsigned int width ) const
{
    return Field< std::uint32_t >( highBit, width ).unsignedOf( unsigned32BitValue( offset ) );
}

std::uint64_t PackedData::unsigned64BitField( std::size_t offset, unsigned int highBit,
                                              unsigned int width ) const
{
    return Field< std::uint64_t >( highBit, width ).unsignedOf( unsigned64BitValue( offset ) );
}

std::int8_t PackedData::signed8BitField( std::size_t offset, unsigned int highBit,
                                         unsigned int width ) const
{
    return Field< std::uint8_t >( highBit, width ).signedOf( unsigned8BitValue( offset ) );
}

std::int16_t PackedData::signed16BitField( std::size_t offset, unsigned int highBit,
                                           unsigned int width ) const
{
    return Field< std::uint16_t >( highBit, width ).signedOf( unsigned16BitValue( offset ) );
}

std::int32_t PackedData::signed32BitField( std::size_t offset, unsigned int highBit,
                                           unsigned int width ) const
{
    return Field< std::uint32_t >( highBit, width ).signedOf( unsigned32BitValue( offset ) );
}

std::int64_t PackedData::signed64BitField( std::size_t offset, unsigned int highBit,
                                           unsigned int width ) const
{
    return Field< std::uint64_t >( highBit, width ).signedOf( unsigned64BitValue( offset ) );
}

void PackedData::set8BitField( std::uint8_t value, std::size_t offset, unsigned int highBit,
                               unsigned int width )
{
    const Field< std::uint8_t > field( highBit, width );
    set8BitValue( field.replaced( unsigned8BitValue( offset ), value ), offset );
}

void PackedData::set16BitField( std::uint16_t value, std::size_t offset, unsigned int highBit,
                                unsigned int width )
{
    const Field< std::uint16_t > field( highBit, width );
    set16BitValue( field.replaced( unsigned16BitValue( offset ), value ), offset );
}

void PackedData::set32BitField( std::uint32_t value, std::size_t offset, unsigned int highBit,
                                unsigned int width )
{
    const Field< std::uint32_t > field( highBit, width );
    set32BitValue( field.replaced( unsigned32BitValue( offset ), value ), offset );
}

void PackedData::set64BitField( std::uint64_t value, std::size_t offset, unsigned int highBit,
                                unsigned int width )
{
    const Field< std::uint64_t > field( highBit, width );
    set64BitValue( field.replaced( unsigned64BitValue( offset ), value ), offset );
}

template < std::endian order >
std::uint16_t OrderedPackedData< order >::unsigned16BitValue( std::size_t offset ) const
{
    return load< std::uint16_t, order >( myDataPtr + offset );
}

template < std::endian order >
std::uint32_t OrderedPackedData< order >::unsigned32BitValue( std::size_t offset ) const
{
    return load< std::uint32_t, order >( myDataPtr + offset );
}

template < std::endian order >
std::uint64_t OrderedPackedData< order >::unsigned64BitValue( std::size_t offset ) const
{
    return load< std::uint64_t, order >( myDataPtr + offset );
}

template < std::endian order >
std::int16_t OrderedPackedData< order >::signed16BitValue( std::size_t offset ) const
{
    return static_cast< std::int16_t >( load< std::uint16_t, order >( myDataPtr + offset ) );
}

template < std::endian order >
std::int32_t OrderedPackedData< order >::signed32BitValue( std::size_t offset ) const
{
    return static_cast< std::int32_t >( load< std::uint32_t, order >( myDataPtr + offset ) );
}

template < std::endian order >
std::int64_t OrderedPackedData< order >::signed64BitValue( std::size_t offset ) const
{
    return static_cast< std::int64_t >( load< std::uint64_t, order >( myDataPtr + offset ) );
}

template < std::endian order >
void OrderedPackedData< order >::set16BitValue( std::uint16_t value, std::size_t offset )
{
    store< std::uint16_t, order >( myDataPtr + offset, value );
}

template < std::endian order >
void OrderedPackedData< order >::set32BitValue( std::uint32_t value, std::size_t offset )
{
    store< std::uint32_t, order >( myDataPtr + offset, value );
}

template < std::endian order >
void OrderedPackedData< order >::set64BitValue( std::uint64_t value, std::size_t offset )
{
    store< std::uint64_t, order >( myDataPtr + offset, value );
}

template class OrderedPackedData< std::endian::little >;
template class OrderedPackedData< std::endian::big >;

} // namespace Nuv::Utils
