#include "nuvFileHelper.h"
#include "nuvLinedFile.h"
#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::Io {
namespace {

std::function< void() > ourBeforeRead;

} // namespace

NUV_WRAP_REAL( ssize_t, read, ( int fd, void* ptr, size_t n ),
               ourBeforeRead ? std::exchange( ourBeforeRead, nullptr )() : void(),
               NUV_REAL( read )( fd, ptr, n ) )

namespace {

class WholeFile : public NuvTest::RootFixture
{
protected:
    Pathname pathname( const char* namePtr = "file" ) const
    {
        return Pathname( Utils::String( myFolder.path( namePtr ) ) );
    }
    NuvTest::TemporaryFolder myFolder;
};

TEST_F( WholeFile, LoadTakesEveryByteUpToTheMaximumOrSaysWhyNot )
{
    const std::string tenBytes( "0123\0\n\xFF/89", 10 );
    for ( const long long maximum : { 10LL, 0LL } ) {
        FileHelper helper( maximum );
        helper.pathname = pathname();
        helper.data = "old content that is longer than the file";
        for ( const std::string& content : { tenBytes, std::string() } ) {
            NuvTest::writeFile( pathname().str(), content );
            EXPECT_TRUE( helper.load() );
            EXPECT_EQ( content, helper.data.view() );
        }
    }
    NuvTest::writeFile( pathname().str(), "01234567890" );
    const std::pair< Pathname, std::string > cases[] = {
        { Pathname(), "invalid path info []" },
        { pathname( "missing" ), "not a file [" + pathname( "missing" ).str() + "]" },
        { pathname( "." ), "not a file [" + myFolder.path() + "]" },
        { pathname(), "file length exceeds maximum [11]" } };
    for ( const auto& [path, text] : cases ) {
        FileHelper helper( 10 );
        helper.pathname = path;
        helper.data = "kept";
        EXPECT_EQ( "FileHelper load error: " + text,
                   NuvTest::textOf< FileHelper::Exception >( [&] { helper.load(); } ) );
        EXPECT_EQ( "kept", helper.data.view() );
    }
}

TEST_F( WholeFile, FileThatChangesDuringLoadGivesTheBytesReallyRead )
{
    NuvTest::writeFile( pathname().str(), "0123456789" );
    FileHelper helper( 0 );
    helper.pathname = pathname();
    ourBeforeRead = [&] { ASSERT_EQ( 0, ::truncate( pathname().cStr(), 3 ) ); };
    EXPECT_FALSE( helper.load() );
    EXPECT_EQ( "012", helper.data.view() );
}

TEST_F( WholeFile, StoreReplacesTheContentOrSaysWhyNot )
{
    FileHelper helper( 3 ); // the maximum is for loading
    const auto storeText = [&] {
        return NuvTest::textOf< FileHelper::Exception >( [&] { helper.store(); } );
    };
    helper.data = Utils::Buffer( "a\0bcd", 5 );
    EXPECT_EQ( "FileHelper store error: invalid path info []", storeText() );
    helper.pathname = pathname( "no/such" );
    EXPECT_EQ( 0u, storeText().find( "FileHelper store error: cannot open file for writing [/" ) );
    NuvTest::writeFile( pathname().str(), "something longer" );
    helper.pathname = pathname();
    EXPECT_TRUE( helper.store() );
    EXPECT_EQ( std::string( "a\0bcd", 5 ), NuvTest::readFile( pathname().str() ) );

    helper.pathname = Pathname( Utils::String( "/dev/full" ) );
    EXPECT_FALSE( helper.store() );
}

TEST_F( WholeFile, LinesAreSplitAtLineFeedsAloneAndGoBackUnchanged )
{
    const std::string content =
        std::string( 4096, 'z' ) + "\n" + std::string( "nul\0side\r\n\0\nlast", 16 );
    NuvTest::writeFile( pathname().str(), content );
    LinedFile::Lines lines = { Utils::String( "old" ) };
    EXPECT_TRUE( LinedFile::readFile( pathname(), &lines ) );
    EXPECT_EQ( 4u, lines.size() );
    EXPECT_TRUE( LinedFile::writeFile( pathname( "copy" ), &lines ) );
    EXPECT_EQ( content, NuvTest::readFile( pathname( "copy" ).str() ) );
    EXPECT_FALSE( LinedFile::readFile( pathname( "missing" ), &lines ) );
    EXPECT_EQ( 4u, lines.size() );
    EXPECT_FALSE( LinedFile::writeFile( Pathname(), &lines ) );
}

TEST_F( WholeFile, ReadOnlyFileIsWrittenAndStaysReadOnly )
{
    NuvTest::writeFile( pathname().str(), "old\n" );
    ::chmod( pathname().cStr(), 0444 );
    ::chmod( NuvTest::RootFixture::root().c_str(), 0755 );
    ::chmod( myFolder.path().c_str(), 0755 );
    // Permission bits do not bind the superuser.
    const uid_t user = ::geteuid() == 0 ? 65534 : ::geteuid();
    ASSERT_EQ( 0, ::chown( pathname().cStr(), user, static_cast< gid_t >( -1 ) ) );
    const NuvTest::Outcome outcome = NuvTest::runInChild( [&] {
        ASSERT_EQ( 0, ::seteuid( user ) );
        const LinedFile::Lines lines = { Utils::String( "x\n" ), Utils::String( "y" ) };
        EXPECT_TRUE( LinedFile::writeFile( pathname(), &lines ) );
    } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.output << outcome.errors;
    EXPECT_EQ( "x\ny", NuvTest::readFile( pathname().str() ) );
    EXPECT_EQ( 0444u, NuvTest::modeOf( pathname().str() ) );
}

} // namespace
} // namespace Nuv::Io
