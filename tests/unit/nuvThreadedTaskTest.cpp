#include "nuvThreadedTask.h"

#include "nuvSemaphore.h"
#include "nuvTestCapabilityDevice.h"
#include "nuvTestInterprocess.h"
#include "nuvTestWrap.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <functional>
#include <memory>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {
NuvTest::Fault ourCreateFault;
NuvTest::Fault ourPriorityFault;
std::atomic< int > ourNice = 0; // what the system reports, and was asked for last
} // namespace

NUV_FAIL_CALLS( ourCreateFault, errno, int, pthread_create,
                ( pthread_t * t, const pthread_attr_t* a, void* ( *f )(void*), void* p ),
                ( t, a, f, p ) )
NUV_WRAP( int, getpriority, ( int, id_t ), ourNice )
NUV_WRAP( int, setpriority, ( int, id_t id, int value ),
          id != 0 || ourPriorityFault.strikes() ? -1 : ( ourNice = value, 0 ) )

namespace Nuv::Mt {
namespace {

using namespace NuvTest;
using Body = std::function< unsigned int( ThreadedTask& ) >;
constexpr ThreadedTask::Priority normal = ThreadedTask::priorityNormal;
ThreadedTask::StartSuspended* const suspended = nullptr;

class ThreadedTasks : public InterprocessFixture
{
protected:
    void TearDown() override { removeInterprocessObjects(); }
};

unsigned int runBody( ThreadedTask* taskPtr, void* bodyPtr )
{
    return ( *static_cast< Body* >( bodyPtr ) )( *taskPtr );
}

unsigned int untilExit( ThreadedTask* taskPtr, void* )
{
    return taskPtr->exitEvent().wait( Event::infinite ) && taskPtr->isExitRequested() ? 42 : 1;
}

bool isEnded( ThreadedTask& task )
{
    return task.waitForTaskCompletion( ThreadedTask::infinite );
}

int exitCodeOf( Body body )
{
    ThreadedTask task( &runBody, "task", &body, normal );
    EXPECT_TRUE( isEnded( task ) );
    EXPECT_FALSE( task.isRunning() );
    return task.exitCode();
}

} // namespace

TEST_F( ThreadedTasks, RunUntilTheirFunctionReturns )
{
    ThreadedTask task( &untilExit, "waiter", nullptr, normal );
    EXPECT_FALSE( task.waitForTaskCompletion( 0 ) || task.waitForTaskCompletion( 5 ) );
    EXPECT_TRUE( task.isRunning() );
    EXPECT_EQ( task.exitCode(), -1 );
    task.requestExit();
    EXPECT_TRUE( isEnded( task ) );
    EXPECT_TRUE( task.waitForTaskCompletion( 0 ) ) << "a completed task stays completed";
    EXPECT_EQ( task.exitCode(), 42 );
    EXPECT_FALSE( task.isRunning() || task.terminateThread() ) << "no thread any more";
    EXPECT_EQ( exitCodeOf( []( ThreadedTask& ) -> unsigned int { throw 1; } ), -1 );
    EXPECT_EQ( exitCodeOf( []( ThreadedTask& ) -> unsigned int { ::pthread_exit( nullptr ); } ),
               -1 );
    ThreadedTask empty( nullptr, nullptr, nullptr, normal );
    EXPECT_TRUE( isEnded( empty ) );
    EXPECT_EQ( empty.exitCode(), -1 );
}

TEST_F( ThreadedTasks, StartSuspendedUntilResumedByTheirCreator )
{
    std::atomic< int > nbrOfRuns = 0;
    Body body = [&]( ThreadedTask& ) -> unsigned int { return ++nbrOfRuns; };
    {
        ThreadedTask task( &runBody, "adder", &body, normal, suspended );
        EXPECT_FALSE( task.waitForTaskCompletion( 20 ) );
        EXPECT_EQ( nbrOfRuns, 0 );
        std::thread( [&] { EXPECT_THROW( task.resume(), LogicException ); } ).join();
        task.resume();
        EXPECT_THROW( task.resume(), LogicException );
        EXPECT_TRUE( isEnded( task ) );
        EXPECT_EQ( nbrOfRuns, 1 );
        const ThreadedTask neverResumed( &runBody, "adder", &body, normal, suspended );
    }
    EXPECT_EQ( nbrOfRuns, 2 ) << "the destructor resumes, and waits";
}

TEST_F( ThreadedTasks, AreJoinedByOneOfSeveralWaitersButNotByThemselves )
{
    Body wait = []( ThreadedTask& self ) {
        EXPECT_THROW( self.waitForTaskCompletion( 0 ), LogicException );
        return untilExit( &self, nullptr );
    };
    ThreadedTask task( &runBody, "waiter", &wait, normal );
    Body join = [&]( ThreadedTask& ) { return isEnded( task ) ? 1u : 0u; };
    ThreadedTask first( &runBody, "first", &join, normal );
    ThreadedTask second( &runBody, "second", &join, normal );
    task.requestExit();
    EXPECT_TRUE( isEnded( first ) && isEnded( second ) );
    EXPECT_EQ( first.exitCode() + second.exitCode(), 2 );
}

TEST_F( ThreadedTasks, InheritTheNameShowWhatTheyWaitForAndDeleteTheirThreadletons )
{
    static std::atomic< bool > ourExists = false;
    struct Counted : Threadleton
    {
        Counted() { ourExists = true; }
        ~Counted() override { ourExists = false; }
    };
    SubsystemInfo& mine = *SubsystemInfo::threadletonPtr();
    mine.nameStrPtr( SubsystemInfo::NamePtr( new std::string( "sensor" ) ) );
    Semaphore semaphore( "threads", 0 );
    std::atomic< SubsystemInfo::ThreadDetails* > sharedPtr = nullptr;
    Body wait = [&]( ThreadedTask& ) -> unsigned int {
        Threadleton::pushThreadleton( new Counted );
        sharedPtr = SubsystemInfo::threadletonPtr()->detailPtr();
        sigset_t mask;
        ::pthread_sigmask( SIG_BLOCK, nullptr, &mask );
        return semaphore.wait() &&
               SubsystemInfo::threadletonPtr()->nameStrPtr() == mine.nameStrPtr() &&
               sigismember( &mask, SIGTERM ) == 1 && sigismember( &mask, SIGPWR ) == 1;
    };
    sigset_t none;
    sigset_t saved;
    sigemptyset( &none );
    ::pthread_sigmask( SIG_SETMASK, &none, &saved );
    ThreadedTask task( &runBody, "a task whose name is longer than 32 characters", &wait, normal );
    ::pthread_sigmask( SIG_SETMASK, &saved, nullptr );
    EXPECT_TRUE( waitFor( [&] {
        return sharedPtr != nullptr &&
               std::atomic_ref( sharedPtr.load()->myWaitObject ) == semaphore.handle();
    } ) );
    SubsystemInfo::ThreadDetails& record = *sharedPtr;
    EXPECT_TRUE( ourExists );
    EXPECT_EQ( std::atomic_ref( record.myWaitKind ).load(), 2u );
    EXPECT_STREQ( record.myDescription, "a task whose name is longer than" );
    EXPECT_EQ( std::atomic_ref( record.myState ).load(), 1u );
    semaphore.post();
    EXPECT_TRUE( isEnded( task ) );
    EXPECT_EQ( task.exitCode(), 1 );
    EXPECT_EQ( record.myInUse + record.myWaitKind, 0u );
    EXPECT_EQ( record.myState, 2u );
    EXPECT_FALSE( ourExists );
    mine.nameStrPtr( SubsystemInfo::NamePtr() );
}

// The threads leave their threadletons: in a child that is not searched for leaks.
TEST_F( ThreadedTasks, TerminatedAtAnyMomentAreUnwoundAndJoined )
{
    passInChild( [] {
        std::atomic< bool > isInside = false;
        Body block = [&]( ThreadedTask& ) -> unsigned int {
            const std::shared_ptr< void > scope( &isInside, [&]( void* ) { isInside = false; } );
            isInside = true;
            for ( ;; )
                ::pause();
        };
        for ( int i = 0; i < 200; ++i ) {
            ThreadedTask task( &runBody, "blocked", &block, normal );
            if ( i % 2 == 0 )
                waitFor( [&] { return isInside.load(); } );
            EXPECT_EQ( exitCodeOf( [&]( ThreadedTask& ) { return task.terminateThread(); } ), 1 );
            EXPECT_TRUE( isEnded( task ) );
            EXPECT_FALSE( isInside || task.isRunning() );
            EXPECT_EQ( task.exitCode(), -1 );
        }
        ::_exit( HasFailure() ? 1 : 0 );
    } );
}

TEST_F( ThreadedTasks, PriorityIsALineThroughTheNiceValuesAndWithoutItTheyDoNotRun )
{
    CapabilityDeviceDouble device;
    const int lastNiceOf[] = { -8, -3, 2, 7, 12, 17, 20 };
    for ( int nice = -20, expected = 0; nice <= 20; ++nice ) {
        ourNice = nice;
        const auto priority = static_cast< ThreadedTask::Priority >( expected );
        EXPECT_EQ( ThreadedTask::changePriority( priority ), priority ) << nice;
        EXPECT_EQ( ourNice, 5 * expected - 10 );
        expected += nice == lastNiceOf[expected] ? 1 : 0;
    }
    std::atomic< int > nbrOfRuns = 0;
    Body body = [&]( ThreadedTask& ) -> unsigned int { return ++nbrOfRuns; };
    ThreadedTask( &runBody, "low", &body, ThreadedTask::priorityVeryLow );
    EXPECT_EQ( ourNice, 15 );
    ourPriorityFault.arm( 1, EACCES, Fault::forGood );
    expectFailure( "Condition failed: priortySetOk,  Permission denied",
                   [] { ThreadedTask::changePriority( normal ); } );
    ThreadedTask( &runBody, "refused", &body, normal );
    ourPriorityFault.disarm();
    ourCreateFault.arm( 1, EAGAIN );
    expectFailure( "Condition failed: thrOk,  Resource temporarily",
                   [&] { ThreadedTask( &runBody, "none", &body, normal ); } );
    for ( const int priority : { -1, 7 } ) {
        const auto invalid = static_cast< ThreadedTask::Priority >( priority );
        EXPECT_THROW( ThreadedTask( &runBody, "", &body, invalid ), LogicException );
        EXPECT_THROW( ThreadedTask::changePriority( invalid ), LogicException );
    }
    EXPECT_EQ( nbrOfRuns, 1 );

    ThreadedTask::setAffinity( 2 );
    EXPECT_EQ( device.own().affinity, ::sysconf( _SC_NPROCESSORS_ONLN ) < 2 ? 0xFFFFFFFF : 2 );
#if ULONG_MAX > 0xFFFFFFFF
    EXPECT_THROW( ThreadedTask::setAffinity( 0x100000001 ), LogicException );
#endif
    device.setOpen( false );
    EXPECT_EQ( ThreadedTask::changePriority( ThreadedTask::priorityHighest ), normal );
    EXPECT_EQ( ourNice, 15 );
    ThreadedTask::setAffinity( 4 );
    EXPECT_NE( device.own().affinity, 4u );
}

} // namespace Nuv::Mt
