#include "nuvGlobal.h"

#include "nuvConfig.h"
#include "nuvOs.h"
#include "nuvPathname.h"
#include "nuvSingleton.h"

namespace Nuv::Utils {

extern Mt::Mutex GlobalSingletonPtrMutex;
Mt::Mutex GlobalSingletonPtrMutex;

// Link seam, declared in nuvOs.h.
const std::string& applicationGroupName()
{
    static const std::string defaultName = "nuvs";
    const std::string& name = Global::singletonPtr()->groupName();
    return name.empty() ? defaultName : name;
}

Global* Global::singletonPtr()
{
    return Singleton< Global >::ptr( GlobalSingletonPtrMutex );
}

Global::Global()
{
    const Config master( Config::masterConfFileNameCStr );
    myGroupName = master.stringValue( "", "groupName", "" );
    myIncludeSelf = master.boolValue( "WinNt", "includeSelf", true );
    myIncludeAdministrators = master.boolValue( "WinNt", "includeAdministrators", true );
    myIncludeLocalSystem = master.boolValue( "WinNt", "includeLocalSystem", true );

    const Io::Pathname bootInfo( Io::Pathname::rootDirectory, "/etc/boot.info" );
    const Config boot( bootInfo.cStr() );
    myModel = boot.stringValue( "Platform", "model", "" );
    if ( myModel.empty() )
        return;
    const std::string section = myModel + "/Capabilities";
    const auto end = boot.tspEnd( section );
    for ( auto i = boot.tspBegin( section ); i != end; ++i ) {
        if ( boot.boolValue( section, i->first, false ) )
            myCapabilities.insert( i->first );
    }
}

bool Global::platformHasCapability( const char* namePtr ) const
{
    return namePtr != nullptr && myCapabilities.contains( namePtr );
}

} // namespace Nuv::Utils
