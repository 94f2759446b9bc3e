#include "nuvString.h"

#include <gtest/gtest.h>
#include <new>
#include <string>
#include <vector>

namespace Nuv::Utils {
namespace {

TEST( StringTrim, RemovesTheFourCharactersAtEitherEnd )
{
    // Text; then the text after trimLeft, after trimRight.
    const char* const rows[][3] = {
        { " \t abc \r\n", "abc \r\n", " \t abc" },
        { " \r\n\t", "", "" },
        { "\v\f x", "\v\f x", "\v\f x" },
    };
    for ( const auto& row : rows ) {
        String left( row[0] ), right( row[0] );
        left.trimLeft();
        right.trimRight();
        EXPECT_EQ( row[1], left );
        EXPECT_EQ( row[2], right );
    }
    StringW wide( L"abc\t" );
    wide.trimRight();
    EXPECT_EQ( L"abc", wide );
}

std::vector< std::string > tokens( String text, std::string_view delimiters )
{
    std::vector< std::string > result;
    String token( "old" );
    while ( text.nextToken( &token, delimiters ) )
        result.push_back( token );
    EXPECT_FALSE( text.nextToken( &token, delimiters ) || !token.empty() ); // stays exhausted
    return result;
}

TEST( StringToken, ReturnsFieldsBetweenRunsOfDelimiters )
{
    using Tokens = std::vector< std::string >;
    EXPECT_EQ( ( Tokens{ "a", "b" } ), tokens( "a,,b", "," ) );
    EXPECT_EQ( ( Tokens{ "a", "b" } ), tokens( ";,a;b,", ",;" ) );
    EXPECT_EQ( ( Tokens{ "a,b" } ), tokens( "a,b", "" ) );
    EXPECT_EQ( Tokens(), tokens( ",,", "," ) );
    String text( "a,b" );
    EXPECT_THROW( text.nextToken( nullptr, "," ), LogicException );
}

TEST( StringToken, ScanPositionFollowsCopiesAndIsResetByNewText )
{
    String text( "a,b,c" ), token;
    ASSERT_TRUE( text.nextToken( &token, "," ) );
    String assigned( "longer text" );
    assigned = text;
    ASSERT_TRUE( assigned.nextToken( &token, "," ) );
    EXPECT_EQ( "b", token );
    token = text; // a token's own scan position is 0, whatever it was
    ASSERT_TRUE( text.nextToken( &token, "," ) );
    EXPECT_EQ( 0u, token.scanPos() );
    String trimmed( text ), emptied( " ," );
    trimmed.trimLeft();
    EXPECT_EQ( 0u, trimmed.scanPos() );
    emptied.nextToken( &token, "," );
    emptied.trimRight();
    EXPECT_EQ( 0u, emptied.scanPos() );
    ASSERT_TRUE( text.nextToken( &text, "," ) ); // into itself
    EXPECT_EQ( "c", text );
}

TEST( StringCase, MapsAndComparesWithoutCase )
{
    String text( "aBc1" );
    text.makeUpper();
    EXPECT_EQ( "ABC1", text );
    std::string target( "old" );
    text.tolowerHelper( text, &target );
    EXPECT_EQ( "abc1", target );
    text.toupperHelper( std::string(), &target );
    EXPECT_EQ( "", target );
    EXPECT_EQ( 0, String( "ABC" ).compareNoCase( "abc" ) );
    EXPECT_LT( String( "ab" ).compareNoCase( "ABC" ), 0 );
    EXPECT_GT( String( "\xE4" ).compareNoCase( "z" ), 0 ); // bytes are unsigned
    EXPECT_EQ( 1u, String( "xAbab" ).findNoCase( "aB" ) );
    EXPECT_EQ( String::npos, String( "xAbab" ).findNoCase( "c" ) );
    EXPECT_EQ( 1u, String( "xAbab" ).rfindNoCase( "AB", 2 ) );
    EXPECT_EQ( 0, StringW( L"ABC" ).compareNoCase( L"abc" ) );
    EXPECT_THROW( text.compareNoCase( nullptr ), LogicException );
}

TEST( StringWidth, ConversionReplacesWhatHasNoNarrowForm )
{
    EXPECT_EQ( "a.b", String( L"a\u20ACb" ) );
    EXPECT_EQ( L"abc", StringW( "abc" ) );
    EXPECT_EQ( std::wstring( L"a\0b", 3 ), StringW( "a\0bc", 3 ) );
    const wchar_t* const nullPtr = nullptr;
    EXPECT_THROW( String text( nullPtr ), LogicException );
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
    text.alloc( "", 0 );
    EXPECT_EQ( &SimpleStr::nullChar, text.cStr() );
    EXPECT_THROW( text.alloc( "ab", std::string::npos ), std::bad_alloc );
    EXPECT_THROW( text = static_cast< const char* >( nullptr ), LogicException );
}

TEST( FixedStringText, IsCutAndPaddedWithNuls )
{
    FixedString< char, 16 > name( "0123456789abcdefghij" );
    const auto bytes = [&name] {
        return std::string( reinterpret_cast< const char* >( &name ), sizeof( name ) );
    };
    EXPECT_STREQ( "0123456789abcde", name.cStr() );
    name = "short";
    EXPECT_EQ( "short" + std::string( 11, '\0' ), bytes() );
    name = name.cStr() + 1; // part of itself
    EXPECT_EQ( "hort" + std::string( 12, '\0' ), bytes() );
    name = std::string_view( "a\0b", 3 );
    EXPECT_EQ( "a" + std::string( 15, '\0' ), bytes() );
    EXPECT_THROW( name = static_cast< const char* >( nullptr ), LogicException );
    std::memset( static_cast< void* >( &name ), 'x', sizeof( name ) ); // as another process could
    EXPECT_EQ( 16u, name.length() );
    using Name = FixedString< char, 8 >;
    EXPECT_EQ( Name( "abcdefgXX" ), Name( "abcdefgYY" ) );
    EXPECT_LT( Name( "\x7F" ), Name( "\x80" ) );
}

} // namespace
} // namespace Nuv::Utils
