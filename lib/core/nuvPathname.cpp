#include "nuvPathname.h"

#include "nuvConfig.h"
#include "nuvSingleton.h"
#include "nuvUtils.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Nuv::Io {

extern Mt::Mutex SpecialPathnamesSingletonPtrMutex;
Mt::Mutex SpecialPathnamesSingletonPtrMutex;

const char* const Pathname::ourIxoRootPathnameToken = "ixoRootPathname";
const char* const Pathname::ourDefaultIxoRootFileName = "ixoRoot";

namespace {

constexpr const char* ixoRootSubdirs[] = { "bin", "etc", "log", "var", "tmp", "tmp/ipc" };

class SpecialPathnames
{
public:
    static SpecialPathnames* singletonPtr()
    {
        return Utils::Singleton< SpecialPathnames >::ptr( SpecialPathnamesSingletonPtrMutex );
    }

    Pathname get( Pathname::SpecialPathname special ) const
    {
        if ( special != Pathname::executablePathname )
            return myPathnames.at( special );
        const Mt::MutexLock lock( myExecutableMutex );
        return myPathnames[special];
    }

    void setExecutable( const Pathname& pathname )
    {
        const Mt::MutexLock lock( myExecutableMutex );
        myPathnames[Pathname::executablePathname] = pathname;
    }

private:
    friend class Utils::Singleton< SpecialPathnames >;

    SpecialPathnames();
    ~SpecialPathnames() = default;

    Pathname configuredRoot() const;

    std::array< Pathname, 5 > myPathnames; // by SpecialPathname
    mutable Mt::Mutex myExecutableMutex;   // guards that entry alone; a leaf
};

SpecialPathnames::SpecialPathnames()
{
    myPathnames[Pathname::systemEtcDirectory] = Pathname( FileSystem::pathnameOfSystemEtc() );
    myPathnames[Pathname::userHomeDirectory] = Pathname( FileSystem::pathnameOfUserHome() );
    const Pathname root = configuredRoot();
    myPathnames[Pathname::rootDirectory] = root;
    myPathnames[Pathname::ipcDirectory] = Pathname( root, "tmp/ipc" );
    for ( const char* namePtr : ixoRootSubdirs ) {
        const Pathname directory( root, namePtr );
        if ( directory.exists() || !directory.createDirectory() )
            continue;
        FileSystem::setPathnameAttributes(
            directory.str(), FileSystem::userReadable | FileSystem::userWriteable |
                                 FileSystem::userExecutable | FileSystem::groupReadable |
                                 FileSystem::groupWriteable | FileSystem::groupExecutable |
                                 FileSystem::otherReadable | FileSystem::otherExecutable );
    }
}

Pathname SpecialPathnames::configuredRoot() const
{
    static constexpr const char* notConfigured = "???";
    const Utils::Config config( Utils::Config::masterConfFileNameCStr );
    const std::string text =
        config.stringValue( "", Pathname::ourIxoRootPathnameToken, notConfigured );
    if ( text == notConfigured )
        return Pathname( myPathnames[Pathname::userHomeDirectory],
                         Pathname::ourDefaultIxoRootFileName );
    return Pathname( text );
}

// The permissions of one kind, by class.
struct ClassBits
{
    std::uint32_t myUser;
    std::uint32_t myGroup;
    std::uint32_t myOther;
};

constexpr ClassBits ourReadableBits = { FileSystem::userReadable, FileSystem::groupReadable,
                                        FileSystem::otherReadable };
constexpr ClassBits ourWriteableBits = { FileSystem::userWriteable, FileSystem::groupWriteable,
                                         FileSystem::otherWriteable };
constexpr ClassBits ourExecutableBits = { FileSystem::userExecutable, FileSystem::groupExecutable,
                                          FileSystem::otherExecutable };

std::uint32_t levelOf( const Pathname& pathname, const ClassBits& bits, std::uint32_t forAll )
{
    const std::uint32_t attributes =
        pathname.isValid() ? FileSystem::pathnameAttributes( pathname.str() ) : 0;
    if ( attributes & forAll )
        return Pathname::user | Pathname::group | Pathname::other;
    return ( attributes & bits.myUser ? Pathname::user : 0u ) |
           ( attributes & bits.myGroup ? Pathname::group : 0u ) |
           ( attributes & bits.myOther ? Pathname::other : 0u );
}

bool grant( const Pathname& pathname, const ClassBits& bits, std::uint32_t level )
{
    const std::uint32_t granted = ( level & Pathname::user ? bits.myUser : 0u ) |
                                  ( level & Pathname::group ? bits.myGroup : 0u ) |
                                  ( level & Pathname::other ? bits.myOther : 0u );
    return pathname.isValid() && FileSystem::setPathnameAttributes( pathname.str(), granted );
}

// Removal goes by open directories, not by pathnames: a directory that is exchanged for a symbolic
// link meanwhile cannot lead it elsewhere.

// A deeper tree than this is refused (ELOOP): each level takes a descriptor and a piece of stack.
constexpr int maxNbrOfLevels = 1000;

bool removeEntry( int parentFd, const char* namePtr, int level );

// The names are read before the first is removed: a stream need not survive changes.
bool readNames( int dirFd, std::vector< std::string >* namesPtr )
{
    const int streamFd = ::fcntl( dirFd, F_DUPFD_CLOEXEC, 0 );
    if ( streamFd < 0 )
        return false;
    const std::unique_ptr< DIR, int ( * )( DIR* ) > streamPtr( ::fdopendir( streamFd ),
                                                               &::closedir );
    if ( !streamPtr ) {
        ::close( streamFd );
        return false;
    }
    errno = 0;
    while ( const dirent* const entryPtr = ::readdir( streamPtr.get() ) ) {
        const std::string name = entryPtr->d_name;
        if ( name != "." && name != ".." )
            namesPtr->push_back( name );
    }
    return errno == 0;
}

bool emptyDirectory( int parentFd, const char* namePtr, int level )
{
    if ( level >= maxNbrOfLevels ) {
        errno = ELOOP;
        return false;
    }
    const Utils::Handle dirFd( Utils::retryOnEintr( [=] {
        return ::openat( parentFd, namePtr, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC );
    } ) );
    std::vector< std::string > names;
    if ( !dirFd.isValid() || !readNames( dirFd, &names ) )
        return false;
    for ( const std::string& name : names ) {
        if ( !removeEntry( dirFd, name.c_str(), level + 1 ) )
            return false;
    }
    return true;
}

bool removeEntry( int parentFd, const char* namePtr, int level )
{
    if ( Utils::retryOnEintr( [=] { return ::unlinkat( parentFd, namePtr, 0 ); } ) == 0 )
        return true;
    if ( errno == ENOENT || errno == ENOTDIR )
        return true;
    if ( errno != EISDIR )
        return false;
    return emptyDirectory( parentFd, namePtr, level ) &&
           Utils::retryOnEintr( [=] { return ::unlinkat( parentFd, namePtr, AT_REMOVEDIR ); } ) ==
               0;
}

} // namespace

Pathname::Pathname( const Utils::String& path )
{
    Utils::String normal = path;
    myPrefixLength = FileSystem::normalize( &normal );
    if ( isValid() )
        myPath = normal;
}

Pathname::Pathname( const Pathname& directory, const Utils::String& name )
{
    if ( directory.isValid() )
        *this =
            Pathname( Utils::String( directory.myPath + FileSystem::ourNameSeparatorChar + name ) );
}

Pathname::Pathname( SpecialPathname special )
    : Pathname( SpecialPathnames::singletonPtr()->get( special ) )
{
}

Pathname::Pathname( SpecialPathname special, const Utils::String& name )
    : Pathname( Pathname( special ), name )
{
}

bool Pathname::createDirectory() const
{
    // A longer path cannot exist, and its parents would be too many to recurse through.
    if ( !isValid() || myPath.size() >= PATH_MAX )
        return false;
    if ( isDirectory() || FileSystem::createDirectory( myPath ) )
        return true;
    Pathname( parentStr() ).createDirectory();
    FileSystem::createDirectory( myPath );
    return isDirectory();
}

bool Pathname::remove() const
{
    return isValid() && myPath.size() > myPrefixLength && removeEntry( AT_FDCWD, cStr(), 0 );
}

bool Pathname::setReadable( std::uint32_t level ) const
{
    nuvAssert( level & ( user | group | other ) );
    return grant( *this, ourReadableBits, level );
}

bool Pathname::setWriteable( std::uint32_t level ) const
{
    nuvAssert( level & ( user | group | other ) );
    return grant( *this, ourWriteableBits, level );
}

bool Pathname::setExecutable( std::uint32_t level ) const
{
    nuvAssert( level & ( user | group | other ) );
    return grant( *this, ourExecutableBits, level );
}

bool Pathname::tempPathname( const Utils::String& prefix, const Pathname& directory,
                             Pathname* tempPathnamePtr )
{
    Utils::String path;
    if ( !FileSystem::tempPathname( prefix, directory.str(), &path ) )
        return false;
    *tempPathnamePtr = Pathname( path );
    nuvAssert( tempPathnamePtr->myPrefixLength > 0 );
    return true;
}

namespace {

constinit std::atomic< std::uint32_t > ourExecutableVersion = 0;

} // namespace

void Pathname::setPathnameOfExecutable( const char* pathPtr )
{
    nuvAssert( pathPtr != NULL );
    SpecialPathnames::singletonPtr()->setExecutable( Pathname( Utils::String( pathPtr ) ) );
    ourExecutableVersion.fetch_add( 1, std::memory_order_release );
}

std::uint32_t Pathname::executableVersion()
{
    return ourExecutableVersion.load( std::memory_order_acquire );
}

bool Pathname::exists() const
{
    return isValid() && FileSystem::pathnameAttributes( myPath ) != 0;
}

bool Pathname::isFile() const
{
    return isValid() && FileSystem::pathnameAttributes( myPath ) & FileSystem::file;
}

bool Pathname::isDirectory() const
{
    return isValid() && FileSystem::pathnameAttributes( myPath ) & FileSystem::directory;
}

Utils::String Pathname::nameStr() const
{
    return isValid() ? myPath.substr( myPath.rfind( FileSystem::ourNameSeparatorChar ) + 1 ) : "";
}

Utils::String Pathname::nameStrSansExtension() const
{
    const std::string name = nameStr();
    return name.substr( 0, name.rfind( '.' ) );
}

Utils::String Pathname::extensionStr() const
{
    const std::string name = nameStr();
    const std::string::size_type pos = name.rfind( '.' );
    return pos != std::string::npos ? name.substr( pos ) : "";
}

Utils::String Pathname::parentStr() const
{
    if ( myPath.size() <= myPrefixLength )
        return "";
    const std::string::size_type length = myPath.rfind( FileSystem::ourNameSeparatorChar );
    return myPath.substr( 0, std::max< std::string::size_type >( length, myPrefixLength ) );
}

std::uint32_t Pathname::readableLevel() const
{
    return levelOf( *this, ourReadableBits, FileSystem::readable );
}

std::uint32_t Pathname::writeableLevel() const
{
    return levelOf( *this, ourWriteableBits, FileSystem::writeable );
}

std::uint32_t Pathname::executableLevel() const
{
    return levelOf( *this, ourExecutableBits, FileSystem::executable );
}

Pathname::Iterator Pathname::begin() const
{
    return isValid() ? Iterator( myPath ) : Iterator();
}

Pathname::Iterator::Iterator( const Utils::String& directory )
    : myDirHandle( FileSystem::openDirectory( directory ) )
{
    if ( myDirHandle != FileSystem::invalidDirectoryHandle() )
        advance();
}

Pathname::Iterator::Iterator( const Iterator& rhs )
    : myDirHandle( rhs.myDirHandle )
    , myName( rhs.myName )
{
    FileSystem::referenceDirectory( myDirHandle );
}

Pathname::Iterator& Pathname::Iterator::operator=( const Iterator& rhs )
{
    const FileSystem::DirectoryHandle handle = rhs.myDirHandle; // rhs may be this one
    FileSystem::referenceDirectory( handle );
    FileSystem::closeDirectory( &myDirHandle );
    myDirHandle = handle;
    myName = rhs.myName;
    return *this;
}

Pathname::Iterator::~Iterator()
{
    FileSystem::closeDirectory( &myDirHandle );
}

const Utils::String& Pathname::Iterator::operator*() const
{
    nuvAssert( myDirHandle != FileSystem::invalidDirectoryHandle() );
    return myName;
}

const Utils::String* Pathname::Iterator::operator->() const
{
    return &**this;
}

Pathname::Iterator& Pathname::Iterator::operator++()
{
    nuvAssert( myDirHandle != FileSystem::invalidDirectoryHandle() );
    advance();
    return *this;
}

Pathname::Iterator Pathname::Iterator::operator++( int )
{
    const Iterator before = *this;
    ++*this;
    return before;
}

void Pathname::Iterator::advance()
{
    if ( !FileSystem::readDirectory( myDirHandle, &myName ) )
        FileSystem::closeDirectory( &myDirHandle );
}

} // namespace Nuv::Io
