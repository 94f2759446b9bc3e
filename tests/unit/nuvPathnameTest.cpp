#include "nuvPathname.h"

#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

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

NUV_FAIL_CALLS( ourRemovalFault, -1, int, unlinkat, ( int fd, const char* namePtr, int flags ),
                ( fd, namePtr, flags ) )
NUV_FAIL_CALLS( ourRemovalFault, nullptr, DIR*, fdopendir, ( int fd ), ( fd ) )
NUV_WRAP_REAL( int, NUV_OFF64( openat ), ( int fd, const char* namePtr, int flags, ... ),
               ourBeforeOpening ? std::exchange( ourBeforeOpening, nullptr )() : void(),
               ourRemovalFault.strikes() ? -1
                                         : NUV_REAL( NUV_OFF64( openat ) )( fd, namePtr, flags ) )

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
    EXPECT_EQ( Pathname( Pathname( String( "/" ) ), "a" ).str(), "/a" );
    const Pathname invalid( directory, "../../.." );
    EXPECT_FALSE( invalid.isValid() || Pathname( invalid, "etc" ).isValid() );
    EXPECT_FALSE( invalid.exists() || invalid.createDirectory() || invalid.remove() ||
                  invalid.setReadable( 1 ) || invalid.readableLevel() != 0 );
    EXPECT_TRUE( invalid.begin() == invalid.end() );
}

TEST_F( PathnameOnFolder, IteratorGivesEachNameOnceAndCopiesShareTheDirectory )
{
    ASSERT_TRUE( at( "d/sub" ).createDirectory() );
    makeFile( "d/.a" );
    makeFile( "d/b" );
    EXPECT_EQ( namesIn( at( "d" ) ), ( Names{ ".a", "b", "sub" } ) );
    EXPECT_TRUE( at( "d/sub" ).begin() == at( "d/sub" ).end() );

    Pathname::Iterator i = at( "d" ).begin();
    const Pathname::Iterator before = i++;
    Names seen{ *before, *i };
    Pathname::Iterator other = at( "d/sub" ).begin();
    other = i;
    seen.insert( *++other );
    EXPECT_EQ( seen.size(), 3u );
    ++i; // the end, for the one that took the last step; the other still holds the directory
    EXPECT_TRUE( i == Pathname::Iterator() );
    EXPECT_THROW( *i, LogicException );
    EXPECT_THROW( i++, LogicException );
}

TEST_F( PathnameOnFolder, CreateDirectoryMakesMissingParents )
{
    EXPECT_TRUE( at( "a/b/c" ).createDirectory() );
    makeFile( "file" );
    EXPECT_FALSE( at( "file/x/y" ).createDirectory() );
    String deep = path( "deep" );
    while ( deep.size() < 3000000 ) // parents without end: neither made nor recursed through
        deep += "/d";
    EXPECT_FALSE( Pathname( deep ).createDirectory() );

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
    ::symlink( path( "kept" ).c_str(), path( "tree/a/toDirectory" ).c_str() );
    ::symlink( path( "kept/file" ).c_str(), path( "tree/toFile" ).c_str() );
    ::symlink( "nowhere", path( "tree/dangling" ).c_str() );
    ::symlink( path( "tree" ).c_str(), path( "toTree" ).c_str() );
    EXPECT_TRUE( at( "toTree" ).remove() );
    EXPECT_TRUE( at( "tree" ).remove() );
    EXPECT_EQ( namesIn( Pathname( String( myFolder.path() ) ) ), ( Names{ "kept" } ) );
    EXPECT_EQ( namesIn( at( "kept" ) ), ( Names{ "sub", "file" } ) );
    EXPECT_TRUE( at( "kept/file/below" ).remove() ); // nothing can be there
    EXPECT_FALSE( Pathname( String( "/" ) ).remove() );
}

TEST_F( PathnameOnFolder, RemoveIsNotLedElsewhereByALinkThatComesMeanwhile )
{
    makeFile( "kept/file" );
    ASSERT_TRUE( at( "tree/a" ).createDirectory() );
    ourBeforeOpening = [this] {
        EXPECT_TRUE( FileSystem::rename( path( "tree" ), path( "moved" ) ) );
        ::symlink( path( "kept" ).c_str(), path( "tree" ).c_str() );
    };
    EXPECT_FALSE( at( "tree" ).remove() );
    EXPECT_TRUE( at( "kept/file" ).isFile() );
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
}

TEST_F( PathnameOnFolder, LevelsAreThoseOfTheModeOrAllThree )
{
    makeFile( "x" );
    const NuvTest::Outcome outcome = runInChild( [this] {
        const Pathname pathname = at( "x" );
        ASSERT_EQ( ::chmod( pathname.cStr(), 0 ), 0 );
        ASSERT_EQ( ::chmod( myFolder.path().c_str(), 0755 ), 0 );
        EXPECT_TRUE( pathname.setReadable( Pathname::group | Pathname::other ) );
        EXPECT_TRUE( pathname.setWriteable( Pathname::user | 8 ) );
        EXPECT_TRUE( pathname.setExecutable( Pathname::other ) );
        EXPECT_EQ( modeOf( pathname ), 0245u );
        EXPECT_THROW( pathname.setReadable( 8 ), LogicException );
        EXPECT_EQ( pathname.readableLevel(), 7u ); // readable by this process
        if ( ::setegid( 65534 ) != 0 || ::seteuid( 65534 ) != 0 )
            return;                                 // in a user namespace there is nobody else
        EXPECT_EQ( pathname.readableLevel(), 7u );  // as one of the others
        EXPECT_EQ( pathname.writeableLevel(), 1u ); // the user's alone
    } );
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
        ASSERT_TRUE( ::mkdir( path( "ixoRoot" ).c_str(), 0700 ) == 0 &&
                     ::mkdir( path( "ixoRoot/etc" ).c_str(), 0700 ) == 0 );
        const Pathname root( Pathname::rootDirectory );
        for ( const char* namePtr : { "bin", "log", "var", "tmp", "tmp/ipc" } )
            EXPECT_EQ( modeOf( Pathname( root, namePtr ) ), 0775u ) << namePtr;
        EXPECT_EQ( modeOf( Pathname( root, "etc" ) ), 0700u ); // was there, and stays as it was
        EXPECT_EQ( Pathname( Pathname::systemEtcDirectory ).str(), "/etc" );
        EXPECT_EQ( Pathname( Pathname::rootDirectory, "etc/log.conf" ),
                   at( "ixoRoot/etc/log.conf" ) );
    } );
}

TEST_F( SpecialPathnames, HomesConfigurationOverridesThatOfTheSystem )
{
    const std::string etc = "ixoRootPathname = " + path( "etcRoot" );
    const std::string home = "ixoRootPathname = " + path( "homeRoot/./x/" );
    runWith( etc.c_str(), home.c_str(),
             [this] { EXPECT_EQ( Pathname( Pathname::rootDirectory ), at( "homeRoot/x" ) ); } );
    runWith( etc.c_str(), "ixoRootPathname = /../x", [] { // has no normal form
        EXPECT_FALSE( Pathname( Pathname::ipcDirectory, "sem_x" ).isValid() );
    } );
}

TEST_F( SpecialPathnames, ExecutableIsInvalidUntilSet )
{
    runWith( nullptr, nullptr, [] {
        EXPECT_FALSE( Pathname( Pathname::executablePathname ).isValid() );
        Pathname::setPathnameOfExecutable( "/bin/./b" );
        EXPECT_EQ( Pathname( Pathname::executablePathname ).str(), "/bin/b" );
    } );
}

} // namespace
} // namespace Nuv::Io
