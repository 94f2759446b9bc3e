#include "nuvEvent.h"

#include "nuvBenchProcess.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <condition_variable>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace {

using Nuv::Mt::Event;

const NuvBench::Root ourRoot;

// The peer of a non-named event: what one writes by hand.
class ConditionFlag
{
public:
    void signal()
    {
        const std::lock_guard< std::mutex > lock( myMutex );
        myFlag = true;
        myCondition.notify_one();
    }
    void wait()
    {
        std::unique_lock< std::mutex > lock( myMutex );
        myCondition.wait( lock, [this] { return myFlag; } );
        myFlag = false;
    }

private:
    std::mutex myMutex;
    std::condition_variable myCondition;
    bool myFlag = false;
};

// The peer of a named one.
class EventFd
{
public:
    ~EventFd() { ::close( myFd ); }

    void signal()
    {
        const std::uint64_t one = 1;
        benchmark::DoNotOptimize( ::write( myFd, &one, sizeof( one ) ) );
    }
    void wait()
    {
        pollfd descriptor = { myFd, POLLIN, 0 };
        ::poll( &descriptor, 1, -1 );
        std::uint64_t count;
        benchmark::DoNotOptimize( ::read( myFd, &count, sizeof( count ) ) );
    }

private:
    const int myFd = ::eventfd( 0, EFD_NONBLOCK );
};

void wait( Event& event )
{
    event.wait( Event::infinite );
}
void wait( ConditionFlag& flag )
{
    flag.wait();
}
void wait( EventFd& event )
{
    event.wait();
}

template < class Flag >
void signalThenWait( benchmark::State& state, Flag& flag )
{
    const NuvBench::PinScope pinned( 0 );
    for ( auto _ : state ) {
        flag.signal();
        wait( flag );
    }
}

void BM_EventSignalWait0( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    Event event;
    for ( auto _ : state ) {
        event.signal();
        benchmark::DoNotOptimize( event.wait( 0 ) );
    }
}
BENCHMARK( BM_EventSignalWait0 );

void BM_EventSignalWait0_Condition( benchmark::State& state )
{
    ConditionFlag flag;
    signalThenWait( state, flag );
}
BENCHMARK( BM_EventSignalWait0_Condition );

void BM_NamedEventSignalWait( benchmark::State& state )
{
    Event event( "bench" );
    signalThenWait( state, event );
}
BENCHMARK( BM_NamedEventSignalWait );

void BM_NamedEventSignalWait_EventFd( benchmark::State& state )
{
    EventFd event;
    signalThenWait( state, event );
}
BENCHMARK( BM_NamedEventSignalWait_EventFd );

// To the thread on the other core and back.
template < class Flag >
void threadRoundTrip( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    Flag there, back;
    std::atomic< bool > isOver = false;
    std::thread other( [&] {
        NuvBench::pin( 1 );
        for ( ;; ) {
            wait( there );
            if ( isOver.load( std::memory_order_relaxed ) )
                return;
            back.signal();
        }
    } );
    for ( auto _ : state ) {
        there.signal();
        wait( back );
    }
    isOver = true;
    there.signal();
    other.join();
}

void BM_EventThreadRoundTrip( benchmark::State& state )
{
    threadRoundTrip< Event >( state );
}
BENCHMARK( BM_EventThreadRoundTrip )->UseRealTime();

void BM_EventThreadRoundTrip_Condition( benchmark::State& state )
{
    threadRoundTrip< ConditionFlag >( state );
}
BENCHMARK( BM_EventThreadRoundTrip_Condition )->UseRealTime();

// To the process on the other core and back.
template < class Flag >
void processRoundTrip( benchmark::State& state, Flag& there, Flag& back )
{
    const NuvBench::PinScope pinned( 0 );
    const NuvBench::OtherSide other( [&] {
        for ( ;; ) {
            wait( there );
            back.signal();
        }
    } );
    for ( auto _ : state ) {
        there.signal();
        wait( back );
    }
}

void BM_NamedEventProcessRoundTrip( benchmark::State& state )
{
    Event there( "there" );
    Event back( "back" );
    processRoundTrip( state, there, back );
}
BENCHMARK( BM_NamedEventProcessRoundTrip )->UseRealTime();

void BM_NamedEventProcessRoundTrip_EventFd( benchmark::State& state )
{
    EventFd there;
    EventFd back;
    processRoundTrip( state, there, back );
}
BENCHMARK( BM_NamedEventProcessRoundTrip_EventFd )->UseRealTime();

} // namespace
