#pragma once

#include "nuvLogDrain.h"
#include "nuvLogSettings.h"
#include "nuvMutex.h"
#include "nuvSemaphore.h"
#include "nuvSharedMemory.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace Nuv::Log {

/// What the log application does to the logging of all processes; each function goes through the
/// manager's singleton.
///
/// Threads: any.
/// Errors:  as ConfigManager::singletonPtr().
/// Example: Log::LogAppHelper::zoneSeverity( "debug", "myZone" );
class NUV_API LogAppHelper
{
public:
    enum ClearMode
    {
        keepCount = 0,
        clearCount = 1
    };

    /// @param severityKeywordPtr exact, lower case: "debug" to "none"
    /// @param zoneNamePtr null for all zones, also future ones
    /// @return false for an unknown keyword, nothing having changed; also what
    ///         ConfigManager::zoneSeverity() returns
    static bool zoneSeverity( const char* severityKeywordPtr, const char* zoneNamePtr );
    static void zoneFlags( unsigned int flags, const char* zoneNamePtr );
    static unsigned int fifoOverrunCount( ClearMode mode );
    static Io::InterprocessFifo* interprocessFifoPtr();
};

/// Zones and drains of the process, by "etc/log.conf" under the installation root (see Settings)
/// and the table of zones that all processes share.
///
/// A zone is decided by the first process that opens it: preset (see zoneSeverity()) before
/// override before section before default. With the log application enabled its drain is the FIFO,
/// unless it is named "syslog". With 100 zones in the table a further one gets a record of this
/// process alone, with the same settings.
///
/// Threads: any. Lock order: the manager's mutex, then the semaphore "LogConfigManager", then a
///          drain's mutex. The child of a fork may go on logging, whatever other threads held.
/// Errors:  construction passes on what semaphore, segment and FIFO throw: ResourceException, also
///          for a segment of another size. Configuration errors are silent.
/// Owns:    the drains; segment and semaphore are removed by their last user. At process exit it
///          unbinds the sources that outlive it; threads that go on logging then lose their
///          messages, no more. For their sake a drain that is closed stays in memory, to be opened
///          again.
/// Bytes:   the segment "LogConfigManager", see Data. Counts and severities found out of range are
///          taken for the nearest possible value; nothing is ever written past the segment.
/// Example: Log::Zone* const zonePtr = Log::ConfigManager::singletonPtr()->openZone( "myZone" );
class NUV_API ConfigManager
{
public:
    /// The severity that a zone of that name gets when it is created.
    struct Preset
    {
        ZoneName myName;
        std::int32_t mySeverity;
    };

    /// The shared segment; all integers in host order.
    ///
    /// | offset | width | field                                                               |
    /// |--------|-------|---------------------------------------------------------------------|
    /// | 0      | 1     | not 0: new zones take the severity at 4                             |
    /// | 4      | 4     | override severity; 6 when the segment is created                    |
    /// | 8      | 1     | not 0: new zones take the flags at 12                               |
    /// | 12     | 4     | override flags                                                      |
    /// | 16     | 4     | number of used zone records                                         |
    /// | 20     | 4000  | 100 zone records of 40 bytes: severity, flags, name, drain name     |
    /// | 4020   | 2     | 0                                                                   |
    /// | 4022   | 2     | number of used presets                                              |
    /// | 4024   | 2020  | 101 presets of 20 bytes: zone name, severity                        |
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

        /// The counts, cut to what the tables hold.
        int nbrOfZones() const;
        int nbrOfPresets() const;
    };

    /// Builds the manager on first use.
    static ConfigManager* singletonPtr();

    /// @return the zone's record, created if needed, valid as long as the manager
    Zone* openZone( const char* namePtr );
    /// @return the drain, opened if needed, with one more reference
    Drain* openDrain( const char* namePtr );
    /// Gives one reference back; the last one closes the drain. Null is ignored.
    void closeDrain( Drain* drainPtr );

    /// Changes a zone for all processes, and what the zone starts with when it is created later
    /// (anew): its preset.
    /// @param severity a threshold, 1 to 6; nuvAssert otherwise
    /// @param zoneNamePtr null: every zone but the log application's own (slot 0, where this
    ///        process has the log application enabled), and every later one: the override
    /// @return false if the table of presets is full; a zone that exists is changed all the same
    bool zoneSeverity( Severity severity, const char* zoneNamePtr );
    /// The same for the flags, but nothing is kept for a zone that does not exist.
    void zoneFlags( unsigned int flags, const char* zoneNamePtr );

    /// @return Drain::ourFifoOverrunCount, of this process
    unsigned int fifoOverrunCount( LogAppHelper::ClearMode mode );

    /// Changes what the drain's section says, leaves the rest.
    void getDrainOptions( const DrainName& name, Drain::Options* optionsPtr ) const;
    /// @return true with the record of that name; false with the first unused slot, null if there
    ///         is none. The semaphore is held, the caller's duty.
    bool getZonePtr( const ZoneName& name, Zone** outPtr );
    bool isLogAppEnabled() const { return myIsLogAppEnabled; }
    /// Fails nuvAssert "myInterprocessDrainPtr != NULL" unless the log application is enabled.
    Io::InterprocessFifo* interprocessFifoPtr() const;
    /// The log application's file drain: where it writes what it reads from the FIFO. Fails
    /// nuvAssert "myLogAppDrainPtr != NULL" unless the log application is enabled.
    Drain* logAppDrainPtr() const;
    /// The shared table as it is now, for tools; a count is stored after the record it counts.
    const Data& data() const { return *myDataPtr; }

private:
    friend class Utils::Singleton< ConfigManager >;
    friend class Source;
    friend void ensureConfigManager();

    ConfigManager();
    ~ConfigManager();

    void initialiseSegment();
    void openLogApp();
    static void retire( Drain* drainPtr );
    std::unique_ptr< Drain > makeOwnDrain( const DrainName& name, const Drain::Options& options );
    Zone* findOrCreateZone( const ZoneName& name );
    Zone newZone( const ZoneName& name ) const;
    const Preset* findPreset( const ZoneName& name ) const;
    bool storePreset( const ZoneName& name, Severity severity );
    template < class Change >
    void changeZones( const char* zoneNamePtr, const Change& change );
    void bind( Source& source, const char* zoneNamePtr );
    void bindStandard();
    void release( Source& source );

    template < class Action >
    void forEachDrain( const Action& action );
    static bool watchForks();
    static void prepareFork();
    static void afterForkInParent();
    static void afterForkInChild();

    static const bool ourWatchesForks;

    Mt::Mutex myMutex;
    Mt::Semaphore mySemaphore;
    std::unique_ptr< Io::SharedMemory > mySharedMemoryPtr;
    Data* myDataPtr = nullptr;
    bool myIsLogAppEnabled = false;
    int myFacility = 0;
    DrainName myFifoDrainName;
    std::map< ZoneName, Zone* > myZoneMap;
    std::map< DrainName, Drain* > myDrainMap;
    std::set< Source* > mySources; // bound ones
    Settings mySettings;
    std::unique_ptr< Drain > myLogAppDrainPtr;
    std::unique_ptr< Drain > myInterprocessDrainPtr;
};

static_assert( sizeof( ConfigManager::Preset ) == 20 );
static_assert( sizeof( ConfigManager::Data ) == 6044 );
static_assert( offsetof( ConfigManager::Data, myOverrideSeverity ) == 4 );
static_assert( offsetof( ConfigManager::Data, myFlagsOverrideSet ) == 8 );
static_assert( offsetof( ConfigManager::Data, myOverrideFlags ) == 12 );
static_assert( offsetof( ConfigManager::Data, myNbrOfZones ) == 16 );
static_assert( offsetof( ConfigManager::Data, myZones ) == 20 );
static_assert( offsetof( ConfigManager::Data, myNbrOfPresets ) == 4022 );
static_assert( offsetof( ConfigManager::Data, myPresets ) == 4024 );

} // namespace Nuv::Log
