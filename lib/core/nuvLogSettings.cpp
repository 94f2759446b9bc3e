#include "nuvLogSettings.h"

#include <cstdint>
#include <syslog.h>

namespace Nuv::Log {

namespace {

using FacilityMap = Utils::StaticMap< const char*, int >;
constexpr FacilityMap::Pair ourFacilityPairs[] = {
    { "local0", LOG_LOCAL0 }, { "local1", LOG_LOCAL1 }, { "local2", LOG_LOCAL2 },
    { "local3", LOG_LOCAL3 }, { "local4", LOG_LOCAL4 }, { "local5", LOG_LOCAL5 },
    { "local6", LOG_LOCAL6 }, { "local7", LOG_LOCAL7 }, { "user", LOG_USER },
};
constexpr FacilityMap ourFacilityMap( ourFacilityPairs );
static_assert( ourFacilityMap.isSorted() );
static_assert( LOG_LOCAL6 == 176 && LOG_USER == 8 );

constexpr const char* ourDefaultDrainName = "main";
constexpr unsigned int ourDefaultSizeInK = 240;

/// In 32 bits.
std::uint64_t sizeOfK( unsigned int nbrOfKiB )
{
    return nbrOfKiB * std::uint32_t{ 1024 };
}

std::string lowerCase( const std::string& text )
{
    Utils::String lower( text );
    lower.makeLower();
    return lower;
}

/// The section below parent whose path, from there, agrees with the name in what a name keeps.
const Utils::Config::Node* findBelow( const Utils::Config::Node& parent, const std::string& prefix,
                                      const ZoneName& name )
{
    for ( const auto& [childName, childPtr] : parent.children() ) {
        const std::string path = prefix + childName;
        if ( ZoneName( path.c_str() ) == name )
            return childPtr;
        if ( name.view().starts_with( path + '/' ) ) {
            if ( const auto* const foundPtr = findBelow( *childPtr, path + '/', name ) )
                return foundPtr;
        }
    }
    return nullptr;
}

/// What is no port or no dotted address leaves the default.
Net::IpV4Address remoteAddress( const Utils::Config::Node& section,
                                const Net::IpV4Address& defaultAddress )
{
    std::uint16_t port = defaultAddress.port();
    const unsigned int number = section.uIntValue( "remotePort", port );
    if ( number <= 0xFFFF )
        port = static_cast< std::uint16_t >( number );
    const std::string text = section.stringValue( "remoteAddr", "" );
    try {
        if ( !text.empty() )
            return Net::IpV4Address( port, text );
    } catch ( const Net::IpAddrException& ) {
    }
    return Net::IpV4Address( port, defaultAddress.addrCode() );
}

} // namespace

Drain::TimeMode Settings::timeMode() const
{
    return myConfig.stringValue( "", "timemode", "local" ) == "utc" ? Drain::universalTime
                                                                    : Drain::localTime;
}

int Settings::facility() const
{
    const auto found =
        ourFacilityMap.find( myConfig.stringValue( "syslog", "facility", "" ).c_str() );
    return found == ourFacilityMap.end() ? LOG_LOCAL6 : found->value;
}

bool Settings::isLogAppEnabled() const
{
    return myConfig.stringValue( "logApp", "enabled", "false" ) == "true";
}

DrainName Settings::logAppName() const
{
    return DrainName( myConfig.stringValue( "logApp", "zoneAndDrainName", "logApp" ).c_str() );
}

Drain::Options Settings::logAppOptions() const
{
    Drain::Options options;
    options.type = Drain::Options::file;
    options.fileName = myConfig.stringValue( "logApp", "fileName", "main.log" );
    options.maxSize =
        sizeOfK( myConfig.uIntValue( "logApp", "fileMaxSizeInK", ourDefaultSizeInK ) );
    return options;
}

Drain::Options Settings::fifoOptions() const
{
    Drain::Options options;
    options.type = Drain::Options::fifo;
    options.fileName = myConfig.stringValue( "logApp", "fifoName", "logAppFifo" );
    options.maxSize = sizeOfK( myConfig.uIntValue( "logApp", "fifoSizeInK", ourDefaultSizeInK ) );
    if ( options.maxSize < Io::InterprocessFifo::minSize ||
         options.maxSize > Io::InterprocessFifo::maxSize )
        options.maxSize = sizeOfK( ourDefaultSizeInK );
    return options;
}

const Utils::Config::Node* Settings::findNamed( const char* kindPtr, const ZoneName& name ) const
{
    const Utils::Config::Node* const parentPtr = myConfig.findKey( kindPtr );
    return parentPtr == nullptr ? nullptr : findBelow( *parentPtr, "", name );
}

Zone Settings::zone( const ZoneName& name ) const
{
    Zone zone{ warning, defaultZoneFlags, name, ourDefaultDrainName };
    const Utils::Config::Node* const sectionPtr = findNamed( "zone", name );
    if ( sectionPtr == nullptr )
        return zone;
    Severity severity = warning;
    severityFromKeyword( lowerCase( sectionPtr->stringValue( "severity", "" ) ).c_str(),
                         &severity );
    zone.mySeverity = severity;
    if ( sectionPtr->findValue( "flags" ) != nullptr )
        zone.myFlags = zoneFlagsFromText( sectionPtr->stringValue( "flags", "" ) );
    zone.myDrainName = sectionPtr->stringValue( "drain", ourDefaultDrainName ).c_str();
    return zone;
}

void Settings::drainOptions( const DrainName& name, Drain::Options* optionsPtr ) const
{
    const Utils::Config::Node* const sectionPtr = findNamed( "drain", name );
    if ( sectionPtr == nullptr )
        return;
    Drain::typeFromKeyword( lowerCase( sectionPtr->stringValue( "type", "" ) ).c_str(),
                            &optionsPtr->type );
    if ( optionsPtr->type == Drain::Options::file ) {
        optionsPtr->fileName =
            sectionPtr->stringValue( "fileName", std::string( name.view() ) + ".log" );
        optionsPtr->maxSize =
            sizeOfK( sectionPtr->uIntValue( "fileMaxSizeInK", ourDefaultSizeInK ) );
    } else if ( optionsPtr->type == Drain::Options::http ) {
        optionsPtr->remoteAddr = remoteAddress( *sectionPtr, optionsPtr->remoteAddr );
    }
}

} // namespace Nuv::Log
