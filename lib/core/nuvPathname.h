#pragma once

#include "nuvFileSystem.h"
#include "nuvString.h"

namespace Nuv::Io {

/// A normalised absolute file name, or an invalid one that answers "no" to everything.
///
/// The text has no trailing "/" (but for "/" itself), no "." and no ".." name; symbolic links are
/// not resolved. A text that cannot be normalised, and one made from an invalid directory, gives an
/// invalid pathname, whose text is empty. On it every operation returns false, 0 or an empty text
/// and touches no file.
///
/// Threads: a value, one thread at a time; const operations may run concurrently. The special
///          pathnames may be used from any thread at any time.
/// Errors:  by the result, with errno of the failed call where a call failed; only the assertions
///          named below throw.
/// Cost:    the first use of a special pathname reads the master configuration and creates the
///          installation root's subdirectories; later ones copy a text.
/// Example: Pathname conf( Pathname::rootDirectory, "etc/log.conf" ); if ( conf.isFile() ) ...
class NUV_API Pathname
{
public:
    /// The anchors of every daemon, fixed at the first use of any of them; only the executable is
    /// set later.
    enum SpecialPathname
    {
        rootDirectory = 0, ///< "ixoRootPathname" of nuvs.conf, else "ixoRoot" in the home directory
        systemEtcDirectory = 1, ///< "/etc"
        userHomeDirectory = 2,  ///< HOME, else "/"
        executablePathname = 3, ///< see setPathnameOfExecutable(); invalid until then
        ipcDirectory = 4        ///< "tmp/ipc" in the root
    };
    enum Level : std::uint32_t
    {
        user = 1,
        group = 2,
        other = 4
    };

    /// The key of the installation root in the root section of the master configuration.
    static const char* const ourIxoRootPathnameToken;
    /// The root's name in the home directory where nothing is configured.
    static const char* const ourDefaultIxoRootFileName;

    /// The bare names in a directory, in no particular order, without "." and "..".
    ///
    /// Copies share the open directory, so advancing one of them takes the entry from the others;
    /// each keeps its own current name. All iterators at the end are equal.
    ///
    /// Threads: one, with all its copies.
    /// Errors:  a directory that cannot be opened is empty; an error while reading ends it.
    ///          Dereferencing or advancing the end fails nuvAssert.
    class NUV_API Iterator
    {
    public:
        /// The end.
        Iterator() = default;
        explicit Iterator( const Utils::String& directory );
        Iterator( const Iterator& rhs );
        Iterator& operator=( const Iterator& rhs );
        ~Iterator();

        const Utils::String& operator*() const;
        const Utils::String* operator->() const;
        Iterator& operator++();
        Iterator operator++( int );
        friend bool operator==( const Iterator& a, const Iterator& b )
        {
            return a.myDirHandle == b.myDirHandle;
        }

    private:
        void advance();

        FileSystem::DirectoryHandle myDirHandle = FileSystem::invalidDirectoryHandle();
        Utils::String myName;
    };

    /// Invalid.
    Pathname() = default;
    /// @param path relative ones start at the current directory
    explicit Pathname( const Utils::String& path );
    Pathname( const Pathname& directory, const Utils::String& name );
    explicit Pathname( SpecialPathname special );
    Pathname( SpecialPathname special, const Utils::String& name );

    /// Creates the directory and its missing parents, each with permission bits 0755 (less the
    /// umask); what another process creates meanwhile is as good.
    /// @return whether the directory exists now
    bool createDirectory() const;
    /// Removes a file, or a directory with all below it, stopping at the first failure. A symbolic
    /// link is removed as a file: what it leads to is not touched, even if somebody exchanges
    /// names meanwhile. The directory "/" is refused, and so is what is more than 1000 levels deep.
    /// @return whether nothing exists at the path any more
    bool remove() const;

    /// Grants the permission to the classes in level.
    /// @param level one or more of user, group, other; nuvAssert otherwise
    bool setReadable( std::uint32_t level ) const;
    bool setWriteable( std::uint32_t level ) const;
    bool setExecutable( std::uint32_t level ) const;

    /// Creates an empty file of a new name; see FileSystem::tempPathname().
    /// @param directory an invalid one stands for the default directory of temporary files
    /// @return success; *tempPathnamePtr is unchanged on failure
    static bool tempPathname( const Utils::String& prefix, const Pathname& directory,
                              Pathname* tempPathnamePtr );
    /// Records the program's file; called by the process frame at start-up. A text that cannot be
    /// normalised makes the entry invalid; null fails nuvAssert.
    static void setPathnameOfExecutable( const char* pathPtr );
    /// @return a number that grows with each setPathnameOfExecutable(), for who keeps what it has
    ///         derived from the entry
    static std::uint32_t executableVersion();

    bool isValid() const { return myPrefixLength != 0; }
    const Utils::String& str() const { return myPath; }
    const char* cStr() const { return myPath.c_str(); }
    /// These three follow symbolic links; false also for what cannot be examined.
    bool exists() const;
    bool isFile() const;
    bool isDirectory() const;

    /// @return the text after the last "/"; empty for "/"
    Utils::String nameStr() const;
    /// @return nameStr() up to its last ".", the whole where it has none
    Utils::String nameStrSansExtension() const;
    /// @return nameStr() from its last "." on (".conf"), empty where it has none
    Utils::String extensionStr() const;
    /// @return the text up to the last "/", at least "/"; empty for "/"
    Utils::String parentStr() const;

    /// The classes that have the permission, all three bits if the calling process has it.
    std::uint32_t readableLevel() const;
    std::uint32_t writeableLevel() const;
    std::uint32_t executableLevel() const;

    Iterator begin() const;
    Iterator end() const { return Iterator(); }

    friend bool operator==( const Pathname& a, const Pathname& b ) { return a.myPath == b.myPath; }

private:
    std::uint32_t myPrefixLength = 0; // of the root part, as normalize() returns it; 0 is invalid
    Utils::String myPath;
};

} // namespace Nuv::Io
