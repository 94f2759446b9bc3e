#include "nuvPipe.h"
#include "nuvPathname.h"
#include "nuvTestSupport.h"

#include <csignal>
#include <cstdlib>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace Nuv::Io {
namespace {

[[maybe_unused]] const bool ourCleanUp = std::atexit( &NuvTest::removeInterprocessObjects ) == 0;

// The other side, see programs/pipePeer.cpp.
class Peer : public NuvTest::ChildProcess
{
public:
    explicit Peer( const std::string& what, const std::string& size = "",
                   const std::string& count = "",
                   const std::string& path = NuvTest::program( "pipePeer" ) )
        : ChildProcess( path, { { what, "test", size, count }, {} } )
    {
    }
    void expectSuccess()
    {
        const NuvTest::Outcome outcome = wait();
        EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.errors;
    }
};

class Pipes : public NuvTest::RootFixture
{
protected:
    Pipes() { CtConfig::handshakeTimeoutMs = 60000; }

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
    // @return the exception's text, "" if there is none
    template < class Call >
    static std::string failureOf( const Call& call )
    {
        return NuvTest::textOf< RuntimeException >( call );
    }

    static constexpr char clientFailure[] = "The connect to the specified Io::ClientPipe failed.";
    static constexpr char serverFailure[] = "The connect to the specified Io::ServerPipe failed.";
    static constexpr char timeout[] = "Timed out while reading the size of the data";
};

TEST_F( Pipes, MessagesGoBothWaysBetweenBothWidths )
{
    for ( const int width : { 64, 32 } ) {
        for ( const char* sizePtr : { "0", "64", "65536", "1048576" } ) {
            SCOPED_TRACE( std::to_string( width ) + " bits, size " + sizePtr );
            const std::string path = NuvTest::program( "pipePeer", width );
            NUV_SKIP_WITHOUT( path );
            ServerPipe pipe( "test" );
            Peer client( "echo", sizePtr, "3", path );
            serve( pipe, 3 );
            client.expectSuccess();
        }
    }
}

TEST_F( Pipes, AThousandRoundsLeaveTheHandshakeInStep )
{
    ServerPipe pipe( "test" );
    Peer client( "rounds", "", "1000" );
    for ( int i = 0; i < 1000; ++i ) {
        pipe.connect();
        pipe.disconnect();
    }
    client.expectSuccess();
    Peer last( "echo", "10", "1" );
    serve( pipe, 1 );
    last.expectSuccess();
}

TEST_F( Pipes, ClientsThatContendAreServedOneAfterTheOther )
{
    CtConfig::handshakeTimeoutMs = 5000;
    ServerPipe pipe( "test" );
    Peer first( "rounds", "", "150" );
    Peer second( "rounds", "", "150" );
    Peer third( "rounds", "", "150" );
    std::string failure;
    for ( int i = 0; i < 450 && failure.empty(); ++i ) {
        failure = failureOf( [&] { pipe.connect(); } );
        pipe.disconnect();
    }
    EXPECT_EQ( "", failure );
    first.expectSuccess();
    second.expectSuccess();
    third.expectSuccess();
}

TEST_F( Pipes, NameIsTakenWhileItsServerLivesAndFreeAfterwards )
{
    const std::string toServer = Pathname( Pathname::ipcDirectory, "pipe_toSrvr_test" ).str();
    const std::string fromServer = Pathname( Pathname::ipcDirectory, "pipe_fmSrvr_test" ).str();
    constexpr char inUse[] = "The specified Io::ServerPipe name is already in use.";
    {
        const ServerPipe first( "test" );
        EXPECT_EQ( inUse, failureOf( [] { ServerPipe second( "test" ); } ) );
        struct stat status; // the refused one removed nothing
        ASSERT_EQ( 0, ::stat( toServer.c_str(), &status ) );
        EXPECT_EQ( S_IFIFO | 0660u, status.st_mode );
    }
    EXPECT_NE( 0, ::access( toServer.c_str(), F_OK ) );
    ASSERT_EQ( 0, ::mkfifo( fromServer.c_str(), 0600 ) ); // only the second is taken
    EXPECT_EQ( inUse, failureOf( [] { ServerPipe second( "test" ); } ) );
    EXPECT_NE( 0, ::access( toServer.c_str(), F_OK ) );
    ::unlink( fromServer.c_str() );
}

TEST_F( Pipes, ClientWithoutAServerTimesOut )
{
    ClientPipe client( "test" );
    for ( const bool quiet : { true, false } ) {
        EXPECT_EQ( clientFailure, failureOf( [&] { client.connect( 5, quiet ); } ) );
    }
    Utils::Buffer message( "m" );
    EXPECT_EQ( "The write to the specified Io::ClientPipe failed.",
               failureOf( [&] { client.writeMsg( message ); } ) );
    EXPECT_EQ( "The read from the specified Io::ServerPipe failed.",
               failureOf( [&] { client.readMsg( &message, 1 ); } ) );
    client.disconnect(); // waits for nobody, and leaves nothing for a later server
    CtConfig::handshakeTimeoutMs = 300;
    ServerPipe pipe( "test" );
    Peer next( "echo", "5", "1" );
    serve( pipe, 1 );
    next.expectSuccess();
}

// At every other step nuvIpcCrashStatesTest kills them.
TEST_F( Pipes, ServerOutlivesAClientThatIsKilledInAFrame )
{
    CtConfig::handshakeTimeoutMs = 300;
    CtConfig::maxPipeReadWaitTimeInSec = 1;
    ServerPipe pipe( "test" );
    Peer client( "clientDiesInFrame" );
    EXPECT_EQ( timeout, failureOf( [&] { serve( pipe, 1 ); } ) );
    EXPECT_EQ( SIGKILL, client.wait().signal() );
    pipe.disconnect();
    Peer next( "echo", "5", "1" );
    // A killed client's posts may still stand: such a connect fails, and the one after works.
    while ( !failureOf( [&] { serve( pipe, 1 ); } ).empty() ) {
    }
    next.expectSuccess();
}

TEST_F( Pipes, ClientOutlivesAServerThatIsKilledInItsAnswer )
{
    CtConfig::handshakeTimeoutMs = 300;
    Peer server( "serverDiesInAnswer" );
    EXPECT_EQ( "made", server.readLine() );
    ClientPipe client( "test" );
    Utils::Buffer message( "question" );
    client.connect( 60000, false );
    client.writeMsg( message );
    EXPECT_EQ( timeout, failureOf( [&] { client.readMsg( &message, 1 ); } ) );
    EXPECT_EQ( SIGKILL, server.wait().signal() );
    // What the dead server left, as `nuvctl ipc repair` removes it.
    ::unlink( client.inPipeName().c_str() );
    ::unlink( client.outPipeName().c_str() );
}

TEST_F( Pipes, StoppedServerWaitsForNobodyAnyMore )
{
    for ( const bool isConnected : { false, true } ) {
        SCOPED_TRACE( isConnected );
        ServerPipe pipe( "test" );
        ClientPipe client( "test" );
        if ( isConnected ) {
            std::thread clientThread( [&] { client.connect( 60000, false ); } );
            pipe.connect();
            clientThread.join();
        }
        std::thread stopper( [&] { pipe.stop(); } );
        Utils::Buffer message;
        if ( isConnected ) {
            EXPECT_EQ( "The read from the specified Io::ServerPipe failed.",
                       failureOf( [&] { pipe.readMsg( &message ); } ) );
        } else {
            EXPECT_EQ( serverFailure, failureOf( [&] { pipe.connect(); } ) );
        }
        stopper.join();
        EXPECT_EQ( serverFailure, failureOf( [&] { pipe.connect(); } ) );
        EXPECT_EQ( clientFailure, failureOf( [] { ClientPipe( "test" ).connect( 0, true ); } ) );
    }
}

TEST_F( Pipes, ServerStartsWithoutWhatADeadOneLeftInTheSemaphores )
{
    Mt::Semaphore server( "pipe_SrvrConnect_test", 2 ), clients( "pipe_ClntConnect_test", 2 );
    ServerPipe pipe( "test" );
    Peer client( "echo", "5", "1" );
    serve( pipe, 1 );
    client.expectSuccess();
}

TEST_F( Pipes, MainAppConfSetsTheReadTimeout )
{
    NuvTest::writeFile( Pathname( Pathname::rootDirectory, "etc/mainApp.conf" ).str(),
                        "[ControlTransaction]\nmaxWaitTimeForPipeRead = 7\n" );
    CtConfig::singletonPtr();
    EXPECT_EQ( 7u, CtConfig::maxPipeReadWaitTimeInSec );
}

} // namespace
} // namespace Nuv::Io
