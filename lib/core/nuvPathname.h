#pragma once

#include "nuvFileSystem.h"
#include "nuvString.h"

namespace Nuv::Io {

/// A normalised absolute file name, or an invalid one that answers "no" to everything.
class NUV_API Pathname
{
public:
    enum SpecialPathname {
        rootDirectory = 0,
        systemEtcDirectory = 1,
        userHomeDirectory = 2,
        executablePathname = 3,
        ipcDirectory = 4
    };
    enum Level : std::uint32_t { user = 1, group = 2, other = 4 };

    class NUV_API Iterator
    {
    public:
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

    Pathname() = default;
    /// @param path normalised; the result is invalid if that fails
    explicit Pathname( const Utils::String& path );
    Pathname( const Pathname& directory, const Utils::String& name );
    explicit Pathname( SpecialPathname special );
    Pathname( SpecialPathname special, const Utils::String& name );

    bool createDirectory() const;
    bool remove() const;
    bool setReadable( std::uint32_t level ) const;
    bool setWriteable( std::uint32_t level ) const;
    bool setExecutable( std::uint32_t level ) const;
    static bool tempPathname( const Utils::String& prefix, const Pathname& directory,
                              Pathname* tempPathnamePtr );
    static void setPathnameOfExecutable( const char* pathPtr );

    bool isValid() const { return myPrefixLength != 0; }
    const Utils::String& str() const { return myPath; }
    const char* cStr() const { return myPath.c_str(); }
    bool exists() const;
    bool isFile() const;
    bool isDirectory() const;
    Utils::String nameStr() const;
    Utils::String nameStrSansExtension() const;
    Utils::String extensionStr() const;
    Utils::String parentStr() const;
    std::uint32_t readableLevel() const;
    std::uint32_t writeableLevel() const;
    std::uint32_t executableLevel() const;
    Iterator begin() const;
    Iterator end() const { return Iterator(); }

    friend bool operator==( const Pathname& a, const Pathname& b ) { return a.myPath == b.myPath; }

private:
    std::uint32_t myPrefixLength = 0;
    Utils::String myPath;
};

} // namespace Nuv::Io
