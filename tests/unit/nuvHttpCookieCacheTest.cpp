#include "nuvHttpCookieCache.h"

#include "nuvLogCapture.h"
#include "nuvTestInterprocess.h"

#include <string>
#include <thread>
#include <vector>

using namespace Nuv;
using namespace Nuv::Net;

namespace {

class HttpCookies : public NuvTest::RootFixture
{
protected:
    HttpCookies()
    {
        const_cast< Log::Zone& >( Log::getStandardSource( Log::debug ).zone() )
            .severity( Log::debug );
        myCache.clearCookies( nullptr );
    }

    // Names and values as they would stand in a Cookie line.
    std::string cookiesFor( const char* hostPtr, const char* pathPtr )
    {
        HttpCookieCache::CookieInfoPtrSet cookies;
        myCache.retrieveCookies( hostPtr, pathPtr, &cookies );
        std::string text;
        for ( const auto& cookiePtr : cookies )
            text += ( text.empty() ? "" : "; " ) + cookiePtr->name() + "=" + cookiePtr->value();
        return text;
    }

    HttpCookieCache& myCache = *HttpCookieCache::singletonPtr();
};

} // namespace

TEST_F( HttpCookies, AreReadByTheirDelimiters )
{
    // Name, value, path, domain, expiration in seconds.
    const std::pair< const char*, const char* > cases[] = {
        { "id=42; path=/app;", "id|42|/app||0" },
        { " ;\t\r\nid=4=2 ;", "id|4=2 |/||0" },
        { "=v;", "|v|/||0" },
        { "id=42", "||/||0" },
        { "", "||/||0" },
        { "a=b;PATH=/x;Domain=d;secure;max=1;", "a|b|/x|d|0" },
        { "a=b;path=;path;=x;domain=d;", "a|b|/|d|0" },
        { "a=b;path =/x;;;  path=/y;path=/z;", "a|b|/z||0" },
        { "a=b;expires=Wed,9Jun21 1:1:1 GMT;", "a|b|/||0" },                             // 20 bytes
        { "a=b;expires=Wed,09Jun21 1:1:1 GMT;", "a|b|/||1623200461" },                   // 21
        { "a=b;expires=Wed, 09 Jun 2021 10:18:14 GMT          ;", "a|b|/||1623233894" }, // 39
        { "a=b;expires=Wed, 09 Jun 2021 10:18:14 GMT           ;", "a|b|/||0" },         // 40
        { "a=b;expires=Wed, 39 Jun 2021 10:18:14 GMT;", "a|b|/||0" },
        { "a=b;expires=Wed, 09 Jun 2021 10:18:14 GMT;expires=Wed, 39 Jun 2021 10:18:14 GMT;",
          "a|b|/||0" },
    };
    for ( const auto& [text, fields] : cases ) {
        const CookieInfo cookie( "host", text );
        EXPECT_EQ( fields, cookie.name() + "|" + cookie.value() + "|" + cookie.path() + "|" +
                               cookie.domain() + "|" +
                               std::to_string( cookie.expiration().ns() / 1000000000 ) );
        EXPECT_EQ( text, cookie.complete() );
    }
}

TEST_F( HttpCookies, GoToTheirHostAndPathLongestPathFirst )
{
    for ( const char* textPtr : { "root=1; path=/;", "b=2; path=/app;", "a=3; path=/app;",
                                  "o=4; path=/other;", "z=5; path=/app/page/deep;", "r=6;" } )
        myCache.cacheCookie( "10.0.0.1", textPtr );
    myCache.cacheCookie( "10.0.0.10", "x=7;" );
    myCache.cacheCookie( "10.0.0.1", "not a cookie" );
    myCache.cacheCookie( "", "x=8;" );
    myCache.cacheCookie( HttpCookieCache::CookieInfoPtr() );
    EXPECT_EQ( 7u, myCache.nbrOfCookies() );
    const char* const cases[][3] = { { "10.0.0.1", "/app/page", "a=3; b=2; r=6; root=1" },
                                     { "10.0.0.1", "/ap", "r=6; root=1" },
                                     { "10.0.0.1", "", "" },
                                     { "10.0.0.1", "/other", "o=4; r=6; root=1" },
                                     { "10.0.0.10", "/app", "x=7" },
                                     { "11.0.0.0", "/app", "" } };
    for ( const auto& [host, path, cookies] : cases )
        EXPECT_EQ( cookies, cookiesFor( host, path ) ) << host << path;
    myCache.cacheCookie( "10.0.0.1", "a=new; path=/app;" );
    EXPECT_EQ( "a=new; b=2; r=6; root=1", cookiesFor( "10.0.0.1", "/app" ) );
    myCache.clearCookies( "10.0.0.1" );
    EXPECT_EQ( 1u, myCache.nbrOfCookies() );
}

TEST_F( HttpCookies, AreGivenUpWhenTheyExpireOrWereNotUsed )
{
    myCache.cacheCookie( "h", "old=1; expires=Wed, 09 Jun 2021 10:18:14 GMT;" );
    myCache.cacheCookie( "h", "new=1; expires=Fri, 09 Jun 2500 10:18:14 GMT;" );
    EXPECT_EQ( 2u, myCache.nbrOfCookies() ) << "stored expired as they are";
    EXPECT_EQ( "new=1", cookiesFor( "h", "/" ) );
    myCache.clearCookies( nullptr );
    for ( int i = 0; i < 100; ++i )
        myCache.cacheCookie(
            "h", ( "n" + std::to_string( i ) + "=1; path=/" + std::to_string( i + 100 ) + ";" )
                     .c_str() );
    cookiesFor( "h", "/100" );                      // retrieved: used
    myCache.cacheCookie( "h", "n1=2; path=/101;" ); // replaced: used
    myCache.cacheCookie( "h", "more=1;" );
    EXPECT_EQ( 100u, myCache.nbrOfCookies() );
    EXPECT_EQ( "n0=1; more=1", cookiesFor( "h", "/100" ) );
    EXPECT_EQ( "n1=2; more=1", cookiesFor( "h", "/101" ) );
    EXPECT_EQ( "more=1", cookiesFor( "h", "/102" ) );
}

TEST_F( HttpCookies, AreRemovedAndShownByTheirKey )
{
    const Log::Capture capture( "Nuv" );
    myCache.cacheCookie( "h", "a=1; path=/p; expires=Fri, 09 Jun 2500 10:18:14 GMT;" );
    myCache.cacheCookie( "i", "b=;" );
    myCache.removeCookie( "h", "a", "/" );
    myCache.dumpHostsCookies( "h" );
    EXPECT_FALSE( capture.contains( "host: i" ) );
    myCache.dumpHostsCookies( nullptr );
    for ( const char* textPtr :
          { "Cookie assigned unspecified path string to /",
            "HttpCookieCache::removeCookie failed to find cookie with host h, name a, URI path /",
            "Dumping the contents of cached cookies from host: h",
            "Cookie Information host: h\n\t\tcomplete: a=1; path=/p; expires=Fri, "
            "09 Jun 2500 10:18:14 GMT;\n\t\tname: a\n\t\tvalue: 1\n\t\tpath: /p\n\t\t"
            "time: specified\n\t\tdomain: <none>",
            "Dumping the contents of all cached cookies",
            "value: <none>\n\t\tpath: /\n\t\ttime: unspecified" } )
        EXPECT_TRUE( capture.contains( textPtr ) ) << textPtr;
    myCache.removeCookie( "h", "a", "/p" );
    EXPECT_EQ( 1u, myCache.nbrOfCookies() );
    HttpCookieCache::CookieInfoPtrSet cookies;
    NuvTest::expectFailure( "hostAddressPtr != NULL",
                            [&] { myCache.retrieveCookies( nullptr, "", &cookies ); } );
    NuvTest::expectFailure( "uriPathPtr != NULL",
                            [&] { myCache.retrieveCookies( "", nullptr, &cookies ); } );
    NuvTest::expectFailure( "cookieNamePtr != NULL",
                            [&] { myCache.removeCookie( "", nullptr, "" ); } );
}

TEST_F( HttpCookies, AreSharedByThreads )
{
    std::vector< std::thread > threads;
    for ( const char* hostPtr : { "h0", "h1", "h0", "h1" } )
        threads.emplace_back( [this, hostPtr] {
            for ( int i = 0; i < 500; ++i ) {
                myCache.cacheCookie( hostPtr, ( "n" + std::to_string( i % 60 ) + "=v;" ).c_str() );
                ASSERT_FALSE( cookiesFor( hostPtr, "/" ).empty() );
                myCache.removeCookie( hostPtr, "n7", "/" );
            }
        } );
    for ( std::thread& thread : threads )
        thread.join();
    EXPECT_LE( myCache.nbrOfCookies(), 100u );
}
