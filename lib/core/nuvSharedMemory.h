#pragma once

#include "nuvSemaphore.h"
#include "nuvString.h"

#include <string>

namespace Nuv::Io {

/// A named System V segment that processes share, removed by its last user.
///
/// | key file | segment                        | constructor                              |
/// |----------|--------------------------------|------------------------------------------|
/// | none     | none                           | makes both; isCreated()                  |
/// | there    | none (reboot, ipcrm)           | makes the segment; isCreated()           |
/// | there    | there, of the wanted size      | attaches; contents as they are           |
/// | there    | there, of another size         | resource failure naming it and the sizes |
///
/// A created segment is zero-filled; whoever created it lays out its contents, under a lock of its
/// own that those who attach take too. The destructor detaches; when nobody is attached any more
/// it removes segment and key file. The system detaches a process that is killed, but leaves the
/// segment, with its contents, to the next user.
///
/// Threads: any may use the memory, under the caller's lock; construction and destruction, in all
///          processes, are serialised by the semaphore "shm_" and the name.
/// Errors:  construction fails nuvCheckResource (key file, key, segment), or nuvAssert for a mode
///          that does not exist.
/// Owns:    the attachment. A child of fork() is attached too and must end with _exit().
/// Bytes:   the key file is "shm_" and the name, "/" replaced by "-", in the interprocess-
///          communication directory; its inode number is the segment's key.
/// Example: SharedMemory table( "table", 4096, SharedMemory::readWrite );
class NUV_API SharedMemory
{
public:
    enum AccessMode : int // of a fixed type: other values are possible, and refused
    {
        readOnly = 0,
        readWrite = 1
    };

    /// @param size bytes
    SharedMemory( const std::string& name, unsigned int size, AccessMode mode );
    SharedMemory( const SharedMemory& ) = delete;
    SharedMemory& operator=( const SharedMemory& ) = delete;
    ~SharedMemory();

    /// For the process's end: detaches already now, but leaves private memory of the same contents
    /// in the place, as long as the process lives, to threads that still read there. The destructor
    /// does the rest.
    void detachLeavingCopy();

    /// @return the calling thread's errno
    static int getLastError();

    char* memoryPtr() const { return myMemoryPtr; }
    /// Behind the last byte.
    char* endPtr() const { return myEndPtr; }
    bool isCreated() const { return myCreated; }
    unsigned int size() const { return mySize; }
    int shmId() const { return myShmId; }
    /// Full pathname.
    const char* keyFileName() const { return myKeyFileName.cStr(); }

private:
    std::string obtain( const std::string& name, AccessMode mode );
    bool getSegment( int key, unsigned int groupId );
    std::string attach( const std::string& name, AccessMode mode );
    int removeIfUnused();

    char* myMemoryPtr = nullptr;
    char* myEndPtr = nullptr;
    bool myCreated = false;
    bool myIsDetached = false;
    unsigned int mySize;
    Mt::Semaphore mySemaphore;
    Utils::SimpleStr myKeyFileName;
    int myShmId = -1;
};

} // namespace Nuv::Io
