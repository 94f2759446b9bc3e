#include "nuvFileSystem.h"

#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <cstdlib>
#include <optional>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace {

// What the system is made to say of files and of this process.
std::optional< mode_t > ourMode;
std::optional< ino_t > ourInode;
uid_t ourEuid = 1000, ourOwner = 1000;
gid_t ourGroup = 1000;

int disguise( int result, struct stat* statPtr )
{
    statPtr->st_mode = ourMode.value_or( statPtr->st_mode );
    statPtr->st_ino = ourInode.value_or( statPtr->st_ino );
    statPtr->st_uid = ourOwner;
    statPtr->st_gid = ourGroup;
    return result;
}

} // namespace

NUV_WRAP_REAL( int, NUV_TIME64( stat ), ( const char* pathPtr, struct stat* ptr ),
               disguise( NUV_REAL( NUV_TIME64( stat ) )( pathPtr, ptr ), ptr ) )
NUV_WRAP( uid_t, getuid, (), 1000 )
NUV_WRAP( uid_t, geteuid, (), ourEuid )
NUV_WRAP( gid_t, getgid, (), 1000 )
NUV_WRAP( gid_t, getegid, (), 1000 )

namespace Nuv::Io {
namespace {

using Utils::String;
using FS = FileSystem;

class FileSystemOnFolder : public ::testing::Test
{
protected:
    String path( const char* namePtr ) const { return myFolder.path( namePtr ); }
    String makeFile( const char* namePtr )
    {
        NuvTest::writeFile( path( namePtr ), "12345" );
        return path( namePtr );
    }

    NuvTest::TemporaryFolder myFolder;
};

TEST( FileSystemNormalize, GivesTheOneFormOfEveryPathname )
{
    ASSERT_TRUE( FS::setCurrentDirectory( "/usr" ) );
    std::istringstream rows( // TEXT=NORMAL; no normal form: refused
        "/a/./b//c/../d=/a/b/d /=/ //=/ /.=/ /./=/ /a/..=/ /a/=/a /a/.=/a /././//./a///=/a "
        "/a/b/../../c=/c /a/./../b=/b /.../..a/a../.b=/.../..a/a../.b rel=/usr/rel "
        "./rel/=/usr/rel .=/usr ../rel=/rel ..=/ = ../..= /..= /../x= /a/../../a= /./../a=" );
    for ( std::string row; rows >> row; ) {
        const String text = row.substr( 0, row.find( '=' ) );
        const std::string normal = row.substr( row.find( '=' ) + 1 );
        String result = text;
        EXPECT_EQ( FS::normalize( &result ), normal.empty() ? 0u : 1u ) << row;
        EXPECT_EQ( result, normal.empty() ? text : normal ) << row;
    }
    String withNul( "/a\0b", 4 );
    EXPECT_EQ( FS::normalize( &withNul ), 0u );
    EXPECT_TRUE( FS::setCurrentDirectory( "/" ) && !FS::setCurrentDirectory( "/no/such" ) );
}

TEST( FileSystemTexts, ChildIsBelowParentByWholeNames )
{
    std::istringstream rows( "/a/bc /a/b 0 /a/b/c /a/b 1 /a/b /a/b 0 /a /a/b 0 /a / 1 /a/b /a/ 1 "
                             "/x/b/c /a/b 0 / / 0 " );
    bool isChild;
    for ( std::string child, parent; rows >> child >> parent >> isChild; )
        EXPECT_EQ( FS::isChildOf( child, parent ), isChild ) << child << " " << parent;
}

TEST_F( FileSystemOnFolder, AttributesFollowModeOwnerGroupAndName )
{
    // Mode, owner, group, effective user; then kind and what the process may do.
    constexpr std::uint32_t r = FS::readable, w = FS::writeable, x = FS::executable;
    const std::tuple< mode_t, uid_t, gid_t, uid_t, std::uint32_t > rows[] = {
        { S_IFREG | 0640, 1000, 5, 1000, FS::file | r | w },
        { S_IFREG | 0640, 7, 1000, 1000, FS::file | r },
        { S_IFREG | 0106, 7, 5, 1000, FS::file | r | w },
        { S_IFDIR | 0031, 7, 1000, 1000, FS::directory | w | x },
        { S_IFREG | 0000, 7, 5, 0, FS::file | r | w | x },
        { S_IFIFO | 0000, 7, 5, 1000, 0 } };
    EXPECT_FALSE( FS::pathnameAttributes( makeFile( ".a/profile" ) ) & FS::hidden );
    const String pathname = makeFile( "a/.profile" );
    for ( const auto& [mode, owner, group, euid, bits] : rows ) {
        ourMode = mode;
        ourOwner = owner;
        ourGroup = group;
        ourEuid = euid;
        const std::uint32_t kinds = FS::file | FS::directory | r | w | x;
        EXPECT_EQ( FS::pathnameAttributes( pathname ) & kinds, bits )
            << std::oct << mode << " " << bits;
    }
    ourMode = 0421;
    EXPECT_EQ( FS::pathnameAttributes( pathname ),
               FS::hidden | x | FS::userReadable | FS::groupWriteable | FS::otherExecutable );
    EXPECT_EQ( FS::pathnameAttributes( "/missing" ), 0u );
    EXPECT_THROW( FS::pathnameAttributes( "tmp" ), LogicException ); // in the current directory
    ourMode.reset();
}

TEST_F( FileSystemOnFolder, PermissionsAreGrantedAndTakenByTable )
{
    const std::tuple< bool, mode_t, std::uint32_t, mode_t > rows[] = {
        { true, 0040, FS::writeable | FS::readable, 0644 },
        { true, 0200, FS::executable, 0311 },
        { true, 01000, FS::userReadable | FS::groupWriteable | FS::otherExecutable, 01421 },
        { false, 0777, FS::readable | FS::executable, 0222 },
        { false, 06777, FS::writeable, 06555 } };
    const String pathname = makeFile( "x" );
    for ( const auto& [isSet, before, bits, after] : rows ) {
        ::chmod( pathname.c_str(), before );
        EXPECT_TRUE( isSet ? FS::setPathnameAttributes( pathname, bits )
                           : FS::clearPathnameAttributes( pathname, bits ) );
        EXPECT_EQ( NuvTest::modeOf( pathname ), after ) << std::oct << before << " " << bits;
    }
    EXPECT_FALSE( FS::setPathnameAttributes( path( "missing" ), FS::readable ) );
}

TEST_F( FileSystemOnFolder, SizeTimeAndKeyAreThoseOfTheFile )
{
    const String pathname = makeFile( "x" ), missing = path( "missing" );
    ASSERT_EQ( ::truncate( pathname.c_str(), 5000000000 ), 0 ); // sparse; beyond 32 bits
    EXPECT_EQ( FS::fileSize( pathname ), 5000000000u );
    EXPECT_EQ( FS::lastModifiedTime( missing ), Utils::Time( 0 ) );
    EXPECT_GT( FS::lastModifiedTime( pathname ),
               Utils::Time( 1700000000 * Utils::Time::nsPerSec ) );
    EXPECT_EQ( FS::ftok( missing.c_str(), 1 ), -1 );
    ourInode = 0x500000007;
    EXPECT_EQ( FS::ftok( pathname.c_str(), 1 ), 7 );
    ourInode = 0x500000000;
    EXPECT_EQ( FS::ftok( pathname.c_str(), 1 ), -1 ); // never private
    ourInode.reset();
}

TEST_F( FileSystemOnFolder, TemporaryFilesAreNewAndPrivate )
{
    const mode_t savedMask = ::umask( 0 );
    String a, b;
    EXPECT_TRUE( FS::tempPathname( "pre", myFolder.path(), &a ) );
    EXPECT_TRUE( FS::tempPathname( "pre", myFolder.path(), &b ) && a != b );
    EXPECT_EQ( a.substr( 0, a.size() - 6 ), path( "pre" ) );
    EXPECT_EQ( NuvTest::modeOf( a ), 0600u );
    EXPECT_EQ( ::umask( savedMask ), 0u ); // as it was before
    EXPECT_FALSE( FS::tempPathname( "pre", path( "missing" ), &b ) );
    ::setenv( "TMPDIR", myFolder.path().c_str(), 1 );
    for ( const uid_t euid : { 1001u, 1000u } ) { // the environment of its own user alone
        ourEuid = euid;
        EXPECT_TRUE( FS::tempPathname( "nuvTest", "", &a ) && FS::remove( a ) );
        EXPECT_EQ( a.substr( 0, a.rfind( '/' ) ), euid == 1000 ? myFolder.path() : "/tmp" );
    }
}

TEST( UmaskScopes, CreatingThreadsAndForksLeaveTheRightUmask )
{
    const NuvTest::TemporaryFolder folder;
    const mode_t savedMask = ::umask( 027 );
    std::atomic< bool > isDone = false;
    const auto create = [&]( const std::string& directory, mode_t mask ) {
        while ( !isDone ) {
            const UmaskScope outer( 0777 ), scope( mask );
            EXPECT_EQ( ::mkdir( directory.c_str(), 0777 ), 0 );
            EXPECT_EQ( NuvTest::modeOf( directory ), 0777 & ~mask );
            EXPECT_EQ( ::rmdir( directory.c_str() ), 0 );
        }
    };
    std::thread first( create, folder.path( "a" ), 02 ), second( create, folder.path( "b" ), 033 );
    for ( int i = 0; i < 20; ++i ) {
        const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
            std::optional< UmaskScope >( 0 ).reset(); // no thread that is missing here holds it
            EXPECT_EQ( ::umask( 0 ), 027u );
        } );
        EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors << outcome.output;
    }
    isDone = true;
    first.join();
    second.join();
    EXPECT_EQ( ::umask( savedMask ), 027u );
}

} // namespace
} // namespace Nuv::Io
