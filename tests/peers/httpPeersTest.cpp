// The HTTP client and the log drain's request against two web servers with a CGI program.

#include "nuvHttpRequest.h"
#include "nuvLogHttp.h"

#include "nuvTestInterprocess.h"

#include <memory>
#include <sstream>
#include <utility>

using namespace Nuv::Net;
using NuvTest::ChildProcess;
using NuvTest::readFile;
using NuvTest::writeFile;

namespace {

const std::string ourExample = NUV_SOURCE_FOLDER "/examples/ruleServer/";

class HttpPeers : public NuvTest::RootFixture, public ::testing::WithParamInterface< const char* >
{
protected:
    void SetUp() override
    {
        const bool isNginx = std::string( GetParam() ) == "nginx";
        for ( const char* namePtr : { GetParam(), isNginx ? "fcgiwrap" : "bash" } ) {
            const std::string command =
                std::string( "PATH=$PATH:/usr/sbin; command -v " ) + namePtr;
            if ( NuvTest::runProgram( "/bin/sh", { { "-c", command }, {} } ).exitStatus() != 0 )
                GTEST_SKIP() << namePtr << " is not installed";
        }
        for ( unsigned int i = 0; i < 3000000; ++i )
            myLarge += static_cast< char >( i * i >> 7 );
        writeFile( folder( "files/small" ), "small" );
        writeFile( folder( "files/large" ), myLarge );
        isNginx ? startNginx() : startLighttpd();
        ASSERT_TRUE( NuvTest::waitFor( [this] { return connect() != nullptr; } ) );
    }
    // Servers inherit the blocked signals of this process.
    void TearDown() override
    {
        NuvTest::runProgram( "/bin/sh",
                             { { "-c", "kill -KILL $(cat " + folder( "*.pid" ) + ")" }, {} } );
    }

    void startNginx()
    {
        const NuvTest::Outcome outcome =
            NuvTest::runProgram( ourExample + "ruleServer", { { "start", folder( "" ) }, {} } );
        ASSERT_EQ( 0, outcome.exitStatus() ) << outcome.errors;
        myPort = static_cast< std::uint16_t >( std::stoi( readFile( folder( "port" ) ) ) );
    }
    void startLighttpd()
    {
        Nuv::Utils::Ptr< IpAddress > freePtr;
        TcpSocket socket( AF_INET, SOCK_STREAM, 0 );
        socket.bind( IpV4Address( 0, 0x7F000001u ) );
        socket.getLocalAddr( &freePtr );
        socket.close();
        myPort = freePtr->port();
        writeFile( folder( "files/cgi-bin/sys-server" ), readFile( ourExample + "sys-server" ) );
        writeFile( folder( "conf" ), "server.stat-cache-engine = \"disable\"\nmimetype.assign = ( "
                                     "\"\" => \"text/plain\" )\nserver.modules = ( "
                                     "\"mod_setenv\", \"mod_cgi\" )\nserver.bind = \"127.0.0.1\"\n"
                                     "server.port = " +
                                         std::to_string( myPort ) + "\nserver.document-root = \"" +
                                         folder( "files" ) +
                                         "\"\ncgi.assign = ( \"sys-server\" => \"/bin/bash\" )\n"
                                         "setenv.set-environment = ( \"RECEIVED\" => \"" +
                                         folder( "received" ) + "\" )\n" );
        myServerPtr = std::make_unique< ChildProcess >(
            "/usr/sbin/lighttpd", NuvTest::Start{ { "-D", "-f", folder( "conf" ) }, {} } );
    }

    std::string folder( const std::string& name ) const { return myFolder.path( name ); }
    IpV4Address address() const { return IpV4Address( myPort, 0x7F000001u ); }
    std::unique_ptr< TcpConnectionStream > connect() const
    {
        try {
            return std::unique_ptr< TcpConnectionStream >(
                HttpRequest::createTcpRequestConnectionStream( address(), 4096, 16384, 2000 ) );
        } catch ( const SocketException& ) {
            return nullptr;
        }
    }

    NuvTest::TemporaryFolder myFolder;
    std::string myLarge;
    std::uint16_t myPort = 0;
    std::unique_ptr< ChildProcess > myServerPtr;
};

/// Closes the connection when a million bytes have come.
struct CuttingBuf : public std::stringbuf
{
    std::streamsize xsputn( const char* ptr, std::streamsize count ) override
    {
        const std::streamsize n = std::stringbuf::xsputn( ptr, count );
        if ( connectionPtr != nullptr && pptr() - pbase() >= 1000000 )
            std::exchange( connectionPtr, nullptr )->close();
        return n;
    }
    ConnectionStream* connectionPtr = nullptr;
};

TEST_P( HttpPeers, FilesOverOneConnectionAndWhatHasNotChanged )
{
    const auto connection = connect();
    HttpGetRequest get( connection.get() );
    get.readIdleTimeoutInSeconds( 20 );
    for ( const auto& [uri, content] : { std::pair< const char*, std::string >( "/small", "small" ),
                                         { "/large", myLarge },
                                         { "/small?again", "small" } } ) {
        EXPECT_TRUE( get.issue( uri, nullptr )->bodyBuffer().view() == content ) << uri;
        EXPECT_EQ( 200, get.response().statusCode() ) << uri;
    }
    const std::string modified = get.response().headerMap().at( Http::headerLastModified );
    EXPECT_EQ( 404, get.issue( "/nothing", nullptr )->statusCode() );
    get.headerMap()[Http::headerIfModifiedSince] = modified;
    get.headerMap()[Http::headerConnection] = "close";
    EXPECT_EQ( 304, get.issue( "/small", nullptr )->statusCode() );
    EXPECT_EQ( 0u, get.response().bodyBuffer().size() );
}

TEST_P( HttpPeers, ADownloadGoesOnWhereItWasBrokenOffUnlessTheFileIsAnother )
{
    for ( const bool isChanged : { false, true } ) {
        SCOPED_TRACE( isChanged );
        const auto first = connect();
        const auto second = connect();
        HttpGetRequest get( first.get() );
        get.stopAtContentLength( true );
        get.readIdleTimeoutInSeconds( 20 );
        CuttingBuf buf;
        buf.connectionPtr = first.get();
        std::ostream output( &buf );
        EXPECT_THROW( get.issue( "/large", &output ), Http::Exception );
        EXPECT_GE( get.receivedResponseSize(), 1000000u );
        EXPECT_LT( get.receivedResponseSize(), myLarge.size() );
        if ( isChanged ) {
            writeFile( folder( "files/large" ), myLarge + "more" );
            EXPECT_THROW( get.resume( second.get(), &output ), Http::Exception );
            EXPECT_EQ( 200, get.response().statusCode() );
        } else {
            EXPECT_EQ( 206, get.resume( second.get(), &output )->statusCode() );
            EXPECT_TRUE( buf.str() == myLarge );
        }
    }
}

TEST_P( HttpPeers, TheCgiProgramGetsWhatTheDrainPosts )
{
    Nuv::Log::HttpPoster poster( address() );
    const std::string all( "50 % of \"a&b\" \\n\xE4", 17 );
    EXPECT_TRUE( poster.post( Nuv::Log::error, Nuv::Utils::Buffer( all ), "a/b c&d=\xE4%41+" ) );
    EXPECT_TRUE( poster.post( Nuv::Log::debug, Nuv::Utils::Buffer( "" ), "z" ) );
    EXPECT_EQ( "E a/b c&d=\xE4%41+ " + all + "\nD z \n", readFile( folder( "received" ) ) );
    const auto connection = connect();
    HttpPostRequest post( connection.get() );
    post.variables().emplace( "f", "other" );
    EXPECT_EQ( 400, post.issue( "/cgi-bin/sys-server", Nuv::Utils::Buffer( "x" ) )->statusCode() );
}

INSTANTIATE_TEST_SUITE_P(, HttpPeers, ::testing::Values( "nginx", "lighttpd" ) );

} // namespace
