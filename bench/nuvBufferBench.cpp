// peers: fmt
// A line of 206 bytes, as a daemon logs it, made of ten texts and eight numbers.

#include "nuvBuffer.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#ifdef NUV_PEER_FMT
#include <fmt/core.h>
#endif

namespace {

constexpr std::size_t nbrOfBytes = 206;

struct Sample
{
    std::string name = "eth0";
    unsigned int received = 184467;
    std::uint64_t receivedBytes = 184467440737;
    unsigned int sent = 90211;
    std::uint64_t sentBytes = 55340232221;
    int dropped = 17;
    int errors = 31;
    int queue = -1;
    unsigned int elapsedMs = 1000;
    std::string state = "degraded";
};

Sample ourSample;

template < class Stream >
void write( Stream& stream, const Sample& sample )
{
    stream << "interface " << sample.name << ": received " << sample.received << " packets, "
           << sample.receivedBytes << " bytes; sent " << sample.sent << " packets, "
           << sample.sentBytes << " bytes; dropped " << sample.dropped << ", errors "
           << sample.errors << ", queue " << sample.queue << " within the last " << sample.elapsedMs
           << " ms; the state of that network device is now " << sample.state << '.';
}

void check( std::size_t size )
{
    if ( size != nbrOfBytes )
        std::abort();
}

void BM_BufferStreamText( benchmark::State& state )
{
    for ( auto _ : state ) {
        benchmark::DoNotOptimize( &ourSample );
        Nuv::Utils::OBufferStream stream;
        write( stream, ourSample );
        const Nuv::Utils::Buffer* bufferPtr = stream.bufferPtr();
        benchmark::DoNotOptimize( bufferPtr->data() );
        check( bufferPtr->size() );
    }
}
BENCHMARK( BM_BufferStreamText );

// The same through a plain std::ostream&, as an operator<< for a user's type sees it.
void BM_BufferStreamTextAsOstream( benchmark::State& state )
{
    for ( auto _ : state ) {
        benchmark::DoNotOptimize( &ourSample );
        Nuv::Utils::OBufferStream stream;
        write< std::ostream >( stream, ourSample );
        const Nuv::Utils::Buffer* bufferPtr = stream.bufferPtr();
        benchmark::DoNotOptimize( bufferPtr->data() );
        check( bufferPtr->size() );
    }
}
BENCHMARK( BM_BufferStreamTextAsOstream );

void BM_BufferStreamText_Ostringstream( benchmark::State& state )
{
    for ( auto _ : state ) {
        benchmark::DoNotOptimize( &ourSample );
        std::ostringstream stream;
        write( stream, ourSample );
        const std::string_view text = stream.view();
        benchmark::DoNotOptimize( text.data() );
        check( text.size() );
    }
}
BENCHMARK( BM_BufferStreamText_Ostringstream );

#ifdef NUV_PEER_FMT
void BM_BufferStreamText_Fmt( benchmark::State& state )
{
    const Sample& s = ourSample;
    for ( auto _ : state ) {
        benchmark::DoNotOptimize( &ourSample );
        const std::string text = fmt::format(
            "interface {}: received {} packets, {} bytes; sent {} packets, {} bytes; dropped {}, "
            "errors {}, queue {} within the last {} ms; the state of that network device is now "
            "{}.",
            s.name, s.received, s.receivedBytes, s.sent, s.sentBytes, s.dropped, s.errors, s.queue,
            s.elapsedMs, s.state );
        benchmark::DoNotOptimize( text.data() );
        check( text.size() );
    }
}
BENCHMARK( BM_BufferStreamText_Fmt );
#endif

} // namespace
