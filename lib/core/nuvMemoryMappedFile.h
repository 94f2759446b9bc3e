#pragma once

#include "nuvPathname.h"
#include "nuvSemaphore.h"
#include "nuvUtils.h"

#include <cstdint>

namespace Nuv::Io {

/// A data file of a fixed size, mapped through a window of bounded size that slides over it.
///
/// File and window sizes are rounded up to whole pages (at least one). The first opener, the one
/// that creates the semaphore "mmf_" + pathname, decides the file's size; later ones adopt the size
/// they find. From construction on there is always exactly one window.
///
/// A file that another process cuts: windowOffset() never maps beyond the file's end at that moment
/// (nuvCheckResource). A window that was mapped before the cut stays; touching its pages behind
/// the new end raises SIGBUS, as mmap(2) says. Whoever shares files with programs that cut them
/// asks isWindowBacked() before the access, under a lock that those programs take too.
///
/// Threads: one at a time; writers that share a file coordinate by means of their own.
/// Errors:  std::out_of_range for a window behind the end, the object being unchanged; system
///          calls that fail fail nuvCheckResource. After a failed mapping there is no window until
///          windowOffset() succeeds.
/// Owns:    descriptor and window; the destructor flushes asynchronously.
/// Example: MemoryMappedFile f( path, 1 << 20, 65536, MemoryMappedFile::readWrite );
///          f.windowOffset( 70000 );
class NUV_API MemoryMappedFile
{
public:
    enum AccessMode
    {
        readOnly = 0,
        readWrite = 1
    };

    /// @param fileSize, windowSize bytes, rounded up to pages; 0 gives one page
    /// @param mode any other value fails nuvAssert with "Invalid access mode."
    MemoryMappedFile( const Pathname& pathname, long long fileSize, unsigned int windowSize,
                      AccessMode mode );
    MemoryMappedFile( const MemoryMappedFile& ) = delete;
    MemoryMappedFile& operator=( const MemoryMappedFile& ) = delete;
    ~MemoryMappedFile();

    /// Makes the window start at the page that holds offset; pointers into the old window end.
    /// @throws std::out_of_range if that page is not within the file (or offset is negative)
    void windowOffset( long long offset );
    /// Asynchronous msync of the window.
    void flush();

    /// @return whether the file still reaches to the end of the window
    bool isWindowBacked() const;

    char* windowPtr() const { return myWindowPtr; }
    char* windowEndPtr() const { return myWindowEndPtr; }
    /// The file offset of windowPtr().
    long long windowOffset() const { return myWindowOffset; }
    unsigned int windowSize() const { return myWindowSize; }
    long long fileSize() const { return myFileSize; }
    bool isFirstUser() const { return myFirstUser; }

    /// @return the system's page size in bytes
    static unsigned int offsetGranularity();
    /// @return errno of the calling thread
    static int getLastError();

private:
    void roundupSizes( long long fileSize, unsigned int windowSize );
    void settleFileSize( std::int64_t actualFileSize );
    void mapWindow( long long alignedOffset );
    void unmapWindow();

    char* myWindowPtr = nullptr;
    char* myWindowEndPtr = nullptr;
    std::int64_t myWindowOffset = -1;
    bool myFirstUser;
    unsigned int myWindowSize = 0;
    std::int64_t myFileSize = 0;
    unsigned int myMaxWindowSize = 0;
    Utils::Handle myFileHandle;
    int myProtection;
    Mt::Semaphore mySemaphore;
};

} // namespace Nuv::Io
