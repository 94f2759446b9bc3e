#include "nuvBEncoder.h"

#include "nuvTestSupport.h"

#include <fstream>
#include <sstream>
#include <tuple>

namespace Nuv::Utils {
namespace {

using namespace std::string_literals;

// The item's encoding, "null", or the text of the exception.
std::string decoded( std::istream& stream,
                     unsigned int maxNbrOfLevels = BEncoder::defaultMaxNbrOfLevels )
{
    OBufferStream output;
    const std::string failure = NuvTest::textOf< BEncoder::DecodeException >( [&] {
        const BEncoder::ItemPtr itemPtr = BEncoder::decode( stream, maxNbrOfLevels );
        itemPtr == nullptr ? void( output << "null" ) : itemPtr->encode( &output );
    } );
    return failure + std::string( output.view() );
}

template < class... Levels >
std::string decoded( const std::string& text, Levels... levels )
{
    IBufferStream stream( text );
    return decoded( stream, levels... );
}

TEST( BEncoderItems, DecodeAndEncodeBack )
{
    for ( const std::string& text :
          { "i0e"s, "i-2147483648e"s, "i2147483647e"s, "0:"s, "3:a:e"s, "le"s, "de"s, "li1ei-2ee"s,
            "d3:cow3:moo4:spam4:eggse"s, "ld1:ale1:bdeeli1eee"s } )
        EXPECT_EQ( text, decoded( text ) );
    const std::pair< std::string, const char* > rows[] = {
        { "i \n+007e", "i7e" },
        { "03:abc", "3:abc" },
        { "d4:spam4:eggs3:cow3:mooe", "d3:cow3:moo4:spam4:eggse" },
        { "ld1:aei1ee", "ldei1ee" },
        { "d 1:ai1ee", "d1:ai1ee" },
        { "d1:ai1e1:bee", "d1:ai1ee" }, // 'e' for a value ends it
        { "d3:a\0xi1ee"s, "d1:ai1ee" }, // a key ends at its NUL
        { "d1:\xFFi1e1:ai2e1:ai3ee", "d1:ai2e1:\xFFi1ee" },
        { "i1ei2e", "i1e" }, // one item is read
        { "e", "null" } };
    for ( const auto& [text, backPtr] : rows )
        EXPECT_EQ( backPtr, decoded( text ) ) << text;
}

TEST( BEncoderItems, AreReachedThroughTheirParentsAndBuiltByHand )
{
    using ItemPtr = BEncoder::ItemPtr;
    IBufferStream stream( "d1:ll2:\0\1i-5eeeX"s );
    const ItemPtr itemPtr = BEncoder::decode( stream );
    EXPECT_EQ( 'X', stream.get() ); // nothing behind the item is taken
    auto& top = dynamic_cast< BEncoder::Dictionary& >( *itemPtr );
    EXPECT_EQ( nullptr, top.find( "x" ).get() );
    const ItemPtr listPtr = top.find( "l" );
    auto& list = dynamic_cast< BEncoder::List& >( *listPtr );
    EXPECT_EQ( "\0\1"s,
               dynamic_cast< BEncoder::StringItem& >( *list.items().front() ).bytes().str() );
    EXPECT_EQ( -5, dynamic_cast< BEncoder::IntegerItem& >( *list.items().back() ).value() );

    list.add( ItemPtr( new BEncoder::StringItem( Buffer( "spam" ) ) ) );
    top.set( "a", ItemPtr( new BEncoder::IntegerItem( 1 ) ) );
    top.set( "a", ItemPtr( new BEncoder::IntegerItem( 42 ) ) );
    std::ostringstream output;
    output << std::hex << std::showpos; // the stream's format is no matter of the encoding's
    top.encode( &output );
    EXPECT_EQ( "d1:ai42e1:ll2:\0\1i-5e4:spamee"s, output.str() );
    EXPECT_THROW( list.add( ItemPtr() ), LogicException );
    EXPECT_THROW( top.set( "n", ItemPtr() ), LogicException );
}

TEST( BEncoderRefusals, NameTheFaultAndThePlace )
{
    const std::string badType = "Bad b-encoding item type starting with '";
    const std::tuple< std::string, std::string, int > rows[] = {
        { "x", badType + "x'", 1 },
        { "", badType + "'", 0 },
        { "\0"s, badType + "'", 1 },
        { "-1:a", badType + "-'", 1 },
        { "li1e", badType + "'", 4 },
        { "d1:a", badType + "'", 4 },
        { "i12x", "Bad integer", 4 },
        { "i12", "Bad integer", 3 },
        { "i-e", "Bad integer", 2 },
        { "i2147483648e", "Bad integer", 11 },
        { "i-2147483649e", "Bad integer", 12 },
        { "i99999999999999999999999999e", "Bad integer", 27 },
        { "4:spa", "Bad string", 5 },
        { "4 :spam", "Bad string", 2 },
        { "2147483647:spam", "Bad string", 15 },
        { "4294967298:spam", "Bad string", 10 },
        { "d", "Bad string", 1 },
        { "d-1:ai1ee", "Bad string", 3 },
        { "di1ei1ee", "Bad string", 1 },
        { std::string( 1000000, 'l' ), "Nesting too deep", 257 } };
    for ( const auto& [text, message, position] : rows )
        EXPECT_EQ( message + " at character " + std::to_string( position ) + "\n",
                   decoded( text ) );
    EXPECT_EQ( "ll0:el0:el0:ee", decoded( "ll0:el0:el0:ee", 2u ) ); // side by side is no depth
    EXPECT_EQ( "Nesting too deep at character 9\n", decoded( "d1:ad1:ad1:adeeee", 2u ) );
    EXPECT_EQ( "i1e", decoded( "i1e", 0u ) );
}

TEST( BEncoderStream, StateTellsWhereItEnded )
{
    std::istringstream stream( "4:spa" );
    decoded( stream );
    EXPECT_TRUE( stream.eof() && stream.fail() );
    // A stream that has failed gives nothing and no position.
    stream.str( "i1e" );
    stream.clear( std::ios_base::failbit );
    EXPECT_EQ( "Bad b-encoding item type starting with '' at character -1\n", decoded( stream ) );
    stream.clear();
    stream.str( "i10ei1x2" );
    stream >> std::hex;
    EXPECT_EQ( "i10e", decoded( stream ) );
    EXPECT_EQ( "Bad integer at character 7\n", decoded( stream ) );
    EXPECT_TRUE( stream.good() );
    EXPECT_EQ( '2', stream.get() );
    std::ifstream folder( "/" ); // opens, but reading it throws
    EXPECT_EQ( "Bad b-encoding item type starting with '' at character -1\n", decoded( folder ) );
    EXPECT_TRUE( folder.bad() );
}

TEST( BEncoderStream, BytesMayComeInPortions )
{
    const std::string text = "d4:data100000:" + std::string( 100000, 'z' ) + "1:xli-12eee";
    const NuvTest::TemporaryFolder folder;
    NuvTest::writeFile( folder.path( "item" ), text );
    std::ifstream stream( folder.path( "item" ) );
    EXPECT_EQ( text, decoded( stream ) );
}

} // namespace
} // namespace Nuv::Utils
