#include "nuvSimpleStreamBuf.h"

#include "nuvTestSupport.h"
#include "nuvUtils.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <istream>
#include <iterator>
#include <ostream>
#include <unistd.h>

namespace {
NuvTest::Fault ourWriteFault;
NuvTest::Fault ourReadFault;
std::size_t ourGreatestTransfer = SIZE_MAX; // bytes that one call moves
} // namespace

// NOLINTBEGIN: the linker gives these names
extern "C" ssize_t __real_write( int, const void*, size_t );
extern "C" ssize_t __wrap_write( int fd, const void* ptr, size_t count )
{
    return ourWriteFault.strikes()
               ? -1
               : __real_write( fd, ptr, std::min( count, ourGreatestTransfer ) );
}
extern "C" ssize_t __real_read( int, void*, size_t );
extern "C" ssize_t __wrap_read( int fd, void* ptr, size_t count )
{
    return ourReadFault.strikes() ? -1
                                  : __real_read( fd, ptr, std::min( count, ourGreatestTransfer ) );
}
// NOLINTEND

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

constexpr std::size_t bufferSize = SimpleOStreamBuf::nbrOfBufferBytes;

class SimpleStreamBuf : public ::testing::Test
{
protected:
    ~SimpleStreamBuf() override
    {
        ourGreatestTransfer = SIZE_MAX;
        ourWriteFault.disarm();
        ourReadFault.disarm();
    }
    Utils::Handle open( int flags )
    {
        return Utils::Handle( ::open( myPath.c_str(), flags, 0600 ) );
    }
    std::string content() { return NuvTest::readFile( myPath ); }

    NuvTest::TemporaryFolder myFolder;
    const std::string myPath = myFolder.path( "file" );
};

TEST_F( SimpleStreamBuf, PiecesOfAnyLengthArriveWholeInOrder )
{
    for ( const std::size_t transfer : { SIZE_MAX, std::size_t( 1000 ), std::size_t( 7 ) } ) {
        SCOPED_TRACE( transfer );
        const Utils::Handle file = open( O_RDWR | O_CREAT | O_TRUNC );
        std::string expected;
        ourGreatestTransfer = transfer;
        {
            SimpleOStreamBuf buf( file );
            std::ostream stream( &buf );
            for ( const std::size_t length :
                  { std::size_t( 1 ), bufferSize - 2, std::size_t( 1 ), std::size_t( 1 ),
                    bufferSize, bufferSize - 1, 3 * bufferSize + 5, std::size_t( 9 ) } ) {
                const std::string piece = numbers( length );
                stream << piece;
                stream.put( '\n' );
                expected += piece + "\n";
                EXPECT_TRUE( stream.good() );
            }
        }
        EXPECT_EQ( content(), expected );
        ASSERT_EQ( ::lseek( file, 0, SEEK_SET ), 0 );
        SimpleIStreamBuf buf( file );
        std::istream stream( &buf );
        const std::string read( ( std::istreambuf_iterator< char >( stream ) ), {} );
        EXPECT_EQ( read, expected );
        EXPECT_EQ( errno, 0 );
    }
}

TEST_F( SimpleStreamBuf, NothingIsWrittenBeforeFlushOrFullBuffer )
{
    const Utils::Handle file = open( O_RDWR | O_CREAT | O_TRUNC );
    SimpleOStreamBuf buf( file );
    std::ostream stream( &buf );
    stream << "abc";
    EXPECT_EQ( content(), "" );
    stream << std::flush;
    EXPECT_EQ( content(), "abc" );
}

TEST_F( SimpleStreamBuf, FailedWriteKeepsItsBytesForTheNextTry )
{
    const Utils::Handle file = open( O_RDWR | O_CREAT | O_TRUNC );
    const std::string text = numbers( bufferSize );
    {
        SimpleOStreamBuf buf( file );
        std::ostream stream( &buf );
        ourWriteFault.arm( 1, EINTR );
        stream << text.substr( 0, 10 ) << std::flush;
        EXPECT_TRUE( stream.good() );
        ourWriteFault.arm( 1, ENOSPC, NuvTest::Fault::forGood );
        stream << text.substr( 10, bufferSize - 10 ) << std::flush;
        EXPECT_EQ( errno, ENOSPC );
        EXPECT_TRUE( stream.bad() );
        stream.clear();
        stream << "too much for a buffer that is full";
        EXPECT_TRUE( stream.bad() );
        stream.clear();
        for ( int i = 0; i < 10; ++i ) {
            stream.put( '.' );
        }
        ourGreatestTransfer = 7;
        ourWriteFault.arm( 2, ENOSPC ); // seven bytes go out, so there is room for one more
        stream.put( '!' );
        EXPECT_TRUE( stream.good() );
        EXPECT_EQ( content().size(), 10u + 7 );
    }
    EXPECT_EQ( content(), text + "..........!" );
}

TEST_F( SimpleStreamBuf, FailedReadIsTheEndAndTellsWhy )
{
    NuvTest::writeFile( myPath, "abc" );
    const Utils::Handle file = open( O_RDONLY );
    SimpleIStreamBuf buf( file );
    ourReadFault.arm( 1, EINTR );
    EXPECT_EQ( buf.sgetc(), 'a' );
    ourReadFault.arm( 1, EIO );
    EXPECT_EQ( buf.sbumpc(), 'a' );
    EXPECT_EQ( buf.sbumpc(), 'b' );
    EXPECT_EQ( buf.sbumpc(), 'c' );
    EXPECT_EQ( buf.sgetc(), EOF );
    EXPECT_EQ( errno, EIO );
}

TEST_F( SimpleStreamBuf, CharactersCanBePutBackAcrossARefill )
{
    NuvTest::writeFile( myPath, "0123456789abcdef" );
    ourGreatestTransfer = 5;
    const Utils::Handle file = open( O_RDONLY );
    SimpleIStreamBuf buf( file );
    for ( int i = 0; i < 11; ++i ) {
        buf.sbumpc();
    }
    std::string back;
    while ( buf.sungetc() != EOF ) {
        back += static_cast< char >( buf.sgetc() );
    }
    EXPECT_EQ( back.substr( 0, SimpleIStreamBuf::nbrOfPutbackBytes ), "a9876543" );
    EXPECT_GE( back.size(), SimpleIStreamBuf::nbrOfPutbackBytes );
}

} // namespace
} // namespace Nuv::Io
