#include "nuvPipeFrame.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>

namespace Nuv::Io {

namespace {

constexpr std::size_t wordSize = 4;
constexpr std::size_t headerSize = 3 * wordSize;
constexpr unsigned int stepMs = 10;
constexpr unsigned int stepsPerSec = 1000 / stepMs;
constexpr std::uint32_t defaultMaxDataSize = 64 * 1024 * 1024;

std::atomic< std::uint32_t > ourMaxDataSize = defaultMaxDataSize;

void sleepMs( unsigned int ms )
{
    ::usleep( ms * 1000 );
}

} // namespace

/// A frame while it is read.
namespace {

// How often an empty pipe is read before the read waits: for about the time that blocking and
// waking up take, within which a running peer's answer often comes. With one core it cannot.
int maxNbrOfQuickAttempts()
{
    static const int ourMax = std::thread::hardware_concurrency() > 1 ? 128 : 0;
    return ourMax;
}

} // namespace

struct PipeFrame::Reading
{
    std::uint32_t word( std::size_t index ) const { return words[index]; }
    std::int32_t size() const { return static_cast< std::int32_t >( words[0] ); }
    char* headerPtr() { return reinterpret_cast< char* >( words.data() ); }

    int fd;
    const std::string& pathname;
    Utils::Buffer* dataPtr;
    std::uint64_t maxNbrOfSteps;
    bool isSilenceCounted;
    std::array< std::uint32_t, 3 > words{};
    std::size_t nbrOfHeaderBytes = 0;
    std::size_t nbrOfDataBytes = 0;
    std::uint64_t nbrOfSteps = 0;
    int nbrOfQuickAttempts = maxNbrOfQuickAttempts();
};

PipeFrame::PipeFrame( const char* classNamePtr, Log::SourceSet* sourcesPtr )
    : myClassNamePtr( classNamePtr )
    , mySourcesPtr( sourcesPtr )
{
}

void PipeFrame::maxDataSize( std::uint32_t nbrOfBytes )
{
    ourMaxDataSize.store( nbrOfBytes, std::memory_order_relaxed );
}

std::uint32_t PipeFrame::maxDataSize()
{
    return ourMaxDataSize.load( std::memory_order_relaxed );
}

std::string PipeFrame::place( const std::string& pathname, const char* functionPtr ) const
{
    return pathname + " [" + myClassNamePtr + "::" + functionPtr + "]";
}

// ---- writing ----------------------------------------------------------------------------------

namespace {

// What the words and the data are called when a write transfers nothing.
const char* zeroWriteText( std::size_t nbrOfBytesDone )
{
    static constexpr const char* texts[] = {
        "write returned zero bytes on ", "re-write returned zero bytes on ",
        "Hash index write returned zero bytes on ", "Data write returned zero bytes on " };
    return texts[std::min< std::size_t >( nbrOfBytesDone / wordSize, 3 )];
}

// One gathered write of what is left of header and data.
ssize_t writeRest( int fd, const char* headerPtr, const Utils::Buffer& data, std::size_t done )
{
    const std::size_t headerDone = std::min( done, headerSize );
    iovec parts[2] = {
        { const_cast< char* >( headerPtr ) + headerDone, headerSize - headerDone },
        { const_cast< char* >( data.data() ) + ( done - headerDone ),
          data.size() - ( done - headerDone ) },
    };
    for ( ;; ) {
        const ssize_t n = Utils::retryOnEintr( [&] { return ::writev( fd, parts, 2 ); } );
        if ( n != -1 || errno != EAGAIN )
            return n;
        pollfd descriptor = { fd, POLLOUT, 0 };
        ::poll( &descriptor, 1, -1 );
    }
}

} // namespace

bool PipeFrame::write( int fd, const std::string& pathname, const Utils::Buffer& data )
{
    const auto size = static_cast< std::int32_t >( data.size() );
    if ( size < 0 ) {
        nuvLogTo( error() ) << "errSystemError message size exceeded on "
                            << place( pathname, "writeMsg" );
        return false;
    }
    const std::uint32_t words[3] = { data.size(), ~data.size(), pipeDataHash( data.view() ) };
    const std::size_t total = headerSize + data.size();
    for ( std::size_t done = 0; done < total; ) {
        const ssize_t n = writeRest( fd, reinterpret_cast< const char* >( words ), data, done );
        if ( n < 0 ) {
            const int errorNbr = errno;
            nuvLogTo( error() ) << "errSystemError write of message "
                                << ( done < headerSize ? "size " : "" ) << "failed on " << pathname
                                << " error: " << std::strerror( errorNbr ) << " [" << myClassNamePtr
                                << "::writeMsg]";
            return false;
        }
        if ( n == 0 ) {
            nuvLogTo( debug() ) << zeroWriteText( done ) << place( pathname, "writeMsg" );
            sleepMs( stepMs );
        }
        done += static_cast< std::size_t >( n );
    }
    return true;
}

// ---- reading ----------------------------------------------------------------------------------

void PipeFrame::logReadError( const Reading& reading, const char* textPtr ) const
{
    const int errorNbr = errno;
    if ( !isStopped() )
        nuvLogTo( error() ) << textPtr << reading.pathname
                            << " error: " << std::strerror( errorNbr ) << " [" << myClassNamePtr
                            << "::readMsg]";
}

void PipeFrame::logZeroRead( const Reading& reading, const char* textPtr, const char* functionPtr )
{
    if ( std::exchange( myZeroRead, true ) )
        return;
    nuvLogTo( debug() ) << textPtr << place( reading.pathname, functionPtr );
}

// Nobody holds the pipe's other end.
bool PipeFrame::step( Reading* readingPtr )
{
    switch ( readingPtr->nbrOfHeaderBytes / wordSize ) {
    case 0:
        logZeroRead( *readingPtr, "read of message size returned zero bytes on ", "readMsg" );
        break;
    case 1:
        logZeroRead( *readingPtr, "read of second message size returned zero bytes on ",
                     "readMsgImpl" );
        break;
    case 2:
        logZeroRead( *readingPtr, "read of hash index returned zero bytes on ", "readMsgImpl" );
        break;
    default:
        logZeroRead( *readingPtr, "read of message returned zero bytes on ", "readMsg" );
    }
    sleepMs( stepMs );
    return ++readingPtr->nbrOfSteps < readingPtr->maxNbrOfSteps;
}

// Until bytes come or the last writer goes. @return false when the time is over
bool PipeFrame::waitForBytes( Reading* readingPtr )
{
    constexpr std::uint64_t maxWaitMs = 1000;
    pollfd descriptor = { readingPtr->fd, POLLIN, 0 };
    if ( !readingPtr->isSilenceCounted ) {
        // A reader that never had a writer is not told; its reads are tried again now and then.
        ::poll( &descriptor, 1, static_cast< int >( maxWaitMs ) );
        return true;
    }
    const std::uint64_t stepsLeft =
        readingPtr->maxNbrOfSteps - std::min( readingPtr->nbrOfSteps, readingPtr->maxNbrOfSteps );
    const std::uint64_t waitMs = std::min( stepsLeft * stepMs, maxWaitMs );
    if ( Utils::retryOnEintr(
             [&] { return ::poll( &descriptor, 1, static_cast< int >( waitMs ) ); } ) != 0 )
        return true;
    readingPtr->nbrOfSteps += waitMs / stepMs;
    return readingPtr->nbrOfSteps < readingPtr->maxNbrOfSteps;
}

// Takes up to length bytes, at least one, into ptr and counts them.
// @return false after a failed read, with errno
bool PipeFrame::take( Reading* readingPtr, char* ptr, std::size_t length )
{
    for ( ;; ) {
        const ssize_t n =
            Utils::retryOnEintr( [&] { return ::read( readingPtr->fd, ptr, length ); } );
        if ( n > 0 ) {
            myZeroRead = false;
            readingPtr->nbrOfSteps = 0;
            readingPtr->isSilenceCounted = true;
            ( readingPtr->nbrOfHeaderBytes < headerSize ? readingPtr->nbrOfHeaderBytes
                                                        : readingPtr->nbrOfDataBytes ) +=
                static_cast< std::size_t >( n );
            return true;
        }
        if ( n < 0 && errno != EAGAIN )
            return false;
        const int nbrOfQuickAttempts = std::exchange( readingPtr->nbrOfQuickAttempts, 0 );
        if ( n < 0 && nbrOfQuickAttempts > 0 ) {
            readingPtr->nbrOfQuickAttempts = nbrOfQuickAttempts - 1;
            continue;
        }
        if ( isStopped() ) {
            errno = ECANCELED;
            return false;
        }
        // A pipe that is found without a writer at once may be about to get its first one.
        const bool isUntried = nbrOfQuickAttempts > 0;
        if ( !( n == 0 && !isUntried ? step( readingPtr ) : waitForBytes( readingPtr ) ) )
            timeOut( *readingPtr );
    }
}

void PipeFrame::timeOut( const Reading& reading ) const
{
    static constexpr const char* texts[] = {
        "Timed out while reading the size: ", "Timed out while re-reading the size: ",
        "Timed out while reading the data hash index: " };
    const std::size_t wordIndex = reading.nbrOfHeaderBytes / wordSize;
    if ( wordIndex < 3 ) {
        nuvLogTo( error() ) << texts[wordIndex] << reading.word( wordIndex );
        throw PipeReadTimeoutException( wordIndex < 2
                                            ? "Timed out while reading the size of the data"
                                            : "Timed out while reading the data hash",
                                        0, 0 );
    }
    nuvLogTo( error() ) << "Timed out while reading the data of size: " << reading.size();
    nuvLogTo( error() ) << "Data that is being read and its size are: " << reading.dataPtr->cStr()
                        << " and " << reading.dataPtr->length();
    throw PipeReadTimeoutException( "Timed out while reading the data", 0, 0 );
}

void PipeFrame::checkSizes( const Reading& reading ) const
{
    const auto complement = static_cast< std::int32_t >( ~reading.word( 1 ) );
    if ( complement == reading.size() )
        return;
    nuvLogTo( error() ) << "Data sizes not matched: " << reading.size() << " and " << complement
                        << " on pipe: " << place( reading.pathname, "readMsgImpl" );
    throw PipeDataValidationException( "Validation of data size sent over pipe failed", 0, 0 );
}

// The three words, in one read when they are there; the sizes are checked as soon as both are in.
bool PipeFrame::readHeader( Reading* readingPtr )
{
    bool areSizesChecked = false;
    while ( readingPtr->nbrOfHeaderBytes < headerSize ) {
        const std::size_t done = readingPtr->nbrOfHeaderBytes;
        if ( !take( readingPtr, readingPtr->headerPtr() + done, headerSize - done ) ) {
            logReadError( *readingPtr, "errSystemError read of message size failed on " );
            return false;
        }
        if ( !areSizesChecked && readingPtr->nbrOfHeaderBytes >= 2 * wordSize ) {
            checkSizes( *readingPtr );
            areSizesChecked = true;
        }
    }
    if ( readingPtr->size() < 0 || readingPtr->word( 0 ) > maxDataSize() ) {
        nuvLogTo( error() ) << "errSystemError message size exceeded on "
                            << place( readingPtr->pathname, "readMsg" );
        return false;
    }
    return true;
}

bool PipeFrame::readData( Reading* readingPtr )
{
    const std::size_t size = readingPtr->word( 0 );
    Utils::Buffer& data = *readingPtr->dataPtr;
    data.clear();
    data.resizeHelper( size, false, '\0' );
    // What is logged of data that never came must not be memory's old content.
    if ( size != 0 )
        data[0] = '\0';
    while ( readingPtr->nbrOfDataBytes < size ) {
        const std::size_t done = readingPtr->nbrOfDataBytes;
        if ( !take( readingPtr, data.data() + done, size - done ) ) {
            logReadError( *readingPtr, "errSystemError read of message failed on " );
            return false;
        }
        if ( readingPtr->nbrOfDataBytes < size )
            data[readingPtr->nbrOfDataBytes] = '\0';
    }
    return true;
}

bool PipeFrame::read( int fd, const std::string& pathname, Utils::Buffer* dataPtr,
                      unsigned int timeoutSec, Patience patience )
{
    Reading reading = { fd, pathname, dataPtr, std::uint64_t( timeoutSec ) * stepsPerSec,
                        patience == Patience::fromStart };
    if ( fd >= 0 && reading.nbrOfQuickAttempts == 0 && !waitForBytes( &reading ) )
        timeOut( reading );
    if ( !readHeader( &reading ) || !readData( &reading ) )
        return false;
    const std::uint32_t hash = pipeDataHash( dataPtr->view() );
    if ( hash != reading.word( 2 ) ) {
        nuvLogTo( error() ) << "Computed message hash and its received hash not matched:" << hash
                            << " and " << reading.word( 2 )
                            << " on pipe: " << place( pathname, "readMsgImpl" );
        throw PipeDataValidationException( "Validation of data sent over pipe failed", 0, 0 );
    }
    return true;
}

bool PipeFrame::drain( int fd, const std::string& pathname, unsigned int timeoutSec )
{
    constexpr unsigned int drainStepMs = 100;
    const std::uint64_t maxNbrOfWaits = std::uint64_t( timeoutSec ) * ( 1000 / drainStepMs );
    nuvLogTo( debug() ) << "Drain Pipe on " << pathname << " and " << myClassNamePtr << " called";
    bool drained = false;
    for ( std::uint64_t i = 0; !drained; ) {
        char bytes[100];
        const ssize_t n =
            Utils::retryOnEintr( [&] { return ::read( fd, bytes, sizeof( bytes ) ); } );
        if ( n > 0 ) {
            nuvLogTo( debug() ) << "Read " << n << " byes";
        } else if ( n < 0 ) {
            nuvLogTo( debug() ) << "Breaking out of loop .. failure case .. ";
            drained = true;
        } else {
            const int errorNbr = errno;
            nuvLogTo( debug() ) << "Read is waiting for iteration " << i
                                << " and return value is: " << n << " and errno: " << errorNbr;
            sleepMs( drainStepMs );
            if ( ++i >= maxNbrOfWaits ) {
                nuvLogTo( debug() ) << "Timed out while emptying the buffer.";
                break;
            }
        }
    }
    nuvLogTo( debug() ) << "Drain Pipe on " << pathname << " and " << myClassNamePtr << " exiting";
    return drained;
}

} // namespace Nuv::Io
