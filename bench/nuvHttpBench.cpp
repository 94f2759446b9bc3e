// peers: curl poco_net
#include "nuvHttpRequest.h"
#include "nuvLogHttp.h"

#include "nuvBenchWebServer.h"

#include <benchmark/benchmark.h>
#include <memory>
#include <stdexcept>
#include <streambuf>

#ifdef NUV_PEER_CURL
#include <curl/curl.h>
#endif
#ifdef NUV_PEER_POCO_NET
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#endif

using namespace Nuv;

namespace {

using NuvBench::WebServer;

// Logging stays as it is delivered: debug messages go nowhere.
const NuvBench::LogRoot ourRoot( "[zone/null]\ndrain = null\n[drain/null]\ntype = null\n" );

constexpr int bufferSize = 16 * 1024;
const char* const ourLogLine = "12:00:01.123456 W sensor.net: link eth1 is down, 4711 packets lost";

const char* pathOf( const benchmark::State& state )
{
    return state.range( 0 ) == 1024 ? "/1k" : "/1m";
}

void checkSize( benchmark::State& state, std::size_t size )
{
    if ( size != static_cast< std::size_t >( state.range( 0 ) ) )
        state.SkipWithError( "the body has another size" );
}

// ----------------------------------------------------------------------------- ours

void get( benchmark::State& state, unsigned int timeoutSeconds )
{
    const WebServer& server = WebServer::instance();
    const NuvBench::PinScope pinned( 0 );
    const std::unique_ptr< Net::TcpConnectionStream > connectionPtr(
        Net::HttpRequest::createTcpRequestConnectionStream( server.address(), bufferSize,
                                                            bufferSize ) );
    Net::HttpGetRequest request( connectionPtr.get() );
    request.readIdleTimeoutInSeconds( timeoutSeconds );
    for ( [[maybe_unused]] auto one : state )
        request.issue( pathOf( state ), nullptr );
    checkSize( state, request.response().bodyBuffer().size() );
}

void BM_HttpGet( benchmark::State& state )
{
    get( state, 0 );
}
BENCHMARK( BM_HttpGet )->Arg( 1024 )->Arg( 1024 * 1024 )->UseRealTime();

void BM_HttpGetTimed( benchmark::State& state )
{
    get( state, 10 );
}
BENCHMARK( BM_HttpGetTimed )->Arg( 1024 )->Arg( 1024 * 1024 )->UseRealTime();

/// The connection's buffer, which counts what it asks the system for.
class CountingStreamBuf : public Net::SocketStreamBuf
{
public:
    using SocketStreamBuf::SocketStreamBuf;
    int nbrOfCalls() const { return myNbrOfCalls; }

protected:
    int read( char* ptr, int count ) override
    {
        ++myNbrOfCalls;
        return SocketStreamBuf::read( ptr, count );
    }
    int write( const char* ptr, int count ) override
    {
        ++myNbrOfCalls;
        return SocketStreamBuf::write( ptr, count );
    }

private:
    int myNbrOfCalls = 0;
};

void BM_HttpGetCalls( benchmark::State& state )
{
    const WebServer& server = WebServer::instance();
    const std::unique_ptr< Net::TcpConnectionStream > connectionPtr(
        Net::HttpRequest::createTcpRequestConnectionStream( server.address(), bufferSize,
                                                            bufferSize ) );
    CountingStreamBuf counting( connectionPtr->socketPtr(), bufferSize, bufferSize );
    connectionPtr->istreamPtr()->rdbuf( &counting );
    connectionPtr->ostreamPtr()->rdbuf( &counting );
    Net::HttpGetRequest request( connectionPtr.get() );
    for ( [[maybe_unused]] auto one : state )
        request.issue( pathOf( state ), nullptr );
    checkSize( state, request.response().bodyBuffer().size() );
    state.counters["calls"] =
        benchmark::Counter( counting.nbrOfCalls(), benchmark::Counter::kAvgIterations );
}
BENCHMARK( BM_HttpGetCalls )->Arg( 1024 )->UseRealTime();

void BM_HttpLogLine( benchmark::State& state )
{
    const WebServer& server = WebServer::instance();
    const NuvBench::PinScope pinned( 0 );
    Log::HttpPoster poster( server.address() );
    const Utils::Buffer line( ourLogLine );
    for ( [[maybe_unused]] auto one : state ) {
        if ( !poster.post( Log::warning, line, "sensor.net" ) )
            state.SkipWithError( "the server does not answer" );
    }
}
BENCHMARK( BM_HttpLogLine )->UseRealTime();

// ----------------------------------------------------------------------------- libcurl

#ifdef NUV_PEER_CURL
std::size_t appendCurl( char* ptr, std::size_t, std::size_t size, void* bodyPtr )
{
    static_cast< std::string* >( bodyPtr )->append( ptr, size );
    return size;
}

/// An easy handle that is used again, its connection kept, its buffer as large as ours.
class Curl
{
public:
    explicit Curl( const std::string& uri )
        : myHandle( ::curl_easy_init() )
    {
        ::curl_easy_setopt( myHandle, CURLOPT_URL, uri.c_str() );
        ::curl_easy_setopt( myHandle, CURLOPT_WRITEFUNCTION, &appendCurl );
        ::curl_easy_setopt( myHandle, CURLOPT_WRITEDATA, &myBody );
        ::curl_easy_setopt( myHandle, CURLOPT_BUFFERSIZE, static_cast< long >( bufferSize ) );
    }
    Curl( const Curl& ) = delete;
    Curl& operator=( const Curl& ) = delete;
    ~Curl() { ::curl_easy_cleanup( myHandle ); }

    CURL* handle() { return myHandle; }
    const std::string& perform()
    {
        myBody.clear();
        if ( ::curl_easy_perform( myHandle ) != CURLE_OK )
            throw std::runtime_error( "libcurl failed" );
        return myBody;
    }

private:
    CURL* myHandle;
    std::string myBody;
};

void BM_HttpGet_Curl( benchmark::State& state )
{
    Curl curl( WebServer::instance().uri( pathOf( state ) ) );
    const NuvBench::PinScope pinned( 0 );
    std::size_t size = 0;
    for ( [[maybe_unused]] auto one : state )
        size = curl.perform().size();
    checkSize( state, size );
}
BENCHMARK( BM_HttpGet_Curl )->Arg( 1024 )->Arg( 1024 * 1024 )->UseRealTime();

void BM_HttpLogLine_Curl( benchmark::State& state )
{
    Curl curl( WebServer::instance().uri( "/cgi-bin/sys-server?f=log&sev=W&zone=sensor.net" ) );
    curl_slist* const headersPtr = ::curl_slist_append( nullptr, "Content-Type: text/plain" );
    ::curl_easy_setopt( curl.handle(), CURLOPT_HTTPHEADER, headersPtr );
    ::curl_easy_setopt( curl.handle(), CURLOPT_POSTFIELDS, ourLogLine );
    const NuvBench::PinScope pinned( 0 );
    for ( [[maybe_unused]] auto one : state )
        benchmark::DoNotOptimize( curl.perform().size() );
    ::curl_slist_free_all( headersPtr );
}
BENCHMARK( BM_HttpLogLine_Curl )->UseRealTime();
#endif

// ----------------------------------------------------------------------------- POCO

#ifdef NUV_PEER_POCO_NET
void BM_HttpGet_Poco( benchmark::State& state )
{
    Poco::Net::HTTPClientSession session( "127.0.0.1", WebServer::instance().port() );
    session.setKeepAlive( true );
    const NuvBench::PinScope pinned( 0 );
    Poco::Net::HTTPRequest request( "GET", pathOf( state ), "HTTP/1.1" );
    std::string body;
    for ( [[maybe_unused]] auto one : state ) {
        session.sendRequest( request );
        Poco::Net::HTTPResponse response;
        std::istream& stream = session.receiveResponse( response );
        body.resize( static_cast< std::size_t >( response.getContentLength() ) );
        stream.read( body.data(), static_cast< std::streamsize >( body.size() ) );
        if ( stream.gcount() != static_cast< std::streamsize >( body.size() ) )
            state.SkipWithError( "the body is cut short" );
    }
    checkSize( state, body.size() );
}
BENCHMARK( BM_HttpGet_Poco )->Arg( 1024 )->Arg( 1024 * 1024 )->UseRealTime();
#endif

} // namespace
