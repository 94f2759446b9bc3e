// The other side of a pipe, for nuvPipeTest: pipePeer WHAT NAME SIZE COUNT. Ends with 0 if all
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

void expect( bool isTrue )
{
    if ( !isTrue )
        throw RuntimeException( "went wrong", 0, 0 );
}

void writeHalfAFrame( const std::string& pathname )
{
    const int fd = ::open( pathname.c_str(), O_WRONLY | O_NONBLOCK );
    expect( ::write( fd, "\x02\0\0\0\xFD", 5 ) == 5 );
}

// Sends messages of the size and expects each back.
void echo( Io::ClientPipe& pipe, std::size_t size, int count )
{
    pipe.connect( timeoutMs, false );
    const Utils::Buffer message = pattern( size );
    for ( ; count > 0; --count ) {
        Utils::Buffer answer;
        pipe.writeMsg( message );
        pipe.readMsg( &answer, timeoutSec );
        expect( answer == message );
    }
    pipe.disconnect();
}

void client( const std::string& what, const char* namePtr, std::size_t size, int count )
{
    Io::ClientPipe pipe( namePtr );
    if ( what == "echo" )
        return echo( pipe, size, count );
    for ( ; what == "rounds" && count > 0; --count ) {
        pipe.connect( timeoutMs, false );
        pipe.disconnect();
    }
    if ( what == "rounds" )
        return;
    Mt::Semaphore server( std::string( "pipe_SrvrConnect_" ) + namePtr, 0 );
    Mt::Semaphore clients( std::string( "pipe_ClntConnect_" ) + namePtr, 0 );
    if ( what == "clientDiesAfterPost" || what == "clientDiesAfterOpen" ) {
        expect( server.peek( timeoutMs ) );
        clients.post();
        while ( what == "clientDiesAfterOpen" &&
                ::open( pipe.outPipeName().c_str(), O_WRONLY | O_NONBLOCK ) < 0 ) {
            ::usleep( 500 );
        }
        die();
    }
    pipe.connect( timeoutMs, false );
    if ( what == "clientDiesInFrame" )
        writeHalfAFrame( pipe.outPipeName() );
    die(); // clientDiesConnected too
}

[[noreturn]] void server( const std::string& what, const char* namePtr )
{
    Io::ServerPipe pipe( namePtr );
    std::cout << "made" << std::endl;
    if ( what == "serverDiesAfterPost" ) {
        Mt::Semaphore( std::string( "pipe_SrvrConnect_" ) + namePtr, 0 ).post();
        die();
    }
    pipe.connect();
    if ( what == "serverDiesInAnswer" ) {
        Utils::Buffer message;
        pipe.readMsg( &message );
        writeHalfAFrame( pipe.outPipeName() );
    }
    die(); // serverDiesConnected too
}

} // namespace

int main( int argc, char** argv )
{
    if ( argc < 5 )
        return 2;
    const std::string what = argv[1];
    try {
        if ( what.rfind( "serve", 0 ) == 0 )
            server( what, argv[2] );
        client( what, argv[2], std::strtoul( argv[3], nullptr, 10 ), std::atoi( argv[4] ) );
        return 0;
    } catch ( const RuntimeException& exception ) {
        std::cerr << exception.what() << std::endl;
    } catch ( const FixedTextException& exception ) {
        std::cerr << exception.what() << std::endl;
    }
    return 1;
}
