#include "nuvUriString.h"

#include "nuvTestSupport.h"

#include <string>

using Nuv::Utils::UriString;

namespace {

std::string built( const UriString& uri )
{
    std::string text;
    uri.getStr( &text );
    return text;
}

constexpr const char* invalid = "errSystemError UriString had an invalid authority string";

} // namespace

TEST( UriStrings, AreTakenApartAndPutTogether )
{
    const struct
    {
        const char* text;
        const char* parts; // scheme|user|host|port|path|query|fragment
        const char* error;
        const char* built; // null: the text
    } cases[] = {
        { "http://u@h:80/p/q?x#f", "http|u|h|80|p/q|x|f", "", nullptr },
        { "http://10.0.0.1:8080/a/b?x=1", "http||10.0.0.1|8080|a/b|x=1|", "", nullptr },
        { "http://h", "http||h||||", "", nullptr },
        { "http://h/", "http||h||||", "", "http://h" },
        { "http://h:/p", "http||h||p||", "", "http://h/p" },
        { "http:///p", "http||||p||", "", nullptr },
        { "http://:80/p", "http||||p||", invalid, "http:///p" },
        { "http://u@:80", "http||u@|80|||", "", "http://u@:80" },
        { "http://u:p@h/x", "http||u|p@h|x||", "", nullptr },
        { "//h/p", "||h||p||", "", "h/p" },
        { "/p?q?r#f#g", "||||p|q?r|f#g", "", nullptr },
        { "?q", "|||||q|", "", nullptr },
        { "#f", "||||||f", "", nullptr },
        { "p/q", "||||||", "", "" },
        { "mailto:x", "mailto||||||", "", "mailto://" },
        { "", "||||||", "", nullptr },
    };
    for ( const auto& test : cases ) {
        SCOPED_TRACE( test.text );
        UriString uri;
        uri.fragment( "old" );
        std::string error = "old";
        EXPECT_TRUE( uri.assign( test.text, &error ) );
        EXPECT_EQ( test.error, error );
        EXPECT_EQ( test.parts, uri.scheme() + "|" + uri.user() + "|" + uri.host() + "|" +
                                   uri.hostPort() + "|" + uri.path() + "|" + uri.query() + "|" +
                                   uri.fragment() );
        EXPECT_EQ( test.built != nullptr ? test.built : test.text, built( uri ) );
        EXPECT_TRUE( uri.isValid( &error ) );
        EXPECT_EQ( "", error );
    }
}

TEST( UriStrings, SplitPathsAtTheLastSlash )
{
    const char* const cases[][3] = {
        { "/etc/file", "/etc", "file" }, { "/file", "/", "file" }, { "file", ".", "file" },
        { "a/b/", "a/b", "" },           { "/", "/", "" },         { "", ".", "" } };
    for ( const auto& test : cases ) {
        std::string directory;
        std::string file;
        UriString::splitPath( test[0], &directory, &file );
        EXPECT_EQ( std::string( test[1] ) + " " + test[2], directory + " " + file ) << test[0];
    }
}
