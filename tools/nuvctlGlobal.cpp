#include "nuvctl.h"

#include "nuvConfig.h"
#include "nuvGlobal.h"
#include "nuvPathname.h"

#include <cstring>
#include <iostream>
#include <memory>

namespace Nuv::Ctl {

namespace {

using Data = Utils::Global::Data;

/// What stands before the health records, which "health" shows.
constexpr std::size_t nbrOfSettingsBytes = offsetof( Data, sensor );

/// Copies the settings. @return null if there is no segment that this user may read
std::unique_ptr< Data > readSettings( bool* settledPtr, int* nbrOfUsersPtr )
{
    const Tools::Inventory inventory =
        Tools::Inventory::read( Installation::find().myIpcDirectory );
    const Tools::NamedSegment* const segmentPtr = inventory.findSegment( "global-data" );
    if ( segmentPtr == nullptr || !segmentPtr->mySegment )
        return nullptr;
    const std::string bytes = Tools::copySettled( *segmentPtr->mySegment, nbrOfSettingsBytes,
                                                  inventory.guardSetId( *segmentPtr ), settledPtr );
    if ( bytes.empty() )
        return nullptr;
    *nbrOfUsersPtr = segmentPtr->nbrOfAttached();
    auto dataPtr = std::make_unique< Data >();
    std::memcpy( static_cast< void* >( dataPtr.get() ), bytes.data(), bytes.size() );
    return dataPtr;
}

const char* onOff( bool isOn )
{
    return isOn ? "on" : "off";
}

Json settingsJson( const Data& data )
{
    return { { "localTimeOffset", data.localTimeOffset },
             { "timeZoneName", data.timeZoneName.view() },
             { "dnsEnabled", data.dnsEnabled != 0 },
             { "httpProxyEnabled", data.httpProxyEnabled != 0 },
             { "httpProxyPort", data.httpProxyPort },
             { "httpProxyAddress", data.httpProxyAddressText.view() },
             { "ftpTimeout", data.ftpTimeoutValue },
             { "certificateStoreVersion", data.certificateStoreVersion },
             { "keystoreVersion", data.keystoreVersion },
             { "keystoreLength", data.keystoreLength },
             { "reserved", data.myReserved } };
}

void printSettings( const Data& data )
{
    Table table( { "SETTING", "VALUE" } );
    table.add( { "time zone", std::string( data.timeZoneName.view() ) } );
    table.add( { "local time offset", std::to_string( data.localTimeOffset ) + " s" } );
    table.add( { "name service", onOff( data.dnsEnabled != 0 ) } );
    table.add( { "HTTP proxy", onOff( data.httpProxyEnabled != 0 ) } );
    const std::string address( data.httpProxyAddressText.view() );
    table.add( { "HTTP proxy address",
                 address.empty() ? "-" : address + ":" + std::to_string( data.httpProxyPort ) } );
    table.add( { "FTP time-out", std::to_string( data.ftpTimeoutValue ) + " s" } );
    table.add( { "certificate store version", std::to_string( data.certificateStoreVersion ) } );
    table.add( { "key store", std::to_string( data.keystoreLength ) + " bytes, version " +
                                  std::to_string( data.keystoreVersion ) } );
    table.print();
}

/// What every process reads for itself.
Utils::PlatformFacts readPlatform()
{
    const Io::Pathname root{ Utils::String( Installation::find().myRoot ) };
    return Utils::PlatformFacts::of( Utils::Config( Io::Pathname( root, "etc/boot.info" ).str() ) );
}

void printFacts( const Utils::PlatformFacts& platform )
{
    std::string all;
    for ( const std::string& name : platform.capabilities )
        all += ( all.empty() ? "" : ", " ) + name;
    std::cout << "\nplatform model "
              << ( platform.model.empty() ? "(none)" : printable( platform.model ) )
              << ", capabilities: " << ( all.empty() ? "none" : printable( all ) ) << '\n';
}

// --- global set ---------------------------------------------------------------------------------

struct Proxy
{
    std::string myAddress;
    unsigned short myPort = 0;
};

bool understandProxy( const std::string& text, Proxy* proxyPtr )
{
    const std::size_t colon = text.rfind( ':' );
    if ( colon == std::string::npos )
        return false;
    proxyPtr->myAddress = text.substr( 0, colon );
    const std::string port = text.substr( colon + 1 );
    if ( port.empty() || port.size() > 5 ||
         port.find_first_not_of( "0123456789" ) != std::string::npos )
        return false;
    const int number = std::stoi( port );
    proxyPtr->myPort = static_cast< unsigned short >( number );
    return number > 0 && number <= 65535;
}

/// @return why not; "" if all can be stored as it is
std::string refusal( const GlobalSetOptions& options, Proxy* proxyPtr )
{
    if ( !options.myTimeZone && !options.myOffsetSeconds && !options.myProxy &&
         !options.myProxyEnabled && !options.myDnsEnabled && !options.myFtpTimeout )
        return "nothing to set: give --time-zone, --offset, --proxy, --proxy-enabled, --dns or "
               "--ftp-timeout";
    if ( options.myTimeZone && options.myTimeZone->size() >= sizeof( Data::timeZoneName ) )
        return "the time zone's name is longer than " +
               std::to_string( sizeof( Data::timeZoneName ) - 1 ) + " characters";
    if ( options.myProxy && !understandProxy( *options.myProxy, proxyPtr ) )
        return "--proxy needs ADDRESS:PORT, a port from 1 to 65535";
    if ( proxyPtr->myAddress.size() >= sizeof( Data::httpProxyAddressText ) )
        return "the proxy's address is longer than " +
               std::to_string( sizeof( Data::httpProxyAddressText ) - 1 ) + " characters";
    return {};
}

void apply( const GlobalSetOptions& options, const Proxy& proxy )
{
    Utils::Global& global = *Utils::Global::singletonPtr();
    if ( options.myTimeZone || options.myOffsetSeconds ) {
        int offset = 0;
        std::string zone;
        global.localTimeOffsetAndZone( &offset, &zone );
        global.localTimeOffsetAndZone( options.myOffsetSeconds.value_or( offset ),
                                       options.myTimeZone.value_or( zone ).c_str() );
    }
    if ( options.myProxy )
        global.httpProxyAddress( proxy.myPort, proxy.myAddress.c_str() );
    if ( options.myProxyEnabled )
        global.httpProxyIsEnabled( *options.myProxyEnabled );
    if ( options.myDnsEnabled )
        global.dnsIsEnabled( *options.myDnsEnabled );
    if ( options.myFtpTimeout )
        global.ftpTimeout( *options.myFtpTimeout );
}

int reportChange( const CommonOptions& common, const Data& before )
{
    bool isSettled = false;
    int nbrOfUsers = 0;
    const std::unique_ptr< Data > afterPtr = readSettings( &isSettled, &nbrOfUsers );
    if ( !afterPtr )
        return complain( "the segment global-data has gone" );
    const Json old = settingsJson( before );
    const Json now = settingsJson( *afterPtr );
    if ( common.myJson ) {
        printJson( { { "before", old }, { "after", now } } );
        return good;
    }
    for ( const auto& [key, value] : now.items() ) {
        if ( value != old[key] )
            std::cout << key << ": " << old[key].dump() << " -> " << value.dump() << '\n';
    }
    if ( now == old )
        std::cout << "all as it was\n";
    return good;
}

} // namespace

int showGlobal( const CommonOptions& common )
{
    bool isSettled = false;
    int nbrOfUsers = 0;
    const std::unique_ptr< Data > dataPtr = readSettings( &isSettled, &nbrOfUsers );
    const Utils::PlatformFacts platform = readPlatform();
    if ( common.myJson ) {
        printJson( { { "users", nbrOfUsers },
                     { "settings", dataPtr ? settingsJson( *dataPtr ) : Json( nullptr ) },
                     { "model", platform.model },
                     { "capabilities", platform.capabilities } } );
    } else {
        if ( dataPtr )
            printSettings( *dataPtr );
        printFacts( platform );
    }
    if ( !dataPtr )
        return complain( "there is no segment global-data, or this user may not read it: no "
                         "process uses the shared settings" );
    if ( nbrOfUsers == 0 )
        return complain( "no process has the segment global-data: this is what the last ones "
                         "left" );
    return isSettled ? good
                     : complain( "the settings are being changed without pause: fields may not "
                                 "belong together" );
}

int setGlobal( const CommonOptions& common, const GlobalSetOptions& options )
{
    Proxy proxy;
    if ( const std::string reason = refusal( options, &proxy ); !reason.empty() )
        return complain( "global set: " + reason ), wrongUsage;
    bool isSettled = false;
    int nbrOfUsers = 0;
    const std::unique_ptr< Data > beforePtr = readSettings( &isSettled, &nbrOfUsers );
    if ( !beforePtr || nbrOfUsers == 0 )
        return complain( "no process has the segment global-data: nobody would keep the setting" );
    if ( !refuseIfLocked( { "global-shm", "shm_global-data" } ) )
        return problem;
    return runInFrame( [&] {
        apply( options, proxy );
        return reportChange( common, *beforePtr );
    } );
}

} // namespace Nuv::Ctl
