#include "nuvMpi.h"

#include "nuvTestSupport.h"

#include <stdexcept>

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
    Mpi number( 7 );
    number.setAsciiDecimal( text.c_str() );
    return number;
}

std::string text( const Mpi& number )
{
    Buffer buffer( "replaced" );
    number.getAsciiDecimal( &buffer );
    return buffer.str();
}

TEST( MpiBytes, AreKeptAsGivenAndResizedAtTheMostSignificantEnd )
{
    Mpi number( 0xFEDCBA98 );
    EXPECT_EQ( "\xFE\xDC\xBA\x98", number.bytes().str() );
    const unsigned char bytes[] = { 0, 0x80, 0xFF };
    number.assign( bytes, bytes + 3 );
    EXPECT_EQ( "\0\x80\xFF"s, number.bytes().str() );
    EXPECT_EQ( 16u, number.sizeInBits() );
    number.normalize();
    EXPECT_EQ( "\x80\xFF", number.bytes().str() );
    number.resize( 4 );
    EXPECT_EQ( "\0\0\x80\xFF"s, number.bytes().str() );
    number.resize( 1 );
    EXPECT_EQ( "\xFF", number.bytes().str() );
    number.resize( 0 );
    number.resize( 2 );
    EXPECT_TRUE( number.isZero() && number.sizeInBits() == 0 && number.bytes().size() == 2 );
    number.normalize();
    EXPECT_TRUE( number.bytes().empty() );
}

TEST( MpiOrder, IsByValue )
{
    const std::string ascending[] = { "",      "\1",   "\x7F",   "\x80",   "\xFF",
                                      "\1\0"s, "\1\1", "\xFF\1", "\1\0\0"s };
    for ( const std::string& a : ascending ) {
        for ( const std::string& b : ascending ) {
            for ( const std::string& padding : { ""s, "\0\0\0"s } ) {
                const Mpi padded = fromBytes( padding + a );
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
    number = fromBytes( "\xFF\xFF\x01" );
    EXPECT_EQ( 1u, number.smallAdd( 255 ) );
    EXPECT_EQ( "\0\0\0"s, number.bytes().str() );
    EXPECT_THROW( number.smallAdd( 256 ), LogicException );
    number = fromBytes( "\xFF\xFF" );
    EXPECT_EQ( 254, number.smallMult( 255 ) ); // 65535 * 255 = 0xFEFF01
    EXPECT_EQ( "\xFF\1", number.bytes().str() );
    number = fromBytes( "\1\0\0"s );
    EXPECT_EQ( 1, number.smallDiv( 255 ) ); // 65536 = 257 * 255 + 1
    EXPECT_EQ( "smallDiv", NuvTest::textOf< std::domain_error >( [&] { number.smallDiv( 0 ); } ) );
    EXPECT_EQ( "\0\1\1"s, number.bytes().str() );
    EXPECT_EQ( 200u, Mpi().smallAdd( 200 ) );
}

TEST( MpiDecimal, KnownTexts )
{
    const std::pair< const char*, const char* > rows[] = {
        { "256", "256" }, { "12/3", "12" }, { "0000000000000000000000000012:", "12" },
        { "", "0" },      { "x", "0" },     { "-5", "0" },
        { " 5", "0" },    { "0", "0" },     { "0000000000000000000000000000", "0" } };
    for ( const auto& [textPtr, backPtr] : rows ) {
        const Mpi number = fromDecimal( textPtr );
        EXPECT_EQ( backPtr, text( number ) ) << textPtr;
        EXPECT_TRUE( number.bytes().empty() || number.bytes()[0] != '\0' ) << textPtr;
    }
    Mpi number( 7 );
    number.setAsciiDecimal( nullptr );
    EXPECT_TRUE( number.bytes().empty() );
    EXPECT_EQ( "0", text( fromBytes( "\0\0\0\0\0\0\0\0\0"s ) ) );
    EXPECT_THROW( number.getAsciiDecimal( nullptr ), LogicException );
    // Values whose quotients by 10^19 are estimated too low at first.
    EXPECT_EQ(
        "184467440737092412200161693188587782110",
        text( fromBytes( "\x8A\xC7\x23\x04\x89\xE5\x6E\xB5\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xDE" ) ) );
    EXPECT_EQ(
        "184467440736903782860366648775176359393",
        text( fromBytes( "\x8A\xC7\x23\x04\x89\x49\x66\xE4\xFF\xFF\x09\xBC\x99\x68\x0D\xE1" ) ) );
}

} // namespace
} // namespace Nuv::Utils
