#pragma once

#include "nuv.h"

#include <charconv>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <istream>
#include <iterator>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <type_traits>

namespace Nuv::Utils {

/// Growable run of bytes, NULs included, that is always followed by one terminating NUL.
///
/// Storage is owned alone and grows to exactly what is asked for: whoever appends often reserves
/// first or writes through an OBufferStream, whose storage doubles. An empty Buffer of capacity 0
/// has no storage; its begin and end are the shared byte nullChar.
///
/// A position is a byte offset from the begin; npos as a count means "up to the end". Bytes given
/// to append, insert and assign may be the Buffer's own. Any growth invalidates pointers and Iters.
///
/// Threads: one at a time.
/// Errors:  std::bad_alloc (also for more than maxSize bytes), the content then being unchanged;
///          a position beyond the size fails nuvAssert, except in searches.
/// Owns:    its storage; copies are deep.
/// Example: Buffer text( "abc" ); text.append( "def" ); ::puts( text.cStr() );
class NUV_API Buffer
{
public:
    using size_type = std::uint32_t;
    using value_type = char;

    static constexpr size_type npos = 0xFFFFFFFF;
    static constexpr size_type maxSize = npos - 1;

    /// What begin and end of every Buffer without storage point at; always NUL, never to be
    /// written.
    static char nullChar;

    /// Random-access iterator over the bytes: iterator changes them, const_iterator reads them.
    template < class Char >
    class Iter
    {
    public:
        using iterator_concept = std::contiguous_iterator_tag;
        using iterator_category = std::random_access_iterator_tag;
        using value_type = char;
        using difference_type = std::ptrdiff_t;
        using pointer = Char*;
        using reference = Char&;

        constexpr Iter() = default;
        constexpr explicit Iter( Char* ptr )
            : myPtr( ptr )
        {
        }
        constexpr operator Iter< const Char >() const { return Iter< const Char >( myPtr ); }

        constexpr Char& operator*() const { return *myPtr; }
        constexpr Char* operator->() const { return myPtr; }
        constexpr Char& operator[]( difference_type n ) const { return myPtr[n]; }
        constexpr Iter& operator++() { return ++myPtr, *this; }
        constexpr Iter& operator--() { return --myPtr, *this; }
        constexpr Iter operator++( int ) { return Iter( myPtr++ ); }
        constexpr Iter operator--( int ) { return Iter( myPtr-- ); }
        constexpr Iter& operator+=( difference_type n ) { return myPtr += n, *this; }
        constexpr Iter& operator-=( difference_type n ) { return myPtr -= n, *this; }
        friend constexpr Iter operator+( Iter i, difference_type n ) { return i += n; }
        friend constexpr Iter operator+( difference_type n, Iter i ) { return i += n; }
        friend constexpr Iter operator-( Iter i, difference_type n ) { return i -= n; }
        friend constexpr difference_type operator-( Iter a, Iter b ) { return a.myPtr - b.myPtr; }
        friend constexpr bool operator==( Iter a, Iter b ) = default;
        friend constexpr auto operator<=>( Iter a, Iter b ) { return a.myPtr <=> b.myPtr; }

    private:
        Char* myPtr = nullptr;
    };
    using iterator = Iter< char >;
    using const_iterator = Iter< const char >;
    using reverse_iterator = std::reverse_iterator< iterator >;
    using const_reverse_iterator = std::reverse_iterator< const_iterator >;

    Buffer();
    /// Empty, with storage for capacity bytes. (A template, so that Buffer( 0 ) is no null text.)
    template < std::integral Count >
    requires( !std::same_as< Count, char > &&
              !std::same_as< Count, bool > ) explicit Buffer( Count capacity )
    {
        init( static_cast< std::size_t >( capacity ) );
    }
    Buffer( std::size_t count, char c );
    Buffer( const char* textPtr );
    Buffer( const char* ptr, std::size_t length );
    Buffer( const std::string& text );
    explicit Buffer( std::string_view text );
    /// A deep copy, of the same capacity.
    Buffer( const Buffer& other );
    Buffer( const Buffer& other, std::size_t pos, std::size_t count = npos );
    Buffer( const_iterator first, const_iterator last );
    /// Takes over the storage of the other one, which is left empty with capacity 0.
    explicit Buffer( Buffer* otherPtr );
    Buffer( Buffer&& other ) noexcept;
    ~Buffer()
    {
        if ( myCapacity != 0 )
            delete[] myBeginPtr;
    }

    Buffer& operator=( const Buffer& other );
    Buffer& operator=( Buffer&& other ) noexcept;
    Buffer& operator=( std::string_view text ) { return assign( text.data(), text.size() ); }
    Buffer& operator=( const char* textPtr )
    {
        nuvAssert( textPtr != NULL );
        return *this = std::string_view( textPtr );
    }
    Buffer& operator=( const std::string& text ) { return *this = std::string_view( text ); }

    void swap( Buffer& other ) noexcept;

    /// The one place where a Buffer grows. A new size within the capacity moves the end only; a
    /// greater one allocates exactly newSize bytes. Bytes gained are fillChar if fill is set, else
    /// they hold anything and the caller overwrites them.
    void resizeHelper( std::size_t newSize, bool fill, char fillChar );
    void resize( std::size_t newSize, char fillChar = '\0' )
    {
        resizeHelper( newSize, true, fillChar );
    }
    void clear() { setEnd( 0 ); }

    /// Makes the capacity exactly this, which cuts longer content.
    void reserve( std::size_t capacity );

    Buffer& append( const char* ptr, std::size_t length );
    Buffer& append( std::string_view text ) { return append( text.data(), text.size() ); }
    Buffer& append( std::size_t count, char c );
    void push_back( char c ) { append( &c, 1 ); }
    Buffer& operator+=( std::string_view text ) { return append( text ); }
    Buffer& operator+=( char c ) { return append( &c, 1 ); }

    Buffer& insert( std::size_t pos, std::size_t count, char c );
    Buffer& insert( std::size_t pos, const char* ptr, std::size_t length );
    /// @return the position of the inserted char, valid also if the storage moved
    iterator insert( iterator at, char c );

    Buffer& assign( const char* ptr, std::size_t length );
    Buffer& assign( std::size_t count, char c );

    /// @param count cut to the bytes after pos
    Buffer& erase( std::size_t pos = 0, std::size_t count = npos );
    iterator erase( iterator first, iterator last );

    char* data() { return myBeginPtr; }
    const char* data() const { return myBeginPtr; }
    /// The content with its terminating NUL; it may hold other NULs before.
    const char* cStr() const { return myBeginPtr; }
    size_type size() const { return static_cast< size_type >( myEndPtr - myBeginPtr ); }
    size_type length() const { return size(); }
    size_type capacity() const { return myCapacity; }
    bool empty() const { return myEndPtr == myBeginPtr; }
    /// pos is not checked; that of the terminating NUL is valid for reading.
    char& operator[]( std::size_t pos ) { return myBeginPtr[pos]; }
    const char& operator[]( std::size_t pos ) const { return myBeginPtr[pos]; }

    iterator begin() { return iterator( myBeginPtr ); }
    iterator end() { return iterator( myEndPtr ); }
    const_iterator begin() const { return const_iterator( myBeginPtr ); }
    const_iterator end() const { return const_iterator( myEndPtr ); }
    reverse_iterator rbegin() { return reverse_iterator( end() ); }
    reverse_iterator rend() { return reverse_iterator( begin() ); }
    const_reverse_iterator rbegin() const { return const_reverse_iterator( end() ); }
    const_reverse_iterator rend() const { return const_reverse_iterator( begin() ); }

    /// All bytes, borrowed until the next change.
    std::string_view view() const { return std::string_view( myBeginPtr, size() ); }
    operator std::string_view() const { return view(); }
    std::string str() const { return std::string( view() ); }

    // Searches: the offset of the match or npos, as the standard string's operations of these
    // names, but an empty pattern is not found at the very end.
    size_type find( char c, std::size_t pos = 0 ) const;
    size_type find( const char* ptr, std::size_t pos, std::size_t length ) const;
    size_type find( std::string_view text, std::size_t pos = 0 ) const
    {
        return find( text.data(), pos, text.size() );
    }
    size_type rfind( char c, std::size_t pos = npos ) const;
    size_type rfind( const char* ptr, std::size_t pos, std::size_t length ) const;
    size_type rfind( std::string_view text, std::size_t pos = npos ) const
    {
        return rfind( text.data(), pos, text.size() );
    }
    size_type find_first_of( const char* setPtr, std::size_t pos, std::size_t length ) const;
    size_type find_first_of( std::string_view set, std::size_t pos = 0 ) const
    {
        return find_first_of( set.data(), pos, set.size() );
    }
    size_type find_first_not_of( const char* setPtr, std::size_t pos, std::size_t length ) const;
    size_type find_first_not_of( char c, std::size_t pos = 0 ) const;
    size_type find_first_not_of( std::string_view set, std::size_t pos = 0 ) const
    {
        return find_first_not_of( set.data(), pos, set.size() );
    }
    size_type find_last_of( const char* setPtr, std::size_t pos, std::size_t length ) const;
    size_type find_last_of( std::string_view set, std::size_t pos = npos ) const
    {
        return find_last_of( set.data(), pos, set.size() );
    }
    size_type find_last_not_of( const char* setPtr, std::size_t pos, std::size_t length ) const;
    size_type find_last_not_of( char c, std::size_t pos = npos ) const;
    size_type find_last_not_of( std::string_view set, std::size_t pos = npos ) const
    {
        return find_last_not_of( set.data(), pos, set.size() );
    }

    friend bool operator==( const Buffer& a, const Buffer& b ) { return a.view() == b.view(); }
    /// Bytes compare as unsigned values; of two that agree over the shorter length, that is less.
    friend std::strong_ordering operator<=>( const Buffer& a, const Buffer& b )
    {
        return a.view() <=> b.view();
    }
    /// With any text, without a copy of it.
    template < class Text >
    requires( std::convertible_to< const Text&, std::string_view > &&
              !std::derived_from< Text, Buffer > ) friend bool
    operator==( const Buffer& a, const Text& b )
    {
        return a.view() == std::string_view( b );
    }
    friend std::ostream& operator<<( std::ostream& stream, const Buffer& buffer )
    {
        return stream << buffer.view();
    }

private:
    friend class BufferOStreamBuf;

    void init( std::size_t capacity );
    char* openGap( std::size_t pos, std::size_t count );
    void setEnd( std::size_t size )
    {
        myEndPtr = myBeginPtr + size;
        // The shared byte is NUL already; a store to it would be a race between threads.
        if ( myCapacity != 0 )
            *myEndPtr = '\0';
    }

    size_type myCapacity;
    char* myBeginPtr;
    char* myEndPtr;
};

/// Stream buffer that writes into a Buffer of its own, whose storage doubles from 128 bytes on.
///
/// The Buffer's size is brought up to date by bufferPtr() and by growth only. A seek sets the end
/// that bufferPtr() sees; "from the end" counts from the end of the capacity. Bytes that a seek
/// skips and nothing has written read as NUL.
///
/// Threads: one at a time.
/// Errors:  std::bad_alloc when the storage cannot grow (a stream turns it into its bad state).
class NUV_API BufferOStreamBuf : public std::streambuf
{
public:
    BufferOStreamBuf() = default;
    BufferOStreamBuf( const BufferOStreamBuf& ) = delete;
    BufferOStreamBuf& operator=( const BufferOStreamBuf& ) = delete;

    /// Cuts the Buffer at the put pointer and terminates it.
    /// @return the Buffer, valid until the next write
    Buffer* bufferPtr()
    {
        myBuffer.setEnd( putOffset() );
        return &myBuffer;
    }
    const Buffer* bufferPtr() const
    {
        myBuffer.setEnd( putOffset() );
        return &myBuffer;
    }

    /// Hands the content over, leaving this one empty without storage.
    Buffer takeBuffer();

    /// Begins anew at offset 0 and keeps the storage.
    void reset()
    {
        setp( pbase(), epptr() );
        myWrittenEnd = 0;
    }

    /// Makes room for count more bytes, as one growth by doubling.
    void ensureRoom( std::size_t count )
    {
        if ( room() < count )
            overflowHelper( count );
    }

    // Writes that bypass the stream's virtual calls; same effect as sputn() and sputc().
    void write( const char* ptr, std::size_t count )
    {
        ensureRoom( count );
        if ( count != 0 )
            std::memcpy( pptr(), ptr, count );
        advance( count );
    }
    void write( char c )
    {
        ensureRoom( 1 );
        *pptr() = c;
        pbump( 1 );
    }
    template < std::integral Number >
    void writeNumber( Number number )
    {
        ensureRoom( maxNbrOfDigits );
        advance(
            static_cast< std::size_t >( std::to_chars( pptr(), epptr(), number ).ptr - pptr() ) );
    }

    /// Whether numbers are written as in the classic locale, so that writeNumber() may be used.
    bool hasClassicLocale() const { return myIsClassic; }

protected:
    int_type overflow( int_type c = traits_type::eof() ) override;
    std::streamsize xsputn( const char* ptr, std::streamsize count ) override;
    pos_type seekoff( off_type offset, std::ios_base::seekdir direction,
                      std::ios_base::openmode mode ) override;
    pos_type seekpos( pos_type position, std::ios_base::openmode mode ) override;
    void imbue( const std::locale& locale ) override;

private:
    static constexpr std::size_t maxNbrOfDigits = 24;

    std::size_t putOffset() const { return static_cast< std::size_t >( pptr() - pbase() ); }
    std::size_t room() const { return static_cast< std::size_t >( epptr() - pptr() ); }
    void advance( std::size_t count );
    void setPutArea( std::size_t offset );
    void overflowHelper( std::size_t count );

    mutable Buffer myBuffer;
    std::size_t myWrittenEnd = 0; // greatest put offset that a seek or growth has left
    bool myIsClassic = getloc() == std::locale::classic();
};

/// Stream buffer that reads a Buffer of its own.
///
/// Threads: one at a time.
class NUV_API BufferIStreamBuf : public std::streambuf
{
public:
    BufferIStreamBuf();
    explicit BufferIStreamBuf( const char* textPtr );
    explicit BufferIStreamBuf( const std::string& text );
    explicit BufferIStreamBuf( std::string_view text );
    explicit BufferIStreamBuf( const Buffer& buffer );
    /// Takes over the storage without a copy; the Buffer is left empty.
    explicit BufferIStreamBuf( Buffer* bufferPtr );
    BufferIStreamBuf( const BufferIStreamBuf& ) = delete;
    BufferIStreamBuf& operator=( const BufferIStreamBuf& ) = delete;

    /// Takes over another content, as the constructor does, and reads from its begin.
    void takeOver( Buffer* bufferPtr );
    /// Hands the content over and goes on empty.
    Buffer takeBuffer();

    /// The whole content, wherever the read position is.
    const Buffer* bufferPtr() const { return &myBuffer; }

protected:
    std::streamsize xsgetn( char* ptr, std::streamsize count ) override;
    int_type underflow() override;
    pos_type seekoff( off_type offset, std::ios_base::seekdir direction,
                      std::ios_base::openmode mode ) override;
    /// @return -1, nothing having moved, unless 0 <= position <= size
    pos_type seekpos( pos_type position, std::ios_base::openmode mode ) override;

    /// After a change of the content: reads on at this offset of it.
    void setGetArea( std::size_t offset );

    Buffer myBuffer;
};

/// Standard output stream into a Buffer.
///
/// Texts, characters and whole numbers written while no width, sign, base or locale of another kind
/// is set go straight into the Buffer; everything else takes the standard stream's way.
///
/// Threads: one at a time.
/// Errors:  as any standard stream: a failed growth sets the bad state.
/// Cost:    storage of 128 bytes with the first write, doubling; growth is not filled.
/// Example: OBufferStream stream; stream << "port " << 80; drain.write( *stream.bufferPtr() );
class NUV_API OBufferStream : public std::ostream
{
public:
    OBufferStream();
    OBufferStream( const OBufferStream& ) = delete;
    OBufferStream& operator=( const OBufferStream& ) = delete;
    ~OBufferStream() override;

    /// @return the content up to the put position, valid until the next write
    Buffer* bufferPtr() { return myStreamBuf.bufferPtr(); }
    const Buffer* bufferPtr() const { return myStreamBuf.bufferPtr(); }
    std::string_view view() const { return bufferPtr()->view(); }
    /// Hands the content over and goes on empty.
    Buffer takeBuffer() { return myStreamBuf.takeBuffer(); }
    /// Begins anew with the storage kept; state and format of the stream stay.
    void reset() { myStreamBuf.reset(); }

    /// As std::ostream::write(), without its way through the stream buffer's virtual functions.
    OBufferStream& writeBytes( const char* ptr, std::size_t count )
    {
        if ( good() ) {
            try {
                myStreamBuf.write( ptr, count );
            } catch ( ... ) {
                setBadState();
            }
        }
        return *this;
    }

private:
    // Exact types only: a type that merely converts to one of them keeps its own operator.
    template < class T >
    static constexpr bool isPlainNumber =
        std::same_as< T, short > || std::same_as< T, unsigned short > || std::same_as< T, int > ||
        std::same_as< T, unsigned int > || std::same_as< T, long > ||
        std::same_as< T, unsigned long > || std::same_as< T, long long > ||
        std::same_as< T, unsigned long long >;
    template < class T >
    static constexpr bool isPlainText =
        std::same_as< T, std::string_view > || std::derived_from< T, std::string > ||
        std::same_as< T, Buffer > || std::same_as< std::decay_t< T >, char* > ||
        std::same_as< std::decay_t< T >, const char* >;

    bool isPlain() const { return good() && width() == 0; }
    bool isPlainDecimal() const
    {
        constexpr auto special = std::ios_base::basefield | std::ios_base::showpos;
        return isPlain() && ( flags() & special ) == std::ios_base::dec &&
               myStreamBuf.hasClassicLocale();
    }
    std::ostream& base() { return *this; }
    void setBadState();

    template < class Number >
    requires isPlainNumber< Number >
    void writePlain( Number number )
    {
        try {
            myStreamBuf.writeNumber( number );
        } catch ( ... ) {
            setBadState();
        }
    }

    template < class Text >
    requires isPlainText< Text >
    friend OBufferStream& operator<<( OBufferStream& stream, const Text& text )
    {
        if constexpr ( std::is_pointer_v< Text > ) {
            if ( text == nullptr ) { // no text: the standard's way is the bad state
                stream.setstate( std::ios_base::badbit );
                return stream;
            }
        }
        const std::string_view view( text );
        if ( stream.isPlain() )
            return stream.writeBytes( view.data(), view.size() );
        stream.base() << view;
        return stream;
    }
    template < class Char >
    requires std::same_as< Char, char >
    friend OBufferStream& operator<<( OBufferStream& stream, Char c )
    {
        if ( stream.isPlain() )
            return stream.writeBytes( &c, 1 );
        stream.base() << c;
        return stream;
    }
    template < class Number >
    requires isPlainNumber< Number >
    friend OBufferStream& operator<<( OBufferStream& stream, Number number )
    {
        if ( stream.isPlainDecimal() )
            stream.writePlain( number );
        else
            stream.base() << number;
        return stream;
    }

    BufferOStreamBuf myStreamBuf;
};

/// Standard input stream from a Buffer, a text or the storage of a Buffer taken over.
///
/// Threads: one at a time.
/// Example: IBufferStream stream( "80 443" ); int port; stream >> port;
class NUV_API IBufferStream : public std::istream
{
public:
    IBufferStream();
    explicit IBufferStream( const char* textPtr );
    explicit IBufferStream( const std::string& text );
    explicit IBufferStream( std::string_view text );
    explicit IBufferStream( const Buffer& buffer );
    explicit IBufferStream( Buffer* bufferPtr );
    IBufferStream( const IBufferStream& ) = delete;
    IBufferStream& operator=( const IBufferStream& ) = delete;
    ~IBufferStream() override;

    /// Takes over another content, as the constructor does; state and position begin anew.
    void takeOver( Buffer* bufferPtr );
    /// Hands the content over and goes on empty.
    Buffer takeBuffer() { return myStreamBuf.takeBuffer(); }

    const Buffer* bufferPtr() const { return myStreamBuf.bufferPtr(); }

private:
    BufferIStreamBuf myStreamBuf;
};

} // namespace Nuv::Utils
