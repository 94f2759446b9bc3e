#include "nuvctlZones.h"

#include <cstring>
#include <iostream>

namespace Nuv::Ctl {

namespace {

template < class T >
T at( const std::string& bytes, std::size_t offset )
{
    T value;
    std::memcpy( &value, bytes.data() + offset, sizeof( value ) );
    return value;
}

std::string nameAt( const std::string& bytes, std::size_t offset )
{
    return std::string( bytes.data() + offset, ::strnlen( bytes.data() + offset, 16 ) );
}

int bounded( int count, int limit )
{
    return count < 0 ? 0 : count > limit ? limit : count;
}

void printTable( const ZoneTable& zoneTable )
{
    Table table( { "ZONE", "THRESHOLD", "FLAGS", "DRAIN" } );
    for ( const ZoneTable::Zone& zone : zoneTable.myZones )
        table.add( { zone.myName, Log::severityKeyword( zone.mySeverity ),
                     zone.myFlags == 0 ? "-" : Log::zoneFlagsText( zone.myFlags ), zone.myDrain } );
    table.print();
    for ( const auto& [name, count] : zoneTable.myLostMessages )
        std::cout << "drain " << printable( name ) << " has lost " << count << " messages\n";
    if ( zoneTable.mySeverityOverride )
        std::cout << "zones opened from now on start at threshold "
                  << Log::severityKeyword( *zoneTable.mySeverityOverride ) << '\n';
    if ( zoneTable.myFlagsOverride )
        std::cout << "zones opened from now on start with the flags "
                  << Log::zoneFlagsText( *zoneTable.myFlagsOverride ) << '\n';
    for ( const auto& [name, severity] : zoneTable.myPresets ) {
        if ( zoneTable.find( name ) == nullptr )
            std::cout << "zone " << printable( name ) << " will start at threshold "
                      << Log::severityKeyword( severity ) << '\n';
    }
}

Json tableJson( const ZoneTable& zoneTable )
{
    Json document = { { "zones", Json::array() } };
    for ( const ZoneTable::Zone& zone : zoneTable.myZones )
        document["zones"].push_back( { { "name", zone.myName },
                                       { "severity", Log::severityKeyword( zone.mySeverity ) },
                                       { "flags", Log::zoneFlagsText( zone.myFlags ) },
                                       { "drain", zone.myDrain } } );
    document["severityOverride"] =
        zoneTable.mySeverityOverride ? Json( Log::severityKeyword( *zoneTable.mySeverityOverride ) )
                                     : Json( nullptr );
    document["flagsOverride"] = zoneTable.myFlagsOverride
                                    ? Json( Log::zoneFlagsText( *zoneTable.myFlagsOverride ) )
                                    : Json( nullptr );
    document["lostMessages"] = zoneTable.myLostMessages;
    document["presets"] = Json::object();
    for ( const auto& [name, severity] : zoneTable.myPresets )
        document["presets"][name] = Log::severityKeyword( severity );
    return document;
}

} // namespace

const ZoneTable::Zone* ZoneTable::find( const std::string& name ) const
{
    for ( const Zone& zone : myZones ) {
        if ( zone.myName == name )
            return &zone;
    }
    return nullptr;
}

std::optional< ZoneTable > ZoneTable::parse( const std::string& bytes )
{
    using Data = Log::ConfigManager::Data;
    using Preset = Log::ConfigManager::Preset;
    if ( bytes.size() != sizeof( Data ) )
        return std::nullopt;
    ZoneTable table;
    if ( bytes[offsetof( Data, mySeverityOverrideSet )] != 0 )
        table.mySeverityOverride = static_cast< Log::Severity >(
            at< std::int32_t >( bytes, offsetof( Data, myOverrideSeverity ) ) );
    if ( bytes[offsetof( Data, myFlagsOverrideSet )] != 0 )
        table.myFlagsOverride = at< std::uint32_t >( bytes, offsetof( Data, myOverrideFlags ) );
    const int nbrOfZones =
        bounded( at< std::int32_t >( bytes, offsetof( Data, myNbrOfZones ) ), Data::maxNbrOfZones );
    for ( int i = 0; i < nbrOfZones; ++i ) {
        const std::size_t offset =
            offsetof( Data, myZones ) + static_cast< std::size_t >( i ) * sizeof( Log::Zone );
        table.myZones.push_back(
            { nameAt( bytes, offset + offsetof( Log::Zone, myName ) ),
              static_cast< Log::Severity >( at< std::int32_t >( bytes, offset ) ),
              at< std::uint32_t >( bytes, offset + offsetof( Log::Zone, myFlags ) ),
              nameAt( bytes, offset + offsetof( Log::Zone, myDrainName ) ) } );
    }
    const int nbrOfPresets = bounded(
        at< std::uint16_t >( bytes, offsetof( Data, myNbrOfPresets ) ), Data::maxNbrOfPresets );
    for ( int i = 0; i < nbrOfPresets; ++i ) {
        const std::size_t offset =
            offsetof( Data, myPresets ) + static_cast< std::size_t >( i ) * sizeof( Preset );
        table.myPresets[nameAt( bytes, offset )] = static_cast< Log::Severity >(
            at< std::int32_t >( bytes, offset + offsetof( Preset, mySeverity ) ) );
    }
    return table;
}

void ZoneTable::parseLostMessages( const std::string& bytes )
{
    using Slot = Log::LostMessages::Slot;
    for ( std::size_t offset = 0; offset + sizeof( Slot ) <= bytes.size();
          offset += sizeof( Slot ) ) {
        const auto count = at< std::uint32_t >( bytes, offset + offsetof( Slot, myCount ) );
        if ( count != 0 && at< std::uint32_t >( bytes, offset ) == Log::LostMessages::inUse )
            myLostMessages[nameAt( bytes, offset + offsetof( Slot, myName ) )] = count;
    }
}

std::optional< ZoneTable > ZoneTable::read()
{
    const Tools::Inventory inventory =
        Tools::Inventory::read( Installation::find().myIpcDirectory );
    const Tools::NamedSegment* const segmentPtr = inventory.findSegment( "LogConfigManager" );
    if ( segmentPtr == nullptr || !segmentPtr->mySegment )
        return std::nullopt;
    std::optional< ZoneTable > table =
        parse( Tools::copySegment( *segmentPtr->mySegment, sizeof( Log::ConfigManager::Data ),
                                   inventory.guardSetId( *segmentPtr ) ) );
    const Tools::NamedSegment* const lostPtr =
        inventory.findSegment( Log::LostMessages::segmentName );
    if ( table && lostPtr != nullptr && lostPtr->mySegment )
        table->parseLostMessages( Tools::copySegment( *lostPtr->mySegment,
                                                      sizeof( Log::LostMessages::Table ),
                                                      inventory.guardSetId( *lostPtr ) ) );
    return table;
}

int listZones( const CommonOptions& common )
{
    const std::optional< ZoneTable > table = ZoneTable::read();
    if ( common.myJson )
        printJson( tableJson( table.value_or( ZoneTable() ) ) );
    else if ( table )
        printTable( *table );
    if ( table )
        return good;
    return complain(
        "there is no zone table: no process of this installation logs just now (or this "
        "user may not read it)" );
}

} // namespace Nuv::Ctl
