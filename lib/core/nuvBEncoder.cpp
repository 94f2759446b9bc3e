#include "nuvBEncoder.h"

#include <algorithm>
#include <charconv>
#include <cxxabi.h>
#include <limits>
#include <utility>

namespace Nuv::Utils {
namespace {

using Traits = std::istream::traits_type;

// The characters of a stream, unformatted. Works on the stream buffer and sets the stream's state
// as the stream's own operations would, but only at a failure: the position is asked for before
// that.
class Input
{
public:
    explicit Input( std::istream& stream )
        : myStream( stream )
        , myBufPtr( stream.good() ? stream.rdbuf() : nullptr )
    {
    }

    int peek()
    {
        return guarded( [&] { return myBufPtr->sgetc(); } );
    }
    int get()
    {
        return guarded( [&] { return myBufPtr->sbumpc(); } );
    }
    int peekNext()
    {
        return guarded( [&] { return myBufPtr->snextc(); } );
    }

    bool take( char c )
    {
        if ( peek() != Traits::to_int_type( c ) )
            return false;
        get();
        return true;
    }

    std::streamsize read( char* ptr, std::streamsize count )
    {
        return guarded( [&] { return myBufPtr->sgetn( ptr, count ); } );
    }
    std::streamsize nbrAvailable()
    {
        return guarded( [&] { return myBufPtr->in_avail(); } );
    }

    [[noreturn]] void fail( const std::string& text )
    {
        const std::string message = BEncoder::errMsg( text, myStream.tellg() );
        if ( peek() == Traits::eof() )
            myStream.setstate( std::ios_base::eofbit | std::ios_base::failbit );
        throw BEncoder::DecodeException( message.c_str(), 0, 0 );
    }

private:
    // What the stream buffer throws is the end of input and sets badbit, as in the stream's own
    // operations: a file that cannot be read is one.
    template < class Operation >
    auto guarded( Operation operation ) -> decltype( operation() )
    {
        if ( myBufPtr == nullptr )
            return Traits::eof();
        try {
            return operation();
        } catch ( abi::__forced_unwind& ) {
            throw;
        } catch ( ... ) {
            myBufPtr = nullptr;
            myStream.setstate( std::ios_base::badbit );
            return Traits::eof();
        }
    }

    std::istream& myStream;
    std::streambuf* myBufPtr;
};

bool isSpace( int c )
{
    return c == ' ' || ( c >= '\t' && c <= '\r' );
}

bool isDigit( int c )
{
    return c >= '0' && c <= '9';
}

// @return whether there was a number and it fits into 32 bits
bool readNumber( Input& input, std::int32_t* valuePtr )
{
    int c = input.peek();
    while ( isSpace( c ) )
        c = input.peekNext();
    const bool isNegative = c == '-';
    if ( isNegative || c == '+' )
        c = input.peekNext();
    if ( !isDigit( c ) )
        return false;
    constexpr std::int64_t tooLarge = std::int64_t( 1 ) << 40;
    std::int64_t value = 0;
    for ( ; isDigit( c ); c = input.peekNext() )
        value = std::min( value * 10 + ( c - '0' ), tooLarge );
    value = isNegative ? -value : value;
    *valuePtr = static_cast< std::int32_t >( value );
    return *valuePtr == value;
}

void resize( Buffer* bytesPtr, std::size_t size )
{
    bytesPtr->resizeHelper( size, false, '\0' );
}

void resize( std::string* bytesPtr, std::size_t size )
{
    bytesPtr->resize( size );
}

// Grows with what is there, so that a false count costs no more than the input.
template < class Bytes >
bool readBytes( Input& input, std::size_t count, Bytes* bytesPtr )
{
    constexpr std::size_t leastPortion = 4096;
    for ( std::size_t size = 0; size < count; ) {
        const std::size_t available =
            static_cast< std::size_t >( std::max< std::streamsize >( input.nbrAvailable(), 0 ) );
        const std::size_t portion =
            std::min( count - size, std::max( { available, size, leastPortion } ) );
        resize( bytesPtr, size + portion );
        if ( input.read( bytesPtr->data() + size, static_cast< std::streamsize >( portion ) ) !=
             static_cast< std::streamsize >( portion ) )
            return false;
        size += portion;
    }
    return true;
}

template < class Bytes >
void readString( std::istream& stream, Bytes* bytesPtr )
{
    Input input( stream );
    std::int32_t count = 0;
    if ( !readNumber( input, &count ) || count < 0 || input.get() != ':' ||
         !readBytes( input, static_cast< std::size_t >( count ), bytesPtr ) )
        input.fail( "Bad string" );
}

std::string readKey( std::istream& stream )
{
    std::string key;
    readString( stream, &key );
    key.resize( std::min( key.find( '\0' ), key.size() ) );
    return key;
}

void checkLevel( std::istream& stream, unsigned int maxNbrOfLevels )
{
    if ( maxNbrOfLevels == 0 )
        Input( stream ).fail( "Nesting too deep" );
}

template < class Number >
void writeNumber( std::ostream* streamPtr, Number number, char end )
{
    char text[24];
    char* endPtr = std::to_chars( text, text + sizeof( text ), number ).ptr;
    *endPtr++ = end;
    streamPtr->write( text, endPtr - text );
}

void writeString( std::ostream* streamPtr, std::string_view bytes )
{
    writeNumber( streamPtr, bytes.size(), ':' );
    streamPtr->write( bytes.data(), static_cast< std::streamsize >( bytes.size() ) );
}

} // namespace

std::string BEncoder::errMsg( const std::string& text, std::streamoff position )
{
    return text + " at character " + std::to_string( position ) + "\n";
}

BEncoder::ItemPtr BEncoder::decodeItem( std::istream& stream, unsigned int maxNbrOfLevels )
{
    Input input( stream );
    const int c = input.peek();
    if ( isDigit( c ) )
        return ItemPtr( new StringItem( stream ) );
    input.get();
    switch ( c ) {
    case 'i':
        return ItemPtr( new IntegerItem( stream ) );
    case 'l':
        return ItemPtr( new List( stream, maxNbrOfLevels ) );
    case 'd':
        return ItemPtr( new Dictionary( stream, maxNbrOfLevels ) );
    case 'e':
        return ItemPtr();
    default:
        break;
    }
    std::string text = "Bad b-encoding item type starting with '";
    if ( c != Traits::eof() && c != 0 )
        text += Traits::to_char_type( c );
    input.fail( text + "'" );
}

BEncoder::Item::~Item() = default;

BEncoder::IntegerItem::IntegerItem( std::istream& stream )
    : Item( typeInteger )
{
    Input input( stream );
    if ( !readNumber( input, &myValue ) || input.get() != 'e' )
        input.fail( "Bad integer" );
}

void BEncoder::IntegerItem::encode( std::ostream* streamPtr ) const
{
    streamPtr->put( 'i' );
    writeNumber( streamPtr, myValue, 'e' );
}

BEncoder::StringItem::StringItem( std::istream& stream )
    : Item( typeString )
{
    readString( stream, &myBytes );
}

void BEncoder::StringItem::encode( std::ostream* streamPtr ) const
{
    writeString( streamPtr, myBytes );
}

BEncoder::List::List( std::istream& stream, unsigned int maxNbrOfLevels )
    : Item( typeList )
{
    checkLevel( stream, maxNbrOfLevels );
    while ( ItemPtr itemPtr = decodeItem( stream, maxNbrOfLevels - 1 ) )
        myItems.push_back( std::move( itemPtr ) );
}

void BEncoder::List::add( const ItemPtr& itemPtr )
{
    nuvAssert( itemPtr != NULL );
    myItems.push_back( itemPtr );
}

void BEncoder::List::encode( std::ostream* streamPtr ) const
{
    streamPtr->put( 'l' );
    for ( const ItemPtr& itemPtr : myItems )
        itemPtr->encode( streamPtr );
    streamPtr->put( 'e' );
}

BEncoder::Dictionary::Dictionary( std::istream& stream, unsigned int maxNbrOfLevels )
    : Item( typeDictionary )
{
    checkLevel( stream, maxNbrOfLevels );
    while ( !Input( stream ).take( 'e' ) ) {
        std::string key = readKey( stream );
        ItemPtr itemPtr = decodeItem( stream, maxNbrOfLevels - 1 );
        if ( itemPtr == nullptr )
            break;
        // Keys mostly come in order.
        myEntries.try_emplace( myEntries.end(), std::move( key ), std::move( itemPtr ) );
    }
}

void BEncoder::Dictionary::set( const std::string& key, const ItemPtr& itemPtr )
{
    nuvAssert( itemPtr != NULL );
    myEntries[key] = itemPtr;
}

BEncoder::ItemPtr BEncoder::Dictionary::find( std::string_view key ) const
{
    const auto i = myEntries.find( key );
    return i != myEntries.end() ? i->second : ItemPtr();
}

void BEncoder::Dictionary::encode( std::ostream* streamPtr ) const
{
    streamPtr->put( 'd' );
    for ( const auto& [key, itemPtr] : myEntries ) {
        writeString( streamPtr, key );
        itemPtr->encode( streamPtr );
    }
    streamPtr->put( 'e' );
}

} // namespace Nuv::Utils
