#include "nuvSimpleStreamBuf.h"

#include "nuvUtils.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace Nuv::Io {

namespace {

// @return how many of the bytes were written, fewer after a failure
std::size_t writeAll( int fd, const char* ptr, std::size_t count )
{
    std::size_t nbrOfWritten = 0;
    while ( nbrOfWritten < count ) {
        const ssize_t n = Utils::retryOnEintr(
            [&] { return ::write( fd, ptr + nbrOfWritten, count - nbrOfWritten ); } );
        if ( n < 0 )
            break;
        nbrOfWritten += static_cast< std::size_t >( n );
    }
    return nbrOfWritten;
}

} // namespace

SimpleOStreamBuf::SimpleOStreamBuf( int fd )
    : myFd( fd )
    , myBytes( nbrOfBufferBytes )
{
    setp( myBytes.data(), myBytes.data() + myBytes.size() );
}

SimpleOStreamBuf::SimpleOStreamBuf( Utils::Handle&& handle )
    : SimpleOStreamBuf( handle.fd() )
{
    myHandle = std::move( handle );
}

SimpleOStreamBuf::~SimpleOStreamBuf()
{
    SimpleOStreamBuf::sync();
}

int SimpleOStreamBuf::sync()
{
    const std::size_t count = nbrOfCollected();
    const std::size_t nbrOfWritten = writeAll( myFd, pbase(), count );
    const std::size_t nbrOfLeft = count - nbrOfWritten;
    std::memmove( pbase(), pbase() + nbrOfWritten, nbrOfLeft );
    setp( pbase(), epptr() );
    pbump( static_cast< int >( nbrOfLeft ) );
    return nbrOfLeft == 0 ? 0 : -1;
}

SimpleOStreamBuf::int_type SimpleOStreamBuf::overflow( int_type c )
{
    if ( sync() != 0 && pptr() == epptr() )
        return traits_type::eof();
    if ( traits_type::eq_int_type( c, traits_type::eof() ) )
        return traits_type::not_eof( c );
    *pptr() = traits_type::to_char_type( c );
    pbump( 1 );
    return c;
}

std::streamsize SimpleOStreamBuf::xsputn( const char* ptr, std::streamsize count )
{
    if ( count < epptr() - pptr() ) {
        std::copy_n( ptr, count, pptr() );
        pbump( static_cast< int >( count ) );
        return count;
    }
    if ( sync() != 0 )
        return 0;
    if ( count < epptr() - pptr() )
        return xsputn( ptr, count );
    return static_cast< std::streamsize >(
        writeAll( myFd, ptr, static_cast< std::size_t >( count ) ) );
}

SimpleIStreamBuf::SimpleIStreamBuf( int fd )
    : myFd( fd )
    , myBytes( nbrOfPutbackBytes + nbrOfBufferBytes )
{
    char* const startPtr = myBytes.data() + nbrOfPutbackBytes;
    setg( startPtr, startPtr, startPtr );
}

SimpleIStreamBuf::SimpleIStreamBuf( Utils::Handle&& handle )
    : SimpleIStreamBuf( handle.fd() )
{
    myHandle = std::move( handle );
}

SimpleIStreamBuf::~SimpleIStreamBuf() = default;

SimpleIStreamBuf::int_type SimpleIStreamBuf::underflow()
{
    if ( gptr() < egptr() )
        return traits_type::to_int_type( *gptr() );
    char* const startPtr = myBytes.data() + nbrOfPutbackBytes;
    const std::size_t nbrOfKept =
        std::min( nbrOfPutbackBytes, static_cast< std::size_t >( gptr() - eback() ) );
    std::memmove( startPtr - nbrOfKept, gptr() - nbrOfKept, nbrOfKept );
    errno = 0;
    const ssize_t n =
        Utils::retryOnEintr( [&] { return ::read( myFd, startPtr, nbrOfBufferBytes ); } );
    setg( startPtr - nbrOfKept, startPtr, startPtr + std::max< ssize_t >( n, 0 ) );
    return n > 0 ? traits_type::to_int_type( *startPtr ) : traits_type::eof();
}

} // namespace Nuv::Io
