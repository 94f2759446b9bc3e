#include "nuvThreadedTask.h"

#include "nuvTestCapabilityDevice.h"
#include "nuvTestSupport.h"

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

extern "C" int __real_pthread_create( pthread_t*, const pthread_attr_t*, void* (*)(void*), void* );
extern "C" int __wrap_pthread_create( pthread_t* threadPtr, const pthread_attr_t* attributesPtr,
                                      void* ( *functionPtr )(void*), void* argumentPtr )
{
    return ourCreateFault.strikes()
               ? errno
               : __real_pthread_create( threadPtr, attributesPtr, functionPtr, argumentPtr );
}
extern "C" int __wrap_getpriority( int, id_t )
{
    return ourNice;
}
extern "C" int __wrap_setpriority( int, id_t id, int value )
{
    if ( id != 0 || ourPriorityFault.strikes() )
        return -1;
    ourNice = value;
    return 0;
}

namespace Nuv::Mt {
namespace {

using namespace NuvTest;
using Body = std::function< unsigned int( ThreadedTask& ) >;
constexpr ThreadedTask::Priority normal = ThreadedTask::priorityNormal;
ThreadedTask::StartSuspended* const suspended = nullptr;

class ThreadedTasks : public RootFixture
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

std::string resourceFailure( const std::function< void() >& body )
{
    try {
        body();
    } catch ( const ResourceException& e ) {
        return e.what();
    }
    return "no failure";
}

} // namespace

TEST_F( ThreadedTasks, RunUntilTheirFunctionReturns )
{
    ThreadedTask task( &untilExit, "waiter", nullptr, normal );
    EXPECT_FALSE( task.waitForTaskCompletion( 0 ) );
    EXPECT_FALSE( task.waitForTaskCompletion( 5 ) );
    EXPECT_TRUE( task.isRunning() );
    EXPECT_EQ( task.exitCode(), -1 );
    task.requestExit();
    EXPECT_TRUE( isEnded( task ) );
    EXPECT_TRUE( task.waitForTaskCompletion( 0 ) ) << "a completed task stays completed";
    EXPECT_EQ( task.exitCode(), 42 );
    EXPECT_FALSE( task.isRunning() );
    EXPECT_FALSE( task.terminateThread() ) << "there is no thread any more";
}

TEST_F( ThreadedTasks, StartSuspendedUntilResumedByTheirCreator )
{
    std::atomic< int > nbrOfRuns = 0;
    Body body = [&]( ThreadedTask& ) -> unsigned int { return ++nbrOfRuns; };
    {
        ThreadedTask task( &runBody, "adder", &body, normal, suspended );
        EXPECT_FALSE( task.waitForTaskCompletion( 20 ) );
        EXPECT_EQ( nbrOfRuns, 0 );
        EXPECT_TRUE( task.isRunning() );
        std::thread( [&] { EXPECT_THROW( task.resume(), LogicException ); } ).join();
        task.resume();
        EXPECT_THROW( task.resume(), LogicException );
        EXPECT_TRUE( isEnded( task ) );
        EXPECT_EQ( nbrOfRuns, 1 );
        const ThreadedTask neverResumed( &runBody, "adder", &body, normal, suspended );
    }
    EXPECT_EQ( nbrOfRuns, 2 ) << "the destructor resumes";
}

TEST_F( ThreadedTasks, DestructionBlocksUntilTheFunctionReturns )
{
    Event mayReturn;
    Body stubborn = [&]( ThreadedTask& ) { return mayReturn.wait( Event::infinite ) ? 0u : 1u; };
    auto taskPtr = std::make_unique< ThreadedTask >( &runBody, "stubborn", &stubborn, normal );
    std::atomic< bool > isDestroyed = false;
    Body destroy = [&]( ThreadedTask& ) {
        taskPtr.reset();
        isDestroyed = true;
        return 0u;
    };
    ThreadedTask destroyer( &runBody, "destroyer", &destroy, normal );
    EXPECT_FALSE( waitFor( [&] { return isDestroyed.load(); }, std::chrono::milliseconds( 30 ) ) );
    mayReturn.signal();
    EXPECT_TRUE( isEnded( destroyer ) );
    EXPECT_TRUE( isDestroyed );
}

TEST_F( ThreadedTasks, WithoutAFunctionThatReturnsEndTheThreadOnly )
{
    Body throwing = []( ThreadedTask& ) -> unsigned int { throw 1; };
    Body leaving = []( ThreadedTask& ) -> unsigned int { ::pthread_exit( nullptr ); };
    for ( Body* const bodyPtr : { &throwing, &leaving, static_cast< Body* >( nullptr ) } ) {
        ThreadedTask task( bodyPtr ? &runBody : nullptr, nullptr, bodyPtr, normal );
        EXPECT_TRUE( isEnded( task ) );
        EXPECT_EQ( task.exitCode(), -1 );
        EXPECT_FALSE( task.isRunning() );
    }
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

TEST_F( ThreadedTasks, KeepTheInterruptSignalsBlockedWhateverTheirCreatorDoes )
{
    sigset_t none;
    sigset_t saved;
    sigemptyset( &none );
    ::pthread_sigmask( SIG_SETMASK, &none, &saved );
    Body count = []( ThreadedTask& ) {
        sigset_t mask;
        ::pthread_sigmask( SIG_BLOCK, nullptr, &mask );
        unsigned int nbrOfBlocked = 0;
        for ( int sig = 1; sig < 32; ++sig ) {
            nbrOfBlocked += sigismember( &mask, sig ) == 1 ? 1 : 0;
        }
        return sigismember( &mask, SIGTERM ) == 1 ? nbrOfBlocked : 0;
    };
    ThreadedTask task( &runBody, "masked", &count, normal );
    EXPECT_TRUE( isEnded( task ) );
    EXPECT_EQ( task.exitCode(), 15 );
    ::pthread_sigmask( SIG_SETMASK, &saved, nullptr );
}

TEST_F( ThreadedTasks, ThatCannotBeCreatedLeaveNothing )
{
    Body never = []( ThreadedTask& ) -> unsigned int {
        ADD_FAILURE();
        return 0;
    };
    ourCreateFault.arm( 1, EAGAIN );
    const std::string text =
        resourceFailure( [&] { ThreadedTask( &runBody, "adder", &never, normal ); } );
    ourCreateFault.disarm();
    EXPECT_NE( text.find( "Condition failed: thrOk,  Resource temporarily" ), std::string::npos )
        << text;
    EXPECT_THROW( ThreadedTask( &runBody, "", &never, static_cast< ThreadedTask::Priority >( 7 ) ),
                  LogicException );
}

TEST_F( ThreadedTasks, ShowTheirLifeInTheirRecord )
{
    std::atomic< SubsystemInfo::ThreadDetails* > sharedPtr = nullptr;
    Body show = [&]( ThreadedTask& self ) {
        sharedPtr = SubsystemInfo::threadletonPtr()->detailPtr();
        return untilExit( &self, nullptr );
    };
    ThreadedTask task( &runBody, "followed", &show, normal );
    ASSERT_TRUE( waitFor( [&] { return sharedPtr != nullptr; } ) );
    SubsystemInfo::ThreadDetails& record = *sharedPtr;
    EXPECT_EQ( record.myInUse, 1u );
    EXPECT_STREQ( record.myDescription, "followed" );
    EXPECT_TRUE( waitFor( [&] { return std::atomic_ref( record.myWaitKind ) == 3u; } ) )
        << "on events";
    EXPECT_EQ( record.myState, 1u );
    task.requestExit();
    EXPECT_TRUE( isEnded( task ) );
    EXPECT_EQ( record.myInUse + record.myWaitKind, 0u );
    EXPECT_EQ( record.myState, 2u );
    Body throwing = []( ThreadedTask& ) -> unsigned int { throw 1; };
    ThreadedTask failing( &runBody, "failing", &throwing, normal );
    EXPECT_TRUE( isEnded( failing ) );
    EXPECT_STREQ( record.myDescription, "failing" ) << "the record serves the next thread";
    EXPECT_EQ( record.myState, 3u );
}

TEST_F( ThreadedTasks, InheritTheSubsystemNameAndDeleteTheirThreadletons )
{
    static std::atomic< int > ourNbrOfObjects = 0;
    struct Counted : Threadleton
    {
        Counted() { ++ourNbrOfObjects; }
        ~Counted() override { --ourNbrOfObjects; }
    };
    SubsystemInfo& mine = *SubsystemInfo::threadletonPtr();
    mine.nameStrPtr( SubsystemInfo::NamePtr( new std::string( "sensor" ) ) );
    Body body = [&]( ThreadedTask& ) -> unsigned int {
        Threadleton::pushThreadleton( new Counted );
        Threadleton::pushThreadleton( new Counted );
        EXPECT_EQ( SubsystemInfo::threadletonPtr()->nameStrPtr(), mine.nameStrPtr() );
        return ourNbrOfObjects;
    };
    ThreadedTask task( &runBody, "heir", &body, normal );
    EXPECT_TRUE( isEnded( task ) );
    EXPECT_EQ( task.exitCode(), 2 );
    EXPECT_EQ( ourNbrOfObjects, 0 );
    mine.nameStrPtr( SubsystemInfo::NamePtr() );
}

// The threads leave their threadletons: in a child that is not searched for leaks.
TEST_F( ThreadedTasks, TerminatedAtAnyMomentAreUnwoundAndJoined )
{
    const Outcome outcome = runInChild( [] {
        std::atomic< bool > isInside = false;
        Body block = [&]( ThreadedTask& ) -> unsigned int {
            const std::shared_ptr< void > scope( &isInside, [&]( void* ) { isInside = false; } );
            isInside = true;
            for ( ;; ) {
                ::pause();
            }
        };
        for ( int i = 0; i < 200; ++i ) {
            ThreadedTask task( &runBody, "blocked", &block, normal );
            if ( i % 2 == 0 )
                waitFor( [&] { return isInside.load(); } );
            Body terminate = [&]( ThreadedTask& ) { return task.terminateThread() ? 1u : 0u; };
            ThreadedTask other( &runBody, "other", &terminate, normal );
            EXPECT_TRUE( isEnded( task ) );
            EXPECT_FALSE( isInside || task.isRunning() );
            EXPECT_EQ( task.exitCode(), -1 );
        }
        Body never = []( ThreadedTask& ) -> unsigned int { ::_exit( 3 ); };
        {
            ThreadedTask task( &runBody, "suspended", &never, normal, suspended );
            EXPECT_TRUE( task.terminateThread() );
        }
        ::_exit( HasFailure() ? 1 : 0 );
    } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
}

TEST_F( ThreadedTasks, PriorityIsALineThroughTheNiceValues )
{
    const CapabilityDeviceDouble device;
    for ( int priority = 0; priority <= 6; ++priority ) {
        ThreadedTask::changePriority( static_cast< ThreadedTask::Priority >( priority ) );
        EXPECT_EQ( ourNice, 5 * priority - 10 );
    }
    const int lastNiceOf[] = { -8, -3, 2, 7, 12, 17, 20 };
    for ( int nice = -20, expected = 0; nice <= 20; ++nice ) {
        ourNice = nice;
        EXPECT_EQ( ThreadedTask::changePriority( normal ), expected ) << nice;
        expected += nice == lastNiceOf[expected] ? 1 : 0;
    }
    EXPECT_THROW( ThreadedTask::changePriority( static_cast< ThreadedTask::Priority >( -1 ) ),
                  LogicException );
}

TEST_F( ThreadedTasks, WithoutTheirPriorityDoNotRun )
{
    const CapabilityDeviceDouble device;
    std::atomic< int > nbrOfRuns = 0;
    Body body = [&]( ThreadedTask& ) -> unsigned int { return ++nbrOfRuns; };
    {
        const ThreadedTask task( &runBody, "low", &body, ThreadedTask::priorityVeryLow );
    }
    EXPECT_EQ( ourNice, 15 );
    EXPECT_EQ( nbrOfRuns, 1 );
    ourPriorityFault.arm( 1, EACCES, Fault::forGood );
    const std::string text = resourceFailure( [] { ThreadedTask::changePriority( normal ); } );
    EXPECT_NE( text.find( "Condition failed: priortySetOk,  Permission denied" ),
               std::string::npos )
        << text;
    {
        const ThreadedTask task( &runBody, "refused", &body, normal );
    }
    ourPriorityFault.disarm();
    EXPECT_EQ( nbrOfRuns, 1 );
}

TEST_F( ThreadedTasks, PriorityAndAffinityNeedTheDevice )
{
    CapabilityDeviceDouble device;
    ThreadedTask::setAffinity( 2 );
    EXPECT_EQ( device.own().affinity, ::sysconf( _SC_NPROCESSORS_ONLN ) < 2 ? 0xFFFFFFFF : 2 );
#if ULONG_MAX > 0xFFFFFFFF
    EXPECT_THROW( ThreadedTask::setAffinity( 0x100000001 ), LogicException );
#endif
    device.setOpen( false );
    ourNice = 11;
    EXPECT_EQ( ThreadedTask::changePriority( ThreadedTask::priorityHighest ), normal );
    EXPECT_EQ( ourNice, 11 );
    ThreadedTask::setAffinity( 4 );
    EXPECT_NE( device.own().affinity, 4u );
}

} // namespace Nuv::Mt
