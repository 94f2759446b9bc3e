#pragma once

#include "nuvBuffer.h"
#include "nuvConnectionStream.h"
#include "nuvHttp.h"

#include <cstdint>
#include <string>

namespace Nuv::Net {

/// What came back: status, headers and, where no output stream took it, the content.
///
/// Threads: one at a time.
/// Owns:    the content; belongs to its request, whose next exchange overwrites it.
class NUV_API HttpResponse
{
public:
    explicit HttpResponse( ConnectionStream* connectionPtr )
        : myConnectionPtr( connectionPtr )
    {
    }

    ConnectionStream* connectionPtr() const { return myConnectionPtr; }
    /// Index into Http::ourHttpVersionName.
    int version() const { return myVersion; }
    int statusCode() const { return myStatusCode; }
    /// With the blank that stands before it in the status line.
    const std::string& reason() const { return myReason; }
    const Http::HeaderMap& headerMap() const { return myHeaderMap; }
    /// At its begin after an exchange. After a failed one it holds what had arrived.
    Utils::IBufferStream& body() { return myBody; }
    const Utils::Buffer& bodyBuffer() const { return *myBody.bufferPtr(); }

private:
    friend class HttpRequest;

    ConnectionStream* myConnectionPtr;
    int myVersion = 0;
    int myStatusCode = 0;
    std::string myReason;
    Http::HeaderMap myHeaderMap;
    Utils::IBufferStream myBody;
};

/// One HTTP exchange at a time on a connection: writes a request, reads its response.
///
/// | response                                   | content                                         |
/// |--------------------------------------------|-------------------------------------------------|
/// | Transfer-Encoding: chunked                 | its chunks (extensions are refused)             |
/// | Content-Length L, into the body            | L bytes                                         |
/// | Content-Length L, into an output stream    | until the server closes, L bytes are expected;  |
/// |                                            | with stopAtContentLength(): L bytes             |
/// | neither, Connection: close                 | until the server closes                         |
/// | neither                                    | failure                                         |
///
/// The second row of the length is what a server wants that closes; most keep the connection, and
/// hold such a call until the idle time-out ends it. Who does not know the server switches
/// stopAtContentLength( true ), as nuvctl does.
///
/// Every status is read alike, 1xx, 204 and 304 too, and so is the answer to HEAD: one that has
/// neither length nor "Connection: close" fails.
///
/// The body grows with what arrives, whatever length the server claims. Trailers and status line
/// are bounded, and so are the headers (see Http::HeaderLimits).
///
/// Threads: request, connection and response belong to one thread at a time.
/// Errors:  Http::Exception. connectionFailed with the socket's error number for all failures of
///          the connection, time-outs (0) included; sendFailed and receiveFailed with the number
///          of the step: 212 no status line, 217 status line above 1023 bytes, 501 version, 509
///          status, 518 no reason, 266 not the part that was asked for, 300 part does not fit the
///          body, 325 content shorter or longer than its length or not to be written, 337 and 344
///          content without end, 409 chunk size, 431 chunk, 463 and 470 line end, 586 nothing to
///          resume, 635 body not taken.
/// Owns:    the response; the connection is borrowed.
/// Cost:    a small exchange takes one send and one receive.
/// Example: HttpGetRequest get( connectionPtr ); get.stopAtContentLength( true );
///          use( get.issue( "/rules", nullptr )->bodyBuffer() );
class NUV_API HttpRequest
{
public:
    enum ReadCrStatus
    {
        crAlreadyRead = 0,
        skipToCr = 1
    };

    HttpRequest( const HttpRequest& ) = delete;
    HttpRequest& operator=( const HttpRequest& ) = delete;
    virtual ~HttpRequest();

    /// Opens a TCP connection.
    /// @param connectTimeoutMs TcpSocket::infinite waits as long as the system tries
    /// @return owned by the caller
    /// @throws SocketException
    static TcpConnectionStream*
    createTcpRequestConnectionStream( const IpAddress& address, int outputSize, int inputSize,
                                      unsigned int connectTimeoutMs = TcpSocket::infinite );

    // --- settings

    /// Sent with the request. Where absent, Host (the address text) and User-Agent are put in; what
    /// else the exchange needs (Range, If-Range, Cookie) is taken out again after it.
    Http::HeaderMap& headerMap() { return myHeaderMap; }
    /// Appended to the URI as they are.
    Http::VariableMap& variables() { return myVariables; }
    /// Index into Http::ourHttpVersionName; default 1.
    void version( int version ) { myVersion = version; }
    /// For this connection and those that a resumption gets. @param seconds 0: none
    void readIdleTimeoutInSeconds( unsigned int seconds );
    /// Send cached cookies and cache received ones; default true.
    void useCookieCache( bool uses ) { myUsesCookieCache = uses; }
    /// Content of a known length ends there, also into an output stream; default false.
    void stopAtContentLength( bool stops ) { myStopsAtContentLength = stops; }

    // --- results

    HttpResponse& response() { return myResponse; }
    ConnectionStream* connectionPtr() const { return myConnectionPtr; }
    /// Content bytes received so far, by a failed exchange too.
    unsigned int receivedResponseSize() const { return myReceivedResponseSize; }

    // --- steps of an exchange

    /// Writes request line and headers; flushes nothing.
    /// @param uriPtr goes into the line as it is
    void sendHeaders( const char* uriPtr, Http::RequestMethod method, unsigned int contentLength );
    /// @param outputPtr takes the content; null: the response's body does
    void receiveResponse( std::ostream* outputPtr );
    void addCachedCookiesToHeader( const char* uriPtr );
    void parseStatusLine( const Utils::Buffer& line );
    /// @return number of bytes skipped before the CR
    unsigned int readEndLine( ReadCrStatus status );
    void readChunkedEncodedContent( std::ostream* outputPtr );
    [[noreturn]] void handleSocketException( const SocketException& exception );

protected:
    /// @param connectionPtr not null
    explicit HttpRequest( ConnectionStream* connectionPtr );

    class HeaderScope;

    std::streambuf& input() { return *myConnectionPtr->istreamPtr()->rdbuf(); }
    std::streambuf& output() { return *myConnectionPtr->ostreamPtr()->rdbuf(); }
    /// Goes on with the same exchange on another connection.
    void switchConnection( ConnectionStream* connectionPtr );
    void beginExchange() { myReceivedResponseSize = 0; }
    void flush();

private:
    class ContentSink;

    void addResumptionHeaders();
    Utils::Buffer readStatusLine();
    void cacheReceivedCookie();
    void checkPartialResponse();
    void readSizedContent( std::ostream* outputPtr, unsigned int length );
    void readContentUntilClose( std::ostream* outputPtr );
    unsigned int readChunkSize( ReadCrStatus* statusPtr );
    void readTrailers();

    ConnectionStream* myConnectionPtr;
    HttpResponse myResponse;
    unsigned int myReceivedResponseSize = 0;
    std::uint64_t myBodySize = 0; // that the first part of the response announced
    unsigned int myReadIdleTimeoutInSeconds = 0;
    int myVersion = 1;
    Http::HeaderMap myHeaderMap;
    Http::VariableMap myVariables;
    bool myUsesCookieCache = true;
    bool myStopsAtContentLength = false;
};

/// GET, which can go on where it was broken off.
class NUV_API HttpGetRequest : public HttpRequest
{
public:
    explicit HttpGetRequest( ConnectionStream* connectionPtr )
        : HttpRequest( connectionPtr )
    {
    }

    /// @param outputPtr takes the content; null: the response's body does
    /// @return the response, borrowed
    HttpResponse* issue( const char* uriPtr, std::ostream* outputPtr );
    /// Asks for the rest of what a failed issue() began, with the validator (ETag, else Date) of
    /// the response that was broken off; without a validator it asks for the whole, whose status
    /// then fails (266).
    /// @param connectionPtr a new one
    /// @param outputPtr as issue() got it
    HttpResponse* resume( ConnectionStream* connectionPtr, std::ostream* outputPtr );
    /// @param exception what issue() or resume() threw
    /// @return whether resume() may bring the rest: the connection failed, or the server ended it
    ///         within the content (325, 431) or, once there is some, before its answer (212)
    bool isBrokenOff( const Http::Exception& exception ) const;

private:
    bool myIssueInProgress = false;
    bool myIsResuming = false;
    Utils::Buffer myLastUri;
};

/// POST of bytes or of form fields.
class NUV_API HttpPostRequest : public HttpRequest
{
public:
    explicit HttpPostRequest( ConnectionStream* connectionPtr )
        : HttpRequest( connectionPtr )
    {
    }

    HttpResponse* issue( const char* uriPtr, const Utils::Buffer& body );
    /// @param fields names and values encoded by the caller (Http::urlEncodeStr())
    HttpResponse* issue( const char* uriPtr, const Http::VariableMap& fields );
};

} // namespace Nuv::Net
