// The first byte selects the reader: header block, date, escapes or authorization. What was read
// must survive being written and read again.

#include "nuvBuffer.h"
#include "nuvFuzz.h"
#include "nuvHttp.h"

#include <string>

namespace {

using namespace Nuv;
using NuvFuzz::require;
using namespace Nuv::Net::Http;

void readBlock( std::string_view text )
{
    Utils::BufferIStreamBuf input( text );
    HeaderMap headerMap;
    readHeaders( &input, &headerMap );
    Utils::OBufferStream output;
    writeHeaders( output, headerMap );
    output << "\r\n";
    Utils::BufferIStreamBuf second( output.view() );
    HeaderMap again;
    readHeaders( &second, &again );
    std::erase_if( headerMap, []( const auto& entry ) { return entry.second.empty(); } );
    require( again == headerMap );
    unsigned int length = 0;
    contentLengthHeaderExists( headerMap, &length );
}

void readDate( const std::string& text )
{
    std::tm t{};
    Utils::Time time( 0 );
    if ( !HttpParserHelper::parseTime( &t, text.c_str() ) || !convertGregorianTime( &time, &t ) )
        return;
    char written[httpTimeTextSize];
    timeToHttpText( time, written );
    Utils::Time again( 0 );
    require( HttpParserHelper::parseTime( &t, written ) && convertGregorianTime( &again, &t ) );
    require( again == time );
}

void readEscapes( std::string text )
{
    std::string escaped;
    escapeUriStr( text.c_str(), &escaped );
    const std::string plain = text.c_str();
    HttpParserHelper::unescapeHex( &escaped );
    require( escaped == plain );
    HttpParserHelper::unescapeHex( &text );
    urlEncodeStr( text.c_str(), &escaped );
}

void readAuthorization( const std::string& text )
{
    std::string user;
    std::string password;
    if ( !basicAuthorizationHeaderExists( { { headerAuthorization, text } }, &user, &password ) )
        return;
    HeaderMap headerMap;
    std::string userAgain;
    std::string passwordAgain;
    if ( user.find( '\0' ) != std::string::npos )
        return;
    insertBasicAuthorizationHeader( user.c_str(), password.c_str(), &headerMap );
    require( basicAuthorizationHeaderExists( headerMap, &userAgain, &passwordAgain ) );
    require( userAgain == user && passwordAgain == password );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    if ( nbrOfBytes == 0 )
        return 0;
    const std::string text( reinterpret_cast< const char* >( dataPtr ) + 1, nbrOfBytes - 1 );
    switch ( dataPtr[0] % 4 ) {
    case 0:
        readBlock( text );
        break;
    case 1:
        readDate( text );
        break;
    case 2:
        readEscapes( text );
        break;
    default:
        readAuthorization( text );
    }
    return 0;
}
