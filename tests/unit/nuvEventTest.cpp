#include "nuvEvent.h"

#include "nuvTestInterprocess.h"
#include "nuvTestThread.h"
#include "nuvTestWrap.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {
NuvTest::Fault ourFault; // in the calls below
std::atomic< int > ourNbrOfPolls = 0, ourNbrOfReads = 0, ourNbrOfPipes = 0, ourNbrOfWrites = 0;
thread_local int ourNbrOfAllocations = 0;
} // namespace

NUV_FAIL_CALLS( ourFault, -1, int, NUV_OFF64( open ), ( const char* p, int flags, mode_t mode ),
                ( p, flags, mode ) )
NUV_FAIL_CALLS( ourFault, -1, int, mkfifo, ( const char* p, mode_t mode ), ( p, mode ) )
NUV_WRAP_REAL( int, pipe2, ( int* endsPtr, int flags ), ++ourNbrOfPipes,
               ourFault.strikes() ? -1 : NUV_REAL( pipe2 )( endsPtr, flags ) )
NUV_WRAP_REAL( int, poll, ( pollfd * ptr, nfds_t count, int timeoutMs ), ++ourNbrOfPolls,
               ourFault.strikes() ? -1 : NUV_REAL( poll )( ptr, count, timeoutMs ) )
NUV_WRAP_REAL( ssize_t, read, ( int fd, void* ptr, size_t count ), ++ourNbrOfReads,
               ourFault.strikes() ? -1 : NUV_REAL( read )( fd, ptr, count ) )
NUV_WRAP_REAL( ssize_t, write, ( int fd, const void* ptr, size_t count ), ++ourNbrOfWrites,
               NUV_REAL( write )( fd, ptr, count ) )
NUV_WRAP_REAL( void*, NUV_SIZED( _Znw ), ( size_t n ), ++ourNbrOfAllocations,
               NUV_REAL( NUV_SIZED( _Znw ) )( n ) )

namespace Nuv::Mt {
namespace {

using Events = std::vector< Event* >;
using EventPtr = std::unique_ptr< Event >;

int waitOn( const Events& events, unsigned int timeoutMs )
{
    return MultiEvent::waitOnEvents( events, timeoutMs );
}

class EventTest : public NuvTest::InterprocessFixture
{
protected:
    Event a, b, c, x{ "x" }, y{ "y" }, z{ "z" };
};

TEST_F( EventTest, SignalStaysUntilOneWaitTakesIt )
{
    Event sameAsX( "x" );
    for ( Event* const eventPtr : { &a, &x } ) {
        Event& other = eventPtr == &x ? sameAsX : a;
        SCOPED_TRACE( eventPtr->isNamed() );
        EXPECT_FALSE( eventPtr->wait( 0 ) );
        for ( const int nbrOfSignals : { 1, 3, 1025, 70000 } ) {
            for ( int i = 0; i < nbrOfSignals; ++i ) {
                eventPtr->signal(); // of a named one, more than its FIFO holds
            }
            EXPECT_TRUE( other.wait( 0 ) );
            EXPECT_FALSE( eventPtr->wait( 3 ) );
        }
        eventPtr->signal();
        EXPECT_TRUE( other.readAndReset() );
        EXPECT_FALSE( eventPtr->readAndReset() );
    }
}

TEST_F( EventTest, FirstPendingOfTheListFiresAndTheOthersStay )
{
    std::list< Event > owned;
    Events many{ &a };
    for ( int i = 0; i < 10; ++i ) {
        many.push_back( &owned.emplace_back( "many" + std::to_string( i ) ) );
    }
    for ( const Events& events : { Events{ &a, &b, &c }, Events{ &x, &y, &z }, Events{ &a, &y, &c },
                                   Events{ &x, &b, &z }, many } ) {
        EXPECT_EQ( waitOn( events, 0 ), -1 );
        events.back()->signal();
        events[1]->signal();
        EXPECT_EQ( waitOn( events, 1000 ), 1 );
        EXPECT_EQ( MultiEvent::waitOnEvents( std::list( events.begin(), events.end() ), 0 ),
                   static_cast< int >( events.size() ) - 1 );
    }
    EXPECT_EQ( waitOn( {}, 1 ), -1 );
    EXPECT_THROW( MultiEvent::waitOnEvents( { &a, nullptr }, 0 ), LogicException );
}

TEST_F( EventTest, WaitOfAnyKindIsWokenByAnyOfItsEvents )
{
    for ( const Events& events : { Events{ &a }, Events{ &x }, Events{ &a, &b }, Events{ &x, &y },
                                   Events{ &a, &x }, Events{ &x, &a } } ) {
        for ( const unsigned int timeoutMs : { Event::infinite, 0xFFFFFFFEu, 60000u } ) {
            // A wait on non-named events shows itself to nobody: the signal comes soon or late.
            std::thread signaller( [&, before = ourNbrOfPolls.load()] {
                NuvTest::waitFor( [=] { return ourNbrOfPolls > before; },
                                  std::chrono::milliseconds( 20 ) );
                events.back()->signal();
            } );
            EXPECT_EQ( waitOn( events, timeoutMs ), static_cast< int >( events.size() ) - 1 );
            signaller.join();
        }
    }
}

TEST_F( EventTest, OneSignalEndsOneWaitOfMany )
{
    std::atomic< int > nbrOfFired = 0;
    std::vector< std::thread > waiters;
    for ( const Events& events : { Events{ &a }, Events{ &x, &a }, Events{ &a } } ) {
        waiters.push_back( NuvTest::startThread( [&nbrOfFired, events] {
            waitOn( events, Event::infinite );
            ++nbrOfFired;
        } ) );
    }
    for ( int i = 1; i <= 3; ++i ) {
        a.signal();
        EXPECT_TRUE( NuvTest::waitFor( [&] { return nbrOfFired == i; } ) );
        EXPECT_FALSE( a.wait( 2 ) ) << "more than one signal was there";
    }
    for ( std::thread& waiter : waiters ) {
        waiter.join();
    }
}

TEST_F( EventTest, TimeoutPassesWhileWakeUpsFindNothing )
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE( b.wait( 20 ) || y.wait( 20 ) );
    EXPECT_GE( std::chrono::steady_clock::now() - start, std::chrono::milliseconds( 38 ) );
    std::atomic< bool > isOver = false;
    std::thread disturber( [&] {
        for ( ; !isOver; a.reset(), x.reset() ) {
            a.signal();
            x.signal();
        }
    } );
    waitOn( { &b, &a }, 20 ); // ends, though it may see it pending
    waitOn( { &b, &x }, 20 );
    isOver = true;
    disturber.join();
}

TEST_F( EventTest, BudgetOfCallsAndAllocations )
{
    EXPECT_FALSE( a.wait( 1 ) ); // the first wait makes the list's storage
    const auto nbrOfCalls = [] { return ourNbrOfPolls + ourNbrOfReads + ourNbrOfWrites; };
    const int before = nbrOfCalls();
    ourNbrOfAllocations = ourNbrOfPipes = 0;
    EXPECT_FALSE( a.wait( 1 ) );
    a.signal();
    EXPECT_TRUE( a.wait( 1 ) );
    EXPECT_EQ( nbrOfCalls(), before );
    x.signal();
    EXPECT_EQ( nbrOfCalls(), before + 1 );
    EXPECT_EQ( MultiEvent::waitOnEvents( { &x }, 1 ), 0 );
    EXPECT_EQ( nbrOfCalls(), before + 1 + 2 );
    EXPECT_EQ( ourNbrOfAllocations + ourNbrOfPipes, 0 );
    for ( const int call : { 1, 2 } ) { // the poll, the read: failures are wake-ups
        x.signal();
        ourFault.arm( call, EINTR );
        EXPECT_EQ( waitOn( { &x }, 1000 ), 0 );
        EXPECT_EQ( ourFault.nbrOfStrikes(), 1 );
    }
    waitOn( { &x, &a }, 1 );

    const auto outcome = NuvTest::runInChild( [&] {
        ourNbrOfPipes = 0;
        for ( int i = 0; i < 3; ++i ) {
            waitOn( { &x, &a }, 1 );
        }
        ::_exit( ourNbrOfPipes );
    } );
    EXPECT_EQ( outcome.exitStatus(), 1 )
        << "a thread, and a forked child, makes a pipe and keeps it";
}

TEST_F( EventTest, ConstructionMakesAFifoOrLeavesNothingBehind )
{
    struct stat status;
    ASSERT_EQ( ::stat( ipc( "evt_x" ).c_str(), &status ), 0 );
    EXPECT_TRUE( S_ISFIFO( status.st_mode ) );
    EXPECT_EQ( status.st_mode & 07777, 0660u );
    EXPECT_THROW( Event( "folder/name" ), ResourceException );
    NuvTest::writeFile( ipc( "evt_file" ), "SSS" );
    NuvTest::expectFailure(
        "failed: myReadOnlyFd.isValid() && myWriteOnlyFd.isValid(),  File exists",
        [] { Event( "file" ); } ); // would be pending for ever
    EXPECT_FALSE( exists( "evt_file" ) ) << "the name is free again for the next user";
    const auto nbrOfDescriptors = [] {
        return std::distance( std::filesystem::directory_iterator( "/proc/self/fd" ), {} );
    };
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

} // namespace
} // namespace Nuv::Mt
