#include "nuvMpi.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>

namespace Nuv::Utils {
namespace {

using namespace std::string_literals;

Mpi fromBytes( const std::string& bytes )
{
    const Buffer buffer( bytes );
    Mpi number;
    number.assign( buffer.begin(), buffer.end() );
    return number;
}

Mpi fromDecimal( const std::string& text )
{
    Mpi number;
    number.setAsciiDecimal( text.c_str() );
    return number;
}

std::string text( const Mpi& number )
{
    Buffer buffer( "replaced" );
    number.getAsciiDecimal( &buffer );
    return buffer.str();
}

const std::string oneAndTwoZeros = "\1\0\0"s;

TEST( MpiBytes, AreKeptAsGiven )
{
    EXPECT_EQ( "\0\0\1\2"s, Mpi( 258 ).bytes().str() );
    EXPECT_EQ( "\xFE\xDC\xBA\x98", Mpi( 0xFEDCBA98 ).bytes().str() );
    const unsigned char bytes[] = { 0, 0x80, 0xFF };
    Mpi number;
    EXPECT_TRUE( number.isZero() && number.bytes().empty() );
    number.assign( bytes, bytes + 3 );
    EXPECT_EQ( "\0\x80\xFF"s, number.bytes().str() );
    EXPECT_EQ( 16u, number.sizeInBits() );
    number.normalize();
    EXPECT_EQ( "\x80\xFF", number.bytes().str() );
    number.assign( bytes, bytes );
    EXPECT_TRUE( number.bytes().empty() );
}

TEST( MpiBytes, ResizeWorksAtTheMostSignificantEnd )
{
    Mpi number = fromBytes( "\1\2" );
    number.resize( 4 );
    EXPECT_EQ( "\0\0\1\2"s, number.bytes().str() );
    number.resize( 1 );
    EXPECT_EQ( "\2", number.bytes().str() );
    number.resize( 0 );
    EXPECT_TRUE( number.isZero() );
    number.resize( 2 );
    EXPECT_TRUE( number.isZero() && number.sizeInBits() == 0 && number.bytes().size() == 2 );
    number.normalize();
    EXPECT_TRUE( number.bytes().empty() );
}

TEST( MpiOrder, IsByValue )
{
    const std::string ascending[] = {
        "",       std::string( 1, '\1' ), "\x7F", "\x80", "\xFF", "\1\0"s, "\1\1",
        "\xFF\1", oneAndTwoZeros };
    for ( const std::string& a : ascending ) {
        for ( const std::string& b : ascending ) {
            for ( const std::size_t nbrOfZeros : { 0, 3 } ) {
                const Mpi padded = fromBytes( std::string( nbrOfZeros, '\0' ) + a );
                EXPECT_EQ( &a < &b, padded < fromBytes( b ) );
                EXPECT_EQ( &a == &b, padded == fromBytes( b ) );
                EXPECT_EQ( &a > &b, padded > fromBytes( b ) );
            }
        }
    }
}

TEST( MpiSmall, OperationsReturnWhatDoesNotFit )
{
    Mpi number = fromBytes( "\xFE\xFF\xFF" );
    EXPECT_EQ( 0u, number.smallAdd( 1 ) );
    EXPECT_EQ( "\xFF\0\0"s, number.bytes().str() );
    EXPECT_EQ( 0u, number.smallAdd( 0 ) );
    number = fromBytes( "\xFF\xFF\x01" );
    EXPECT_EQ( 1u, number.smallAdd( 255 ) );
    EXPECT_EQ( std::string( 3, '\0' ), number.bytes().str() );
    EXPECT_EQ( 200u, Mpi().smallAdd( 200 ) );
    EXPECT_THROW( number.smallAdd( 256 ), LogicException );

    number = fromBytes( "\xFF\xFF" );
    EXPECT_EQ( 254, number.smallMult( 255 ) ); // 65535 * 255 = 0xFEFF01
    EXPECT_EQ( "\xFF\1", number.bytes().str() );
    EXPECT_EQ( 0, Mpi().smallMult( 7 ) );

    number = fromBytes( oneAndTwoZeros );
    EXPECT_EQ( 1, number.smallDiv( 255 ) ); // 65536 = 257 * 255 + 1
    EXPECT_EQ( "\0\1\1"s, number.bytes().str() );
    EXPECT_EQ( 0, Mpi().smallDiv( 9 ) );
    try {
        number.smallDiv( 0 );
        FAIL();
    } catch ( const std::domain_error& error ) {
        EXPECT_STREQ( "smallDiv", error.what() );
    }
    EXPECT_EQ( "\0\1\1"s, number.bytes().str() );
}

TEST( MpiDecimal, KnownTexts )
{
    EXPECT_EQ( "\1\0"s, fromDecimal( "256" ).bytes().str() );
    EXPECT_EQ( 9u, fromDecimal( "256" ).sizeInBits() );
    EXPECT_EQ( "256", text( fromDecimal( "256" ) ) );
    EXPECT_EQ( "12", text( fromDecimal( "12/3" ) ) );
    EXPECT_EQ( "12", text( fromDecimal( "0000000000000000000000000012:" ) ) );
    EXPECT_EQ( "4294967295", text( Mpi( 0xFFFFFFFF ) ) );
    for ( const char* textPtr :
          { "", "x", "-5", " 5", "0", "00000000000000000000000000000000000000000000" } ) {
        SCOPED_TRACE( textPtr );
        EXPECT_TRUE( fromDecimal( textPtr ).bytes().empty() );
        EXPECT_EQ( "0", text( fromDecimal( textPtr ) ) );
    }
    Mpi number( 7 );
    number.setAsciiDecimal( nullptr );
    EXPECT_TRUE( number.bytes().empty() );
    EXPECT_EQ( "0", text( fromBytes( std::string( 9, '\0' ) ) ) );
    EXPECT_THROW( number.getAsciiDecimal( nullptr ), LogicException );
}

// Both directions against a digit at a time by the operations on bytes.
TEST( MpiDecimal, AgreesWithTheSmallOperations )
{
    std::mt19937 engine( 7 );
    for ( std::size_t nbrOfDigits = 1; nbrOfDigits < 140; ++nbrOfDigits ) {
        for ( const char fill : { '9', '0', '5', 'r' } ) {
            std::string digits = "1";
            while ( digits.size() < nbrOfDigits )
                digits += fill == 'r' ? static_cast< char >( '0' + engine() % 10 ) : fill;
            SCOPED_TRACE( digits );
            Mpi expected;
            expected.resize( nbrOfDigits );
            for ( const char digit : digits ) {
                EXPECT_EQ( 0, expected.smallMult( 10 ) );
                EXPECT_EQ( 0u, expected.smallAdd( static_cast< unsigned int >( digit - '0' ) ) );
            }
            const Mpi number = fromDecimal( digits );
            EXPECT_TRUE( expected == number );
            EXPECT_EQ( '\0', number.bytes()[number.bytes().size()] );
            EXPECT_NE( '\0', number.bytes()[0] );
            std::string back;
            while ( !expected.isZero() )
                back += static_cast< char >( '0' + expected.smallDiv( 10 ) );
            std::reverse( back.begin(), back.end() );
            EXPECT_EQ( digits, back );
            EXPECT_EQ( digits, text( number ) );
        }
    }
}

// Values whose quotients by 10^19 are estimated too low at first.
TEST( MpiDecimal, QuotientEstimatesArePutRight )
{
    EXPECT_EQ(
        "184467440737092412200161693188587782110",
        text( fromBytes( "\x8A\xC7\x23\x04\x89\xE5\x6E\xB5\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xDE" ) ) );
    EXPECT_EQ(
        "184467440736903782860366648775176359393",
        text( fromBytes( "\x8A\xC7\x23\x04\x89\x49\x66\xE4\xFF\xFF\x09\xBC\x99\x68\x0D\xE1" ) ) );
}

TEST( MpiDecimal, PowersOfTwoAndTheirNeighbours )
{
    Mpi power( 1 );
    power.resize( 40 );
    for ( unsigned int bits = 1; bits < 300; ++bits ) {
        EXPECT_EQ( bits, power.sizeInBits() );
        EXPECT_TRUE( fromDecimal( text( power ) ) == power );
        const Mpi allOnes = fromBytes( std::string( bits, '\xFF' ) );
        EXPECT_TRUE( fromDecimal( text( allOnes ) ) == allOnes );
        EXPECT_EQ( 0, power.smallMult( 2 ) );
    }
}

} // namespace
} // namespace Nuv::Utils
