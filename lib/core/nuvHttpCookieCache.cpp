#include "nuvHttpCookieCache.h"

#include "nuvHttp.h"
#include "nuvLog.h"
#include "nuvSingleton.h"

#include <cstring>
#include <vector>

namespace Nuv::Net {

extern Mt::Mutex HttpCookieCacheSingletonPtrMutex;
Mt::Mutex HttpCookieCacheSingletonPtrMutex;

namespace {

using Log::debug;
using Log::getStandardSource;

constexpr const char* delimiters = " ;\t\r\n";

const char* shown( const std::string& text )
{
    return text.empty() ? "<none>" : text.c_str();
}

std::string lowerCase( std::string_view text )
{
    std::string lower( text );
    for ( char& c : lower ) {
        if ( c >= 'A' && c <= 'Z' )
            c = static_cast< char >( c - 'A' + 'a' );
    }
    return lower;
}

const char* checked( const char* textPtr )
{
    nuvAssert( textPtr != NULL );
    return textPtr;
}

} // namespace

// ---------------------------------------------------------------------------------- CookieInfo

CookieInfo::CookieInfo( const char* hostPtr, const char* setCookieTextPtr )
    : myHost( checked( hostPtr ) )
    , myComplete( checked( setCookieTextPtr ) )
{
    std::size_t semicolon = parseFirstPair();
    if ( semicolon == std::string::npos )
        return;
    myPath.clear();
    for ( ;; ) {
        const std::size_t start = myComplete.find_first_not_of( delimiters, semicolon );
        semicolon = myComplete.find( ';', start );
        if ( start == std::string::npos || semicolon == std::string::npos )
            break;
        parseAttribute( std::string_view( myComplete ).substr( start, semicolon - start ) );
    }
    if ( myPath.empty() ) {
        nuvLogTo( getStandardSource( debug ) ) << "Cookie assigned unspecified path string to /";
        myPath = '/'; // as text g++ 12 sees an overlap in it when it optimises
    }
}

/// @return position of the ";" behind it, npos if this is no cookie
std::size_t CookieInfo::parseFirstPair()
{
    const std::size_t start = myComplete.find_first_not_of( delimiters );
    if ( start == std::string::npos )
        return std::string::npos;
    const std::size_t equals = myComplete.find( '=', start );
    const std::size_t semicolon = myComplete.find( ';', start );
    if ( semicolon == std::string::npos || equals > semicolon )
        return std::string::npos;
    myName = myComplete.substr( start, equals - start );
    myValue = myComplete.substr( equals + 1, semicolon - equals - 1 );
    return semicolon;
}

void CookieInfo::parseAttribute( std::string_view attribute )
{
    const std::size_t equals = attribute.find( '=' );
    if ( equals == std::string_view::npos || equals + 2 > attribute.size() )
        return;
    const std::string name = lowerCase( attribute.substr( 0, equals ) );
    const std::string value( attribute.substr( equals + 1 ) );
    if ( name == "expires" )
        parseExpiration( value );
    else if ( name == "path" )
        myPath = value;
    else if ( name == "domain" )
        myDomain = value;
}

void CookieInfo::parseExpiration( const std::string& text )
{
    if ( text.size() < 21 || text.size() > 39 )
        return;
    nuvLogTo( getStandardSource( debug ) ) << "Cookie time string: " << text;
    std::tm t{};
    if ( Http::HttpParserHelper::parseTime( &t, text.c_str() ) &&
         !Http::convertGregorianTime( &myExpiration, &t ) )
        myExpiration = ourUnspecifiedExpirationTime;
}

void CookieInfo::dumpDebugInfo() const
{
    const bool isSpecified = myExpiration != ourUnspecifiedExpirationTime;
    nuvLogTo( getStandardSource( debug ) )
        << "Cookie Information host: " << shown( myHost )
        << "\n\t\tcomplete: " << shown( myComplete ) << "\n\t\tname: " << shown( myName )
        << "\n\t\tvalue: " << shown( myValue ) << "\n\t\tpath: " << shown( myPath )
        << "\n\t\ttime: " << ( isSpecified ? "specified" : "unspecified" )
        << "\n\t\tdomain: " << shown( myDomain );
}

// ----------------------------------------------------------------------------- HttpCookieCache

bool HttpCookieCache::CookieInfoPtrSetLess::operator()( const CookieInfoPtr& a,
                                                        const CookieInfoPtr& b ) const
{
    if ( a->path().size() != b->path().size() )
        return a->path().size() > b->path().size();
    return a->name() < b->name();
}

HttpCookieCache* HttpCookieCache::singletonPtr()
{
    return Utils::Singleton< HttpCookieCache >::ptr( HttpCookieCacheSingletonPtrMutex );
}

HttpCookieCache::HttpCookieCache()
    : myCache( ourCacheSize )
{
}

void HttpCookieCache::cacheCookie( const char* hostPtr, const char* setCookieTextPtr )
{
    cacheCookie( CookieInfoPtr( new CookieInfo( hostPtr, setCookieTextPtr ) ) );
}

void HttpCookieCache::cacheCookie( const CookieInfoPtr& cookieInfoPtr )
{
    if ( cookieInfoPtr == nullptr || cookieInfoPtr->host().empty() ||
         cookieInfoPtr->name().empty() )
        return;
    const Mt::MutexLock lock( myMutex );
    myCache.insert( { cookieInfoPtr->host(), cookieInfoPtr->path(), cookieInfoPtr->name() },
                    cookieInfoPtr );
}

HttpCookieCache::CookieCache::iterator HttpCookieCache::firstOf( const char* hostAddressPtr )
{
    return hostAddressPtr == nullptr
               ? myCache.begin()
               : myCache.lowerBound( CookieCacheKeyView{ hostAddressPtr, "", "" } );
}

bool HttpCookieCache::isOf( CookieCache::iterator i, const char* hostAddressPtr )
{
    return i != myCache.end() && ( hostAddressPtr == nullptr || i->first.host == hostAddressPtr );
}

void HttpCookieCache::retrieveCookies( const char* hostAddressPtr, const char* uriPathPtr,
                                       CookieInfoPtrSet* cookiesPtr )
{
    nuvAssert( hostAddressPtr != NULL );
    nuvAssert( uriPathPtr != NULL );
    cookiesPtr->clear();
    const Mt::MutexLock lock( myMutex );
    const Utils::Time now;
    for ( auto i = firstOf( hostAddressPtr ); isOf( i, hostAddressPtr ); ) {
        const CookieInfoPtr& cookiePtr = CookieCache::value( i );
        if ( cookiePtr->expiration() != CookieInfo::ourUnspecifiedExpirationTime &&
             cookiePtr->expiration() < now ) {
            i = myCache.erase( i );
            continue;
        }
        const std::string& path = cookiePtr->path();
        const int order = std::strncmp( path.c_str(), uriPathPtr, path.size() );
        if ( order > 0 )
            break;
        if ( order == 0 ) {
            cookiesPtr->insert( cookiePtr );
            myCache.touch( i );
        }
        ++i;
    }
}

void HttpCookieCache::removeCookie( const char* hostAddressPtr, const char* cookieNamePtr,
                                    const char* uriPathPtr )
{
    nuvAssert( hostAddressPtr != NULL );
    nuvAssert( cookieNamePtr != NULL );
    nuvAssert( uriPathPtr != NULL );
    bool isFound = false;
    {
        const Mt::MutexLock lock( myMutex );
        isFound =
            myCache.eraseKey( CookieCacheKeyView{ hostAddressPtr, uriPathPtr, cookieNamePtr } );
    }
    if ( !isFound )
        nuvLogTo( getStandardSource( debug ) )
            << "HttpCookieCache::removeCookie failed to find cookie with host " << hostAddressPtr
            << ", name " << cookieNamePtr << ", URI path " << uriPathPtr;
}

void HttpCookieCache::clearCookies( const char* hostAddressPtr )
{
    const Mt::MutexLock lock( myMutex );
    for ( auto i = firstOf( hostAddressPtr ); isOf( i, hostAddressPtr ); ) {
        i = myCache.erase( i );
    }
}

void HttpCookieCache::dumpHostsCookies( const char* hostAddressPtr )
{
    std::vector< CookieInfoPtr > cookies;
    {
        const Mt::MutexLock lock( myMutex );
        for ( auto i = firstOf( hostAddressPtr ); isOf( i, hostAddressPtr ); ++i )
            cookies.push_back( CookieCache::value( i ) );
    }
    if ( hostAddressPtr == nullptr )
        nuvLogTo( getStandardSource( debug ) ) << "Dumping the contents of all cached cookies";
    else
        nuvLogTo( getStandardSource( debug ) )
            << "Dumping the contents of cached cookies from host: " << hostAddressPtr;
    for ( const CookieInfoPtr& cookiePtr : cookies )
        cookiePtr->dumpDebugInfo();
}

std::size_t HttpCookieCache::nbrOfCookies() const
{
    const Mt::MutexLock lock( myMutex );
    return myCache.size();
}

} // namespace Nuv::Net
