#pragma once

#include "nuvString.h"
#include "nuvTime.h"

#include <cstdint>
#include <dirent.h>
#include <sys/types.h>

namespace Nuv::Io {

/// Static operations on pathnames given as texts.
///
/// Threads: any; setCurrentDirectory() is process-wide, and so is the umask that tempPathname()
///          sets for the time of its call (see UmaskScope).
/// Errors:  all report failure by their result, with errno of the failed call; only the assertions
///          named below throw. Interrupted calls are repeated.
/// Example: if ( FileSystem::pathnameAttributes( path ) & FileSystem::directory ) ...
class NUV_API FileSystem
{
public:
    /// What pathnameAttributes() tells; readable, writeable and executable are about the calling
    /// process (effective user and group), the nine class bits mirror the permission bits.
    enum Attribute : std::uint32_t
    {
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

    /// Between the names of a pathname.
    static constexpr char ourNameSeparatorChar = '/';
    /// Between the pathnames of a search path.
    static constexpr char ourPathSeparatorChar = ':';

    /// An open directory, shared by counted references; one thread at a time.
    struct DirectoryInfo
    {
        DIR* myDirPtr;
        int myNbrOfReferences; // 1 when opened
    };
    using DirectoryHandle = DirectoryInfo*;
    static constexpr DirectoryHandle invalidDirectoryHandle() { return nullptr; }

    /// Attribute bits of what the pathname leads to (links followed). Neither file nor directory
    /// means a device, FIFO or socket. `hidden` goes by the text after the last "/"; an existing
    /// pathname without any "/" fails nuvAssert.
    /// @return 0 when the pathname cannot be examined
    static std::uint32_t pathnameAttributes( const Utils::String& path );
    /// Grants permission bits: `readable` to all classes, `writeable` to the owner alone,
    /// `executable` to all, and each class bit its own; other bits are ignored.
    static bool setPathnameAttributes( const Utils::String& path, std::uint32_t bits );
    /// Takes permission bits from all classes, for `readable`, `writeable` and `executable`; other
    /// bits are ignored.
    static bool clearPathnameAttributes( const Utils::String& path, std::uint32_t bits );

    /// As std::string::compare: byte-wise, without normalising.
    static int compare( const Utils::String& a, const Utils::String& b );
    /// An existing target of the same kind is replaced.
    static bool rename( const Utils::String& from, const Utils::String& to );
    /// Creates one directory with permission bits 0755 (less the umask).
    static bool createDirectory( const Utils::String& path );
    /// Removes a file (a symbolic link itself, not its target) or an empty directory.
    static bool remove( const Utils::String& path );
    static bool setCurrentDirectory( const Utils::String& path );
    /// @return bytes, 0 when the pathname cannot be examined
    static std::uint64_t fileSize( const Utils::String& path );
    /// @return whole seconds, the zero time when the pathname cannot be examined
    static Utils::Time lastModifiedTime( const Utils::String& path );
    /// Whether child lies below parent, by the texts alone.
    static bool isChildOf( const Utils::String& child, const Utils::String& parent );
    /// @return the environment variable HOME, "/" when it is not set or empty
    static Utils::String pathnameOfUserHome();
    static Utils::String pathnameOfSystemEtc();
    /// Puts the current directory and "/" in front of a pathname that does not begin with "/".
    /// @return false, with the text unchanged, only when the current directory is gone or
    ///         unreadable
    static bool makePathAbsolute( Utils::String* pathPtr );
    /// Makes the pathname absolute and normal, by its text alone: no "." or ".." name, no doubled
    /// and no trailing "/". Symbolic links are not resolved.
    /// @return the length of its root part, that is 1; 0 with the text unchanged for an empty one,
    /// one that leads above "/" or one that contains a NUL
    static unsigned int normalize( Utils::String* pathPtr );

    /// @return a handle with one reference, null when the directory cannot be opened
    static DirectoryHandle openDirectory( const Utils::String& path );
    /// The invalid handle is ignored.
    static void referenceDirectory( DirectoryHandle dirHandle );
    /// Drops one reference, closes at the last, and sets *dirHandlePtr to the invalid handle. A
    /// null pointer fails nuvAssert, the invalid handle is ignored.
    static void closeDirectory( DirectoryHandle* dirHandlePtr );
    /// Stores the next entry's bare name; "." and ".." are left out. An invalid handle or a null
    /// pointer fails nuvAssert.
    /// @return false, with the text unchanged, at the end and on error
    static bool readDirectory( DirectoryHandle dirHandle, Utils::String* pathnameStrPtr );

    /// Creates an empty file of a new name, permission bits 0600, that begins with prefix.
    /// @param directory if empty, TMPDIR, else TMP, else "/tmp"; the environment is not asked
    /// by a process whose real and effective identities differ
    /// @return false, with *resultPtr unchanged, on failure
    static bool tempPathname( const Utils::String& prefix, const Utils::String& directory,
                              Utils::String* resultPtr );

    /// The System V key of a key file: its inode number, cut to 32 bits; the project number is not
    /// mixed in. Files of different file systems, or whose inode numbers agree in 32 bits, share a
    /// key, so key files of one kind live in one small directory.
    /// @return -1 when it cannot be examined, and for a cut number of 0, which would read as
    /// IPC_PRIVATE and silently give every process an object of its own
    static ::key_t ftok( const char* pathPtr, int projectNbr );
};

/// The process's umask for the time of one creating call.
///
/// The umask belongs to all threads. So that two threads which create objects never leave a wrong
/// umask behind, a scope holds a recursive mutex from its construction to its destruction: keep it
/// round the creating call alone, and wait for nothing inside it. A fork waits for the scopes of
/// other threads; the child inherits the umask as it was.
///
/// Threads: one; not shared. Scopes of one thread nest.
class NUV_API UmaskScope
{
public:
    explicit UmaskScope( mode_t mask );
    UmaskScope( const UmaskScope& ) = delete;
    UmaskScope& operator=( const UmaskScope& ) = delete;
    ~UmaskScope();

    /// Makes forks wait, once. The system runs the newest handler before a fork first, so a unit
    /// whose handlers take locks that are held round scopes calls this before it installs them.
    static void watchForks();

private:
    mode_t mySavedMask;
};

} // namespace Nuv::Io
