#include "nuvctl.h"
#include "nuvctlEncode.h"

#include "nuvHttpCookieCache.h"
#include "nuvHttpRequest.h"
#include "nuvUriString.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>
#include <unistd.h>

namespace Nuv::Ctl {

namespace {

using Net::HttpGetRequest;
using Net::HttpPostRequest;
using Net::HttpRequest;
using Utils::UriString;

constexpr int bufferSize = 16 * 1024;
constexpr int maxNbrOfResumptions = 10;
constexpr std::chrono::milliseconds progressPeriod{ 200 };

/// What a URI asks for, with its server's address.
struct Target
{
    std::unique_ptr< Net::IpV4Address > myAddressPtr;
    std::string myHost; ///< as the request names it
    std::string myPath; ///< with the query
};

bool hasControlOrBlank( const std::string& text )
{
    for ( const char c : text ) {
        if ( static_cast< unsigned char >( c ) <= ' ' || c == 127 )
            return true;
    }
    return false;
}

std::string faultOf( const UriString& uri, const std::string& text, unsigned int* portPtr )
{
    if ( hasControlOrBlank( text ) )
        return "it has a blank or control character (blanks are written as %20)";
    if ( uri.scheme() == "https" )
        return "TLS is not supported";
    if ( uri.scheme() != "http" || uri.host().empty() )
        return "it does not begin with http://HOST";
    if ( !uri.user().empty() )
        return "user names are not supported";
    const std::string& port = uri.hostPort();
    const auto result = std::from_chars( port.data(), port.data() + port.size(), *portPtr );
    const bool isNumber = result.ec == std::errc() && result.ptr == port.data() + port.size();
    if ( !port.empty() && ( !isNumber || *portPtr < 1 || *portPtr > 0xFFFF ) )
        return "its port is no number from 1 to 65535";
    return "";
}

/// @return false, having complained, if it is no URI that can be fetched
bool findTarget( const std::string& text, Target* targetPtr )
{
    UriString uri;
    std::string fault;
    unsigned int port = 80;
    uri.assign( text.c_str(), &fault );
    if ( fault.empty() )
        fault = faultOf( uri, text, &port );
    if ( !fault.empty() ) {
        complain( text + ": " + fault );
        return false;
    }
    targetPtr->myHost = uri.host() + ( uri.hostPort().empty() ? "" : ":" + uri.hostPort() );
    targetPtr->myPath = "/" + uri.path() + ( uri.query().empty() ? "" : "?" + uri.query() );
    try {
        targetPtr->myAddressPtr.reset( Net::IpV4Address::getIpV4AddressByHostName(
            static_cast< std::uint16_t >( port ), uri.host() ) );
    } catch ( const Net::IpAddrException& ) {
        complain( uri.host() + ": no address of this host is known" );
        return false;
    }
    return true;
}

using Connection = std::unique_ptr< Net::TcpConnectionStream >;

Connection connectTo( const Target& target, unsigned int timeoutSec )
{
    try {
        return Connection( HttpRequest::createTcpRequestConnectionStream(
            *target.myAddressPtr, bufferSize, bufferSize, timeoutSec * 1000 ) );
    } catch ( const Net::SocketException& e ) {
        throw Net::Http::Exception( "", Net::Http::Exception::connectionFailed, e.errorNbr() );
    }
}

void prepare( HttpRequest* requestPtr, const Target& target, unsigned int timeoutSec )
{
    requestPtr->headerMap()[Net::Http::headerHost] = target.myHost;
    requestPtr->stopAtContentLength( true );
    requestPtr->readIdleTimeoutInSeconds( timeoutSec );
}

std::string failureText( const Net::Http::Exception& e )
{
    if ( e.reason() != Net::Http::Exception::connectionFailed )
        return e.what();
    return std::string( "the connection failed: " ) +
           ( e.errorNbr() == 0 ? "nothing came in time" : std::strerror( e.errorNbr() ) );
}

/// @return good if the server did what it was asked for
int judge( Net::HttpResponse& response )
{
    if ( response.statusCode() / 100 == 2 )
        return good;
    return complain( "the server answered " + std::to_string( response.statusCode() ) +
                     printable( response.reason() ) );
}

/// Passes content on to a file and shows, on a terminal, how much of it there is.
class ProgressBuf : public std::streambuf
{
public:
    ProgressBuf( std::streambuf* targetPtr, HttpGetRequest* requestPtr )
        : myTargetPtr( targetPtr )
        , myRequestPtr( requestPtr )
        , myIsShown( ::isatty( STDERR_FILENO ) != 0 )
    {
    }
    ~ProgressBuf() override
    {
        if ( myIsShown )
            std::cerr << "\r\x1b[K" << std::flush;
    }

protected:
    std::streamsize xsputn( const char* ptr, std::streamsize count ) override
    {
        const std::streamsize n = myTargetPtr->sputn( ptr, count );
        const auto now = std::chrono::steady_clock::now();
        if ( myIsShown && now - myShown >= progressPeriod ) {
            myShown = now;
            unsigned int length = 0;
            const bool isKnown = Net::Http::contentLengthHeaderExists(
                myRequestPtr->response().headerMap(), &length );
            std::cerr << "\r\x1b[K" << myRequestPtr->receivedResponseSize() << " bytes";
            if ( isKnown && myRequestPtr->response().statusCode() == 200 )
                std::cerr << " of " << length;
            std::cerr << std::flush;
        }
        return n;
    }
    int_type overflow( int_type c ) override
    {
        return traits_type::eq_int_type( c, traits_type::eof() )
                   ? 0
                   : myTargetPtr->sputc( traits_type::to_char_type( c ) );
    }

private:
    std::streambuf* myTargetPtr;
    HttpGetRequest* myRequestPtr;
    bool myIsShown;
    std::chrono::steady_clock::time_point myShown;
};

/// One GET, gone on with on new connections as often as it is broken off, if that is wished.
void fetch( const GetOptions& options, const Target& target, Connection* connectionPtr,
            HttpGetRequest* requestPtr, std::ostream* outputPtr )
{
    for ( int nbrOfFailures = 0;; ) {
        try {
            if ( nbrOfFailures == 0 ) {
                requestPtr->issue( target.myPath.c_str(), outputPtr );
            } else {
                Connection other = connectTo( target, options.myTimeoutSec );
                std::swap( other, *connectionPtr ); // the request still knows the former one
                requestPtr->resume( connectionPtr->get(), outputPtr );
            }
            return;
        } catch ( const Net::Http::Exception& e ) {
            if ( !options.myResumes || !requestPtr->isBrokenOff( e ) ||
                 nbrOfFailures == maxNbrOfResumptions || ( outputPtr != nullptr && !*outputPtr ) )
                throw;
            ++nbrOfFailures;
            std::cerr << "nuvctl: broken off after " << requestPtr->receivedResponseSize()
                      << " bytes (" << failureText( e ) << "), going on" << std::endl;
            std::this_thread::sleep_for( std::chrono::milliseconds( 500 ) );
        }
    }
}

int fetchIntoFile( const GetOptions& options, const Target& target, Connection connection )
{
    const std::string partial = options.myFile + ".part";
    std::ofstream file( partial, std::ios::binary | std::ios::trunc );
    if ( !file )
        return complain( partial + " cannot be written: " + std::strerror( errno ) );
    HttpGetRequest request( connection.get() );
    prepare( &request, target, options.myTimeoutSec );
    int status = problem;
    try {
        ProgressBuf progress( file.rdbuf(), &request );
        std::ostream output( &progress );
        fetch( options, target, &connection, &request, &output );
        status = judge( request.response() );
    } catch ( const Net::Http::Exception& e ) {
        complain( file ? failureText( e ) : partial + " cannot be written" );
    }
    file.close();
    if ( status == good &&
         ( !file || std::rename( partial.c_str(), options.myFile.c_str() ) != 0 ) )
        status = complain( options.myFile + " cannot be written: " + std::strerror( errno ) );
    if ( status != good )
        ::unlink( partial.c_str() );
    return status;
}

int fetchInFrame( const GetOptions& options, const Target& target )
{
    try {
        Connection connection = connectTo( target, options.myTimeoutSec );
        if ( !options.myFile.empty() && options.myFile != "-" )
            return fetchIntoFile( options, target, std::move( connection ) );
        HttpGetRequest request( connection.get() );
        prepare( &request, target, options.myTimeoutSec );
        fetch( options, target, &connection, &request, nullptr );
        const int status = judge( request.response() );
        return status == good ? writeOutput( request.response().bodyBuffer() ) : status;
    } catch ( const Net::Http::Exception& e ) {
        return complain( failureText( e ) );
    }
}

int postInFrame( const PostOptions& options, const Target& target, const std::string& body )
{
    try {
        const Connection connection = connectTo( target, options.myTimeoutSec );
        HttpPostRequest request( connection.get() );
        prepare( &request, target, options.myTimeoutSec );
        request.headerMap()[Net::Http::headerContentType] = options.myType;
        request.issue( target.myPath.c_str(), Utils::Buffer( body ) );
        const int status = judge( request.response() );
        const int written = writeOutput( request.response().bodyBuffer() );
        return status == good ? written : status;
    } catch ( const Net::Http::Exception& e ) {
        return complain( failureText( e ) );
    }
}

int cookiesInFrame( const CommonOptions& common, const CookiesOptions& options,
                    const std::string& lines )
{
    Net::HttpCookieCache& cache = *Net::HttpCookieCache::singletonPtr();
    Utils::TokenScanner< std::string > scanner( lines );
    Table table( { "NAME", "VALUE", "PATH", "DOMAIN", "EXPIRES" } );
    Json document = { { "received", Json::array() }, { "sent", "" } };
    for ( std::string line; scanner.next( &line, "\r\n" ); ) {
        const Net::HttpCookieCache::CookieInfoPtr cookiePtr(
            new Net::CookieInfo( options.myHost.c_str(), line.c_str() ) );
        cache.cacheCookie( cookiePtr );
        char expires[Net::Http::httpTimeTextSize] = "";
        if ( cookiePtr->expiration() != Net::CookieInfo::ourUnspecifiedExpirationTime )
            Net::Http::timeToHttpText( cookiePtr->expiration(), expires );
        table.add( { cookiePtr->name().empty() ? "(no cookie)" : printable( cookiePtr->name() ),
                     printable( cookiePtr->value() ), printable( cookiePtr->path() ),
                     printable( cookiePtr->domain() ), expires } );
        document["received"].push_back( { { "name", cookiePtr->name() },
                                          { "value", cookiePtr->value() },
                                          { "path", cookiePtr->path() },
                                          { "domain", cookiePtr->domain() },
                                          { "expires", expires } } );
    }
    Net::HttpCookieCache::CookieInfoPtrSet cookies;
    cache.retrieveCookies( options.myHost.c_str(), options.myPath.c_str(), &cookies );
    std::string sent;
    for ( const auto& cookiePtr : cookies )
        sent += ( sent.empty() ? "" : "; " ) + cookiePtr->name() + "=" + cookiePtr->value();
    document["sent"] = sent;
    if ( common.myJson ) {
        printJson( document );
    } else {
        table.print();
        std::cout << "for " << printable( options.myPath ) << ": "
                  << ( sent.empty() ? "no cookies" : "Cookie: " + printable( sent ) ) << std::endl;
    }
    return good;
}

} // namespace

int getUri( const CommonOptions&, const GetOptions& options )
{
    Target target;
    if ( options.myResumes && options.myFile.empty() )
        return complain( "get: --resume needs -o" ), wrongUsage;
    if ( !findTarget( options.myUri, &target ) || !refuseIfLocked() )
        return problem;
    return runInFrame( [&] { return fetchInFrame( options, target ); } );
}

int postUri( const CommonOptions&, const PostOptions& options )
{
    Target target;
    std::string body;
    if ( !findTarget( options.myUri, &target ) || !readInput( options.myFile, &body ) ||
         !refuseIfLocked() )
        return problem;
    return runInFrame( [&] { return postInFrame( options, target, body ); } );
}

int showCookies( const CommonOptions& common, const CookiesOptions& options )
{
    std::string lines;
    if ( !readInput( "-", &lines ) || !refuseIfLocked() )
        return problem;
    return runInFrame( [&] { return cookiesInFrame( common, options, lines ); } );
}

int showUri( const CommonOptions& common, const std::string& text )
{
    UriString uri;
    std::string error;
    uri.assign( text.c_str(), &error );
    const std::pair< const char*, const std::string& > parts[] = {
        { "scheme", uri.scheme() },    { "user", uri.user() }, { "host", uri.host() },
        { "port", uri.hostPort() },    { "path", uri.path() }, { "query", uri.query() },
        { "fragment", uri.fragment() } };
    Json document = Json::object();
    for ( const auto& [name, value] : parts ) {
        document[name] = value;
        if ( !common.myJson && !value.empty() )
            std::cout << name << ": " << printable( value ) << '\n';
    }
    std::string whole;
    uri.getStr( &whole );
    document["uri"] = whole;
    document["error"] = error;
    if ( common.myJson )
        printJson( document );
    else
        std::cout << "uri: " << printable( whole ) << std::endl;
    return error.empty() ? static_cast< int >( good ) : complain( "the authority is invalid" );
}

} // namespace Nuv::Ctl
