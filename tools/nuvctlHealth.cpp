#include "nuvctlHealth.h"

#include "nuvGlobal.h"
#include "nuvTime.h"
#include "nuvVersionedRecord.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <unistd.h>

namespace Nuv::Ctl {

namespace {

using namespace HealthAndSecurity;
using Tools::fieldText;
using Data = Utils::Global::Data;

// --- reading ------------------------------------------------------------------------------------

/// One attempt at a record that lies in a segment attached for reading only.
bool readOnce( const std::uint32_t* versionPtr, HealthRecord* recordPtr,
               const VersionedRecord::Part* partsPtr, int nbrOfParts )
{
    std::memcpy( &recordPtr->myVersion, versionPtr, sizeof( recordPtr->myVersion ) );
    // Of the word a read takes loads alone.
    recordPtr->myIsWhole =
        VersionedRecord::read( const_cast< std::uint32_t* >( versionPtr ), partsPtr, nbrOfParts );
    if ( !recordPtr->myIsWhole )
        ++recordPtr->myNbrOfTornReads;
    return recordPtr->myIsWhole;
}

VersionedRecord::Part part( const void* sharedPtr, void* privatePtr, std::size_t nbrOfBytes )
{
    return { const_cast< void* >( sharedPtr ), privatePtr, nbrOfBytes };
}

bool readBoth( const Data& data, HealthLook* lookPtr )
{
    HealthRecord& mainApp = lookPtr->myMainApp;
    HealthRecord& sensor = lookPtr->mySensor;
    if ( !mainApp.myIsWhole ) {
        const VersionedRecord::Part parts[] = {
            part( &data.mainApp.common, &mainApp.myCommon, sizeof( CommonAppStatus ) ) };
        readOnce( &data.mainApp.version, &mainApp, parts, 1 );
    }
    if ( !sensor.myIsWhole ) {
        const VersionedRecord::Part parts[] = {
            part( &data.sensor.common, &sensor.myCommon, sizeof( CommonAppStatus ) ),
            part( &data.sensor.sensor, lookPtr->mySensorStatusPtr.get(), sizeof( SensorStatus ) ) };
        readOnce( &data.sensor.version, &sensor, parts, 2 );
    }
    return mainApp.myIsWhole && sensor.myIsWhole;
}

bool isUsed( const VirtualSensorStatus& sensor )
{
    return sensor.name[0] != '\0';
}

bool isUsed( const TopService& service )
{
    return service.protocol != TopService::protocolNone || service.values[0] != 0 ||
           service.values[1] != 0;
}

/// Calls function( number, virtual sensor ) for those in use.
template < class F >
void forEachUsed( const HealthLook& look, F function )
{
    for ( unsigned int i = 0; i < maxNbrOfVirtualsSensors; ++i ) {
        if ( isUsed( look.mySensorStatusPtr->virtualSensors[i] ) )
            function( i, look.mySensorStatusPtr->virtualSensors[i] );
    }
}

/// "running", or "9" for a state of the application's own.
std::string stateText( std::uint32_t state )
{
    const std::string name = executionStateName( state );
    return name != "state" ? name : std::to_string( state );
}

std::string protocolText( std::uint32_t protocol )
{
    const std::string name = protocolTypeName( protocol );
    return name != "protocol" ? name : std::to_string( protocol );
}

std::int64_t wholeSeconds( std::uint64_t ns )
{
    return static_cast< std::int64_t >( ns / Utils::Time::nsPerSec );
}

double ageSeconds( const HealthLook& look, const HealthRecord& record )
{
    const std::uint64_t commit = record.myCommon.commitTime;
    return look.myTimeNs <= commit ? 0.0
                                   : static_cast< double >( look.myTimeNs - commit ) /
                                         static_cast< double >( Utils::Time::nsPerSec );
}

// --- text ---------------------------------------------------------------------------------------

std::string ageText( const HealthLook& look, const HealthRecord& record )
{
    const double seconds = ageSeconds( look, record );
    if ( !record.isCommitted() )
        return "never";
    char text[32];
    std::snprintf( text, sizeof( text ), "%.1f s", seconds );
    return seconds < 100 ? text
                         : Ctl::ageText( wholeSeconds( look.myTimeNs ),
                                         wholeSeconds( record.myCommon.commitTime ) );
}

void addRow( const HealthLook& look, const char* namePtr, const HealthRecord& record,
             Table* tablePtr )
{
    std::string parameters;
    for ( const std::uint32_t parameter : record.myCommon.executionParameters )
        parameters += ( parameters.empty() ? "" : " " ) + std::to_string( parameter );
    tablePtr->add(
        { namePtr, record.isCommitted() ? stateText( record.myCommon.executionState ) : "-",
          record.myIsWhole ? ageText( look, record ) : "being committed",
          std::to_string( record.nbrOfCommits() ), std::to_string( record.myNbrOfTornReads ),
          parameters, fieldText( record.myCommon.statusText ) } );
}

void printSensor( const HealthLook& look )
{
    const SensorStatus& status = *look.mySensorStatusPtr;
    std::cout << "\nsensor: load " << status.sensorLoadValue << ", memory used "
              << status.memoryUsedPct << " %, packets missed " << status.missedPacketPct
              << " %, updates " << ( status.meshrankEnabled != 0 ? "on" : "off" ) << " (last "
              << ( status.meshrankTimeOfLastUpdateSuccess == 0
                       ? std::string( "never" )
                       : Ctl::ageText( wholeSeconds( look.myTimeNs ),
                                       status.meshrankTimeOfLastUpdateSuccess ) )
              << "), " << status.feedshareNumOfFailures << " failures\n";
    Table buckets(
        { "NO", "VIRTUAL SENSOR", "FLAG", "BUCKET", "1", "2", "3", "4", "5", "6", "7" } );
    Table services( { "NO", "VIRTUAL SENSOR", "RANK", "PROTOCOL", "1", "2" } );
    forEachUsed( look, [&]( unsigned int number, const VirtualSensorStatus& sensor ) {
        const std::string name = fieldText( sensor.name );
        for ( std::uint32_t bucket = 0; bucket < nbrOfBuckets; ++bucket ) {
            std::vector< std::string > row = { std::to_string( number ), name,
                                               std::to_string( sensor.flag ),
                                               bucketNameText( bucket ) };
            for ( const std::uint32_t value : sensor.buckets[bucket] )
                row.push_back( std::to_string( value ) );
            buckets.add( std::move( row ) );
        }
        for ( unsigned int rank = 0; rank < maxNbrOfTopServices; ++rank ) {
            const TopService& service = sensor.topServices[rank];
            if ( isUsed( service ) )
                services.add( { std::to_string( number ), name, std::to_string( rank ),
                                protocolText( service.protocol ),
                                std::to_string( service.values[0] ),
                                std::to_string( service.values[1] ) } );
        }
    } );
    for ( const Table& table : { buckets, services } ) {
        if ( !table.isEmpty() )
            std::cout << '\n';
        table.print();
    }
}

void print( const HealthLook& look )
{
    Table table( { "RECORD", "STATE", "COMMITTED", "COMMITS", "TORN", "PARAMETERS", "TEXT" } );
    addRow( look, "main application", look.myMainApp, &table );
    addRow( look, "sensor", look.mySensor, &table );
    table.print();
    if ( look.mySensor.isCommitted() )
        printSensor( look );
}

// --- JSON ---------------------------------------------------------------------------------------

Json recordJson( const HealthLook& look, const HealthRecord& record )
{
    const CommonAppStatus& common = record.myCommon;
    return { { "committed", record.isCommitted() },
             { "whole", record.myIsWhole },
             { "commits", record.nbrOfCommits() },
             { "tornReads", record.myNbrOfTornReads },
             { "commitTime", std::uint64_t{ common.commitTime } },
             { "ageSeconds",
               record.isCommitted() ? Json( ageSeconds( look, record ) ) : Json( nullptr ) },
             { "state", stateText( common.executionState ) },
             { "stateNbr", common.executionState },
             { "parameters", common.executionParameters },
             { "text", fieldText( common.statusText ) } };
}

Json virtualSensorJson( unsigned int number, const VirtualSensorStatus& sensor )
{
    Json json = { { "number", number },
                  { "name", fieldText( sensor.name ) },
                  { "flag", sensor.flag },
                  { "buckets", Json::object() },
                  { "topServices", Json::array() } };
    for ( std::uint32_t bucket = 0; bucket < nbrOfBuckets; ++bucket )
        json["buckets"][bucketNameText( bucket )] = sensor.buckets[bucket];
    for ( const TopService& service : sensor.topServices ) {
        if ( isUsed( service ) )
            json["topServices"].push_back( { { "protocol", protocolText( service.protocol ) },
                                             { "protocolNbr", service.protocol },
                                             { "values", service.values } } );
    }
    return json;
}

Json toJson( const HealthLook& look )
{
    const SensorStatus& status = *look.mySensorStatusPtr;
    Json sensor = recordJson( look, look.mySensor );
    sensor.update( { { "load", status.sensorLoadValue },
                     { "memoryUsedPct", status.memoryUsedPct },
                     { "missedPacketPct", status.missedPacketPct },
                     { "meshrankTimeOfLastUpdateSuccess", status.meshrankTimeOfLastUpdateSuccess },
                     { "meshrankEnabled", status.meshrankEnabled },
                     { "feedshareNumOfFailures", status.feedshareNumOfFailures },
                     { "virtualSensors", Json::array() } } );
    forEachUsed( look, [&]( unsigned int number, const VirtualSensorStatus& virtualSensor ) {
        sensor["virtualSensors"].push_back( virtualSensorJson( number, virtualSensor ) );
    } );
    return { { "time", look.myTimeNs },
             { "mainApp", recordJson( look, look.myMainApp ) },
             { "sensor", std::move( sensor ) } };
}

// --- metrics ------------------------------------------------------------------------------------

/// Metrics in the order of their first use, each with its samples.
class Metrics
{
public:
    using Labels = std::vector< std::pair< const char*, std::string > >;

    void add( const char* namePtr, const char* typePtr, const char* helpPtr, const Labels& labels,
              const std::string& value );
    std::string text() const;

private:
    static std::string escaped( const std::string& value );

    struct Metric
    {
        std::string myName;
        std::string myText;
    };
    std::vector< Metric > myMetrics;
};

std::string Metrics::escaped( const std::string& value )
{
    std::string result;
    for ( const char c : printable( value ) ) {
        if ( c == '"' || c == '\\' )
            result += '\\';
        result += c;
    }
    return result;
}

void Metrics::add( const char* namePtr, const char* typePtr, const char* helpPtr,
                   const Labels& labels, const std::string& value )
{
    auto iter = std::find_if( myMetrics.begin(), myMetrics.end(),
                              [&]( const Metric& metric ) { return metric.myName == namePtr; } );
    if ( iter == myMetrics.end() ) {
        const std::string name = namePtr;
        myMetrics.push_back( { name, "# HELP " + name + " " + helpPtr + "\n# TYPE " + name + " " +
                                         typePtr + "\n" } );
        iter = myMetrics.end() - 1;
    }
    std::string list;
    for ( const auto& [label, text] : labels )
        list += ( list.empty() ? "" : "," ) + std::string( label ) + "=\"" + escaped( text ) + "\"";
    iter->myText += iter->myName + ( list.empty() ? " " : "{" + list + "} " ) + value + "\n";
}

std::string Metrics::text() const
{
    std::string all;
    for ( const Metric& metric : myMetrics )
        all += metric.myText;
    return all;
}

void addRecord( const HealthLook& look, const char* namePtr, const HealthRecord& record,
                Metrics* metricsPtr )
{
    const Metrics::Labels labels = { { "record", namePtr } };
    metricsPtr->add( "nuv_health_torn_reads", "gauge",
                     "Attempts of this look that a commit overlapped.", labels,
                     std::to_string( record.myNbrOfTornReads ) );
    metricsPtr->add( "nuv_health_commits_total", "counter", "Commits of the record, modulo 2^31.",
                     labels, std::to_string( record.nbrOfCommits() ) );
    if ( !record.myIsWhole || !record.isCommitted() )
        return;
    char age[32];
    std::snprintf( age, sizeof( age ), "%.3f", ageSeconds( look, record ) );
    metricsPtr->add( "nuv_health_age_seconds", "gauge", "Time since the last commit.", labels,
                     age );
    metricsPtr->add( "nuv_health_state", "gauge",
                     "Execution state: 1 starting, 2 running, 3 degraded, 4 updating, "
                     "5 stopping, 6 stopped, 7 failed.",
                     labels, std::to_string( record.myCommon.executionState ) );
    for ( std::size_t i = 0; i < std::size( record.myCommon.executionParameters ); ++i )
        metricsPtr->add( "nuv_health_parameter", "gauge", "What qualifies the state.",
                         { { "record", namePtr }, { "number", std::to_string( i ) } },
                         std::to_string( record.myCommon.executionParameters[i] ) );
}

void addSensor( const SensorStatus& status, Metrics* metricsPtr )
{
    const struct
    {
        const char* myNamePtr;
        const char* myHelpPtr;
        std::string myValue;
    } rows[] = {
        { "nuv_sensor_load", "Load of the sensor.", std::to_string( status.sensorLoadValue ) },
        { "nuv_sensor_memory_used_percent", "Memory in use.",
          std::to_string( status.memoryUsedPct ) },
        { "nuv_sensor_missed_packets_percent", "Packets that were not examined.",
          std::to_string( status.missedPacketPct ) },
        { "nuv_sensor_update_time_seconds", "Last successful update, since 1970; 0 for none.",
          std::to_string( status.meshrankTimeOfLastUpdateSuccess ) },
        { "nuv_sensor_update_enabled", "Whether updates are on.",
          std::to_string( status.meshrankEnabled ) },
        { "nuv_sensor_failures", "Failures of the feed.",
          std::to_string( status.feedshareNumOfFailures ) } };
    for ( const auto& row : rows )
        metricsPtr->add( row.myNamePtr, "gauge", row.myHelpPtr, {}, row.myValue );
}

void addVirtualSensor( unsigned int number, const VirtualSensorStatus& sensor, Metrics* metricsPtr )
{
    const std::string name = fieldText( sensor.name );
    const auto add = [&]( const char* metricPtr, const char* helpPtr, Metrics::Labels more,
                          std::size_t index, std::uint32_t value ) {
        Metrics::Labels labels = { { "number", std::to_string( number ) }, { "sensor", name } };
        labels.insert( labels.end(), more.begin(), more.end() );
        labels.emplace_back( "value", std::to_string( index + 1 ) );
        metricsPtr->add( metricPtr, "gauge", helpPtr, labels, std::to_string( value ) );
    };
    for ( std::uint32_t bucket = 0; bucket < nbrOfBuckets; ++bucket ) {
        for ( std::size_t i = 0; i < nbrOfBucketValues; ++i )
            add( "nuv_virtual_sensor", "Values of a virtual sensor over a span of time.",
                 { { "bucket", bucketNameText( bucket ) } }, i, sensor.buckets[bucket][i] );
    }
    for ( std::size_t rank = 0; rank < maxNbrOfTopServices; ++rank ) {
        const TopService& service = sensor.topServices[rank];
        for ( std::size_t i = 0; i < 2 && isUsed( service ); ++i )
            add( "nuv_virtual_sensor_service", "Values of a virtual sensor's top services.",
                 { { "rank", std::to_string( rank ) },
                   { "protocol", protocolText( service.protocol ) } },
                 i, service.values[i] );
    }
}

// --- the command --------------------------------------------------------------------------------

int showOnce( const CommonOptions& common, const HealthOptions& options )
{
    const std::string directory = Installation::find().myIpcDirectory;
    const std::optional< HealthLook > look = HealthLook::take( directory );
    if ( !look )
        return complain( "there is no segment global-data, or this user may not read it: no "
                         "process that commits its health runs" );
    if ( options.myPrometheus )
        std::cout << healthMetrics( *look );
    else if ( common.myJson && options.myWatch )
        std::cout << toJson( *look ).dump( -1, ' ', false, Json::error_handler_t::replace ) << '\n';
    else if ( common.myJson )
        printJson( toJson( *look ) );
    else
        print( *look );
    if ( look->myNbrOfUsers == 0 )
        return complain( "no process has the segment global-data: this is what the last ones "
                         "left" );
    if ( look->myMainApp.myIsWhole && look->mySensor.myIsWhole )
        return good;
    return complain( "a commit does not come to its end: its process was stopped, or killed within "
                     "it; the next commit mends the record" );
}

} // namespace

std::uint32_t HealthRecord::nbrOfCommits() const
{
    return myVersion & VersionedRecord::counterMask;
}

std::optional< HealthLook > HealthLook::take( const std::string& ipcDirectory )
{
    constexpr int maxNbrOfAttempts = 250;
    const Tools::Inventory inventory = Tools::Inventory::read( ipcDirectory );
    const Tools::NamedSegment* const segmentPtr = inventory.findSegment( "global-data" );
    if ( segmentPtr == nullptr || !segmentPtr->mySegment ||
         segmentPtr->mySegment->mySize != sizeof( Data ) )
        return std::nullopt;
    HealthLook look;
    look.myNbrOfUsers = segmentPtr->nbrOfAttached();
    look.mySensorStatusPtr = std::make_shared< SensorStatus >();
    for ( int i = 0; i < maxNbrOfAttempts; ++i ) {
        if ( i > 0 )
            ::usleep( 1000 );
        const Tools::SegmentView view( *segmentPtr->mySegment,
                                       inventory.guardSetId( *segmentPtr ) );
        if ( view.ptr() == nullptr )
            return std::nullopt;
        if ( readBoth( *reinterpret_cast< const Data* >( view.ptr() ), &look ) )
            break;
    }
    look.myTimeNs = Utils::Time().ns();
    return look;
}

std::string healthMetrics( const HealthLook& look )
{
    Metrics metrics;
    addRecord( look, "main-app", look.myMainApp, &metrics );
    addRecord( look, "sensor", look.mySensor, &metrics );
    if ( look.mySensor.myIsWhole && look.mySensor.isCommitted() ) {
        addSensor( *look.mySensorStatusPtr, &metrics );
        forEachUsed( look, [&]( unsigned int number, const VirtualSensorStatus& sensor ) {
            addVirtualSensor( number, sensor, &metrics );
        } );
    }
    return metrics.text();
}

int showHealth( const CommonOptions& common, const HealthOptions& options )
{
    if ( !options.myWatch )
        return showOnce( common, options );
    return watch( common, options.myIntervalMs, [&] { showOnce( common, options ); } );
}

} // namespace Nuv::Ctl
