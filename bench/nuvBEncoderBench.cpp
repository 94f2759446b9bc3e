// peers: torrent
#include "nuvBEncoder.h"

#include <benchmark/benchmark.h>

#include <string>

#if NUV_PEER_TORRENT
#include <libtorrent/bencode.hpp>
#include <libtorrent/entry.hpp>
#endif

namespace {

using namespace Nuv::Utils;

constexpr std::size_t nbrOfBytes = 1 << 20;

std::string files( std::size_t size )
{
    std::string text;
    for ( int i = 0; text.size() < size; ++i ) {
        const std::string name = "file-" + std::to_string( i ) + ".dat";
        text += "d6:lengthi";
        text += std::to_string( 4096 + i * 7919 % 1000003 );
        text += "e4:pathl6:folder";
        text += std::to_string( name.size() ) + ":" + name + "ee";
    }
    return text;
}

// 1 MiB of a metadata file's shape: 200 files, and 20 bytes for each of 52 000 pieces.
const std::string& metadata()
{
    static const std::string text = [] {
        std::string result = "d8:announce30:http://127.0.0.1:8000/announce4:infod5:filesl";
        result += files( 11000 );
        result += "e4:name7:example12:piece lengthi262144e6:pieces";
        const std::size_t rest = nbrOfBytes - result.size() - 16;
        result += std::to_string( rest ) + ":" + std::string( rest, 'p' ) + "ee";
        return result;
    }();
    return text;
}

// 1 MiB of small items alone, 90 000 of them: what allocation costs.
const std::string& smallItems()
{
    static const std::string text = "l" + files( nbrOfBytes ) + "e";
    return text;
}

void count( benchmark::State& state )
{
    state.SetBytesProcessed( state.iterations() * static_cast< std::int64_t >( nbrOfBytes ) );
}

void decode( benchmark::State& state, const std::string& text )
{
    IBufferStream stream( text );
    for ( auto _ : state ) {
        stream.seekg( 0 );
        benchmark::DoNotOptimize( BEncoder::decode( stream ) );
    }
    if ( stream.tellg() != static_cast< std::streamoff >( text.size() ) )
        state.SkipWithError( "not decoded to the end" );
    count( state );
}

void BM_BDecode( benchmark::State& state )
{
    decode( state, metadata() );
}
BENCHMARK( BM_BDecode )->Unit( benchmark::kMicrosecond );

void BM_BDecodeSmall( benchmark::State& state )
{
    decode( state, smallItems() );
}
BENCHMARK( BM_BDecodeSmall )->Unit( benchmark::kMicrosecond );

#if NUV_PEER_TORRENT
// The peer's one step from bytes to a tree that owns its strings, as ours does. (It recommends
// views into the bytes instead.)
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

void decodeByPeer( benchmark::State& state, const std::string& text )
{
    for ( auto _ : state ) {
        const libtorrent::entry tree = libtorrent::bdecode( text.begin(), text.end() );
        if ( tree.type() == libtorrent::entry::undefined_t )
            state.SkipWithError( "not decoded" );
        benchmark::DoNotOptimize( &tree );
    }
    count( state );
}

void BM_BDecode_Torrent( benchmark::State& state )
{
    decodeByPeer( state, metadata() );
}
BENCHMARK( BM_BDecode_Torrent )->Unit( benchmark::kMicrosecond );

void BM_BDecodeSmall_Torrent( benchmark::State& state )
{
    decodeByPeer( state, smallItems() );
}
BENCHMARK( BM_BDecodeSmall_Torrent )->Unit( benchmark::kMicrosecond );
#endif

} // namespace
