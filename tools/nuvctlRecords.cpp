#include "nuvctlRecords.h"

#include "nuvCrc.h"
#include "nuvGlobal.h"
#include "nuvHealthRecords.h"
#include "nuvLogConfigManager.h"
#include "nuvSubsystemInfo.h"
#include "nuvTime.h"
#include "nuvVersionedRecord.h"
#include "nuvctlEncode.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>

namespace Nuv::Ctl {

namespace {

using namespace HealthAndSecurity;
using ZoneTableData = Log::ConfigManager::Data;
using Utils::Global;
using ThreadArray = Mt::SubsystemInfo::ThreadDetailsArray;
using ThreadDetails = Mt::SubsystemInfo::ThreadDetails;

/// How a field's bytes are shown.
enum class Form
{
    number,       ///< unsigned; of more than its word's width: a list of words
    signedNumber, ///< of 32 bits
    text,         ///< up to its NUL
    nanoseconds,  ///< since 1970
    seconds,      ///< since 1970, signed
    version,      ///< a version word
    executionState,
    protocol,
    severity,
    zoneFlags,
    threadState,
    waitKind
};

struct Field
{
    const char* myNamePtr;
    std::size_t myOffset;
    std::size_t myNbrOfBytes;
    std::size_t myWidth; ///< of a number
    Form myForm;
};

template < class T >
using Element = std::remove_all_extents_t< std::remove_reference_t< T > >;

#define NUV_FIELD( name, Record, member, form )                                                    \
    Field                                                                                          \
    {                                                                                              \
        name, offsetof( Record, member ), sizeof( Record::member ),                                \
            sizeof( Element< decltype( Record::member ) > ), Form::form                            \
    }

constexpr Field ourSettings[] = {
    NUV_FIELD( "localTimeOffset", Global::Data, localTimeOffset, signedNumber ),
    NUV_FIELD( "timeZoneName", Global::Data, timeZoneName, text ),
    NUV_FIELD( "dnsEnabled", Global::Data, dnsEnabled, number ),
    NUV_FIELD( "httpProxyEnabled", Global::Data, httpProxyEnabled, number ),
    NUV_FIELD( "httpProxyPort", Global::Data, httpProxyPort, number ),
    NUV_FIELD( "httpProxyAddressText", Global::Data, httpProxyAddressText, text ),
    NUV_FIELD( "reserved", Global::Data, myReserved, number ),
    NUV_FIELD( "ftpTimeoutValue", Global::Data, ftpTimeoutValue, number ),
    NUV_FIELD( "certificateStoreVersion", Global::Data, certificateStoreVersion, number ),
    NUV_FIELD( "keystoreVersion", Global::Data, keystoreVersion, number ),
    NUV_FIELD( "keystoreLength", Global::Data, keystoreLength, number ) };

constexpr Field ourCommonFields[] = {
    { "commitTime", offsetof( CommonAppStatus, commitTime ), 8, 8, Form::nanoseconds },
    NUV_FIELD( "executionState", CommonAppStatus, executionState, executionState ),
    NUV_FIELD( "executionParameters", CommonAppStatus, executionParameters, number ),
    NUV_FIELD( "statusText", CommonAppStatus, statusText, text ) };

constexpr Field ourSensorFields[] = {
    NUV_FIELD( "sensorLoadValue", SensorStatus, sensorLoadValue, number ),
    NUV_FIELD( "memoryUsedPct", SensorStatus, memoryUsedPct, number ),
    NUV_FIELD( "missedPacketPct", SensorStatus, missedPacketPct, number ),
    NUV_FIELD( "meshrankTimeOfLastUpdateSuccess", SensorStatus, meshrankTimeOfLastUpdateSuccess,
               seconds ),
    NUV_FIELD( "meshrankEnabled", SensorStatus, meshrankEnabled, number ),
    NUV_FIELD( "feedshareNumOfFailures", SensorStatus, feedshareNumOfFailures, number ) };

constexpr Field ourVirtualSensorFields[] = {
    NUV_FIELD( "flag", VirtualSensorStatus, flag, number ),
    NUV_FIELD( "name", VirtualSensorStatus, name, text ),
    NUV_FIELD( "buckets[last-minute]", VirtualSensorStatus, buckets[0], number ),
    NUV_FIELD( "buckets[last-hour]", VirtualSensorStatus, buckets[1], number ),
    NUV_FIELD( "buckets[last-day]", VirtualSensorStatus, buckets[2], number ) };

constexpr Field ourServiceFields[] = { NUV_FIELD( "protocol", TopService, protocol, protocol ),
                                       NUV_FIELD( "values", TopService, values, number ) };

constexpr Field ourZoneTableFields[] = {
    NUV_FIELD( "severityOverrideSet", ZoneTableData, mySeverityOverrideSet, number ),
    NUV_FIELD( "overrideSeverity", ZoneTableData, myOverrideSeverity, severity ),
    NUV_FIELD( "flagsOverrideSet", ZoneTableData, myFlagsOverrideSet, number ),
    NUV_FIELD( "overrideFlags", ZoneTableData, myOverrideFlags, zoneFlags ),
    NUV_FIELD( "nbrOfZones", ZoneTableData, myNbrOfZones, signedNumber ) };

constexpr Field ourZoneFields[] = { NUV_FIELD( "severity", Log::Zone, mySeverity, severity ),
                                    NUV_FIELD( "flags", Log::Zone, myFlags, zoneFlags ),
                                    NUV_FIELD( "name", Log::Zone, myName, text ),
                                    NUV_FIELD( "drain", Log::Zone, myDrainName, text ) };

constexpr Field ourPresetFields[] = {
    NUV_FIELD( "name", Log::ConfigManager::Preset, myName, text ),
    NUV_FIELD( "severity", Log::ConfigManager::Preset, mySeverity, severity ) };

constexpr Field ourThreadFields[] = {
    NUV_FIELD( "inUse", ThreadDetails, myInUse, number ),
    NUV_FIELD( "processId", ThreadDetails, myProcessId, signedNumber ),
    NUV_FIELD( "state", ThreadDetails, myState, threadState ),
    NUV_FIELD( "waitKind", ThreadDetails, myWaitKind, waitKind ),
    NUV_FIELD( "waitObject", ThreadDetails, myWaitObject, signedNumber ),
    NUV_FIELD( "description", ThreadDetails, myDescription, text ),
    NUV_FIELD( "statusMessage", ThreadDetails, myStatusMessage, text ) };

constexpr Field ourRingFields[] = {
    NUV_FIELD( "fifoSize", Tools::RingHeader, myFifoSize, number ),
    NUV_FIELD( "readOffset", Tools::RingHeader, myReadOffset, number ),
    NUV_FIELD( "writeOffset", Tools::RingHeader, myWriteOffset, number ),
    NUV_FIELD( "nbrOfBytesFree", Tools::RingHeader, myNbrOfBytesFree, number ) };

#undef NUV_FIELD

// --- values -------------------------------------------------------------------------------------

std::string timeText( std::int64_t secondsSince1970 )
{
    const auto time = static_cast< std::time_t >( secondsSince1970 );
    std::tm parts{};
    char text[64];
    if ( secondsSince1970 == 0 || time != secondsSince1970 ||
         ::gmtime_r( &time, &parts ) == nullptr ||
         std::strftime( text, sizeof( text ), "%Y-%m-%d %H:%M:%S UTC", &parts ) == 0 )
        return {};
    return text;
}

/// The word of a list, or "" for a value beyond it.
std::string wordOf( std::uint64_t value, std::initializer_list< const char* > words )
{
    return value < words.size() ? words.begin()[value] : "";
}

std::string meaning( Form form, std::uint64_t value )
{
    const auto word = static_cast< std::uint32_t >( value );
    switch ( form ) {
    case Form::nanoseconds:
        return timeText( static_cast< std::int64_t >( value / Utils::Time::nsPerSec ) );
    case Form::seconds:
        return timeText( static_cast< std::int32_t >( word ) );
    case Form::version:
        return std::to_string( word & VersionedRecord::counterMask ) + " commits" +
               ( ( word & VersionedRecord::busyBit ) != 0 ? ", one is going on" : "" );
    case Form::executionState:
        return executionStateName( word );
    case Form::protocol:
        return protocolTypeName( word );
    case Form::severity:
        return wordOf( value, { "", "debug", "timing", "warning", "error", "fatal", "none" } );
    case Form::zoneFlags:
        return Log::zoneFlagsText( word );
    case Form::threadState:
        return wordOf( value, { "new", "running", "ended", "failed", "", "crashed" } );
    case Form::waitKind:
        return wordOf( value, { "none", "master semaphore", "semaphore", "events" } );
    case Form::number:
    case Form::signedNumber:
    case Form::text:
        break;
    }
    return {};
}

/// Collects the fields of one record.
class Parts
{
public:
    Parts( std::string_view bytes, RecordFields* fieldsPtr )
        : myBytes( bytes )
        , myFieldsPtr( fieldsPtr )
    {
    }

    /// @param width 1 to 8
    std::uint64_t number( std::size_t offset, std::size_t width ) const
    {
        std::uint64_t value = 0;
        std::memcpy( &value, myBytes.data() + offset, std::min( width, sizeof( value ) ) );
        return value;
    }
    std::uint32_t word( std::size_t offset ) const
    {
        return static_cast< std::uint32_t >( number( offset, sizeof( std::uint32_t ) ) );
    }

    template < std::size_t n >
    void add( const std::string& prefix, std::size_t base, const Field ( &fields )[n] )
    {
        for ( const Field& field : fields )
            add( prefix, base, field );
    }
    void add( const std::string& prefix, std::size_t base, const Field& field );
    void add( std::size_t offset, std::size_t nbrOfBytes, const std::string& name, Json value,
              const std::string& meaningText = {} )
    {
        myFieldsPtr->myFields.push_back(
            { offset, nbrOfBytes, name, std::move( value ), meaningText } );
    }

private:
    std::string_view myBytes;
    RecordFields* myFieldsPtr;
};

void Parts::add( const std::string& prefix, std::size_t base, const Field& field )
{
    const std::size_t offset = base + field.myOffset;
    const std::string name = prefix + field.myNamePtr;
    if ( field.myForm == Form::text ) {
        const char* const ptr = myBytes.data() + offset;
        add( offset, field.myNbrOfBytes, name,
             std::string( ptr, ::strnlen( ptr, field.myNbrOfBytes ) ) );
        return;
    }
    const std::uint64_t value = number( offset, field.myWidth );
    if ( field.myNbrOfBytes > field.myWidth ) {
        Json list = Json::array();
        for ( std::size_t at = 0; at < field.myNbrOfBytes; at += field.myWidth )
            list.push_back( number( offset + at, field.myWidth ) );
        add( offset, field.myNbrOfBytes, name, std::move( list ) );
    } else if ( field.myForm == Form::signedNumber || field.myForm == Form::seconds ) {
        add( offset, field.myNbrOfBytes, name, static_cast< std::int32_t >( value ),
             meaning( field.myForm, value ) );
    } else {
        add( offset, field.myNbrOfBytes, name, value, meaning( field.myForm, value ) );
    }
}

// --- records ------------------------------------------------------------------------------------

std::string indexed( const char* namePtr, std::size_t index )
{
    return std::string( namePtr ) + "[" + std::to_string( index ) + "].";
}

constexpr Field versionField( std::size_t offset )
{
    return { "version", offset, 4, 4, Form::version };
}

void addVirtualSensor( std::string_view bytes, std::size_t base, const std::string& prefix,
                       bool all, Parts* partsPtr )
{
    if ( !all && bytes[base + offsetof( VirtualSensorStatus, name )] == '\0' )
        return;
    partsPtr->add( prefix, base, ourVirtualSensorFields );
    for ( std::size_t i = 0; i < maxNbrOfTopServices; ++i ) {
        const std::size_t at =
            base + offsetof( VirtualSensorStatus, topServices ) + i * sizeof( TopService );
        if ( all || partsPtr->word( at ) != 0 || partsPtr->word( at + 4 ) != 0 ||
             partsPtr->word( at + 8 ) != 0 )
            partsPtr->add( prefix + indexed( "topServices", i ), at, ourServiceFields );
    }
}

void addGlobalData( std::string_view bytes, bool all, RecordFields* fieldsPtr )
{
    fieldsPtr->myKind = "global-data";
    Parts parts( bytes, fieldsPtr );
    parts.add( "", 0, ourSettings );
    // The keys themselves are nobody's to see here.
    const std::size_t length = parts.word( offsetof( Global::Data, keystoreLength ) );
    constexpr std::size_t keysAt = offsetof( Global::Data, keystoreBytes );
    fieldsPtr->myIsSound = length <= Global::maxNbrOfKeystoreBytes;
    const std::string_view keys =
        bytes.substr( keysAt, std::min( length, Global::maxNbrOfKeystoreBytes ) );
    parts.add( keysAt, Global::maxNbrOfKeystoreBytes, "keystoreBytes",
               std::to_string( keys.size() ) + " bytes, CRC-32 " +
                   std::to_string( Utils::Crc32::checksum( keys.data(), keys.size() ) ) );

    constexpr std::size_t sensorAt = offsetof( Global::Data, sensor );
    constexpr std::size_t statusAt = sensorAt + offsetof( SensorRecord, sensor );
    parts.add( "sensor.", sensorAt, versionField( offsetof( SensorRecord, version ) ) );
    parts.add( "sensor.", sensorAt + offsetof( SensorRecord, common ), ourCommonFields );
    parts.add( "sensor.", statusAt, ourSensorFields );
    for ( std::size_t i = 0; i < maxNbrOfVirtualsSensors; ++i )
        addVirtualSensor( bytes,
                          statusAt + offsetof( SensorStatus, virtualSensors ) +
                              i * sizeof( VirtualSensorStatus ),
                          "sensor." + indexed( "virtualSensors", i ), all, &parts );
    constexpr std::size_t mainAt = offsetof( Global::Data, mainApp );
    parts.add( "mainApp.", mainAt, versionField( offsetof( MainAppRecord, version ) ) );
    parts.add( "mainApp.", mainAt + offsetof( MainAppRecord, common ), ourCommonFields );
}

void addZoneTable( std::string_view bytes, bool all, RecordFields* fieldsPtr )
{
    fieldsPtr->myKind = "LogConfigManager";
    Parts parts( bytes, fieldsPtr );
    parts.add( "", 0, ourZoneTableFields );
    constexpr std::size_t nbrOfPresetsAt = offsetof( ZoneTableData, myNbrOfPresets );
    const auto nbrOfZones =
        static_cast< std::int32_t >( parts.word( offsetof( ZoneTableData, myNbrOfZones ) ) );
    const std::uint64_t nbrOfPresets = parts.number( nbrOfPresetsAt, 2 );
    fieldsPtr->myIsSound = nbrOfZones >= 0 && nbrOfZones <= ZoneTableData::maxNbrOfZones &&
                           nbrOfPresets <= ZoneTableData::maxNbrOfPresets;
    for ( int i = 0; i < ZoneTableData::maxNbrOfZones && ( all || i < nbrOfZones ); ++i ) {
        const auto index = static_cast< std::size_t >( i );
        parts.add( indexed( "zones", index ),
                   offsetof( ZoneTableData, myZones ) + index * sizeof( Log::Zone ),
                   ourZoneFields );
    }
    parts.add( nbrOfPresetsAt, 2, "nbrOfPresets", nbrOfPresets );
    for ( std::size_t i = 0; i < ZoneTableData::maxNbrOfPresets && ( all || i < nbrOfPresets );
          ++i )
        parts.add( indexed( "presets", i ),
                   offsetof( ZoneTableData, myPresets ) + i * sizeof( Log::ConfigManager::Preset ),
                   ourPresetFields );
}

void addThreadRecords( std::string_view bytes, bool all, RecordFields* fieldsPtr )
{
    fieldsPtr->myKind = "thread-records";
    Parts parts( bytes, fieldsPtr );
    parts.add( 0, 4, "header", parts.word( 0 ) );
    fieldsPtr->myIsSound = parts.word( 0 ) == ThreadArray::headerValue;
    for ( std::size_t i = 0; i < ThreadArray::nbrOfRecords; ++i ) {
        const std::size_t at = offsetof( ThreadArray, myRecords ) + i * sizeof( ThreadDetails );
        if ( all || parts.word( at + offsetof( ThreadDetails, myInUse ) ) != 0 )
            parts.add( indexed( "records", i ), at, ourThreadFields );
    }
}

void addRing( std::string_view bytes, RecordFields* fieldsPtr )
{
    const Tools::RingHeader header = Tools::RingHeader::parse( bytes );
    if ( !header.isSound( bytes.size() ) )
        return;
    fieldsPtr->myKind = "ring";
    Parts parts( bytes, fieldsPtr );
    parts.add( "", 0, ourRingFields );
    std::size_t offset = header.myReadOffset;
    std::size_t index = 0;
    for ( const std::string& entry : Tools::ringEntries( bytes, &fieldsPtr->myIsSound ) ) {
        const std::size_t size = ( entry.size() + 7 ) / 4 * 4;
        std::string name = indexed( "entries", index++ );
        name.pop_back();
        parts.add( Tools::RingHeader::nbrOfBytes + offset, size, name, entry );
        offset = ( offset + size ) % header.myFifoSize;
    }
}

// --- the command --------------------------------------------------------------------------------

/// @return false after a complaint
bool readSegment( const std::string& wanted, std::string* bytesPtr, bool* settledPtr )
{
    const Tools::Inventory inventory =
        Tools::Inventory::read( Installation::find().myIpcDirectory );
    const std::string name =
        Tools::flatName( wanted.rfind( "shm_", 0 ) == 0 ? wanted.substr( 4 ) : wanted );
    const Tools::NamedSegment* const segmentPtr = inventory.findSegment( name );
    if ( segmentPtr == nullptr || !segmentPtr->mySegment ) {
        complain( "no segment \"" + name + "\" in " + inventory.myDirectory +
                  "; see \"nuvctl ipc list\"" );
        return false;
    }
    *bytesPtr = Tools::copySettled( *segmentPtr->mySegment,
                                    static_cast< std::size_t >( segmentPtr->mySegment->mySize ),
                                    inventory.guardSetId( *segmentPtr ), settledPtr );
    if ( bytesPtr->empty() )
        complain( "the segment cannot be read by this user" );
    return !bytesPtr->empty();
}

void print( const RecordFields& record )
{
    Table table( { "OFFSET", "BYTES", "FIELD", "VALUE" } );
    for ( const RecordField& field : record.myFields ) {
        std::string value =
            field.myValue.is_string() ? field.myValue.get< std::string >() : field.myValue.dump();
        if ( !field.myMeaning.empty() )
            value += " (" + field.myMeaning + ")";
        table.add( { std::to_string( field.myOffset ), std::to_string( field.myNbrOfBytes ),
                     field.myName, value } );
    }
    table.print();
}

Json toJson( const RecordFields& record )
{
    Json fields = Json::array();
    for ( const RecordField& field : record.myFields ) {
        Json json = { { "offset", field.myOffset },
                      { "size", field.myNbrOfBytes },
                      { "field", field.myName },
                      { "value", field.myValue } };
        if ( !field.myMeaning.empty() )
            json["meaning"] = field.myMeaning;
        fields.push_back( std::move( json ) );
    }
    return { { "record", record.myKind }, { "sound", record.myIsSound }, { "fields", fields } };
}

} // namespace

RecordFields RecordFields::of( std::string_view bytes, bool all )
{
    RecordFields record;
    if ( bytes.size() == sizeof( Global::Data ) )
        addGlobalData( bytes, all, &record );
    else if ( bytes.size() == sizeof( ZoneTableData ) )
        addZoneTable( bytes, all, &record );
    else if ( bytes.size() == sizeof( ThreadArray ) )
        addThreadRecords( bytes, all, &record );
    else
        addRing( bytes, &record );
    return record;
}

int decodeRecord( const CommonOptions& common, const CodecOptions& options )
{
    std::string bytes;
    bool isSettled = true;
    if ( !( options.mySegment.empty() ? readInput( options.myFormat, &bytes )
                                      : readSegment( options.mySegment, &bytes, &isSettled ) ) )
        return problem;
    if ( !options.mySaveAs.empty() ) {
        std::ofstream file( options.mySaveAs, std::ios::binary | std::ios::trunc );
        file.write( bytes.data(), static_cast< std::streamsize >( bytes.size() ) );
        file.close();
        if ( !file )
            return complain( options.mySaveAs + " cannot be written: " + std::strerror( errno ) );
    }
    const RecordFields record = RecordFields::of( bytes, options.myAll );
    if ( record.myKind.empty() )
        return complain( std::to_string( bytes.size() ) +
                         " bytes: that is no shared record, and no "
                         "ring that is sound" );
    if ( common.myJson )
        printJson( toJson( record ) );
    else
        print( record );
    if ( !record.myIsSound )
        return complain( "the record is damaged: counts are beyond what it holds" );
    return isSettled ? good
                     : complain( "the record is being changed without pause: fields may not belong "
                                 "together" );
}

} // namespace Nuv::Ctl
