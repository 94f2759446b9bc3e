#include "nuvctlZones.h"

#include "nuvConfig.h"
#include "nuvEvent.h"
#include "nuvPathname.h"
#include "nuvSharedMemory.h"
#include "nuvSignalHandler.h"

#include <algorithm>
#include <csignal>
#include <iostream>

namespace Nuv::Ctl {

namespace {

using Data = Log::ConfigManager::Data;

/// What is asked for, understood.
struct Wish
{
    std::string myZone; ///< cut as the table cuts it; empty: all
    std::string mySeverityKeyword;
    std::optional< Log::Severity > mySeverity;
    std::optional< std::uint32_t > myFlags;
};

bool understandFlags( const std::string& text, std::uint32_t* flagsPtr )
{
    *flagsPtr = 0;
    std::size_t begin = 0;
    while ( ( begin = text.find_first_not_of( ",;+ \t", begin ) ) != std::string::npos ) {
        const std::size_t end = std::min( text.find_first_of( ",;+ \t", begin ), text.size() );
        const std::string word = text.substr( begin, end - begin );
        const std::uint32_t flag = Log::zoneFlagFromKeyword( word.c_str() );
        if ( flag == 0 ) {
            complain( "unknown flag \"" + word + "\"; there are " + Log::zoneFlagsText( 0x7F ) );
            return false;
        }
        *flagsPtr |= flag;
        begin = end;
    }
    return true;
}

bool understand( const ZonesSetOptions& options, Wish* wishPtr )
{
    wishPtr->myZone = Log::ZoneName( options.myZone.c_str() ).cStr();
    wishPtr->mySeverityKeyword = options.mySeverity;
    if ( !options.mySeverity.empty() ) {
        Log::Severity severity = Log::none;
        if ( !Log::severityFromKeyword( options.mySeverity.c_str(), &severity ) ) {
            complain( "unknown severity \"" + options.mySeverity +
                      "\"; there are debug, timing, warning, error, fatal, none" );
            return false;
        }
        wishPtr->mySeverity = severity;
    }
    std::uint32_t flags = 0;
    if ( options.myHasFlags ) {
        if ( !understandFlags( options.myFlags, &flags ) )
            return false;
        wishPtr->myFlags = flags;
    }
    if ( wishPtr->mySeverity || wishPtr->myFlags )
        return true;
    complain( "nothing to set: give --severity or --flags" );
    return false;
}

/// The shared table, open for changes that the library has no operation for.
class SharedTable
{
public:
    SharedTable()
        : mySemaphore( "LogConfigManager", 1 )
        , mySegment( "LogConfigManager", sizeof( Data ), Io::SharedMemory::readWrite )
    {
    }

    /// Calls function( Data& ) with the table's semaphore held.
    template < class F >
    void with( F function )
    {
        const Mt::SemaphoreLock lock( &mySemaphore, Mt::SemaphoreLock::stateLocked );
        function( *reinterpret_cast< Data* >( mySegment.memoryPtr() ) );
    }

    std::string copy()
    {
        std::string bytes;
        with( [&]( const Data& data ) {
            bytes.assign( reinterpret_cast< const char* >( &data ), sizeof( data ) );
        } );
        return bytes;
    }

private:
    Mt::Semaphore mySemaphore;
    Io::SharedMemory mySegment;
};

/// Puts back what a wish changed, where the value is still the one that was set: what somebody else
/// changed meanwhile stays. A zone that was opened meanwhile gets what its configuration says.
class PutBack
{
public:
    PutBack( const Wish& wish, const std::string& before )
        : myWish( wish )
        , myBefore( *ZoneTable::parse( before ) )
        , myConfig( Io::Pathname( Io::Pathname::rootDirectory, "etc/log.conf" ).str() )
    {
    }

    void operator()( Data& data ) const
    {
        for ( int i = 0; i < data.myNbrOfZones; ++i )
            zone( data.myZones[i] );
        if ( myWish.myZone.empty() )
            overrides( data );
        else if ( myWish.mySeverity )
            preset( data );
    }

private:
    void zone( Log::Zone& zone ) const;
    void overrides( Data& data ) const;
    void preset( Data& data ) const;

    const Wish& myWish;
    const ZoneTable myBefore;
    const Utils::Config myConfig;
};

void PutBack::zone( Log::Zone& zone ) const
{
    const std::string name( zone.myName.view() );
    if ( !myWish.myZone.empty() && myWish.myZone != name )
        return;
    const ZoneTable::Zone* const oldPtr = myBefore.find( name );
    if ( myWish.mySeverity && zone.severity() == *myWish.mySeverity ) {
        Log::Severity severity = myBefore.mySeverityOverride.value_or( Log::warning );
        if ( const auto iter = myBefore.myPresets.find( name ); iter != myBefore.myPresets.end() )
            severity = iter->second;
        else if ( !myBefore.mySeverityOverride )
            Log::severityFromKeyword(
                myConfig.stringValue( "zone/" + name, "severity", "warning" ).c_str(), &severity );
        zone.severity( oldPtr != nullptr ? oldPtr->mySeverity : severity );
    }
    // The flags of a single zone that is not there are set for nobody, so there is nothing new.
    if ( myWish.myFlags && zone.flags() == *myWish.myFlags ) {
        const std::string text = myConfig.stringValue(
            "zone/" + name, "flags", Log::zoneFlagsText( Log::defaultZoneFlags ) );
        const std::uint32_t configured =
            myBefore.myFlagsOverride.value_or( Log::zoneFlagsFromText( text ) );
        zone.flags( oldPtr != nullptr ? oldPtr->myFlags : configured );
    }
}

void PutBack::overrides( Data& data ) const
{
    if ( myWish.mySeverity && data.mySeverityOverrideSet != 0 &&
         data.myOverrideSeverity == *myWish.mySeverity ) {
        data.mySeverityOverrideSet = myBefore.mySeverityOverride ? 1 : 0;
        data.myOverrideSeverity = myBefore.mySeverityOverride.value_or( Log::none );
    }
    if ( myWish.myFlags && data.myFlagsOverrideSet != 0 &&
         data.myOverrideFlags == *myWish.myFlags ) {
        data.myFlagsOverrideSet = myBefore.myFlagsOverride ? 1 : 0;
        data.myOverrideFlags = myBefore.myFlagsOverride.value_or( 0 );
    }
}

void PutBack::preset( Data& data ) const
{
    const auto oldPtr = myBefore.myPresets.find( myWish.myZone );
    for ( int i = 0; i < data.myNbrOfPresets; ++i ) {
        Log::ConfigManager::Preset& preset = data.myPresets[i];
        if ( preset.myName.view() != myWish.myZone || preset.mySeverity != *myWish.mySeverity )
            continue;
        if ( oldPtr != myBefore.myPresets.end() ) {
            preset.mySeverity = oldPtr->second;
        } else {
            --data.myNbrOfPresets;
            preset = data.myPresets[data.myNbrOfPresets];
        }
        return;
    }
}

/// Ends the wait for the time to put back when the operator breaks it off.
class BreakOff : public Utils::Observer< Mt::SignalHandler >
{
public:
    BreakOff() { Mt::SignalHandler::singletonPtr()->attach( this ); }
    BreakOff( const BreakOff& ) = delete;
    BreakOff& operator=( const BreakOff& ) = delete;
    ~BreakOff() override { Mt::SignalHandler::singletonPtr()->detach( this ); }

    void update( Mt::SignalHandler& handler ) override
    {
        const int sig = handler.signalNumber();
        if ( sig != SIGTERM && sig != SIGINT && sig != SIGHUP )
            return;
        handler.setSignalHandled();
        myEvent.signal();
    }

    void wait( unsigned int seconds )
    {
        constexpr unsigned int maxSeconds = 4000000; // fits 32 bits of milliseconds
        myEvent.wait( std::min( seconds, maxSeconds ) * 1000 );
    }

private:
    Mt::Event myEvent;
};

bool apply( const Wish& wish )
{
    const char* const zonePtr = wish.myZone.empty() ? nullptr : wish.myZone.c_str();
    if ( wish.myFlags )
        Log::LogAppHelper::zoneFlags( *wish.myFlags, zonePtr );
    return !wish.mySeverity ||
           Log::LogAppHelper::zoneSeverity( wish.mySeverityKeyword.c_str(), zonePtr );
}

void report( const CommonOptions& common, const Wish& wish, const ZoneTable& before,
             const ZoneTable& after, unsigned int seconds )
{
    Json zones = Json::array();
    for ( const ZoneTable::Zone& zone : after.myZones ) {
        const ZoneTable::Zone* const oldPtr = before.find( zone.myName );
        if ( ( !wish.myZone.empty() && zone.myName != wish.myZone ) || oldPtr == nullptr )
            continue;
        zones.push_back( { { "name", zone.myName },
                           { "severityBefore", Log::severityKeyword( oldPtr->mySeverity ) },
                           { "severity", Log::severityKeyword( zone.mySeverity ) },
                           { "flags", Log::zoneFlagsText( zone.myFlags ) } } );
    }
    if ( common.myJson ) {
        printJson( { { "zones", zones }, { "seconds", seconds } } );
        return;
    }
    for ( const Json& zone : zones ) {
        std::cout << "zone " << printable( zone["name"] ) << ": "
                  << zone["severityBefore"].get< std::string >() << " -> "
                  << zone["severity"].get< std::string >();
        if ( wish.myFlags )
            std::cout << ", flags " << zone["flags"].get< std::string >();
        std::cout << '\n';
    }
    if ( zones.empty() )
        std::cout << "zone " << printable( wish.myZone )
                  << " is not open in any process; it will start at " << wish.mySeverityKeyword
                  << '\n';
    if ( wish.myZone.empty() )
        std::cout << "zones opened from now on start so, too\n";
    if ( seconds != 0 )
        std::cout << "put back in " << seconds << " s (or when this is interrupted)" << std::endl;
}

int change( const CommonOptions& common, const Wish& wish, unsigned int seconds )
{
    SharedTable table;
    // From here on an interruption does not end the process with the new values in place.
    BreakOff breakOff;
    const std::string before = table.copy();
    if ( !apply( wish ) )
        return complain( "the table of presets is full: the zone keeps its threshold" );
    report( common, wish, *ZoneTable::parse( before ), *ZoneTable::parse( table.copy() ), seconds );
    if ( seconds == 0 )
        return good;
    breakOff.wait( seconds );
    table.with( PutBack( wish, before ) );
    if ( !common.myJson )
        std::cout << "put back" << std::endl;
    return good;
}

} // namespace

int setZones( const CommonOptions& common, const ZonesSetOptions& options )
{
    Wish wish;
    if ( !understand( options, &wish ) )
        return wrongUsage;
    const std::optional< ZoneTable > table = ZoneTable::read();
    if ( !table )
        return complain( "there is no zone table: no process of this installation logs just now" );
    if ( !wish.mySeverity && !wish.myZone.empty() && table->find( wish.myZone ) == nullptr )
        return complain( "no process has opened a zone \"" + wish.myZone + "\"" );
    if ( !refuseIfLocked() )
        return problem;
    return runInFrame( [&] { return change( common, wish, options.mySeconds ); } );
}

} // namespace Nuv::Ctl
