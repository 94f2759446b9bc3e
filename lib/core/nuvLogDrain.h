#pragma once

#include "nuvInterprocessFifo.h"
#include "nuvLog.h"
#include "nuvLogFile.h"
#include "nuvLogHttp.h"
#include "nuvMutex.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace Nuv::Log {

/// Where the lines of one or more zones go.
///
/// | type           | keyword  | a message becomes                                               |
/// |----------------|----------|-----------------------------------------------------------------|
/// | null           | "null"   | nothing                                                         |
/// | standardError  | "stderr" | bytes and a line feed on standard error's stream, flushed       |
/// | standardOutput | "stdout" | bytes and a line feed on standard output's stream, not flushed  |
/// | file           | "file"   | bytes, a line feed and the marker in a file, see LogFileWriter  |
/// | syslog         | "syslog" | a system log entry of ident "nuvs" at the severity's level      |
/// | fifo           |          | one entry of the log application's interprocess FIFO            |
/// | http           | "http"   | one POST request, see HttpPoster                                |
///
/// A file that cannot be opened makes its drain a null drain, silently.
///
/// The preamble that Helper writes before the text, each field by its flag and with a space behind:
/// sequence number, local or universal time, seconds since the drain's previous line, application,
/// process id, zone, severity; "16Nov2026 21:38:22.123 0.005 mainApp[1234] Nuv/W " by default.
///
/// Threads: any. Messages of one drain are written one after the other under its mutex; what is
///          written to it is formatted before. Sequence number and time of the previous line are
///          counted beside the mutex, so lines of several threads may come in another order.
/// Errors:  outputMessage() throws nothing: a message that cannot be written is lost and counted.
/// Owns:    its file, FIFO or connection. The standard streams' buffers belong to the process.
/// Cost:    null: no call, no lock. File: LogFileWriter's. FIFO: InterprocessFifo::write()'s.
///          HTTP: an exchange with the server, while other messages of the drain wait.
/// Example: drainPtr->outputMessage( Log::warning, buffer, "myZone" );
class NUV_API Drain
{
public:
    struct NUV_API Options
    {
        enum Type : std::int32_t
        {
            null = 0,
            standardError = 1,
            standardOutput = 2,
            file = 3,
            syslog = 4,
            fifo = 5, ///< without keyword: only the configuration manager makes these
            http = 6
        };

        Type type = file;
        std::string fileName = "main.log"; ///< under the root's log directory; the FIFO's name
        std::uint64_t maxSize = 245760;    ///< bytes, 0 never wraps; its low 32 bits for a FIFO
        Net::IpV4Address remoteAddr{ 80, "127.1.128.1" }; ///< of an HTTP drain
    };

    /// How the time is written.
    enum TimeMode
    {
        localTime = 0,
        universalTime = 1
    };

    /// @param keywordPtr compared exactly (lower case)
    /// @return false, with *typePtr unchanged, for an unknown keyword
    static bool typeFromKeyword( const char* keywordPtr, Options::Type* typePtr );
    /// @return the keyword, "fifo" and "?" where there is none
    static const char* typeKeyword( Options::Type type );

    /// @param namePtr cut to 15 characters
    /// @param facility of the system log; that of the process's first syslog drain counts
    /// @throws ResourceException if the FIFO's interprocess objects cannot be had
    Drain( const char* namePtr, const Options& options, int facility );
    Drain( const Drain& ) = delete;
    Drain& operator=( const Drain& ) = delete;
    ~Drain();

    /// Emits one message, or hands it to a Capture.
    /// @param message preamble and text, any bytes. The system log ends a text at a NUL: there NULs
    ///        become blanks.
    void outputMessage( Severity severity, const Utils::Buffer& message, const char* zoneNamePtr );

    /// Takes the time of a line.
    /// @param outPtr receives the broken-down current time, by ourTimeMode
    /// @param millisecondsPtr receives the current millisecond, 0 to 999
    /// @return ms since the previous time stamp of this drain (32 bits), 0 if the clock went back
    unsigned int timeStamp( std::tm* outPtr, unsigned int* millisecondsPtr );

    /// The application name of the preamble: that of the calling thread's subsystem information,
    /// else the program's name without extension.
    static void appName( std::string* namePtr );

    /// Finds the place of a file drain's next message anew; nothing for other types.
    void seekFileMarker();

    const DrainName& name() const { return myName; }
    /// As they are in effect: type null if the file could not be opened.
    const Options& options() const { return myOptions; }
    /// Null unless the type is fifo.
    Io::InterprocessFifo* fifoPtr() const { return myFifoPtr.get(); }
    /// Number of messages emitted so far.
    std::uint32_t sequenceNbr() const { return mySequenceNbr.load( std::memory_order_relaxed ); }
    /// Number of messages that could not be written.
    std::uint32_t nbrOfLost() const { return myNbrOfLost.load( std::memory_order_relaxed ); }

    /// Number of this process's messages whose storing in the FIFO forced older unread entries out.
    static std::atomic< std::uint32_t > ourFifoOverrunCount;
    /// For all drains; set by the configuration manager.
    static std::atomic< TimeMode > ourTimeMode;

private:
    friend class Helper;
    friend class ConfigManager;

    /// Begins anew, as the constructor does.
    void open( const Options& options, int facility );
    /// Waits for a message that is being written; what comes later is discarded.
    void close();
    /// At the process's end: gives back what other processes share, and goes on without.
    void leaveSharedMemory();
    bool put( Severity severity, const Utils::Buffer& message, const char* zoneNamePtr );
    void countLost();
    bool putLine( std::string_view message );
    unsigned int elapsedMs( std::uint64_t localNs );
    void countMessage() { mySequenceNbr.fetch_add( 1, std::memory_order_relaxed ); }
    /// Before the manager registers its own: handlers before a fork run newest first, and what
    /// these lock comes behind the manager's mutex.
    static void registerForkHandlers();
    /// From a fork on the file has two writers.
    void afterForkInParent() { myFile.share(); }
    /// Another thread may have held the mutex, and been about to change the line: both are made
    /// anew, what they held is not released.
    void afterForkInChild();

    Mt::Mutex myMutex; // behind the configuration manager's in the lock order
    DrainName myName;
    Options myOptions;
    std::atomic< bool > myIsNull = true;      // read without the mutex
    std::streambuf* myStreamBufPtr = nullptr; // standard streams; borrowed
    LogFileWriter myFile;
    std::unique_ptr< Io::InterprocessFifo > myFifoPtr;
    std::unique_ptr< HttpPoster > myHttpPosterPtr;
    std::unique_ptr< LostMessages > myLostMessagesPtr; // null where shared memory could not be had
    std::string myLine;                                // storage of putLine()
    int myReferenceCount = 0; // guarded by the configuration manager's mutex
    Drain* myNextRetiredPtr = nullptr;
    std::atomic< std::uint32_t > myNbrOfLost = 0;
    // What every message changes, on any thread, has a cache line of its own.
    alignas( 64 ) std::atomic< std::uint64_t > myLastTime = 0; // of the previous stamp, local, ns
    std::atomic< std::uint32_t > mySequenceNbr = 0;
};

} // namespace Nuv::Log
