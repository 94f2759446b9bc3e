#include "nuvPipeFrame.h"
#include "nuvTestSupport.h"

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Nuv::Io {
namespace {

std::uint32_t plainHash( const std::string& data )
{
    std::uint32_t hash = 0;
    for ( const char c : data ) {
        if ( c == '\0' )
            break;
        hash = hash * 63 + static_cast< std::uint32_t >( static_cast< signed char >( c ) );
    }
    return hash;
}

/// A pipe whose reading end does not block, and a reader and writer of frames on it.
class PipeFrames : public NuvTest::RootFixture
{
protected:
    PipeFrames()
    {
        int fds[2];
        EXPECT_EQ( 0, ::pipe2( fds, O_CLOEXEC ) );
        readEnd.reset( fds[0] );
        writeEnd.reset( fds[1] );
        ::fcntl( readEnd, F_SETFL, O_NONBLOCK );
        ::fcntl( writeEnd, F_SETPIPE_SZ, 1 << 18 );
    }
    void send( const std::string& bytes )
    {
        ASSERT_EQ( static_cast< ssize_t >( bytes.size() ),
                   ::write( writeEnd, bytes.data(), bytes.size() ) );
    }
    // Reads one frame. @return "ok", "failed", or the exception's text
    std::string outcome( PipeFrame::Patience patience = PipeFrame::Patience::fromStart,
                         unsigned int timeoutSec = 0 )
    {
        try {
            return frame.read( readEnd, "P", &data, timeoutSec, patience ) ? "ok" : "failed";
        } catch ( const PipeReadTimeoutException& exception ) {
            return exception.what();
        } catch ( const PipeDataValidationException& exception ) {
            return exception.what();
        }
    }
    void empty()
    {
        char bytes[4096];
        while ( ::read( readEnd, bytes, sizeof( bytes ) ) > 0 ) {
        }
    }

    Utils::Handle readEnd;
    Utils::Handle writeEnd;
    Utils::Buffer data;
    Log::SourceSet sources{ "IoPipe" };
    PipeFrame frame{ "ClientPipe", &sources };
};

std::string words( std::uint32_t size, std::uint32_t complement, std::uint32_t hash )
{
    const std::uint32_t header[3] = { size, complement, hash };
    return std::string( reinterpret_cast< const char* >( header ), sizeof( header ) );
}

std::string frameOf( const std::string& data )
{
    const auto size = static_cast< std::uint32_t >( data.size() );
    return words( size, ~size, plainHash( data ) ) + data;
}

TEST( PipeHash, LanesGiveThePlainHashAtEveryLength )
{
    EXPECT_EQ( 0u, pipeDataHash( {} ) );
    EXPECT_EQ( 4161u, pipeDataHash( "AB" ) );
    EXPECT_EQ( 65u, pipeDataHash( std::string( "A\0B", 3 ) ) );
    std::uint32_t seed = 1;
    for ( std::size_t length = 0; length < 300; ++length ) {
        SCOPED_TRACE( length );
        std::string text( length, '\0' );
        for ( char& c : text ) {
            seed = seed * 1664525 + 1013904223;
            c = static_cast< char >( seed >> 24 | 1 );
        }
        EXPECT_EQ( plainHash( text ), pipeDataHash( text ) );
        if ( length > 40 ) {
            text[length - 37] = '\0';
            EXPECT_EQ( plainHash( text ), pipeDataHash( text ) );
        }
    }
}

TEST_F( PipeFrames, BytesOnTheWireAreThoseOfTheTable )
{
    const struct
    {
        std::string data;
        std::string bytes;
    } cases[] = {
        { "", std::string( "\0\0\0\0\xFF\xFF\xFF\xFF\0\0\0\0", 12 ) },
        { "AB", std::string( "\x02\0\0\0\xFD\xFF\xFF\xFF\x41\x10\0\0AB", 14 ) },
        { std::string( "A\0B", 3 ), std::string( "\x03\0\0\0\xFC\xFF\xFF\xFF\x41\0\0\0A\0B", 15 ) },
    };
    for ( const auto& entry : cases ) {
        EXPECT_TRUE( frame.write( writeEnd, "P", Utils::Buffer( entry.data ) ) );
        char bytes[64];
        const ssize_t n = ::read( readEnd, bytes, sizeof( bytes ) );
        EXPECT_EQ( entry.bytes, std::string( bytes, static_cast< std::size_t >( n ) ) );
        send( entry.bytes );
        EXPECT_EQ( "ok", outcome() );
        EXPECT_EQ( entry.data, data.view() );
    }
}

TEST_F( PipeFrames, FrameCutAtAnyLengthTimesOutAndNamesWhatIsMissing )
{
    const std::string whole = frameOf( "message" );
    for ( std::size_t length = 0; length < whole.size(); ++length ) {
        SCOPED_TRACE( length );
        send( whole.substr( 0, length ) );
        const char* const expectedPtr = length < 8 ? "Timed out while reading the size of the data"
                                        : length < 12 ? "Timed out while reading the data hash"
                                                      : "Timed out while reading the data";
        EXPECT_EQ( expectedPtr, outcome() ); // a writer is connected, and silent
    }
    send( whole );
    EXPECT_EQ( "ok", outcome() );
    writeEnd.reset(); // no writer
    EXPECT_EQ( "Timed out while reading the size of the data", outcome() );
}

TEST_F( PipeFrames, EveryChangedByteIsNoticed )
{
    const std::string whole = frameOf( "message" );
    for ( std::size_t i = 0; i < whole.size(); ++i ) {
        SCOPED_TRACE( i );
        std::string changed = whole;
        changed[i] = static_cast< char >( changed[i] ^ 0x10 );
        send( changed );
        EXPECT_EQ( i < 8 ? "Validation of data size sent over pipe failed"
                         : "Validation of data sent over pipe failed",
                   outcome() );
        empty();
    }
}

TEST_F( PipeFrames, SizesAreCheckedBeforeTheHashWordComes )
{
    send( words( 7, 7, 0 ).substr( 0, 8 ) );
    EXPECT_EQ( "Validation of data size sent over pipe failed", outcome() );
    const std::uint32_t limit = PipeFrame::maxDataSize();
    EXPECT_EQ( 64u << 20, limit );
    const std::uint32_t refused[] = { 0x80000000, 0xFFFFFFFF, limit + 1, 0x7FFFFFFF };
    for ( const std::uint32_t size : refused ) {
        SCOPED_TRACE( size );
        send( words( size, ~size, 0 ) );
        EXPECT_EQ( "failed", outcome() );
    }
    PipeFrame::maxDataSize( 3 );
    send( frameOf( "123" ) + frameOf( "1234" ) );
    EXPECT_EQ( "ok", outcome() );
    EXPECT_EQ( "failed", outcome() );
    PipeFrame::maxDataSize( limit );
}

TEST_F( PipeFrames, IdleWriterIsWaitedForUntilItsFirstByte )
{
    std::thread writer( [&] {
        ::usleep( 50000 ); // longer than the reader's patience once a frame has begun
        send( frameOf( "late" ) );
    } );
    EXPECT_EQ( "ok", outcome( PipeFrame::Patience::fromFirstByte ) );
    writer.join();
    send( "abc" );
    EXPECT_EQ( "Timed out while reading the size of the data",
               outcome( PipeFrame::Patience::fromFirstByte ) );
    writeEnd.reset();
    EXPECT_EQ( "Timed out while reading the size of the data",
               outcome( PipeFrame::Patience::fromFirstByte ) );
}

TEST_F( PipeFrames, LargeMessagesPassInPiecesAndAGoneReaderIsAnError )
{
    for ( const std::size_t size : { std::size_t( 65536 ), std::size_t( 16 ) << 20 } ) {
        std::string text( size, 'x' );
        text[size / 2] = '\0';
        std::thread writer(
            [&] { EXPECT_TRUE( frame.write( writeEnd, "P", Utils::Buffer( text ) ) ); } );
        EXPECT_EQ( "ok", outcome( PipeFrame::Patience::fromStart, 60 ) );
        writer.join();
        EXPECT_TRUE( text == data.view() );
    }
    readEnd.reset();
    EXPECT_FALSE( frame.write( writeEnd, "P", Utils::Buffer( "nobody reads" ) ) );
}

TEST_F( PipeFrames, DrainTakesWhatIsThereWithoutWaitingForTheWriter )
{
    send( std::string( 1000, 'x' ) );
    EXPECT_TRUE( frame.drain( readEnd, "P", 30 ) );
    char c;
    EXPECT_EQ( -1, ::read( readEnd, &c, 1 ) );
    writeEnd.reset();
    EXPECT_FALSE( frame.drain( readEnd, "P", 0 ) );
}

} // namespace
} // namespace Nuv::Io
