#pragma once

#include "nuvLog.h"
#include "nuvMutex.h"

#include <string>
#include <string_view>
#include <vector>

namespace Nuv::Log {

/// While it lives, the messages of this process go into it instead of their drains: for tests of
/// what a program logs.
///
/// A message passes the emission test first, so the zone's threshold holds (LogAppHelper lowers it,
/// for all processes). Captures nest: the newest one that takes the zone gets the message.
///
/// Threads: any thread's messages are taken; the capture's own operations may run meanwhile.
/// Errors:  std::bad_alloc while a message is taken loses that message.
/// Example: Log::Capture capture( "myZone" ); run(); EXPECT_TRUE( capture.contains( "low" ) );
class NUV_API Capture
{
public:
    struct Message
    {
        Severity severity;
        std::string zoneName;
        std::string line; ///< preamble and text, without a line feed behind them
    };

    /// @param zoneNamePtr zone whose messages are taken, cut to 15 characters; null for all zones
    explicit Capture( const char* zoneNamePtr = nullptr );
    Capture( const Capture& ) = delete;
    Capture& operator=( const Capture& ) = delete;
    ~Capture();

    void clear();

    std::vector< Message > messages() const;
    /// Whether the text occurs in one of the lines.
    bool contains( std::string_view text ) const;

    /// For the drains: hands the message to the newest capture that takes it.
    /// @return whether there was one
    static bool take( Severity severity, const Utils::Buffer& message, const char* zoneNamePtr )
    {
        return ourNewestPtr.load( std::memory_order_relaxed ) != nullptr &&
               takeHelper( severity, message, zoneNamePtr );
    }

private:
    static bool takeHelper( Severity severity, const Utils::Buffer& message,
                            const char* zoneNamePtr );

    static std::atomic< Capture* > ourNewestPtr;

    bool myIsOfAllZones;
    ZoneName myZoneName;
    std::vector< Message > myMessages;
    Capture* myOlderPtr;
};

} // namespace Nuv::Log
