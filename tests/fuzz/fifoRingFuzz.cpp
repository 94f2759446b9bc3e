// Ring contents: whatever bytes another process has left in the shared segment of a FIFO, every
// operation stays within the ring, ends, and leaves a ring that works.
//
// Input: 12 bytes for the words behind the ring size, then the ring; the operations to do follow
// from its first bytes.

#include "nuvInterprocessFifo.h"

#include "nuvFuzz.h"
#include "nuvLog.h"

#include <cstring>
#include <memory>

namespace {

using Nuv::Utils::Buffer;
using NuvFuzz::require;
using Fifo = Nuv::Io::InterprocessFifo::Fifo;

constexpr std::size_t nbrOfHeaderBytes = sizeof( Fifo );
constexpr std::size_t maxNbrOfSteps = 16;

void step( Fifo& fifo, std::uint8_t what )
{
    Buffer buffer;
    switch ( what % 4 ) {
    case 0:
        require( fifo.read( &buffer ) || buffer.empty() );
        require( buffer.size() <= fifo.myFifoSize / 4 );
        break;
    case 1:
    case 2:
        fifo.write( Buffer( static_cast< std::size_t >( what / 4 ), 'w' ) );
        break;
    default:
        try {
            fifo.deleteOldest();
        } catch ( const Nuv::LogicException& ) { // a length beyond the entries
        }
    }
}

// After all that, a ring in which nothing is left takes an entry and gives it back.
void checkThatItWorks( Fifo& fifo )
{
    Buffer buffer;
    for ( std::size_t i = 0; fifo.read( &buffer ); ++i ) {
        require( i <= fifo.myFifoSize / 4 );
    }
    require( fifo.myNbrOfBytesFree == fifo.myFifoSize );
    require( fifo.write( Buffer( "ok" ) ) );
    require( fifo.read( &buffer ) && buffer == "ok" && !fifo.read( &buffer ) );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    constexpr std::size_t nbrOfWordBytes = nbrOfHeaderBytes - 4;
    if ( nbrOfBytes < nbrOfWordBytes + 20 )
        return 0;
    // What is damaged is logged, which would be most of the work.
    Nuv::Log::getStandardSource( Nuv::Log::error ).severity( Nuv::Log::off );
    Nuv::Log::getStandardSource( Nuv::Log::fatal ).severity( Nuv::Log::off );

    const auto ringSize = static_cast< std::uint32_t >( ( nbrOfBytes - nbrOfWordBytes ) / 4 * 4 );
    // Of exactly the segment's size, so that the sanitizers see any step beyond it.
    const std::unique_ptr< std::uint32_t[] > segment(
        new std::uint32_t[( nbrOfHeaderBytes + ringSize ) / 4] );
    auto& fifo = *reinterpret_cast< Fifo* >( segment.get() );
    fifo.myFifoSize = ringSize;
    std::memcpy( &fifo.myReadOffset, dataPtr, nbrOfWordBytes + ringSize );
    for ( std::size_t i = 0; i < maxNbrOfSteps; ++i ) {
        step( fifo, dataPtr[nbrOfWordBytes + i] );
        require( fifo.myFifoSize == ringSize );
    }
    checkThatItWorks( fifo );
    return 0;
}
