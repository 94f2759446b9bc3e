#include "nuvInterprocessFifo.h"

#include "nuvLog.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace Nuv::Io {

namespace {

using Fifo = InterprocessFifo::Fifo;
using Word = std::uint32_t;

constexpr Word wordSize = 4;
constexpr Word unknownOffset = 0xFFFFFFFF;

enum Fault : unsigned int
{
    entryCut = 1,
    ringDamaged = 2
};

// What an entry of this length occupies; 64 bits, since a damaged length may be anything.
std::uint64_t entrySize( Word length )
{
    return ( std::uint64_t( length ) + 7 ) & ~std::uint64_t( 3 );
}

Word load( Word& word )
{
    return std::atomic_ref( word ).load( std::memory_order_relaxed );
}
void store( Word& word, Word value )
{
    std::atomic_ref( word ).store( value, std::memory_order_relaxed );
}

// One operation on the ring, the semaphore being held. It works on copies of the shared words, each
// read once and checked: whatever else writes to the segment cannot lead it outside the ring.
class Ring
{
public:
    // @param size F, as the caller trusts it
    Ring( Fifo& fifo, Word size )
        : myFifo( fifo )
        , myBytesPtr( reinterpret_cast< char* >( &fifo + 1 ) )
        , mySize( size )
        , myReadOffset( load( fifo.myReadOffset ) )
        , myNbrOfBytesFree( load( fifo.myNbrOfBytesFree ) )
    {
        if ( !isSound() )
            discardAll();
    }

    bool isEmpty() const { return myNbrOfBytesFree == mySize; }
    Word readOffset() const { return myReadOffset; }
    unsigned int faults() const { return myFaults; }
    unsigned int nbrOfDiscarded() const { return myNbrOfDiscarded; }
    std::uint64_t oldestSize() const { return entrySize( oldestLength() ); }

    // @return whether no older entry had to go
    bool put( const char* bytesPtr, Word length )
    {
        if ( length > mySize / 4 ) {
            length = mySize / 4;
            myFaults |= entryCut;
        }
        const Word size = static_cast< Word >( entrySize( length ) );
        while ( myNbrOfBytesFree < size && dropOldest() ) {
        }
        const Word offset = advanced( myReadOffset, mySize - myNbrOfBytesFree );
        std::memcpy( myBytesPtr + offset, &length, wordSize );
        copyIn( advanced( offset, wordSize ), bytesPtr, length );
        myNbrOfBytesFree -= size;
        publish();
        return myNbrOfDiscarded == 0 && ( myFaults & ringDamaged ) == 0;
    }

    // @return false when there is nothing to take; *bufferPtr is empty then
    bool take( Utils::Buffer* bufferPtr )
    {
        bufferPtr->clear();
        if ( !hasSoundOldest() )
            return false;
        const Word length = oldestLength();
        copyOldest( length, bufferPtr );
        remove( length );
        publish();
        return true;
    }

    // @return false when the ring is empty
    bool dropOldest()
    {
        if ( !hasSoundOldest() )
            return false;
        remove( oldestLength() );
        ++myNbrOfDiscarded;
        return true;
    }

    // Copies the oldest entry and leaves it out of this object, not out of the ring.
    bool passOldest( Utils::Buffer* bufferPtr )
    {
        if ( !hasSoundOldest() )
            return false;
        const Word length = oldestLength();
        copyOldest( length, bufferPtr );
        remove( length );
        return true;
    }

    void publish()
    {
        store( myFifo.myReadOffset, myReadOffset );
        store( myFifo.myNbrOfBytesFree, myNbrOfBytesFree );
        store( myFifo.myWriteOffset, advanced( myReadOffset, mySize - myNbrOfBytesFree ) );
    }

private:
    bool isSound() const
    {
        return load( myFifo.myFifoSize ) == mySize && myNbrOfBytesFree <= mySize &&
               myReadOffset < mySize && myReadOffset % wordSize == 0 &&
               myNbrOfBytesFree % wordSize == 0 &&
               load( myFifo.myWriteOffset ) == advanced( myReadOffset, mySize - myNbrOfBytesFree );
    }

    void discardAll()
    {
        myFaults |= ringDamaged;
        new ( &myFifo ) Fifo( true, mySize - wordSize );
        myReadOffset = 0;
        myNbrOfBytesFree = mySize;
    }

    Word advanced( Word offset, Word nbrOfBytes ) const
    {
        return static_cast< Word >( ( std::uint64_t( offset ) + nbrOfBytes ) % mySize );
    }

    Word oldestLength() const
    {
        Word length;
        std::memcpy( &length, myBytesPtr + myReadOffset, wordSize );
        return length;
    }

    // A length that nobody wrote, or that reaches beyond what is in the ring, empties it.
    bool hasSoundOldest()
    {
        if ( isEmpty() )
            return false;
        if ( oldestLength() <= mySize / 4 && oldestSize() <= mySize - myNbrOfBytesFree )
            return true;
        discardAll();
        return false;
    }

    void remove( Word length )
    {
        const Word size = static_cast< Word >( entrySize( length ) );
        myNbrOfBytesFree += size;
        myReadOffset = advanced( myReadOffset, size );
    }

    void copyIn( Word offset, const char* bytesPtr, Word length )
    {
        const Word nbrOfFirst = std::min( length, mySize - offset );
        if ( length != 0 ) // an empty Buffer's bytes are none
            std::memcpy( myBytesPtr + offset, bytesPtr, nbrOfFirst );
        if ( length > nbrOfFirst )
            std::memcpy( myBytesPtr, bytesPtr + nbrOfFirst, length - nbrOfFirst );
    }

    void copyOldest( Word length, Utils::Buffer* bufferPtr ) const
    {
        const Word offset = advanced( myReadOffset, wordSize );
        const Word nbrOfFirst = std::min( length, mySize - offset );
        bufferPtr->resizeHelper( length, false, '\0' );
        if ( length == 0 ) // an empty Buffer has no bytes of its own
            return;
        std::memcpy( bufferPtr->data(), myBytesPtr + offset, nbrOfFirst );
        std::memcpy( bufferPtr->data() + nbrOfFirst, myBytesPtr, length - nbrOfFirst );
    }

    Fifo& myFifo;
    char* const myBytesPtr;
    const Word mySize;
    Word myReadOffset;
    Word myNbrOfBytesFree;
    unsigned int myFaults = 0;
    unsigned int myNbrOfDiscarded = 0;
};

void logRingFaults( unsigned int faults, const char* namePtr )
{
    if ( ( faults & ringDamaged ) != 0 ) {
        nuvLogTo( Log::getStandardSource( Log::error ) )
            << "errDataDamaged -- The ring of interprocess FIFO \"" << namePtr
            << "\" was damaged and has been emptied. [InterprocessFifo::Fifo]";
    }
    if ( ( faults & entryCut ) != 0 ) {
        nuvLogTo( Log::getStandardSource( Log::error ) )
            << "errLimitExceeded -- Attempt to write an entry greater than 1/4 of the FIFO size. "
               "[InterprocessFifo::Fifo::write()]";
    }
}

// The FIFO operations that the calling thread is inside of, innermost first.
thread_local const void* ourInnermostScopePtr = nullptr;

std::string checkedName( const char* namePtr, unsigned int size )
{
    nuvAssert( namePtr != NULL );
    nuvAssert( size >= InterprocessFifo::minSize && size <= InterprocessFifo::maxSize );
    return std::string( "IpFifo_" ) + namePtr;
}

} // namespace

InterprocessFifo::Fifo::Fifo( bool initialise, unsigned int size )
{
    if ( !initialise )
        return;
    store( myFifoSize, size + wordSize );
    store( myReadOffset, 0 );
    store( myWriteOffset, 0 );
    store( myNbrOfBytesFree, size + wordSize );
    *reinterpret_cast< char* >( this + 1 ) = '\0';
}

bool InterprocessFifo::Fifo::write( const Utils::Buffer& buffer )
{
    Ring ring( *this, myFifoSize );
    const bool isKept = ring.put( buffer.data(), buffer.size() );
    logRingFaults( ring.faults(), "" );
    return isKept;
}

bool InterprocessFifo::Fifo::read( Utils::Buffer* bufferPtr )
{
    Ring ring( *this, myFifoSize );
    const bool isTaken = ring.take( bufferPtr );
    logRingFaults( ring.faults(), "" );
    return isTaken;
}

bool InterprocessFifo::Fifo::deleteOldest()
{
    Ring ring( *this, myFifoSize );
    if ( !ring.isEmpty() ) {
        const std::uint64_t entrySize = ring.oldestSize();
        nuvAssert( myNbrOfBytesFree + entrySize <= myFifoSize );
    }
    const bool isDeleted = ring.dropOldest();
    ring.publish();
    logRingFaults( ring.faults(), "" );
    return isDeleted;
}

void InterprocessFifo::InsideScope::enter( int semaphoreHandle )
{
    mySemaphoreHandle = semaphoreHandle;
    myOuterPtr = static_cast< const InsideScope* >( ourInnermostScopePtr );
    ourInnermostScopePtr = this;
}

void InterprocessFifo::InsideScope::leave()
{
    if ( mySemaphoreHandle < 0 )
        return;
    ourInnermostScopePtr = myOuterPtr;
    mySemaphoreHandle = -1;
}

bool InterprocessFifo::InsideScope::isInside( int semaphoreHandle )
{
    const auto* scopePtr = static_cast< const InsideScope* >( ourInnermostScopePtr );
    while ( scopePtr != nullptr && scopePtr->mySemaphoreHandle != semaphoreHandle ) {
        scopePtr = scopePtr->myOuterPtr;
    }
    return scopePtr != nullptr;
}

// The thread may be inside this very ring already: what it logs in there makes the log's own
// object.
InterprocessFifo::InterprocessFifo( const char* namePtr, unsigned int size )
    : mySemaphore( checkedName( namePtr, size ), 1 )
    , mySemaphoreLock( &mySemaphore, InsideScope::isInside( mySemaphore.handle() )
                                         ? Mt::SemaphoreLock::stateUnlocked
                                         : Mt::SemaphoreLock::stateLocked )
    , myInsideScope( mySemaphore.handle() )
    , mySharedMemory( std::string( "IpFifo_" ) + namePtr,
                      size / wordSize * wordSize + nbrOfExtraBytes, SharedMemory::readWrite )
    , myFifoPtr( reinterpret_cast< Fifo* >( mySharedMemory.memoryPtr() ) )
    , myEvent( std::string( "IpFifo_" ) + namePtr )
    , myName( namePtr )
    , myNextReadOffset( unknownOffset )
{
    if ( mySharedMemory.isCreated() )
        new ( myFifoPtr ) Fifo( true, size / wordSize * wordSize );
    myInsideScope.leave();
    if ( mySemaphoreLock.state() == Mt::SemaphoreLock::stateLocked )
        mySemaphoreLock.unlock();
}

InterprocessFifo::~InterprocessFifo()
{
    if ( !InsideScope::isInside( mySemaphore.handle() ) )
        mySemaphoreLock.lockOrLog();
    myInsideScope.enter( mySemaphore.handle() );
}

std::uint32_t InterprocessFifo::fifoSize() const
{
    return mySharedMemory.size() - static_cast< Word >( sizeof( Fifo ) );
}

bool InterprocessFifo::write( const Utils::Buffer& buffer )
{
    if ( InsideScope::isInside( mySemaphore.handle() ) )
        return false;
    bool isKept;
    unsigned int faults;
    {
        const InsideScope insideScope( mySemaphore.handle() );
        const Mt::SemaphoreLock lock( &mySemaphore );
        Ring ring( *myFifoPtr, fifoSize() );
        isKept = ring.put( buffer.data(), buffer.size() );
        faults = ring.faults();
        myNbrOfDiscarded.fetch_add( ring.nbrOfDiscarded(), std::memory_order_relaxed );
        myEvent.signal();
    }
    logFaults( faults );
    return isKept;
}

bool InterprocessFifo::read( Utils::Buffer* bufferPtr )
{
    bool isTaken;
    unsigned int faults;
    {
        const InsideScope insideScope( mySemaphore.handle() );
        const Mt::SemaphoreLock lock( &mySemaphore );
        Ring ring( *myFifoPtr, fifoSize() );
        if ( myNextReadOffset != unknownOffset && myNextReadOffset != ring.readOffset() )
            myNbrOfOverruns.fetch_add( 1, std::memory_order_relaxed );
        isTaken = ring.take( bufferPtr );
        myNextReadOffset = ring.readOffset();
        faults = ring.faults();
    }
    logFaults( faults );
    return isTaken;
}

std::vector< Utils::Buffer > InterprocessFifo::entries()
{
    std::vector< Utils::Buffer > result;
    unsigned int faults;
    {
        const InsideScope insideScope( mySemaphore.handle() );
        const Mt::SemaphoreLock lock( &mySemaphore );
        Ring ring( *myFifoPtr, fifoSize() );
        Utils::Buffer entry;
        while ( ring.passOldest( &entry ) ) {
            result.push_back( entry );
        }
        faults = ring.faults();
    }
    logFaults( faults );
    return result;
}

void InterprocessFifo::logFaults( unsigned int faults ) const
{
    if ( faults != 0 )
        logRingFaults( faults, myName.c_str() );
}

InterprocessOStreamBuf::InterprocessOStreamBuf( InterprocessFifo* fifoPtr )
    : myFifoPtr( fifoPtr )
{
}

InterprocessOStreamBuf::~InterprocessOStreamBuf() = default;

bool InterprocessOStreamBuf::writeFifo()
{
    const bool isKept = myFifoPtr->write( *bufferPtr() );
    reset();
    return isKept;
}

InterprocessIStreamBuf::InterprocessIStreamBuf( InterprocessFifo* fifoPtr )
    : myFifoPtr( fifoPtr )
{
    readFifo();
}

InterprocessIStreamBuf::~InterprocessIStreamBuf() = default;

bool InterprocessIStreamBuf::readFifo()
{
    const bool isRead = myFifoPtr->read( &myBuffer );
    setGetArea( 0 );
    return isRead;
}

} // namespace Nuv::Io
