#pragma once

#include "nuvString.h"
#include "nuvTime.h"

#include <cstdint>
#include <dirent.h>
#include <sys/types.h>

namespace Nuv::Io {

/// Static operations on pathnames given as texts. All report failure by their result.
class NUV_API FileSystem
{
public:
    /// What pathnameAttributes() tells; readable, writeable and executable are about the calling
    /// process (effective user and group), the nine class bits mirror the permission bits.
    enum Attribute : std::uint32_t {
        file = 0x1,
        directory = 0x2,
        readable = 0x4,
        writeable = 0x8,
        executable = 0x10,
        hidden = 0x20,
        userReadable = 0x40,
        userWriteable = 0x80,
        userExecutable = 0x100,
        groupReadable = 0x200,
        groupWriteable = 0x400,
        groupExecutable = 0x800,
        otherReadable = 0x1000,
        otherWriteable = 0x2000,
        otherExecutable = 0x4000
    };

    static constexpr char ourNameSeparatorChar = '/';
    static constexpr char ourPathSeparatorChar = ':';

    /// An open directory, shared by counted references.
    struct DirectoryInfo
    {
        DIR* myDirPtr;
        int myNbrOfReferences;
    };
    using DirectoryHandle = DirectoryInfo*;
    static constexpr DirectoryHandle invalidDirectoryHandle() { return nullptr; }

    /// @return attribute bits (links followed); 0 when the pathname cannot be examined
    static std::uint32_t pathnameAttributes( const Utils::String& path );
    static bool setPathnameAttributes( const Utils::String& path, std::uint32_t bits );
    static bool clearPathnameAttributes( const Utils::String& path, std::uint32_t bits );

    static int compare( const Utils::String& a, const Utils::String& b );
    static bool rename( const Utils::String& from, const Utils::String& to );
    static bool createDirectory( const Utils::String& path );
    static bool remove( const Utils::String& path );
    static bool setCurrentDirectory( const Utils::String& path );
    static std::uint64_t fileSize( const Utils::String& path );
    static Utils::Time lastModifiedTime( const Utils::String& path );
    static bool isChildOf( const Utils::String& child, const Utils::String& parent );
    static Utils::String pathnameOfUserHome();
    static Utils::String pathnameOfSystemEtc();
    static bool makePathAbsolute( Utils::String* pathPtr );
    /// Makes the pathname absolute and normal, in place.
    /// @return the length of its root part (1 for "/"), 0 when it cannot be normalised
    static unsigned int normalize( Utils::String* pathPtr );

    static DirectoryHandle openDirectory( const Utils::String& path );
    static void referenceDirectory( DirectoryHandle handle );
    static void closeDirectory( DirectoryHandle* dirHandlePtr );
    static bool readDirectory( DirectoryHandle dirHandle, Utils::String* pathnameStrPtr );

    static bool tempPathname( const Utils::String& prefix, const Utils::String& directory,
                              Utils::String* resultPtr );

    /// @return the inode number of the pathname as a System V key (the project number is not mixed
    /// in), -1 when it cannot be examined
    static ::key_t ftok( const char* pathPtr, int projectNbr );
};

} // namespace Nuv::Io
