#pragma once

#include "nuvBuffer.h"
#include "nuvHealthRecords.h"
#include "nuvMutex.h"
#include "nuvSemaphore.h"
#include "nuvSharedMemory.h"
#include "nuvString.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

namespace Nuv::Utils {

class Config;
template < class T >
class Singleton;

/// What boot.info says of the machine.
struct NUV_API PlatformFacts
{
    /// Key "model" of the section Platform; empty, without capabilities, if it is missing.
    std::string model;
    /// The keys of the section <model>/Capabilities that read true.
    std::set< std::string > capabilities;

    static PlatformFacts of( const Config& bootInfo );
};

/// The platform facts that every process needs, and the settings that all processes share.
///
/// The facts are read once per process and never again:
///
/// | fact                    | file          | section              | key                    |
/// |-------------------------|---------------|----------------------|------------------------|
/// | groupName()             | nuvs.conf     | the root             | groupName              |
/// | includeSelf()           | nuvs.conf     | WinNt                | includeSelf            |
/// | includeAdministrators() | nuvs.conf     | WinNt                | includeAdministrators  |
/// | includeLocalSystem()    | nuvs.conf     | WinNt                | includeLocalSystem     |
/// | model()                 | etc/boot.info | Platform             | model                  |
/// | platformHasCapability() | etc/boot.info | <model>/Capabilities | each that reads true   |
///
/// nuvs.conf is the master configuration, etc/boot.info lies under the installation root. Texts
/// default to empty, the switches to true; a capability whose value is no boolean is absent.
///
/// The settings lie in the segment "global-data", attached by the first call that needs it, removed
/// by its last user. Fields of one word are read without a lock; what consists of several is read
/// and written under the named semaphore "global-shm", so it is never seen mixed. The health
/// records have a protocol of their own (nuvVersionedRecord.h).
///
/// Threads: any. Lock order: the object's mutex (attaching only), then the semaphore.
/// Errors:  none for the facts. Attaching passes on the resource failures of semaphore and segment.
/// Example: if ( Global::singletonPtr()->platformHasCapability( "bypass" ) ) ...
class NUV_API Global
{
public:
    static constexpr std::size_t maxNbrOfKeystoreBytes = 30000;

    /// The segment's content. A new one starts with the values given, the rest zero.
    struct Data
    {
        std::int32_t localTimeOffset;          ///< seconds
        FixedString< char, 100 > timeZoneName; ///< "UTC"
        std::uint8_t dnsEnabled;
        std::uint8_t httpProxyEnabled;
        std::uint16_t httpProxyPort;
        FixedString< char, 20 > httpProxyAddressText;
        std::uint32_t myReserved[3];           ///< 2, 0, 0
        std::uint32_t ftpTimeoutValue;         ///< seconds; 300
        std::uint32_t certificateStoreVersion; ///< 1
        std::uint32_t keystoreVersion;         ///< random, never 0
        std::uint32_t keystoreLength;
        char keystoreBytes[maxNbrOfKeystoreBytes];
        HealthAndSecurity::SensorRecord sensor;
        HealthAndSecurity::MainAppRecord mainApp;
    };

    /// Built on first use, under GlobalSingletonPtrMutex, before the special pathnames' mutex.
    static Global* singletonPtr();

    /// Names the group whose members share the interprocess objects; see applicationGroupName().
    const std::string& groupName() const { return myGroupName; }
    bool includeSelf() const { return myIncludeSelf; }
    bool includeAdministrators() const { return myIncludeAdministrators; }
    bool includeLocalSystem() const { return myIncludeLocalSystem; }
    const std::string& model() const { return myPlatform.model; }
    const std::set< std::string >& capabilities() const { return myPlatform.capabilities; }
    /// @param namePtr compared exactly; null has no capability
    bool platformHasCapability( const char* namePtr ) const;

    /// @param zoneNamePtr cut to 99 characters; null fails nuvAssert, nothing stored
    void localTimeOffsetAndZone( int offsetSeconds, const char* zoneNamePtr );
    void localTimeOffsetAndZone( int* offsetSecondsPtr, std::string* zoneNamePtr ) const;
    /// @param addressPtr cut to 19 characters; null fails nuvAssert, nothing stored
    void httpProxyAddress( unsigned short port, const char* addressPtr );
    void httpProxyAddress( unsigned short* portPtr, std::string* addressPtr ) const;
    void httpProxyIsEnabled( bool enabled );
    bool httpProxyIsEnabled() const;
    void dnsIsEnabled( bool enabled );
    bool dnsIsEnabled() const;
    void ftpTimeout( unsigned int seconds );
    unsigned int ftpTimeout() const;
    void incrementCertificateStoreVersionNbr();
    unsigned int certificateStoreVersionNbr() const;
    /// @return false, with nothing stored, for more than 30000 bytes
    bool setKeystore( const Buffer& bytes );
    /// If the version differs from the store's: takes version and bytes and returns true. Otherwise
    /// both stay as they are.
    bool getKeystore( int* versionPtr, Buffer* bytesPtr ) const;

    void setMainAppStatus( const HealthAndSecurity::CommonAppStatus& common );
    void setSensorStatus( const HealthAndSecurity::CommonAppStatus& common,
                          const HealthAndSecurity::SensorStatus& sensor );
    /// @return false if a commit was going on: the outputs may be torn; try again later
    bool conditionalGetMainAppStatus( HealthAndSecurity::CommonAppStatus* commonPtr ) const;
    bool conditionalGetSensorStatus( HealthAndSecurity::CommonAppStatus* commonPtr,
                                     HealthAndSecurity::SensorStatus* sensorPtr ) const;

private:
    friend class Singleton< Global >;
    Global();
    ~Global() = default;

    Data& data() const;
    void initSharedMemory() const NUV_REQUIRES( myMutex );

    mutable Mt::Mutex myMutex; // before the semaphore
    mutable std::unique_ptr< Mt::Semaphore > mySemaphorePtr;
    mutable std::unique_ptr< Io::SharedMemory > mySharedMemoryPtr;
    mutable std::atomic< Data* > myDataPtr = nullptr;
    std::string myGroupName;
    bool myIncludeSelf = true;
    bool myIncludeAdministrators = true;
    bool myIncludeLocalSystem = true;
    PlatformFacts myPlatform;
};

static_assert( sizeof( Global::Data ) == 100108 );
static_assert( offsetof( Global::Data, dnsEnabled ) == 104 );
static_assert( offsetof( Global::Data, httpProxyAddressText ) == 108 );
static_assert( offsetof( Global::Data, ftpTimeoutValue ) == 140 );
static_assert( offsetof( Global::Data, keystoreBytes ) == 156 );
static_assert( offsetof( Global::Data, sensor ) == 30156 );
static_assert( offsetof( Global::Data, mainApp ) == 100008 );

} // namespace Nuv::Utils
