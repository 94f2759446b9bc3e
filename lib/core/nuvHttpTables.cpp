#include "nuvHttpTables.h"

namespace Nuv::Net::Http {

const char* const ourRequestMethodName[9] = { "OPTIONS", "GET",   "HEAD",    "POST",       "PUT",
                                              "DELETE",  "TRACE", "CONNECT", "DIAGNOSTICS" };
const char* const ourHttpVersionName[2] = { "HTTP/1.0", "HTTP/1.1" };
const char* const ourFormEncodedContentTypeTextPtr = "application/x-www-form-urlencoded";

constexpr HeaderTextMap::Pair ourHttpHeaderTextLookupData[ourHttpHeaderTextLookupSize] = {
    { headerCacheControl, "Cache-Control" },
    { headerConnection, "Connection" },
    { headerDate, "Date" },
    { headerPragma, "Pragma" },
    { headerTrailer, "Trailer" },
    { headerTransferEncoding, "Transfer-Encoding" },
    { headerUpgrade, "Upgrade" },
    { headerVia, "Via" },
    { headerWarning, "Warning" },
    { headerAccept, "Accept" },
    { headerAcceptCharset, "Accept-Charset" },
    { headerAcceptEncoding, "Accept-Encoding" },
    { headerAcceptLanguage, "Accept-Language" },
    { headerAuthorization, "Authorization" },
    { headerExpect, "Expect" },
    { headerFrom, "From" },
    { headerHost, "Host" },
    { headerIfMatch, "If-Match" },
    { headerIfModifiedSince, "If-Modified-Since" },
    { headerIfNoneMatch, "If-None-Match" },
    { headerIfRange, "If-Range" },
    { headerIfUnmodifiedSince, "If-Unmodified-Since" },
    { headerMaxForwards, "Max-Forwards" },
    { headerProxyAuthorization, "Proxy-Authorization" },
    { headerRange, "Range" },
    { headerReferer, "Referer" },
    { headerTe, "TE" },
    { headerUserAgent, "User-Agent" },
    { headerAcceptRanges, "Accept-Ranges" },
    { headerAge, "Age" },
    { headerETag, "ETag" },
    { headerLocation, "Location" },
    { headerProxyAuthenticate, "Proxy-Authenticate" },
    { headerRetryAfter, "Retry-After" },
    { headerServer, "Server" },
    { headerVary, "Vary" },
    { headerWwwAuthenticate, "WWW-Authenticate" },
    { headerAllow, "Allow" },
    { headerContentEncoding, "Content-Encoding" },
    { headerContentLanguage, "Content-Language" },
    { headerContentLength, "Content-Length" },
    { headerContentLocation, "Content-Location" },
    { headerContentMd5, "Content-MD5" },
    { headerContentRange, "Content-Range" },
    { headerContentType, "Content-Type" },
    { headerExpires, "Expires" },
    { headerLastModified, "Last-Modified" },
    { headerCookie, "Cookie" },
    { headerSetCookie, "Set-Cookie" },
    { headerKeepAlive, "Keep-Alive" },
    { headerRefresh, "Refresh" },
    { headerQlexParameters, "X-Torva-Qlex-Parameters" },
    { headerXGzip, "x-gzip" },
    { headerXReleaseTag, "x-release_tag" },
    { headerZip, "Zip" },
};
constexpr HeaderMapByName::Pair ourHttpHeaderLookupData[ourHttpHeaderLookupSize] = {
    { "accept", headerAccept },
    { "accept-charset", headerAcceptCharset },
    { "accept-encoding", headerAcceptEncoding },
    { "accept-language", headerAcceptLanguage },
    { "accept-ranges", headerAcceptRanges },
    { "age", headerAge },
    { "allow", headerAllow },
    { "authorization", headerAuthorization },
    { "cache-control", headerCacheControl },
    { "connection", headerConnection },
    { "content-encoding", headerContentEncoding },
    { "content-language", headerContentLanguage },
    { "content-length", headerContentLength },
    { "content-location", headerContentLocation },
    { "content-md5", headerContentMd5 },
    { "content-range", headerContentRange },
    { "content-type", headerContentType },
    { "cookie", headerCookie },
    { "date", headerDate },
    { "etag", headerETag },
    { "expect", headerExpect },
    { "expires", headerExpires },
    { "from", headerFrom },
    { "host", headerHost },
    { "if-match", headerIfMatch },
    { "if-modified-since", headerIfModifiedSince },
    { "if-none-match", headerIfNoneMatch },
    { "if-range", headerIfRange },
    { "if-unmodified-since", headerIfUnmodifiedSince },
    { "keep-alive", headerKeepAlive },
    { "last-modified", headerLastModified },
    { "location", headerLocation },
    { "max-forwards", headerMaxForwards },
    { "pragma", headerPragma },
    { "proxy-authenticate", headerProxyAuthenticate },
    { "proxy-authorization", headerProxyAuthorization },
    { "range", headerRange },
    { "referer", headerReferer },
    { "refresh", headerRefresh },
    { "retry-after", headerRetryAfter },
    { "server", headerServer },
    { "set-cookie", headerSetCookie },
    { "te", headerTe },
    { "trailer", headerTrailer },
    { "transfer-encoding", headerTransferEncoding },
    { "upgrade", headerUpgrade },
    { "user-agent", headerUserAgent },
    { "vary", headerVary },
    { "via", headerVia },
    { "warning", headerWarning },
    { "www-authenticate", headerWwwAuthenticate },
    { "x-gzip", headerXGzip },
    { "x-release_tag", headerXReleaseTag },
    { "x-torva-qlex-parameters", headerQlexParameters },
    { "zip", headerZip },
};
constexpr HeaderTextMap ourHeaderTextLookupMap( ourHttpHeaderTextLookupData );
constexpr HeaderMapByName ourHeaderLookupMap( ourHttpHeaderLookupData );
static_assert( ourHeaderTextLookupMap.isSorted() && ourHeaderLookupMap.isSorted() );

bool headerTypeExists( const char* namePtr, HttpHeader* headerPtr )
{
    const auto findResult = ourHeaderLookupMap.find( namePtr );
    if ( findResult == ourHeaderLookupMap.end() )
        return false;
    *headerPtr = findResult->value;
    return true;
}

const char* headerTypeText( HttpHeader header )
{
    const auto findResult = ourHeaderTextLookupMap.find( header );
    nuvAssert( findResult != ourHeaderTextLookupMap.end() );
    return findResult->value;
}

} // namespace Nuv::Net::Http
