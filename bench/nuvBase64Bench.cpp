// peers: openssl
#include "nuvBase64.h"

#include <benchmark/benchmark.h>

#include <string>

#if NUV_PEER_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

using namespace Nuv::Utils;

constexpr std::size_t nbrOfBytes = 1 << 20;

const Buffer& sample()
{
    static const Buffer bytes = [] {
        Buffer result( nbrOfBytes, '\0' );
        std::uint32_t number = 1;
        for ( char& byte : result )
            byte = static_cast< char >( ( number = number * 1664525 + 1013904223 ) >> 24 );
        return result;
    }();
    return bytes;
}

void count( benchmark::State& state )
{
    state.SetBytesProcessed( state.iterations() * static_cast< std::int64_t >( nbrOfBytes ) );
}

// Each side writes into room that is there already.

void BM_Base64Encode( benchmark::State& state )
{
    Base64 base64;
    Buffer text( base64.suggestedForwardOutputReserve( nbrOfBytes ) );
    for ( auto _ : state ) {
        text.clear();
        base64.forwardUpdate( sample(), &text );
        base64.forwardFinal( &text );
        benchmark::DoNotOptimize( text.data() );
    }
    count( state );
}
BENCHMARK( BM_Base64Encode )->Unit( benchmark::kMicrosecond );

void BM_Base64Decode( benchmark::State& state )
{
    Base64 base64( Base64::growOutput );
    Buffer text;
    base64.forwardUpdate( sample(), &text );
    base64.forwardFinal( &text );
    Buffer bytes( base64.suggestedReverseOutputReserve( text.size() ) );
    for ( auto _ : state ) {
        bytes.clear();
        base64.reverseUpdate( text, &bytes );
        base64.reverseFinal( &bytes );
    }
    if ( bytes != sample() )
        state.SkipWithError( "not the bytes that were encoded" );
    count( state );
}
BENCHMARK( BM_Base64Decode )->Unit( benchmark::kMicrosecond );

#if NUV_PEER_OPENSSL
const unsigned char* unsignedOf( const Buffer& buffer )
{
    return reinterpret_cast< const unsigned char* >( buffer.data() );
}

// @return the number of characters
int encodeByPeer( EVP_ENCODE_CTX* contextPtr, Buffer* textPtr )
{
    unsigned char* const outPtr = reinterpret_cast< unsigned char* >( textPtr->data() );
    int length = 0;
    int lengthOfEnd = 0;
    EVP_EncodeInit( contextPtr );
    EVP_EncodeUpdate( contextPtr, outPtr, &length, unsignedOf( sample() ), nbrOfBytes );
    EVP_EncodeFinal( contextPtr, outPtr + length, &lengthOfEnd );
    return length + lengthOfEnd;
}

void BM_Base64Encode_OpenSsl( benchmark::State& state )
{
    EVP_ENCODE_CTX* const contextPtr = EVP_ENCODE_CTX_new();
    Buffer text( 2 * nbrOfBytes, '\0' );
    for ( auto _ : state )
        benchmark::DoNotOptimize( encodeByPeer( contextPtr, &text ) );
    EVP_ENCODE_CTX_free( contextPtr );
    count( state );
}
BENCHMARK( BM_Base64Encode_OpenSsl )->Unit( benchmark::kMicrosecond );

void BM_Base64Decode_OpenSsl( benchmark::State& state )
{
    EVP_ENCODE_CTX* const contextPtr = EVP_ENCODE_CTX_new();
    Buffer text( 2 * nbrOfBytes, '\0' );
    const int textLength = encodeByPeer( contextPtr, &text );
    Buffer bytes( 2 * nbrOfBytes, '\0' );
    unsigned char* const outPtr = reinterpret_cast< unsigned char* >( bytes.data() );
    int length = 0;
    int lengthOfEnd = 0;
    for ( auto _ : state ) {
        EVP_DecodeInit( contextPtr );
        EVP_DecodeUpdate( contextPtr, outPtr, &length, unsignedOf( text ), textLength );
        EVP_DecodeFinal( contextPtr, outPtr + length, &lengthOfEnd );
    }
    bytes.resize( static_cast< std::size_t >( length + lengthOfEnd ) );
    if ( bytes != sample() )
        state.SkipWithError( "not the bytes that were encoded" );
    EVP_ENCODE_CTX_free( contextPtr );
    count( state );
}
BENCHMARK( BM_Base64Decode_OpenSsl )->Unit( benchmark::kMicrosecond );
#endif

} // namespace
