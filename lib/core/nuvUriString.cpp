#include "nuvUriString.h"

#include "nuvRegEx.h"

namespace Nuv::Utils {

namespace {

constexpr const char* invalidAuthority = "errSystemError UriString had an invalid authority string";

const RegEx& uriPattern()
{
    static const RegEx ourPattern( "^(([^:/?#]+):)?(//([^/?#]*))?([^?#]*)(\\?([^#]*))?(#(.*))?" );
    return ourPattern;
}

const RegEx& authorityPattern()
{
    static const RegEx ourPattern( "^(([^:]+)@)?([^:]+)(:(.*))?" );
    return ourPattern;
}

void set( std::string* fieldPtr, const char* textPtr )
{
    nuvAssert( textPtr != NULL );
    *fieldPtr = textPtr;
}

} // namespace

void UriString::scheme( const char* textPtr )
{
    set( &myScheme, textPtr );
}

void UriString::user( const char* textPtr )
{
    set( &myUser, textPtr );
}

void UriString::host( const char* textPtr )
{
    set( &myHost, textPtr );
}

void UriString::hostPort( const char* textPtr )
{
    set( &myHostPort, textPtr );
}

void UriString::path( const char* textPtr )
{
    set( &myPath, textPtr );
}

void UriString::query( const char* textPtr )
{
    set( &myQuery, textPtr );
}

void UriString::fragment( const char* textPtr )
{
    set( &myFragment, textPtr );
}

void UriString::reset()
{
    *this = UriString();
}

bool UriString::assign( const char* textPtr, std::string* errorPtr )
{
    nuvAssert( textPtr != NULL && errorPtr != NULL );
    const std::string text = textPtr; // it may be one of this object's own
    errorPtr->clear();
    reset();
    RegEx::SearchResults groups;
    if ( !uriPattern().search( text.c_str(), &groups ) )
        return true;
    myScheme = groups[2].text();
    const std::string authority( groups[4].text() );
    if ( !authority.empty() )
        assignAuthority( authority, errorPtr );
    if ( groups[5].text().starts_with( '/' ) )
        myPath = groups[5].text().substr( 1 );
    myQuery = groups[7].text();
    myFragment = groups[9].text();
    return true;
}

void UriString::assignAuthority( const std::string& authority, std::string* errorPtr )
{
    RegEx::SearchResults groups;
    if ( !authorityPattern().search( authority.c_str(), &groups ) ) {
        *errorPtr = invalidAuthority;
        return;
    }
    myUser = groups[2].text();
    myHost = groups[3].text();
    myHostPort = groups[5].text();
}

bool UriString::getAuthorityStr( std::string* textPtr ) const
{
    nuvAssert( textPtr != NULL );
    textPtr->clear();
    if ( !myUser.empty() )
        textPtr->append( myUser ).append( "@" );
    textPtr->append( myHost );
    if ( !myHostPort.empty() )
        textPtr->append( ":" ).append( myHostPort );
    return !textPtr->empty();
}

void UriString::getStr( std::string* textPtr ) const
{
    nuvAssert( textPtr != NULL );
    std::string authority;
    getAuthorityStr( &authority );
    textPtr->clear();
    if ( !myScheme.empty() )
        textPtr->append( myScheme ).append( "://" );
    textPtr->append( authority );
    if ( !myPath.empty() )
        textPtr->append( "/" ).append( myPath );
    if ( !myQuery.empty() )
        textPtr->append( "?" ).append( myQuery );
    if ( !myFragment.empty() )
        textPtr->append( "#" ).append( myFragment );
}

bool UriString::isValid( std::string* errorPtr ) const
{
    nuvAssert( errorPtr != NULL );
    errorPtr->clear();
    std::string text;
    getStr( &text );
    try {
        if ( uriPattern().search( text.c_str() ) )
            return true;
        *errorPtr = "the text is no URI";
    } catch ( const RegEx::Exception& e ) {
        *errorPtr = e.what();
    }
    return false;
}

void UriString::splitPath( const char* pathPtr, std::string* directoryPtr, std::string* filePtr )
{
    nuvAssert( pathPtr != NULL && directoryPtr != NULL && filePtr != NULL );
    const std::string path = pathPtr;
    const std::size_t slash = path.rfind( '/' );
    if ( slash == std::string::npos )
        *directoryPtr = ".";
    else
        *directoryPtr = slash == 0 ? "/" : path.substr( 0, slash );
    *filePtr = slash == std::string::npos ? path : path.substr( slash + 1 );
}

} // namespace Nuv::Utils
