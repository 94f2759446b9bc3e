#include "nuvString.h"

#include <cstring>
#include <gtest/gtest.h>

namespace Nuv::Utils {
namespace {

TEST( StringTrim, RemovesTheFourCharactersAtEitherEnd )
{
    String text( " \t abc \r\n" );
    text.trimLeft();
    EXPECT_EQ( "abc \r\n", text );
    text.trimRight();
    EXPECT_EQ( "abc", text );
    StringW blank( L" \r\n\t" ), other( L"\v\f x" );
    blank.trimRight();
    other.trimLeft();
    EXPECT_EQ( L"\v\f x", blank + other );
}

TEST( StringToken, ReturnsFieldsBetweenRunsOfDelimiters )
{
    const char* const rows[][3] = { // text, delimiters; the tokens
                                    { "a,,b", ",", "[a][b]" },
                                    { ";,a;b,", ",;", "[a][b]" },
                                    { "a,b", "", "[a,b]" },
                                    { ",,", ",", "" } };
    for ( const auto& [textPtr, delimitersPtr, tokensPtr] : rows ) {
        String text( textPtr ), token( "old" );
        std::string tokens;
        while ( text.nextToken( &token, delimitersPtr ) )
            tokens += "[" + token + "]";
        EXPECT_EQ( tokensPtr, tokens );
        EXPECT_FALSE( text.nextToken( &token, delimitersPtr ) || !token.empty() );
    }
}

TEST( StringToken, ScanPositionFollowsCopiesAndIsResetByNewText )
{
    String text( "a,b,c" ), token, assigned( "longer text" );
    EXPECT_THROW( text.nextToken( nullptr, "," ), LogicException );
    EXPECT_TRUE( text.nextToken( &token, "," ) );
    assigned = text;
    EXPECT_TRUE( assigned.nextToken( &token, "," ) && token == "b" );
    token = text; // a token's own scan position is 0, whatever it was
    EXPECT_TRUE( text.nextToken( &token, "," ) && token.scanPos() == 0 );
    assigned.trimLeft();
    EXPECT_EQ( 0u, assigned.scanPos() );
    EXPECT_TRUE( text.nextToken( &text, "," ) && text == "c" ); // into itself
}

TEST( StringCase, MapsAndComparesWithoutCase )
{
    String text( "aBc1" );
    text.makeUpper();
    EXPECT_EQ( "ABC1", text );
    std::string target( "old" );
    text.tolowerHelper( text, &target );
    EXPECT_EQ( "abc1", target );
    EXPECT_EQ( 0, String( "ABC" ).compareNoCase( "abc" ) );
    EXPECT_LT( String( "ab" ).compareNoCase( "ABC" ), 0 );
    EXPECT_GT( String( "\xE4" ).compareNoCase( "z" ), 0 ); // bytes are unsigned
    EXPECT_EQ( 1u, String( "xAbab" ).findNoCase( "aB" ) );
    EXPECT_EQ( 1u, String( "xAbab" ).rfindNoCase( "AB", 2 ) );
    EXPECT_THROW( text.compareNoCase( nullptr ), LogicException );
}

TEST( StringWidth, ConversionReplacesWhatHasNoNarrowForm )
{
    EXPECT_EQ( "a.b", String( L"a\u20ACb" ) );
    EXPECT_EQ( L"abc", StringW( "abc" ) );
    EXPECT_EQ( std::wstring( L"a\0b", 3 ), StringW( "a\0bc", 3 ) );
    EXPECT_THROW( String( static_cast< const wchar_t* >( nullptr ) ), LogicException );
}

TEST( SimpleStrText, IsCutAtLengthOrNulAndOwned )
{
    SimpleStr text;
    EXPECT_EQ( &SimpleStr::nullChar, text.cStr() );
    text.assign( "ab\0cd", 5 );
    EXPECT_STREQ( "ab", text.cStr() );
    text.alloc( "ab", 50000000 ); // nothing behind the NUL is read
    EXPECT_STREQ( "ab", text.cStr() );
    text = text.cStr() + 1; // part of itself
    EXPECT_STREQ( "b", text.cStr() );
    SimpleStr copy( text );
    EXPECT_TRUE( text.cStr() != copy.cStr() && text == copy );
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
    name = name.cStr() + 12; // part of itself
    EXPECT_EQ( "cde" + std::string( 13, '\0' ), bytes() );
    EXPECT_THROW( name = static_cast< const char* >( nullptr ), LogicException );
    std::memset( static_cast< void* >( &name ), 'x', sizeof( name ) ); // as another process could
    EXPECT_EQ( 16u, name.length() );
    using Name = FixedString< char, 8 >;
    EXPECT_EQ( Name( "abcdefgXX" ), Name( "abcdefgYY" ) );
    EXPECT_LT( Name( "\x7F" ), Name( "\x80" ) );
}

} // namespace
} // namespace Nuv::Utils
