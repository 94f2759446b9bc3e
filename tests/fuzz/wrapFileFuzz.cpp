// A wrap-around file as another program, a fault or an attacker left it: it is continued within its
// limit, the message that is written is found again, and reading ends.
//
// The first two bytes of the input are the limit.

#include "nuvFuzz.h"
#include "nuvLogFile.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace Nuv;
using NuvFuzz::require;

namespace {

// In memory, for each process of a fuzz run its own.
const std::string ourPathname = "/dev/shm/wrapFileFuzz." + std::to_string( ::getpid() );

std::uint64_t fileSize()
{
    return std::filesystem::file_size( ourPathname );
}

/// @return the last line; each byte of the file is given at most once
std::string readAll( Log::LogFileReader& reader )
{
    std::uint64_t sum = 0;
    std::string last;
    for ( std::string line; reader.readLine( &line ); last = line )
        sum += line.size();
    require( sum <= fileSize() );
    return last;
}

void writeAndRead( std::uint64_t maxSize )
{
    const std::string message = "the new message";
    Log::LogFileWriter writer;
    require( writer.open( ourPathname, maxSize ) );
    require( maxSize == 0 || writer.position() <= maxSize );
    require( writer.write( message ) );
    Log::LogFileWriter next;
    require( next.open( ourPathname, maxSize ) );
    if ( maxSize != 0 && fileSize() <= maxSize + Log::LogFileWriter::nbrOfToleratedBytes )
        require( next.position() == writer.position() );
    if ( maxSize == 0 || writer.position() == 0 )
        return;
    Log::LogFileReader reader( ourPathname, maxSize );
    require( readAll( reader ).ends_with( message ) );
    require( writer.write( "a later one" ) );
    if ( writer.position() != 0 )
        require( readAll( reader ) == "a later one" );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* dataPtr, size_t nbrOfBytes )
{
    if ( nbrOfBytes < 2 )
        return 0;
    const std::uint64_t maxSize = dataPtr[0] + dataPtr[1] * 256u;
    std::ofstream( ourPathname, std::ios::binary ) << NuvFuzz::text( dataPtr + 2, nbrOfBytes - 2 );
    Log::LogFileReader reader( ourPathname, maxSize );
    readAll( reader );
    writeAndRead( maxSize );
    ::unlink( ourPathname.c_str() );
    return 0;
}
