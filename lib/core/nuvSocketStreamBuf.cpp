#include "nuvSocketStreamBuf.h"

#include "nuvLog.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Nuv::Net {

namespace {

constexpr int nbrOfPutBackBytes = 4;
constexpr int minBufferSize = 10;
constexpr std::streamsize maxDirectSize = 0x40000000;

} // namespace

AbstractSocketStreamBuf::AbstractSocketStreamBuf( int outputSize, int inputSize )
{
    const int putSize = std::max( outputSize, minBufferSize );
    const int getSize = std::max( inputSize, minBufferSize );
    myOutputBuffer.resizeHelper( static_cast< std::size_t >( putSize ), false, '\0' );
    myInputBuffer.resizeHelper( static_cast< std::size_t >( getSize ) + nbrOfPutBackBytes, false,
                                '\0' );
    setp( myOutputBuffer.data(), myOutputBuffer.data() + putSize );
    setg( dataPtr(), dataPtr(), dataPtr() );
}

AbstractSocketStreamBuf::~AbstractSocketStreamBuf() = default;

char* AbstractSocketStreamBuf::dataPtr()
{
    return myInputBuffer.data() + nbrOfPutBackBytes;
}

int AbstractSocketStreamBuf::inputSize() const
{
    return static_cast< int >( myInputBuffer.size() ) - nbrOfPutBackBytes;
}

int AbstractSocketStreamBuf::readLimit( int limit )
{
    const int previous = std::exchange( myReadLimit, limit );
    resetReadCounter();
    return previous;
}

void AbstractSocketStreamBuf::resetReadCounter()
{
    myReadCounter = static_cast< int >( egptr() - gptr() );
    if ( myReadLimit != 0 && myReadCounter > myReadLimit ) {
        setg( eback(), gptr(), gptr() + std::max( myReadLimit, 0 ) );
        myReadCounter = myReadLimit;
    }
}

/// Moves the last of the bytes that were read before the data's start. @return how many
std::ptrdiff_t AbstractSocketStreamBuf::keepPutBack( const char* endPtr, std::ptrdiff_t count )
{
    const std::ptrdiff_t kept = std::min< std::ptrdiff_t >( count, nbrOfPutBackBytes );
    std::memmove( dataPtr() - kept, endPtr - kept, static_cast< std::size_t >( kept ) );
    setg( dataPtr() - kept, dataPtr(), dataPtr() );
    return kept;
}

/// read() within the limit. @return not positive at the end
int AbstractSocketStreamBuf::readCounted( char* ptr, std::streamsize count )
{
    if ( myPendingException )
        std::rethrow_exception( std::exchange( myPendingException, nullptr ) );
    count = std::min( count, maxDirectSize );
    if ( myReadLimit != 0 )
        count = std::min< std::streamsize >( count, myReadLimit - myReadCounter );
    const int result = count > 0 ? read( ptr, static_cast< int >( count ) ) : 0;
    if ( result > 0 && myReadLimit != 0 )
        myReadCounter += result;
    return result;
}

AbstractSocketStreamBuf::int_type AbstractSocketStreamBuf::underflow()
{
    nuvAssert( gptr() >= egptr() );
    const std::ptrdiff_t kept = keepPutBack( gptr(), gptr() - eback() );
    const int count = readCounted( dataPtr(), inputSize() );
    if ( count <= 0 )
        return traits_type::eof();
    setg( dataPtr() - kept, dataPtr(), dataPtr() + count );
    return traits_type::to_int_type( *gptr() );
}

std::streamsize AbstractSocketStreamBuf::xsgetn( char* ptr, std::streamsize count )
{
    std::streamsize done = 0;
    try {
        while ( done < count ) {
            const std::streamsize left = count - done;
            std::streamsize n = std::min< std::streamsize >( left, egptr() - gptr() );
            if ( n > 0 ) {
                std::memcpy( ptr + done, gptr(), static_cast< std::size_t >( n ) );
                gbump( static_cast< int >( n ) );
            } else if ( left < inputSize() ) {
                if ( traits_type::eq_int_type( underflow(), traits_type::eof() ) )
                    break;
            } else {
                n = readCounted( ptr + done, left );
                if ( n <= 0 )
                    break;
                keepPutBack( ptr + done + n, n );
            }
            done += n;
        }
    } catch ( const SocketException& ) {
        if ( done == 0 )
            throw;
        myPendingException = std::current_exception();
    }
    return done;
}

int AbstractSocketStreamBuf::flushBuffer()
{
    const int count = static_cast< int >( pptr() - pbase() );
    if ( count != 0 && write( pbase(), count ) != count )
        return -1;
    setp( pbase(), epptr() );
    return 0;
}

int AbstractSocketStreamBuf::sync()
{
    return flushBuffer();
}

AbstractSocketStreamBuf::int_type AbstractSocketStreamBuf::overflow( int_type c )
{
    if ( flushBuffer() != 0 )
        return traits_type::eof();
    if ( !traits_type::eq_int_type( c, traits_type::eof() ) ) {
        *pptr() = traits_type::to_char_type( c );
        pbump( 1 );
    }
    return traits_type::not_eof( c );
}

/// Writes the greatest multiple of the buffer's size.
/// @param donePtr raised by what was taken
/// @return whether that was all
bool AbstractSocketStreamBuf::writeDirectly( const char* ptr, std::streamsize count,
                                             std::streamsize* donePtr )
{
    const std::streamsize size = epptr() - pbase();
    const std::streamsize wanted = std::min( count, maxDirectSize ) / size * size;
    const int taken = write( ptr, static_cast< int >( wanted ) );
    *donePtr += std::max( taken, 0 );
    return taken == wanted;
}

std::streamsize AbstractSocketStreamBuf::xsputn( const char* ptr, std::streamsize count )
{
    const std::streamsize size = epptr() - pbase();
    std::streamsize done = 0;
    while ( done < count ) {
        const std::streamsize left = count - done;
        if ( pptr() == pbase() && left >= size ) {
            if ( !writeDirectly( ptr + done, left, &done ) )
                return done;
            continue;
        }
        const std::streamsize n = std::min< std::streamsize >( left, epptr() - pptr() );
        std::memcpy( pptr(), ptr + done, static_cast< std::size_t >( n ) );
        pbump( static_cast< int >( n ) );
        done += n;
        if ( pptr() == epptr() && flushBuffer() != 0 )
            return done;
    }
    return done;
}

// ----------------------------------------------------------------------------- SocketStreamBuf

SocketStreamBuf::SocketStreamBuf( TcpSocket* socketPtr, int outputSize, int inputSize )
    : AbstractSocketStreamBuf( outputSize, inputSize )
    , mySocketPtr( socketPtr )
{
    nuvAssert( mySocketPtr != NULL );
}

SocketStreamBuf::~SocketStreamBuf()
{
    try {
        SocketStreamBuf::sync();
    } catch ( const SocketException& e ) {
        nuvLogTo( Log::getStandardSource( Log::debug ) )
            << "SocketStreamBuf::~SocketStreamBuf() -- " << e.what();
    }
}

std::streamsize SocketStreamBuf::showmanyc()
{
    int count = 0;
    return mySocketPtr->isRecvDataAvailable( &count ) ? count : 0;
}

int SocketStreamBuf::read( char* ptr, int count )
{
    if ( myReadIdleTimeoutInSeconds == 0 )
        return mySocketPtr->read( ptr, count, 0 );
    try {
        constexpr unsigned int maxSeconds = 0x7FFFFFFF / 1000;
        return mySocketPtr->timedRead( ptr, count,
                                       std::min( myReadIdleTimeoutInSeconds, maxSeconds ) * 1000 );
    } catch ( const SocketException& e ) {
        if ( e.reason() == socketReadTimedOut )
            mySocketPtr->close();
        throw;
    }
}

int SocketStreamBuf::write( const char* ptr, int count )
{
    return mySocketPtr->write( ptr, count, 0 );
}

void SocketStreamBuf::readIdleTimeoutInSecondsImpl( unsigned int seconds )
{
    myReadIdleTimeoutInSeconds = seconds;
}

} // namespace Nuv::Net
