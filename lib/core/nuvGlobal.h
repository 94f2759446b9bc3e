#pragma once

#include "nuv.h"

#include <set>
#include <string>

namespace Nuv::Utils {

template < class T >
class Singleton;

/// The platform facts that every process needs, read once per process and never again.
///
/// | fact                     | file            | section                | key | default |
/// |--------------------------|-----------------|------------------------|--------------------------|---------|
/// | groupName()              | nuvs.conf       | the root               | groupName | ""      | |
/// includeSelf()            | nuvs.conf       | WinNt                  | includeSelf              |
/// true    | | includeAdministrators()  | nuvs.conf       | WinNt                  |
/// includeAdministrators    | true    | | includeLocalSystem()     | nuvs.conf       | WinNt |
/// includeLocalSystem       | true    | | model()                  | etc/boot.info   | Platform |
/// model                    | ""      | | platformHasCapability()  | etc/boot.info   |
/// <model>/Capabilities   | each that reads as true  | none    |
///
/// nuvs.conf is the master configuration, etc/boot.info lies under the installation root.
///
/// Threads: any; read-only once built.
/// Errors:  none; a missing file or key gives the defaults.
/// Example: if ( Global::singletonPtr()->platformHasCapability( "bypass" ) ) ...
class NUV_API Global
{
public:
    /// Built on first use, under GlobalSingletonPtrMutex, before the special pathnames' mutex.
    static Global* singletonPtr();

    /// Names the group whose members share the interprocess objects; see applicationGroupName().
    const std::string& groupName() const { return myGroupName; }
    bool includeSelf() const { return myIncludeSelf; }
    bool includeAdministrators() const { return myIncludeAdministrators; }
    bool includeLocalSystem() const { return myIncludeLocalSystem; }
    const std::string& model() const { return myModel; }
    const std::set< std::string >& capabilities() const { return myCapabilities; }
    /// @param namePtr compared exactly; null has no capability
    bool platformHasCapability( const char* namePtr ) const;

private:
    friend class Singleton< Global >;
    Global();
    ~Global() = default;

    std::string myGroupName;
    bool myIncludeSelf = true;
    bool myIncludeAdministrators = true;
    bool myIncludeLocalSystem = true;
    std::set< std::string > myCapabilities;
    std::string myModel;
};

} // namespace Nuv::Utils
