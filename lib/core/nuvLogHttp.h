#pragma once

#include "nuvBuffer.h"
#include "nuvIpAddr.h"
#include "nuvLog.h"
#include "nuvSharedMemory.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace Nuv::Net {
class TcpConnectionStream;
}

namespace Nuv::Log {

/// Posts messages to an HTTP server, one request for each, on a connection that is kept.
///
/// A message goes as the body (text/plain, no line feed) of
///
///     POST /cgi-bin/sys-server?f=log&sev=<letter>&zone=<name, form-encoded>
///
/// Any answer that can be read will do. There are three attempts, each on a new connection if the
/// former failed, 100 ms apart. An attempt takes at most 2 s to connect, 2 s in which nothing can
/// be sent and 2 s in which nothing comes back, so that a dead server holds a thread that logs for
/// some seconds at most. (A server that sends its answer byte by byte has more time.)
///
/// Threads: one at a time.
/// Errors:  none; post() says false.
/// Owns:    the connection.
class NUV_API HttpPoster
{
public:
    static constexpr int nbrOfAttempts = 3;
    static constexpr unsigned int attemptGapUs = 100000;
    static constexpr unsigned int timeoutSeconds = 2;

    explicit HttpPoster( const Net::IpV4Address& address );
    HttpPoster( const HttpPoster& ) = delete;
    HttpPoster& operator=( const HttpPoster& ) = delete;
    ~HttpPoster();

    /// @return whether the server answered
    bool post( Severity severity, const Utils::Buffer& message, std::string_view zoneName );
    /// In a forked child: the connection is the parent's, and is neither written to nor shut down.
    void leaveConnection();

private:
    bool attempt( Severity severity, const Utils::Buffer& message, std::string_view zoneName );

    Net::IpV4Address myAddress;
    std::unique_ptr< Net::TcpConnectionStream > myConnectionPtr;
};

/// Counts, in shared memory, the messages that HTTP drains have lost: by the drain's name, for all
/// processes together. nuvctl zones shows them.
///
/// The segment "LogLostMessages" is there while a process has an HTTP drain.
///
/// | offset | width | slot of 24 bytes                                 |
/// |--------|-------|--------------------------------------------------|
/// | 0      | 4     | state: 0 free, 1 being named, 2 in use for good  |
/// | 4      | 16    | name of the drain                                |
/// | 20     | 4     | number of messages, modulo 2^32                  |
///
/// Threads: any; all words are atomic.
/// Errors:  the constructor throws what SharedMemory's does. Beyond 64 names nothing is counted.
class NUV_API LostMessages
{
public:
    static constexpr const char* segmentName = "LogLostMessages";
    static constexpr int maxNbrOfSlots = 64;

    enum State : std::uint32_t
    {
        unused = 0,
        beingNamed = 1,
        inUse = 2
    };
    struct Slot
    {
        std::uint32_t myState;
        DrainName myName;
        std::uint32_t myCount;
    };
    static_assert( sizeof( Slot ) == 24 && offsetof( Slot, myCount ) == 20 );
    using Table = Slot[maxNbrOfSlots];

    /// @param drainName whose messages this object counts
    explicit LostMessages( const DrainName& drainName );

    void count();

private:
    Io::SharedMemory mySharedMemory;
    Slot* mySlotPtr; // null if the table is full
};

} // namespace Nuv::Log
