// Wide numbers from text. The first byte chooses a radix; the text is parsed as 128-bit and as long
// numbers, written and parsed again; two numbers of its bytes are divided.

#include "nuvBuffer.h"
#include "nuvInt128.h"
#include "nuvMpi.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using namespace Nuv::Utils;

void require( bool condition )
{
    if ( !condition )
        std::abort();
}

template < class Number >
void checkText( const std::string& text, int radix )
{
    const Number value( text.c_str() );
    Buffer written;
    value.toString( &written, 16 );
    const bool isNegative = written[0] == '-';
    const std::string prefixed =
        ( isNegative ? "-0x" : "0x" ) + written.str().substr( isNegative ? 1 : 0 );
    require( Number( prefixed.c_str() ) == value );
    value.toString( &written, 10 );
    require( Number( written.cStr() ) == value );
    value.toString( &written, radix );
    // A value so great that it rounds up to the end of the range comes back from the other end.
    const long double rounded = value.toLongDouble();
    if ( rounded < std::ldexp( 1.0L, Number::isSigned ? 127 : 128 ) )
        require( Number( rounded ).toLongDouble() == rounded );
}

template < class Number >
void checkDivision( const std::string& bytes )
{
    std::uint64_t halves[4] = {};
    std::memcpy( halves, bytes.data(), std::min( bytes.size(), sizeof( halves ) ) );
    const Number a( UInt128( halves[0], halves[1] ) );
    const Number b( UInt128( halves[2], halves[3] ) );
    if ( !b )
        return;
    Number rest;
    const Number quotient = a.div( b, &rest );
    require( quotient * b + rest == a );
    const UInt128 restSize( rest < 0 ? -rest : rest );
    require( restSize < UInt128( b < 0 ? -b : b ) );
}

void checkLong( const std::string& text )
{
    Mpi number;
    number.setAsciiDecimal( text.c_str() );
    Buffer written;
    number.getAsciiDecimal( &written );
    Mpi again;
    again.setAsciiDecimal( written.cStr() );
    require( number == again );
    const Buffer bytes( text );
    number.assign( bytes.begin(), bytes.end() );
    number.getAsciiDecimal( &written );
    again.setAsciiDecimal( written.cStr() );
    require( number == again && number.sizeInBits() == again.sizeInBits() );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    if ( nbrOfBytes == 0 )
        return 0;
    const std::string text( reinterpret_cast< const char* >( dataPtr + 1 ), nbrOfBytes - 1 );
    checkText< Int128 >( text, dataPtr[0] % 40 );
    checkText< UInt128 >( text, dataPtr[0] % 40 );
    checkDivision< Int128 >( text );
    checkDivision< UInt128 >( text );
    checkLong( text );
    return 0;
}
