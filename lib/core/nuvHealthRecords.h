#pragma once

#include "nuv.h"

#include <cstddef>
#include <cstdint>

/// The health records as they lie in the shared segment "global-data": 32-bit little-endian words
/// and fixed texts, without pointers, the same for both widths. docs/formats.md has the tables.
namespace Nuv::HealthAndSecurity {

/// What an application is doing. Values beyond the list are the applications' own.
enum ExtendedExecutionStates : std::uint32_t
{
    stateUnknown = 0,
    stateStarting = 1,
    stateRunning = 2,
    stateDegraded = 3, ///< works, but not as it should
    stateUpdating = 4,
    stateStopping = 5,
    stateStopped = 6,
    stateFailed = 7
};

/// @return "unknown", "starting" ...; "state" for a value beyond the list
NUV_API const char* executionStateName( std::uint32_t state );

/// Span of time over which a virtual sensor's bucket counts.
enum BucketName : std::uint32_t
{
    lastMinute = 0,
    lastHour = 1,
    lastDay = 2
};

inline constexpr unsigned int nbrOfBuckets = 3;
inline constexpr unsigned int nbrOfBucketValues = 7;

/// @return "last-minute", "last-hour", "last-day"; "bucket" for any other value
NUV_API const char* bucketNameText( std::uint32_t bucket );

inline constexpr std::size_t maxNbrOfTextChars = 64;

/// A 64-bit word at an offset that is a multiple of 4 only.
using UInt64 __attribute__( ( aligned( 4 ) ) ) = std::uint64_t;

/// What every application publishes.
struct CommonAppStatus
{
    UInt64 commitTime;                    ///< of the last commit, ns since 1970-01-01 UTC
    std::uint32_t executionState;         ///< ExtendedExecutionStates
    std::uint32_t executionParameters[4]; ///< qualify the state
    char statusText[maxNbrOfTextChars + 1];
    char myPadding[3];
};
static_assert( sizeof( CommonAppStatus ) == 96 && alignof( CommonAppStatus ) == 4 );
static_assert( offsetof( CommonAppStatus, executionParameters ) == 12 );
static_assert( offsetof( CommonAppStatus, statusText ) == 28 );

struct TopService
{
    /// IP protocol of the service; other values are IP protocol numbers.
    enum ProtocolType : std::uint32_t
    {
        protocolNone = 0,
        protocolIcmp = 1,
        protocolTcp = 6,
        protocolUdp = 17
    };

    std::uint32_t protocol;
    std::uint32_t values[2];
};
static_assert( sizeof( TopService ) == 12 );

/// @return "none", "icmp", "tcp", "udp"; "protocol" for any other value
NUV_API const char* protocolTypeName( std::uint32_t protocol );

inline constexpr unsigned int maxNbrOfTopServices = 10;
inline constexpr unsigned int maxNbrOfVirtualsSensors = 256;

struct VirtualSensorStatus
{
    std::uint8_t flag;
    char name[maxNbrOfTextChars + 1]; ///< empty for an unused sensor
    char myPadding[2];
    std::uint32_t buckets[nbrOfBuckets][nbrOfBucketValues];
    TopService topServices[maxNbrOfTopServices];
};
static_assert( sizeof( VirtualSensorStatus ) == 272 );
static_assert( offsetof( VirtualSensorStatus, name ) == 1 );
static_assert( offsetof( VirtualSensorStatus, buckets ) == 68 );
static_assert( offsetof( VirtualSensorStatus, topServices ) == 152 );

struct SensorStatus
{
    char myReserved1[12];
    char myReserved2[16]; ///< zeroed when a setter is constructed
    char myReserved3[68];
    std::uint32_t sensorLoadValue;
    std::uint32_t memoryUsedPct;
    std::uint32_t missedPacketPct;
    std::int32_t meshrankTimeOfLastUpdateSuccess; ///< seconds since 1970-01-01 UTC
    std::uint32_t meshrankEnabled;                ///< 0 or 1
    std::uint32_t feedshareNumOfFailures;
    VirtualSensorStatus virtualSensors[maxNbrOfVirtualsSensors];
};
static_assert( sizeof( SensorStatus ) == 69752 );
static_assert( offsetof( SensorStatus, sensorLoadValue ) == 96 );
static_assert( offsetof( SensorStatus, virtualSensors ) == 120 );

/// Main application: version word and record, as the segment holds them.
struct MainAppRecord
{
    std::uint32_t version;
    CommonAppStatus common;
};
static_assert( sizeof( MainAppRecord ) == 100 );

struct SensorRecord
{
    std::uint32_t version;
    CommonAppStatus common;
    SensorStatus sensor;
};
static_assert( sizeof( SensorRecord ) == 69852 );

} // namespace Nuv::HealthAndSecurity
