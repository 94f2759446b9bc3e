// A whole response, chunked bodies included: the first byte selects where the content goes; a
// second response, behind "\n---\n", answers the resumption of one that failed.

#include "../support/nuvTestHttp.h"
#include "nuvHttpRequest.h"

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    using namespace Nuv::Net;
    if ( nbrOfBytes == 0 )
        return 0;
    const std::string text( reinterpret_cast< const char* >( dataPtr ) + 1, nbrOfBytes - 1 );
    const std::size_t end = std::min( text.find( "\n---\n" ), text.size() );
    NuvTest::MemoryConnection first( text.substr( 0, end ) );
    NuvTest::MemoryConnection second( text.substr( std::min( end + 5, text.size() ) ) );
    std::ostringstream output;
    std::ostream* const outputPtr = ( dataPtr[0] & 1 ) != 0 ? &output : nullptr;
    HttpGetRequest get( &first );
    get.stopAtContentLength( ( dataPtr[0] & 2 ) != 0 );
    try {
        try {
            get.issue( "/", outputPtr );
        } catch ( const Http::Exception& ) {
            get.resume( &second, outputPtr );
        }
    } catch ( const Http::Exception& ) {
    }
    const std::size_t kept =
        outputPtr != nullptr ? output.str().size() : get.response().bodyBuffer().size();
    if ( kept != get.receivedResponseSize() )
        std::abort();
    return 0;
}
