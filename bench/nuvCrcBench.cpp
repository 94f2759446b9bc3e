// peers: zlib boost
#include "nuvCrc.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#if NUV_PEER_ZLIB
#include <zlib.h>
#endif
#if NUV_PEER_BOOST
#include <boost/crc.hpp>
#endif

namespace {

using namespace Nuv::Utils;

const std::vector< unsigned char >& sample()
{
    static const std::vector< unsigned char > bytes = [] {
        std::vector< unsigned char > result( 1 << 20 );
        std::uint32_t number = 1;
        for ( unsigned char& byte : result )
            byte = static_cast< unsigned char >( ( number = number * 1664525 + 1013904223 ) >> 24 );
        return result;
    }();
    return bytes;
}

template < class Sum >
void run( benchmark::State& state, Sum sum )
{
    for ( auto _ : state )
        benchmark::DoNotOptimize( sum( sample().data(), sample().size() ) );
    state.SetBytesProcessed( state.iterations() * static_cast< std::int64_t >( sample().size() ) );
}

void BM_Crc32( benchmark::State& state )
{
    run( state, &Crc32::checksum );
}
BENCHMARK( BM_Crc32 )->Unit( benchmark::kMicrosecond );

void BM_Crc16( benchmark::State& state )
{
    run( state, &Crc16::checksum );
}
BENCHMARK( BM_Crc16 )->Unit( benchmark::kMicrosecond );

#if NUV_PEER_ZLIB
void BM_Crc32_Zlib( benchmark::State& state )
{
    run( state, []( const unsigned char* ptr, std::size_t size ) {
        return ::crc32( 0, ptr, static_cast< unsigned int >( size ) );
    } );
}
BENCHMARK( BM_Crc32_Zlib )->Unit( benchmark::kMicrosecond );
#endif

#if NUV_PEER_BOOST
void BM_Crc16_Boost( benchmark::State& state )
{
    run( state, []( const unsigned char* ptr, std::size_t size ) {
        boost::crc_ccitt_type crc;
        crc.process_bytes( ptr, size );
        return crc.checksum();
    } );
}
BENCHMARK( BM_Crc16_Boost )->Unit( benchmark::kMicrosecond );
#endif

} // namespace
