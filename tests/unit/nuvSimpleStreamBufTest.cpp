#include "nuvSimpleStreamBuf.h"

#include "nuvTestSupport.h"
#include "nuvTestWrap.h"
#include "nuvUtils.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <istream>
#include <iterator>
#include <ostream>
#include <unistd.h>

namespace {
NuvTest::Fault ourFault;
std::size_t ourGreatestTransfer = SIZE_MAX; // bytes that one call moves
} // namespace

NUV_FAIL_CALLS( ourFault, -1, ssize_t, write, ( int fd, const void* ptr, size_t count ),
                ( fd, ptr, std::min( count, ourGreatestTransfer ) ) )
NUV_FAIL_CALLS( ourFault, -1, ssize_t, read, ( int fd, void* ptr, size_t count ),
                ( fd, ptr, std::min( count, ourGreatestTransfer ) ) )

namespace Nuv::Io {
namespace {

// Text of a given length in which every place is told from its neighbours.
std::string numbers( std::size_t length )
{
    std::string text;
    for ( int i = 0; text.size() < length; ++i ) {
        text += std::to_string( i ) + ",";
    }
    return text.substr( 0, length );
}

constexpr std::size_t one = 1, bufferSize = SimpleOStreamBuf::nbrOfBufferBytes;

class SimpleStreamBuf : public ::testing::Test
{
protected:
    ~SimpleStreamBuf() override { ourGreatestTransfer = SIZE_MAX; }
    std::string content() { return NuvTest::readFile( myPath ); }

    NuvTest::TemporaryFolder myFolder;
    const std::string myPath = myFolder.path( "file" );
    const Utils::Handle myFile{ ::open( myPath.c_str(), O_RDWR | O_CREAT, 0600 ) };
};

TEST_F( SimpleStreamBuf, PiecesOfAnyLengthArriveWholeInOrder )
{
    for ( const std::size_t transfer : { SIZE_MAX, std::size_t( 1000 ), std::size_t( 7 ) } ) {
        SCOPED_TRACE( transfer );
        ourGreatestTransfer = transfer;
        ASSERT_EQ( ::ftruncate( myFile.fd(), 0 ) + ::lseek( myFile.fd(), 0, SEEK_SET ), 0 );
        std::string expected;
        {
            SimpleOStreamBuf buf( myFile );
            std::ostream stream( &buf );
            stream << "abc";
            EXPECT_EQ( content(), "" ) << "written before a flush or a full buffer";
            stream << std::flush;
            EXPECT_EQ( content(), "abc" );
            for ( const std::size_t length :
                  { one, bufferSize - 2, one, bufferSize, 3 * bufferSize } ) {
                const std::string piece = numbers( length );
                stream << piece;
                stream.put( '\n' );
                expected += piece + "\n";
            }
            EXPECT_TRUE( stream.good() );
        }
        EXPECT_EQ( content(), "abc" + expected );
        ASSERT_EQ( ::lseek( myFile.fd(), 3, SEEK_SET ), 3 );
        SimpleIStreamBuf buf( myFile );
        std::istream stream( &buf );
        const std::string read( ( std::istreambuf_iterator< char >( stream ) ), {} );
        EXPECT_EQ( read, expected );
        EXPECT_EQ( errno, 0 );
    }
}

TEST_F( SimpleStreamBuf, FailedWriteKeepsItsBytesForTheNextTry )
{
    const std::string text = numbers( bufferSize );
    {
        SimpleOStreamBuf buf( myFile );
        std::ostream stream( &buf );
        ourFault.arm( 1, EINTR );
        stream << text.substr( 0, 10 ) << std::flush;
        ourFault.arm( 1, ENOSPC, NuvTest::Fault::forGood );
        stream << text.substr( 10 ) << std::flush;
        EXPECT_TRUE( stream.bad() && errno == ENOSPC );
        stream.clear();
        for ( int i = 0; i < 10; ++i ) {
            stream.put( '.' );
        }
        ourGreatestTransfer = 7;
        ourFault.arm( 2, ENOSPC ); // seven bytes go out, so there is room for one more
        stream.put( '!' );
        EXPECT_EQ( content().size(), 10u + 7 );
    }
    EXPECT_EQ( content(), text + "..........!" );
}

TEST_F( SimpleStreamBuf, FailedReadIsTheEndAndCharactersCanBePutBackAcrossARefill )
{
    NuvTest::writeFile( myPath, "0123456789abcdef" );
    ourGreatestTransfer = 5;
    SimpleIStreamBuf buf( myFile );
    ourFault.arm( 1, EINTR );
    for ( int i = 0; i < 11; ++i ) {
        buf.sbumpc();
    }
    std::string back;
    while ( buf.sungetc() != EOF ) {
        back += static_cast< char >( buf.sgetc() );
    }
    EXPECT_EQ( back.substr( 0, SimpleIStreamBuf::nbrOfPutbackBytes ), "a9876543" );
    ourFault.arm( 1, EIO );
    while ( buf.sbumpc() != EOF ) {
    }
    EXPECT_EQ( errno, EIO );
    EXPECT_EQ( buf.sbumpc(), 'f' ) << "the next try goes on";
}

} // namespace
} // namespace Nuv::Io
