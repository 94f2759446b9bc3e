#include "nuvHttpRequest.h"

#include "nuvHttpCookieCache.h"
#include "nuvLog.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

namespace Nuv::Net {

namespace {

using Log::debug;
using Log::getStandardSource;

constexpr const char* userAgentIdPtr = "Mozilla/4.76 [en] (compatible; U)";

constexpr std::size_t maxStatusLineSize = 1023;
constexpr unsigned int maxSkippedBytes = 64 * 1024;   // of a line of which only the end counts
constexpr unsigned int maxTrailerBytes = 1024 * 1024; // of all of them
constexpr std::uint64_t maxContentSize = Utils::Buffer::maxSize;

constexpr int endOfFile = std::char_traits< char >::eof();

[[noreturn]] void failReceive( int step )
{
    throw Http::Exception( "", Http::Exception::receiveFailed, step );
}

[[noreturn]] void failReceive( int step, const char* messagePtr )
{
    nuvLogTo( getStandardSource( debug ) ) << messagePtr;
    failReceive( step );
}

std::string lowerCase( std::string text )
{
    for ( char& c : text ) {
        if ( c >= 'A' && c <= 'Z' )
            c = static_cast< char >( c - 'A' + 'a' );
    }
    return text;
}

int hexDigit( int c )
{
    if ( c >= '0' && c <= '9' )
        return c - '0';
    const int lower = c | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// The first position of a Content-Range ("bytes 1000-1999/2000"), if it can be read.
std::optional< std::uint64_t > rangeStart( const Http::HeaderMap& headerMap )
{
    const auto i = headerMap.find( Http::headerContentRange );
    if ( i == headerMap.end() )
        return {};
    const std::string_view value = i->second;
    const std::size_t start = std::min( value.find_first_of( "0123456789" ), value.size() );
    std::uint64_t position = 0;
    const auto result =
        std::from_chars( value.data() + start, value.data() + value.size(), position );
    return result.ec == std::errc() ? std::optional( position ) : std::nullopt;
}

} // namespace

/// Takes out of the header map again what an exchange puts in.
class HttpRequest::HeaderScope
{
public:
    explicit HeaderScope( Http::HeaderMap& headerMap )
        : myHeaderMap( headerMap )
    {
        for ( std::size_t i = 0; i < std::size( headers ); ++i ) {
            const auto found = myHeaderMap.find( headers[i] );
            if ( found != myHeaderMap.end() )
                mySaved[i] = found->second;
        }
    }
    HeaderScope( const HeaderScope& ) = delete;
    HeaderScope& operator=( const HeaderScope& ) = delete;
    ~HeaderScope()
    {
        for ( std::size_t i = 0; i < std::size( headers ); ++i ) {
            if ( mySaved[i] )
                myHeaderMap[headers[i]] = std::move( *mySaved[i] );
            else
                myHeaderMap.erase( headers[i] );
        }
    }

private:
    static constexpr Http::HttpHeader headers[] = { Http::headerRange, Http::headerIfRange,
                                                    Http::headerCookie };

    Http::HeaderMap& myHeaderMap;
    std::optional< std::string > mySaved[std::size( headers )];
};

/// Where content goes: behind what the body holds, or into an output stream. Counts what was
/// received as it comes, so that a failure leaves the count and the bytes in step.
class HttpRequest::ContentSink
{
public:
    /// How much is to come: count by count, as take() is told, or all at once.
    enum Announcement
    {
        inParts,
        atOnce
    };

    ContentSink( HttpRequest& request, std::ostream* outputPtr, Announcement announcement )
        : myInput( request.input() )
        , myOutputPtr( outputPtr )
        , myAnnouncement( announcement )
        , myReceivedSize( request.myReceivedResponseSize )
        , myBodyStream( request.myResponse.myBody )
    {
        if ( outputPtr == nullptr )
            myBody = myBodyStream.takeBuffer();
        mySize = myBody.size();
    }
    ContentSink( const ContentSink& ) = delete;
    ContentSink& operator=( const ContentSink& ) = delete;
    ~ContentSink()
    {
        if ( myOutputPtr != nullptr )
            return;
        myBody.resizeHelper( mySize, false, '\0' ); // only ever smaller
        myBodyStream.takeOver( &myBody );
    }

    /// Takes so many bytes, less at the end of the stream or when they cannot be written.
    /// @return how many
    std::uint64_t take( std::uint64_t count );

private:
    static constexpr std::uint64_t ourBlockSize = 16 * 1024;
    static constexpr std::uint64_t ourGrowth = 1024 * 1024;

    std::uint64_t takeBlock( std::uint64_t count );
    std::uint64_t writeBlock( std::uint64_t count );

    std::streambuf& myInput;
    std::ostream* myOutputPtr;
    Announcement myAnnouncement;
    unsigned int& myReceivedSize;
    Utils::IBufferStream& myBodyStream;
    Utils::Buffer myBody;
    std::size_t mySize = 0; // of the body, of which more may be allocated
};

std::uint64_t HttpRequest::ContentSink::take( std::uint64_t count )
{
    count = std::min( count, maxContentSize -
                                 std::min< std::uint64_t >( myReceivedSize, maxContentSize ) );
    std::uint64_t done = 0;
    while ( done < count ) {
        const std::uint64_t n =
            myOutputPtr != nullptr ? writeBlock( count - done ) : takeBlock( count - done );
        if ( n == 0 )
            break;
        myReceivedSize += static_cast< unsigned int >( n );
        done += n;
    }
    return done;
}

/// The body grows by what it holds, at least by a MiB, however much is announced.
std::uint64_t HttpRequest::ContentSink::takeBlock( std::uint64_t count )
{
    const std::uint64_t wanted = std::min( count, std::max< std::uint64_t >( mySize, ourGrowth ) );
    if ( myBody.size() < mySize + wanted ) {
        std::uint64_t size = mySize + wanted;
        if ( myAnnouncement == inParts )
            size = std::min( std::max( size, mySize * std::uint64_t{ 2 } ), maxContentSize );
        myBody.resizeHelper( static_cast< std::size_t >( size ), false, '\0' );
    }
    const auto n = static_cast< std::size_t >( std::max< std::streamsize >(
        myInput.sgetn( myBody.data() + mySize, static_cast< std::streamsize >( wanted ) ), 0 ) );
    mySize += n;
    return n;
}

std::uint64_t HttpRequest::ContentSink::writeBlock( std::uint64_t count )
{
    char block[ourBlockSize];
    const std::streamsize n =
        myInput.sgetn( block, static_cast< std::streamsize >( std::min( count, ourBlockSize ) ) );
    if ( n <= 0 )
        return 0;
    const std::streamsize written =
        std::max< std::streamsize >( myOutputPtr->rdbuf()->sputn( block, n ), 0 );
    if ( written != n ) {
        myOutputPtr->setstate( std::ios_base::badbit );
        myReceivedSize += static_cast< unsigned int >( written );
        return 0;
    }
    return static_cast< std::uint64_t >( n );
}

// --------------------------------------------------------------------------------- HttpRequest

HttpRequest::HttpRequest( ConnectionStream* connectionPtr )
    : myConnectionPtr( connectionPtr )
    , myResponse( connectionPtr )
{
    nuvAssert( connectionPtr != NULL );
}

HttpRequest::~HttpRequest() = default;

TcpConnectionStream* HttpRequest::createTcpRequestConnectionStream( const IpAddress& address,
                                                                    int outputSize, int inputSize,
                                                                    unsigned int connectTimeoutMs )
{
    Utils::Ptr< TcpSocket > socketPtr( new TcpSocket( AF_INET, SOCK_STREAM, 0 ) );
    socketPtr->tcpNoDelay( true );
    nuvLogTo( getStandardSource( debug ) ) << "Attempting connection to " << address.asString();
    if ( connectTimeoutMs == TcpSocket::infinite )
        socketPtr->connect( address );
    else
        socketPtr->connect( address, connectTimeoutMs );
    nuvLogTo( getStandardSource( debug ) ) << "Opened connection";
    nuvLogTo( getStandardSource( debug ) ) << "Creating TCP stream";
    TcpConnectionStream* const streamPtr =
        new TcpConnectionStream( std::move( socketPtr ), address, outputSize, inputSize );
    nuvLogTo( getStandardSource( debug ) ) << "Done Creating TCP stream";
    return streamPtr;
}

void HttpRequest::readIdleTimeoutInSeconds( unsigned int seconds )
{
    myReadIdleTimeoutInSeconds = seconds;
    myConnectionPtr->readIdleTimeoutInSeconds( seconds );
}

// The Host header is the client's own if it names the old connection's peer.
void HttpRequest::switchConnection( ConnectionStream* connectionPtr )
{
    nuvAssert( connectionPtr != NULL );
    const auto host = myHeaderMap.find( Http::headerHost );
    if ( host != myHeaderMap.end() && host->second == myConnectionPtr->addressStr() )
        host->second = connectionPtr->addressStr();
    myConnectionPtr = connectionPtr;
    myResponse.myConnectionPtr = connectionPtr;
    if ( myReadIdleTimeoutInSeconds != 0 )
        myConnectionPtr->readIdleTimeoutInSeconds( myReadIdleTimeoutInSeconds );
}

// A send that was cut short is one that its time-out ended.
void HttpRequest::flush()
{
    if ( output().pubsync() != 0 )
        throw SocketException( "", socketError, ETIMEDOUT );
}

void HttpRequest::sendHeaders( const char* uriPtr, Http::RequestMethod method,
                               unsigned int contentLength )
{
    nuvAssert( uriPtr != NULL );
    nuvLogTo( getStandardSource( debug ) ) << "sendHeaders: to URI " << uriPtr;
    Utils::OBufferStream head;
    head << Http::ourRequestMethodName[method] << ' ' << uriPtr;
    if ( !myVariables.empty() ) {
        head << '?';
        Http::writeVariables( head, myVariables );
    }
    head << ' ' << Http::ourHttpVersionName[myVersion == 0 ? 0 : 1] << "\r\n";
    myHeaderMap.try_emplace( Http::headerHost, myConnectionPtr->addressStr() );
    myHeaderMap.try_emplace( Http::headerUserAgent, userAgentIdPtr );
    if ( myReceivedResponseSize != 0 )
        addResumptionHeaders();
    if ( myUsesCookieCache )
        addCachedCookiesToHeader( uriPtr );
    if ( method > Http::methodHead )
        Http::insertContentLengthHeader( contentLength, &myHeaderMap );
    Http::writeHeaders( head, myHeaderMap );
    head << "\r\n";
    const std::string_view bytes = head.view();
    const auto length = static_cast< std::streamsize >( bytes.size() );
    if ( output().sputn( bytes.data(), length ) != length )
        throw SocketException( "", socketError, ETIMEDOUT );
}

void HttpRequest::addResumptionHeaders()
{
    const Http::HeaderMap& previous = myResponse.myHeaderMap;
    auto validator = previous.find( Http::headerETag );
    if ( validator != previous.end() ) {
        nuvLogTo( getStandardSource( debug ) )
            << "sendHeaders: setting If-Range entity header " << validator->second;
    } else {
        validator = previous.find( Http::headerDate );
        if ( validator == previous.end() )
            return;
        nuvLogTo( getStandardSource( debug ) )
            << "sendHeaders: setting If-Range date header " << validator->second;
    }
    const std::string range = "bytes=" + std::to_string( myReceivedResponseSize ) + "-";
    nuvLogTo( getStandardSource( debug ) ) << "sendHeaders: setting range header: " << range;
    myHeaderMap[Http::headerIfRange] = validator->second;
    myHeaderMap[Http::headerRange] = range;
}

void HttpRequest::addCachedCookiesToHeader( const char* uriPtr )
{
    HttpCookieCache::CookieInfoPtrSet cookies;
    HttpCookieCache::singletonPtr()->retrieveCookies( myConnectionPtr->addressStr().c_str(), uriPtr,
                                                      &cookies );
    nuvLogTo( getStandardSource( debug ) )
        << "addCachedCookiesToHeader: adding " << cookies.size() << " cookies to cookie header";
    if ( cookies.empty() )
        return;
    std::string line;
    for ( const HttpCookieCache::CookieInfoPtr& cookiePtr : cookies ) {
        line.append( line.empty() ? "" : "; " );
        line.append( cookiePtr->name() ).append( "=" ).append( cookiePtr->value() );
    }
    myHeaderMap[Http::headerCookie] = std::move( line );
}

// ------------------------------------------------------------------------- reading a response

void HttpRequest::receiveResponse( std::ostream* outputPtr )
{
    nuvLogTo( getStandardSource( debug ) ) << "receiveResponse: Enter";
    const Utils::Buffer line = readStatusLine();
    nuvLogTo( getStandardSource( debug ) ) << "receiveResponse: received status line: " << line;
    parseStatusLine( line );
    Http::HeaderMap& headerMap = myResponse.myHeaderMap;
    Http::readHeaders( &input(), &headerMap );
    cacheReceivedCookie();
    checkPartialResponse();
    const auto encoding = headerMap.find( Http::headerTransferEncoding );
    unsigned int length = 0;
    if ( encoding != headerMap.end() && lowerCase( encoding->second ) == "chunked" )
        readChunkedEncodedContent( outputPtr );
    else if ( Http::contentLengthHeaderExists( headerMap, &length ) )
        readSizedContent( outputPtr, length );
    else
        readContentUntilClose( outputPtr );
    nuvLogTo( getStandardSource( debug ) ) << "receiveResponse: Exit";
}

Utils::Buffer HttpRequest::readStatusLine()
{
    std::streambuf& in = input();
    std::string line;
    while ( !line.ends_with( '\n' ) ) {
        const int c = in.sbumpc();
        if ( c == endOfFile || c > 127 )
            failReceive( 212 );
        if ( line.size() == maxStatusLineSize )
            failReceive( 217 );
        line.push_back( static_cast< char >( c ) );
    }
    return Utils::Buffer( line );
}

void HttpRequest::parseStatusLine( const Utils::Buffer& line )
{
    constexpr const char* delimiters = " \t\r\n";
    Utils::TokenScanner< Utils::Buffer > scanner( line );
    std::string token;
    scanner.next( &token, delimiters );
    if ( token != "HTTP/1.1" && token != "HTTP/1.0" )
        failReceive( 501 );
    myResponse.myVersion = token == "HTTP/1.1" ? 1 : 0;
    scanner.next( &token, delimiters );
    const std::int64_t code = Utils::strtoi64( token.c_str(), nullptr, 10, nullptr );
    if ( code < 1 || code > 0x7FFFFFFF )
        failReceive( 509 );
    myResponse.myStatusCode = static_cast< int >( code );
    if ( !scanner.next( &myResponse.myReason, "\r\n" ) )
        failReceive( 518 );
}

void HttpRequest::cacheReceivedCookie()
{
    const auto cookie = myResponse.myHeaderMap.find( Http::headerSetCookie );
    if ( !myUsesCookieCache || cookie == myResponse.myHeaderMap.end() )
        return;
    HttpCookieCache::singletonPtr()->cacheCookie( myConnectionPtr->addressStr().c_str(),
                                                  cookie->second.c_str() );
    nuvLogTo( getStandardSource( debug ) ) << "receiveResponse: cached cookie " << cookie->second;
}

void HttpRequest::checkPartialResponse()
{
    if ( myReceivedResponseSize == 0 ) {
        Utils::Buffer empty;
        myResponse.myBody.takeOver( &empty );
        myBodySize = 0;
        return;
    }
    const auto start = rangeStart( myResponse.myHeaderMap );
    if ( myResponse.myStatusCode != 206 || ( start && *start != myReceivedResponseSize ) )
        failReceive( 266, "receiveResponse: expected partial response" );
}

void HttpRequest::readSizedContent( std::ostream* outputPtr, unsigned int length )
{
    if ( length == 0 )
        return;
    nuvLogTo( getStandardSource( debug ) ) << "receiveResponse: reading content size " << length;
    std::uint64_t count = 0;
    if ( length != Http::invalidContentLength ) {
        ContentSink sink( *this, outputPtr, ContentSink::atOnce );
        if ( outputPtr == nullptr && myReceivedResponseSize == 0 )
            myBodySize = length;
        else if ( outputPtr == nullptr &&
                  std::uint64_t{ myReceivedResponseSize } + length > myBodySize )
            failReceive( 300, "receiveResponse: partial response's content too large" );
        const bool isBounded = outputPtr == nullptr || myStopsAtContentLength;
        count = sink.take( isBounded ? length : maxContentSize );
    }
    nuvLogTo( getStandardSource( debug ) )
        << "receiveResponse: updated myReceivedResponseSize to " << myReceivedResponseSize;
    if ( count != length ) {
        nuvLogTo( getStandardSource( debug ) )
            << "receiveResponse: only read " << count << " bytes, contentLen = " << length;
        failReceive( 325 );
    }
}

void HttpRequest::readContentUntilClose( std::ostream* outputPtr )
{
    nuvLogTo( getStandardSource( debug ) ) << "missing content length header";
    const auto connection = myResponse.myHeaderMap.find( Http::headerConnection );
    if ( connection == myResponse.myHeaderMap.end() )
        failReceive( 337, "missing content and connection header" );
    if ( lowerCase( connection->second ) != "close" )
        failReceive( 344, "connection header exists, but its value is not \"close\"" );
    const std::uint64_t count =
        ContentSink( *this, outputPtr, ContentSink::atOnce ).take( maxContentSize );
    nuvLogTo( getStandardSource( debug ) ) << "received " << count << " response bytes";
    if ( input().sgetc() != endOfFile )
        failReceive( 325 ); // it could not be written, or is greater than any body
}

// ----------------------------------------------------------------------------- chunked content

void HttpRequest::readChunkedEncodedContent( std::ostream* outputPtr )
{
    ContentSink sink( *this, outputPtr, ContentSink::inParts );
    for ( ;; ) {
        ReadCrStatus status = skipToCr;
        const unsigned int size = readChunkSize( &status );
        readEndLine( status );
        if ( size == 0 )
            break;
        if ( sink.take( size ) != size )
            failReceive( 431, "readChunkedEncodedContent: failure reading content" );
        readEndLine( skipToCr );
    }
    readTrailers();
}

unsigned int HttpRequest::readChunkSize( ReadCrStatus* statusPtr )
{
    std::streambuf& in = input();
    unsigned int size = 0;
    for ( int nbrOfDigits = 0;; ++nbrOfDigits ) {
        const int c = in.sbumpc();
        if ( nbrOfDigits > 0 && ( c == ' ' || c == '\t' || c == '\r' ) ) {
            *statusPtr = c == '\r' ? crAlreadyRead : skipToCr;
            return size;
        }
        const int digit = hexDigit( c );
        if ( digit < 0 || nbrOfDigits == 8 )
            failReceive( 409, "readChunkedEncodedContent: failure reading encoded size" );
        size = size << 4 | static_cast< unsigned int >( digit );
    }
}

void HttpRequest::readTrailers()
{
    unsigned int nbrOfBytes = 0;
    while ( const unsigned int length = readEndLine( skipToCr ) ) {
        nbrOfBytes += length;
        if ( nbrOfBytes > maxTrailerBytes )
            failReceive( 463, "readEndLine: failure reading CR" );
    }
}

unsigned int HttpRequest::readEndLine( ReadCrStatus status )
{
    std::streambuf& in = input();
    unsigned int nbrOfSkipped = 0;
    if ( status == skipToCr ) {
        for ( int c = in.sbumpc(); c != '\r'; c = in.sbumpc() ) {
            if ( c == endOfFile || ++nbrOfSkipped > maxSkippedBytes )
                failReceive( 463, "readEndLine: failure reading CR" );
        }
    }
    if ( in.sbumpc() != '\n' )
        failReceive( 470, "readEndLine: failure reading LF" );
    return nbrOfSkipped;
}

void HttpRequest::handleSocketException( const SocketException& exception )
{
    nuvLogTo( getStandardSource( debug ) ) << "HttpRequest socket exception: " << exception.what();
    throw Http::Exception( "", Http::Exception::connectionFailed, exception.errorNbr() );
}

// ------------------------------------------------------------------------------ HttpGetRequest

HttpResponse* HttpGetRequest::issue( const char* uriPtr, std::ostream* outputPtr )
{
    nuvAssert( uriPtr != NULL );
    if ( !myIsResuming ) {
        myIssueInProgress = true;
        myLastUri = uriPtr;
        beginExchange();
    }
    try {
        const HeaderScope scope( headerMap() );
        sendHeaders( uriPtr, Http::methodGet, 0 );
        flush();
        receiveResponse( outputPtr );
    } catch ( const SocketException& e ) {
        handleSocketException( e );
    }
    myIssueInProgress = false;
    return &response();
}

HttpResponse* HttpGetRequest::resume( ConnectionStream* connectionPtr, std::ostream* outputPtr )
{
    if ( !myIssueInProgress )
        throw Http::Exception( "", Http::Exception::sendFailed, 586 );
    struct ResumingScope
    {
        bool& isResuming;
        ~ResumingScope() { isResuming = false; }
    } const scope{ myIsResuming };
    myIsResuming = true;
    switchConnection( connectionPtr );
    return issue( myLastUri.cStr(), outputPtr );
}

bool HttpGetRequest::isBrokenOff( const Http::Exception& exception ) const
{
    return exception.reason() == Http::Exception::connectionFailed || exception.errorNbr() == 325 ||
           exception.errorNbr() == 431 ||
           ( exception.errorNbr() == 212 && receivedResponseSize() != 0 );
}

// ----------------------------------------------------------------------------- HttpPostRequest

HttpResponse* HttpPostRequest::issue( const char* uriPtr, const Utils::Buffer& body )
{
    beginExchange();
    try {
        const HeaderScope scope( headerMap() );
        nuvLogTo( getStandardSource( debug ) ) << "HttpPostRequest::issue sending headers";
        sendHeaders( uriPtr, Http::methodPost, body.size() );
        nuvLogTo( getStandardSource( debug ) )
            << "HttpPostRequest::issue sending data size " << body.size();
        const auto size = static_cast< std::streamsize >( body.size() );
        if ( size != 0 && output().sputn( body.data(), size ) != size )
            throw Http::Exception( "", Http::Exception::sendFailed, 635 );
        nuvLogTo( getStandardSource( debug ) ) << "HttpPostRequest::issue completed sending data";
        flush();
        nuvLogTo( getStandardSource( debug ) )
            << "HttpPostRequest::issue flushed and waiting on response";
        receiveResponse( nullptr );
        nuvLogTo( getStandardSource( debug ) ) << "HttpPostRequest::issue received response";
    } catch ( const SocketException& e ) {
        handleSocketException( e );
    }
    return &response();
}

HttpResponse* HttpPostRequest::issue( const char* uriPtr, const Http::VariableMap& fields )
{
    Utils::OBufferStream body;
    Http::writeVariables( body, fields );
    headerMap().try_emplace( Http::headerContentType, Http::ourFormEncodedContentTypeTextPtr );
    return issue( uriPtr, *body.bufferPtr() );
}

} // namespace Nuv::Net
