#include "nuvInterprocessFifo.h"

#include "nuvLogCapture.h"
#include "nuvTestInterprocess.h"
#include "nuvTestThread.h"

#include <deque>
#include <istream>
#include <memory>
#include <new>
#include <ostream>
#include <random>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <thread>

namespace {
thread_local int ourNbrOfAllocations = 0;
}

// NOLINTBEGIN: the linker gives these names
#if defined( __i386__ )
#define NUV_NEW( prefix ) prefix##_Znaj // operator new[]
#else
#define NUV_NEW( prefix ) prefix##_Znam
#endif
extern "C" void* NUV_NEW( __real_ )( size_t );
extern "C" void* NUV_NEW( __wrap_ )( size_t nbrOfBytes )
{
    ++ourNbrOfAllocations;
    return NUV_NEW( __real_ )( nbrOfBytes );
}
// NOLINTEND

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
    InterprocessFifo least( "sizes", 16 ); // entries of at most 5 bytes
    for ( int i = 0; i < 10; ++i ) {
        EXPECT_EQ( least.write( Buffer( numbered( i, 5 ) ) ), i == 0 );
        EXPECT_EQ( readOne( least ), numbered( i, 5 ) );
        least.write( Buffer( numbered( i, 5 ) ) );
        EXPECT_FALSE( least.write( Buffer( numbered( i, 9 ) ) ) ); // cut, and the other discarded
        EXPECT_EQ( least.entries().at( 0 ), numbered( i, 9 ).substr( 0, 5 ) );
    }
    EXPECT_THROW( InterprocessFifo( "sizes", 20 ), ResourceException );
    EXPECT_TRUE( isFree( least ) ) << "left locked by the failed construction";
}

TEST_F( InterprocessFifoTest, TooLongAnEntryIsCutToAQuarter )
{
    const Log::Capture capture;
    InterprocessFifo fifo( "quarter", 1024 );
    EXPECT_TRUE( fifo.write( Buffer( numbered( 1, 257 ) ) ) );
    EXPECT_TRUE( fifo.write( Buffer( numbered( 2, 300 ) ) ) );
    EXPECT_EQ( readOne( fifo ), numbered( 1, 257 ) );
    EXPECT_EQ( readOne( fifo ), numbered( 2, 257 ) );
    EXPECT_EQ( capture.messages().size(), 1u );
    EXPECT_TRUE( capture.contains(
        "errLimitExceeded -- Attempt to write an entry greater than 1/4 of the FIFO size. "
        "[InterprocessFifo::Fifo::write()]" ) );
}

TEST_F( InterprocessFifoTest, FullRingGivesUpItsOldestEntries )
{
    InterprocessFifo fifo( "full", 512 );
    for ( int i = 1; i <= 5; ++i ) {
        EXPECT_EQ( fifo.write( Buffer( numbered( i, 100 ) ) ), i < 5 );
    }
    EXPECT_EQ( fifo.nbrOfDiscarded(), 1u );
    EXPECT_EQ( fifo.entries().size(), 4u );
    for ( int i = 2; i <= 5; ++i ) {
        EXPECT_EQ( readOne( fifo ), numbered( i, 100 ) );
    }
    EXPECT_EQ( fifo.nbrOfOverruns(), 0u ) << "it had read nothing before";
    for ( int i = 6; i <= 20; ++i ) {
        fifo.write( Buffer( numbered( i, 100 ) ) );
    }
    EXPECT_EQ( fifo.nbrOfDiscarded(), 12u );
    EXPECT_EQ( readOne( fifo ), numbered( 17, 100 ) );
    EXPECT_EQ( readOne( fifo ), numbered( 18, 100 ) );
    EXPECT_EQ( fifo.nbrOfOverruns(), 1u );
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
        const auto nbrOfBytesUsed = [&] {
            std::size_t sum = 0;
            for ( const std::string& entry : model ) {
                sum += 4 * ( ( entry.size() + 7 ) / 4 );
            }
            return sum;
        };
        for ( int i = 0; i < 3000; ++i ) {
            if ( random() % 5 < 2 ) {
                const std::string expected = model.empty() ? "-" : model.front();
                ASSERT_EQ( readOne( fifo ), expected );
                if ( !model.empty() )
                    model.pop_front();
                continue;
            }
            const std::string text = numbered( i, random() % ( ringSize / 4 + 2 ) );
            model.push_back( text.substr( 0, ringSize / 4 ) );
            bool isKept = true;
            for ( ; nbrOfBytesUsed() > ringSize; isKept = false ) {
                model.pop_front();
            }
            ASSERT_EQ( fifo.write( Buffer( text ) ), isKept );
            ASSERT_EQ( words( fifo ).myNbrOfBytesFree, ringSize - nbrOfBytesUsed() );
        }
    }
}

TEST_F( InterprocessFifoTest, ContentsSurviveOneUserAndGoWithTheLast )
{
    auto firstPtr = std::make_unique< InterprocessFifo >( "life", 100 );
    auto secondPtr = std::make_unique< InterprocessFifo >( "life", 100 );
    firstPtr->write( Buffer( "kept" ) );
    firstPtr.reset();
    EXPECT_TRUE( secondPtr->event().wait( 0 ) );
    EXPECT_EQ( readOne( *secondPtr ), "kept" );
    secondPtr->write( Buffer( "lost" ) );
    secondPtr.reset();
    for ( const char* const namePtr : { "sem_IpFifo_life", "shm_IpFifo_life", "sem_shm_IpFifo_life",
                                        "sem_evt_IpFifo_life", "evt_IpFifo_life" } ) {
        EXPECT_FALSE( exists( namePtr ) ) << namePtr;
    }
    InterprocessFifo fresh( "life", 100 );
    EXPECT_EQ( readOne( fresh ), "-" );
    EXPECT_FALSE( fresh.event().wait( 0 ) );
}

TEST_F( InterprocessFifoTest, DamagedRingIsEmptiedAndThenWorks )
{
    // 32-bit words of the segment: ring size, read offset, write offset, bytes free, first length.
    const struct
    {
        const char* namePtr;
        int firstIdx, firstAdded, secondIdx, secondAdded;
    } cases[] = {
        { "ring size too great", 0, 4, 0, 0 },
        { "ring size too small", 0, -4, 0, 0 },
        { "read offset at the end", 1, 104, 0, 0 },
        { "read offset odd", 1, 2, 2, 2 },
        { "read offset two bytes before the end", 1, 102, 2, -2 },
        { "offsets far out, in step", 1, 104, 2, 104 },
        { "write offset elsewhere", 2, 4, 0, 0 },
        { "more free than there is", 3, 104, 0, 0 },
        { "free bytes wrapped", 3, -100, 0, 0 },
        { "number of free bytes odd", 3, -2, 2, 2 },
        { "length above a quarter", 4, 7, 0, 0 },
        { "length that wraps to a small size", 4, -21, 0, 0 },
        { "length far out", 4, 0x7F000000, 0, 0 },
    };
    Log::Capture capture;
    InterprocessFifo fifo( "damaged", 100 );
    for ( const auto& row : cases ) {
        for ( const bool isByWrite : { false, true } ) {
            SCOPED_TRACE( std::string( row.namePtr ) + ( isByWrite ? ", write" : ", read" ) );
            new ( &words( fifo ) ) Fifo( true, 100 );
            fifo.write( Buffer( numbered( 1, 20 ) ) );
            if ( isByWrite ) { // until the damaged entry would have to go
                fifo.write( Buffer( numbered( 2, 25 ) ) );
                fifo.write( Buffer( numbered( 3, 25 ) ) );
            }
            auto* const wordsPtr = reinterpret_cast< std::uint32_t* >( &words( fifo ) );
            wordsPtr[row.firstIdx] += static_cast< std::uint32_t >( row.firstAdded );
            wordsPtr[row.secondIdx] += static_cast< std::uint32_t >( row.secondAdded );
            capture.clear();
            if ( isByWrite ) {
                EXPECT_FALSE( fifo.write( Buffer( "after" ) ) && fifo.write( Buffer( "after" ) ) &&
                              fifo.write( Buffer( "after" ) ) );
                EXPECT_EQ( fifo.entries().back(), "after" );
            } else {
                EXPECT_EQ( readOne( fifo ), "-" );
                EXPECT_EQ( headerText( fifo ), "104 0 0 104" );
            }
            EXPECT_TRUE( isFree( fifo ) );
            EXPECT_EQ( capture.messages().size(), 1u );
            EXPECT_TRUE( capture.contains( "errDataDamaged -- The ring of interprocess FIFO "
                                           "\"damaged\" was damaged and has been emptied." ) );
        }
    }
    new ( &words( fifo ) ) Fifo( true, 100 );
    fifo.write( Buffer( numbered( 1, 20 ) ) );
    ringPtr( fifo )[0] = 21; // less than a quarter, and 28 bytes of 24
    EXPECT_EQ( readOne( fifo ), "-" );
    EXPECT_EQ( headerText( fifo ), "104 0 0 104" );

    const SharedMemory halfMade( "IpFifo_half", 120, SharedMemory::readWrite );
    InterprocessFifo next( "half", 100 ); // after a creator that was killed
    EXPECT_TRUE( next.write( Buffer( "x" ) ) || readOne( next ) == "x" );
    EXPECT_EQ( headerText( next ).substr( 0, 4 ), "104 " );
}

TEST_F( InterprocessFifoTest, DeletionOfALengthBeyondTheEntriesAsserts )
{
    InterprocessFifo fifo( "assert", 100 );
    Fifo& ring = words( fifo );
    EXPECT_FALSE( ring.deleteOldest() );
    fifo.write( Buffer( "abc" ) );
    fifo.write( Buffer( "defgh" ) );
    EXPECT_TRUE( ring.deleteOldest() );
    EXPECT_EQ( headerText( fifo ), "104 8 20 92" );
    ringPtr( fifo )[8] = 9;
    NuvTest::expectFailure( "failed: myNbrOfBytesFree + entrySize <= myFifoSize (",
                            [&] { ring.deleteOldest(); } );
    ringPtr( fifo )[8] = 8;
    EXPECT_TRUE( ring.deleteOldest() );
    EXPECT_TRUE( ring.write( Buffer( "direct" ) ) );
    Buffer buffer;
    EXPECT_TRUE( ring.read( &buffer ) );
    EXPECT_EQ( buffer, "direct" );
    ring.myReadOffset = 3;
    EXPECT_FALSE( ring.deleteOldest() );
    EXPECT_EQ( headerText( fifo ), "104 0 0 104" );
}

TEST_F( InterprocessFifoTest, EveryWriteSignalsAndNeitherWriteNorReadAllocates )
{
    InterprocessFifo fifo( "signals", 4096 );
    const Buffer message( numbered( 1, 1000 ) );
    Buffer buffer( 1000 );
    ourNbrOfAllocations = 0;
    for ( int i = 0; i < 10; ++i ) {
        fifo.write( message );
    }
    while ( fifo.read( &buffer ) ) {
        EXPECT_EQ( buffer, message );
    }
    EXPECT_EQ( ourNbrOfAllocations, 0 );
    EXPECT_TRUE( fifo.event().wait( 0 ) );
    EXPECT_EQ( fifo.event().nbrOfSignalsTaken(), 10u );
}

TEST_F( InterprocessFifoTest, StreamBuffersCarryOneEntryEach )
{
    InterprocessFifo fifo( "streams", 1000 );
    InterprocessOStreamBuf outBuf( &fifo );
    std::ostream out( &outBuf );
    out << "first " << 1;
    EXPECT_TRUE( outBuf.writeFifo() );
    out << "2nd";
    EXPECT_TRUE( outBuf.writeFifo() );
    EXPECT_TRUE( outBuf.writeFifo() ); // an empty one

    InterprocessIStreamBuf inBuf( &fifo );
    std::istream in( &inBuf );
    std::string word;
    int number = 0;
    in >> word >> number;
    EXPECT_EQ( word + "/" + std::to_string( number ), "first/1" );
    EXPECT_FALSE( in >> word );
    EXPECT_TRUE( inBuf.readFifo() );
    in.clear();
    EXPECT_TRUE( in >> word );
    EXPECT_EQ( word, "2nd" );
    EXPECT_TRUE( inBuf.readFifo() );
    EXPECT_EQ( inBuf.in_avail(), 0 );
    EXPECT_FALSE( inBuf.readFifo() );
}

TEST_F( InterprocessFifoTest, ThreadsAndObjectsOfOneProcessShareTheRing )
{
    constexpr int nbrOfEntries = 500;
    InterprocessFifo fifo( "threads", 65536 );
    std::vector< std::thread > writers;
    for ( int writer = 0; writer < 3; ++writer ) {
        writers.push_back( NuvTest::startThread( [writer] {
            InterprocessFifo own( "threads", 65536 );
            for ( int i = 0; i < nbrOfEntries; ++i ) {
                own.write( Buffer( numbered( 1000 * writer + i, 20 ) ) );
            }
        } ) );
    }
    int nextOf[3] = {};
    for ( int nbrOfRead = 0; nbrOfRead < 3 * nbrOfEntries; ) {
        const std::string text = readOne( fifo );
        if ( text == "-" ) {
            fifo.event().wait( 1000 );
            continue;
        }
        const int number = std::stoi( text );
        ASSERT_EQ( number % 1000, nextOf[number / 1000]++ );
        ASSERT_EQ( text, numbered( number, 20 ) );
        ++nbrOfRead;
    }
    for ( std::thread& writer : writers ) {
        writer.join();
    }
}

} // namespace
} // namespace Nuv::Io
