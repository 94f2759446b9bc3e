#include "nuvPathname.h"

#include "nuvTestSupport.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {
NuvTest::Fault ourRemovalFault;           // in any call of a removal
std::function< void() > ourBeforeOpening; // of a directory that is to be emptied
} // namespace

// NOLINTBEGIN: the linker gives these names
extern "C" int __real_unlinkat( int, const char*, int );
extern "C" int __wrap_unlinkat( int fd, const char* namePtr, int flags )
{
    return ourRemovalFault.strikes() ? -1 : __real_unlinkat( fd, namePtr, flags );
}
extern "C" DIR* __real_fdopendir( int );
extern "C" DIR* __wrap_fdopendir( int fd )
{
    return ourRemovalFault.strikes() ? nullptr : __real_fdopendir( fd );
}
#ifdef __i386__
#define NUV_OPENAT( prefix ) prefix##openat64
#else
#define NUV_OPENAT( prefix ) prefix##openat
#endif
extern "C" int NUV_OPENAT( __real_ )( int, const char*, int, ... );
extern "C" int NUV_OPENAT( __wrap_ )( int fd, const char* namePtr, int flags, ... )
{
    if ( ourBeforeOpening )
        std::exchange( ourBeforeOpening, nullptr )();
    return ourRemovalFault.strikes() ? -1 : NUV_OPENAT( __real_ )( fd, namePtr, flags );
}
// NOLINTEND

namespace Nuv::Io {
namespace {

using NuvTest::runInChild;
using Utils::String;
using Names = std::set< std::string >;

class PathnameOnFolder : public ::testing::Test
{
protected:
    String path( const std::string& name ) const { return myFolder.path( name ); }
    Pathname at( const std::string& name ) const { return Pathname( path( name ) ); }
    void makeFile( const std::string& name ) { NuvTest::writeFile( path( name ), "x" ); }
    void makeLink( const std::string& target, const std::string& name )
    {
        EXPECT_EQ( ::symlink( target.c_str(), path( name ).c_str() ), 0 );
    }
    static Names namesIn( const Pathname& directory )
    {
        Names names;
        for ( const String& name : directory )
            EXPECT_TRUE( names.insert( name ).second ) << name;
        return names;
    }
    static mode_t modeOf( const Pathname& pathname )
    {
        struct stat info = {};
        EXPECT_EQ( ::stat( pathname.cStr(), &info ), 0 ) << pathname.str();
        return info.st_mode & 07777;
    }

    NuvTest::TemporaryFolder myFolder;
};

TEST( PathnameText, IsTakenApartAtTheLastSeparatorAndDot )
{
    std::istringstream rows( // path, name, name without extension, extension, parent; - is empty
        "/x/y/archive.tar.gz archive.tar.gz archive.tar .gz /x/y  /a a a - /  / - - - - "
        "/a.d/b b b - /a.d  /a/.conf .conf - .conf /a  /a/b. b. b . /a  /../x - - - -" );
    const auto shown = []( const String& text ) { return text.empty() ? "-" : text; };
    for ( std::string path, name, bare, extension, parent;
          rows >> path >> name >> bare >> extension >> parent; ) {
        const Pathname pathname{ String( path ) };
        EXPECT_EQ( shown( pathname.nameStr() ), name ) << path;
        EXPECT_EQ( shown( pathname.nameStrSansExtension() ), bare ) << path;
        EXPECT_EQ( shown( pathname.extensionStr() ), extension ) << path;
        EXPECT_EQ( shown( pathname.parentStr() ), parent ) << path;
    }
}

TEST( PathnameText, JoinsNormalisedAndOnlyBelowAValidDirectory )
{
    const Pathname directory( String( "/srv/x/" ) );
    EXPECT_EQ( Pathname( directory, "log/" ).str(), "/srv/x/log" );
    EXPECT_EQ( Pathname( directory, "a/../b" ), Pathname( directory, "b" ) );
    EXPECT_EQ( Pathname( directory, "/b" ).str(), "/srv/x/b" );
    EXPECT_EQ( Pathname( directory, "" ), directory );
    EXPECT_EQ( Pathname( Pathname( String( "/" ) ), "a" ).str(), "/a" );
    EXPECT_FALSE( Pathname( directory, "../../.." ).isValid() );
    EXPECT_FALSE( Pathname( Pathname(), "etc" ).isValid() );
}

TEST( PathnameText, InvalidAnswersNoToEverything )
{
    const Pathname invalid;
    EXPECT_FALSE( invalid.isValid() || invalid.exists() || invalid.isFile() ||
                  invalid.isDirectory() );
    EXPECT_FALSE( invalid.createDirectory() || invalid.remove() );
    EXPECT_FALSE( invalid.setReadable( 1 ) || invalid.setWriteable( 2 ) ||
                  invalid.setExecutable( 4 ) );
    EXPECT_EQ( invalid.readableLevel() | invalid.writeableLevel() | invalid.executableLevel(), 0u );
    EXPECT_TRUE( invalid.begin() == invalid.end() );
    EXPECT_EQ( invalid.str(), "" );
}

TEST_F( PathnameOnFolder, IteratorGivesEachNameOnceAndCopiesShareTheDirectory )
{
    ASSERT_TRUE( at( "d/sub" ).createDirectory() );
    makeFile( "d/.a" );
    makeFile( "d/b" );
    EXPECT_EQ( namesIn( at( "d" ) ), ( Names{ ".a", "b", "sub" } ) );
    EXPECT_TRUE( at( "d/sub" ).begin() == at( "d/sub" ).end() );
    EXPECT_TRUE( at( "d/b" ).begin() == at( "d/b" ).end() );

    Pathname::Iterator i = at( "d" ).begin();
    EXPECT_FALSE( i == at( "d" ).begin() );
    const Pathname::Iterator before = i++;
    EXPECT_TRUE( before == i );
    Names seen{ *before, *i };
    EXPECT_EQ( before->size(), ( *before ).size() );
    Pathname::Iterator other = at( "d/sub" ).begin();
    other = i;
    other = *&other;
    EXPECT_EQ( *other, *i );
    seen.insert( *++other );
    EXPECT_EQ( seen.size(), 3u );
    ++i; // the end, for the one that took the last step; the other still holds the directory
    EXPECT_TRUE( i == Pathname::Iterator() );
    EXPECT_THROW( *i, LogicException );
    EXPECT_THROW( i->size(), LogicException );
    EXPECT_THROW( ++i, LogicException );
    EXPECT_THROW( i++, LogicException );
    other++;
    EXPECT_TRUE( other == i );
}

TEST_F( PathnameOnFolder, CreateDirectoryMakesMissingParents )
{
    EXPECT_TRUE( at( "a/b/c" ).createDirectory() );
    EXPECT_TRUE( at( "a/b/c" ).createDirectory() );
    EXPECT_TRUE( at( "a/b/c" ).isDirectory() );
    makeFile( "file" );
    EXPECT_FALSE( at( "file" ).createDirectory() );
    EXPECT_FALSE( at( "file/x/y" ).createDirectory() );
    String deep = path( "deep" );
    while ( deep.size() < 3000000 ) // parents without end: neither made nor recursed through
        deep += "/d";
    EXPECT_FALSE( Pathname( deep ).createDirectory() );
    EXPECT_FALSE( at( "deep" ).exists() );

    std::atomic< bool > isOn = true;
    std::thread rival( [&] {
        while ( isOn )
            at( "r/s/t" ).createDirectory();
    } );
    for ( int i = 0; i < 200; ++i )
        EXPECT_TRUE( at( "r/s/t/" + std::to_string( i ) ).createDirectory() ) << i;
    isOn = false;
    rival.join();
}

TEST_F( PathnameOnFolder, RemoveTakesTheTreeAndNothingThatLinksLeadTo )
{
    ASSERT_TRUE( at( "kept/sub" ).createDirectory() );
    makeFile( "kept/file" );
    ASSERT_TRUE( at( "tree/a/b" ).createDirectory() );
    makeFile( "tree/a/.hidden" );
    makeLink( path( "kept" ), "tree/a/toDirectory" );
    makeLink( path( "kept/file" ), "tree/toFile" );
    makeLink( "nowhere", "tree/dangling" );
    makeLink( path( "tree" ), "toTree" );
    EXPECT_TRUE( at( "toTree" ).remove() );
    EXPECT_TRUE( at( "tree/a" ).isDirectory() );
    EXPECT_TRUE( at( "tree" ).remove() );
    EXPECT_EQ( namesIn( Pathname( String( myFolder.path() ) ) ), ( Names{ "kept" } ) );
    EXPECT_EQ( namesIn( at( "kept" ) ), ( Names{ "sub", "file" } ) );
    EXPECT_TRUE( at( "kept/file/below" ).remove() ); // nothing can be there
    EXPECT_TRUE( at( "kept/file" ).remove() );
    for ( const char* namePtr : { "kept/file", "missing/x" } )
        EXPECT_TRUE( at( namePtr ).remove() ) << namePtr;
    EXPECT_FALSE( Pathname( String( "/" ) ).remove() );
}

TEST_F( PathnameOnFolder, RemoveIsNotLedElsewhereByALinkThatComesMeanwhile )
{
    makeFile( "kept/file" );
    ASSERT_TRUE( at( "tree/a" ).createDirectory() );
    ourBeforeOpening = [this] {
        EXPECT_TRUE( FileSystem::rename( path( "tree" ), path( "moved" ) ) );
        makeLink( path( "kept" ), "tree" );
    };
    EXPECT_FALSE( at( "tree" ).remove() );
    EXPECT_TRUE( at( "kept/file" ).isFile() );
}

TEST_F( PathnameOnFolder, RemoveRefusesATreeOfExcessiveDepth )
{
    ASSERT_EQ( ::chdir( myFolder.path().c_str() ), 0 );
    for ( int i = 0; i < 1010; ++i )
        ASSERT_TRUE( ::mkdir( "d", 0755 ) == 0 && ::chdir( "d" ) == 0 );
    ASSERT_EQ( ::chdir( "/" ), 0 );
    EXPECT_FALSE( at( "d" ).remove() );
    EXPECT_TRUE( errno == ELOOP || errno == EMFILE ) << errno;
    Pathname deeper = at( "d" );
    for ( int i = 0; i < 200; ++i )
        deeper = Pathname( deeper, "d" );
    EXPECT_TRUE( deeper.remove() );
    EXPECT_TRUE( at( "d" ).remove() );
}

TEST_F( PathnameOnFolder, FailedRemovalStopsAndLeaksNothing )
{
    const auto nbrOfFds = [] { return namesIn( Pathname( String( "/proc/self/fd" ) ) ).size(); };
    const std::size_t before = nbrOfFds();
    for ( int n = 1;; ++n ) {
        SCOPED_TRACE( n );
        makeFile( "tree/a/b/x" );
        ourRemovalFault.arm( n, EACCES );
        const bool isRemoved = at( "tree" ).remove();
        const bool isStruck = ourRemovalFault.nbrOfStrikes() > 0;
        ourRemovalFault.disarm();
        EXPECT_EQ( nbrOfFds(), before );
        EXPECT_EQ( isRemoved, !isStruck );
        EXPECT_EQ( at( "tree" ).exists(), isStruck );
        if ( !isStruck )
            break;
        ASSERT_LT( n, 100 );
    }
    makeFile( "x" );
    ourRemovalFault.arm( 1, EINTR );
    EXPECT_TRUE( at( "x" ).remove() );
}

TEST_F( PathnameOnFolder, LevelsAreThoseOfTheModeOrAllThree )
{
    makeFile( "x" );
    const auto body = [this] {
        const Pathname pathname = at( "x" );
        ASSERT_EQ( ::chmod( pathname.cStr(), 0 ), 0 );
        ASSERT_EQ( ::chmod( myFolder.path().c_str(), 0755 ), 0 );
        EXPECT_TRUE( pathname.setReadable( Pathname::group | Pathname::other ) );
        EXPECT_TRUE( pathname.setWriteable( Pathname::user | 8 ) );
        EXPECT_TRUE( pathname.setExecutable( Pathname::other ) );
        EXPECT_EQ( modeOf( pathname ), 0245u );
        EXPECT_THROW( pathname.setReadable( 8 ), LogicException );
        EXPECT_THROW( pathname.setWriteable( 0 ), LogicException );
        EXPECT_THROW( pathname.setExecutable( 0 ), LogicException );
        EXPECT_EQ( pathname.readableLevel(), 7u ); // readable by this process
        EXPECT_EQ( at( "missing" ).readableLevel(), 0u );
        EXPECT_FALSE( at( "missing" ).setReadable( 1 ) );
        if ( ::setegid( 65534 ) != 0 || ::seteuid( 65534 ) != 0 )
            return;                                 // in a user namespace there is nobody else
        EXPECT_EQ( pathname.readableLevel(), 7u );  // as one of the others
        EXPECT_EQ( pathname.writeableLevel(), 1u ); // the user's alone
        EXPECT_EQ( pathname.executableLevel(), 7u );
    };
    const NuvTest::Outcome outcome = runInChild( body );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
}

// Each in a process of its own, since the special pathnames are built once.
class SpecialPathnames : public PathnameOnFolder
{
protected:
    // The body runs with the folder as HOME and, where it can be had, this text as /etc/nuvs.conf.
    void runWith( const char* etcConfPtr, const char* homeConfPtr,
                  const std::function< void() >& body )
    {
        const NuvTest::Outcome outcome = runInChild( [&] {
            ::setenv( "HOME", myFolder.path().c_str(), 1 );
            if ( homeConfPtr != nullptr )
                NuvTest::writeFile( path( "nuvs.conf" ), homeConfPtr );
            if ( etcConfPtr != nullptr ) {
                if ( ::unshare( CLONE_NEWNS ) != 0 ||
                     ::mount( "tmpfs", "/etc", "tmpfs", 0, "" ) != 0 )
                    std::exit( 77 );
                NuvTest::writeFile( "/etc/nuvs.conf", etcConfPtr );
            }
            ::umask( 022 );
            body();
        } );
        if ( outcome.exitStatus() == 77 )
            GTEST_SKIP() << "no right to mount a private /etc";
        EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
    }
};

TEST_F( SpecialPathnames, DefaultRootIsInTheHomeDirectoryWithItsSubdirectories )
{
    runWith( nullptr, nullptr, [this] {
        ASSERT_EQ( ::mkdir( path( "ixoRoot" ).c_str(), 0700 ), 0 );
        ASSERT_EQ( ::mkdir( path( "ixoRoot/etc" ).c_str(), 0700 ), 0 );
        const Pathname root( Pathname::rootDirectory );
        EXPECT_EQ( root, at( "ixoRoot" ) );
        for ( const char* namePtr : { "bin", "log", "var", "tmp", "tmp/ipc" } )
            EXPECT_EQ( modeOf( Pathname( root, namePtr ) ), 0775u ) << namePtr;
        EXPECT_EQ( modeOf( Pathname( root, "etc" ) ), 0700u ); // was there, and stays as it was
        EXPECT_EQ( modeOf( root ), 0700u );
        EXPECT_EQ( Pathname( Pathname::systemEtcDirectory ).str(), "/etc" );
        EXPECT_EQ( Pathname( Pathname::userHomeDirectory ).str(), myFolder.path() );
        EXPECT_EQ( Pathname( Pathname::ipcDirectory ), at( "ixoRoot/tmp/ipc" ) );
        EXPECT_EQ( Pathname( Pathname::rootDirectory, "etc/log.conf" ),
                   at( "ixoRoot/etc/log.conf" ) );
        EXPECT_EQ( Pathname( Pathname::ipcDirectory, "../x" ), at( "ixoRoot/tmp/x" ) );
    } );
}

TEST_F( SpecialPathnames, HomesConfigurationOverridesThatOfTheSystem )
{
    const std::string etc = "ixoRootPathname = " + path( "etcRoot" );
    const std::string home = "ixoRootPathname = " + path( "homeRoot/./x/" );
    runWith( etc.c_str(), home.c_str(), [this] {
        EXPECT_EQ( Pathname( Pathname::rootDirectory ), at( "homeRoot/x" ) );
        EXPECT_TRUE( at( "homeRoot/x/tmp/ipc" ).isDirectory() );
        EXPECT_FALSE( at( "etcRoot" ).exists() );
    } );
    runWith( etc.c_str(), "other = 1", [this] {
        EXPECT_EQ( Pathname( Pathname::rootDirectory ), at( "etcRoot" ) );
        EXPECT_FALSE( at( "ixoRoot" ).exists() );
    } );
}

TEST_F( SpecialPathnames, UnusableRootFailsWhereItIsUsed )
{
    runWith( nullptr, "ixoRootPathname = /../x", [] {
        EXPECT_FALSE( Pathname( Pathname::rootDirectory ).isValid() );
        EXPECT_FALSE( Pathname( Pathname::ipcDirectory, "sem_x" ).isValid() );
    } );
    runWith( nullptr, "ixoRootPathname = /dev/null/x", [] {
        EXPECT_EQ( Pathname( Pathname::ipcDirectory ).str(), "/dev/null/x/tmp/ipc" );
        EXPECT_FALSE( Pathname( Pathname::rootDirectory ).exists() );
    } );
}

TEST_F( SpecialPathnames, ExecutableIsInvalidUntilSetAndMayBeReadMeanwhile )
{
    runWith( nullptr, nullptr, [] {
        std::atomic< bool > isOn = true; // both threads may be the first user
        std::thread reader( [&] {
            while ( isOn ) {
                const String text = Pathname( Pathname::executablePathname ).str();
                EXPECT_TRUE( text.empty() || text.compare( 0, 5, "/bin/" ) == 0 ) << text;
            }
        } );
        for ( int i = 0; i < 1000; ++i )
            Pathname::setPathnameOfExecutable( i % 2 == 0 ? "/bin/a-long-name-that-is-allocated"
                                                          : "/bin/./b" );
        isOn = false;
        reader.join();
        EXPECT_EQ( Pathname( Pathname::executablePathname ).str(), "/bin/b" );
        EXPECT_THROW( Pathname::setPathnameOfExecutable( nullptr ), LogicException );
        Pathname::setPathnameOfExecutable( "" );
        EXPECT_FALSE( Pathname( Pathname::executablePathname ).isValid() );
    } );
}

} // namespace
} // namespace Nuv::Io
