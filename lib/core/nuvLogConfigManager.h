#pragma once

#include "nuvConfig.h"
#include "nuvLogDrain.h"
#include "nuvMutex.h"
#include "nuvSemaphore.h"
#include "nuvSharedMemory.h"
#include "nuvThreadleton.h"

#include <cstddef>
#include <cstdint>

namespace Nuv::Log {

/// Functions of the log application; each goes through the manager's singleton.
class NUV_API LogAppHelper
{
public:
    enum ClearMode { keepCount = 0, clearCount = 1 };

    /// @param severityKeywordPtr exact, lower case @param zoneNamePtr null for all zones
    /// @return false, with nothing changed, for an unknown keyword (or a full preset table)
    static bool zoneSeverity( const char* severityKeywordPtr, const char* zoneNamePtr );
    static void zoneFlags( unsigned int flags, const char* zoneNamePtr );
    static unsigned int fifoOverrunCount( ClearMode mode );
    static Io::InterprocessFifo* interprocessFifoPtr();
};

/// Zones and drains of the process.
class NUV_API ConfigManager
{
public:
    struct Preset
    {
        ZoneName myName;
        std::int32_t mySeverity;
    };

    /// The shared segment "LogConfigManager".
    struct Data
    {
        static constexpr int maxNbrOfZones = 100;
        static constexpr int maxNbrOfPresets = 101;

        std::uint8_t mySeverityOverrideSet;
        std::uint8_t myPadding1[3];
        std::int32_t myOverrideSeverity;
        std::uint8_t myFlagsOverrideSet;
        std::uint8_t myPadding2[3];
        std::uint32_t myOverrideFlags;
        std::int32_t myNbrOfZones;
        Zone myZones[maxNbrOfZones];
        std::uint16_t myReserved;
        std::uint16_t myNbrOfPresets;
        Preset myPresets[maxNbrOfPresets];
    };

    static ConfigManager* singletonPtr();

    Zone* openZone( const char* namePtr );
    Drain* openDrain( const char* namePtr );
    void closeDrain( Drain* drainPtr );
    void getDrainOptions( const DrainName& name, Drain::Options* optionsPtr );
    bool getZonePtr( const ZoneName& name, Zone** outPtr );
    bool zoneSeverity( Severity severity, const char* zoneNamePtr );
    void zoneFlags( unsigned int flags, const char* zoneNamePtr );
    unsigned int fifoOverrunCount( LogAppHelper::ClearMode mode );
    Io::InterprocessFifo* interprocessFifoPtr();

    /// The shared table as it is now (for tools); read severity and flags through Zone.
    const Data& data() const;
};

static_assert( sizeof( ConfigManager::Data ) == 6044 );
static_assert( offsetof( ConfigManager::Data, myZones ) == 20 );
static_assert( offsetof( ConfigManager::Data, myNbrOfPresets ) == 4022 );
static_assert( offsetof( ConfigManager::Data, myPresets ) == 4024 );

} // namespace Nuv::Log
