#include "nuvBEncoder.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace Nuv::Utils {
namespace {

using namespace std::string_literals;

std::string encoded( const BEncoder::ItemPtr& itemPtr )
{
    OBufferStream stream;
    itemPtr->encode( &stream );
    return std::string( stream.view() );
}

// The item's encoding, "null", or the text of the exception.
std::string decoded( const std::string& text,
                     unsigned int maxNbrOfLevels = BEncoder::defaultMaxNbrOfLevels )
{
    IBufferStream stream( text );
    try {
        const BEncoder::ItemPtr itemPtr = BEncoder::decode( stream, maxNbrOfLevels );
        return itemPtr == nullptr ? "null" : encoded( itemPtr );
    } catch ( const BEncoder::DecodeException& exception ) {
        EXPECT_EQ( 0, exception.reason() );
        EXPECT_EQ( 0, exception.errorNbr() );
        return exception.what();
    }
}

TEST( BEncoderItems, DecodeToTheirTypesAndEncodeBack )
{
    struct Case
    {
        std::string text;
        std::string back; // "" if the same
    };
    const Case cases[] = {
        { "i0e", "" },
        { "i-2147483648e", "" },
        { "i2147483647e", "" },
        { "i \n+007e", "i7e" },
        { "0:", "" },
        { "3:a:e", "" },
        { "03:abc", "3:abc" },
        { "le", "" },
        { "de", "" },
        { "li1ei-2ee", "" },
        { "d3:cow3:moo4:spam4:eggse", "" },
        { "d4:spam4:eggs3:cow3:mooe", "d3:cow3:moo4:spam4:eggse" },
        { "d1:ai1e1:ai2ee", "d1:ai1ee" },
        { "ld1:aei1ee", "ldei1ee" },
        { "d 1:ai1ee", "d1:ai1ee" },
        { "d1:ai1e1:bee", "d1:ai1ee" }, // 'e' for a value ends it
        { "d3:a\0xi1ee"s, "d1:ai1ee" }, // a key ends at its NUL
        { "d1:\xFFi1e1:ai2ee", "d1:ai2e1:\xFFi1ee" },
        { "ld1:ale1:bdeeli1eee", "" },
        { "i1ei2e", "i1e" }, // one item is read
        { "e", "null" },
    };
    for ( const Case& c : cases ) {
        SCOPED_TRACE( c.text );
        EXPECT_EQ( c.back.empty() ? c.text : c.back, decoded( c.text ) );
    }
}

TEST( BEncoderItems, AreReachedThroughTheirParents )
{
    IBufferStream stream( "d1:ll2:\0\1i-5ee1:ni7eeX"s );
    BEncoder::ItemPtr listPtr;
    {
        const BEncoder::ItemPtr itemPtr = BEncoder::decode( stream );
        ASSERT_EQ( BEncoder::typeDictionary, itemPtr->type() );
        const auto& dictionary = dynamic_cast< const BEncoder::Dictionary& >( *itemPtr );
        EXPECT_EQ( 2u, dictionary.entries().size() );
        EXPECT_EQ( nullptr, dictionary.find( "x" ).get() );
        EXPECT_EQ(
            7, dynamic_cast< const BEncoder::IntegerItem& >( *dictionary.find( "n" ) ).value() );
        listPtr = dictionary.find( "l" );
    }
    ASSERT_EQ( BEncoder::typeList, listPtr->type() ); // outlives its parent
    EXPECT_EQ( 1, listPtr.nbrOfOwners() );
    const auto& items = dynamic_cast< const BEncoder::List& >( *listPtr ).items();
    ASSERT_EQ( 2u, items.size() );
    ASSERT_EQ( BEncoder::typeString, items.front()->type() );
    EXPECT_EQ( "\0\1"s,
               dynamic_cast< const BEncoder::StringItem& >( *items.front() ).bytes().str() );
    EXPECT_EQ( BEncoder::typeInteger, items.back()->type() );
    EXPECT_EQ( "l2:\0\1i-5ee"s, encoded( listPtr ) );
    EXPECT_TRUE( stream.good() );
    EXPECT_EQ( 'X', stream.get() ); // nothing behind the item is taken
}

TEST( BEncoderItems, AreBuiltByHand )
{
    using ItemPtr = BEncoder::ItemPtr;
    auto* const listPtr = new BEncoder::List();
    const ItemPtr holder( listPtr );
    listPtr->add( ItemPtr( new BEncoder::IntegerItem( -42 ) ) );
    listPtr->add( ItemPtr( new BEncoder::StringItem( Buffer( "spam" ) ) ) );
    BEncoder::Dictionary dictionary;
    dictionary.set( "z", holder );
    dictionary.set( "a", ItemPtr( new BEncoder::IntegerItem( 1 ) ) );
    dictionary.set( "a", ItemPtr( new BEncoder::IntegerItem( 2 ) ) );
    std::ostringstream stream;
    stream << std::hex << std::showpos; // the stream's format is no matter of the encoding's
    dictionary.encode( &stream );
    EXPECT_EQ( "d1:ai2e1:zli-42e4:spamee", stream.str() );
    EXPECT_THROW( listPtr->add( ItemPtr() ), LogicException );
    EXPECT_THROW( dictionary.set( "n", ItemPtr() ), LogicException );
}

TEST( BEncoderRefusals, NameTheFaultAndThePlace )
{
    struct Case
    {
        std::string text;
        std::string message;
        int position;
    };
    const std::string badType = "Bad b-encoding item type starting with '";
    const Case cases[] = {
        { "x", badType + "x'", 1 },
        { "", badType + "'", 0 },
        { std::string( 1, '\0' ), badType + "'", 1 },
        { "\xFF", badType + "\xFF'", 1 },
        { "-1:a", badType + "-'", 1 },
        { " i1e", badType + " '", 1 },
        { "l", badType + "'", 1 },
        { "li1e", badType + "'", 4 },
        { "d1:a", badType + "'", 4 },
        { "i12x", "Bad integer", 4 },
        { "i12", "Bad integer", 3 },
        { "ie", "Bad integer", 1 },
        { "i-e", "Bad integer", 2 },
        { "i2147483648e", "Bad integer", 11 },
        { "i-2147483649e", "Bad integer", 12 },
        { "i99999999999999999999999999e", "Bad integer", 27 },
        { "4:spa", "Bad string", 5 },
        { "4spam", "Bad string", 1 },
        { "4 :spam", "Bad string", 1 },
        { "2147483647:spam", "Bad string", 15 },
        { "4294967298:spam", "Bad string", 10 },
        { "d", "Bad string", 1 },
        { "d-1:ai1ee", "Bad string", 3 },
        { "di1ei1ee", "Bad string", 1 },
        { "d1:ai1e", "Bad string", 7 },
    };
    for ( const Case& c : cases ) {
        SCOPED_TRACE( c.text );
        EXPECT_EQ( c.message + " at character " + std::to_string( c.position ) + "\n",
                   decoded( c.text ) );
    }
}

TEST( BEncoderRefusals, NestingIsBounded )
{
    const auto nested = []( unsigned int nbrOfLevels, const std::string& begin ) {
        std::string text;
        for ( unsigned int i = 0; i < nbrOfLevels; ++i )
            text += begin;
        return text + std::string( nbrOfLevels, 'e' );
    };
    EXPECT_EQ( nested( 256, "l" ), decoded( nested( 256, "l" ) ) );
    EXPECT_EQ( "Nesting too deep at character 257\n", decoded( nested( 257, "l" ) ) );
    EXPECT_EQ( "Nesting too deep at character 1025\n", decoded( nested( 257, "d1:a" ) ) );
    EXPECT_EQ( "Nesting too deep at character 257\n", decoded( std::string( 1000000, 'l' ) ) );
    EXPECT_EQ( "lllleeee", decoded( "lllleeee", 4 ) );
    EXPECT_EQ( "ll0:el0:el0:ee", decoded( "ll0:el0:el0:ee", 2 ) ); // side by side is no depth
    EXPECT_EQ( "Nesting too deep at character 4\n", decoded( "lllleeee", 3 ) );
    EXPECT_EQ( "i1e", decoded( "i1e", 0 ) );
    IBufferStream stream( "i1ee" );
    EXPECT_EQ( 1u, BEncoder::List( stream, 1 ).items().size() );
}

TEST( BEncoderStream, StateTellsWhereItEnded )
{
    std::istringstream ended( "4:spa" );
    EXPECT_THROW( BEncoder::decode( ended ), BEncoder::DecodeException );
    EXPECT_TRUE( ended.eof() && ended.fail() );
    // A stream that has failed gives nothing and no position.
    ended.str( "i1e" );
    ended.clear( std::ios_base::failbit );
    try {
        BEncoder::decode( ended );
        FAIL();
    } catch ( const BEncoder::DecodeException& exception ) {
        EXPECT_STREQ( "Bad b-encoding item type starting with '' at character -1\n",
                      exception.what() );
    }
    std::istringstream wrong( "i1x2" );
    EXPECT_THROW( BEncoder::decode( wrong ), BEncoder::DecodeException );
    EXPECT_TRUE( wrong.good() );
    EXPECT_EQ( '2', wrong.get() );
    std::istringstream hexadecimal( "i10e" );
    hexadecimal >> std::hex;
    EXPECT_EQ( "i10e", encoded( BEncoder::decode( hexadecimal ) ) );
}

// A stream that hands out one byte at a time, without telling how many will come.
class TrickleBuf : public std::streambuf
{
public:
    explicit TrickleBuf( const std::string& bytes )
        : myBytes( bytes )
    {
    }

protected:
    int_type underflow() override
    {
        if ( myPos == myBytes.size() )
            return traits_type::eof();
        setg( &myBytes[myPos], &myBytes[myPos], &myBytes[myPos] + 1 );
        ++myPos;
        return traits_type::to_int_type( *gptr() );
    }

private:
    std::string myBytes;
    std::size_t myPos = 0;
};

TEST( BEncoderStream, BytesMayComeOneByOne )
{
    const std::string text = "d4:data10000:" + std::string( 10000, 'z' ) + "1:xli-12ee" + "e";
    TrickleBuf buf( text );
    std::istream stream( &buf );
    EXPECT_EQ( text, encoded( BEncoder::decode( stream ) ) );
    TrickleBuf cutBuf( text.substr( 0, 9000 ) );
    std::istream cut( &cutBuf );
    EXPECT_THROW( BEncoder::decode( cut ), BEncoder::DecodeException );
}

} // namespace
} // namespace Nuv::Utils
