#pragma once

#include "nuvBuffer.h"
#include "nuvEvent.h"
#include "nuvSemaphore.h"
#include "nuvSharedMemory.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Nuv::Io {

/// A ring of entries in a shared segment: writers never wait for room, the oldest entries make it.
///
/// A reader waits on event() and then reads until read() returns false; a signal stands for any
/// number of entries. What is in the ring survives the end of one process, not that of all.
///
/// Bytes:   the segment "IpFifo_" and the name, of S + 20 bytes for a requested size S, holds a
///          Fifo and its ring. All integers are unsigned, 32 bits, in host order:
///
/// | offset | width | field            | meaning                                              |
/// |--------|-------|------------------|------------------------------------------------------|
/// | 0      | 4     | myFifoSize       | ring size F = S + 4, a multiple of 4                 |
/// | 4      | 4     | myReadOffset     | ring offset of the oldest entry                      |
/// | 8      | 4     | myWriteOffset    | ring offset where the next entry starts              |
/// | 12     | 4     | myNbrOfBytesFree | free bytes in the ring; F when empty                 |
/// | 16     | F     | ring             | entries                                              |
///
/// An entry is its length L (4 bytes, at a multiple of 4), L message bytes and padding to a
/// multiple of 4; the message bytes go on at ring offset 0 where the ring ends. Always:
/// myWriteOffset = ( myReadOffset + F - myNbrOfBytesFree ) mod F.
///
/// A ring whose words break these rules (a process was killed between two stores, or something else
/// wrote there) is never followed: the next operation empties it and logs one error line.
///
/// Threads: any, in any process: every operation holds the named semaphore "IpFifo_" and the name.
///          Lock order: that semaphore before the segment's. What goes wrong is logged after the
///          semaphore was given back; a write() by a thread that is inside an operation of the same
///          ring, as the log line of its own failure would be, is discarded.
/// Errors:  construction fails nuvAssert for a size below minSize or above maxSize, and as
///          Semaphore, SharedMemory and Event do; read() and write() as Semaphore::wait().
/// Cost:    write three system calls (lock, signal, unlock), read two; one copy in, one copy out; a
///          write allocates nothing.
/// Example: InterprocessFifo fifo( "log", 65536 ); fifo.write( Utils::Buffer( "hello" ) );
class NUV_API InterprocessFifo
{
public:
    static constexpr unsigned int minSize = 16;
    static constexpr unsigned int maxSize = 0xFFFFFFFF - 23;
    /// Segment bytes beside the requested size.
    static constexpr unsigned int nbrOfExtraBytes = 20;

    /// The ring as it lies in the segment. Its operations are called with the semaphore held and
    /// take myFifoSize as true: InterprocessFifo compares it with the segment's size first.
    ///
    /// Errors:  too long an entry and a damaged ring (which is emptied) are logged, at severity
    ///          error; deleteOldest() fails nuvAssert for a length beyond what is in the ring.
    struct NUV_API Fifo
    {
        std::uint32_t myFifoSize;
        std::uint32_t myReadOffset;
        std::uint32_t myWriteOffset;
        std::uint32_t myNbrOfBytesFree;

        /// @param initialise false leaves everything as it is
        /// @param size requested size S, a multiple of 4; S + 4 bytes follow the object
        Fifo( bool initialise, unsigned int size );

        bool write( const Utils::Buffer& buffer );
        bool read( Utils::Buffer* bufferPtr );
        /// @return false when the ring is empty
        bool deleteOldest();
    };

    /// Creates or attaches. @param size bytes; rounded down to a multiple of 4
    InterprocessFifo( const char* namePtr, unsigned int size );
    InterprocessFifo( const InterprocessFifo& ) = delete;
    InterprocessFifo& operator=( const InterprocessFifo& ) = delete;
    ~InterprocessFifo();

    /// Appends one entry and signals event(). What exceeds a quarter of the ring size (rounded
    /// down) is cut off, and that is logged.
    /// @return true when no older entry had to be discarded
    bool write( const Utils::Buffer& buffer );
    /// Removes the oldest entry into the Buffer. @return false, the Buffer emptied, if there is
    ///         none
    bool read( Utils::Buffer* bufferPtr );
    /// @return copies of all entries, oldest first; none is removed, no signal consumed
    std::vector< Utils::Buffer > entries();

    /// Signalled by every write; a wait on it, or reset(), consumes that, read() does not.
    Mt::Event& event() { return myEvent; }

    /// @return older entries that write() of this object has discarded so far
    std::uint64_t nbrOfDiscarded() const
    {
        return myNbrOfDiscarded.load( std::memory_order_relaxed );
    }
    /// @return how often read() of this object did not find the entry that followed the one it had
    ///         read before: each time others removed at least one in between
    std::uint64_t nbrOfOverruns() const
    {
        return myNbrOfOverruns.load( std::memory_order_relaxed );
    }

    const std::string& name() const { return myName; }
    const SharedMemory& sharedMemory() const { return mySharedMemory; }
    Mt::Semaphore& semaphore() { return mySemaphore; }

private:
    /// Says for a scope that the calling thread is inside an operation of the ring of that set.
    class InsideScope
    {
    public:
        explicit InsideScope( int semaphoreHandle ) { enter( semaphoreHandle ); }
        InsideScope( const InsideScope& ) = delete;
        InsideScope& operator=( const InsideScope& ) = delete;
        ~InsideScope() { leave(); }

        void enter( int semaphoreHandle );
        void leave();
        static bool isInside( int semaphoreHandle );

    private:
        const InsideScope* myOuterPtr = nullptr;
        int mySemaphoreHandle = -1;
    };

    std::uint32_t fifoSize() const;
    void logFaults( unsigned int faults ) const;

    Mt::Semaphore mySemaphore;
    Mt::SemaphoreLock mySemaphoreLock; // locked only in constructor and destructor
    InsideScope myInsideScope;         // likewise
    SharedMemory mySharedMemory;
    Fifo* myFifoPtr;
    Mt::Event myEvent;
    std::string myName;
    std::atomic< std::uint64_t > myNbrOfDiscarded = 0;
    std::atomic< std::uint64_t > myNbrOfOverruns = 0;
    std::uint32_t myNextReadOffset; // guarded by the semaphore
};

static_assert( sizeof( InterprocessFifo::Fifo ) == 16 );
static_assert( offsetof( InterprocessFifo::Fifo, myFifoSize ) == 0 );
static_assert( offsetof( InterprocessFifo::Fifo, myReadOffset ) == 4 );
static_assert( offsetof( InterprocessFifo::Fifo, myWriteOffset ) == 8 );
static_assert( offsetof( InterprocessFifo::Fifo, myNbrOfBytesFree ) == 12 );

/// Collects the text of one entry.
///
/// Threads: one at a time.
/// Example: InterprocessOStreamBuf buf( &fifo ); std::ostream( &buf ) << "n " << n;
///          buf.writeFifo();
class NUV_API InterprocessOStreamBuf : public Utils::BufferOStreamBuf
{
public:
    /// @param fifoPtr borrowed for the object's life
    explicit InterprocessOStreamBuf( InterprocessFifo* fifoPtr );
    ~InterprocessOStreamBuf() override;

    /// Writes everything put so far as one entry; the next one begins empty, in the same storage.
    /// @return result of InterprocessFifo::write()
    bool writeFifo();

private:
    InterprocessFifo* myFifoPtr;
};

/// Reads the text of one entry; the first one is read by the constructor.
///
/// Threads: one at a time.
/// Example: InterprocessIStreamBuf buf( &fifo ); std::istream( &buf ) >> word; buf.readFifo();
class NUV_API InterprocessIStreamBuf : public Utils::BufferIStreamBuf
{
public:
    /// @param fifoPtr borrowed for the object's life
    explicit InterprocessIStreamBuf( InterprocessFifo* fifoPtr );
    ~InterprocessIStreamBuf() override;

    /// Replaces the contents by those of the next entry, to be read from their start; empty if
    /// there is none. @return result of InterprocessFifo::read()
    bool readFifo();

private:
    InterprocessFifo* myFifoPtr;
};

} // namespace Nuv::Io
