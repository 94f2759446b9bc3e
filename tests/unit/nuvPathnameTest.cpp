#include "nuvPathname.h"

#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {
std::function< void() > ourBeforeOpening; // of a directory that is to be emptied
}
NUV_WRAP_REAL( int, NUV_OFF64( openat ), ( int fd, const char* namePtr, int flags, ... ),
               ourBeforeOpening ? std::exchange( ourBeforeOpening, nullptr )() : void(),
               NUV_REAL( NUV_OFF64( openat ) )( fd, namePtr, flags ) )

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
    EXPECT_EQ( Pathname( Pathname( String( "/srv/x/" ) ), "a/../b/" ).str(), "/srv/x/b" );
    EXPECT_EQ( Pathname( Pathname( String( "/" ) ), "a" ).str(), "/a" );
    const Pathname invalid( String( "/../x" ) );
    EXPECT_FALSE( invalid.isValid() || Pathname( invalid, "etc" ).isValid() || invalid.exists() ||
                  invalid.createDirectory() || invalid.remove() || invalid.setReadable( 1 ) );
    EXPECT_TRUE( invalid.begin() == invalid.end() );
}

TEST_F( PathnameOnFolder, IteratorGivesEachNameOnceAndCopiesShareTheDirectory )
{
    ASSERT_TRUE( at( "d/sub" ).createDirectory() );
    makeFile( "d/.a" );
    makeFile( "d/b" );
    EXPECT_EQ( namesIn( at( "d" ) ), ( Names{ ".a", "b", "sub" } ) );
    Pathname::Iterator i = at( "d" ).begin(), other = at( "d/sub" ).begin();
    EXPECT_TRUE( other == at( "d/sub" ).end() );
    const Pathname::Iterator before = i++;
    other = i;
    EXPECT_EQ( ( Names{ *before, *i, *++other } ).size(), 3u );
    ++i; // the end, for the one that took the last step; the other still holds the directory
    EXPECT_TRUE( i == Pathname::Iterator() );
    EXPECT_THROW( *i, LogicException );
}

TEST_F( PathnameOnFolder, CreateDirectoryMakesMissingParents )
{
    EXPECT_TRUE( at( "a/b/c" ).createDirectory() && at( "a/b/c" ).isDirectory() );
    makeFile( "file" );
    EXPECT_FALSE( at( "file/x/y" ).createDirectory() );
    String deep = path( "deep" );
    while ( deep.size() < 3000000 ) // parents without end: neither made nor recursed through
        deep += "/d";
    EXPECT_FALSE( Pathname( deep ).createDirectory() );
}

TEST_F( PathnameOnFolder, RemoveTakesTheTreeAndNothingThatLinksLeadTo )
{
    makeFile( "kept/file" );
    ASSERT_TRUE( at( "tree/a/b" ).createDirectory() );
    makeFile( "tree/a/.hidden" );
    ::symlink( path( "kept" ).c_str(), path( "tree/a/toDirectory" ).c_str() );
    ::symlink( path( "kept/file" ).c_str(), path( "tree/toFile" ).c_str() );
    ::symlink( "nowhere", path( "tree/dangling" ).c_str() );
    ::symlink( path( "tree" ).c_str(), path( "toTree" ).c_str() );
    EXPECT_TRUE( at( "toTree" ).remove() && at( "tree" ).exists() && at( "tree" ).remove() );
    EXPECT_EQ( namesIn( Pathname( String( myFolder.path() ) ) ), ( Names{ "kept" } ) );
    EXPECT_TRUE( at( "kept/file/below" ).remove() ); // nothing can be there
    EXPECT_FALSE( Pathname( String( "/" ) ).remove() );

    ASSERT_TRUE( at( "tree/a" ).createDirectory() );
    ourBeforeOpening = [this] { // a link that comes meanwhile
        EXPECT_TRUE( FileSystem::rename( path( "tree" ), path( "moved" ) ) );
        ::symlink( path( "kept" ).c_str(), path( "tree" ).c_str() );
    };
    EXPECT_FALSE( at( "tree" ).remove() );
    EXPECT_TRUE( at( "kept/file" ).isFile() );
}

TEST_F( PathnameOnFolder, LevelsAreThoseOfTheMode )
{
    makeFile( "x" );
    const Pathname pathname = at( "x" );
    ::chmod( pathname.cStr(), 0 );
    EXPECT_TRUE( pathname.setReadable( Pathname::group | Pathname::other ) &&
                 pathname.setWriteable( Pathname::user | 8 ) &&
                 pathname.setExecutable( Pathname::other ) );
    EXPECT_EQ( NuvTest::modeOf( pathname.str() ), 0245u );
    EXPECT_THROW( pathname.setReadable( 8 ), LogicException );
    EXPECT_EQ( pathname.readableLevel(), 7u ); // readable by this process: as if by all
}

// The body runs with the folder as HOME and these texts as configurations, in a process of its own,
// since the special pathnames are built once.
void runWith( const NuvTest::TemporaryFolder& home, const std::string& etcConf,
              const std::string& homeConf, const std::function< void() >& body )
{
    NuvTest::writeFile( home.path( "nuvs.conf" ), homeConf );
    const NuvTest::Outcome outcome = runInChild( [&] {
        ::setenv( "HOME", home.path().c_str(), 1 );
        if ( ::unshare( CLONE_NEWNS ) != 0 || ::mount( "tmpfs", "/etc", "tmpfs", 0, "" ) != 0 )
            std::exit( 77 );
        NuvTest::writeFile( "/etc/nuvs.conf", etcConf );
        ::umask( 022 );
        body();
    } );
    if ( outcome.exitStatus() == 77 )
        GTEST_SKIP() << "no right to mount a private /etc";
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
}

TEST_F( PathnameOnFolder, SpecialOnesFollowTheConfigurationOfTheHomeDirectoryFirst )
{
    ASSERT_TRUE( at( "ixoRoot/etc" ).createDirectory() );
    ::chmod( path( "ixoRoot/etc" ).c_str(), 0700 );
    runWith( myFolder, "", "", [this] {
        const Pathname root( Pathname::rootDirectory );
        EXPECT_EQ( root, at( "ixoRoot" ) );
        for ( const char* namePtr : { "bin", "log", "var", "tmp", "tmp/ipc" } )
            EXPECT_EQ( NuvTest::modeOf( Pathname( root, namePtr ).str() ), 0775u ) << namePtr;
        EXPECT_EQ( NuvTest::modeOf( Pathname( root, "etc" ).str() ), 0700u ); // was there
        EXPECT_FALSE( Pathname( Pathname::executablePathname ).isValid() );
        Pathname::setPathnameOfExecutable( "/bin/./b" );
        EXPECT_EQ( Pathname( Pathname::executablePathname ).str(), "/bin/b" );
    } );
    const std::string etc = "ixoRootPathname = " + path( "etcRoot" );
    runWith( myFolder, etc, "ixoRootPathname = " + path( "homeRoot/./x/" ),
             [this] { EXPECT_EQ( Pathname( Pathname::rootDirectory ), at( "homeRoot/x" ) ); } );
    runWith( myFolder, etc, "ixoRootPathname = /../x", [] { // has no normal form
        EXPECT_FALSE( Pathname( Pathname::ipcDirectory, "sem_x" ).isValid() );
    } );
}

} // namespace
} // namespace Nuv::Io
