#pragma once

#include "nuv.h"

#include <string>

namespace Nuv::Utils {

/// A URI in its parts, each a text that is empty when absent.
///
///     scheme://user@host:port/path?query#fragment
///
/// No part holds the character that sets it off: the path is kept without its leading "/".
/// Nothing is encoded or decoded (see Net::Http::escapeUriStr()).
///
/// Threads: one at a time; const operations may run concurrently.
/// Errors:  null for a text or a result fails nuvAssert.
/// Example: UriString uri; std::string error; uri.assign( "http://10.0.0.1/a", &error );
class NUV_API UriString
{
public:
    void scheme( const char* textPtr );
    void user( const char* textPtr );
    void host( const char* textPtr );
    void hostPort( const char* textPtr );
    void path( const char* textPtr );
    void query( const char* textPtr );
    void fragment( const char* textPtr );
    void reset();

    /// Takes a text apart as RFC 3986 does. A path that does not begin with "/" is dropped.
    /// @param errorPtr what is wrong with the authority, which is dropped then; empty otherwise
    /// @return true
    bool assign( const char* textPtr, std::string* errorPtr );

    const std::string& scheme() const { return myScheme; }
    const std::string& user() const { return myUser; }
    const std::string& host() const { return myHost; }
    const std::string& hostPort() const { return myHostPort; }
    const std::string& path() const { return myPath; }
    const std::string& query() const { return myQuery; }
    const std::string& fragment() const { return myFragment; }

    /// user "@" host ":" port, as far as there are any. @return whether there is something
    bool getAuthorityStr( std::string* textPtr ) const;
    /// The whole. Without a scheme it begins with the authority, without "//".
    void getStr( std::string* textPtr ) const;
    /// Whether getStr()'s text is a URI.
    /// @param errorPtr why it is not; empty otherwise
    bool isValid( std::string* errorPtr ) const;

    /// Splits at the last "/": "/etc/file" is "/etc" and "file", "/file" is "/" and "file", "file"
    /// is "." and "file".
    static void splitPath( const char* pathPtr, std::string* directoryPtr, std::string* filePtr );

private:
    void assignAuthority( const std::string& authority, std::string* errorPtr );

    std::string myScheme;
    std::string myUser;
    std::string myHost;
    std::string myHostPort;
    std::string myPath;
    std::string myQuery;
    std::string myFragment;
};

} // namespace Nuv::Utils
