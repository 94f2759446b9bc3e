#include "nuvPipeFrame.h"
#include "nuvTestSupport.h"

#include <fcntl.h>
#include <thread>
#include <unistd.h>

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
        } catch ( const RuntimeException& exception ) {
            return exception.what();
        }
    }
    Utils::Handle readEnd;
    Utils::Handle writeEnd;
    Utils::Buffer data;
    Log::SourceSet sources{ "IoPipe" };
    PipeFrame frame{ "ClientPipe", &sources };
};

std::string frameOf( const std::string& data )
{
    const auto size = static_cast< std::uint32_t >( data.size() );
    const std::uint32_t header[3] = { size, ~size, plainHash( data ) };
    return std::string( reinterpret_cast< const char* >( header ), sizeof( header ) ) + data;
}

constexpr char sizeTimeout[] = "Timed out while reading the size of the data";
constexpr char sizeFailure[] = "Validation of data size sent over pipe failed";

TEST( PipeHash, LanesGiveThePlainHashAtEveryLength )
{
    std::string text;
    for ( std::uint32_t seed = 1; text.size() < 300;
          text += static_cast< char >( seed >> 24 | 1 ) ) {
        EXPECT_EQ( plainHash( text ), pipeDataHash( text ) ) << text.size();
        std::string cut = text;
        cut[text.size() * 7 / 8] = '\0';
        EXPECT_EQ( plainHash( cut ), pipeDataHash( cut ) ) << text.size();
        seed = seed * 1664525 + 1013904223;
    }
}

TEST_F( PipeFrames, BytesOnTheWireAreThoseOfTheTable )
{
    const std::pair< std::string, std::string > cases[] = {
        { "", std::string( "\0\0\0\0\xFF\xFF\xFF\xFF\0\0\0\0", 12 ) },
        { "AB", std::string( "\x02\0\0\0\xFD\xFF\xFF\xFF\x41\x10\0\0AB", 14 ) },
        { std::string( "A\0B", 3 ), std::string( "\x03\0\0\0\xFC\xFF\xFF\xFF\x41\0\0\0A\0B", 15 ) },
    };
    for ( const auto& [text, wire] : cases ) {
        EXPECT_TRUE( frame.write( writeEnd, "P", Utils::Buffer( text ) ) );
        char bytes[64];
        const ssize_t n = ::read( readEnd, bytes, sizeof( bytes ) );
        EXPECT_EQ( wire, std::string( bytes, static_cast< std::size_t >( n ) ) );
        send( wire );
        EXPECT_EQ( "ok", outcome() );
        EXPECT_EQ( text, data.view() );
    }
}

TEST_F( PipeFrames, FrameCutAtAnyLengthOrWithAChangedByteIsRefused )
{
    const std::string whole = frameOf( "message" );
    for ( std::size_t i = 0; i < whole.size(); ++i ) {
        SCOPED_TRACE( i );
        send( whole.substr( 0, i ) ); // a writer is connected, and silent
        EXPECT_EQ( i < 8    ? sizeTimeout
                   : i < 12 ? "Timed out while reading the data hash"
                            : "Timed out while reading the data",
                   outcome() );
        std::string changed = whole;
        changed[i] = static_cast< char >( changed[i] ^ 0x10 );
        send( changed );
        EXPECT_EQ( i < 8 ? sizeFailure : "Validation of data sent over pipe failed", outcome() );
        EXPECT_TRUE( frame.drain( readEnd, "P", 30 ) ); // what is there, without waiting
        EXPECT_EQ( sizeTimeout, outcome() );
    }
    send( whole );
    EXPECT_EQ( "ok", outcome() );
}

TEST_F( PipeFrames, SizesAreCheckedBeforeTheHashWordComes )
{
    const std::uint32_t limit = PipeFrame::maxDataSize();
    EXPECT_EQ( 64u << 20, limit );
    for ( const std::uint32_t size : { 0x80000000, 0xFFFFFFFF, limit + 1, 0x7FFFFFFFu } ) {
        const std::uint32_t header[3] = { size, ~size, 0 };
        send( std::string( reinterpret_cast< const char* >( header ), 12 ) );
        EXPECT_EQ( "failed", outcome() ) << size;
    }
    send( "12345678" );
    EXPECT_EQ( sizeFailure, outcome() );
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
    EXPECT_EQ( sizeTimeout, outcome( PipeFrame::Patience::fromFirstByte ) );
    writeEnd.reset();
    EXPECT_EQ( sizeTimeout, outcome( PipeFrame::Patience::fromFirstByte ) );
    EXPECT_EQ( sizeTimeout, outcome() );
    EXPECT_FALSE( frame.drain( readEnd, "P", 0 ) );
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

} // namespace
} // namespace Nuv::Io
