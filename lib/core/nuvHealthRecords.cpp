#include "nuvHealthRecords.h"

#include "nuvUtils.h"

namespace Nuv::HealthAndSecurity {

namespace {

using NameMap = Utils::StaticMap< std::uint32_t, const char* >;

constexpr NameMap::Pair ourStates[] = {
    { stateUnknown, "unknown" },   { stateStarting, "starting" }, { stateRunning, "running" },
    { stateDegraded, "degraded" }, { stateUpdating, "updating" }, { stateStopping, "stopping" },
    { stateStopped, "stopped" },   { stateFailed, "failed" },
};
constexpr NameMap ourStateMap( ourStates );
static_assert( ourStateMap.isSorted() );

constexpr NameMap::Pair ourBuckets[] = {
    { lastMinute, "last-minute" },
    { lastHour, "last-hour" },
    { lastDay, "last-day" },
};
constexpr NameMap ourBucketMap( ourBuckets );
static_assert( ourBucketMap.isSorted() );

constexpr NameMap::Pair ourProtocols[] = {
    { TopService::protocolNone, "none" },
    { TopService::protocolIcmp, "icmp" },
    { TopService::protocolTcp, "tcp" },
    { TopService::protocolUdp, "udp" },
};
constexpr NameMap ourProtocolMap( ourProtocols );
static_assert( ourProtocolMap.isSorted() );

const char* nameIn( const NameMap& map, std::uint32_t value, const char* fallbackPtr )
{
    const auto* const pairPtr = map.find( value );
    return pairPtr != map.end() ? pairPtr->value : fallbackPtr;
}

} // namespace

const char* executionStateName( std::uint32_t state )
{
    return nameIn( ourStateMap, state, "state" );
}

const char* bucketNameText( std::uint32_t bucket )
{
    return nameIn( ourBucketMap, bucket, "bucket" );
}

const char* protocolTypeName( std::uint32_t protocol )
{
    return nameIn( ourProtocolMap, protocol, "protocol" );
}

} // namespace Nuv::HealthAndSecurity
