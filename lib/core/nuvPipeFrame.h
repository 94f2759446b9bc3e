#pragma once

#include "nuvBuffer.h"
#include "nuvLog.h"
#include "nuvPipeHash.h"
#include "nuvUtils.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace Nuv::Io {

/// Nothing came for the whole time-out. Reason 0, error number 0.
class NUV_API PipeReadTimeoutException : public RuntimeException
{
public:
    using RuntimeException::RuntimeException;
};

/// What came is no valid frame; the rest of it is still in the pipe, drainPipe() removes it. Reason
/// 0, error number 0.
class NUV_API PipeDataValidationException : public RuntimeException
{
public:
    using RuntimeException::RuntimeException;
};

/// Writes and reads the frames of a pipe:
///
/// | offset | size | content                                         |
/// |--------|------|-------------------------------------------------|
/// | 0      | 4    | data size S in bytes, signed, host byte order   |
/// | 4      | 4    | bitwise complement of S                         |
/// | 8      | 4    | pipeDataHash() of the data                      |
/// | 12     | S    | data                                            |
///
/// Silence counts towards a read's time-out in steps of 10 ms while no writer holds the pipe, and
/// with a writer connected from the moment that the caller names; any byte starts the count anew.
///
/// Threads: one at a time.
/// Errors:  false after a line at error severity; the exceptions above.
class PipeFrame
{
public:
    /// From when on silence counts although a writer is connected.
    enum class Patience
    {
        fromStart,
        fromFirstByte
    };

    /// @param classNamePtr "ServerPipe" or "ClientPipe", for the log lines; borrowed, as sources
    PipeFrame( const char* classNamePtr, Log::SourceSet* sourcesPtr );

    /// @param fd blocking or not
    bool write( int fd, const std::string& pathname, const Utils::Buffer& data );
    /// @param fd non-blocking
    /// @param timeoutSec without a byte
    bool read( int fd, const std::string& pathname, Utils::Buffer* dataPtr, unsigned int timeoutSec,
               Patience patience );
    /// Takes out what is there, without waiting for a connected writer.
    /// @return false if no writer came back within timeoutSec
    bool drain( int fd, const std::string& pathname, unsigned int timeoutSec );

    /// From any thread: a read() that waits ends within a second, later ones as soon as they would
    /// wait; without a line in the log.
    void stop() { myIsStopped.store( true, std::memory_order_relaxed ); }
    bool isStopped() const { return myIsStopped.load( std::memory_order_relaxed ); }

    /// Data of more bytes are refused by read() as those of negative size are; 64 MiB at first.
    static void maxDataSize( std::uint32_t nbrOfBytes );
    static std::uint32_t maxDataSize();

private:
    struct Reading;

    void logReadError( const Reading& reading, const char* textPtr ) const;
    void logZeroRead( const Reading& reading, const char* textPtr, const char* functionPtr );
    bool take( Reading* readingPtr, char* ptr, std::size_t length );
    bool waitForBytes( Reading* readingPtr );
    bool step( Reading* readingPtr );
    bool readHeader( Reading* readingPtr );
    bool readData( Reading* readingPtr );
    void checkSizes( const Reading& reading ) const;
    [[noreturn]] void timeOut( const Reading& reading ) const;

    const Log::Source& debug() const { return mySourcesPtr->source( Log::debug ); }
    const Log::Source& error() const { return mySourcesPtr->source( Log::error ); }
    std::string place( const std::string& pathname, const char* functionPtr ) const;

    const char* myClassNamePtr;
    Log::SourceSet* mySourcesPtr;
    std::atomic< bool > myIsStopped = false;
    bool myZeroRead = false; // a read without a writer was logged
};

} // namespace Nuv::Io
