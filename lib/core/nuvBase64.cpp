#include "nuvBase64.h"

#include "nuvUtils.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Nuv::Utils {
namespace {

static_assert( std::endian::native == std::endian::little,
               "pairs of characters are stored as such" );

constexpr std::size_t nbrOfGroupsPerLine = 15;
constexpr std::size_t nbrOfCharsPerLine = 4 * nbrOfGroupsPerLine + 1; // with the line feed

constexpr std::uint8_t noValue = 0xFF;
constexpr char padChar = '='; // pending alone: a text has ended and lacks its second one

constexpr auto makeReverseAlphabet()
{
    std::array< std::uint8_t, 256 > values{};
    values.fill( noValue );
    for ( std::uint8_t i = 0; i < 64; ++i )
        values[static_cast< unsigned char >( Base64::ourBase64Alphabet[i] )] = i;
    return values;
}

constexpr auto reverseAlphabet = makeReverseAlphabet();

// The two characters of each 12-bit value.
constexpr auto pairsOfChars = [] {
    std::array< std::uint16_t, 4096 > pairs{};
    for ( std::size_t i = 0; i < pairs.size(); ++i )
        pairs[i] = static_cast< std::uint16_t >( Base64::ourBase64Alphabet[i >> 6] |
                                                 Base64::ourBase64Alphabet[i & 63] << 8 );
    return pairs;
}();

// Table n: the 24-bit value of a character at place n of a quartet, or noQuartet.
constexpr std::uint32_t noQuartet = 0x80000000;
constexpr auto valuesAtPlace = [] {
    std::array< std::array< std::uint32_t, 256 >, 4 > tables{};
    for ( unsigned int place = 0; place < 4; ++place )
        for ( std::size_t c = 0; c < 256; ++c )
            tables[place][c] = reverseAlphabet[c] == noValue
                                   ? noQuartet
                                   : std::uint32_t( reverseAlphabet[c] ) << ( 18 - 6 * place );
    return tables;
}();

const unsigned char* bytesOf( const Buffer& buffer )
{
    return reinterpret_cast< const unsigned char* >( buffer.data() );
}

// What forwardUpdate() has still to write, and where.
struct Encoder
{
    void writeGroup( const unsigned char* bytePtr )
    {
        const std::uint32_t bits =
            static_cast< std::uint32_t >( bytePtr[0] << 16 | bytePtr[1] << 8 | bytePtr[2] );
        std::memcpy( myOutPtr, &pairsOfChars[bits >> 12], 2 );
        std::memcpy( myOutPtr + 2, &pairsOfChars[bits & 0xFFF], 2 );
        myOutPtr += 4;
    }

    void endLineIfFull()
    {
        if ( myNbrInLine >= nbrOfGroupsPerLine ) {
            *myOutPtr++ = '\n';
            myNbrInLine = 0;
        }
    }

    void writeGroups( const unsigned char* bytePtr, std::size_t nbrOfGroups )
    {
        while ( nbrOfGroups != 0 ) {
            // At least one: text before ours may have filled the line.
            const std::size_t room = std::max< std::size_t >( nbrOfGroupsPerLine - myNbrInLine, 1 );
            const std::size_t count = std::min( nbrOfGroups, room );
            const unsigned char* const endPtr = bytePtr + 3 * count;
            for ( ; bytePtr != endPtr; bytePtr += 3 )
                writeGroup( bytePtr );
            nbrOfGroups -= count;
            myNbrInLine += count;
            endLineIfFull();
        }
    }

    char* myOutPtr;
    std::size_t myNbrInLine;
};

bool isSpace( unsigned char c )
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

const unsigned char* skipSpace( const unsigned char* charPtr, const unsigned char* endPtr )
{
    while ( charPtr != endPtr && isSpace( *charPtr ) )
        ++charPtr;
    return charPtr;
}

// Takes characters and writes the bytes of their quartets.
struct Decoder
{
    // Whether the text goes on with the next portion, ended with '=', or is none.
    enum Result
    {
        resultMore,
        resultEnd,
        resultInvalid
    };

    Result take( const unsigned char* charPtr, const unsigned char* endPtr )
    {
        for ( ;; ) {
            if ( myNbrPending == 0 )
                charPtr = takeQuartets( charPtr, endPtr );
            if ( charPtr == endPtr || *charPtr == '\0' )
                return resultMore;
            const unsigned char c = *charPtr++;
            if ( isSpace( c ) )
                continue;
            if ( reverseAlphabet[c] == noValue )
                return c == padChar && endText( charPtr, endPtr ) ? resultEnd : resultInvalid;
            myBits = myBits << 6 | reverseAlphabet[c];
            myPending[myNbrPending++] = static_cast< char >( c );
            if ( myNbrPending == 4 ) {
                writeBytes( myBits, 3 );
                myNbrPending = 0;
                myBits = 0;
            }
        }
    }

    // The road of whole quartets, up to the first character of another kind.
    const unsigned char* takeQuartets( const unsigned char* charPtr, const unsigned char* endPtr )
    {
        for ( ; endPtr - charPtr >= 4; charPtr += 4 ) {
            const std::uint32_t bits = valuesAtPlace[0][charPtr[0]] | valuesAtPlace[1][charPtr[1]] |
                                       valuesAtPlace[2][charPtr[2]] | valuesAtPlace[3][charPtr[3]];
            if ( ( bits & noQuartet ) != 0 )
                break;
            writeBytes( bits, 3 );
        }
        return charPtr;
    }

    // The first bytes of 24 bits. Stores four: the reserve, and the place of the terminating NUL
    // after it, have room for them.
    void writeBytes( std::uint32_t bits, std::size_t nbrOfBytes )
    {
        const std::uint32_t inOrder = __builtin_bswap32( bits << 8 );
        std::memcpy( myOutPtr, &inOrder, sizeof( inOrder ) );
        myOutPtr += nbrOfBytes;
    }

    // At a '=', with what follows it. Of two that a text needs, the next portion may bring one.
    bool endText( const unsigned char* charPtr, const unsigned char* endPtr )
    {
        if ( myNbrPending < 2 )
            return false;
        writeBytes( myBits << ( 6 * ( 4 - myNbrPending ) ), myNbrPending - 1 );
        charPtr = skipSpace( charPtr, endPtr );
        const bool lacksPad = myNbrPending == 2 && ( charPtr == endPtr || *charPtr == '\0' );
        myPending[0] = padChar;
        myNbrPending = lacksPad ? 1 : 0;
        return true;
    }

    char* myOutPtr;
    char myPending[4] = {};
    std::size_t myNbrPending = 0;
    std::uint32_t myBits = 0;
};

std::size_t toSize( std::uint64_t number )
{
    return static_cast< std::size_t >( std::min< std::uint64_t >( number, SIZE_MAX ) );
}

constexpr StaticMap< int, const char* >::Pair reasonPairs[] = {
    { Base64::reasonNoCapacity, "Output buffer has insufficient capacity" },
    { Base64::reasonInvalidText, "Invalid Base64 encoded text" },
};
constexpr StaticMap< int, const char* > ourReasonMap( reasonPairs );
static_assert( ourReasonMap.isSorted() );

} // namespace

constinit const std::array< std::uint8_t, 256 > Base64::ourReverseBase64Alphabet = reverseAlphabet;

void Base64::Exception::getReasonStr() const
{
    const auto i = ourReasonMap.find( myReason );
    myText = i != ourReasonMap.end() ? i->value : "<Unknown Reason>";
}

Base64::Base64( unsigned int flags )
    : TransformAlgorithm( flags )
    , myPending( 3 )
{
}

Base64::~Base64() = default;

void Base64::forwardUpdate( const Buffer& input, Buffer* outputPtr )
{
    nuvAssert( outputPtr != NULL && outputPtr != &input );
    const std::size_t nbrPending = myPending.size();
    const std::size_t nbrOfGroups = ( nbrPending + input.size() ) / 3;
    if ( nbrOfGroups == 0 ) {
        myPending.append( input );
        return;
    }
    // Not the virtual form: the room for what follows is no matter of opinion.
    handleOutputBufferCapacity( Base64::suggestedForwardOutputReserve( input.size() ), outputPtr );
    Encoder encoder{ outputPtr->data() + outputPtr->size(),
                     outputPtr->size() % nbrOfCharsPerLine / 4 };
    const unsigned char* bytePtr = bytesOf( input );
    if ( nbrPending != 0 ) {
        const std::size_t nbrOfMissing = 3 - nbrPending;
        myPending.append( input.data(), nbrOfMissing );
        encoder.writeGroups( bytesOf( myPending ), 1 );
        bytePtr += nbrOfMissing;
    }
    const std::size_t nbrOfFurther = nbrOfGroups - ( nbrPending != 0 ? 1 : 0 );
    encoder.writeGroups( bytePtr, nbrOfFurther );
    bytePtr += 3 * nbrOfFurther;
    outputPtr->resizeHelper( static_cast< std::size_t >( encoder.myOutPtr - outputPtr->data() ),
                             false, '\0' );
    myPending.assign( reinterpret_cast< const char* >( bytePtr ),
                      static_cast< std::size_t >( bytesOf( input ) + input.size() - bytePtr ) );
}

void Base64::forwardFinal( Buffer* outputPtr )
{
    nuvAssert( outputPtr != NULL );
    const std::size_t nbrPending = myPending.size();
    if ( nbrPending == 0 )
        return;
    handleOutputBufferCapacity( 4, outputPtr );
    unsigned char bytes[3] = {};
    std::memcpy( bytes, myPending.data(), nbrPending );
    char text[4];
    Encoder{ text, 0 }.writeGroup( bytes );
    std::fill( text + nbrPending + 1, text + 4, padChar );
    outputPtr->append( text, sizeof( text ) );
    myPending.clear();
}

void Base64::reverseUpdate( const Buffer& input, Buffer* outputPtr )
{
    nuvAssert( outputPtr != NULL && outputPtr != &input );
    handleOutputBufferCapacity( Base64::suggestedReverseOutputReserve( input.size() ), outputPtr );
    const std::size_t oldSize = outputPtr->size();
    Decoder decoder{ outputPtr->data() + oldSize };
    const unsigned char* charPtr = bytesOf( input );
    const unsigned char* const endPtr = charPtr + input.size();
    if ( myPending[0] != padChar ) {
        decoder.take( bytesOf( myPending ), bytesOf( myPending ) + myPending.size() );
    } else {
        charPtr = skipSpace( charPtr, endPtr );
        if ( charPtr == endPtr || *charPtr == '\0' )
            return;
        if ( *charPtr == padChar ) {
            myPending.clear();
            return;
        }
    }
    const auto result = decoder.take( charPtr, endPtr );
    if ( result == Decoder::resultInvalid ) {
        outputPtr->resizeHelper( oldSize, false, '\0' ); // the terminating NUL was written over
        throw Exception( "", reasonInvalidText, 0 );
    }
    outputPtr->resizeHelper( static_cast< std::size_t >( decoder.myOutPtr - outputPtr->data() ),
                             false, '\0' );
    myPending.assign( decoder.myPending, decoder.myNbrPending );
}

void Base64::reverseFinal( Buffer* )
{
    const bool isComplete = myPending.empty() || myPending[0] == padChar;
    myPending.clear();
    if ( !isComplete )
        throw Exception( "", reasonInvalidText, 0 );
}

std::size_t Base64::suggestedForwardOutputReserve( std::size_t inputSize ) const
{
    const std::uint64_t n = inputSize;
    return toSize( ( n + 2 ) / 45 + ( n + 2 ) / 3 * 4 + 5 );
}

std::size_t Base64::suggestedReverseOutputReserve( std::size_t inputSize ) const
{
    const std::uint64_t n = inputSize;
    return toSize( ( 3 * n + 9 ) / 4 + 1 );
}

void Base64::handleOutputBufferCapacity( std::size_t needed, Buffer* outputPtr ) const
{
    if ( outputPtr->capacity() - outputPtr->size() >= needed )
        return;
    if ( ( myFlags & growOutput ) == 0 )
        throw Exception( "", reasonNoCapacity, 0 );
    // More than a Buffer holds is refused by the Buffer itself.
    const std::size_t size = outputPtr->size();
    outputPtr->reserve( needed > Buffer::maxSize - size ? Buffer::npos : size + needed );
}

} // namespace Nuv::Utils
