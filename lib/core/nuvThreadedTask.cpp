#include "nuvThreadedTask.h"

#include "nuvCapabilities.h"
#include "nuvCapabilityDevice.h"
#include "nuvCrashReport.h"
#include "nuvLog.h"
#include "nuvSignalHandler.h"

#include <algorithm>
#include <cerrno>
#include <cxxabi.h>
#include <exception>
#include <ios>
#include <new>
#include <stdexcept>
#include <sys/resource.h>
#include <typeinfo>
#include <unistd.h>

namespace Nuv::Mt {

namespace {

bool isPriority( int priority )
{
    return priority >= ThreadedTask::priorityHighest && priority <= ThreadedTask::priorityLowest;
}

int niceOfPriority( int priority )
{
    return 5 * priority - 10;
}

// (nice + 10) / 5, rounded half up; values that no priority has are drawn to the nearest end.
ThreadedTask::Priority priorityOfNice( int nice )
{
    const int priority = ( 2 * std::max( nice + 10, 0 ) + 5 ) / 10;
    return static_cast< ThreadedTask::Priority >(
        std::min( priority, static_cast< int >( ThreadedTask::priorityLowest ) ) );
}

void logMissingDeviceOnce()
{
    static std::atomic< bool > ourIsLogged = false;
    if ( ourIsLogged.exchange( true, std::memory_order_relaxed ) )
        return;
    nuvLogTo( Log::getStandardSource( Log::fatal ) )
        << "errSystemError The device: nuvmodcap failed to open. Some core functionality will be "
           "lost.";
}

class ThreadAttributes
{
public:
    ThreadAttributes() { ::pthread_attr_init( &myAttributes ); }
    ThreadAttributes( const ThreadAttributes& ) = delete;
    ThreadAttributes& operator=( const ThreadAttributes& ) = delete;
    ~ThreadAttributes() { ::pthread_attr_destroy( &myAttributes ); }

    pthread_attr_t* ptr() { return &myAttributes; }

private:
    pthread_attr_t myAttributes;
};

// The creator's signal mask, with the interrupt signals blocked: the initial thread, which gets
// these, creates the task "main".
sigset_t signalMask()
{
    sigset_t mask;
    const sigset_t set = SignalHandler::interruptSet();
    ::pthread_sigmask( SIG_BLOCK, nullptr, &mask );
    sigorset( &mask, &mask, &set );
    return mask;
}

template < class Exception >
void logTag( const char* prefixPtr, const char* tagPtr, const Exception& exception )
{
    nuvLogTo( Log::getStandardSource( Log::fatal ) ) << prefixPtr << tagPtr << exception.what();
}

void logCategory( const char* prefixPtr )
{
    try {
        throw;
    } catch ( const LogicException& e ) {
        logTag( prefixPtr, "(NUVS logic exception) ", e );
    } catch ( const std::logic_error& e ) {
        logTag( prefixPtr, "(STL logic error) ", e );
    } catch ( const std::bad_cast& e ) {
        logTag( prefixPtr, "(STL bad cast) ", e );
    } catch ( const std::bad_typeid& e ) {
        logTag( prefixPtr, "(STL bad typeid) ", e );
    } catch ( const std::bad_exception& e ) {
        logTag( prefixPtr, "(STL bad exception) ", e );
    } catch ( const ResourceException& e ) {
        logTag( prefixPtr, "(resource exception) ", e );
    } catch ( const std::bad_alloc& e ) {
        logTag( prefixPtr, "(out of memory) ", e );
    } catch ( const RuntimeException& e ) {
        logTag( prefixPtr, "(NUVS runtime exception) ", e );
    } catch ( const std::ios_base::failure& e ) {
        logTag( prefixPtr, "(ioStreams failure) ", e );
    } catch ( const std::runtime_error& e ) {
        logTag( prefixPtr, "(STL runtime error) ", e );
    } catch ( const std::exception& e ) {
        logTag( prefixPtr, "(STL exception) ", e );
    } catch ( ... ) {
        nuvLogTo( Log::getStandardSource( Log::fatal ) ) << prefixPtr << "unknown exception!";
    }
}

} // namespace

void logEscapedException( const char* prefixPtr ) noexcept
{
    const CancelState disabled;
    try {
        logCategory( prefixPtr );
    } catch ( ... ) {
        // A RuntimeException whose own text fails an assertion, or no memory for the message.
    }
}

ThreadedTask::ThreadedTask( TaskFunction function, const char* namePtr, void* argumentPtr,
                            Priority priority ) NUV_NO_THREAD_SAFETY_ANALYSIS
    : myFunction( function ),
      myArgumentPtr( argumentPtr ),
      myPriority( priority ),
      myStartLock( myStartMutex ),
      myName( namePtr != nullptr ? namePtr : "" ),
      myConstructingThread( ::pthread_self() )
{
    createThread( startRunning );
}

ThreadedTask::ThreadedTask( TaskFunction function, const char* namePtr, void* argumentPtr,
                            Priority priority, StartSuspended* ) NUV_NO_THREAD_SAFETY_ANALYSIS
    : myFunction( function ),
      myArgumentPtr( argumentPtr ),
      myPriority( priority ),
      myStartLock( myStartMutex ),
      myName( namePtr != nullptr ? namePtr : "" ),
      myConstructingThread( ::pthread_self() )
{
    createThread( startSuspended );
}

// The start gate is closed since the start lock's construction.
void ThreadedTask::createThread( StartState startState )
{
    nuvAssert( isPriority( myPriority ) );
    mySubsystemNamePtr = SubsystemInfo::threadletonPtr()->nameStrPtr();

    ThreadAttributes attributes;
    pthread_attr_t* const aPtr = attributes.ptr();
    int policy = 0;
    nuvCheckResource( ::pthread_attr_setinheritsched( aPtr, PTHREAD_EXPLICIT_SCHED ) == 0 );
    nuvCheckResource( ::pthread_attr_getschedpolicy( aPtr, &policy ) == 0 );
    const sigset_t mask = signalMask();
    nuvCheckResource( ::pthread_attr_setsigmask_np( aPtr, &mask ) == 0 );
    ::getitimer( ITIMER_PROF, &myProfilingTimer );

    errno = ::pthread_create( &myThread, aPtr, &threadStart, this );
    const bool thrOk = errno == 0;
    nuvCheckResource( thrOk );
    myIsSuspended = true;
    if ( startState == startRunning )
        resume();
}

ThreadedTask::~ThreadedTask()
{
    ThreadedTask::requestExit();
    if ( myIsSuspended )
        resume();
    waitForTaskCompletion( infinite );
}

void ThreadedTask::requestExit()
{
    myExitRequested.store( true, std::memory_order_release );
    myExitEvent.signal();
}

void ThreadedTask::resume() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    nuvAssert( ::pthread_equal( ::pthread_self(), myConstructingThread ) != 0 );
    myStartLock.unlock();
    myIsSuspended = false;
}

bool ThreadedTask::waitForTaskCompletion( unsigned int timeoutMs )
{
    nuvAssert( ::pthread_equal( ::pthread_self(), myThread ) == 0 );
    const MutexLock lock( myCompletionMutex );
    if ( !myCompleted.load( std::memory_order_relaxed ) && myCompletionEvent.wait( timeoutMs ) ) {
        myCompleted.store( true, std::memory_order_release );
        {
            const MutexLock joinLock( myJoinMutex );
            myIsJoining = true;
        }
        ::pthread_join( myThread, nullptr );
    }
    return myCompleted.load( std::memory_order_relaxed );
}

bool ThreadedTask::terminateThread()
{
    bool isAccepted = false;
    // First: neither the thread that reacts nor whom the event wakes shall find the task running.
    myRunning.store( false, std::memory_order_release );
    {
        const MutexLock joinLock( myJoinMutex );
        isAccepted = !myIsJoining && ::pthread_cancel( myThread ) == 0;
    }
    myCompletionEvent.signal();
    return isAccepted;
}

ThreadedTask::Priority ThreadedTask::changePriority( Priority priority )
{
    nuvAssert( isPriority( priority ) );
    Priority previous = priorityNormal;
    bool priortySetOk = false;
    int errorNbr = 0;
    {
        const Utils::ScopedCapabilities capabilities( Utils::capSysNiceMask );
        if ( !capabilities.isRaised() ) {
            logMissingDeviceOnce();
            return previous;
        }
        // To the system each thread is a process of its own: 0 is the calling thread.
        previous = priorityOfNice( ::getpriority( PRIO_PROCESS, 0 ) );
        priortySetOk = ::setpriority( PRIO_PROCESS, 0, niceOfPriority( priority ) ) == 0;
        errorNbr = errno;
    }
    errno = errorNbr;
    nuvCheckResource( priortySetOk );
    return previous;
}

void ThreadedTask::setAffinity( unsigned long mask )
{
    const std::uint32_t mask32 = static_cast< std::uint32_t >( mask );
    nuvAssert( mask == mask32 );
    if ( ::sysconf( _SC_NPROCESSORS_ONLN ) < 2 )
        return;
    const Utils::ScopedCapabilities capabilities( Utils::capSysNiceMask );
    if ( capabilities.isRaised() )
        Utils::CapabilityDevice::instance().setAffinity( mask32 );
}

// The thread body up to and with the task function. @return whether that returned
// (A forced unwinding has no object: the reference that catches it is null.)
__attribute__( ( no_sanitize( "null" ) ) ) bool ThreadedTask::run()
{
    try {
        // One timer serves the whole process today: this restarts it with what the creator had
        // left.
        ::setitimer( ITIMER_PROF, &myProfilingTimer, nullptr );
        {
            const MutexLock gate( myStartMutex );
        }
        changePriority( myPriority );
        SubsystemInfo& info = *SubsystemInfo::threadletonPtr();
        info.nameStrPtr( mySubsystemNamePtr );
        SubsystemInfo::ThreadDetails& record = *info.detail();
        record.state( SubsystemInfo::stateRunning );
        record.wait( WaitKind::none, 0 );
        record.description( myName.cStr() );
        myName = Utils::SimpleStr();
        if ( myFunction == nullptr )
            return false;
        runFunction();
        return true;
    } catch ( abi::__forced_unwind& ) {
        // Not of terminateThread(): pthread_exit(), or a cancellation by others. Whoever waits for
        // the task must not do so for ever.
        if ( isRunning() )
            end( false );
        throw; // it must run through
    } catch ( ... ) {
        logEscapedException( "errSystemError threadStart catch" );
    }
    return false;
}

void ThreadedTask::runFunction()
{
    const CancelState enabled( PTHREAD_CANCEL_ENABLE );
    ::pthread_testcancel(); // a task terminated while it was suspended never runs
    const unsigned int result = myFunction( this, myArgumentPtr );
    myExitCode.store( static_cast< int >( result ), std::memory_order_release );
}

// After the completion event the task may be in its destructor, which joins this thread.
void ThreadedTask::end( bool isNormal )
{
    myRunning.store( false, std::memory_order_release );
    myCompletionEvent.signal();
    SubsystemInfo::threadletonPtr()->releaseDetail(
        isNormal ? SubsystemInfo::stateEndedNormally : SubsystemInfo::stateEndedByException );
    ThreadletonMgr::singletonPtr()->deleteThreadletons();
}

// The thread can be cancelled only within its task function: the steps around that would leave
// locks and the status record behind.
void* ThreadedTask::threadStart( void* taskPtr )
{
    const CancelState disabled;
    ThreadedTask* const thisPtr = static_cast< ThreadedTask* >( taskPtr );
    nuvAssert( thisPtr != NULL );
    const AlternateSignalStack signalStack;
    SubsystemInfo::threadletonPtr()->leaveDetailAtThreadEnd();
    const bool isNormal = thisPtr->run();
    thisPtr->end( isNormal );
    return reinterpret_cast< void* >( isNormal ? 0L : -1L );
}

} // namespace Nuv::Mt
