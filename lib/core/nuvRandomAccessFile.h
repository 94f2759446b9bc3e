#pragma once

#include "nuvPathname.h"
#include "nuvUtils.h"

#include <cstdint>

namespace Nuv::Io {

/// A data file of a fixed size, read and written at a position.
///
/// Opening creates the file if it is missing (permission bits 0660, application group) and brings
/// it to the requested size. Sizes and positions are 64-bit on both widths: files of 2 GiB and more
/// work. The object keeps one position, which read() and write() move on by what they transfer.
///
/// | operation         | position + bytes within the size | beyond it                   |
/// |-------------------|----------------------------------|-----------------------------|
/// | seek( pos )       | pos < size: moves                | std::out_of_range           |
/// | read, write ( n ) | transfers n, moves by n          | std::out_of_range           |
///
/// Threads: one at a time; nothing coordinates several openers of one file.
/// Errors:  std::out_of_range leaves file and object unchanged. A system call that fails, and a
///          short transfer (another process cut the file, the disk is full), fails
///          nuvCheckResource; the position is then what it was before the call.
/// Owns:    its descriptor.
/// Example: RandomAccessFile f( path, 4096, RandomAccessFile::readWrite ); f.seek( 8 ); f.write( p,
///          4 );
class NUV_API RandomAccessFile
{
public:
    enum AccessMode
    {
        readOnly = 0,
        readWrite = 1
    };

    /// @param fileSize bytes; 0 adopts the size of the existing file, any other size cuts or
    ///        extends it (which a read-only opener of a file of another size cannot:
    ///        nuvCheckResource)
    /// @param mode any other value fails nuvAssert with "Invalid access mode."
    RandomAccessFile( const Pathname& pathname, long long fileSize, AccessMode mode );
    RandomAccessFile( const RandomAccessFile& ) = delete;
    RandomAccessFile& operator=( const RandomAccessFile& ) = delete;

    /// No system call if pos is the current position; a negative pos is beyond the size.
    void seek( long long pos );
    /// @param nbrOfBytes not negative (nuvAssert)
    void read( void* bufferPtr, long long nbrOfBytes );
    void write( const void* bufferPtr, long long nbrOfBytes );

    long long fileSize() const { return myFileSize; }
    long long filePos() const { return myFilePos; }

private:
    void checkEnd( long long nbrOfBytes, const char* textPtr ) const;

    std::int64_t myFileSize;
    std::int64_t myFilePos = 0;
    Utils::Handle myFileHandle;
};

namespace Detail {

/// Opens a data file of this family, creating it with the library's permissions, and asks for its
/// size; invalid modes and failures are reported as the classes say.
Utils::Handle openDataFile( const Pathname& pathname, int mode, std::int64_t* actualSizePtr );

/// Cuts or extends the file. nuvCheckResource
void setFileSize( const Utils::Handle& myFileHandle, std::int64_t myFileSize );

} // namespace Detail
} // namespace Nuv::Io
