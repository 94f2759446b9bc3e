#include "nuvIpcFile.h"

#include "nuvMutex.h"
#include "nuvOs.h"
#include "nuvPathname.h"
#include "nuvUtils.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

namespace Nuv::Io::IpcFile {

namespace {

// A leaf of the lock order: no other lock is taken while it is held.
Mt::Mutex ourUmaskMutex;

class UmaskScope
{
public:
    explicit UmaskScope( Utils::SecurityInfo& security )
        : myLock( ourUmaskMutex )
        , mySecurity( security )
    {
        mySecurity.applyUmask();
    }
    UmaskScope( const UmaskScope& ) = delete;
    UmaskScope& operator=( const UmaskScope& ) = delete;
    ~UmaskScope() { mySecurity.restoreUmask(); }

private:
    const Mt::MutexLock myLock;
    Utils::SecurityInfo& mySecurity;
};

} // namespace

std::string keyFilePathname( const char* prefixPtr, const std::string& name )
{
    std::string fileName = prefixPtr + name;
    std::replace( fileName.begin(), fileName.end(), FileSystem::ourNameSeparatorChar, '-' );
    return Pathname( Pathname::ipcDirectory, fileName ).str();
}

bool createKeyFile( const char* pathPtr, Utils::SecurityInfo& security )
{
    const UmaskScope umaskScope( security );
    const Utils::Handle file( Utils::retryOnEintr( [&] {
        return ::open( pathPtr, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, security.mode() );
    } ) );
    if ( !file.isValid() )
        return false;
    security.applyGroupOwnership( file.fd() );
    return true;
}

bool createFifo( const char* pathPtr, Utils::SecurityInfo& security )
{
    const UmaskScope umaskScope( security );
    if ( ::mkfifo( pathPtr, security.mode() ) != 0 )
        return false;
    security.applyGroupOwnership( pathPtr );
    return true;
}

} // namespace Nuv::Io::IpcFile
