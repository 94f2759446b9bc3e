// Wide numbers from text. The first byte chooses a radix; the text is parsed as 128-bit and as long
// numbers, written and parsed again.

#include "nuvBuffer.h"
#include "nuvFuzz.h"
#include "nuvInt128.h"
#include "nuvMpi.h"

#include <cmath>

namespace {

using namespace Nuv::Utils;
using NuvFuzz::require;

template < class Number >
void check( const std::string& text, int radix )
{
    const Number value( text.c_str() );
    Buffer written;
    value.toString( &written, 16 );
    const bool isNegative = written[0] == '-';
    written.insert( isNegative ? 1 : 0, "0x", 2 );
    require( Number( written.cStr() ) == value );
    value.toString( &written, 10 );
    require( Number( written.cStr() ) == value );
    value.toString( &written, radix );
    // A value so great that it rounds up to the end of the range comes back from the other end.
    const long double rounded = value.toLongDouble();
    if ( rounded < std::ldexp( 1.0L, Number::isSigned ? 127 : 128 ) )
        require( Number( rounded ).toLongDouble() == rounded );
}

// Written and read, the number is the same.
void checkLong( const Mpi& number )
{
    Buffer written;
    number.getAsciiDecimal( &written );
    Mpi again;
    again.setAsciiDecimal( written.cStr() );
    require( number == again && number.sizeInBits() == again.sizeInBits() );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    if ( nbrOfBytes == 0 )
        return 0;
    const std::string text = NuvFuzz::text( dataPtr + 1, nbrOfBytes - 1 );
    check< Int128 >( text, dataPtr[0] % 40 );
    check< UInt128 >( text, dataPtr[0] % 40 );
    Mpi number;
    number.setAsciiDecimal( text.c_str() );
    checkLong( number );
    number.assign( dataPtr + 1, dataPtr + nbrOfBytes );
    checkLong( number );
    return 0;
}
