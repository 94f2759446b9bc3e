#include "nuvPipe.h"

#include "nuvBenchProcess.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <sys/socket.h>
#include <sys/uio.h>
#include <vector>

namespace {

using Nuv::Utils::Buffer;

const NuvBench::Root ourRoot;

/// Our client, and a server process that sends every message back.
class PipePair
{
public:
    PipePair()
        : myServer( [] {
            Nuv::Io::ServerPipe server( "bench" );
            server.connect();
            for ( Buffer message;; ) {
                server.readMsg( &message );
                server.writeMsg( message );
            }
        } )
        , myClient( "bench" )
    {
        myClient.connect( 10000, false );
    }

    void send( const Buffer& message ) { myClient.writeMsg( message ); }
    void receive( Buffer* messagePtr ) { myClient.readMsg( messagePtr, 30 ); }

private:
    const NuvBench::OtherSide myServer;
    Nuv::Io::ClientPipe myClient;
};

/// The peer: the size, then the data, in one writev().
class SocketPair
{
public:
    SocketPair()
        : myFds()
        , myIsOpen( ::socketpair( AF_UNIX, SOCK_STREAM, 0, myFds ) == 0 )
        , myServer( [this] {
            for ( std::vector< char > message;; ) {
                receive( myFds[1], &message );
                send( myFds[1], message );
            }
        } )
    {
    }
    ~SocketPair()
    {
        ::close( myFds[0] );
        ::close( myFds[1] );
    }

    void send( const std::vector< char >& message ) { send( myFds[0], message ); }
    void receive( std::vector< char >* messagePtr ) { receive( myFds[0], messagePtr ); }

private:
    // A short write would leave the other side waiting; blocking sockets make none.
    static void send( int fd, const std::vector< char >& message )
    {
        auto size = static_cast< std::uint32_t >( message.size() );
        const iovec parts[2] = { { &size, sizeof( size ) },
                                 { const_cast< char* >( message.data() ), message.size() } };
        if ( ::writev( fd, parts, 2 ) != static_cast< ssize_t >( sizeof( size ) + size ) )
            std::abort();
    }
    static void receive( int fd, std::vector< char >* messagePtr )
    {
        std::uint32_t size = 0;
        readAll( fd, reinterpret_cast< char* >( &size ), sizeof( size ) );
        messagePtr->resize( size );
        readAll( fd, messagePtr->data(), size );
    }
    static void readAll( int fd, char* ptr, std::size_t length )
    {
        while ( length > 0 ) {
            const ssize_t n = ::read( fd, ptr, length );
            if ( n <= 0 )
                std::abort();
            ptr += n;
            length -= static_cast< std::size_t >( n );
        }
    }

    int myFds[2];
    bool myIsOpen;
    const NuvBench::OtherSide myServer;
};

template < class Pair, class Message >
void roundTrip( benchmark::State& state )
{
    static Pair ourPair;
    const NuvBench::PinScope pinned( 0 );
    const Message message( static_cast< std::size_t >( state.range( 0 ) ), 'x' );
    Message answer;
    for ( auto _ : state ) {
        ourPair.send( message );
        ourPair.receive( &answer );
    }
    if ( answer.size() != message.size() )
        state.SkipWithError( "the answer is not the message" );
}

void BM_PipeRoundTrip( benchmark::State& state )
{
    roundTrip< PipePair, Buffer >( state );
}
BENCHMARK( BM_PipeRoundTrip )->Arg( 64 )->Arg( 65536 )->UseRealTime();

void BM_PipeRoundTrip_Socket( benchmark::State& state )
{
    roundTrip< SocketPair, std::vector< char > >( state );
}
BENCHMARK( BM_PipeRoundTrip_Socket )->Arg( 64 )->Arg( 65536 )->UseRealTime();

} // namespace
