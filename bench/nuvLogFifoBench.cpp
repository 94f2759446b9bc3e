// peers: spdlog
#include "nuvLogConfigManager.h"

#include "nuvBenchLog.h"

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

#ifdef NUV_PEER_SPDLOG
#include <spdlog/spdlog.h>

#include <spdlog/sinks/udp_sink.h> // after the former: does not compile alone
#endif

using namespace Nuv;

namespace {

const NuvBench::LogRoot ourRoot( "[logApp]\nenabled = true\n" );

int ourNumber = 4711;

const Utils::Buffer ourEnd( "end" );

/// The log application's part. It ends on a word: killed at the wrong moment it would leave the
/// FIFO's semaphore taken.
void collect( Io::InterprocessFifo& fifo )
{
    Utils::Buffer line;
    while ( line != ourEnd ) {
        fifo.event().wait( Mt::Event::infinite );
        while ( line != ourEnd && fifo.read( &line ) )
            benchmark::DoNotOptimize( line.data() );
    }
}

/// One writer; the reader is a process of its own, on the other core.
void BM_LogFifo( benchmark::State& state )
{
    static const Log::Source ourSource( Log::warning, "any" );
    Io::InterprocessFifo& fifo = *Log::LogAppHelper::interprocessFifoPtr();
    const NuvBench::PinScope pinned( 0 );
    int ends[2];
    if ( ::pipe( ends ) != 0 )
        return;
    const NuvBench::OtherSide reader( [&fifo, &ends] {
        ::close( ends[0] );
        collect( fifo );
    } );
    ::close( ends[1] );
    for ( [[maybe_unused]] auto one : state )
        nuvLogTo( ourSource ) << "link " << ourNumber << " is down, "
                              << "eth0"
                              << " took over";
    fifo.write( ourEnd );
    char byte;
    [[maybe_unused]] const ssize_t endOfFile = ::read( ends[0], &byte, 1 );
    ::close( ends[0] );
}
BENCHMARK( BM_LogFifo );

/// The same without a reader: the calls of the writer alone.
void BM_LogFifoUnread( benchmark::State& state )
{
    static const Log::Source ourSource( Log::warning, "any" );
    const NuvBench::PinScope pinned( 0 );
    for ( [[maybe_unused]] auto one : state )
        nuvLogTo( ourSource ) << "link " << ourNumber << " is down, "
                              << "eth0"
                              << " took over";
}
BENCHMARK( BM_LogFifoUnread );

#ifdef NUV_PEER_SPDLOG
void BM_LogFifo_SpdlogUdp( benchmark::State& state )
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl( INADDR_LOOPBACK );
    ::socklen_t length = sizeof( address );
    const int socket = ::socket( AF_INET, SOCK_DGRAM, 0 );
    auto* const addressPtr = reinterpret_cast< sockaddr* >( &address );
    ::bind( socket, addressPtr, length );
    ::getsockname( socket, addressPtr, &length );
    const NuvBench::PinScope pinned( 0 );
    const NuvBench::OtherSide collector( [socket] {
        char line[2048];
        while ( ::recv( socket, line, sizeof( line ), 0 ) >= 0 ) {
        }
    } );
    spdlog::logger logger(
        "udp", std::make_shared< spdlog::sinks::udp_sink_mt >(
                   spdlog::sinks::udp_sink_config( "127.0.0.1", ntohs( address.sin_port ) ) ) );
    for ( [[maybe_unused]] auto one : state )
        logger.warn( "link {} is down, {} took over", ourNumber, "eth0" );
    ::close( socket );
}
BENCHMARK( BM_LogFifo_SpdlogUdp );
#endif

} // namespace
