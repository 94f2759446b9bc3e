#include "nuvEvent.h"

#include "nuvTestSupport.h"
#include "nuvTestThread.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {
NuvTest::Fault ourFault; // in the calls below
std::atomic< int > ourNbrOfPolls = 0;
int ourPassedTimeoutMs = -2; // of a poll whose time has passed
std::atomic< int > ourNbrOfReads = 0;
std::atomic< int > ourNbrOfPipes = 0;
std::atomic< int > ourNbrOfWrites = 0;
thread_local int ourNbrOfAllocations = 0;
} // namespace

// NOLINTBEGIN: the linker gives these names
#if defined( __i386__ )
#define NUV_OPEN( prefix ) prefix##open64
#else
#define NUV_OPEN( prefix ) prefix##open
#endif
extern "C" int NUV_OPEN( __real_ )( const char*, int, ... );
extern "C" int NUV_OPEN( __wrap_ )( const char* pathPtr, int flags, ... )
{
    va_list arguments;
    va_start( arguments, flags );
    const int mode = va_arg( arguments, int );
    va_end( arguments );
    return ourFault.strikes() ? -1 : NUV_OPEN( __real_ )( pathPtr, flags, mode );
}
extern "C" int __real_mkfifo( const char*, mode_t );
extern "C" int __wrap_mkfifo( const char* pathPtr, mode_t mode )
{
    return ourFault.strikes() ? -1 : __real_mkfifo( pathPtr, mode );
}
extern "C" int __real_pipe2( int*, int );
extern "C" int __wrap_pipe2( int* endsPtr, int flags )
{
    ++ourNbrOfPipes;
    return ourFault.strikes() ? -1 : __real_pipe2( endsPtr, flags );
}
extern "C" int __real_poll( pollfd*, nfds_t, int );
extern "C" int __wrap_poll( pollfd* descriptorsPtr, nfds_t count, int timeoutMs )
{
    ++ourNbrOfPolls;
    if ( timeoutMs == ourPassedTimeoutMs )
        return 0;
    return ourFault.strikes() ? -1 : __real_poll( descriptorsPtr, count, timeoutMs );
}
extern "C" ssize_t __real_read( int, void*, size_t );
extern "C" ssize_t __wrap_read( int fd, void* ptr, size_t count )
{
    ++ourNbrOfReads;
    return ourFault.strikes() ? -1 : __real_read( fd, ptr, count );
}
extern "C" ssize_t __real_write( int, const void*, size_t );
extern "C" ssize_t __wrap_write( int fd, const void* ptr, size_t count )
{
    ++ourNbrOfWrites;
    return __real_write( fd, ptr, count );
}
#if defined( __i386__ )
#define NUV_NEW( prefix ) prefix##_Znwj // operator new
#else
#define NUV_NEW( prefix ) prefix##_Znwm
#endif
extern "C" void* NUV_NEW( __real_ )( size_t );
extern "C" void* NUV_NEW( __wrap_ )( size_t nbrOfBytes )
{
    ++ourNbrOfAllocations;
    return NUV_NEW( __real_ )( nbrOfBytes );
}
// NOLINTEND

namespace Nuv::Mt {
namespace {

class EventTest : public NuvTest::RootFixture
{
protected:
    ~EventTest() override { ourFault.disarm(); }

    static std::string fifo( const std::string& name )
    {
        return root( "ixoRoot/tmp/ipc/evt_" + name );
    }
    static bool exists( const std::string& path ) { return ::access( path.c_str(), F_OK ) == 0; }
    static std::ptrdiff_t nbrOfDescriptors()
    {
        return std::distance( std::filesystem::directory_iterator( "/proc/self/fd" ), {} );
    }
};

using Events = std::vector< Event* >;

// Runs the action when a thread of this process waits on the event.
template < class Action >
std::thread whenWaitedFor( Action action )
{
    return NuvTest::startThread( [action, nbrBefore = ourNbrOfPolls.load()] {
        // A wait on non-named events shows itself to nobody; then the action comes soon or late.
        NuvTest::waitFor( [=] { return ourNbrOfPolls > nbrBefore; },
                          std::chrono::milliseconds( 30 ) );
        action();
    } );
}

TEST_F( EventTest, SignalStaysUntilOneWaitTakesIt )
{
    Event nonNamed;
    Event named( "sticky" );
    Event sameNamed( "sticky" );
    for ( Event* const eventPtr : { &nonNamed, &named } ) {
        Event& other = eventPtr == &named ? sameNamed : *eventPtr;
        SCOPED_TRACE( eventPtr->isNamed() ? "named" : "non-named" );
        EXPECT_FALSE( eventPtr->wait( 0 ) );
        for ( const int nbrOfSignals : { 1, 3, 10, 512, 1024, 1025 } ) {
            for ( int i = 0; i < nbrOfSignals; ++i ) {
                eventPtr->signal();
            }
            EXPECT_TRUE( other.wait( 0 ) );
            EXPECT_FALSE( eventPtr->wait( 0 ) );
        }
        eventPtr->signal();
        EXPECT_TRUE( other.readAndReset() );
        EXPECT_FALSE( eventPtr->readAndReset() );
        eventPtr->signal();
        other.reset();
        EXPECT_FALSE( eventPtr->wait( 3 ) );
        eventPtr->signal();
        EXPECT_TRUE( eventPtr->wait( Event::infinite ) );
    }
    EXPECT_EQ( sameNamed.nbrOfSignalsTaken() + named.nbrOfSignalsTaken(), 2575u + 3 );
    EXPECT_EQ( nonNamed.readFd(), -1 );
}

TEST_F( EventTest, FullFifoDropsSignalsAndStaysPending )
{
    Event event( "full" );
    const int capacity = ::fcntl( event.readFd(), F_GETPIPE_SZ );
    for ( int i = 0; i < capacity + 10; ++i ) {
        event.signal();
    }
    EXPECT_TRUE( event.wait( 0 ) );
    EXPECT_EQ( event.nbrOfSignalsTaken(), static_cast< unsigned int >( capacity ) );
    EXPECT_FALSE( event.wait( 0 ) );
}

TEST_F( EventTest, FirstPendingOfTheListFiresAndTheOthersStay )
{
    Event a, b, c;
    Event x( "x" ), y( "y" ), z( "z" );
    std::vector< std::unique_ptr< Event > > many;
    Events manyPtrs;
    for ( int i = 0; i < 20; ++i ) {
        many.push_back( i % 2 == 0 ? std::make_unique< Event >()
                                   : std::make_unique< Event >( "many" + std::to_string( i ) ) );
        manyPtrs.push_back( many.back().get() );
    }
    for ( const Events& events : { Events{ &a, &b, &c }, Events{ &x, &y, &z }, Events{ &a, &y, &c },
                                   Events{ &x, &b, &z }, manyPtrs } ) {
        const int last = static_cast< int >( events.size() ) - 1;
        EXPECT_EQ( MultiEvent::waitOnEvents( events, 0 ), -1 );
        events.back()->signal();
        events[1]->signal();
        EXPECT_EQ( MultiEvent::waitOnEvents( events, 1000 ), 1 );
        EXPECT_EQ( MultiEvent::waitOnEvents( std::list( events.begin(), events.end() ), 0 ), last );
        EXPECT_EQ( MultiEvent::waitOnEvents( events, 2 ), -1 );
    }
    EXPECT_EQ( MultiEvent::waitOnEvents( Events(), 1 ), -1 );
    EXPECT_THROW( MultiEvent::waitOnEvents( Events{ &a, nullptr }, 0 ), LogicException );
}

TEST_F( EventTest, WaitOfAnyKindIsWokenByAnyOfItsEvents )
{
    Event a, b;
    Event x( "x" ), y( "y" );
    for ( const Events& events : { Events{ &a }, Events{ &x }, Events{ &a, &b }, Events{ &x, &y },
                                   Events{ &a, &x }, Events{ &x, &a } } ) {
        for ( const unsigned int timeoutMs : { Event::infinite, 0xFFFFFFFEu, 60000u } ) {
            std::thread signaller = whenWaitedFor( [&] { events.back()->signal(); } );
            const int fired = MultiEvent::waitOnEvents( events, timeoutMs );
            signaller.join();
            EXPECT_EQ( fired, static_cast< int >( events.size() ) - 1 );
            EXPECT_EQ( MultiEvent::waitOnEvents( events, 0 ), -1 );
        }
    }
}

TEST_F( EventTest, OneSignalEndsOneWaitOfMany )
{
    constexpr int nbrOfWaiters = 4;
    Event event;
    Event other( "other" );
    std::atomic< int > nbrOfFired = 0;
    std::vector< std::thread > waiters;
    for ( int i = 0; i < nbrOfWaiters; ++i ) {
        // Every second one waits on a mixed list, through its pipe.
        waiters.push_back( NuvTest::startThread( [&, i] {
            const Events events = i % 2 == 0 ? Events{ &event } : Events{ &other, &event };
            MultiEvent::waitOnEvents( events, Event::infinite );
            ++nbrOfFired;
        } ) );
    }
    for ( int i = 1; i <= nbrOfWaiters; ++i ) {
        event.signal();
        EXPECT_TRUE( NuvTest::waitFor( [&] { return nbrOfFired == i; } ) );
        EXPECT_FALSE( event.wait( 2 ) ) << "more than one signal was there";
        EXPECT_EQ( nbrOfFired, i );
    }
    for ( std::thread& waiter : waiters ) {
        waiter.join();
    }
}

TEST_F( EventTest, TimeoutPassesWhileWakeUpsFindNothing )
{
    Event event, never;
    Event named( "named" );
    const auto start = std::chrono::steady_clock::now();
    std::atomic< bool > isOver = false;
    std::thread disturber = NuvTest::startThread( [&] {
        while ( !isOver ) {
            event.signal();
            event.reset();
            named.signal();
            named.reset();
        }
    } );
    for ( const Events& events :
          { Events{ &never }, Events{ &never, &event }, Events{ &never, &named } } ) {
        // One of them may still be seen pending.
        MultiEvent::waitOnEvents( events, 20 );
    }
    EXPECT_FALSE( never.wait( 20 ) );
    isOver = true;
    disturber.join();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE( elapsed, std::chrono::milliseconds( 38 ) );
    EXPECT_LT( elapsed, NuvTest::wideTimeout );
}

TEST_F( EventTest, LongerTimeoutThanAPollTakesGoesOnAfterIt )
{
    Event named( "long" );
    named.signal();
    ourPassedTimeoutMs = INT_MAX;
    EXPECT_EQ( MultiEvent::waitOnEvents( { &named }, INT_MAX ), -1 );
    EXPECT_EQ( MultiEvent::waitOnEvents( { &named }, INT_MAX + 1u ), 0 );
    ourPassedTimeoutMs = -2;
}

TEST_F( EventTest, BudgetOfCallsAndAllocations )
{
    Event local;
    Event named( "budget" );
    std::thread signaller = whenWaitedFor( [&] { local.signal(); } );
    local.wait( Event::infinite ); // the first wait makes the list's storage
    signaller.join();

    ourNbrOfAllocations = 0;
    ourNbrOfWrites = 0;
    ourNbrOfPolls = 0;
    ourNbrOfPipes = 0;
    EXPECT_FALSE( local.wait( 1 ) );
    local.signal();
    EXPECT_TRUE( local.wait( 1 ) );
    EXPECT_EQ( ourNbrOfWrites + ourNbrOfPolls, 0 );
    named.signal();
    EXPECT_EQ( ourNbrOfWrites, 1 );
    ourNbrOfReads = 0;
    EXPECT_EQ( MultiEvent::waitOnEvents( { &named }, 1 ), 0 );
    EXPECT_EQ( ourNbrOfPolls + ourNbrOfReads, 2 );
    // A wait that blocks learns to poll first, one that finds the event pending to read first.
    constexpr int nbrOfWaits = 100;
    const auto nbrOfCalls = [&]( bool isPending ) {
        ourNbrOfPolls = 0;
        ourNbrOfReads = 0;
        for ( int i = 0; i < nbrOfWaits; ++i ) {
            if ( isPending )
                named.signal();
            EXPECT_EQ( named.wait( 1 ), isPending );
        }
        return ourNbrOfPolls + ourNbrOfReads;
    };
    EXPECT_LE( nbrOfCalls( false ), nbrOfWaits + 4 ); // a poll that times out is one call
    EXPECT_LE( nbrOfCalls( true ), nbrOfWaits + 33 );
    EXPECT_EQ( nbrOfCalls( true ), nbrOfWaits );
    ourNbrOfReads = 0;
    EXPECT_FALSE( named.wait( 0 ) );
    EXPECT_EQ( ourNbrOfReads, 1 );
    EXPECT_EQ( ourNbrOfAllocations, 0 );
    EXPECT_EQ( ourNbrOfPipes, 0 );

    const auto nbrBefore = nbrOfDescriptors();
    for ( int i = 0; i < 3; ++i ) {
        local.signal();
        EXPECT_EQ( MultiEvent::waitOnEvents( { &named, &local }, 1000 ), 1 );
        EXPECT_EQ( MultiEvent::waitOnEvents( { &named, &local }, 1 ), -1 );
    }
    EXPECT_LE( ourNbrOfPipes, 1 ) << "the thread keeps its pipe";
    EXPECT_LE( nbrOfDescriptors(), nbrBefore + 2 );
}

TEST_F( EventTest, ForkedChildUsesAPipeOfItsOwn )
{
    Event local;
    Event named( "forked" );
    EXPECT_EQ( MultiEvent::waitOnEvents( { &named, &local }, 1 ), -1 ); // this thread has one now
    const NuvTest::Outcome outcome = NuvTest::runInChild( [&] {
        ourNbrOfPipes = 0;
        local.signal();
        EXPECT_EQ( MultiEvent::waitOnEvents( { &named, &local }, 1000 ), 1 );
        EXPECT_EQ( ourNbrOfPipes, 1 );
        ::_exit( ::testing::Test::HasFailure() ? 1 : 0 );
    } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output;
    EXPECT_FALSE( local.wait( 0 ) );
}

TEST_F( EventTest, LastUserOfANameRemovesItsObjects )
{
    auto firstPtr = std::make_unique< Event >( "removed" );
    auto secondPtr = std::make_unique< Event >( "removed" );
    struct stat status;
    ASSERT_EQ( ::stat( fifo( "removed" ).c_str(), &status ), 0 );
    EXPECT_TRUE( S_ISFIFO( status.st_mode ) );
    EXPECT_EQ( status.st_mode & 07777, 0660u );
    EXPECT_TRUE( exists( root( "ixoRoot/tmp/ipc/sem_evt_removed" ) ) );
    firstPtr->signal();
    firstPtr.reset();
    EXPECT_TRUE( exists( fifo( "removed" ) ) );
    EXPECT_TRUE( secondPtr->wait( 0 ) );
    secondPtr.reset();
    EXPECT_FALSE( exists( fifo( "removed" ) ) );
    EXPECT_FALSE( exists( root( "ixoRoot/tmp/ipc/sem_evt_removed" ) ) );
}

TEST_F( EventTest, NameKeepsItsSlashesInThePathname )
{
    EXPECT_THROW( Event( "folder/name" ), ResourceException );
    ASSERT_EQ( ::mkdir( fifo( "folder" ).c_str(), 0777 ), 0 );
    {
        Event event( "folder/name" );
        EXPECT_TRUE( exists( fifo( "folder/name" ) ) );
        EXPECT_TRUE( exists( root( "ixoRoot/tmp/ipc/sem_evt_folder-name" ) ) );
    }
    EXPECT_EQ( ::rmdir( fifo( "folder" ).c_str() ), 0 );
}

TEST_F( EventTest, FailedCallsOfConstructionLeaveNothingBehind )
{
    NuvTest::writeFile( fifo( "file" ), "SSS" );
    try {
        Event( "file" );
        ADD_FAILURE() << "an ordinary file was taken for a FIFO";
    } catch ( const ResourceException& exception ) {
        EXPECT_NE(
            std::string( exception.what() )
                .find( "failed: myReadOnlyFd.isValid() && myWriteOnlyFd.isValid(),  File exists" ),
            std::string::npos );
    }
    EXPECT_FALSE( exists( fifo( "file" ) ) ) << "the name is free again for the next user";

    const auto nbrBefore = nbrOfDescriptors();
    bool isStruck = true;
    for ( int n = 1; isStruck; ++n ) {
        SCOPED_TRACE( n );
        ourFault.arm( n, ENFILE );
        try {
            Event event( "faulty" );
            isStruck = ourFault.nbrOfStrikes() != 0;
            EXPECT_FALSE( isStruck );
        } catch ( const ResourceException& ) {
        }
        ourFault.disarm();
        EXPECT_FALSE( exists( fifo( "faulty" ) ) );
        EXPECT_FALSE( exists( root( "ixoRoot/tmp/ipc/sem_evt_faulty" ) ) );
        EXPECT_EQ( nbrOfDescriptors(), nbrBefore );
        ASSERT_LT( n, 20 );
    }
}

TEST_F( EventTest, FailedCallsOfAWaitAreWakeUpsOrResourceFailures )
{
    Event local;
    Event named( "faulty" );
    for ( const int call : { 1, 2 } ) { // the poll, the read
        named.signal();
        ourFault.arm( call, EINTR );
        EXPECT_EQ( MultiEvent::waitOnEvents( { &named }, 1000 ), 0 );
        EXPECT_EQ( ourFault.nbrOfStrikes(), 1 );
    }
    NuvTest::startThread( [&] { // a thread without a pipe yet
        ourFault.arm( 1, EMFILE );
        EXPECT_THROW( MultiEvent::waitOnEvents( { &named, &local }, 0 ), ResourceException );
        ourFault.disarm();
    } )
        .join();
    local.signal();
    EXPECT_TRUE( local.wait( 0 ) );
}

class Spy : public NonNamedWaitEventImpl
{
public:
    Spy( const Events& events, std::string* calledPtr, char letter )
        : NonNamedWaitEventImpl( events )
        , myCalledPtr( calledPtr )
        , myLetter( letter )
    {
    }
    void signal() override
    {
        if ( myCalledPtr != nullptr )
            *myCalledPtr += myLetter;
    }

private:
    std::string* myCalledPtr = nullptr;
    char myLetter = '-';
};

TEST_F( EventTest, RegisteredWaitsAreSignalledNewestFirst )
{
    Event event;
    Event named( "named" );
    std::string called;
    {
        const Spy a( { &event }, &called, 'a' ), b( { &event }, &called, 'b' );
        {
            const Spy c( { &event }, &called, 'c' );
            event.signal();
        }
        event.signal();
    }
    event.signal();
    EXPECT_EQ( called, "cbaba" );

    const std::unique_ptr< WaitEventImpl > pending( WaitEventImpl::create( { &event } ) );
    EXPECT_NE( dynamic_cast< NonNamedWaitEventImpl* >( pending.get() ), nullptr );
    EXPECT_TRUE( pending->wait( 0 ) ) << "a signal that came first is not lost";
    EXPECT_FALSE( pending->wait( 0 ) );
    const std::unique_ptr< WaitEventImpl > mixed( WaitEventImpl::create( { &event, &named } ) );
    EXPECT_NE( dynamic_cast< NamedWaitEventImpl* >( mixed.get() ), nullptr );
    EXPECT_TRUE( mixed->wait( 0 ) );
    EXPECT_FALSE( mixed->wait( 0 ) ) << "a byte left in the pipe ends every later wait at once";
    for ( const auto operation : { &Event::addWaitEventImpl, &Event::removeWaitEventImpl } ) {
        EXPECT_THROW( ( named.*operation )( pending.get() ), LogicException );
    }
    Event other;
    EXPECT_THROW( other.removeWaitEventImpl( pending.get() ), LogicException );
}

TEST_F( EventTest, DestructionWithAWaitRegisteredSaysSoAndGoesOn )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        auto* const eventPtr = new Event;
        WaitEventImpl::create( { eventPtr } );
        delete eventPtr;
        ::_exit( 5 );
    } );
    EXPECT_EQ( outcome.exitStatus(), 5 );
    EXPECT_EQ( outcome.errors, "!myWaitEventImpls.empty() [Event::~Event()]\n" );
}

// A waiter that destroys the event as soon as it is signalled finds the signaller out of it.
TEST_F( EventTest, WaiterMayDestroyWhatHasFired )
{
    for ( int i = 0; i < 500; ++i ) {
        auto eventPtr = std::make_unique< Event >();
        std::thread signaller = NuvTest::startThread( [ptr = eventPtr.get()] { ptr->signal(); } );
        EXPECT_TRUE( eventPtr->wait( Event::infinite ) );
        eventPtr.reset();
        signaller.join();
    }
}

TEST_F( EventTest, DeadlineCarriesIntoSeconds )
{
    for ( const unsigned int timeoutMs : { 0u, 1u, 999u, 1000u, 1999u, 0xFFFFFFFEu } ) {
        SCOPED_TRACE( timeoutMs );
        timespec before, after;
        ::clock_gettime( CLOCK_REALTIME, &before );
        const timespec deadline = computeTimeOfDayToTimeout( timeoutMs );
        ::clock_gettime( CLOCK_REALTIME, &after );
        const auto ns = []( const timespec& time ) {
            return static_cast< long long >( time.tv_sec ) * 1000000000 + time.tv_nsec;
        };
        const long long timeoutNs = timeoutMs * 1000000LL;
        EXPECT_GE( ns( deadline ), ns( before ) + timeoutNs );
        EXPECT_LE( ns( deadline ), ns( after ) + timeoutNs );
        EXPECT_LT( deadline.tv_nsec, 1000000000 );
    }
}

} // namespace
} // namespace Nuv::Mt
