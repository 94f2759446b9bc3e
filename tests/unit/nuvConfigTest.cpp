#include "nuvConfig.h"

#include "nuvTestSupport.h"

#include <iterator>
#include <sstream>
#include <tuple>
#include <utility>

namespace Nuv::Utils {
namespace {

Config configOf( const std::string& text )
{
    std::istringstream stream( text );
    return Config( stream );
}

TEST( ConfigValues, ReadAsIntegerOrTextByTheirShape )
{
    constexpr int none = -99; // what intValue() gives for a text
    // A line that assigns "k"; then its text and number.
    const std::tuple< const char*, const char*, int > rows[] = {
        { "k=0x1F", "31", 31 },
        { "k=-0X1f", "-31", -31 },
        { "k=+5", "5", 5 },
        { "k=-2147483647", "-2147483647", -2147483647 },
        { "k =", "", none },
        { "k x = c", "c", none },
        { "k\tx = c = d", "c = d", none },
        { "=k", "k", none }, // the key is the first run of other characters, wherever the '=' is
        { "  k  =  a \"b\" #c  \t\r", "a \"b\" #c", none },
        { "k = \"\\n\\r\\t\\\\\\\"\\x\" rest", "\n\r\t\\\"x", none },
        { "k = \"a\\\"", "a\\", none }, // the backslash is the last character of the text
        { "k = \"a\" b \"c\" d", "a\" b \"c", none },
        { "k = \"open", "", none },
    };
    for ( const auto& [linePtr, textPtr, number] : rows ) {
        SCOPED_TRACE( linePtr );
        const Config config = configOf( linePtr );
        EXPECT_EQ( textPtr, config.stringValue( "", "k", "?" ) );
        EXPECT_EQ( number, config.intValue( "", "k", none ) );
    }
    for ( const char* textPtr :
          { "08", "+-5", "-", "+", "0x", "0x-1", "0b101", "- 5", "1.5", "2147483647", "-2147483648",
            "4294967297", "0xFFFFFFFF1", "99999999999999999999", "8080 # web" } ) {
        const Config config = configOf( std::string( "k=" ) + textPtr );
        EXPECT_EQ( textPtr, config.stringValue( "", "k", "?" ) );
        EXPECT_EQ( none, config.intValue( "", "k", none ) ) << textPtr;
    }
}

TEST( ConfigValues, BooleansComeFromTheTableOrTheNumber )
{
    // The value with the default false, and with true.
    const auto read = []( const std::string& text ) {
        const Config config = configOf( "k=" + text );
        return std::pair( config.boolValue( "", "k", false ), config.boolValue( "", "k", true ) );
    };
    for ( const char* textPtr : { "T", "TRUE", "Y", "YES", "t", "true", "y", "yes", "2" } )
        EXPECT_EQ( std::pair( true, true ), read( textPtr ) ) << textPtr;
    for ( const char* textPtr : { "F", "FALSE", "N", "NO", "f", "false", "n", "no", "0" } )
        EXPECT_EQ( std::pair( false, false ), read( textPtr ) ) << textPtr;
    for ( const char* textPtr : { "Yes", "on", "", "\"1\"", "yes no", "08" } )
        EXPECT_EQ( std::pair( false, true ), read( textPtr ) ) << textPtr;
}

// The sections and pairs of the tree, in order: "path{key=text,...}".
std::string shape( const Config::Node& node )
{
    std::string result = node.path() + "{";
    for ( const auto& [key, value] : node.values() )
        result += key + "=" + value.text + ",";
    result += "}";
    for ( const auto& [name, childPtr] : node.children() )
        result += shape( *childPtr );
    return result;
}

TEST( ConfigSections, AreAbsoluteAndMerge )
{
    const char* const rows[][2] = {
        { "\n \t\r\n#a=b\n;c=d\n =\t= \n", "{}" },
        { "[x]\nk=1\n[y/z]\nk=2\n[x]\nk=3\n", "{}x{k=3,}y{}y/z{k=2,}" },
        { "[a]b]\nk=1\n[a/b]\nl=2", "{}a{}a/b{k=1,l=2,}" },
        { "[a]\n[]\nk=1\n[//]]/]\nl=2", "{k=1,l=2,}a{}" },
        { "[a//b", "{}a{}a/b{}" },
        { "  [ a ]  # c\r\nk=1\r\n", "{} a {} a /  # c{k=1,}" }, // text behind the ']' is a name
        { "b=1\na=2\n[B]\n[A]\nB=1\nb=1\nB=x", "{a=2,b=1,}A{B=x,b=1,}B{}" },
        { "k=1\nk=a\nk=2", "{k=2,}" },
    };
    for ( const auto& [textPtr, shapePtr] : rows )
        EXPECT_EQ( shapePtr, shape( configOf( textPtr ).root() ) ) << textPtr;
}

TEST( ConfigSections, MissingOnesYieldDefaultsAndOthersAreIteratedInOrder )
{
    const Config config = configOf( "k=1\n[a/b]\nk=0x10\nl=no\n[a/a]\n[a/c/d]" );
    for ( const char* pathPtr :
          { "x", "a/x", "a/b/x", "/", "/a", "a/", "a//b", "a/b/", "A", " a" } ) {
        EXPECT_EQ( nullptr, config.findKey( pathPtr ) ) << pathPtr;
        const Config::KeyIterator section = config.keyIterator( pathPtr );
        EXPECT_FALSE( section.isValid() );
        EXPECT_EQ( config.begin( section ), config.end( section ) );
        EXPECT_EQ( config.tspBegin( section ), config.tspEnd( section ) );
        EXPECT_EQ( 7, config.intValue( pathPtr, "k", 7 ) );
        EXPECT_TRUE( config.boolValue( section, "k", true ) );
    }
    EXPECT_EQ( config.keyIterator( "a/x" ), config.end( "a" ) ); // where the walk stopped
    std::string names;
    for ( Config::KeyIterator i = config.begin( "a" ); i != config.end( "a" ); ++i )
        names += i->first + ( i->second->values().empty() ? "" : "+" );
    EXPECT_EQ( "ab+c", names );
    const Config::KeyIterator section = config.keyIterator( "a/b" );
    ASSERT_TRUE( section.isValid() );
    EXPECT_EQ( 16, config.intValue( section, "k", 0 ) );
    EXPECT_EQ( "l", std::next( config.tspBegin( section ) )->first );
}

TEST( ConfigNode, TreeOfAnyDepthIsReleased )
{
    std::string header = "[";
    while ( header.size() < 800000 )
        header += "a/b/";
    EXPECT_EQ( "a", configOf( header + "\nk=1\n[c]" ).root().children().begin()->first );
}

TEST( ConfigChecked, ReportsWhatTheReaderSwallowed )
{
    const char* const rows[][2] = {
        // line; section, key and reason of what is told of it
        { "a = 127.0.0.1", "" },
        { "= \t=", "||no key: line ignored\n" },
        { "[s/t] u", "s/t/ u||text behind ']' read as a section name\n" },
        { "b", "s/t/ u|b|no '=': the value is empty\n" },
        { "c d = e", "s/t/ u|c|text between key and '=' ignored\n" },
        { "f = \"open", "s/t/ u|f|quote not closed: the value is empty\n" },
        { "g = \"h\" i", "s/t/ u|g|text behind the closing quote ignored\n" },
        { "j = 08", "s/t/ u|j|reads as text, not as a number\n" },
        { "j = 1", "s/t/ u|j|overwrites an earlier value of the key\n" },
        { "[v", "v||section header without ']'\n" } };
    std::string text, expected, report;
    for ( unsigned int i = 0; i < std::size( rows ); ++i ) {
        text += rows[i][0] + std::string( "\n" );
        if ( *rows[i][1] != '\0' )
            expected += std::to_string( i + 1 ) + rows[i][0] + rows[i][1];
    }
    std::istringstream stream( text );
    Config config;
    Config::Remarks remarks;
    config.loadChecked( stream, &remarks );
    for ( const Config::Remark& remark : remarks )
        report += std::to_string( remark.lineNbr ) + remark.line + remark.section + '|' +
                  remark.key + '|' + remark.reasonStr() + '\n';
    EXPECT_EQ( expected, report );
}

TEST( ConfigFile, LoadsFilesAndIgnoresWhatIsNone )
{
    const NuvTest::TemporaryFolder folder;
    NuvTest::writeFile( folder.path( "a.conf" ),
                        "first = 1\n#" + std::string( 100000, 'x' ) + "\nlast = 2" ); // no final LF
    EXPECT_EQ( "{first=1,last=2,}", shape( Config( folder.path( "a.conf" ) ).root() ) );
    Config other;
    EXPECT_FALSE( other.loadFrom( folder.path( "missing" ) ) );
    EXPECT_FALSE( other.loadFrom( folder.path() ) );
}

} // namespace
} // namespace Nuv::Utils
