#include "nuvMpi.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <limits>
#include <stdexcept>
#include <vector>

namespace Nuv::Utils {
namespace {

// Decimal text is handled in words of as many digits as one holds, least significant word first.
#if defined( __SIZEOF_INT128__ )
using Word = std::uint64_t;
__extension__ using DoubleWord = unsigned __int128;
constexpr unsigned int nbrOfWordDigits = 19;
constexpr Word wordBase = 10000000000000000000u;
#else
using Word = std::uint32_t;
using DoubleWord = std::uint64_t;
constexpr unsigned int nbrOfWordDigits = 9;
constexpr Word wordBase = 1000000000u;
#endif
using Words = std::vector< Word >;

constexpr unsigned int nbrOfWordBits = std::numeric_limits< Word >::digits;

std::string_view significant( const Buffer& bytes )
{
    const std::string_view all = bytes;
    return all.substr( std::min( all.find_first_not_of( '\0' ), all.size() ) );
}

unsigned char byteOf( char c )
{
    return static_cast< unsigned char >( c );
}

Words wordsOf( std::string_view bytes )
{
    Words words( ( bytes.size() + sizeof( Word ) - 1 ) / sizeof( Word ) );
    for ( std::size_t i = 0; i < bytes.size(); ++i )
        words[i / sizeof( Word )] |= Word( byteOf( bytes[bytes.size() - 1 - i] ) )
                                     << ( i % sizeof( Word ) * 8 );
    return words;
}

Buffer bytesOf( const Words& words )
{
    Buffer bytes( words.size() * sizeof( Word ), '\0' );
    for ( std::size_t i = 0; i < bytes.size(); ++i )
        bytes[bytes.size() - 1 - i] =
            static_cast< char >( words[i / sizeof( Word )] >> ( i % sizeof( Word ) * 8 ) );
    return bytes;
}

void multiplyAndAdd( Words* wordsPtr, Word factor, Word summand )
{
    Word carry = summand;
    for ( Word& word : *wordsPtr ) {
        const DoubleWord product = DoubleWord( word ) * factor + carry;
        word = static_cast< Word >( product );
        carry = static_cast< Word >( product >> nbrOfWordBits );
    }
    if ( carry != 0 )
        wordsPtr->push_back( carry );
}

// One step of a division by wordBase: (*restPtr, word) has its quotient returned, *restPtr its
// remainder; *restPtr is below wordBase.
#if defined( __SIZEOF_INT128__ )
Word quotientWord( Word* restPtr, Word word )
{
    // Multiplies by the reciprocal instead of dividing: the divisor is a constant whose top bit is
    // set, and the estimate is off by one at most on either side.
    static_assert( wordBase >> ( nbrOfWordBits - 1 ) == 1 );
    constexpr Word reciprocal = static_cast< Word >( ~DoubleWord( 0 ) / wordBase );
    const DoubleWord estimate =
        DoubleWord( reciprocal ) * *restPtr + ( DoubleWord( *restPtr ) << nbrOfWordBits | word );
    Word quotient = static_cast< Word >( estimate >> nbrOfWordBits ) + 1;
    Word rest = word - quotient * wordBase;
    if ( rest > static_cast< Word >( estimate ) ) {
        --quotient;
        rest += wordBase;
    }
    if ( rest >= wordBase ) {
        ++quotient;
        rest -= wordBase;
    }
    *restPtr = rest;
    return quotient;
}
#else
Word quotientWord( Word* restPtr, Word word )
{
    const DoubleWord dividend = DoubleWord( *restPtr ) << nbrOfWordBits | word;
    *restPtr = static_cast< Word >( dividend % wordBase );
    return static_cast< Word >( dividend / wordBase );
}
#endif

// Divides in place by wordBase, drops words that have become zero at the top.
// @return the remainder
Word divide( Words* wordsPtr )
{
    Word rest = 0;
    for ( auto i = wordsPtr->rbegin(); i != wordsPtr->rend(); ++i )
        *i = quotientWord( &rest, *i );
    while ( !wordsPtr->empty() && wordsPtr->back() == 0 )
        wordsPtr->pop_back();
    return rest;
}

bool isDigit( char c )
{
    return c >= '0' && c <= '9';
}

} // namespace

Mpi::Mpi( unsigned int value )
{
    static_assert( sizeof( value ) == 4 );
    const std::uint32_t bigEndian = __builtin_bswap32( value );
    myBytes.assign( reinterpret_cast< const char* >( &bigEndian ), sizeof( bigEndian ) );
}

void Mpi::assign( Buffer::const_iterator first, Buffer::const_iterator last )
{
    Buffer( first, last ).swap( myBytes );
}

void Mpi::assign( const unsigned char* firstPtr, const unsigned char* lastPtr )
{
    Buffer( reinterpret_cast< const char* >( firstPtr ),
            static_cast< std::size_t >( lastPtr - firstPtr ) )
        .swap( myBytes );
}

void Mpi::setAsciiDecimal( const char* textPtr )
{
    const char* endPtr = textPtr;
    while ( endPtr != nullptr && isDigit( *endPtr ) )
        ++endPtr;
    const std::size_t nbrOfDigits = static_cast< std::size_t >( endPtr - textPtr );
    Words words;
    words.reserve( nbrOfDigits / nbrOfWordDigits + 1 );
    // The first word takes what makes the others full.
    std::size_t nbrOfNext = nbrOfDigits % nbrOfWordDigits;
    for ( ; textPtr != endPtr; nbrOfNext = nbrOfWordDigits ) {
        Word word = 0;
        for ( const char* const nextPtr = textPtr + nbrOfNext; textPtr != nextPtr; ++textPtr )
            word = word * 10 + static_cast< Word >( *textPtr - '0' );
        multiplyAndAdd( &words, wordBase, word );
    }
    Buffer bytes = bytesOf( words );
    bytes.swap( myBytes );
    normalize();
}

unsigned int Mpi::smallAdd( unsigned int value )
{
    nuvAssert( value < 256 );
    unsigned int carry = value;
    for ( std::size_t i = myBytes.size(); i-- > 0 && carry != 0; ) {
        carry += byteOf( myBytes[i] );
        myBytes[i] = static_cast< char >( carry );
        carry >>= 8;
    }
    return carry;
}

unsigned char Mpi::smallMult( unsigned char factor )
{
    unsigned int carry = 0;
    for ( std::size_t i = myBytes.size(); i-- > 0; ) {
        carry += static_cast< unsigned int >( byteOf( myBytes[i] ) ) * factor;
        myBytes[i] = static_cast< char >( carry );
        carry >>= 8;
    }
    return static_cast< unsigned char >( carry );
}

unsigned char Mpi::smallDiv( unsigned char divisor )
{
    if ( divisor == 0 )
        throw std::domain_error( "smallDiv" );
    unsigned int rest = 0;
    for ( char& byte : myBytes ) {
        rest = rest << 8 | byteOf( byte );
        byte = static_cast< char >( rest / divisor );
        rest %= divisor;
    }
    return static_cast< unsigned char >( rest );
}

void Mpi::resize( std::size_t nbrOfBytes )
{
    const std::size_t nbrOfOld = myBytes.size();
    if ( nbrOfBytes > nbrOfOld )
        myBytes.insert( 0, nbrOfBytes - nbrOfOld, '\0' );
    else
        myBytes.erase( 0, nbrOfOld - nbrOfBytes );
}

void Mpi::normalize()
{
    myBytes.erase( 0, myBytes.size() - significant( myBytes ).size() );
}

bool Mpi::isZero() const
{
    return significant( myBytes ).empty();
}

std::uint64_t Mpi::sizeInBits() const
{
    const std::string_view bytes = significant( myBytes );
    if ( bytes.empty() )
        return 0;
    return std::uint64_t( bytes.size() - 1 ) * 8 +
           static_cast< unsigned int >( std::bit_width( byteOf( bytes[0] ) ) );
}

void Mpi::getAsciiDecimal( Buffer* bufferPtr ) const
{
    nuvAssert( bufferPtr != NULL );
    Words words = wordsOf( significant( myBytes ) );
    // A byte is 2.41 digits at most.
    Buffer text( words.size() * sizeof( Word ) / 2 * 5 + nbrOfWordDigits, '0' );
    char* beginPtr = text.data() + text.size();
    char* wordBeginPtr = beginPtr; // of the word before, padded with zeros if this is not the last
    do {
        beginPtr = wordBeginPtr;
        char digits[nbrOfWordDigits];
        char* const endPtr =
            std::to_chars( digits, digits + sizeof( digits ), divide( &words ) ).ptr;
        beginPtr = std::copy_backward( &digits[0], endPtr, beginPtr );
        wordBeginPtr -= nbrOfWordDigits;
    } while ( !words.empty() );
    bufferPtr->assign( beginPtr,
                       static_cast< std::size_t >( text.data() + text.size() - beginPtr ) );
}

bool operator==( const Mpi& a, const Mpi& b )
{
    return significant( a.myBytes ) == significant( b.myBytes );
}

std::strong_ordering operator<=>( const Mpi& a, const Mpi& b )
{
    const std::string_view left = significant( a.myBytes );
    const std::string_view right = significant( b.myBytes );
    if ( left.size() != right.size() )
        return left.size() <=> right.size();
    return left.compare( right ) <=> 0; // bytes compare as unsigned
}

} // namespace Nuv::Utils
