#include "nuvBuffer.h"

#include <gtest/gtest.h>
#include <iomanip>
#include <sstream>

namespace Nuv::Utils {
namespace {

const std::string ourBytes( "ab\0cd", 5 );

// Content, capacity and the NUL behind the content.
void expectBuffer( const Buffer& buffer, const std::string& content, std::size_t capacity )
{
    EXPECT_EQ( content, buffer.str() );
    EXPECT_EQ( content.size(), buffer.size() );
    EXPECT_EQ( capacity, buffer.capacity() );
    EXPECT_EQ( '\0', buffer.cStr()[buffer.size()] );
}

TEST( BufferConstruction, CapacityIsThatOfTheContent )
{
    const Buffer source( ourBytes );
    Buffer roomy( 9 );
    roomy.append( "xyz" );
    expectBuffer( Buffer(), "", 0 );
    expectBuffer( Buffer( "ab\0cd" ), "ab", 2 );
    expectBuffer( Buffer( source, 1, 3 ), ourBytes.substr( 1, 3 ), 3 );
    Buffer taken( &roomy );
    expectBuffer( roomy, "", 0 );
    Buffer small, large( 20u );
    expectBuffer( small = taken, "xyz", 9 ); // assigned, it ends as a copy would
    expectBuffer( large = taken, "xyz", 9 );
    EXPECT_THROW( roomy = static_cast< const char* >( nullptr ), LogicException );
}

TEST( BufferGrowth, IsExactAndShrinkingKeepsTheStorage )
{
    Buffer buffer( 5 );
    expectBuffer( buffer.append( "abcde" ), "abcde", 5 );
    expectBuffer( buffer.append( "f" ), "abcdef", 6 );
    buffer.resizeHelper( 2, true, 'x' );
    expectBuffer( buffer, "ab", 6 );
    buffer.resizeHelper( 8, true, 'y' );
    expectBuffer( buffer, "abyyyyyy", 8 );
    expectBuffer( buffer.assign( 10, 'r' ), "rrrrrrrrrr", 10 );
    buffer.reserve( 2 );
    expectBuffer( buffer, "rr", 2 );
    buffer = "abcdef";
    const char byte = 'x';
    EXPECT_THROW( buffer.append( &byte, std::size_t{ Buffer::maxSize } ), std::bad_alloc );
    EXPECT_THROW( buffer.insert( 7, 1, 'x' ), LogicException );
    EXPECT_THROW( buffer.erase( 7 ), LogicException );
    expectBuffer( buffer.erase( 1, 2 ), "adef", 6 );
    expectBuffer( buffer.erase( 3, 100 ), "ade", 6 );
    EXPECT_EQ( 'd', *buffer.erase( buffer.begin(), buffer.begin() + 1 ) );
    EXPECT_EQ( 'z', *buffer.insert( buffer.begin() + 1, 'z' ) );
    expectBuffer( buffer.insert( 0, 2, 'x' ), "xxdze", 6 );
    EXPECT_LT( Buffer( "\x7F" ), Buffer( "\x80" ) );
    EXPECT_NE( Buffer( ourBytes ), Buffer( std::string( "ab\0ce", 5 ) ) );
}

TEST( BufferInsertion, OwnBytesMayBeGiven )
{
    // Every source range within the content (and its NUL) into every position, beside a plain
    // string.
    const std::string text( "abcdef" );
    for ( std::size_t pos = 0; pos <= text.size(); ++pos ) {
        for ( std::size_t from = 0; from <= text.size(); ++from ) {
            for ( std::size_t length = 0; from + length <= text.size() + 1; ++length ) {
                Buffer buffer( text );
                buffer.reserve( length % 2 == 0 ? 6 : 40 );
                buffer.insert( pos, buffer.data() + from, length );
                EXPECT_EQ(
                    std::string( text ).insert( pos, std::string( text.c_str() + from, length ) ),
                    buffer.str() )
                    << pos << ' ' << from << ' ' << length;
            }
        }
    }
    Buffer buffer( "abcdef" );
    EXPECT_EQ( "cde", buffer.assign( buffer.data() + 2, 3 ).str() );
    EXPECT_EQ( "cdecde", buffer.append( buffer ).str() );
}

// The searches differ from the standard string's in one point alone: an empty pattern at the end.
TEST( BufferSearch, AgreesWithTheStandardString )
{
    const auto found = []( const auto& text, const std::string& set, std::size_t pos ) {
        std::string result;
        for ( const std::size_t at :
              { set.empty() ? 0 : text.find( set, pos ), text.rfind( set, pos ),
                text.find_first_of( set, pos ), text.find_first_not_of( set, pos ),
                text.find_last_of( set, pos ), text.find_last_not_of( set, pos ),
                text.rfind( set[0], pos ), text.find_last_not_of( set[0], pos ) } )
            result += at < 100 ? std::to_string( at ) + " " : "npos ";
        return result;
    };
    for ( const std::string text : { "", "abcabcaab" } )
        for ( const std::string set : { "a", "ca", "abc", "abcabcaabx", "" } )
            for ( const std::size_t pos : { 0u, 1u, 3u, 8u, 9u, 10u, Buffer::npos } )
                EXPECT_EQ( found( text, set, pos ), found( Buffer( text ), set, pos ) )
                    << set << pos;
    EXPECT_EQ( 2u, Buffer( "abc" ).find( "", 2 ) );
    EXPECT_EQ( Buffer::npos, Buffer( "abc" ).find( "", 3 ) );
}

TEST( OBufferStreamOutput, AgreesWithTheStandardStream )
{
    const auto fill = []( auto& stream ) {
        const std::string text( "text" );
        char array[8] = "array";
        stream << text << array << std::string_view( "view" ) << 'c' << true << 1.5 << nullptr;
        stream << INT64_MIN << ' ' << UINT64_MAX << ' ' << short( -3 ) << 4u;
        // A manipulator returns the plain stream, so what follows it stands alone.
        const auto set = [&stream]( auto manipulator ) { stream << manipulator; };
        set( std::setw( 6 ) ), stream << "w";
        set( std::left ), set( std::setw( 5 ) ), stream << 7;
        for ( const auto base : { std::ios_base::hex, std::ios_base::oct, std::ios_base::dec } ) {
            stream.setf( base, std::ios_base::basefield );
            stream << 255 << -1 << ' ';
            stream.setf( std::ios_base::showbase | std::ios_base::showpos );
            stream << 8 << ' ' << 8u;
            stream.unsetf( std::ios_base::showpos );
        }
        stream.setstate( std::ios_base::failbit );
        stream << "not written" << 1 << 'c';
    };
    OBufferStream ours;
    std::ostringstream theirs;
    fill( ours );
    fill( theirs );
    EXPECT_EQ( theirs.str(), ours.bufferPtr()->str() );
    ours.clear();
    ours << static_cast< const char* >( nullptr );
    EXPECT_TRUE( ours.bad() );
}

TEST( OBufferStreamSeek, MovesTheEndAndLeavesNoByteUndefined )
{
    OBufferStream stream;
    stream << "abcdef";
    stream.seekp( 2 );
    stream << "X";
    EXPECT_EQ( "abX", stream.view() );
    stream.seekp( 5 ); // over what was written before; the NUL behind "abX" replaced the 'd'
    EXPECT_EQ( std::string( "abX\0e", 5 ), stream.view() );
    stream.seekp( 300 ); // beyond the capacity
    stream << "Z";
    EXPECT_EQ( std::string( "abX\0e", 5 ) + std::string( 295, '\0' ) + "Z", stream.view() );
    EXPECT_EQ( 600u, stream.bufferPtr()->capacity() );
    stream.reset();
    stream.seekp( 3 ); // over what was written before the reset
    EXPECT_EQ( std::string( 3, '\0' ), stream.view() );
    stream.seekp( 600 );
    std::streambuf* const bufPtr = stream.rdbuf();
    EXPECT_EQ( -1, bufPtr->pubseekoff( INT64_MAX, std::ios_base::cur ) );
    EXPECT_THROW( bufPtr->pubseekoff( 0, static_cast< std::ios_base::seekdir >( 9 ) ),
                  LogicException );
}

TEST( IBufferStreamInput, ReadsFromEverySourceToItsEndAndSeeksWithin )
{
    Buffer buffer( "12 ab" );
    std::string word;
    EXPECT_TRUE( IBufferStream( "12 ab" ) >> word && word == "12" );
    EXPECT_TRUE( IBufferStream( &buffer ) >> word && word == "12" && buffer.empty() );
    IBufferStream stream( ourBytes );
    std::streambuf* const bufPtr = stream.rdbuf();
    EXPECT_EQ( 5, bufPtr->pubseekpos( 5 ) );
    EXPECT_EQ( -1, bufPtr->pubseekpos( 6 ) );
    EXPECT_EQ( 4, bufPtr->pubseekoff( -1, std::ios_base::end ) );
    EXPECT_EQ( 'd', bufPtr->sgetc() );
    EXPECT_EQ( 1, bufPtr->pubseekoff( -3, std::ios_base::cur ) );
    char bytes[8] = {};
    EXPECT_EQ( 4, bufPtr->sgetn( bytes, 8 ) );
}

} // namespace
} // namespace Nuv::Utils
