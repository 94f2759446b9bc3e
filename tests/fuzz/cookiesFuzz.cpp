// A Set-Cookie value, behind the URI path that is asked for (up to the first line feed).

#include "nuvHttpCookieCache.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    using namespace Nuv::Net;
    const std::string text( reinterpret_cast< const char* >( dataPtr ), nbrOfBytes );
    const std::size_t end = std::min( text.find( '\n' ), text.size() );
    const std::string path = text.substr( 0, end );
    HttpCookieCache& cache = *HttpCookieCache::singletonPtr();
    cache.cacheCookie( "host", text.substr( end ).c_str() );
    HttpCookieCache::CookieInfoPtrSet cookies;
    cache.retrieveCookies( "host", path.c_str(), &cookies );
    for ( const auto& cookiePtr : cookies ) {
        if ( cookiePtr->name().empty() ||
             path.compare( 0, cookiePtr->path().size(), cookiePtr->path() ) != 0 )
            std::abort();
    }
    return 0;
}
