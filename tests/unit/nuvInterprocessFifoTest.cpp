#include "nuvInterprocessFifo.h"

#include "nuvLogCapture.h"
#include "nuvTestInterprocess.h"
#include "nuvTestWrap.h"

#include <deque>
#include <istream>
#include <new>
#include <ostream>
#include <random>
#include <sys/sem.h>

namespace {
thread_local int ourNbrOfAllocations = 0;
}

NUV_WRAP_REAL( void*, NUV_SIZED( _Zna ), ( size_t n ), ++ourNbrOfAllocations,
               NUV_REAL( NUV_SIZED( _Zna ) )( n ) )

namespace Nuv::Io {
namespace {

using Fifo = InterprocessFifo::Fifo;
using Utils::Buffer;

class InterprocessFifoTest : public NuvTest::InterprocessFixture
{
protected:
    static Fifo& words( const InterprocessFifo& fifo )
    {
        return *reinterpret_cast< Fifo* >( fifo.sharedMemory().memoryPtr() );
    }
    static char* ringPtr( const InterprocessFifo& fifo )
    {
        return fifo.sharedMemory().memoryPtr() + sizeof( Fifo );
    }
    static std::string headerText( const InterprocessFifo& fifo )
    {
        const Fifo& w = words( fifo );
        return std::to_string( w.myFifoSize ) + " " + std::to_string( w.myReadOffset ) + " " +
               std::to_string( w.myWriteOffset ) + " " + std::to_string( w.myNbrOfBytesFree );
    }
    static std::string readOne( InterprocessFifo& fifo )
    {
        Buffer buffer( "before" );
        const bool isRead = fifo.read( &buffer );
        EXPECT_TRUE( isRead || buffer.empty() );
        return isRead ? buffer.str() : "-";
    }
    static bool isFree( InterprocessFifo& fifo )
    {
        return ::semctl( fifo.semaphore().handle(), 0, GETVAL ) == 1;
    }
};

std::string numbered( int number, std::size_t length )
{
    std::string text = std::to_string( number ) + ":";
    for ( int c = number; text.size() < length; c += 7 ) {
        text += static_cast< char >( 'a' + c % 26 );
    }
    return text.substr( 0, length );
}

TEST_F( InterprocessFifoTest, EntriesLieInTheRingAsDocumented )
{
    const InterprocessFifo peer( "bytes", 21 ); // rounded down to 20: ring of 24 bytes
    InterprocessFifo fifo( "bytes", 20 );
    EXPECT_EQ( fifo.sharedMemory().size(), 40u );
    EXPECT_EQ( headerText( fifo ), "24 0 0 24" );
    EXPECT_TRUE( fifo.write( Buffer( "abcde" ) ) );
    EXPECT_EQ( headerText( fifo ), "24 0 12 12" );
    EXPECT_TRUE( fifo.write( Buffer( "" ) ) );
    EXPECT_EQ( headerText( fifo ), "24 0 16 8" );
    EXPECT_EQ( std::string( ringPtr( peer ), 9 ), std::string( "\5\0\0\0abcde", 9 ) );
    EXPECT_EQ( std::string( ringPtr( peer ) + 12, 4 ), std::string( 4, '\0' ) );
    EXPECT_EQ( readOne( fifo ), "abcde" );
    EXPECT_EQ( headerText( fifo ), "24 12 16 20" );
    EXPECT_TRUE( fifo.write( Buffer( "123456" ) ) ); // 16: length, 20: "1234", 0: "56"
    EXPECT_EQ( headerText( fifo ), "24 12 4 8" );
    EXPECT_EQ( std::string( ringPtr( peer ) + 16, 8 ), std::string( "\6\0\0\0001234", 8 ) );
    EXPECT_EQ( std::string( ringPtr( peer ), 2 ), "56" );
    EXPECT_EQ( readOne( fifo ), "" );
    EXPECT_EQ( readOne( fifo ), "123456" );
    EXPECT_EQ( readOne( fifo ), "-" );
    EXPECT_EQ( headerText( fifo ), "24 4 4 24" );
}

TEST_F( InterprocessFifoTest, SizesAtTheLimits )
{
    for ( const unsigned int size : { 0u, 15u, InterprocessFifo::maxSize + 1, 0xFFFFFFFFu } ) {
        SCOPED_TRACE( size );
        EXPECT_THROW( InterprocessFifo( "sizes", size ), LogicException );
        EXPECT_FALSE( exists( "sem_IpFifo_sizes" ) );
    }
    EXPECT_THROW( InterprocessFifo( nullptr, 16 ), LogicException );
    InterprocessFifo fifo( "sizes", 1024 );
    EXPECT_THROW( InterprocessFifo( "sizes", 1028 ), ResourceException );
    EXPECT_TRUE( isFree( fifo ) ) << "left locked by the failed construction";
    const Log::Capture capture;
    EXPECT_TRUE( fifo.write( Buffer( numbered( 1, 257 ) ) ) );
    EXPECT_TRUE( fifo.write( Buffer( numbered( 2, 300 ) ) ) );
    EXPECT_EQ( fifo.entries().at( 1 ), numbered( 2, 257 ) );
    EXPECT_EQ( capture.messages().size(), 1u );
    EXPECT_TRUE( capture.contains(
        "errLimitExceeded -- Attempt to write an entry greater than 1/4 of the FIFO size. "
        "[InterprocessFifo::Fifo::write()]" ) );
}

// Against a queue that counts bytes: every size of ring, entries of every length, at every offset.
TEST_F( InterprocessFifoTest, BehavesAsAQueueThatForgetsItsOldest )
{
    std::mt19937 random( 4711 );
    for ( const unsigned int size : { 16u, 20u, 60u, 512u, 1000u, 4076u } ) {
        SCOPED_TRACE( size );
        InterprocessFifo fifo( ( "model" + std::to_string( size ) ).c_str(), size );
        const std::size_t ringSize = size + 4;
        std::deque< std::string > model;
        std::size_t nbrOfBytesUsed = 0, nbrOfDiscarded = 0;
        const auto popFront = [&] {
            nbrOfBytesUsed -= ( model.front().size() + 7 ) / 4 * 4;
            model.pop_front();
        };
        for ( int i = 0; i < 3000; ++i ) {
            if ( random() % 5 < 2 ) {
                ASSERT_EQ( readOne( fifo ), model.empty() ? "-" : model.front() );
                if ( !model.empty() )
                    popFront();
                continue;
            }
            const std::string text = numbered( i, random() % ( ringSize / 4 + 2 ) );
            model.push_back( text.substr( 0, ringSize / 4 ) );
            nbrOfBytesUsed += ( model.back().size() + 7 ) / 4 * 4;
            const bool isKept = nbrOfBytesUsed <= ringSize;
            for ( ; nbrOfBytesUsed > ringSize; ++nbrOfDiscarded ) {
                popFront();
            }
            ASSERT_EQ( fifo.write( Buffer( text ) ), isKept );
            ASSERT_EQ( words( fifo ).myNbrOfBytesFree, ringSize - nbrOfBytesUsed );
        }
        EXPECT_EQ( fifo.nbrOfDiscarded(), nbrOfDiscarded );
    }
}

TEST_F( InterprocessFifoTest, WritesSignalAndReaderCountsOverrunsAndNothingAllocates )
{
    InterprocessFifo fifo( "overrun", 4000 );
    const Buffer message( numbered( 1, 1000 ) );
    Buffer buffer( 1000 );
    ourNbrOfAllocations = 0;
    for ( const unsigned int nbrOfOverruns : { 0u, 1u } ) { // at first it had read nothing before
        for ( int i = 0; i < 5; ++i ) {
            fifo.write( message );
        }
        EXPECT_TRUE( fifo.read( &buffer ) && fifo.read( &buffer ) );
        EXPECT_TRUE( buffer == message );
        EXPECT_EQ( fifo.nbrOfOverruns(), nbrOfOverruns );
    }
    EXPECT_EQ( ourNbrOfAllocations, 0 );
    EXPECT_TRUE( fifo.event().wait( 0 ) );
    EXPECT_EQ( fifo.event().nbrOfSignalsTaken(), 10u );
}

TEST_F( InterprocessFifoTest, DamagedRingIsEmptiedAndThenWorks )
{
    // What is added to two of these words of the segment: 0 ring size, 1 read offset, 2 write
    // offset, 3 number of free bytes, 4 length of the first entry.
    const struct
    {
        const char* namePtr;
        int firstIdx, firstAdded, secondIdx = 0, secondAdded = 0;
    } cases[] = {
        { "ring size too great", 0, 4 },
        { "read offset two bytes before the end", 1, 102, 2, -2 },
        { "offsets far out, in step", 1, 104, 2, 104 },
        { "write offset elsewhere", 2, 4 },
        { "more free than there is", 3, 104 },
        { "number of free bytes odd", 3, -2, 2, 2 },
        { "length beyond the entry", 4, 5 },
        { "length that wraps to a small size", 4, -21 },
    };
    const Log::Capture capture;
    InterprocessFifo fifo( "damaged", 100 );
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.namePtr );
        new ( &words( fifo ) ) Fifo( true, 100 );
        fifo.write( Buffer( numbered( 1, 20 ) ) );
        auto* const wordsPtr = reinterpret_cast< std::uint32_t* >( &words( fifo ) );
        wordsPtr[row.firstIdx] += static_cast< std::uint32_t >( row.firstAdded );
        wordsPtr[row.secondIdx] += static_cast< std::uint32_t >( row.secondAdded );
        EXPECT_EQ( readOne( fifo ), "-" );
        EXPECT_EQ( headerText( fifo ), "104 0 0 104" );
        EXPECT_TRUE( isFree( fifo ) );
        EXPECT_TRUE( fifo.write( Buffer( "after" ) ) );
    }
    EXPECT_EQ( capture.messages().size(), std::size( cases ) );
    EXPECT_TRUE( capture.contains( "errDataDamaged -- The ring of interprocess FIFO "
                                   "\"damaged\" was damaged and has been emptied." ) );
    words( fifo ).myReadOffset = 50; // is met by a write
    EXPECT_FALSE( fifo.write( Buffer( "after" ) ) );
    EXPECT_EQ( fifo.entries(), std::vector< Buffer >{ Buffer( "after" ) } );
    ringPtr( fifo )[0] = 9;
    NuvTest::expectFailure( "failed: myNbrOfBytesFree + entrySize <= myFifoSize (",
                            [&] { words( fifo ).deleteOldest(); } );

    const SharedMemory halfMade( "IpFifo_half", 120, SharedMemory::readWrite );
    InterprocessFifo next( "half", 100 ); // after a creator that was killed
    EXPECT_EQ( readOne( next ), "-" );
    EXPECT_EQ( headerText( next ), "104 0 0 104" );
}

TEST_F( InterprocessFifoTest, StreamBuffersCarryOneEntryEach )
{
    InterprocessFifo fifo( "streams", 1000 );
    InterprocessOStreamBuf outBuf( &fifo );
    std::ostream out( &outBuf );
    for ( const char* const textPtr : { "first 1", "2nd", "" } ) {
        out << textPtr;
        EXPECT_TRUE( outBuf.writeFifo() );
    }
    InterprocessIStreamBuf inBuf( &fifo );
    std::istream in( &inBuf );
    std::string word, number;
    EXPECT_TRUE( in >> word >> number );
    EXPECT_FALSE( in >> number );
    in.clear();
    EXPECT_TRUE( inBuf.readFifo() && in >> word );
    EXPECT_EQ( word, "2nd" );
    EXPECT_TRUE( inBuf.readFifo() && inBuf.in_avail() == 0 && !inBuf.readFifo() );
}

} // namespace
} // namespace Nuv::Io
