#include "nuvFuzz.h"
#include "nuvLinedFile.h"

#include <cstdio>
#include <memory>

// Lines that are read, joined again, are the bytes of the file; each but the last ends with its one
// line feed.
extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    const std::string content = NuvFuzz::text( dataPtr, nbrOfBytes );
    if ( content.empty() )
        return 0;
    const std::unique_ptr< std::FILE, int ( * )( std::FILE* ) > file(
        ::fmemopen( const_cast< char* >( content.data() ), content.size(), "r" ), &std::fclose );
    Nuv::Io::LinedFile::Lines lines;
    NuvFuzz::require( file && Nuv::Io::LinedFile::readFile( file.get(), &lines ) );
    std::string joined;
    for ( const auto& line : lines ) {
        NuvFuzz::require( !line.empty() && line.find( '\n' ) >= line.size() - 1 );
        joined += line;
    }
    NuvFuzz::require( joined == content );
    return 0;
}
