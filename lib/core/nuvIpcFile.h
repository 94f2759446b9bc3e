#pragma once

#include "nuv.h"

#include <string>

namespace Nuv::Utils {
class SecurityInfo;
}

namespace Nuv::Io {

/// The files behind interprocess objects: key files, whose inode number is a System V key, and
/// FIFOs, all in the interprocess-communication directory.
///
/// Threads: any.
/// Errors:  by result and errno; a group that cannot be set fails nuvAssert (see SecurityInfo).
namespace IpcFile {

/// @return the pathname, in the interprocess-communication directory, of the key file of an object:
///         prefix and name, in which every "/" is replaced by "-"
std::string keyFilePathname( const char* prefixPtr, const std::string& name );

/// Creates the file, or empties it if it exists, with the umask, permission bits and group of
/// security. An existing file keeps its permission bits.
bool createKeyFile( const char* pathPtr, Utils::SecurityInfo& security );

/// Creates the FIFO with the umask, permission bits and group of security.
/// @return whether it was made; false also if something of that name exists
bool createFifo( const char* pathPtr, Utils::SecurityInfo& security );

} // namespace IpcFile
} // namespace Nuv::Io
