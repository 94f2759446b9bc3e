#include "nuvString.h"

#include "nuvBuffer.h"
#include "nuvUtils.h"

#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace Nuv::Utils {
namespace {

TEST( StringTrim, RemovesTheFourCharactersAtEitherEnd )
{
    const struct
    {
        const char* textPtr;
        const char* leftPtr;  // after trimLeft
        const char* rightPtr; // after trimRight
    } rows[] = {
        { " \t abc \r\n", "abc \r\n", " \t abc" },
        { " \r\n\t", "", "" },
        { "", "", "" },
        { "a b", "a b", "a b" },
        { "\v\f x", "\v\f x", "\v\f x" },
    };
    for ( const auto& row : rows ) {
        SCOPED_TRACE( row.textPtr );
        String left( row.textPtr ), right( row.textPtr );
        left.trimLeft();
        right.trimRight();
        EXPECT_EQ( row.leftPtr, left );
        EXPECT_EQ( row.rightPtr, right );
    }
    StringW wide( L" \r\n\tabc\t" );
    wide.trimLeft();
    wide.trimRight();
    EXPECT_EQ( L"abc", wide );
}

std::vector< std::string > tokens( String text, std::string_view delimiters )
{
    std::vector< std::string > result;
    String token( "old" );
    while ( text.nextToken( &token, delimiters ) ) {
        result.push_back( token );
    }
    EXPECT_TRUE( token.empty() );
    EXPECT_FALSE( text.nextToken( &token, delimiters ) ); // stays exhausted
    return result;
}

TEST( StringToken, ReturnsFieldsBetweenRunsOfDelimiters )
{
    using Tokens = std::vector< std::string >;
    EXPECT_EQ( ( Tokens{ "a", "b" } ), tokens( "a,,b", "," ) );
    EXPECT_EQ( ( Tokens{ "a", "b" } ), tokens( ";,a;b,", ",;" ) );
    EXPECT_EQ( ( Tokens{ "a,b" } ), tokens( "a,b", "" ) );
    EXPECT_EQ( Tokens(), tokens( ",,", "," ) );
    EXPECT_EQ( Tokens(), tokens( "", "," ) );
    String text( "a,b" );
    EXPECT_THROW( text.nextToken( nullptr, "," ), LogicException );
}

TEST( StringToken, ScanPositionFollowsCopiesAndIsResetByNewText )
{
    String text( "a,b,c" ), token;
    ASSERT_TRUE( text.nextToken( &token, "," ) );
    EXPECT_EQ( 1u, text.scanPos() );
    EXPECT_EQ( 1u, String( text ).scanPos() );
    String assigned( "longer text" );
    assigned = text;
    ASSERT_TRUE( assigned.nextToken( &token, "," ) );
    EXPECT_EQ( "b", token );
    token = text; // a token's own scan position is 0, whatever it was
    ASSERT_TRUE( text.nextToken( &token, "," ) );
    EXPECT_EQ( 0u, token.scanPos() );
    String trimmed( text ), emptied( " ," ), renewed( text );
    trimmed.trimLeft();
    EXPECT_EQ( 0u, trimmed.scanPos() );
    emptied.nextToken( &token, "," );
    emptied.trimRight();
    EXPECT_EQ( 0u, emptied.scanPos() );
    renewed = "x,y";
    EXPECT_EQ( 0u, renewed.scanPos() );
    String& self = text;
    text = self;
    EXPECT_EQ( "a,b,c", text );
    EXPECT_EQ( 3u, text.scanPos() );
    ASSERT_TRUE( text.nextToken( &text, "," ) ); // into itself
    EXPECT_EQ( "c", text );
}

TEST( StringCase, MapsAndComparesWithoutCase )
{
    String text( "aBc1" );
    text.makeUpper();
    EXPECT_EQ( "ABC1", text );
    text.makeLower();
    EXPECT_EQ( "abc1", text );
    std::string target( "old" );
    text.toupperHelper( std::string(), &target );
    EXPECT_EQ( "", target );
    text.toupperHelper( "mIx", &target );
    EXPECT_EQ( "MIX", target );

    EXPECT_EQ( 0, String( "ABC" ).compareNoCase( "abc" ) );
    EXPECT_LT( String( "ab" ).compareNoCase( "ABC" ), 0 );
    EXPECT_GT( String( "b" ).compareNoCase( "ABC" ), 0 );
    EXPECT_GT( String( "\xE4" ).compareNoCase( "z" ), 0 ); // bytes are unsigned
    EXPECT_EQ( 1u, String( "xAbab" ).findNoCase( "aB" ) );
    EXPECT_EQ( 3u, String( "xAbab" ).findNoCase( "aB", 2 ) );
    EXPECT_EQ( String::npos, String( "xAbab" ).findNoCase( "c" ) );
    EXPECT_EQ( 3u, String( "xAbab" ).rfindNoCase( "AB" ) );
    EXPECT_EQ( 1u, String( "xAbab" ).rfindNoCase( "AB", 2 ) );
    EXPECT_EQ( 0, StringW( L"ABC" ).compareNoCase( L"abc" ) );
    EXPECT_THROW( text.compareNoCase( nullptr ), LogicException );
    EXPECT_THROW( text.findNoCase( nullptr ), LogicException );
    EXPECT_THROW( text.rfindNoCase( nullptr ), LogicException );
}

TEST( StringWidth, ConversionReplacesWhatHasNoNarrowForm )
{
    EXPECT_EQ( "a.b", String( L"a\u20ACb" ) );
    EXPECT_EQ( "a", String( L"abc", 1 ) );
    EXPECT_EQ( "", String( L"" ) );
    EXPECT_EQ( L"abc", StringW( "abc" ) );
    EXPECT_EQ( std::wstring( L"a\0b", 3 ), StringW( "a\0bc", 3 ) );
    const wchar_t* const nullPtr = nullptr;
    EXPECT_THROW( String text( nullPtr ), LogicException );
    EXPECT_THROW( String( nullPtr, 0 ), LogicException );
}

TEST( StringType, IsAStandardStringWithAVirtualDestructor )
{
    static_assert( std::has_virtual_destructor_v< String > &&
                   std::has_virtual_destructor_v< StringW > );
    const String text = String( "a" ) + "b" + std::string( "c" );
    EXPECT_EQ( "abc", Buffer( text ) );
    EXPECT_LT( std::string( "abb" ), text );
    OBufferStream stream;
    stream << text << FixedString< char, 4 >( "fixed" ) << SimpleStr( "simple" );
    EXPECT_EQ( "abcfixsimple", stream.view() );
}

TEST( SimpleStrText, IsCutAtLengthOrNulAndOwned )
{
    SimpleStr text;
    EXPECT_EQ( &SimpleStr::nullChar, text.cStr() );
    text.alloc( "abcdef", 3 );
    EXPECT_STREQ( "abc", text.cStr() );
    text.assign( "ab\0cd", 5 );
    EXPECT_STREQ( "ab", text.cStr() );
    text.alloc( "ab", 50000000 ); // nothing behind the NUL is read
    EXPECT_STREQ( "ab", text.cStr() );
    text = text.cStr() + 1; // part of itself
    EXPECT_STREQ( "b", text.cStr() );
    SimpleStr copy( text );
    EXPECT_NE( text.cStr(), copy.cStr() );
    EXPECT_EQ( text, copy );
    const char* const storagePtr = copy.cStr();
    const SimpleStr& self = copy;
    copy = self;
    EXPECT_EQ( storagePtr, copy.cStr() );
    text = SimpleStr( "moved" );
    EXPECT_STREQ( "moved", text.cStr() );
    text.alloc( "", 0 );
    EXPECT_EQ( &SimpleStr::nullChar, text.cStr() );
    copy.dealloc();
    copy.dealloc();
    EXPECT_TRUE( copy.empty() );
    EXPECT_THROW( text = static_cast< const char* >( nullptr ), LogicException );
}

template < class T >
std::string bytesOf( const T& object )
{
    return std::string( reinterpret_cast< const char* >( &object ), sizeof( object ) );
}

TEST( FixedStringText, IsCutAndPaddedWithNuls )
{
    FixedString< char, 16 > name( "0123456789abcdefghij" );
    EXPECT_STREQ( "0123456789abcde", name.cStr() );
    name = "short";
    EXPECT_EQ( "short" + std::string( 11, '\0' ), bytesOf( name ) );
    name = name.cStr() + 1; // part of itself
    EXPECT_EQ( "hort" + std::string( 12, '\0' ), bytesOf( name ) );
    name = std::string_view( "a\0b", 3 );
    EXPECT_EQ( "a" + std::string( 15, '\0' ), bytesOf( name ) );
    EXPECT_EQ( 15u, ( FixedString< char, 16 >( "123456789012345" ).length() ) );
    EXPECT_TRUE( ( FixedString< char, 1 >( "abc" ).empty() ) );
    EXPECT_EQ( L"wi", ( FixedString< wchar_t, 3 >( L"wide" ).view() ) );
    EXPECT_THROW( name = static_cast< const char* >( nullptr ), LogicException );
    std::memset( static_cast< void* >( &name ), 'x', sizeof( name ) ); // as another process could
    EXPECT_EQ( 16u, name.length() );
}

TEST( FixedStringText, OrdersByUnsignedBytes )
{
    using Name = FixedString< char, 8 >;
    EXPECT_EQ( Name( "abcdefgXX" ), Name( "abcdefgYY" ) );
    EXPECT_NE( Name( "a" ), Name( "b" ) );
    EXPECT_LT( Name( "a" ), Name( "ab" ) );
    EXPECT_LT( Name( "\x7F" ), Name( "\x80" ) );
    const std::map< Name, int > map{ { "b", 2 }, { "a", 1 } };
    EXPECT_EQ( 1, map.begin()->second );
}

} // namespace
} // namespace Nuv::Utils
