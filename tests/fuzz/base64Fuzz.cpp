// The first byte cuts the others into portions. Decoding and encoding give the same whether the
// bytes come in portions or at once, and decoding leads back from what was encoded.

#include "nuvBase64.h"
#include "nuvFuzz.h"

namespace {

using namespace Nuv::Utils;
using NuvFuzz::require;

std::string encoded( const std::string& bytes, std::size_t portion )
{
    Base64 base64( Base64::growOutput );
    Buffer output;
    for ( std::size_t i = 0; i < bytes.size(); i += portion )
        base64.forwardUpdate( bytes.substr( i, portion ), &output );
    base64.forwardFinal( &output );
    return output.str();
}

// "!" and how far it came for what is no text.
std::string decoded( const std::string& text, std::size_t portion )
{
    Base64 base64( Base64::growOutput );
    Buffer output;
    try {
        for ( std::size_t i = 0; i < text.size(); i += portion )
            base64.reverseUpdate( text.substr( i, portion ), &output );
        base64.reverseFinal( &output );
    } catch ( const Base64::Exception& ) {
        return "!";
    }
    return output.str();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    if ( nbrOfBytes == 0 )
        return 0;
    const std::size_t portion = dataPtr[0] % 67 + 1;
    const std::string bytes = NuvFuzz::text( dataPtr + 1, nbrOfBytes - 1 );
    const std::string text = encoded( bytes, nbrOfBytes );
    require( encoded( bytes, portion ) == text && decoded( text, nbrOfBytes * 2 ) == bytes &&
             decoded( text, portion ) == bytes );
    // What comes after the end of a text, or after a NUL, depends on the portions by design.
    const std::string ours = bytes.substr( 0, bytes.find_first_of( std::string( "=\0", 2 ) ) );
    require( decoded( ours, portion ) == decoded( ours, nbrOfBytes ) );
    decoded( bytes, portion );
    return 0;
}
