#include "nuvIpcFile.h"

#include "nuvOs.h"
#include "nuvPathname.h"
#include "nuvUtils.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

namespace Nuv::Io::IpcFile {

std::string keyFilePathname( const char* prefixPtr, const std::string& name )
{
    std::string fileName = prefixPtr + name;
    std::replace( fileName.begin(), fileName.end(), FileSystem::ourNameSeparatorChar, '-' );
    return Pathname( Pathname::ipcDirectory, fileName ).str();
}

bool createKeyFile( const char* pathPtr, Utils::SecurityInfo& security )
{
    security.applyUmask();
    const Utils::Handle file( Utils::retryOnEintr( [&] {
        return ::open( pathPtr, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, security.mode() );
    } ) );
    security.restoreUmask();
    if ( !file.isValid() )
        return false;
    security.applyGroupOwnership( file.fd() );
    return true;
}

bool createFifo( const char* pathPtr, Utils::SecurityInfo& security )
{
    security.applyUmask();
    const bool isCreated = ::mkfifo( pathPtr, security.mode() ) == 0;
    security.restoreUmask();
    if ( !isCreated )
        return false;
    security.applyGroupOwnership( pathPtr );
    return true;
}

} // namespace Nuv::Io::IpcFile
