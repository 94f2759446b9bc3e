#include "nuvEvent.h"

#include "nuvTestInterprocess.h"
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
std::atomic< int > ourNbrOfPolls = 0, ourNbrOfReads = 0, ourNbrOfPipes = 0, ourNbrOfWrites = 0;
int ourPassedTimeoutMs = -2; // of a poll whose time has passed
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

using Events = std::vector< Event* >;
using EventPtr = std::unique_ptr< Event >;
using MultiWait = std::unique_ptr< WaitEventImpl >;

int waitOn( const Events& events, unsigned int timeoutMs )
{
    return MultiEvent::waitOnEvents( events, timeoutMs );
}

class EventTest : public NuvTest::InterprocessFixture
{
protected:
    ~EventTest() override { ourFault.disarm(); }

    static std::ptrdiff_t nbrOfDescriptors()
    {
        return std::distance( std::filesystem::directory_iterator( "/proc/self/fd" ), {} );
    }
    // Runs the action when a thread of this process polls; a wait on non-named events shows itself
    // to nobody: then the action comes soon or late.
    template < class Action >
    static std::thread whenWaitedFor( Action action )
    {
        return NuvTest::startThread( [action, before = ourNbrOfPolls.load()] {
            NuvTest::waitFor( [=] { return ourNbrOfPolls > before; },
                              std::chrono::milliseconds( 20 ) );
            action();
        } );
    }

    Event a, b, c;
    Event x{ "x" }, y{ "y" }, z{ "z" };
};

TEST_F( EventTest, SignalStaysUntilOneWaitTakesIt )
{
    Event sameAsX( "x" );
    for ( Event* const eventPtr : { &a, &x } ) {
        Event& other = eventPtr == &x ? sameAsX : a;
        SCOPED_TRACE( eventPtr->isNamed() );
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
    EXPECT_EQ( x.nbrOfSignalsTaken() + sameAsX.nbrOfSignalsTaken(), 2575u + 3 );
    EXPECT_EQ( a.readFd(), -1 );

    const int capacity = ::fcntl( y.readFd(), F_GETPIPE_SZ );
    for ( int i = 0; i < capacity + 10; ++i ) {
        y.signal(); // a full FIFO drops signals and stays pending
    }
    EXPECT_TRUE( y.wait( 0 ) );
    EXPECT_EQ( y.nbrOfSignalsTaken(), static_cast< unsigned int >( capacity ) );
}

TEST_F( EventTest, FirstPendingOfTheListFiresAndTheOthersStay )
{
    std::vector< EventPtr > owned;
    Events many;
    for ( int i = 0; i < 20; ++i ) {
        owned.emplace_back( i % 2 == 0 ? new Event : new Event( "many" + std::to_string( i ) ) );
        many.push_back( owned.back().get() );
    }
    for ( const Events& events : { Events{ &a, &b, &c }, Events{ &x, &y, &z }, Events{ &a, &y, &c },
                                   Events{ &x, &b, &z }, many } ) {
        EXPECT_EQ( waitOn( events, 0 ), -1 );
        events.back()->signal();
        events[1]->signal();
        EXPECT_EQ( waitOn( events, 1000 ), 1 );
        EXPECT_EQ( MultiEvent::waitOnEvents( std::list( events.begin(), events.end() ), 0 ),
                   static_cast< int >( events.size() ) - 1 );
        EXPECT_EQ( waitOn( events, 2 ), -1 );
    }
    EXPECT_EQ( waitOn( {}, 1 ), -1 );
    EXPECT_THROW( MultiEvent::waitOnEvents( { &a, nullptr }, 0 ), LogicException );
}

TEST_F( EventTest, WaitOfAnyKindIsWokenByAnyOfItsEvents )
{
    for ( const Events& events : { Events{ &a }, Events{ &x }, Events{ &a, &b }, Events{ &x, &y },
                                   Events{ &a, &x }, Events{ &x, &a } } ) {
        for ( const unsigned int timeoutMs : { Event::infinite, 0xFFFFFFFEu, 60000u } ) {
            std::thread signaller = whenWaitedFor( [&] { events.back()->signal(); } );
            EXPECT_EQ( waitOn( events, timeoutMs ), static_cast< int >( events.size() ) - 1 );
            signaller.join();
            EXPECT_EQ( waitOn( events, 0 ), -1 );
        }
    }
}

TEST_F( EventTest, OneSignalEndsOneWaitOfMany )
{
    std::atomic< int > nbrOfFired = 0;
    std::vector< std::thread > waiters;
    for ( const Events& events :
          { Events{ &a }, Events{ &x, &a }, Events{ &a }, Events{ &x, &a } } ) {
        waiters.push_back( NuvTest::startThread( [&nbrOfFired, events] {
            waitOn( events, Event::infinite );
            ++nbrOfFired;
        } ) );
    }
    for ( int i = 1; i <= static_cast< int >( waiters.size() ); ++i ) {
        a.signal();
        EXPECT_TRUE( NuvTest::waitFor( [&] { return nbrOfFired == i; } ) );
        EXPECT_FALSE( a.wait( 2 ) ) << "more than one signal was there";
        EXPECT_EQ( nbrOfFired, i );
    }
    for ( std::thread& waiter : waiters ) {
        waiter.join();
    }
}

TEST_F( EventTest, TimeoutPassesWhileWakeUpsFindNothing )
{
    const auto start = std::chrono::steady_clock::now();
    std::atomic< bool > isOver = false;
    std::thread disturber( [&] {
        while ( !isOver ) {
            for ( Event* const eventPtr : { &a, &x } ) {
                eventPtr->signal();
                eventPtr->reset();
            }
        }
    } );
    waitOn( { &b, &a }, 20 ); // may still see it pending
    waitOn( { &b, &x }, 20 );
    EXPECT_FALSE( b.wait( 20 ) );
    EXPECT_FALSE( y.wait( 20 ) );
    isOver = true;
    disturber.join();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE( elapsed, std::chrono::milliseconds( 38 ) );
    EXPECT_LT( elapsed, NuvTest::wideTimeout );

    y.signal(); // a longer wait than a poll can make goes on after it
    ourPassedTimeoutMs = INT_MAX;
    EXPECT_EQ( waitOn( { &y }, INT_MAX ), -1 );
    EXPECT_EQ( waitOn( { &y }, INT_MAX + 1u ), 0 );
    ourPassedTimeoutMs = -2;
}

TEST_F( EventTest, BudgetOfCallsAndAllocations )
{
    std::thread signaller = whenWaitedFor( [&] { a.signal(); } );
    a.wait( Event::infinite ); // the first wait makes the list's storage
    signaller.join();
    const auto nbrOfCalls = [] { return ourNbrOfPolls + ourNbrOfReads + ourNbrOfWrites; };
    const auto countAnew = [] { ourNbrOfPolls = ourNbrOfReads = ourNbrOfWrites = 0; };

    ourNbrOfAllocations = 0;
    ourNbrOfPipes = 0;
    countAnew();
    EXPECT_FALSE( a.wait( 1 ) );
    a.signal();
    EXPECT_TRUE( a.wait( 1 ) );
    EXPECT_EQ( nbrOfCalls(), 0 );
    x.signal();
    EXPECT_EQ( nbrOfCalls(), 1 );
    EXPECT_EQ( MultiEvent::waitOnEvents( { &x }, 1 ), 0 );
    EXPECT_EQ( nbrOfCalls(), 1 + 2 );
    // A wait that blocks learns to poll first, one that finds the event pending to read first.
    constexpr int nbrOfWaits = 100;
    const struct
    {
        bool isPending;
        int maxNbrOfCalls;
    } rounds[] = {
        { false, nbrOfWaits + 4 }, { true, 2 * nbrOfWaits + 33 }, { true, 2 * nbrOfWaits } };
    for ( const auto& round : rounds ) {
        countAnew();
        for ( int i = 0; i < nbrOfWaits; ++i ) {
            if ( round.isPending )
                x.signal();
            EXPECT_EQ( x.wait( 1 ), round.isPending );
        }
        EXPECT_LE( nbrOfCalls(), round.maxNbrOfCalls );
    }
    countAnew();
    EXPECT_FALSE( x.wait( 0 ) );
    EXPECT_EQ( nbrOfCalls(), 1 );
    EXPECT_EQ( ourNbrOfAllocations, 0 );
    EXPECT_EQ( ourNbrOfPipes, 0 );

    const auto nbrBefore = nbrOfDescriptors();
    for ( int i = 0; i < 3; ++i ) {
        a.signal();
        EXPECT_EQ( waitOn( { &x, &a }, 1000 ), 1 );
        EXPECT_EQ( waitOn( { &x, &a }, 1 ), -1 );
    }
    EXPECT_LE( ourNbrOfPipes, 1 ) << "the thread keeps its pipe";
    EXPECT_LE( nbrOfDescriptors(), nbrBefore + 2 );
    const NuvTest::Outcome outcome = NuvTest::runInChild( [&] {
        ourNbrOfPipes = 0;
        a.signal();
        waitOn( { &x, &a }, 1000 );
        ::_exit( ourNbrOfPipes );
    } );
    EXPECT_EQ( outcome.exitStatus(), 1 ) << "a forked child needs a pipe of its own";
}

TEST_F( EventTest, LastUserOfANameRemovesItsObjects )
{
    ASSERT_EQ( ::mkdir( ipc( "evt_folder" ).c_str(), 0777 ), 0 );
    for ( const std::string name : { "removed", "folder/name" } ) {
        const std::string set = name == "removed" ? "sem_evt_removed" : "sem_evt_folder-name";
        EventPtr firstPtr = std::make_unique< Event >( name );
        EventPtr secondPtr = std::make_unique< Event >( name );
        struct stat status;
        ASSERT_EQ( ::stat( ipc( "evt_" + name ).c_str(), &status ), 0 );
        EXPECT_TRUE( S_ISFIFO( status.st_mode ) );
        EXPECT_EQ( status.st_mode & 07777, 0660u );
        firstPtr->signal();
        firstPtr.reset();
        EXPECT_TRUE( exists( "evt_" + name ) && exists( set ) );
        EXPECT_TRUE( secondPtr->wait( 0 ) );
        secondPtr.reset();
        EXPECT_FALSE( exists( "evt_" + name ) || exists( set ) );
    }
    EXPECT_EQ( ::rmdir( ipc( "evt_folder" ).c_str() ), 0 );
    EXPECT_THROW( Event( "folder/name" ), ResourceException );
}

TEST_F( EventTest, FailedCallsOfConstructionLeaveNothingBehind )
{
    NuvTest::writeFile( ipc( "evt_file" ), "SSS" );
    NuvTest::expectFailure(
        "failed: myReadOnlyFd.isValid() && myWriteOnlyFd.isValid(),  File exists",
        [] { Event( "file" ); } ); // would be pending for ever
    EXPECT_FALSE( exists( "evt_file" ) ) << "the name is free again for the next user";

    const auto nbrBefore = nbrOfDescriptors();
    for ( int n = 1; n == 1 || ourFault.nbrOfStrikes() != 0; ++n ) {
        SCOPED_TRACE( n );
        ourFault.arm( n, ENFILE );
        try {
            Event event( "faulty" );
            EXPECT_EQ( ourFault.nbrOfStrikes(), 0 );
        } catch ( const ResourceException& ) {
        }
        ourFault.disarm();
        EXPECT_FALSE( exists( "evt_faulty" ) || exists( "sem_evt_faulty" ) );
        EXPECT_EQ( nbrOfDescriptors(), nbrBefore );
        ASSERT_LT( n, 20 );
    }
}

TEST_F( EventTest, FailedCallsOfAWaitAreWakeUpsOrResourceFailures )
{
    for ( const int call : { 1, 2 } ) { // the poll, the read
        x.signal();
        ourFault.arm( call, EINTR );
        EXPECT_EQ( waitOn( { &x }, 1000 ), 0 );
        EXPECT_EQ( ourFault.nbrOfStrikes(), 1 );
    }
    NuvTest::startThread( [&] { // a thread without a pipe yet
        ourFault.arm( 1, EMFILE );
        EXPECT_THROW( waitOn( { &x, &a }, 0 ), ResourceException );
        ourFault.disarm();
    } )
        .join();
    a.signal(); // no wait is left in its list
    EXPECT_TRUE( a.wait( 0 ) );
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
    void signal() override { *myCalledPtr += myLetter; }

private:
    std::string* myCalledPtr;
    char myLetter;
};

TEST_F( EventTest, RegisteredWaitsAreSignalledNewestFirst )
{
    std::string called;
    {
        const Spy first( { &a }, &called, '1' ), second( { &a }, &called, '2' );
        {
            const Spy third( { &a }, &called, '3' );
            a.signal();
        }
        a.signal();
    }
    a.signal();
    EXPECT_EQ( called, "32121" );

    const MultiWait pending( WaitEventImpl::create( { &a } ) );
    const MultiWait mixed( WaitEventImpl::create( { &a, &x } ) );
    EXPECT_NE( dynamic_cast< NonNamedWaitEventImpl* >( pending.get() ), nullptr );
    EXPECT_NE( dynamic_cast< NamedWaitEventImpl* >( mixed.get() ), nullptr );
    for ( WaitEventImpl* const implPtr : { pending.get(), mixed.get() } ) {
        EXPECT_TRUE( implPtr->wait( 0 ) ) << "a signal that came first is not lost";
        EXPECT_FALSE( implPtr->wait( 0 ) ) << "nor does it wake twice";
    }
    for ( const auto operation : { &Event::addWaitEventImpl, &Event::removeWaitEventImpl } ) {
        EXPECT_THROW( ( x.*operation )( pending.get() ), LogicException );
    }
    EXPECT_THROW( b.removeWaitEventImpl( pending.get() ), LogicException );
}

TEST_F( EventTest, DestructionMeetsWaitsAndSignallers )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        auto* const eventPtr = new Event;
        WaitEventImpl::create( { eventPtr } );
        delete eventPtr;
        ::_exit( 5 );
    } );
    EXPECT_EQ( outcome.exitStatus(), 5 );
    EXPECT_EQ( outcome.errors, "!myWaitEventImpls.empty() [Event::~Event()]\n" );

    for ( int i = 0; i < 500; ++i ) { // the signaller is out of what has fired
        EventPtr eventPtr = std::make_unique< Event >();
        std::thread signaller( [ptr = eventPtr.get()] { ptr->signal(); } );
        EXPECT_TRUE( eventPtr->wait( Event::infinite ) );
        eventPtr.reset();
        signaller.join();
    }
}

TEST( EventDeadline, CarriesIntoSeconds )
{
    const auto ns = []( const timespec& time ) {
        return static_cast< long long >( time.tv_sec ) * 1000000000 + time.tv_nsec;
    };
    for ( const unsigned int timeoutMs : { 0u, 1u, 999u, 1000u, 1999u, 0xFFFFFFFEu } ) {
        SCOPED_TRACE( timeoutMs );
        timespec before, after;
        ::clock_gettime( CLOCK_REALTIME, &before );
        const timespec deadline = computeTimeOfDayToTimeout( timeoutMs );
        ::clock_gettime( CLOCK_REALTIME, &after );
        EXPECT_GE( ns( deadline ), ns( before ) + timeoutMs * 1000000LL );
        EXPECT_LE( ns( deadline ), ns( after ) + timeoutMs * 1000000LL );
        EXPECT_LT( deadline.tv_nsec, 1000000000 );
    }
}

} // namespace
} // namespace Nuv::Mt
