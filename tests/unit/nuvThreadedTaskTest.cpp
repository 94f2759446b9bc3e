#include "nuvThreadedTask.h"

#include "nuvTestCapabilityDevice.h"
#include "nuvTestSupport.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <pthread.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {
NuvTest::Fault ourCreateFault;
NuvTest::Fault ourPriorityFault;
// The nice value that the system reports, and the one that was asked for last.
std::atomic< int > ourNice = 0;
} // namespace

extern "C" int __real_pthread_create( pthread_t*, const pthread_attr_t*, void* (*)(void*), void* );
extern "C" int __wrap_pthread_create( pthread_t* threadPtr, const pthread_attr_t* attributesPtr,
                                      void* ( *functionPtr )(void*), void* argumentPtr )
{
    if ( ourCreateFault.strikes() )
        return errno;
    return __real_pthread_create( threadPtr, attributesPtr, functionPtr, argumentPtr );
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
constexpr ThreadedTask::Priority normal = ThreadedTask::priorityNormal;
ThreadedTask::StartSuspended* const suspended = nullptr;

class ThreadedTaskLife : public RootFixture
{
protected:
    void TearDown() override { removeInterprocessObjects(); }
};
class ThreadedTaskPriority : public ThreadedTaskLife
{
};

unsigned int addOne( ThreadedTask*, void* counterPtr )
{
    return static_cast< unsigned int >( ++*static_cast< std::atomic< int >* >( counterPtr ) );
}

unsigned int untilExit( ThreadedTask* taskPtr, void* )
{
    return taskPtr->exitEvent().wait( Event::infinite ) && taskPtr->isExitRequested() ? 42 : 1;
}

// A thread of the library's for any body.
class Runner
{
public:
    explicit Runner( std::function< void() > body )
        : myBody( std::move( body ) )
        , myTask( &run, "runner", this, normal )
    {
    }

private:
    static unsigned int run( ThreadedTask*, void* runnerPtr )
    {
        static_cast< Runner* >( runnerPtr )->myBody();
        return 0;
    }

    std::function< void() > myBody;
    ThreadedTask myTask;
};

unsigned int throwInt( ThreadedTask*, void* )
{
    throw 1;
}

// -------- life

TEST_F( ThreadedTaskLife, FunctionsResultIsTheExitCode )
{
    std::atomic< int > counter = 6;
    ThreadedTask task( &addOne, "adder", &counter, normal );
    EXPECT_TRUE( task.waitForTaskCompletion( ThreadedTask::infinite ) );
    EXPECT_TRUE( task.waitForTaskCompletion( 0 ) ) << "a completed task stays completed";
    EXPECT_EQ( task.exitCode(), 7 );
    EXPECT_FALSE( task.isRunning() );
    EXPECT_FALSE( task.terminateThread() ) << "there is no thread any more";
}

TEST_F( ThreadedTaskLife, RequestedExitIsSeenByTheFunction )
{
    ThreadedTask task( &untilExit, "waiter", nullptr, normal );
    EXPECT_FALSE( task.waitForTaskCompletion( 0 ) );
    EXPECT_FALSE( task.waitForTaskCompletion( 5 ) );
    EXPECT_TRUE( task.isRunning() );
    EXPECT_EQ( task.exitCode(), -1 );
    task.requestExit();
    EXPECT_TRUE( task.waitForTaskCompletion( ThreadedTask::infinite ) );
    EXPECT_EQ( task.exitCode(), 42 );
}

TEST_F( ThreadedTaskLife, SuspendedTaskStartsWithResumeOnly )
{
    std::atomic< int > counter = 0;
    ThreadedTask task( &addOne, "adder", &counter, normal, suspended );
    EXPECT_FALSE( task.waitForTaskCompletion( 20 ) );
    EXPECT_EQ( counter, 0 );
    EXPECT_TRUE( task.isRunning() );
    std::thread( [&] { EXPECT_THROW( task.resume(), LogicException ); } ).join();
    task.resume();
    EXPECT_THROW( task.resume(), LogicException );
    EXPECT_TRUE( task.waitForTaskCompletion( ThreadedTask::infinite ) );
    EXPECT_EQ( counter, 1 );
}

TEST_F( ThreadedTaskLife, DestructorResumesRequestsTheExitAndWaits )
{
    std::atomic< int > counter = 0;
    {
        ThreadedTask waiting( &untilExit, "waiter", nullptr, normal );
        ThreadedTask neverResumed( &addOne, "adder", &counter, normal, suspended );
    }
    EXPECT_EQ( counter, 1 );
}

TEST_F( ThreadedTaskLife, DestructorBlocksUntilTheFunctionReturns )
{
    Event mayReturn;
    auto function = []( ThreadedTask*, void* eventPtr ) -> unsigned int {
        static_cast< Event* >( eventPtr )->wait( Event::infinite );
        return 0;
    };
    auto taskPtr = std::make_unique< ThreadedTask >( +function, "stubborn", &mayReturn, normal );
    std::atomic< bool > isDestroyed = false;
    auto destroyerPtr = std::make_unique< Runner >( [&] {
        taskPtr.reset();
        isDestroyed = true;
    } );
    EXPECT_FALSE( waitFor( [&] { return isDestroyed.load(); }, std::chrono::milliseconds( 30 ) ) );
    mayReturn.signal();
    destroyerPtr.reset();
    EXPECT_TRUE( isDestroyed );
}

TEST_F( ThreadedTaskLife, EscapedExceptionAndMissingFunctionEndTheThreadOnly )
{
    for ( ThreadedTask::TaskFunction function : { &throwInt, ThreadedTask::TaskFunction{} } ) {
        ThreadedTask task( function, nullptr, nullptr, normal );
        EXPECT_TRUE( task.waitForTaskCompletion( ThreadedTask::infinite ) );
        EXPECT_EQ( task.exitCode(), -1 );
        EXPECT_FALSE( task.isRunning() );
    }
}

TEST_F( ThreadedTaskLife, OneOfSeveralWaitersJoins )
{
    ThreadedTask task( &untilExit, "waiter", nullptr, normal );
    std::atomic< int > nbrOfTrue = 0;
    std::list< Runner > waiters;
    for ( int i = 0; i < 4; ++i ) {
        waiters.emplace_back(
            [&] { nbrOfTrue += task.waitForTaskCompletion( ThreadedTask::infinite ) ? 1 : 0; } );
    }
    task.requestExit();
    waiters.clear();
    EXPECT_EQ( nbrOfTrue, 4 );
}

TEST_F( ThreadedTaskLife, TaskCannotWaitForItself )
{
    auto function = []( ThreadedTask* taskPtr, void* ) -> unsigned int {
        EXPECT_THROW( taskPtr->waitForTaskCompletion( 0 ), LogicException );
        return 0;
    };
    ThreadedTask task( +function, "self", nullptr, normal );
}

TEST_F( ThreadedTaskLife, LibraryThreadsKeepTheInterruptSignalsBlocked )
{
    sigset_t set;
    sigemptyset( &set );
    sigaddset( &set, SIGTERM );
    sigaddset( &set, SIGPWR );
    sigset_t saved;
    ::pthread_sigmask( SIG_UNBLOCK, &set, &saved );
    auto function = []( ThreadedTask*, void* ) -> unsigned int {
        sigset_t mask;
        ::pthread_sigmask( SIG_BLOCK, nullptr, &mask );
        unsigned int nbrOfBlocked = 0;
        for ( int sig = 1; sig < 32; ++sig ) {
            nbrOfBlocked += sigismember( &mask, sig ) == 1 ? 1 : 0;
        }
        return sigismember( &mask, SIGTERM ) == 1 && sigismember( &mask, SIGPWR ) == 1
                   ? nbrOfBlocked
                   : 0;
    };
    ThreadedTask task( +function, "masked", nullptr, normal );
    task.waitForTaskCompletion( ThreadedTask::infinite );
    EXPECT_EQ( task.exitCode(), 15 );
    ::pthread_sigmask( SIG_SETMASK, &saved, nullptr );
}

TEST_F( ThreadedTaskLife, FailedCreationThrowsAndLeavesNothing )
{
    std::atomic< int > counter = 0;
    ourCreateFault.arm( 1, EAGAIN );
    try {
        ThreadedTask task( &addOne, "adder", &counter, normal );
        ADD_FAILURE() << "no exception";
    } catch ( const ResourceException& e ) {
        EXPECT_NE( std::strstr( e.what(), "Condition failed: thrOk,  Resource temporarily" ),
                   nullptr )
            << e.what();
    }
    ourCreateFault.disarm();
    const auto invalid = static_cast< ThreadedTask::Priority >( 7 );
    EXPECT_THROW( ThreadedTask( &addOne, "adder", &counter, invalid ), LogicException );
    EXPECT_EQ( counter, 0 );
}

// -------- records and names

TEST_F( ThreadedTaskLife, RecordFollowsTheThread )
{
    struct Shared
    {
        std::atomic< SubsystemInfo::ThreadDetails* > recordPtr = nullptr;
    } shared;
    auto function = []( ThreadedTask* taskPtr, void* sharedPtr ) -> unsigned int {
        static_cast< Shared* >( sharedPtr )->recordPtr =
            SubsystemInfo::threadletonPtr()->detailPtr();
        return untilExit( taskPtr, nullptr );
    };
    ThreadedTask task( +function, "followed", &shared, normal );
    ASSERT_TRUE( waitFor( [&] { return shared.recordPtr != nullptr; } ) );
    SubsystemInfo::ThreadDetails* const recordPtr = shared.recordPtr;
    EXPECT_EQ( recordPtr->myInUse, 1u );
    EXPECT_STREQ( recordPtr->myDescription, "followed" );
    EXPECT_TRUE(
        waitFor( [&] { return std::atomic_ref< std::uint32_t >( recordPtr->myWaitKind ) == 3; } ) )
        << "blocked on events";
    EXPECT_EQ( recordPtr->myState, 1u );
    task.requestExit();
    task.waitForTaskCompletion( ThreadedTask::infinite );
    EXPECT_EQ( recordPtr->myInUse, 0u );
    EXPECT_EQ( recordPtr->myState, 2u );
    EXPECT_EQ( recordPtr->myWaitKind, 0u );
    ThreadedTask failing( &throwInt, "failing", nullptr, normal );
    failing.waitForTaskCompletion( ThreadedTask::infinite );
    EXPECT_STREQ( recordPtr->myDescription, "failing" ) << "the record serves the next thread";
    EXPECT_EQ( recordPtr->myState, 3u );
}

TEST_F( ThreadedTaskLife, SubsystemNameIsInheritedFromTheCreator )
{
    SubsystemInfo& mine = *SubsystemInfo::threadletonPtr();
    mine.nameStrPtr( SubsystemInfo::NamePtr( new std::string( "sensor" ) ) );
    auto function = []( ThreadedTask*, void* namePtr ) -> unsigned int {
        const SubsystemInfo::NamePtr& inherited = SubsystemInfo::threadletonPtr()->nameStrPtr();
        return inherited.get() == namePtr && *inherited == "sensor";
    };
    ThreadedTask task( +function, "heir", mine.nameStrPtr().get(), normal, suspended );
    std::string* const namePtr = mine.nameStrPtr().get();
    EXPECT_EQ( *namePtr, "sensor" );
    task.resume();
    task.waitForTaskCompletion( ThreadedTask::infinite );
    EXPECT_EQ( task.exitCode(), 1 );
    mine.nameStrPtr( SubsystemInfo::NamePtr() );
}

class CountedThreadleton : public Threadleton
{
public:
    static inline std::atomic< int > ourNbr = 0;
    CountedThreadleton() { ++ourNbr; }
    ~CountedThreadleton() override { --ourNbr; }
};

TEST_F( ThreadedTaskLife, ThreadletonsAreDeletedAtTheThreadsEnd )
{
    {
        const Runner runner( [] {
            Threadleton::pushThreadleton( new CountedThreadleton );
            Threadleton::pushThreadleton( new CountedThreadleton );
            EXPECT_EQ( CountedThreadleton::ourNbr, 2 );
        } );
    }
    EXPECT_EQ( CountedThreadleton::ourNbr, 0 );
}

// -------- terminate

// True from its begin until its stack is unwound.
unsigned int blockForEver( ThreadedTask*, void* isInsidePtr )
{
    struct Scope
    {
        explicit Scope( std::atomic< bool >* ptr )
            : isInsidePtr( ptr )
        {
            *isInsidePtr = true;
        }
        ~Scope() { *isInsidePtr = false; }

        std::atomic< bool >* isInsidePtr;
    } const scope( static_cast< std::atomic< bool >* >( isInsidePtr ) );
    for ( ;; ) {
        ::pause();
    }
}

// A terminated thread leaves its threadletons and its record: in a child that is not searched for
// leaks.
class ThreadedTaskTermination : public ThreadedTaskLife
{
protected:
    static void inChild( const std::function< void() >& body )
    {
        const Outcome outcome = runInChild( [&] {
            body();
            ::_exit( HasFailure() ? 1 : 0 );
        } );
        EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
    }
};

TEST_F( ThreadedTaskTermination, ThreadIsUnwoundAndJoinedWithoutItsEndSteps )
{
    inChild( [] {
        std::atomic< bool > isInside = false;
        ThreadedTask blocked( &blockForEver, "blocked", &isInside, normal );
        ASSERT_TRUE( waitFor( [&] { return isInside.load(); } ) ) << "its scope was entered";
        EXPECT_TRUE( blocked.terminateThread() );
        EXPECT_FALSE( blocked.isRunning() );
        EXPECT_TRUE( blocked.waitForTaskCompletion( ThreadedTask::infinite ) );
        EXPECT_EQ( blocked.exitCode(), -1 );
        EXPECT_FALSE( isInside );
        EXPECT_FALSE( blocked.terminateThread() ) << "joined";
    } );
}

TEST_F( ThreadedTaskTermination, SuspendedTaskNeverRuns )
{
    inChild( [] {
        std::atomic< int > counter = 0;
        {
            ThreadedTask task( &addOne, "adder", &counter, normal, suspended );
            EXPECT_TRUE( task.terminateThread() );
        }
        EXPECT_EQ( counter, 0 );
    } );
}

TEST_F( ThreadedTaskTermination, EndsInACompletedTaskAtAnyMoment )
{
    inChild( [] {
        for ( int i = 0; i < 200; ++i ) {
            std::atomic< bool > isInside = false;
            ThreadedTask task( &blockForEver, "blocked", &isInside, normal );
            std::atomic< int > spin = i * 100;
            while ( spin-- > 0 ) {
            }
            const Runner other( [&] { task.terminateThread(); } );
            EXPECT_TRUE( task.waitForTaskCompletion( ThreadedTask::infinite ) );
        }
    } );
}

// -------- priority and affinity

TEST_F( ThreadedTaskPriority, LineThroughTheNiceValues )
{
    const CapabilityDeviceDouble device;
    const int nices[] = { -10, -5, 0, 5, 10, 15, 20 };
    for ( int priority = 0; priority <= 6; ++priority ) {
        ThreadedTask::changePriority( static_cast< ThreadedTask::Priority >( priority ) );
        EXPECT_EQ( ourNice, nices[priority] );
    }
    for ( int nice = -20; nice <= 20; ++nice ) {
        ourNice = nice;
        const int expected = nice <= -8   ? 0
                             : nice <= -3 ? 1
                             : nice <= 2  ? 2
                             : nice <= 7  ? 3
                             : nice <= 12 ? 4
                             : nice <= 17 ? 5
                                          : 6;
        EXPECT_EQ( ThreadedTask::changePriority( normal ), expected ) << nice;
    }
    EXPECT_THROW( ThreadedTask::changePriority( static_cast< ThreadedTask::Priority >( -1 ) ),
                  LogicException );
}

TEST_F( ThreadedTaskPriority, IsAppliedByTheThreadAndARefusalIsAResourceFailure )
{
    const CapabilityDeviceDouble device;
    std::atomic< int > counter = 0;
    ourNice = 0;
    {
        ThreadedTask task( &addOne, "adder", &counter, ThreadedTask::priorityVeryLow );
    }
    EXPECT_EQ( ourNice, 15 );
    EXPECT_EQ( counter, 1 );
    ourPriorityFault.arm( 1, EACCES, Fault::forGood );
    try {
        ThreadedTask::changePriority( normal );
        ADD_FAILURE() << "no exception";
    } catch ( const ResourceException& e ) {
        EXPECT_NE( std::strstr( e.what(), "Condition failed: priortySetOk,  Permission denied" ),
                   nullptr )
            << e.what();
    }
    {
        ThreadedTask task( &addOne, "adder", &counter, normal );
        task.waitForTaskCompletion( ThreadedTask::infinite );
        EXPECT_EQ( task.exitCode(), -1 );
    }
    ourPriorityFault.disarm();
    EXPECT_EQ( counter, 1 ) << "a thread without its priority does not run its function";
}

TEST_F( ThreadedTaskPriority, StaysAsItIsWithoutTheDevice )
{
    CapabilityDeviceDouble device;
    device.setOpen( false );
    ourNice = 11;
    EXPECT_EQ( ThreadedTask::changePriority( ThreadedTask::priorityHighest ), normal );
    EXPECT_EQ( ourNice, 11 );
    ThreadedTask::setAffinity( 2 );
    EXPECT_EQ( device.own().affinity, 0xFFFFFFFF );
}

TEST_F( ThreadedTaskPriority, AffinityGoesToTheDevice )
{
    CapabilityDeviceDouble device;
    ThreadedTask::setAffinity( 2 );
    const bool isSingle = ::sysconf( _SC_NPROCESSORS_ONLN ) < 2;
    EXPECT_EQ( device.own().affinity, isSingle ? 0xFFFFFFFF : 2 );
#if ULONG_MAX > 0xFFFFFFFF
    EXPECT_THROW( ThreadedTask::setAffinity( 0x100000001 ), LogicException );
#endif
}

} // namespace
} // namespace Nuv::Mt
