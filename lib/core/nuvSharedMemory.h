#pragma once

#include "nuvSemaphore.h"
#include "nuvString.h"

#include <string>

namespace Nuv::Io {

/// A named System V segment, removed by its last user.
class NUV_API SharedMemory
{
public:
    enum AccessMode { readOnly = 0, readWrite = 1 };

    SharedMemory( const std::string& name, unsigned int size, AccessMode mode );
    SharedMemory( const SharedMemory& ) = delete;
    SharedMemory& operator=( const SharedMemory& ) = delete;
    ~SharedMemory();

    static int getLastError();

    char* memoryPtr() const { return myMemoryPtr; }
    char* endPtr() const { return myEndPtr; }
    bool isCreated() const { return myCreated; }
    unsigned int size() const { return mySize; }
    int shmId() const { return myShmId; }

private:
    char* myMemoryPtr = nullptr;
    char* myEndPtr = nullptr;
    bool myCreated = false;
    unsigned int mySize;
    Mt::Semaphore mySemaphore;
    Utils::SimpleStr myKeyFileName;
    int myShmId = -1;
};

} // namespace Nuv::Io
