// Decodes the bytes; what decodes is encoded, and that must decode to the same again.

#include "nuvBEncoder.h"
#include "nuvFuzz.h"

namespace {

using namespace Nuv::Utils;

std::string encodedAgain( std::string_view text )
{
    IBufferStream input( text );
    const BEncoder::ItemPtr itemPtr = BEncoder::decode( input );
    if ( itemPtr == nullptr )
        return "e";
    OBufferStream output;
    itemPtr->encode( &output );
    return std::string( output.view() );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    std::string first;
    try {
        first = encodedAgain( NuvFuzz::text( dataPtr, nbrOfBytes ) );
    } catch ( const BEncoder::DecodeException& ) {
        return 0;
    }
    NuvFuzz::require( encodedAgain( first ) == first );
    return 0;
}
