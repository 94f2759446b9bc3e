#pragma once

#include "nuvBuffer.h"
#include "nuvEvent.h"
#include "nuvSemaphore.h"
#include "nuvSharedMemory.h"

#include <cstdint>

namespace Nuv::Io {

/// A ring of entries in a shared segment; writers never wait, the oldest entries make room.
class NUV_API InterprocessFifo
{
public:
    /// The ring as it lies in the segment; operations with the semaphore held.
    struct NUV_API Fifo
    {
        std::uint32_t myFifoSize;
        std::uint32_t myReadOffset;
        std::uint32_t myWriteOffset;
        std::uint32_t myNbrOfBytesFree;

        Fifo( bool initialise, unsigned int size );
        bool write( const Utils::Buffer& buffer );
        bool read( Utils::Buffer* bufferPtr );
        bool deleteOldest();
    };

    InterprocessFifo( const char* namePtr, unsigned int size );
    InterprocessFifo( const InterprocessFifo& ) = delete;
    InterprocessFifo& operator=( const InterprocessFifo& ) = delete;
    ~InterprocessFifo();

    bool write( const Utils::Buffer& buffer );
    bool read( Utils::Buffer* bufferPtr );

    Mt::Event& event() { return myEvent; }

private:
    Mt::Semaphore mySemaphore;
    Mt::SemaphoreLock mySemaphoreLock;
    SharedMemory mySharedMemory;
    Fifo* myFifoPtr;
    Mt::Event myEvent;
};

class NUV_API InterprocessOStreamBuf : public Utils::BufferOStreamBuf
{
public:
    explicit InterprocessOStreamBuf( InterprocessFifo* fifoPtr );
    ~InterprocessOStreamBuf() override;
    bool writeFifo();

private:
    InterprocessFifo* myFifoPtr;
};

class NUV_API InterprocessIStreamBuf : public Utils::BufferIStreamBuf
{
public:
    explicit InterprocessIStreamBuf( InterprocessFifo* fifoPtr );
    ~InterprocessIStreamBuf() override;
    bool readFifo();

private:
    InterprocessFifo* myFifoPtr;
};

} // namespace Nuv::Io
