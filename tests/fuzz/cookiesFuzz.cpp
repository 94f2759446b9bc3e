// A Set-Cookie value, behind the URI path that is asked for (up to the first line feed).

#include "nuvFuzz.h"
#include "nuvHttpCookieCache.h"

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    using namespace Nuv::Net;
    const std::string text = NuvFuzz::text( dataPtr, nbrOfBytes );
    const std::size_t end = std::min( text.find( '\n' ), text.size() );
    const std::string path = text.substr( 0, end );
    HttpCookieCache& cache = *HttpCookieCache::singletonPtr();
    cache.cacheCookie( "host", text.substr( end ).c_str() );
    HttpCookieCache::CookieInfoPtrSet cookies;
    cache.retrieveCookies( "host", path.c_str(), &cookies );
    for ( const auto& cookiePtr : cookies ) {
        NuvFuzz::require( !cookiePtr->name().empty() && path.starts_with( cookiePtr->path() ) );
    }
    return 0;
}
