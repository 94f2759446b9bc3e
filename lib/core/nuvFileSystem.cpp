#include "nuvFileSystem.h"

#include "nuvMutex.h"
#include "nuvUtils.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string_view>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::Io {

namespace {

struct ModeAttribute
{
    mode_t myMode;
    std::uint32_t myAttribute;
};

constexpr ModeAttribute ourClassBits[] = {
    { 0400, FileSystem::userReadable },   { 0200, FileSystem::userWriteable },
    { 0100, FileSystem::userExecutable }, { 0040, FileSystem::groupReadable },
    { 0020, FileSystem::groupWriteable }, { 0010, FileSystem::groupExecutable },
    { 0004, FileSystem::otherReadable },  { 0002, FileSystem::otherWriteable },
    { 0001, FileSystem::otherExecutable } };

constexpr ModeAttribute ourGrants[] = { { 0444, FileSystem::readable },
                                        { 0200, FileSystem::writeable },
                                        { 0111, FileSystem::executable } };

constexpr ModeAttribute ourRevocations[] = { { 0444, FileSystem::readable },
                                             { 0222, FileSystem::writeable },
                                             { 0111, FileSystem::executable } };

bool examine( const char* pathPtr, struct stat* statPtr )
{
    return Utils::retryOnEintr( [=] { return ::stat( pathPtr, statPtr ); } ) == 0;
}

bool changeMode( const char* pathPtr, mode_t mode )
{
    return Utils::retryOnEintr( [=] { return ::chmod( pathPtr, mode & 07777 ); } ) == 0;
}

template < std::size_t count >
mode_t modeOf( const ModeAttribute ( &table )[count], std::uint32_t bits )
{
    mode_t mode = 0;
    for ( const ModeAttribute& row : table ) {
        if ( bits & row.myAttribute )
            mode |= row.myMode;
    }
    return mode;
}

// What the calling process may do, of readable, writeable and executable.
std::uint32_t accessOf( const struct stat& info )
{
    const uid_t euid = ::geteuid();
    if ( euid == 0 )
        return FileSystem::readable | FileSystem::writeable | FileSystem::executable;
    mode_t shared = info.st_mode & 0007;
    if ( info.st_uid == euid )
        shared |= info.st_mode >> 6 & 0007;
    if ( info.st_gid == ::getegid() )
        shared |= info.st_mode >> 3 & 0007;
    return ( shared & 04 ? FileSystem::readable : 0u ) |
           ( shared & 02 ? FileSystem::writeable : 0u ) |
           ( shared & 01 ? FileSystem::executable : 0u );
}

bool hasRealIdentities()
{
    return ::getuid() == ::geteuid() && ::getgid() == ::getegid();
}

Utils::String defaultTempDirectory()
{
    if ( hasRealIdentities() ) {
        for ( const char* namePtr : { "TMPDIR", "TMP" } ) {
            const char* const valuePtr = std::getenv( namePtr );
            if ( valuePtr != nullptr && *valuePtr != '\0' )
                return valuePtr;
        }
    }
    return "/tmp";
}

} // namespace

std::uint32_t FileSystem::pathnameAttributes( const Utils::String& path )
{
    struct stat info;
    if ( !examine( path.c_str(), &info ) )
        return 0;
    std::uint32_t bits = accessOf( info );
    if ( S_ISDIR( info.st_mode ) )
        bits |= directory;
    else if ( S_ISREG( info.st_mode ) )
        bits |= file;
    for ( const ModeAttribute& row : ourClassBits ) {
        if ( info.st_mode & row.myMode )
            bits |= row.myAttribute;
    }
    const std::string::size_type pos = path.rfind( ourNameSeparatorChar );
    nuvAssertText( pos != std::string::npos, "pos != stl::string::npos" );
    if ( path.c_str()[pos + 1] == '.' )
        bits |= hidden;
    return bits;
}

bool FileSystem::setPathnameAttributes( const Utils::String& path, std::uint32_t bits )
{
    struct stat info;
    return examine( path.c_str(), &info ) &&
           changeMode( path.c_str(),
                       info.st_mode | modeOf( ourGrants, bits ) | modeOf( ourClassBits, bits ) );
}

bool FileSystem::clearPathnameAttributes( const Utils::String& path, std::uint32_t bits )
{
    struct stat info;
    return examine( path.c_str(), &info ) &&
           changeMode( path.c_str(), info.st_mode & ~modeOf( ourRevocations, bits ) );
}

int FileSystem::compare( const Utils::String& a, const Utils::String& b )
{
    return a.compare( b );
}

bool FileSystem::rename( const Utils::String& from, const Utils::String& to )
{
    return Utils::retryOnEintr( [&] { return ::rename( from.c_str(), to.c_str() ); } ) == 0;
}

bool FileSystem::createDirectory( const Utils::String& path )
{
    return Utils::retryOnEintr( [&] { return ::mkdir( path.c_str(), 0755 ); } ) == 0;
}

bool FileSystem::remove( const Utils::String& path )
{
    return Utils::retryOnEintr( [&] { return ::remove( path.c_str() ); } ) == 0;
}

bool FileSystem::setCurrentDirectory( const Utils::String& path )
{
    return Utils::retryOnEintr( [&] { return ::chdir( path.c_str() ); } ) == 0;
}

std::uint64_t FileSystem::fileSize( const Utils::String& path )
{
    struct stat info;
    return examine( path.c_str(), &info ) ? static_cast< std::uint64_t >( info.st_size ) : 0;
}

Utils::Time FileSystem::lastModifiedTime( const Utils::String& path )
{
    Utils::Time time( 0 );
    struct stat info;
    if ( examine( path.c_str(), &info ) )
        time.set( timeval{ info.st_mtim.tv_sec, 0 } );
    return time;
}

bool FileSystem::isChildOf( const Utils::String& child, const Utils::String& parent )
{
    if ( child.size() <= parent.size() || child.compare( 0, parent.size(), parent ) != 0 )
        return false;
    return child[parent.size()] == ourNameSeparatorChar ||
           ( !parent.empty() && parent.back() == ourNameSeparatorChar );
}

Utils::String FileSystem::pathnameOfUserHome()
{
    const char* const homePtr = std::getenv( "HOME" );
    return homePtr != nullptr && *homePtr != '\0' ? homePtr : "/";
}

Utils::String FileSystem::pathnameOfSystemEtc()
{
    return "/etc";
}

bool FileSystem::makePathAbsolute( Utils::String* pathPtr )
{
    if ( !pathPtr->empty() && pathPtr->front() == ourNameSeparatorChar )
        return true;
    const std::unique_ptr< char, decltype( &std::free ) > currentPtr( ::getcwd( nullptr, 0 ),
                                                                      &std::free );
    if ( !currentPtr )
        return false;
    pathPtr->insert( 0, std::string( currentPtr.get() ) + ourNameSeparatorChar );
    return true;
}

unsigned int FileSystem::normalize( Utils::String* pathPtr )
{
    Utils::String path = *pathPtr;
    if ( path.empty() || path.find( '\0' ) != std::string::npos || !makePathAbsolute( &path ) )
        return 0;
    std::string normal;
    std::string_view rest = path;
    while ( !rest.empty() ) {
        const std::string_view name = rest.substr( 0, rest.find( ourNameSeparatorChar ) );
        rest.remove_prefix( std::min( rest.size(), name.size() + 1 ) );
        if ( name.empty() || name == "." )
            continue;
        if ( name != ".." ) {
            normal.append( 1, ourNameSeparatorChar ).append( name );
            continue;
        }
        if ( normal.empty() )
            return 0;
        normal.erase( normal.rfind( ourNameSeparatorChar ) );
    }
    pathPtr->assign( normal.empty() ? "/" : normal );
    return 1;
}

FileSystem::DirectoryHandle FileSystem::openDirectory( const Utils::String& path )
{
    std::unique_ptr< DirectoryInfo > infoPtr( new DirectoryInfo{ nullptr, 1 } );
    do {
        infoPtr->myDirPtr = ::opendir( path.c_str() );
    } while ( infoPtr->myDirPtr == nullptr && errno == EINTR );
    return infoPtr->myDirPtr != nullptr ? infoPtr.release() : invalidDirectoryHandle();
}

void FileSystem::referenceDirectory( DirectoryHandle dirHandle )
{
    if ( dirHandle != invalidDirectoryHandle() )
        ++dirHandle->myNbrOfReferences;
}

void FileSystem::closeDirectory( DirectoryHandle* dirHandlePtr )
{
    nuvAssert( dirHandlePtr != NULL );
    const DirectoryHandle dirHandle = *dirHandlePtr;
    *dirHandlePtr = invalidDirectoryHandle();
    if ( dirHandle == invalidDirectoryHandle() || --dirHandle->myNbrOfReferences > 0 )
        return;
    ::closedir( dirHandle->myDirPtr );
    delete dirHandle;
}

bool FileSystem::readDirectory( DirectoryHandle dirHandle, Utils::String* pathnameStrPtr )
{
    nuvAssert( dirHandle != invalidDirectoryHandle() && pathnameStrPtr != NULL );
    while ( const dirent* const entryPtr = ::readdir( dirHandle->myDirPtr ) ) {
        const std::string_view name = entryPtr->d_name;
        if ( name == "." || name == ".." )
            continue;
        pathnameStrPtr->assign( name );
        return true;
    }
    return false;
}

bool FileSystem::tempPathname( const Utils::String& prefix, const Utils::String& directory,
                               Utils::String* resultPtr )
{
    std::string path = directory.empty() ? defaultTempDirectory() : directory;
    path.append( 1, ourNameSeparatorChar ).append( prefix ).append( "XXXXXX" );
    if ( path.find( '\0' ) != std::string::npos ) {
        errno = EINVAL;
        return false;
    }
    int fd = -1;
    {
        const UmaskScope umaskScope( 033 );
        fd = Utils::retryOnEintr( [&] { return ::mkostemp( path.data(), O_CLOEXEC ); } );
    }
    if ( fd < 0 )
        return false;
    ::close( fd );
    resultPtr->assign( path );
    return true;
}

::key_t FileSystem::ftok( const char* pathPtr, int )
{
    struct stat info;
    if ( !examine( pathPtr, &info ) )
        return -1;
    const auto key = static_cast< ::key_t >( static_cast< std::uint32_t >( info.st_ino ) );
    return key != IPC_PRIVATE ? key : -1;
}

namespace {

// A leaf: nothing is locked or waited for under it.
Mt::Mutex ourUmaskMutex;

void lockForFork() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    ourUmaskMutex.enter();
}

void unlockAfterFork() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    ourUmaskMutex.exit();
}

// The child's thread has another identity than the one that locked, so it cannot unlock; the call
// tells a checker of locks alone.
void renewAfterFork() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    ourUmaskMutex.exit();
    ::new ( &ourUmaskMutex ) Mt::Mutex();
}

} // namespace

NUV_STARTUP void UmaskScope::watchForks()
{
    [[maybe_unused]] static const int registered =
        ::pthread_atfork( &lockForFork, &unlockAfterFork, &renewAfterFork );
}

UmaskScope::UmaskScope( mode_t mask ) NUV_NO_THREAD_SAFETY_ANALYSIS
{
    watchForks();
    ourUmaskMutex.enter();
    mySavedMask = ::umask( mask );
}

UmaskScope::~UmaskScope() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    const int errorNbr = errno;
    ::umask( mySavedMask );
    ourUmaskMutex.exit();
    errno = errorNbr;
}

} // namespace Nuv::Io
