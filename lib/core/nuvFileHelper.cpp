#include "nuvFileHelper.h"

#include "nuvUtils.h"

#include <algorithm>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace Nuv::Io {

namespace {

// One system call takes at most this much, so that a count fits ssize_t on both widths.
constexpr std::size_t maxTransfer = std::size_t( 1 ) << 30;

[[noreturn]] void fail( const char* operationPtr, const char* errorPtr, const std::string& detail )
{
    const std::string text =
        std::string( operationPtr ) + " error: " + errorPtr + " [" + detail + "]";
    throw FileHelper::Exception( text.c_str(), 0, 0 );
}

// @return the number of bytes transferred before the end, an error or all of them
template < class Call >
std::size_t transfer( std::size_t nbrOfBytes, Call&& call )
{
    std::size_t done = 0;
    while ( done < nbrOfBytes ) {
        const ssize_t n = Utils::retryOnEintr(
            [&] { return call( done, std::min( nbrOfBytes - done, maxTransfer ) ); } );
        if ( n <= 0 )
            break;
        done += static_cast< std::size_t >( n );
    }
    return done;
}

} // namespace

FileHelper::FileHelper( long long maximum )
    : maximumSize( maximum )
{
}

bool FileHelper::load()
{
    static constexpr char operation[] = "FileHelper load";
    if ( !pathname.isValid() )
        fail( operation, "invalid path info", pathname.str() );
    const std::uint32_t attributes = FileSystem::pathnameAttributes( pathname.str() );
    if ( ( attributes & FileSystem::file ) == 0 )
        fail( operation, "not a file", pathname.str() );
    if ( ( attributes & FileSystem::readable ) == 0 )
        fail( operation, "cannot read file", pathname.str() );
    const auto size = static_cast< std::int64_t >( FileSystem::fileSize( pathname.str() ) );
    if ( ( maximumSize != 0 && size > maximumSize ) || size > Utils::Buffer::maxSize )
        fail( operation, "file length exceeds maximum", std::to_string( size ) );
    const Utils::Handle handle( Utils::retryOnEintr(
        [&] { return ::open( pathname.cStr(), O_RDONLY | O_CLOEXEC | O_NOCTTY ); } ) );
    if ( !handle.isValid() )
        fail( operation, "cannot open file for reading", pathname.str() );

    const auto length = static_cast< std::size_t >( size );
    if ( data.capacity() < length )
        data = Utils::Buffer( length );
    data.resizeHelper( length, false, '\0' );
    const std::size_t nbrOfBytes = transfer( length, [&]( std::size_t done, std::size_t chunk ) {
        return ::read( handle, data.data() + done, chunk );
    } );
    data.resizeHelper( nbrOfBytes, false, '\0' );
    return nbrOfBytes == length;
}

bool FileHelper::store() const
{
    static constexpr char operation[] = "FileHelper store";
    if ( !pathname.isValid() )
        fail( operation, "invalid path info", pathname.str() );
    const Utils::Handle handle( Utils::retryOnEintr( [&] {
        return ::open( pathname.cStr(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, 0666 );
    } ) );
    if ( !handle.isValid() )
        fail( operation, "cannot open file for writing", pathname.str() );
    return transfer( data.size(), [&]( std::size_t done, std::size_t chunk ) {
               return ::write( handle, data.data() + done, chunk );
           } ) == data.size();
}

} // namespace Nuv::Io
