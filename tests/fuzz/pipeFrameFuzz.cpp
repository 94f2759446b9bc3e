#include "nuvFuzz.h"
#include "nuvPipeFrame.h"

#include <fcntl.h>
#include <unistd.h>

// Any bytes in the pipe: a frame, an error or a time-out, never more than the limit's memory; a
// frame that is accepted has the hash that came with it.
extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    using namespace Nuv::Io;
    static Nuv::Log::SourceSet sources( "IoPipe" );
    PipeFrame::maxDataSize( 1 << 16 );
    int fds[2];
    if ( nbrOfBytes > 60000 || ::pipe2( fds, O_CLOEXEC | O_NONBLOCK ) != 0 )
        return 0;
    const Nuv::Utils::Handle readEnd( fds[0] );
    Nuv::Utils::Handle writeEnd( fds[1] );
    if ( ::write( writeEnd, dataPtr, nbrOfBytes ) != static_cast< ssize_t >( nbrOfBytes ) )
        return 0;
    PipeFrame frame( "ServerPipe", &sources );
    Nuv::Utils::Buffer data;
    try {
        while ( frame.read( readEnd, "P", &data, 0, PipeFrame::Patience::fromStart ) )
            NuvFuzz::require( data.size() <= nbrOfBytes );
    } catch ( const PipeReadTimeoutException& ) {
    } catch ( const PipeDataValidationException& ) {
    }
    return 0;
}
