// A URI taken apart; what is put together again must have the same parts, unless nothing stands
// where it would be set off.

#include "nuvFuzz.h"
#include "nuvUriString.h"

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    using Nuv::Utils::UriString;
    const std::string text = NuvFuzz::text( dataPtr, nbrOfBytes );
    UriString uri;
    std::string error, first, second;
    uri.assign( text.c_str(), &error );
    uri.getStr( &first );
    NuvFuzz::require( uri.isValid( &error ) );
    if ( uri.scheme().empty() )
        return 0;
    UriString again;
    again.assign( first.c_str(), &error );
    again.getStr( &second );
    NuvFuzz::require( first == second );
    return 0;
}
