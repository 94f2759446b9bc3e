#include "nuvFileHelper.h"
#include "nuvLinedFile.h"
#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <functional>
#include <numeric>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Nuv::Io {
namespace {

NuvTest::Fault ourReadFault;
std::function< void() > ourBeforeRead;

} // namespace

NUV_WRAP_REAL( ssize_t, read, ( int fd, void* ptr, size_t n ),
               ourBeforeRead ? std::exchange( ourBeforeRead, nullptr )() : void(),
               ourReadFault.strikes() ? -1 : NUV_REAL( read )( fd, ptr, n ) )

namespace {

class WholeFile : public NuvTest::RootFixture
{
protected:
    Pathname pathname( const char* namePtr = "file" ) const
    {
        return Pathname( Utils::String( myFolder.path( namePtr ) ) );
    }
    std::string loadText( FileHelper& helper ) const
    {
        try {
            helper.load();
        } catch ( const FileHelper::Exception& exception ) {
            return exception.what();
        }
        return "no exception";
    }

    NuvTest::TemporaryFolder myFolder;
};

TEST_F( WholeFile, LoadTakesEveryByteUpToTheMaximum )
{
    const std::string tenBytes( "0123\0\n\xff"
                                "789",
                                10 );
    for ( const long long maximum : { 10LL, 0LL } ) {
        FileHelper helper( maximum );
        helper.pathname = pathname();
        helper.data = "old content that is longer than the file";
        NuvTest::writeFile( pathname().str(), tenBytes );
        EXPECT_TRUE( helper.load() );
        EXPECT_EQ( tenBytes, helper.data.view() );
        NuvTest::writeFile( pathname().str(), "" );
        EXPECT_TRUE( helper.load() );
        EXPECT_TRUE( helper.data.empty() );
    }
}

TEST_F( WholeFile, RefusedLoadSaysWhyAndKeepsTheData )
{
    NuvTest::writeFile( pathname().str(), "01234567890" );
    const std::pair< Pathname, std::string > cases[] = {
        { Pathname(), "FileHelper load error: invalid path info []" },
        { pathname( "missing" ),
          "FileHelper load error: not a file [" + pathname( "missing" ).str() + "]" },
        { Pathname( Utils::String( myFolder.path() ) ),
          "FileHelper load error: not a file [" + myFolder.path() + "]" },
        { pathname(), "FileHelper load error: file length exceeds maximum [11]" },
    };
    for ( const auto& [path, text] : cases ) {
        FileHelper helper( 10 );
        helper.pathname = path;
        helper.data = "kept";
        EXPECT_EQ( text, loadText( helper ) );
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
    ourReadFault.arm( 1, EIO );
    EXPECT_FALSE( helper.load() );
    ourReadFault.disarm();
    EXPECT_TRUE( helper.data.empty() );
}

TEST_F( WholeFile, StoreReplacesTheContentOrSaysWhyNot )
{
    FileHelper helper( 3 ); // the maximum is for loading
    const auto storeText = [&]() -> std::string {
        try {
            return helper.store() ? "stored" : "short";
        } catch ( const FileHelper::Exception& exception ) {
            return exception.what();
        }
    };
    helper.data = Utils::Buffer( "a\0bcd", 5 );
    EXPECT_EQ( "FileHelper store error: invalid path info []", storeText() );
    helper.pathname = pathname( "no/such" );
    EXPECT_EQ( "FileHelper store error: cannot open file for writing [" + helper.pathname.str() +
                   "]",
               storeText() );
    NuvTest::writeFile( pathname().str(), "something longer" );
    helper.pathname = pathname();
    EXPECT_EQ( "stored", storeText() );
    EXPECT_EQ( std::string( "a\0bcd", 5 ), NuvTest::readFile( pathname().str() ) );

    helper.pathname = Pathname( Utils::String( "/dev/full" ) );
    EXPECT_EQ( "short", storeText() );
}

TEST_F( WholeFile, LinesAreSplitAtLineFeedsAloneAndGoBackUnchanged )
{
    const std::vector< std::vector< std::string > > cases = {
        {},
        { "a\n", "bb\n", "c" },
        { std::string( 4095, 'y' ) + "\n", std::string( 4096, 'z' ) + "\n", "end\n" },
        { std::string( "nul\0in\0side\r\n", 13 ), std::string( "\0\n", 2 ), "last" },
    };
    for ( const auto& expected : cases ) {
        const std::string content =
            std::accumulate( expected.begin(), expected.end(), std::string() );
        NuvTest::writeFile( pathname().str(), content );
        LinedFile::Lines lines = { Utils::String( "old" ) };
        ASSERT_TRUE( LinedFile::readFile( pathname(), &lines ) );
        EXPECT_EQ( expected, std::vector< std::string >( lines.begin(), lines.end() ) );
        ASSERT_TRUE( LinedFile::writeFile( pathname( "copy" ), &lines ) );
        EXPECT_EQ( content, NuvTest::readFile( pathname( "copy" ).str() ) );
    }
    LinedFile::Lines kept = { Utils::String( "kept" ) };
    EXPECT_FALSE( LinedFile::readFile( pathname( "missing" ), &kept ) );
    EXPECT_EQ( 1u, kept.size() );
    EXPECT_FALSE( LinedFile::writeFile( Pathname(), &kept ) );
}

TEST_F( WholeFile, ReadOnlyFileIsWrittenAndStaysReadOnly )
{
    NuvTest::writeFile( pathname().str(), "old\n" );
    ASSERT_EQ( 0, ::chmod( pathname().cStr(), 0444 ) );
    const auto write = [&] {
        // Permission bits do not bind the superuser.
        ASSERT_EQ( 0, ::geteuid() == 0 ? ::seteuid( 65534 ) : 0 );
        const LinedFile::Lines lines = { Utils::String( "x\n" ), Utils::String( "y" ) };
        EXPECT_TRUE( LinedFile::writeFile( pathname(), &lines ) );
    };
    ASSERT_EQ( 0, ::chmod( NuvTest::RootFixture::root().c_str(), 0755 ) );
    ASSERT_EQ( 0, ::chmod( myFolder.path().c_str(), 0755 ) );
    ASSERT_EQ( 0, ::chown( pathname().cStr(), ::geteuid() == 0 ? 65534 : ::geteuid(), -1 ) );
    const NuvTest::Outcome outcome = NuvTest::runInChild( write );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.output << outcome.errors;
    EXPECT_EQ( "x\ny", NuvTest::readFile( pathname().str() ) );
    struct stat status;
    ASSERT_EQ( 0, ::stat( pathname().cStr(), &status ) );
    EXPECT_EQ( 0444u, status.st_mode & 0777u );
}

} // namespace
} // namespace Nuv::Io
