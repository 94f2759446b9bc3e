#include "rules.h"

#include <nuvConfig.h>
#include <nuvPathname.h>
#include <nuvUriString.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sys/socket.h>

namespace Sensor {

using namespace Nuv;

namespace {

constexpr int bufferSize = 16 * 1024;
constexpr unsigned int retryMs = 1000;
constexpr int maxNbrOfFailures = 30; // in a row, none of which brought a byte
// The server ended the connection: before its answer, within content, within a chunk.
constexpr int endsOfConnection[] = { 212, 325, 431 };

std::string failureText( const Net::Http::Exception& exception )
{
    if ( exception.reason() == Net::Http::Exception::receiveFailed &&
         std::count( std::begin( endsOfConnection ), std::end( endsOfConnection ),
                     exception.errorNbr() ) != 0 )
        return "the server closed the connection";
    if ( exception.reason() != Net::Http::Exception::connectionFailed )
        return exception.what();
    return exception.errorNbr() == 0 ? "nothing came in time"
                                     : std::strerror( exception.errorNbr() );
}

std::string pathnameOf( const char* namePtr )
{
    return Io::Pathname( Io::Pathname::rootDirectory, namePtr ).str();
}

} // namespace

Rules::Rules()
    : mySources( "rules" )
{
}

Rules::~Rules()
{
    {
        const Mt::MutexLock lock( myMutex );
        myIsStopping = true;
        if ( mySocketPtr != nullptr )
            mySocketPtr->close();
    }
    myWake.signal();
    if ( myTaskPtr )
        myTaskPtr->waitForTaskCompletion( Mt::ThreadedTask::infinite );
}

void Rules::start()
{
    const auto function = []( Mt::ThreadedTask*, void* rulesPtr ) {
        static_cast< Rules* >( rulesPtr )->run();
        return 0u;
    };
    myTaskPtr = new Mt::ThreadedTask( function, "rules", this, Mt::ThreadedTask::priorityNormal );
}

void Rules::reload()
{
    const Mt::MutexLock lock( myMutex );
    myIsReloading = true;
    if ( mySocketPtr != nullptr )
        mySocketPtr->close();
    myWake.signal();
}

std::string Rules::status() const
{
    const Mt::MutexLock lock( myMutex );
    return std::to_string( myNbrOfFetches ) + " fetched, " + std::to_string( myNbrOfResumptions ) +
           " resumptions\n" + ( myLast.empty() ? "" : myLast + "\n" );
}

void Rules::tell( Log::Severity severity, const std::string& text )
{
    {
        const Mt::MutexLock lock( myMutex );
        myLast = text;
    }
    nuvLogTo( mySources.source( severity ) ) << text;
}

Rules::Source Rules::loadSource()
{
    const Utils::Config config( pathnameOf( "etc/sensord.conf" ) );
    Source source;
    source.myUri = config.stringValue( "rules", "uri", "" );
    source.myIntervalS = std::clamp( config.uIntValue( "rules", "intervalS", 3600 ), 1u, 86400u );
    source.myTimeoutS = std::clamp( config.uIntValue( "rules", "timeoutS", 10 ), 1u, 3600u );
    Utils::UriString uri;
    uri.assign( source.myUri.c_str(), &source.myFault );
    const std::string& port = uri.hostPort();
    const auto result = std::from_chars( port.data(), port.data() + port.size(), source.myPort );
    if ( uri.scheme() != "http" || uri.host().empty() )
        source.myFault = "it does not begin with http://HOST";
    else if ( !port.empty() &&
              ( result.ec != std::errc() || result.ptr != port.data() + port.size() ) )
        source.myFault = "its port is no number up to 65535";
    source.myHostName = uri.host();
    source.myHost = uri.host() + ( port.empty() ? "" : ":" + port );
    source.myPath = "/" + uri.path() + ( uri.query().empty() ? "" : "?" + uri.query() );
    return source;
}

void Rules::run()
{
    while ( !myIsStopping ) {
        myIsReloading = false;
        const Source source = loadSource();
        bool isGood = true;
        if ( source.myUri.empty() ) {
            tell( Log::debug, "no uri is configured" );
        } else if ( !source.myFault.empty() ) {
            tell( Log::error, source.myUri + ": " + source.myFault );
        } else {
            isGood = fetch( source );
        }
        if ( !isInterrupted() )
            myWake.wait( isGood ? source.myIntervalS * 1000
                                : std::min( source.myIntervalS * 1000, 10 * retryMs ) );
    }
}

/// @return whether the file is now as the server has it
bool Rules::fetch( const Source& source )
{
    const std::string name = pathnameOf( "rules" );
    const std::string partial = pathnameOf( "rules.part" );
    std::ofstream file( partial, std::ios::binary | std::ios::trunc );
    Outcome outcome = failed;
    try {
        outcome = fetchInto( &file, source );
    } catch ( const Net::Http::Exception& exception ) {
        if ( file && !isInterrupted() )
            tell( Log::error, source.myUri + ": " + failureText( exception ) );
    } catch ( const RuntimeException& exception ) {
        tell( Log::error, source.myUri + ": " + exception.what() );
    }
    const auto size = static_cast< long >( file.tellp() );
    file.close();
    if ( !file ) {
        tell( Log::error, partial + " cannot be written" );
        outcome = failed;
    } else if ( outcome == fetched && std::rename( partial.c_str(), name.c_str() ) != 0 ) {
        tell( Log::error, name + " cannot be replaced: " + std::strerror( errno ) );
        outcome = failed;
    }
    if ( outcome == fetched ) {
        myFetchedUri = source.myUri;
        ++myNbrOfFetches;
        tell( Log::warning, std::to_string( size ) + " bytes fetched from " + source.myUri );
        return true;
    }
    std::remove( partial.c_str() );
    if ( outcome == failed )
        myFetchedUri.clear(); // what was modified since then counts for nothing
    return outcome == unchanged;
}

Rules::Outcome Rules::fetchInto( std::ostream* outputPtr, const Source& source )
{
    Connection connection = connectTo( source );
    struct SocketScope // before the connection goes
    {
        Rules* rulesPtr;
        ~SocketScope() { rulesPtr->setSocket( nullptr ); }
    } const scope{ this };
    Net::HttpGetRequest request( connection.get() );
    request.stopAtContentLength( true );
    request.readIdleTimeoutInSeconds( source.myTimeoutS );
    request.headerMap()[Net::Http::headerHost] = source.myHost;
    // So that an answer without content, to which the next header leads, has an end.
    request.headerMap()[Net::Http::headerConnection] = "close";
    if ( source.myUri == myFetchedUri && !myLastModified.empty() )
        request.headerMap()[Net::Http::headerIfModifiedSince] = myLastModified;
    transfer( &request, &connection, outputPtr, source );

    const int status = request.response().statusCode();
    if ( status == 304 ) {
        nuvLogTo( mySources.source( Log::debug ) ) << source.myUri << " is unchanged";
        return unchanged;
    }
    if ( status != 200 && status != 206 ) {
        tell( Log::error, source.myUri + ": the server answered " + std::to_string( status ) );
        return failed;
    }
    const Net::Http::HeaderMap& headers = request.response().headerMap();
    const auto iter = headers.find( Net::Http::headerLastModified );
    myLastModified = iter == headers.end() ? "" : iter->second;
    return fetched;
}

/// One exchange, gone on with on new connections as often as it is broken off.
void Rules::transfer( Net::HttpGetRequest* requestPtr, Connection* connectionPtr,
                      std::ostream* outputPtr, const Source& source )
{
    unsigned int nbrOfBytes = 0;
    for ( int nbrOfFailures = 0;; ) {
        try {
            if ( nbrOfFailures == 0 )
                requestPtr->issue( source.myPath.c_str(), outputPtr );
            else
                resume( requestPtr, connectionPtr, outputPtr, source );
            return;
        } catch ( const Net::Http::Exception& exception ) {
            const unsigned int received = requestPtr->receivedResponseSize();
            if ( isInterrupted() || !requestPtr->isBrokenOff( exception ) || !*outputPtr ||
                 nbrOfFailures >= maxNbrOfFailures )
                throw;
            if ( received != nbrOfBytes || nbrOfFailures == 0 ) {
                tell( Log::warning, "broken off after " + std::to_string( received ) +
                                        " bytes: " + failureText( exception ) );
                nbrOfFailures = 0;
            }
            nbrOfBytes = received;
            ++nbrOfFailures;
        }
        myWake.wait( retryMs );
    }
}

void Rules::resume( Net::HttpGetRequest* requestPtr, Connection* connectionPtr,
                    std::ostream* outputPtr, const Source& source )
{
    Connection other = connectTo( source );
    std::swap( other, *connectionPtr ); // the request still knows the former one
    ++myNbrOfResumptions;
    tell( Log::warning,
          "resumed from byte " + std::to_string( requestPtr->receivedResponseSize() ) );
    requestPtr->resume( connectionPtr->get(), outputPtr );
}

Rules::Connection Rules::connectTo( const Source& source )
{
    const std::unique_ptr< Net::IpV4Address > addressPtr(
        Net::IpV4Address::getIpV4AddressByHostName( source.myPort, source.myHostName ) );
    Utils::Ptr< Net::TcpSocket > socketPtr( new Net::TcpSocket( AF_INET, SOCK_STREAM, 0 ) );
    setSocket( socketPtr.get() );
    try {
        socketPtr->connect( *addressPtr, source.myTimeoutS * 1000 );
    } catch ( const Net::SocketException& exception ) {
        setSocket( nullptr );
        throw Net::Http::Exception( "", Net::Http::Exception::connectionFailed,
                                    exception.errorNbr() );
    }
    return std::make_unique< Net::TcpConnectionStream >( std::move( socketPtr ), *addressPtr,
                                                         bufferSize, bufferSize );
}

/// The one that a stop closes.
void Rules::setSocket( Net::TcpSocket* socketPtr )
{
    const Mt::MutexLock lock( myMutex );
    if ( socketPtr != nullptr && isInterrupted() )
        throw Net::Http::Exception( "", Net::Http::Exception::connectionFailed, EINTR );
    mySocketPtr = socketPtr;
}

} // namespace Sensor
