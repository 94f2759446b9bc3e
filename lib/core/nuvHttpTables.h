#pragma once

#include "nuv.h"
#include "nuvUtils.h"

namespace Nuv::Net::Http {

/// The headers that the library knows, in the order in which they go on the wire: general, request,
/// response and entity headers, then extensions.
enum HttpHeader : int
{
    headerCacheControl = 0,
    headerConnection,
    headerDate,
    headerPragma,
    headerTrailer,
    headerTransferEncoding,
    headerUpgrade,
    headerVia,
    headerWarning,
    headerAccept,
    headerAcceptCharset = 10,
    headerAcceptEncoding,
    headerAcceptLanguage,
    headerAuthorization,
    headerExpect,
    headerFrom,
    headerHost,
    headerIfMatch,
    headerIfModifiedSince,
    headerIfNoneMatch,
    headerIfRange = 20,
    headerIfUnmodifiedSince,
    headerMaxForwards,
    headerProxyAuthorization,
    headerRange,
    headerReferer,
    headerTe,
    headerUserAgent,
    headerAcceptRanges,
    headerAge,
    headerETag = 30,
    headerLocation,
    headerProxyAuthenticate,
    headerRetryAfter,
    headerServer,
    headerVary,
    headerWwwAuthenticate,
    headerAllow,
    headerContentEncoding,
    headerContentLanguage,
    headerContentLength = 40,
    headerContentLocation,
    headerContentMd5,
    headerContentRange,
    headerContentType,
    headerExpires,
    headerLastModified,
    headerCookie,
    headerSetCookie,
    headerKeepAlive,
    headerRefresh = 50,
    headerQlexParameters,
    headerXGzip,
    headerXReleaseTag,
    headerZip
};

enum RequestMethod
{
    methodOptions = 0,
    methodGet = 1,
    methodHead = 2,
    methodPost = 3,
    methodPut = 4,
    methodDelete = 5,
    methodTrace = 6,
    methodConnect = 7,
    methodDiagnostics = 8
};

/// By RequestMethod.
NUV_API extern const char* const ourRequestMethodName[9];
/// "HTTP/1.0" and "HTTP/1.1".
NUV_API extern const char* const ourHttpVersionName[2];
NUV_API extern const char* const ourFormEncodedContentTypeTextPtr;

// Texts by value, and values by the text in lower case.
using HeaderTextMap = Utils::StaticMap< HttpHeader, const char* >;
using HeaderMapByName = Utils::StaticMap< const char*, HttpHeader >;
inline constexpr int ourHttpHeaderTextLookupSize = 55;
inline constexpr int ourHttpHeaderLookupSize = 55;
NUV_API extern const HeaderTextMap::Pair ourHttpHeaderTextLookupData[ourHttpHeaderTextLookupSize];
NUV_API extern const HeaderMapByName::Pair ourHttpHeaderLookupData[ourHttpHeaderLookupSize];
NUV_API extern const HeaderTextMap ourHeaderTextLookupMap;
NUV_API extern const HeaderMapByName ourHeaderLookupMap;

/// @param namePtr in lower case, compared exactly
/// @return false, with *headerPtr unchanged, for an unknown name
NUV_API bool headerTypeExists( const char* namePtr, HttpHeader* headerPtr );

/// @return the text as it goes on the wire; a value outside the table fails nuvAssert
///         "findResult != ourHeaderTextLookupMap.end()"
NUV_API const char* headerTypeText( HttpHeader header );

} // namespace Nuv::Net::Http
