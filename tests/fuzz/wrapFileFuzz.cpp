// A wrap-around file as another program, a fault or an attacker left it: it is continued within its
// limit, the message that is written is found again, and reading ends.
//
// The first two bytes of the input are the limit.

#include "nuvLogFile.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace Nuv;

namespace {

void require( bool condition )
{
    if ( !condition )
        std::abort();
}

const std::string& pathname()
{
    static const std::string ourPathname =
        ( ::access( "/dev/shm", W_OK ) == 0 ? "/dev/shm/wrapFileFuzz." : "/tmp/wrapFileFuzz." ) +
        std::to_string( ::getpid() );
    return ourPathname;
}

void put( const char* bytesPtr, std::size_t nbrOfBytes )
{
    std::FILE* const filePtr = std::fopen( pathname().c_str(), "w" );
    require( filePtr != nullptr );
    require( std::fwrite( bytesPtr, 1, nbrOfBytes, filePtr ) == nbrOfBytes );
    require( std::fclose( filePtr ) == 0 );
}

std::uint64_t size()
{
    struct stat status;
    require( ::stat( pathname().c_str(), &status ) == 0 );
    return static_cast< std::uint64_t >( status.st_size );
}

/// @return the last line; each byte of the file is given at most once
std::string readAll( Log::LogFileReader& reader, std::uint64_t nbrOfBytes )
{
    std::string line;
    std::string last;
    std::uint64_t sum = 0;
    while ( reader.readLine( &line ) ) {
        sum += line.size();
        last = line;
    }
    require( sum <= nbrOfBytes );
    return last;
}

void writeAndRead( std::uint64_t maxSize )
{
    const std::string message = "the new message";
    Log::LogFileWriter writer;
    require( writer.open( pathname(), maxSize ) );
    require( maxSize == 0 || writer.position() <= maxSize );
    require( writer.write( message ) );
    Log::LogFileWriter next;
    require( next.open( pathname(), maxSize ) );
    if ( maxSize != 0 && size() <= maxSize + Log::LogFileWriter::nbrOfToleratedBytes )
        require( next.position() == writer.position() );
    if ( maxSize == 0 || writer.position() == 0 )
        return;
    Log::LogFileReader reader( pathname(), maxSize );
    require( readAll( reader, size() ).ends_with( message ) );
    require( writer.write( "a later one" ) );
    if ( writer.position() != 0 )
        require( readAll( reader, size() ) == "a later one" );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* dataPtr, size_t nbrOfBytes )
{
    if ( nbrOfBytes < 2 )
        return 0;
    const std::uint64_t maxSize = dataPtr[0] + dataPtr[1] * 256u;
    put( reinterpret_cast< const char* >( dataPtr ) + 2, nbrOfBytes - 2 );
    {
        Log::LogFileReader reader( pathname(), maxSize );
        readAll( reader, nbrOfBytes );
    }
    writeAndRead( maxSize );
    ::unlink( pathname().c_str() );
    return 0;
}
