#include "nuvBuffer.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <locale>
#include <new>
#include <utility>

namespace Nuv::Utils {
namespace {

Buffer::size_type position( std::size_t found )
{
    return found == std::string_view::npos ? Buffer::npos
                                           : static_cast< Buffer::size_type >( found );
}

void copyBytes( char* targetPtr, const char* sourcePtr, std::size_t count )
{
    if ( count != 0 ) // the pointers may be null then
        std::memmove( targetPtr, sourcePtr, count );
}

// The characters before textPtr's NUL; a null text is the caller's fault.
std::string_view checkedText( const char* textPtr )
{
    nuvAssert( textPtr != NULL );
    return std::string_view( textPtr );
}

} // namespace

char Buffer::nullChar = '\0';

// Buffer: construction

void Buffer::init( std::size_t capacity )
{
    if ( capacity > maxSize )
        throw std::bad_array_new_length();
    if ( capacity == 0 ) {
        // Written only if damaged: threads with empty Buffers share this byte.
        const std::atomic_ref< char > shared( nullChar );
        if ( shared.load( std::memory_order_relaxed ) != '\0' )
            shared.store( '\0', std::memory_order_relaxed );
        myBeginPtr = &nullChar;
    } else {
        myBeginPtr = new char[capacity + 1];
        *myBeginPtr = '\0';
    }
    myEndPtr = myBeginPtr;
    myCapacity = static_cast< size_type >( capacity );
}

Buffer::Buffer()
    : myCapacity( 0 )
    , myBeginPtr( &nullChar )
    , myEndPtr( &nullChar )
{
    nuvAssert( *myEndPtr == '\0' );
}

Buffer::Buffer( std::size_t count, char c )
{
    init( count );
    std::fill_n( myBeginPtr, count, c );
    setEnd( count );
}

Buffer::Buffer( const char* ptr, std::size_t length )
{
    init( length );
    copyBytes( myBeginPtr, ptr, length );
    setEnd( length );
}

Buffer::Buffer( const char* textPtr )
    : Buffer( checkedText( textPtr ) )
{
}

Buffer::Buffer( const std::string& text )
    : Buffer( text.data(), text.size() )
{
}

Buffer::Buffer( std::string_view text )
    : Buffer( text.data(), text.size() )
{
}

Buffer::Buffer( const Buffer& other )
{
    init( other.myCapacity );
    copyBytes( myBeginPtr, other.myBeginPtr, other.size() );
    setEnd( other.size() );
}

Buffer::Buffer( const Buffer& other, std::size_t pos, std::size_t count )
{
    nuvAssert( pos <= other.size() );
    count = std::min< std::size_t >( count, other.size() - pos );
    init( count );
    copyBytes( myBeginPtr, other.myBeginPtr + pos, count );
    setEnd( count );
}

Buffer::Buffer( const_iterator first, const_iterator last )
    : Buffer( first.operator->(), static_cast< std::size_t >( last - first ) )
{
}

Buffer::Buffer( Buffer* otherPtr )
    : Buffer()
{
    nuvAssert( otherPtr != NULL );
    swap( *otherPtr );
}

Buffer::Buffer( Buffer&& other ) noexcept
    : myCapacity( 0 )
    , myBeginPtr( &nullChar )
    , myEndPtr( &nullChar )
{
    swap( other );
}

Buffer& Buffer::operator=( const Buffer& other )
{
    if ( this == &other )
        return *this;
    if ( myCapacity == other.myCapacity )
        return assign( other.myBeginPtr, other.size() );
    Buffer( other ).swap( *this );
    return *this;
}

Buffer& Buffer::operator=( Buffer&& other ) noexcept
{
    Buffer( std::move( other ) ).swap( *this );
    return *this;
}

void Buffer::swap( Buffer& other ) noexcept
{
    std::swap( myCapacity, other.myCapacity );
    std::swap( myBeginPtr, other.myBeginPtr );
    std::swap( myEndPtr, other.myEndPtr );
}

// Buffer: changes

void Buffer::resizeHelper( std::size_t newSize, bool fill, char fillChar )
{
    const std::size_t oldSize = size();
    if ( newSize > myCapacity ) {
        Buffer grown( newSize );
        copyBytes( grown.myBeginPtr, myBeginPtr, oldSize );
        swap( grown );
    }
    if ( fill && newSize > oldSize )
        std::memset( myBeginPtr + oldSize, fillChar, newSize - oldSize );
    setEnd( newSize );
}

void Buffer::reserve( std::size_t capacity )
{
    if ( capacity == myCapacity )
        return;
    Buffer fresh( capacity );
    const std::size_t count = std::min< std::size_t >( size(), capacity );
    copyBytes( fresh.myBeginPtr, myBeginPtr, count );
    fresh.setEnd( count );
    swap( fresh );
}

// Grows by count and moves the bytes from pos on up by it; returns where the gap begins.
char* Buffer::openGap( std::size_t pos, std::size_t count )
{
    const std::size_t oldSize = size();
    nuvAssert( pos <= oldSize );
    if ( count > maxSize - oldSize )
        throw std::bad_array_new_length();
    resizeHelper( oldSize + count, false, '\0' );
    char* const gapPtr = myBeginPtr + pos;
    copyBytes( gapPtr + count, gapPtr, oldSize - pos );
    return gapPtr;
}

Buffer& Buffer::append( const char* ptr, std::size_t length )
{
    return insert( size(), ptr, length );
}

Buffer& Buffer::append( std::size_t count, char c )
{
    return insert( size(), count, c );
}

Buffer& Buffer::insert( std::size_t pos, std::size_t count, char c )
{
    char* const gapPtr = openGap( pos, count );
    if ( count != 0 )
        std::memset( gapPtr, c, count );
    return *this;
}

Buffer& Buffer::insert( std::size_t pos, const char* ptr, std::size_t length )
{
    // The gap moves own bytes: they are found again by their offset, in front of it and behind it.
    const std::less_equal< const char* > notAfter;
    const bool isOwn = notAfter( myBeginPtr, ptr ) && notAfter( ptr, myEndPtr ) && myCapacity != 0;
    const std::size_t ownPos = isOwn ? static_cast< std::size_t >( ptr - myBeginPtr ) : 0;
    char* const gapPtr = openGap( pos, length );
    if ( !isOwn ) {
        copyBytes( gapPtr, ptr, length );
        return *this;
    }
    const std::size_t before = ownPos < pos ? std::min( length, pos - ownPos ) : 0;
    copyBytes( gapPtr, myBeginPtr + ownPos, before );
    copyBytes( gapPtr + before, myBeginPtr + ownPos + before + length, length - before );
    return *this;
}

Buffer::iterator Buffer::insert( iterator at, char c )
{
    const std::size_t pos = static_cast< std::size_t >( at - begin() );
    insert( pos, std::size_t{ 1 }, c );
    return begin() + static_cast< std::ptrdiff_t >( pos );
}

Buffer& Buffer::assign( const char* ptr, std::size_t length )
{
    if ( length > myCapacity ) {
        Buffer( ptr, length ).swap( *this );
        return *this;
    }
    copyBytes( myBeginPtr, ptr, length );
    setEnd( length );
    return *this;
}

Buffer& Buffer::assign( std::size_t count, char c )
{
    if ( count > myCapacity ) {
        Buffer( count, c ).swap( *this );
        return *this;
    }
    std::fill_n( myBeginPtr, count, c );
    setEnd( count );
    return *this;
}

Buffer& Buffer::erase( std::size_t pos, std::size_t count )
{
    nuvAssert( pos <= size() );
    count = std::min< std::size_t >( count, size() - pos );
    copyBytes( myBeginPtr + pos, myBeginPtr + pos + count, size() - pos - count );
    setEnd( size() - count );
    return *this;
}

Buffer::iterator Buffer::erase( iterator first, iterator last )
{
    erase( static_cast< std::size_t >( first - begin() ),
           static_cast< std::size_t >( last - first ) );
    return first;
}

// Buffer: searches

Buffer::size_type Buffer::find( char c, std::size_t pos ) const
{
    return position( view().find( c, pos ) );
}

Buffer::size_type Buffer::find( const char* ptr, std::size_t pos, std::size_t length ) const
{
    return pos >= size() ? npos : position( view().find( ptr, pos, length ) );
}

Buffer::size_type Buffer::rfind( char c, std::size_t pos ) const
{
    return position( view().rfind( c, pos ) );
}

Buffer::size_type Buffer::rfind( const char* ptr, std::size_t pos, std::size_t length ) const
{
    return position( view().rfind( ptr, pos, length ) );
}

Buffer::size_type Buffer::find_first_of( const char* setPtr, std::size_t pos,
                                         std::size_t length ) const
{
    return position( view().find_first_of( setPtr, pos, length ) );
}

Buffer::size_type Buffer::find_first_not_of( const char* setPtr, std::size_t pos,
                                             std::size_t length ) const
{
    return position( view().find_first_not_of( setPtr, pos, length ) );
}

Buffer::size_type Buffer::find_first_not_of( char c, std::size_t pos ) const
{
    return position( view().find_first_not_of( c, pos ) );
}

Buffer::size_type Buffer::find_last_of( const char* setPtr, std::size_t pos,
                                        std::size_t length ) const
{
    return position( view().find_last_of( setPtr, pos, length ) );
}

Buffer::size_type Buffer::find_last_not_of( const char* setPtr, std::size_t pos,
                                            std::size_t length ) const
{
    return position( view().find_last_not_of( setPtr, pos, length ) );
}

Buffer::size_type Buffer::find_last_not_of( char c, std::size_t pos ) const
{
    return position( view().find_last_not_of( c, pos ) );
}

// BufferOStreamBuf

namespace {

const std::streambuf::pos_type invalidPosition( std::streambuf::off_type( -1 ) );

// The offset as one from the beginning, -1 if that is negative or no offset at all.
std::streambuf::off_type seekTarget( std::streambuf::off_type offset,
                                     std::ios_base::seekdir direction, std::ptrdiff_t current,
                                     std::ptrdiff_t end )
{
    std::ptrdiff_t base = 0;
    if ( direction == std::ios_base::cur )
        base = current;
    else if ( direction == std::ios_base::end )
        base = end;
    else if ( direction != std::ios_base::beg )
        nuvAssert( false );
    std::streambuf::off_type target = 0;
    const bool wraps = __builtin_add_overflow( std::streambuf::off_type( base ), offset, &target );
    return wraps || target < 0 ? -1 : target;
}

} // namespace

Buffer BufferOStreamBuf::takeBuffer()
{
    Buffer content( bufferPtr() );
    myWrittenEnd = 0;
    setPutArea( 0 );
    return content;
}

void BufferOStreamBuf::advance( std::size_t count )
{
    // pbump() takes an int, a Buffer may be longer.
    constexpr std::size_t maxStep = std::numeric_limits< int >::max();
    for ( ; count > maxStep; count -= maxStep )
        pbump( static_cast< int >( maxStep ) );
    pbump( static_cast< int >( count ) );
}

void BufferOStreamBuf::setPutArea( std::size_t offset )
{
    setp( myBuffer.myBeginPtr, myBuffer.myBeginPtr + myBuffer.myCapacity );
    advance( offset );
}

// Doubles the capacity until count more bytes fit, then allocates once.
void BufferOStreamBuf::overflowHelper( std::size_t count )
{
    const std::size_t offset = putOffset();
    if ( count > Buffer::maxSize - offset )
        throw std::bad_array_new_length();
    std::uint64_t capacity = myBuffer.capacity();
    do {
        capacity = capacity == 0 ? 128 : 2 * capacity;
    } while ( capacity < offset + count );
    bufferPtr();
    myBuffer.reserve(
        static_cast< std::size_t >( std::min< std::uint64_t >( capacity, Buffer::maxSize ) ) );
    myWrittenEnd = offset;
    setPutArea( offset );
}

BufferOStreamBuf::int_type BufferOStreamBuf::overflow( int_type c )
{
    if ( traits_type::eq_int_type( c, traits_type::eof() ) ) {
        overflowHelper( 1 );
        return 0;
    }
    write( traits_type::to_char_type( c ) );
    return c;
}

std::streamsize BufferOStreamBuf::xsputn( const char* ptr, std::streamsize count )
{
    if ( count > 0 )
        write( ptr, static_cast< std::size_t >( count ) );
    return count;
}

BufferOStreamBuf::pos_type BufferOStreamBuf::seekoff( off_type offset,
                                                      std::ios_base::seekdir direction,
                                                      std::ios_base::openmode mode )
{
    const off_type target = seekTarget( offset, direction, pptr() - pbase(), epptr() - pbase() );
    return seekpos( pos_type( target ), mode );
}

BufferOStreamBuf::pos_type BufferOStreamBuf::seekpos( pos_type position, std::ios_base::openmode )
{
    const off_type target = position;
    if ( target < 0 || target > off_type( Buffer::maxSize ) )
        return invalidPosition;
    const std::size_t offset = static_cast< std::size_t >( target );
    myWrittenEnd = std::max( myWrittenEnd, putOffset() );
    if ( offset > myBuffer.capacity() ) {
        myBuffer.setEnd( myWrittenEnd );
        myBuffer.reserve( offset );
    }
    if ( offset > myWrittenEnd ) {
        std::memset( myBuffer.myBeginPtr + myWrittenEnd, 0, offset - myWrittenEnd );
        myWrittenEnd = offset;
    }
    setPutArea( offset );
    return position;
}

void BufferOStreamBuf::imbue( const std::locale& locale )
{
    myIsClassic = locale == std::locale::classic();
}

// BufferIStreamBuf

BufferIStreamBuf::BufferIStreamBuf()
{
    setGetArea( 0 );
}

BufferIStreamBuf::BufferIStreamBuf( const char* textPtr )
    : myBuffer( textPtr )
{
    setGetArea( 0 );
}

BufferIStreamBuf::BufferIStreamBuf( const std::string& text )
    : myBuffer( text )
{
    setGetArea( 0 );
}

BufferIStreamBuf::BufferIStreamBuf( std::string_view text )
    : myBuffer( text )
{
    setGetArea( 0 );
}

BufferIStreamBuf::BufferIStreamBuf( const Buffer& buffer )
    : myBuffer( buffer )
{
    setGetArea( 0 );
}

BufferIStreamBuf::BufferIStreamBuf( Buffer* bufferPtr )
    : myBuffer( bufferPtr )
{
    setGetArea( 0 );
}

void BufferIStreamBuf::takeOver( Buffer* bufferPtr )
{
    Buffer( bufferPtr ).swap( myBuffer );
    setGetArea( 0 );
}

Buffer BufferIStreamBuf::takeBuffer()
{
    Buffer taken( &myBuffer );
    setGetArea( 0 );
    return taken;
}

void BufferIStreamBuf::setGetArea( std::size_t offset )
{
    char* const beginPtr = myBuffer.data();
    setg( beginPtr, beginPtr + offset, beginPtr + myBuffer.size() );
}

std::streamsize BufferIStreamBuf::xsgetn( char* ptr, std::streamsize count )
{
    count =
        std::max< std::streamsize >( 0, std::min< std::streamsize >( count, egptr() - gptr() ) );
    copyBytes( ptr, gptr(), static_cast< std::size_t >( count ) );
    setGetArea( static_cast< std::size_t >( gptr() - eback() + count ) );
    return count;
}

BufferIStreamBuf::int_type BufferIStreamBuf::underflow()
{
    nuvAssert( gptr() >= egptr() );
    return traits_type::eof();
}

BufferIStreamBuf::pos_type BufferIStreamBuf::seekoff( off_type offset,
                                                      std::ios_base::seekdir direction,
                                                      std::ios_base::openmode mode )
{
    const off_type target = seekTarget( offset, direction, gptr() - eback(), egptr() - eback() );
    return seekpos( pos_type( target ), mode );
}

BufferIStreamBuf::pos_type BufferIStreamBuf::seekpos( pos_type position, std::ios_base::openmode )
{
    const off_type target = position;
    if ( target < 0 || target > off_type( myBuffer.size() ) )
        return invalidPosition;
    setGetArea( static_cast< std::size_t >( target ) );
    return position;
}

// The streams: the stream buffer is a member, so it is installed once it has been constructed.

OBufferStream::OBufferStream()
    : std::ostream( nullptr )
{
    rdbuf( &myStreamBuf );
}

OBufferStream::~OBufferStream() = default;

void OBufferStream::setBadState()
{
    try {
        setstate( std::ios_base::badbit );
    } catch ( const std::ios_base::failure& ) {
        // The caller asked for exceptions: it gets the one that is being handled, as from the
        // standard.
    }
    if ( exceptions() & std::ios_base::badbit )
        throw;
}

IBufferStream::IBufferStream()
    : std::istream( nullptr )
{
    rdbuf( &myStreamBuf );
}

IBufferStream::IBufferStream( const char* textPtr )
    : std::istream( nullptr )
    , myStreamBuf( textPtr )
{
    rdbuf( &myStreamBuf );
}

IBufferStream::IBufferStream( const std::string& text )
    : std::istream( nullptr )
    , myStreamBuf( text )
{
    rdbuf( &myStreamBuf );
}

IBufferStream::IBufferStream( std::string_view text )
    : std::istream( nullptr )
    , myStreamBuf( text )
{
    rdbuf( &myStreamBuf );
}

IBufferStream::IBufferStream( const Buffer& buffer )
    : std::istream( nullptr )
    , myStreamBuf( buffer )
{
    rdbuf( &myStreamBuf );
}

IBufferStream::IBufferStream( Buffer* bufferPtr )
    : std::istream( nullptr )
    , myStreamBuf( bufferPtr )
{
    rdbuf( &myStreamBuf );
}

IBufferStream::~IBufferStream() = default;

void IBufferStream::takeOver( Buffer* bufferPtr )
{
    myStreamBuf.takeOver( bufferPtr );
    clear();
}

} // namespace Nuv::Utils
