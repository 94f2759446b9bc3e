#include "nuvInterprocessFifo.h"

#include "nuvBenchProcess.h"

#include <benchmark/benchmark.h>
#include <mqueue.h>
#include <string>
#include <unistd.h>

namespace {

using Nuv::Io::InterprocessFifo;
using Nuv::Utils::Buffer;

const NuvBench::Root ourRoot;

std::string text( benchmark::State& state )
{
    return std::string( static_cast< std::size_t >( state.range( 0 ) ), 'x' );
}

class MessageQueue
{
public:
    MessageQueue()
    {
        ::mq_attr attributes = {};
        attributes.mq_maxmsg = 10; // the system's limit
        attributes.mq_msgsize = 2048;
        ::mq_unlink( ourName );
        myQueue = ::mq_open( ourName, O_RDWR | O_CREAT, 0600, &attributes );
    }
    MessageQueue( const MessageQueue& ) = delete;
    MessageQueue& operator=( const MessageQueue& ) = delete;
    ~MessageQueue()
    {
        ::mq_close( myQueue );
        ::mq_unlink( ourName );
    }

    bool isOpen() const { return myQueue != static_cast< ::mqd_t >( -1 ); }
    void write( const std::string& message )
    {
        ::mq_send( myQueue, message.data(), message.size(), 0 );
    }
    std::string_view read()
    {
        const ssize_t n = ::mq_receive( myQueue, myBytes, sizeof( myBytes ), nullptr );
        return std::string_view( myBytes, n > 0 ? static_cast< std::size_t >( n ) : 0 );
    }

private:
    static constexpr char ourName[] = "/nuvbench";

    ::mqd_t myQueue;
    char myBytes[2048];
};

void BM_FifoWriteRead( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    InterprocessFifo fifo( "bench", 65536 );
    const Buffer message( text( state ) );
    Buffer received;
    for ( auto _ : state ) {
        fifo.write( message );
        fifo.read( &received );
    }
    if ( received != message )
        state.SkipWithError( "wrong message" );
}
BENCHMARK( BM_FifoWriteRead )->Arg( 100 )->Arg( 1024 );

void BM_FifoWriteRead_PosixMq( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    MessageQueue queue;
    const std::string message = text( state );
    for ( auto _ : state ) {
        queue.write( message );
        benchmark::DoNotOptimize( queue.read() );
    }
    if ( !queue.isOpen() )
        state.SkipWithError( "no message queue" );
}
BENCHMARK( BM_FifoWriteRead_PosixMq )->Arg( 100 )->Arg( 1024 );

// The other process writes batches, each when it is told to; the ring holds a whole one, so that
// nothing is lost. Time and count are those of one message.
constexpr int nbrOfBatch = 4096;

class Starter
{
public:
    Starter() { myIsOpen = ::pipe( myEnds ) == 0; }
    Starter( const Starter& ) = delete;
    Starter& operator=( const Starter& ) = delete;
    ~Starter()
    {
        ::close( myEnds[0] );
        ::close( myEnds[1] );
    }

    void start() { benchmark::DoNotOptimize( ::write( myEnds[1], "s", 1 ) ); }
    bool waitForStart()
    {
        char byte;
        return ::read( myEnds[0], &byte, 1 ) == 1;
    }

private:
    int myEnds[2];
    bool myIsOpen;
};

void BM_FifoStream( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    InterprocessFifo fifo( "stream", 1 << 20 );
    const Buffer message( text( state ) );
    Starter starter;
    const NuvBench::OtherSide writer( [&] {
        while ( starter.waitForStart() ) {
            for ( int i = 0; i < nbrOfBatch; ++i ) {
                fifo.write( message );
            }
        }
    } );
    Buffer received;
    std::int64_t nbrOfWaits = 0;
    std::size_t nbrOfBytes = 0;
    while ( state.KeepRunningBatch( nbrOfBatch ) ) {
        starter.start();
        for ( int i = 0; i < nbrOfBatch; ++nbrOfWaits ) {
            fifo.event().wait( 1000 );
            for ( ; fifo.read( &received ); ++i ) {
                nbrOfBytes += received.size();
            }
        }
    }
    state.counters["perWakeUp"] =
        static_cast< double >( state.iterations() ) / static_cast< double >( nbrOfWaits );
    if ( nbrOfBytes != message.size() * static_cast< std::size_t >( state.iterations() ) )
        state.SkipWithError( "messages were lost" );
}
BENCHMARK( BM_FifoStream )->Arg( 100 )->UseRealTime();

void BM_FifoStream_PosixMq( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    MessageQueue queue;
    const std::string message = text( state );
    Starter starter;
    const NuvBench::OtherSide writer( [&] {
        while ( starter.waitForStart() ) {
            for ( int i = 0; i < nbrOfBatch; ++i ) {
                queue.write( message );
            }
        }
    } );
    while ( state.KeepRunningBatch( nbrOfBatch ) ) {
        starter.start();
        for ( int i = 0; i < nbrOfBatch; ++i ) {
            benchmark::DoNotOptimize( queue.read() );
        }
    }
    if ( !queue.isOpen() )
        state.SkipWithError( "no message queue" );
}
BENCHMARK( BM_FifoStream_PosixMq )->Arg( 100 )->UseRealTime();

} // namespace
