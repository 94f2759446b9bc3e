#include "nuvMemoryMappedFile.h"

#include "nuvRandomAccessFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace Nuv::Io {

namespace {

// How long a later opener waits for the first one, which may be between creating the semaphore and
// sizing the file; after that it is taken for dead.
constexpr int maxNbrOfSizeWaits = 1000; // of a millisecond each

std::int64_t sizeOf( const Utils::Handle& handle )
{
    struct stat status;
    return ::fstat( handle, &status ) == 0 ? static_cast< std::int64_t >( status.st_size ) : -1;
}

} // namespace

MemoryMappedFile::MemoryMappedFile( const Pathname& pathname, long long fileSize,
                                    unsigned int windowSize, AccessMode mode )
    : myProtection( mode == readOnly ? PROT_READ : PROT_READ | PROT_WRITE )
    , mySemaphore( "mmf_" + pathname.str(), 1 )
{
    nuvAssert( fileSize >= 0 );
    roundupSizes( fileSize, windowSize );
    myFirstUser = mySemaphore.isCreated();
    std::int64_t actualFileSize = 0;
    myFileHandle = Detail::openDataFile( pathname, mode, &actualFileSize );
    settleFileSize( actualFileSize );
    windowOffset( 0 );
}

MemoryMappedFile::~MemoryMappedFile()
{
    if ( myWindowPtr != nullptr )
        ::msync( myWindowPtr, myWindowSize, MS_ASYNC );
    unmapWindow();
}

void MemoryMappedFile::windowOffset( long long offset )
{
    const long long aligned = offset - offset % offsetGranularity();
    if ( offset >= 0 && aligned == myWindowOffset )
        return;
    if ( offset < 0 || aligned >= myFileSize ) {
        throw std::out_of_range(
            "Nuv::Io::MemoryMappedFile::windowOffset() windowOffset >= fileSize" );
    }
    unmapWindow();
    mapWindow( aligned );
}

void MemoryMappedFile::flush()
{
    nuvCheckResource( ::msync( myWindowPtr, myWindowSize, MS_ASYNC ) == 0 );
}

bool MemoryMappedFile::isWindowBacked() const
{
    return myWindowPtr != nullptr && sizeOf( myFileHandle ) >= myWindowOffset + myWindowSize;
}

unsigned int MemoryMappedFile::offsetGranularity()
{
    static const unsigned int ourAllocationGranularity =
        static_cast< unsigned int >( ::sysconf( _SC_PAGESIZE ) );
    return ourAllocationGranularity;
}

int MemoryMappedFile::getLastError()
{
    return errno;
}

void MemoryMappedFile::roundupSizes( long long fileSize, unsigned int windowSize )
{
    const long long granularity = offsetGranularity();
    const auto rounded = [granularity]( long long size, long long maxSize ) {
        const long long nbrOfPages = ( size + granularity - 1 ) / granularity;
        return std::clamp( nbrOfPages * granularity, granularity, maxSize - maxSize % granularity );
    };
    nuvAssert( fileSize <= std::numeric_limits< long long >::max() - granularity );
    myFileSize = rounded( fileSize, std::numeric_limits< long long >::max() );
    myMaxWindowSize = static_cast< unsigned int >(
        rounded( windowSize, std::numeric_limits< unsigned int >::max() ) );
}

void MemoryMappedFile::settleFileSize( std::int64_t actualFileSize )
{
    if ( myFirstUser ) {
        if ( actualFileSize != myFileSize )
            Detail::setFileSize( myFileHandle, myFileSize );
        return;
    }
    for ( int i = 0; actualFileSize == 0 && i < maxNbrOfSizeWaits; ++i ) {
        std::this_thread::sleep_for( std::chrono::milliseconds( 1 ) );
        actualFileSize = sizeOf( myFileHandle );
    }
    if ( actualFileSize > 0 )
        myFileSize = actualFileSize;
    else
        Detail::setFileSize( myFileHandle, myFileSize );
}

void MemoryMappedFile::mapWindow( long long alignedOffset )
{
    myWindowSize = static_cast< unsigned int >(
        std::min< long long >( myFileSize - alignedOffset, myMaxWindowSize ) );
    const std::int64_t actualFileSize = sizeOf( myFileHandle );
    if ( actualFileSize >= 0 && actualFileSize < alignedOffset + myWindowSize )
        errno = EIO; // another process cut the file
    nuvCheckResource( actualFileSize >= alignedOffset + myWindowSize );
    void* const windowPtr = ::mmap( nullptr, myWindowSize, myProtection, MAP_SHARED, myFileHandle,
                                    static_cast< off_t >( alignedOffset ) );
    nuvCheckResource( windowPtr != MAP_FAILED );
    myWindowPtr = static_cast< char* >( windowPtr );
    myWindowEndPtr = myWindowPtr + myWindowSize;
    myWindowOffset = alignedOffset;
}

void MemoryMappedFile::unmapWindow()
{
    if ( myWindowPtr != nullptr )
        ::munmap( myWindowPtr, myWindowSize );
    myWindowPtr = nullptr;
    myWindowEndPtr = nullptr;
    myWindowOffset = -1;
}

} // namespace Nuv::Io
