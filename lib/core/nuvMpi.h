#pragma once

#include "nuvBuffer.h"

#include <compare>
#include <cstddef>
#include <cstdint>

namespace Nuv::Utils {

/// Unsigned integer of any length, held as bytes, the most significant one first.
///
/// A normalised number has no leading zero bytes; zero is no byte at all, and so is an empty
/// number. Numbers compare by value, normalised or not. The operations with a small number work
/// in place and keep the length: what does not fit is returned.
///
/// Threads: one at a time.
/// Errors:  std::bad_alloc, the number then being unchanged; std::domain_error( "smallDiv" ) for
///          a zero divisor; a null Buffer and a number of 256 or more fail nuvAssert.
/// Owns:    its bytes; copies are deep.
/// Cost:    operations with a small number are linear in the length, decimal text in either
///          direction quadratic (some microseconds for 1000 digits).
/// Example: Mpi number; number.setAsciiDecimal( "256" ); number.sizeInBits() == 9
class NUV_API Mpi
{
public:
    Mpi() = default;
    /// The value as four bytes, not normalised.
    explicit Mpi( unsigned int value );

    /// Takes the bytes in [first, last), most significant first, as they are.
    void assign( Buffer::const_iterator first, Buffer::const_iterator last );
    void assign( const unsigned char* firstPtr, const unsigned char* lastPtr );

    /// Takes the decimal digits at the text's front, normalised; none, or null, is zero.
    void setAsciiDecimal( const char* textPtr );

    /// @param value below 256
    /// @return the carry out of the most significant byte: for a number of no bytes, the value
    unsigned int smallAdd( unsigned int value );
    /// @return what overflows the most significant byte
    unsigned char smallMult( unsigned char factor );
    /// @return the remainder
    unsigned char smallDiv( unsigned char divisor );

    /// Changes the length at the most significant end: adds zero bytes, or drops bytes, which
    /// keeps the value modulo 256^nbrOfBytes.
    void resize( std::size_t nbrOfBytes );
    void normalize();

    bool isZero() const;
    /// Significant bits, 0 for zero.
    std::uint64_t sizeInBits() const;

    /// Replaces the Buffer by the decimal text; zero is "0".
    void getAsciiDecimal( Buffer* bufferPtr ) const;

    const Buffer& bytes() const { return myBytes; }

    friend NUV_API bool operator==( const Mpi& a, const Mpi& b );
    friend NUV_API std::strong_ordering operator<=>( const Mpi& a, const Mpi& b );

private:
    Buffer myBytes;
};

} // namespace Nuv::Utils
