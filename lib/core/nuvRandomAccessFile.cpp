#include "nuvRandomAccessFile.h"

#include "nuvOs.h"

#include <algorithm>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::Io {

namespace Detail {

Utils::Handle openDataFile( const Pathname& pathname, int mode, std::int64_t* actualSizePtr )
{
    if ( mode != RandomAccessFile::readOnly && mode != RandomAccessFile::readWrite )
        nuvAssertText( false, "false", "Invalid access mode." );
    Utils::SecurityInfo security( Utils::SecurityInfo::ipcObject,
                                  Utils::SecurityInfo::ownerAndGroup );
    security.applyUmask();
    const int access = mode == RandomAccessFile::readOnly ? O_RDONLY : O_RDWR;
    Utils::Handle myFileHandle( Utils::retryOnEintr( [&] {
        return ::open( pathname.cStr(), access | O_CREAT | O_CLOEXEC, security.mode() );
    } ) );
    nuvCheckResource( myFileHandle.isValid() );
    security.applyGroupOwnership( myFileHandle.fd() );
    security.restoreUmask();
    struct stat status;
    const std::int64_t actualFileSize =
        ::fstat( myFileHandle, &status ) == 0 ? static_cast< std::int64_t >( status.st_size ) : -1;
    nuvCheckResource( actualFileSize != -1 );
    *actualSizePtr = actualFileSize;
    return myFileHandle;
}

void setFileSize( const Utils::Handle& myFileHandle, std::int64_t myFileSize )
{
    nuvCheckResourceText(
        Utils::retryOnEintr( [&] { return ::ftruncate( myFileHandle, myFileSize ); } ) == 0,
        "::ftruncate( myFileHandle, myFileSize ) == 0" );
}

} // namespace Detail

namespace {

// One system call takes at most this much, so that a count fits ssize_t on both widths.
constexpr long long maxTransfer = 1LL << 30;

// Repeats the call until all is transferred, an error, or the file's end (errno is EIO then).
template < class Call >
bool transferAll( long long nbrOfBytes, Call&& call )
{
    for ( long long done = 0; done < nbrOfBytes; ) {
        const auto chunk = static_cast< std::size_t >( std::min( nbrOfBytes - done, maxTransfer ) );
        const ssize_t n = Utils::retryOnEintr(
            [&] { return call( static_cast< std::size_t >( done ), chunk ); } );
        if ( n == 0 )
            errno = EIO;
        if ( n <= 0 )
            return false;
        done += n;
    }
    return true;
}

// Puts the descriptor back to where the object says it is; keeps errno for the message.
bool restoredOnFailure( bool ok, int fd, std::int64_t pos )
{
    if ( !ok ) {
        const int errorNbr = errno;
        ::lseek( fd, pos, SEEK_SET );
        errno = errorNbr;
    }
    return ok;
}

} // namespace

RandomAccessFile::RandomAccessFile( const Pathname& pathname, long long fileSize, AccessMode mode )
    : myFileSize( fileSize )
{
    nuvAssert( fileSize >= 0 );
    std::int64_t actualFileSize = 0;
    myFileHandle = Detail::openDataFile( pathname, mode, &actualFileSize );
    if ( fileSize == 0 )
        myFileSize = actualFileSize;
    else if ( actualFileSize != myFileSize )
        Detail::setFileSize( myFileHandle, myFileSize );
}

void RandomAccessFile::seek( long long pos )
{
    if ( pos < 0 || pos >= myFileSize )
        throw std::out_of_range( "Nuv::Io::RandomAccessFile::seek() pos >= fileSize" );
    if ( pos == myFilePos )
        return;
    const std::int64_t oldFilePos = myFilePos;
    myFilePos = pos;
    const bool sought = ::lseek( myFileHandle, myFilePos, SEEK_SET ) == myFilePos;
    if ( !sought )
        myFilePos = oldFilePos;
    nuvCheckResourceText( sought, "::lseek( myFileHandle, myFilePos, SEEK_SET ) == myFilePos" );
}

void RandomAccessFile::read( void* bufferPtr, long long nbrOfBytes )
{
    checkEnd( nbrOfBytes, "Nuv::Io::RandomAccessFile::read() beyond end of file" );
    char* const bufPtr = static_cast< char* >( bufferPtr );
    const bool ok = transferAll( nbrOfBytes, [&]( std::size_t done, std::size_t chunk ) {
        return ::read( myFileHandle, bufPtr + done, chunk );
    } );
    nuvCheckResourceText( restoredOnFailure( ok, myFileHandle, myFilePos ),
                          "::read( myFileHandle, bufPtr, nbrOfBytes ) == nbrOfBytes" );
    myFilePos += nbrOfBytes;
}

void RandomAccessFile::write( const void* bufferPtr, long long nbrOfBytes )
{
    checkEnd( nbrOfBytes, "Nuv::Io::RandomAccessFile::write() beyond end of file" );
    const char* const bufPtr = static_cast< const char* >( bufferPtr );
    const bool ok = transferAll( nbrOfBytes, [&]( std::size_t done, std::size_t chunk ) {
        return ::write( myFileHandle, bufPtr + done, chunk );
    } );
    nuvCheckResourceText( restoredOnFailure( ok, myFileHandle, myFilePos ),
                          "::write( myFileHandle, bufPtr, nbrOfBytes ) == nbrOfBytes" );
    myFilePos += nbrOfBytes;
}

void RandomAccessFile::checkEnd( long long nbrOfBytes, const char* textPtr ) const
{
    nuvAssert( nbrOfBytes >= 0 );
    if ( nbrOfBytes > myFileSize - myFilePos )
        throw std::out_of_range( textPtr );
}

} // namespace Nuv::Io
