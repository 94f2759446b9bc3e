#include "nuvPipe.h"
#include "nuvPathname.h"
#include "nuvTestSupport.h"

#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace Nuv::Io {
namespace {

[[maybe_unused]] const bool ourCleanUp = std::atexit( &NuvTest::removeInterprocessObjects ) == 0;

class Pipes : public NuvTest::RootFixture
{
protected:
    static NuvTest::Start arguments( const char* whatPtr, const char* firstPtr = "",
                                     const char* secondPtr = "" )
    {
        return { { whatPtr, "test", firstPtr, secondPtr }, {} };
    }
    static void serve( int count )
    {
        ServerPipe pipe( "test" );
        serve( pipe, count );
    }
    static void serve( ServerPipe& pipe, int count )
    {
        pipe.connect();
        for ( int i = 0; i < count; ++i ) {
            Utils::Buffer message;
            pipe.readMsg( &message );
            pipe.writeMsg( message );
        }
        pipe.disconnect();
    }
    template < class Exception, class Call >
    static std::string textOf( Call&& call )
    {
        try {
            call();
        } catch ( const Exception& exception ) {
            return exception.what();
        }
        return "no exception";
    }
};

TEST_F( Pipes, MessagesGoBothWaysBetweenBothWidths )
{
    int nbrOfWidths = 0;
    for ( const int width : { 64, 32 } ) {
        const std::string peer = NuvTest::program( "pipePeer", width );
        if ( peer.empty() )
            continue;
        ++nbrOfWidths;
        for ( const char* sizePtr : { "0", "64", "65536", "1048576" } ) {
            SCOPED_TRACE( std::to_string( width ) + " bits, size " + sizePtr );
            NuvTest::ChildProcess client( peer, arguments( "echo", sizePtr, "3" ) );
            serve( 3 );
            const NuvTest::Outcome outcome = client.wait();
            EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.errors;
        }
    }
    EXPECT_GT( nbrOfWidths, 0 );
}

TEST_F( Pipes, AThousandRoundsLeaveTheHandshakeInStep )
{
    ServerPipe pipe( "test" );
    NuvTest::ChildProcess client( NuvTest::program( "pipePeer" ), arguments( "rounds", "1000" ) );
    for ( int i = 0; i < 1000; ++i ) {
        pipe.connect();
        pipe.disconnect();
    }
    EXPECT_EQ( 0, client.wait().exitStatus() );
    NuvTest::ChildProcess last( NuvTest::program( "pipePeer" ), arguments( "echo", "10", "1" ) );
    serve( pipe, 1 );
    EXPECT_EQ( 0, last.wait().exitStatus() );
}

TEST_F( Pipes, NameIsTakenWhileItsServerLivesAndFreeAfterwards )
{
    const std::string toServer = Pathname( Pathname::ipcDirectory, "pipe_toSrvr_test" ).str();
    const std::string fromServer = Pathname( Pathname::ipcDirectory, "pipe_fmSrvr_test" ).str();
    constexpr char inUse[] = "The specified Io::ServerPipe name is already in use.";
    {
        const ServerPipe first( "test" );
        struct stat status;
        ASSERT_EQ( 0, ::stat( toServer.c_str(), &status ) );
        EXPECT_TRUE( S_ISFIFO( status.st_mode ) );
        EXPECT_EQ( 0660u, status.st_mode & 07777u );
        EXPECT_EQ( inUse, textOf< ServerPipe::Exception >( [] { ServerPipe second( "test" ); } ) );
        EXPECT_EQ( 0, ::stat( toServer.c_str(), &status ) ); // the refused one removed nothing
    }
    EXPECT_NE( 0, ::access( toServer.c_str(), F_OK ) );
    ASSERT_EQ( 0, ::mkfifo( fromServer.c_str(), 0600 ) ); // only the second is taken
    EXPECT_EQ( inUse, textOf< ServerPipe::Exception >( [] { ServerPipe second( "test" ); } ) );
    EXPECT_NE( 0, ::access( toServer.c_str(), F_OK ) );
    ::unlink( fromServer.c_str() );
}

TEST_F( Pipes, ClientWithoutAServerTimesOut )
{
    ClientPipe client( "nobody" );
    for ( const bool quiet : { true, false } ) {
        EXPECT_EQ( "The connect to the specified Io::ClientPipe failed.",
                   textOf< ClientPipe::Exception >( [&] { client.connect( 5, quiet ); } ) );
    }
    Utils::Buffer message( "m" );
    EXPECT_EQ( "The write to the specified Io::ClientPipe failed.",
               textOf< ClientPipe::Exception >( [&] { client.writeMsg( message ); } ) );
    EXPECT_EQ( "The read from the specified Io::ServerPipe failed.",
               textOf< ClientPipe::Exception >( [&] { client.readMsg( &message, 1 ); } ) );
    client.disconnect(); // waits for nobody, and leaves nothing for a later server
    CtConfig::handshakeTimeoutMs = 300;
    ServerPipe pipe( "nobody" );
    NuvTest::ChildProcess next( NuvTest::program( "pipePeer" ),
                                { { "echo", "nobody", "5", "1" }, {} } );
    serve( pipe, 1 );
    EXPECT_EQ( 0, next.wait().exitStatus() );
}

// Whatever the client had done when it was killed, the server gets an error or a time-out, and
// serves the next client.
TEST_F( Pipes, ServerOutlivesAClientThatIsKilledAtAnyStep )
{
    CtConfig::handshakeTimeoutMs = 300;
    CtConfig::maxPipeReadWaitTimeInSec = 1;
    ServerPipe pipe( "test" );
    const struct
    {
        const char* whatPtr;
        const char* connectPtr;
        const char* readPtr;
    } cases[] = {
        { "clientDiesAfterPost", "The connect to the specified Io::ServerPipe failed.", nullptr },
        { "clientDiesAfterOpen", "The connect to the specified Io::ServerPipe failed.", nullptr },
        { "clientDiesConnected", "no exception", "Timed out while reading the size of the data" },
        { "clientDiesInFrame", "no exception", "Timed out while reading the size of the data" },
    };
    for ( const auto& entry : cases ) {
        SCOPED_TRACE( entry.whatPtr );
        NuvTest::ChildProcess client( NuvTest::program( "pipePeer" ), arguments( entry.whatPtr ) );
        EXPECT_EQ( entry.connectPtr, textOf< ServerPipe::Exception >( [&] { pipe.connect(); } ) );
        EXPECT_EQ( SIGKILL, client.wait().signal() );
        if ( entry.readPtr != nullptr ) {
            Utils::Buffer message;
            EXPECT_EQ( entry.readPtr,
                       textOf< PipeReadTimeoutException >( [&] { pipe.readMsg( &message ); } ) );
            pipe.disconnect();
        }
        NuvTest::ChildProcess next( NuvTest::program( "pipePeer" ), arguments( "echo", "5", "1" ) );
        // A killed client's posts may still stand: such a connect fails, and the one after works.
        while ( textOf< ServerPipe::Exception >( [&] { serve( pipe, 1 ); } ) != "no exception" ) {
        }
        EXPECT_EQ( 0, next.wait().exitStatus() );
    }
}

TEST_F( Pipes, ClientOutlivesAServerThatIsKilledAtAnyStep )
{
    CtConfig::handshakeTimeoutMs = 300;
    const struct
    {
        const char* whatPtr;
        const char* resultPtr;
    } cases[] = {
        { "serverDiesAfterPost", "The connect to the specified Io::ClientPipe failed." },
        { "serverDiesConnected", "Timed out while reading the size of the data" },
        { "serverDiesInAnswer", "Timed out while reading the size of the data" },
    };
    for ( const auto& entry : cases ) {
        SCOPED_TRACE( entry.whatPtr );
        NuvTest::ChildProcess server( NuvTest::program( "pipePeer" ), arguments( entry.whatPtr ) );
        EXPECT_EQ( "made", server.readLine() );
        ClientPipe client( "test" );
        std::string result;
        try {
            client.connect( 60000, false );
            Utils::Buffer answer;
            try {
                client.writeMsg( Utils::Buffer( "question" ) );
            } catch ( const ClientPipe::Exception& ) { // it may be gone already
            }
            client.readMsg( &answer, 1 );
        } catch ( const RuntimeException& exception ) {
            result = exception.what();
        }
        EXPECT_EQ( entry.resultPtr, result );
        EXPECT_EQ( SIGKILL, server.wait().signal() );
        // What the dead server left, as `nuvctl ipc repair` removes it.
        ::unlink( client.inPipeName().c_str() );
        ::unlink( client.outPipeName().c_str() );
    }
}

TEST_F( Pipes, StoppedServerWaitsForNobodyAnyMore )
{
    constexpr char noConnect[] = "The connect to the specified Io::ServerPipe failed.";
    constexpr char noRead[] = "The read from the specified Io::ServerPipe failed.";
    for ( const bool isConnected : { false, true } ) {
        SCOPED_TRACE( isConnected );
        ServerPipe pipe( "test" );
        ClientPipe client( "test" );
        std::thread clientThread( [&] {
            if ( isConnected )
                client.connect( 60000, false );
        } );
        if ( isConnected )
            pipe.connect();
        clientThread.join();
        std::thread stopper( [&] { pipe.stop(); } );
        Utils::Buffer message;
        if ( isConnected ) {
            EXPECT_EQ( noRead,
                       textOf< ServerPipe::Exception >( [&] { pipe.readMsg( &message ); } ) );
        } else {
            EXPECT_EQ( noConnect, textOf< ServerPipe::Exception >( [&] { pipe.connect(); } ) );
        }
        stopper.join();
        EXPECT_EQ( noConnect, textOf< ServerPipe::Exception >( [&] { pipe.connect(); } ) );
        EXPECT_THROW( ClientPipe( "test" ).connect( 0, true ), ClientPipe::Exception );
    }
}

TEST_F( Pipes, ServerStartsWithoutWhatADeadOneLeftInTheSemaphores )
{
    Mt::Semaphore server( "pipe_SrvrConnect_test", 0 );
    Mt::Semaphore clients( "pipe_ClntConnect_test", 0 );
    for ( int i = 0; i < 2; ++i ) {
        server.post();
        clients.post();
    }
    ServerPipe pipe( "test" );
    NuvTest::ChildProcess client( NuvTest::program( "pipePeer" ), arguments( "echo", "5", "1" ) );
    serve( pipe, 1 );
    EXPECT_EQ( 0, client.wait().exitStatus() );
}

TEST_F( Pipes, MainAppConfSetsTheReadTimeout )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        CtConfig::maxPipeReadWaitTimeInSec = 30;
        NuvTest::writeFile( Pathname( Pathname::rootDirectory, "etc/mainApp.conf" ).str(),
                            "[ControlTransaction]\nmaxWaitTimeForPipeRead = 7\n" );
        CtConfig::singletonPtr();
        EXPECT_EQ( 7u, CtConfig::maxPipeReadWaitTimeInSec );
    } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.output;
}

} // namespace
} // namespace Nuv::Io
