#include "nuvLinedFile.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

// Lines that are read, joined again, are the bytes of the file; each but the last ends with its one
// line feed.
extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    const std::string content( reinterpret_cast< const char* >( dataPtr ), nbrOfBytes );
    if ( content.empty() )
        return 0;
    const std::unique_ptr< std::FILE, int ( * )( std::FILE* ) > file(
        ::fmemopen( const_cast< char* >( content.data() ), content.size(), "r" ), &std::fclose );
    Nuv::Io::LinedFile::Lines lines;
    if ( !file || !Nuv::Io::LinedFile::readFile( file.get(), &lines ) )
        std::abort();
    std::string joined;
    for ( const auto& line : lines ) {
        if ( line.empty() || line.find( '\n' ) < line.size() - 1 )
            std::abort();
        joined += line;
    }
    if ( joined != content )
        std::abort();
    return 0;
}
