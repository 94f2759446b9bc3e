#pragma once

#include "nuvCache.h"
#include "nuvMutex.h"
#include "nuvTime.h"
#include "nuvUtils.h"

#include <cstddef>
#include <set>
#include <string>
#include <string_view>

namespace Nuv::Utils {
template < class T >
class Singleton;
}

namespace Nuv::Net {

/// One cookie, as a "Set-Cookie" value describes it.
///
/// The value begins with NAME=VALUE and a ";", and goes on with attributes, of which each is read
/// only when a ";" follows it: "id=42; path=/app;" has a path, "id=42; path=/app" has none. Without
/// the first ";" it is no cookie: the name stays empty.
///
/// Threads: any; nothing changes after construction.
/// Errors:  none; what is not understood is skipped.
class NUV_API CookieInfo
{
public:
    /// Of a cookie without a time, or with one that is no date or not 21 to 39 bytes long.
    static constexpr Utils::Time ourUnspecifiedExpirationTime{ 0 };

    /// @param hostPtr address text of the server; null pointers fail nuvAssert
    CookieInfo( const char* hostPtr, const char* setCookieTextPtr );

    /// Logs all fields as one message of the standard source of severity debug.
    void dumpDebugInfo() const;

    const std::string& host() const { return myHost; }
    /// The whole text as it came.
    const std::string& complete() const { return myComplete; }
    const std::string& name() const { return myName; }
    const std::string& value() const { return myValue; }
    const Utils::Time& expiration() const { return myExpiration; }
    /// "/" without a path attribute.
    const std::string& path() const { return myPath; }
    /// Kept only: cookies go to the very host that they came from.
    const std::string& domain() const { return myDomain; }

private:
    std::size_t parseFirstPair();
    void parseAttribute( std::string_view attribute );
    void parseExpiration( const std::string& text );

    std::string myHost;
    std::string myComplete;
    std::string myName;
    std::string myValue;
    Utils::Time myExpiration = ourUnspecifiedExpirationTime;
    std::string myPath = "/";
    std::string myDomain;
};

/// The cookies of the process: what the HTTP client received and sends again.
///
/// Cookies are kept under host, path and name. The 101st gives up the one that was not stored or
/// retrieved for the longest time. Hosts are compared as texts.
///
/// Threads: any; a retrieved set stays valid whatever happens to the cache.
/// Errors:  null pointers fail nuvAssert where the member says so.
/// Cost:    a retrieval walks the cookies of one host and copies none.
/// Example: HttpCookieCache::singletonPtr()->retrieveCookies( "10.0.0.1", "/app", &cookies );
class NUV_API HttpCookieCache
{
public:
    using CookieInfoPtr = Utils::CountedPtr< CookieInfo const >;

    /// The order in a request: the longest path first, then by name.
    struct NUV_API CookieInfoPtrSetLess
    {
        bool operator()( const CookieInfoPtr& a, const CookieInfoPtr& b ) const;
    };
    using CookieInfoPtrSet = std::set< CookieInfoPtr, CookieInfoPtrSetLess >;

    static constexpr std::size_t ourCacheSize = 100;

    static HttpCookieCache* singletonPtr();

    void cacheCookie( const char* hostPtr, const char* setCookieTextPtr );
    /// Stores the cookie, also one that has expired, in place of one of the same host, path and
    /// name. Ignores null and a cookie without host or name.
    void cacheCookie( const CookieInfoPtr& cookieInfoPtr );

    /// Empties the set and fills it with the cookies whose path is the beginning of the URI's;
    /// those that have expired are removed.
    /// @param hostAddressPtr, uriPathPtr null fails nuvAssert
    void retrieveCookies( const char* hostAddressPtr, const char* uriPathPtr,
                          CookieInfoPtrSet* cookiesPtr );
    /// @param hostAddressPtr, cookieNamePtr, uriPathPtr null fails nuvAssert
    void removeCookie( const char* hostAddressPtr, const char* cookieNamePtr,
                       const char* uriPathPtr );
    /// @param hostAddressPtr null for all hosts
    void clearCookies( const char* hostAddressPtr );
    /// Logs the cookies; null for those of all hosts.
    void dumpHostsCookies( const char* hostAddressPtr );

    std::size_t nbrOfCookies() const;

private:
    friend class Utils::Singleton< HttpCookieCache >;
    HttpCookieCache();
    ~HttpCookieCache() = default;

    struct CookieCacheKey
    {
        std::string host;
        std::string path;
        std::string name;
    };
    /// A key that is sought, without copies.
    struct CookieCacheKeyView
    {
        std::string_view host;
        std::string_view path;
        std::string_view name;
    };
    /// By host, path, name; bytes as unsigned values.
    struct CookieCacheKeyLess
    {
        using is_transparent = void;
        template < class A, class B >
        bool operator()( const A& a, const B& b ) const
        {
            if ( const int order = std::string_view( a.host ).compare( b.host ) )
                return order < 0;
            if ( const int order = std::string_view( a.path ).compare( b.path ) )
                return order < 0;
            return std::string_view( a.name ).compare( b.name ) < 0;
        }
    };
    using CookieCache = Utils::Cache< CookieCacheKey, CookieInfoPtr, CookieCacheKeyLess >;

    /// The first entry of the host, of any host for null.
    CookieCache::iterator firstOf( const char* hostAddressPtr ) NUV_REQUIRES( myMutex );
    bool isOf( CookieCache::iterator i, const char* hostAddressPtr ) NUV_REQUIRES( myMutex );

    // A leaf: nothing is logged under it, as an HTTP drain takes it under the drain's own.
    mutable Mt::Mutex myMutex;
    CookieCache myCache NUV_GUARDED_BY( myMutex );
};

} // namespace Nuv::Net
