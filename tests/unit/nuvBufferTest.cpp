#include "nuvBuffer.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <iomanip>
#include <limits>
#include <locale>
#include <new>
#include <sstream>
#include <string>
#include <vector>

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
    EXPECT_EQ( content.empty(), buffer.empty() );
}

TEST( BufferConstruction, CapacityIsThatOfTheContent )
{
    const Buffer source( ourBytes );
    Buffer roomy( 9 );
    roomy.append( "xyz" );

    expectBuffer( Buffer(), "", 0 );
    expectBuffer( Buffer( 0 ), "", 0 );
    expectBuffer( Buffer( 5u ), "", 5 );
    expectBuffer( Buffer( 3, 'x' ), "xxx", 3 );
    expectBuffer( Buffer( 0, 'x' ), "", 0 );
    expectBuffer( Buffer( "ab\0cd" ), "ab", 2 );
    expectBuffer( Buffer( ourBytes.data(), 5 ), ourBytes, 5 );
    expectBuffer( Buffer( nullptr, std::size_t{ 0 } ), "", 0 );
    expectBuffer( source, ourBytes, 5 );
    expectBuffer( Buffer( roomy ), "xyz", 9 );
    expectBuffer( Buffer( source, 1, 3 ), ourBytes.substr( 1, 3 ), 3 );
    expectBuffer( Buffer( source, 5 ), "", 0 );
    expectBuffer( Buffer( source, 3, Buffer::npos ), "cd", 2 );
    expectBuffer( Buffer( source.begin() + 1, source.end() ), ourBytes.substr( 1 ), 4 );
    EXPECT_EQ( &Buffer::nullChar, Buffer().data() );
    EXPECT_THROW( Buffer( source, 6, 0 ), LogicException );
    EXPECT_THROW( Buffer( static_cast< const char* >( nullptr ) ), LogicException );
}

TEST( BufferConstruction, TakingOverMovesTheStorage )
{
    Buffer source( "content" );
    const char* const storagePtr = source.data();
    Buffer taken( &source );
    EXPECT_EQ( storagePtr, taken.data() );
    expectBuffer( source, "", 0 );
    source = std::move( taken );
    EXPECT_EQ( storagePtr, source.data() );
    expectBuffer( taken, "", 0 ); // NOLINT: moved-from is defined as empty
}

TEST( BufferConstruction, DamagedSharedByteIsNoticedAndPutRight )
{
    Buffer::nullChar = 'x';
    EXPECT_THROW( Buffer(), LogicException );
    Buffer repaired( 0 );
    EXPECT_EQ( '\0', Buffer::nullChar );
    EXPECT_NO_THROW( Buffer() );
}

TEST( BufferAssignment, EndsAsTheCopyWould )
{
    Buffer source( 9 );
    source.append( "xyz" );
    for ( const unsigned int capacity : { 0u, 3u, 9u, 20u } ) {
        SCOPED_TRACE( capacity );
        Buffer target( capacity );
        target = source;
        expectBuffer( target, "xyz", 9 );
        EXPECT_NE( source.data(), target.data() );
        const Buffer& self = target;
        target = self;
        expectBuffer( target, "xyz", 9 );
    }
}

TEST( BufferGrowth, IsExactAndShrinkingKeepsTheStorage )
{
    Buffer buffer( 5 );
    const char* const storagePtr = buffer.data();
    expectBuffer( buffer.append( "abcde" ), "abcde", 5 );
    EXPECT_EQ( storagePtr, buffer.data() );
    expectBuffer( buffer.append( "f" ), "abcdef", 6 );
    buffer.resizeHelper( 2, true, 'x' );
    expectBuffer( buffer, "ab", 6 );
    buffer.resizeHelper( 4, true, 'x' );
    expectBuffer( buffer, "abxx", 6 );
    buffer.resizeHelper( 8, true, 'y' );
    expectBuffer( buffer, "abxxyyyy", 8 );
    buffer.resizeHelper( 9, false, 'z' );
    EXPECT_EQ( "abxxyyyy", buffer.str().substr( 0, 8 ) );
    expectBuffer( buffer.assign( "q", 1 ), "q", 9 );
    expectBuffer( buffer.assign( 10, 'r' ), "rrrrrrrrrr", 10 );
    expectBuffer( buffer.assign( 2, 's' ), "ss", 10 );
    buffer.clear();
    expectBuffer( buffer, "", 10 );
    buffer = "abcde";
    buffer.reserve( 2 );
    expectBuffer( buffer, "ab", 2 );
    buffer.reserve( 7 );
    expectBuffer( buffer, "ab", 7 );
    buffer.reserve( 0 );
    expectBuffer( buffer, "", 0 );
    EXPECT_EQ( &Buffer::nullChar, buffer.data() );
}

TEST( BufferGrowth, FailureLeavesTheContent )
{
    Buffer buffer( "abc" );
    const char byte = 'x';
    const std::size_t tooMany = std::size_t{ Buffer::maxSize };
    EXPECT_THROW( buffer.insert( 1, tooMany, 'x' ), std::bad_alloc );
    EXPECT_THROW( buffer.append( &byte, tooMany ), std::bad_alloc );
    EXPECT_THROW( buffer.insert( 4, 1, 'x' ), LogicException );
    EXPECT_THROW( buffer.erase( 4 ), LogicException );
    EXPECT_THROW( Buffer( std::size_t{ 0 } - 1 ), std::bad_alloc );
    expectBuffer( buffer, "abc", 3 );
}

TEST( BufferInsertion, MovesTheTailUp )
{
    for ( const unsigned int room : { 0u, 10u } ) { // with and without a reallocation
        SCOPED_TRACE( room );
        const auto fresh = [room] {
            Buffer buffer( "abcd" );
            buffer.reserve( 4 + room );
            return buffer;
        };
        EXPECT_EQ( "xxabcd", fresh().insert( 0, 2, 'x' ).str() );
        EXPECT_EQ( "abXYcd", fresh().insert( 2, "XY", 2 ).str() );
        EXPECT_EQ( "abcdXY", fresh().insert( 4, "XY", 2 ).str() );
        EXPECT_EQ( "abcd", fresh().insert( 1, "", 0 ).str() );
        Buffer buffer = fresh();
        const Buffer::iterator at = buffer.insert( buffer.begin() + 3, 'z' );
        EXPECT_EQ( "abczd", buffer.str() );
        EXPECT_EQ( 'z', *at );
        EXPECT_EQ( 3, at - buffer.begin() );
    }
}

TEST( BufferInsertion, OwnBytesMayBeGiven )
{
    // Every source range within the content (and its NUL) into every position, beside a plain
    // string.
    const std::string text( "abcdef" );
    for ( std::size_t pos = 0; pos <= text.size(); ++pos ) {
        for ( std::size_t from = 0; from <= text.size(); ++from ) {
            for ( std::size_t length = 0; from + length <= text.size() + 1; ++length ) {
                for ( const std::size_t room : { 6u, 40u } ) {
                    Buffer buffer( text );
                    buffer.reserve( room );
                    buffer.insert( pos, buffer.data() + from, length );
                    std::string expected( text );
                    expected.insert( pos, std::string( text.c_str() + from, length ) );
                    ASSERT_EQ( expected, buffer.str() ) << pos << ' ' << from << ' ' << length;
                }
            }
        }
    }
    Buffer buffer( "abcdef" );
    EXPECT_EQ( "cde", buffer.assign( buffer.data() + 2, 3 ).str() );
    EXPECT_EQ( "cdecde", buffer.append( buffer ).str() );
}

TEST( BufferErasure, CutsTheCountAndMovesTheTailDown )
{
    Buffer buffer( "abcdef" );
    expectBuffer( buffer.erase( 1, 2 ), "adef", 6 );
    expectBuffer( buffer.erase( 3, 100 ), "ade", 6 );
    expectBuffer( buffer.erase( 3 ), "ade", 6 );
    const Buffer::iterator at = buffer.erase( buffer.begin(), buffer.begin() + 1 );
    EXPECT_EQ( 'd', *at );
    expectBuffer( buffer, "de", 6 );
    expectBuffer( buffer.erase(), "", 6 );
}

TEST( BufferComparison, IsOfUnsignedBytes )
{
    EXPECT_LT( Buffer( "ab" ), Buffer( "abc" ) );
    EXPECT_LT( Buffer( "abc" ), Buffer( "abd" ) );
    EXPECT_LT( Buffer( "\x7F" ), Buffer( "\x80" ) );
    EXPECT_FALSE( Buffer( "b" ) < Buffer( "ab" ) );
    EXPECT_NE( Buffer( ourBytes ), Buffer( std::string( "ab\0ce", 5 ) ) );
    EXPECT_NE( Buffer( ourBytes ), Buffer( "ab" ) );
    EXPECT_EQ( Buffer( ourBytes ), ourBytes );
    EXPECT_EQ( Buffer(), "" );
}

TEST( BufferIteration, WorksWithTheStandardAlgorithms )
{
    static_assert( std::contiguous_iterator< Buffer::iterator > );
    static_assert( std::contiguous_iterator< Buffer::const_iterator > );
    Buffer buffer( "hello" );
    std::sort( buffer.begin(), buffer.end() );
    EXPECT_EQ( "ehllo", buffer.str() );
    EXPECT_EQ( "ollhe", std::string( buffer.rbegin(), buffer.rend() ) );
    const Buffer::const_iterator first = buffer.begin();
    EXPECT_EQ( 'h', first[1] );
    EXPECT_EQ( 5, std::as_const( buffer ).end() - first );
}

// The searches differ from the standard string's in one point alone: an empty pattern at the end.
TEST( BufferSearch, AgreesWithTheStandardString )
{
    using Texts = std::vector< std::string >;
    for ( const std::string& text : Texts{ "", "a", "abcabcaab" } ) {
        const Buffer buffer( text );
        const auto agree = [&]( const auto& search ) {
            const std::size_t found = search( text );
            return search( buffer ) == ( found == std::string::npos ? Buffer::npos : found );
        };
        for ( const std::string& set : Texts{ "a", "ca", "abc", "abcabcaabx", "" } ) {
            for ( const std::size_t pos : { 0u, 1u, 3u, 8u, 9u, 10u, Buffer::npos } ) {
                SCOPED_TRACE( text + "|" + set + "|" + std::to_string( pos ) );
                const char c = set[0];
                EXPECT_TRUE( set.empty() ||
                             agree( [&]( auto& t ) { return t.find( set, pos ); } ) );
                EXPECT_TRUE( agree( [&]( auto& t ) { return t.rfind( set, pos ); } ) );
                EXPECT_TRUE( agree( [&]( auto& t ) { return t.find_first_of( set, pos ); } ) );
                EXPECT_TRUE( agree( [&]( auto& t ) { return t.find_first_not_of( set, pos ); } ) );
                EXPECT_TRUE( agree( [&]( auto& t ) { return t.find_last_of( set, pos ); } ) );
                EXPECT_TRUE( agree( [&]( auto& t ) { return t.find_last_not_of( set, pos ); } ) );
                EXPECT_TRUE( agree( [&]( auto& t ) { return t.find( c, pos ); } ) );
                EXPECT_TRUE( agree( [&]( auto& t ) { return t.rfind( c, pos ); } ) );
                EXPECT_TRUE( agree( [&]( auto& t ) { return t.find_first_not_of( c, pos ); } ) );
                EXPECT_TRUE( agree( [&]( auto& t ) { return t.find_last_not_of( c, pos ); } ) );
            }
        }
    }
    EXPECT_EQ( 2u, Buffer( "abc" ).find( "", 2 ) );
    EXPECT_EQ( Buffer::npos, Buffer( "abc" ).find( "", 3 ) );
}

TEST( OBufferStreamGrowth, DoublesFrom128Bytes )
{
    for ( const auto& [count, capacity] :
          { std::pair( 0u, 0u ), std::pair( 1u, 128u ), std::pair( 128u, 128u ),
            std::pair( 129u, 256u ), std::pair( 600u, 1024u ) } ) {
        OBufferStream stream;
        for ( unsigned int i = 0; i < count; ++i ) {
            stream.put( 'x' );
        }
        expectBuffer( *stream.bufferPtr(), std::string( count, 'x' ), capacity );
    }
    OBufferStream atOnce;
    atOnce.write( std::string( 1024, 'z' ).data(), 1024 );
    expectBuffer( *atOnce.bufferPtr(), std::string( 1024, 'z' ), 1024 );
    const char* const storagePtr = atOnce.bufferPtr()->data();
    atOnce.reset();
    atOnce << "again";
    const Buffer taken = atOnce.takeBuffer();
    EXPECT_EQ( storagePtr, taken.data() );
    expectBuffer( taken, "again", 1024 );
    expectBuffer( *atOnce.bufferPtr(), "", 0 );
}

TEST( OBufferStreamOutput, AgreesWithTheStandardStream )
{
    const auto fill = []( auto& stream ) {
        const std::string text( "text" );
        char array[8] = "array";
        const char* const ptr = "ptr";
        stream << text << array << ptr << std::string_view( "view" ) << 'c' << true << 1.5
               << nullptr;
        stream << std::numeric_limits< long long >::min() << ' ' << UINT64_MAX << ' ' << short( -3 )
               << 4u;
        stream << static_cast< unsigned char >( 'u' ) << static_cast< signed char >( 's' );
        // A manipulator returns the plain stream, so what follows it stands alone.
        const auto set = [&stream]( auto manipulator ) { stream << manipulator; };
        set( std::setw( 6 ) ), stream << "w";
        set( std::setw( 3 ) ), stream << 'c';
        set( std::left ), set( std::setw( 5 ) ), stream << 7;
        set( std::setfill( '*' ) ), set( std::setw( 4 ) ), stream << text;
        for ( const auto base : { std::ios_base::hex, std::ios_base::oct, std::ios_base::dec } ) {
            stream.setf( base, std::ios_base::basefield );
            stream << 255 << -1 << ' ';
            stream.setf( std::ios_base::showbase | std::ios_base::showpos );
            stream << 8 << ' ' << 8u;
            stream.unsetf( std::ios_base::showpos );
        }
        stream << std::endl;
        stream << "end";
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

TEST( OBufferStreamOutput, NumbersFollowTheStreamsLocale )
{
    struct Grouping : std::numpunct< char >
    {
        char do_thousands_sep() const override { return '\''; }
        std::string do_grouping() const override { return "\3"; }
    };
    OBufferStream stream;
    stream.imbue( std::locale( std::locale::classic(), new Grouping ) );
    stream << 1234567 << ' ';
    stream.imbue( std::locale::classic() );
    stream << 1234567;
    EXPECT_EQ( "1'234'567 1234567", stream.view() );
}

TEST( OBufferStreamOutput, FailedGrowthSetsTheBadState )
{
    const char byte = 'x';
    OBufferStream stream;
    stream << "abc";
    stream.writeBytes( &byte, std::size_t{ Buffer::maxSize } );
    EXPECT_TRUE( stream.bad() );
    EXPECT_EQ( "abc", stream.view() );
    stream.clear();
    stream.exceptions( std::ios_base::badbit );
    EXPECT_THROW( stream.writeBytes( &byte, std::size_t{ Buffer::maxSize } ), std::bad_alloc );
}

TEST( BufferOStreamBufOverflow, GrowsAndReturnsTheCharacterOrZero )
{
    struct Open : BufferOStreamBuf
    {
        using BufferOStreamBuf::overflow;
    } buf;
    EXPECT_EQ( 0, buf.overflow( std::char_traits< char >::eof() ) );
    EXPECT_EQ( 128u, buf.bufferPtr()->capacity() );
    EXPECT_EQ( 0xFF, buf.overflow( 0xFF ) ); // no end of file
    expectBuffer( *buf.bufferPtr(), "\xFF", 128 );
}

TEST( OBufferStreamSeek, MovesTheEndAndLeavesNoByteUndefined )
{
    OBufferStream stream;
    stream << "abcdef";
    EXPECT_EQ( 6, stream.tellp() );
    stream.seekp( 2 );
    stream << "X";
    EXPECT_EQ( "abX", stream.view() );
    stream.seekp( 5 ); // over what was written before; the NUL behind "abX" replaced the 'd'
    EXPECT_EQ( std::string( "abX\0e", 5 ), stream.view() );
    stream.seekp( 300 ); // beyond the capacity
    stream << "Z";
    EXPECT_EQ( std::string( "abX\0e", 5 ) + std::string( 295, '\0' ) + "Z", stream.view() );
    EXPECT_EQ( 600u, stream.bufferPtr()->capacity() );
    stream.seekp( 0, std::ios_base::end );
    EXPECT_EQ( 600, stream.tellp() );
    stream.reset();
    stream.seekp( 3 ); // over what was written before the reset
    EXPECT_EQ( std::string( 3, '\0' ), stream.view() );
    stream.seekp( 600 );
    std::streambuf* const bufPtr = stream.rdbuf();
    EXPECT_EQ( -1, bufPtr->pubseekoff( -601, std::ios_base::cur ) );
    EXPECT_EQ( -1, bufPtr->pubseekoff( INT64_MAX, std::ios_base::cur ) );
    EXPECT_EQ( -1, bufPtr->pubseekpos( -1 ) );
    EXPECT_EQ( 600, stream.tellp() );
    EXPECT_THROW( bufPtr->pubseekoff( 0, static_cast< std::ios_base::seekdir >( 9 ) ),
                  LogicException );
}

TEST( IBufferStreamInput, ReadsFromEverySourceToItsEnd )
{
    Buffer buffer( "12 ab" );
    IBufferStream fromText( "12 ab" ), fromString( std::string( "12 ab" ) ), fromCopy( buffer );
    EXPECT_EQ( 5u, buffer.size() );
    IBufferStream fromStorage( &buffer );
    expectBuffer( buffer, "", 0 );
    for ( IBufferStream* const streamPtr : { &fromText, &fromString, &fromCopy, &fromStorage } ) {
        int number = 0;
        std::string word;
        EXPECT_TRUE( *streamPtr >> number >> word );
        EXPECT_EQ( "12 ab", std::to_string( number ) + " " + word );
        EXPECT_TRUE( streamPtr->eof() );
    }
    IBufferStream empty;
    EXPECT_EQ( std::char_traits< char >::eof(), empty.get() );
}

TEST( IBufferStreamInput, ReadStopsAtTheSizeAndSeekIsChecked )
{
    IBufferStream stream( ourBytes );
    char bytes[8] = {};
    std::streambuf* const bufPtr = stream.rdbuf();
    EXPECT_EQ( 2, bufPtr->sgetn( bytes, 2 ) );
    EXPECT_EQ( 3, bufPtr->sgetn( bytes, 8 ) );
    EXPECT_EQ( ourBytes.substr( 2 ), std::string( bytes, 3 ) );
    EXPECT_EQ( 0, bufPtr->sgetn( bytes, 8 ) );
    EXPECT_EQ( 5, bufPtr->pubseekpos( 5 ) );
    EXPECT_EQ( -1, bufPtr->pubseekpos( 6 ) );
    EXPECT_EQ( -1, bufPtr->pubseekoff( -6, std::ios_base::end ) );
    EXPECT_EQ( 4, bufPtr->pubseekoff( -1, std::ios_base::end ) );
    EXPECT_EQ( 'd', bufPtr->sgetc() );
    EXPECT_EQ( 1, bufPtr->pubseekoff( -3, std::ios_base::cur ) );
    EXPECT_EQ( 'b', bufPtr->sbumpc() );
    EXPECT_EQ( 0, bufPtr->pubseekoff( 0, std::ios_base::beg ) );
    EXPECT_THROW( bufPtr->pubseekoff( 0, static_cast< std::ios_base::seekdir >( 9 ) ),
                  LogicException );
}

} // namespace
} // namespace Nuv::Utils
