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
    pipe.connect( timeoutMs, false );
    writeHalfAFrame( pipe.outPipeName() ); // clientDiesInFrame
    die();
}

[[noreturn]] void dieInAnswer( const char* namePtr )
{
    Io::ServerPipe pipe( namePtr );
    std::cout << "made" << std::endl;
    pipe.connect();
    Utils::Buffer message;
    pipe.readMsg( &message );
    writeHalfAFrame( pipe.outPipeName() );
    die();
}

} // namespace

int main( int argc, char** argv )
{
    if ( argc < 5 )
        return 2;
    const std::string what = argv[1];
    try {
        if ( what == "serverDiesInAnswer" )
            dieInAnswer( argv[2] );
        client( what, argv[2], std::strtoul( argv[3], nullptr, 10 ), std::atoi( argv[4] ) );
        return 0;
    } catch ( const RuntimeException& exception ) {
        std::cerr << exception.what() << std::endl;
    } catch ( const FixedTextException& exception ) {
        std::cerr << exception.what() << std::endl;
    }
    return 1;
}
