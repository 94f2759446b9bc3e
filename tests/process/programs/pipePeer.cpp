// The other side of a pipe, for nuvPipeTest: pipePeer WHAT NAME [ARGUMENTS]. Ends with 0 if all
// went as it should, or by SIGKILL at the step that WHAT names.
#include "nuvPathname.h"
#include "nuvPipe.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <string>
#include <unistd.h>

using namespace Nuv;

namespace {

constexpr unsigned int timeoutMs = 30000;
constexpr unsigned int timeoutSec = 30;

[[noreturn]] void die()
{
    ::kill( ::getpid(), SIGKILL );
    std::abort();
}

Utils::Buffer pattern( std::size_t size )
{
    Utils::Buffer buffer( size, 'x' );
    for ( std::size_t i = 0; i < size; ++i ) {
        buffer[i] = static_cast< char >( i * 7 + size );
    }
    return buffer;
}

// Sends messages of the size and expects each back.
int echo( Io::ClientPipe& pipe, std::size_t size, int count )
{
    pipe.connect( timeoutMs, false );
    const Utils::Buffer message = pattern( size );
    for ( int i = 0; i < count; ++i ) {
        Utils::Buffer answer;
        pipe.writeMsg( message );
        pipe.readMsg( &answer, timeoutSec );
        if ( !( answer == message ) )
            return 1;
    }
    pipe.disconnect();
    return 0;
}

void serve( Io::ServerPipe& pipe, int count )
{
    pipe.connect();
    for ( int i = 0; i < count; ++i ) {
        Utils::Buffer message;
        pipe.readMsg( &message );
        pipe.writeMsg( message );
    }
    pipe.disconnect();
}

int client( const std::string& what, const char* namePtr, char** argv )
{
    Io::ClientPipe pipe( namePtr );
    if ( what == "echo" )
        return echo( pipe, std::strtoul( argv[3], nullptr, 10 ), std::atoi( argv[4] ) );
    if ( what == "rounds" ) {
        for ( int i = std::atoi( argv[3] ); i > 0; --i ) {
            pipe.connect( timeoutMs, false );
            pipe.disconnect();
        }
        return 0;
    }
    Mt::Semaphore server( std::string( "pipe_SrvrConnect_" ) + namePtr, 0 );
    Mt::Semaphore clients( std::string( "pipe_ClntConnect_" ) + namePtr, 0 );
    if ( what == "clientDiesAfterPost" || what == "clientDiesAfterOpen" ) {
        if ( !server.peek( timeoutMs ) )
            return 1;
        clients.post();
        while ( what == "clientDiesAfterOpen" &&
                ::open( pipe.outPipeName().c_str(), O_WRONLY | O_NONBLOCK ) < 0 ) {
            ::usleep( 500 );
        }
        die();
    }
    pipe.connect( timeoutMs, false );
    if ( what == "clientDiesInFrame" ) {
        const int fd = ::open( pipe.outPipeName().c_str(), O_WRONLY | O_NONBLOCK );
        if ( ::write( fd, "\x02\0\0\0\xFD", 5 ) != 5 )
            return 1;
    }
    die(); // clientDiesConnected too
}

int server( const std::string& what, const char* namePtr, char** argv )
{
    Io::ServerPipe pipe( namePtr );
    std::cout << "made" << std::endl;
    if ( what == "serve" ) {
        for ( int i = std::atoi( argv[4] ); i > 0; --i ) {
            serve( pipe, std::atoi( argv[3] ) );
        }
        return 0;
    }
    if ( what == "serverDiesAfterPost" ) {
        Mt::Semaphore( std::string( "pipe_SrvrConnect_" ) + namePtr, 0 ).post();
        die();
    }
    pipe.connect();
    if ( what == "serverDiesInAnswer" ) {
        Utils::Buffer message;
        pipe.readMsg( &message );
        const int fd = ::open( pipe.outPipeName().c_str(), O_WRONLY | O_NONBLOCK );
        if ( ::write( fd, "\x02\0\0\0\xFD", 5 ) != 5 )
            return 1;
    }
    die(); // serverDiesConnected too
}

} // namespace

int main( int argc, char** argv )
{
    if ( argc < 3 )
        return 2;
    const std::string what = argv[1];
    try {
        return what.rfind( "serve", 0 ) == 0 ? server( what, argv[2], argv )
                                             : client( what, argv[2], argv );
    } catch ( const RuntimeException& exception ) {
        std::cerr << exception.what() << std::endl;
    } catch ( const FixedTextException& exception ) {
        std::cerr << exception.what() << std::endl;
    }
    return 1;
}
