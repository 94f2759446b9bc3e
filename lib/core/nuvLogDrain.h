#pragma once

#include "nuvInterprocessFifo.h"
#include "nuvLog.h"
#include "nuvMutex.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace Nuv::Log {

/// Where the lines of one or more zones go.
class NUV_API Drain
{
public:
    struct NUV_API Options
    {
        enum Type : std::int32_t {
            null = 0,
            standardError = 1,
            standardOutput = 2,
            file = 3,
            syslog = 4,
            fifo = 5,
            http = 6
        };

        Type type = file;
        std::string fileName = "main.log";
        std::uint64_t maxSize = 245760; ///< bytes; 0 means no wrapping
        std::string remoteAddr = "127.1.128.1";
        std::uint16_t remotePort = 80;
    };

    /// @return false for an unknown keyword (compared exactly, lower case)
    static bool typeFromKeyword( const char* keywordPtr, Options::Type* typePtr );
    static const char* typeKeyword( Options::Type type );

    Drain( const char* namePtr, const Options& options, int facility );
    Drain( const Drain& ) = delete;
    Drain& operator=( const Drain& ) = delete;
    ~Drain();

    void outputMessage( Severity severity, const Utils::Buffer& message, const char* zoneNamePtr );
    unsigned int timeStamp( std::tm* outPtr, unsigned int* millisecondsPtr );
    static void appName( std::string* namePtr );
    void seekFileMarker();

    const DrainName& name() const;
    const Options& options() const;
    Io::InterprocessFifo* fifoPtr() const;
};

} // namespace Nuv::Log
