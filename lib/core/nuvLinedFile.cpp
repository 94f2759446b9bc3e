#include "nuvLinedFile.h"

#include "nuvLog.h"

#include <cstring>
#include <memory>

namespace Nuv::Io {

namespace {

struct Closer
{
    void operator()( std::FILE* filePtr ) const { std::fclose( filePtr ); }
};
using FilePtr = std::unique_ptr< std::FILE, Closer >;

FilePtr openFile( const Pathname& pathname, const char* modePtr )
{
    return FilePtr( pathname.isValid() ? std::fopen( pathname.cStr(), modePtr ) : nullptr );
}

bool writeLines( FilePtr file, const LinedFile::Lines& lines )
{
    if ( !file )
        return false;
    bool ok = true;
    for ( const Utils::String& line : lines ) {
        ok = std::fwrite( line.data(), 1, line.size(), file.get() ) == line.size() && ok;
    }
    return std::fclose( file.release() ) == 0 && ok;
}

} // namespace

bool LinedFile::readFile( const Pathname& pathname, Lines* linesPtr )
{
    const FilePtr file = openFile( pathname, "re" );
    if ( !file )
        return false;
    linesPtr->clear();
    return readFile( file.get(), linesPtr );
}

bool LinedFile::readFile( std::FILE* filePtr, Lines* linesPtr )
{
    char chunk[4096];
    Utils::String* openLinePtr = nullptr;
    while ( const std::size_t length = std::fread( chunk, 1, sizeof( chunk ), filePtr ) ) {
        for ( const char *ptr = chunk, *const endPtr = chunk + length; ptr != endPtr; ) {
            const auto* const feedPtr =
                static_cast< const char* >( std::memchr( ptr, '\n', endPtr - ptr ) );
            const char* const pieceEndPtr = feedPtr != nullptr ? feedPtr + 1 : endPtr;
            if ( openLinePtr == nullptr )
                openLinePtr = &linesPtr->emplace_back();
            openLinePtr->append( ptr, pieceEndPtr );
            if ( feedPtr != nullptr )
                openLinePtr = nullptr;
            ptr = pieceEndPtr;
        }
    }
    return true;
}

bool LinedFile::writeFile( const Pathname& pathname, const Lines* linesPtr )
{
    const std::uint32_t attributes =
        pathname.isValid() ? FileSystem::pathnameAttributes( pathname.str() ) : 0;
    const bool wasReadOnly = attributes != 0 && ( attributes & FileSystem::writeable ) == 0;
    if ( wasReadOnly &&
         !FileSystem::setPathnameAttributes( pathname.str(), FileSystem::writeable ) ) {
        nuvLogTo( Log::getStandardSource( Log::debug ) )
            << "Failed to set file, " << pathname.str() << ", to be writeable";
        return false;
    }
    const bool ok = writeLines( openFile( pathname, "we" ), *linesPtr );
    if ( wasReadOnly )
        FileSystem::clearPathnameAttributes( pathname.str(), FileSystem::writeable );
    return ok;
}

} // namespace Nuv::Io
