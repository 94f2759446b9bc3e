// A URI taken apart; what is put together again must have the same parts, unless nothing stands
// where it would be set off.

#include "nuvUriString.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    using Nuv::Utils::UriString;
    const std::string text( reinterpret_cast< const char* >( dataPtr ), nbrOfBytes );
    UriString uri;
    std::string error;
    std::string first;
    uri.assign( text.c_str(), &error );
    uri.getStr( &first );
    if ( !uri.isValid( &error ) )
        std::abort();
    if ( uri.scheme().empty() )
        return 0;
    std::string second;
    UriString again;
    again.assign( first.c_str(), &error );
    again.getStr( &second );
    if ( first != second )
        std::abort();
    return 0;
}
