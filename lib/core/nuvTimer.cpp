#include "nuvTimer.h"

#include "nuvSingleton.h"

#include <algorithm>
#include <cxxabi.h>
#include <new>
#include <pthread.h>

namespace Nuv::Utils {

extern Mt::Mutex TimerTaskSingletonPtrMutex;
Mt::Mutex TimerTaskSingletonPtrMutex;

namespace {

// The least time that the thread waits.
constexpr std::uint32_t resolutionMs = 100;
// The most: stopwatches of 32 bits must be read well before they wrap, after 49.7 days.
constexpr std::uint32_t maxWaitMs = 1u << 30;

// Outlives the timer task: static timers may be destroyed after it. A Mutex does no harm after its
// own end.
Mt::Mutex ourActionMutex;

// A child of fork() has no timer thread, and the list and the timers' mutexes as the threads of the
// parent left them: there none of them is touched.
std::atomic< bool > ourIsForkedChild = false;

void atForkInChild()
{
    ourIsForkedChild.store( true, std::memory_order_relaxed );
    new ( &ourActionMutex ) Mt::Mutex(); // maybe taken by a thread that is not here
}

bool isForkedChild()
{
    return ourIsForkedChild.load( std::memory_order_relaxed );
}

} // namespace

// --------------------------------------------------------------------------------------- Timer

/// The mutexes of an action on the calling thread. A timer's destructor finds its scopes and gives
/// its mutex back early, as nothing of the timer may be touched after it.
class Timer::ActionScope
{
public:
    explicit ActionScope( Timer* timerPtr ) NUV_NO_THREAD_SAFETY_ANALYSIS
        : myActionLock( ourActionMutex ),
          myTimerPtr( timerPtr ),
          myOuterPtr( ourInnermostPtr )
    {
        timerPtr->ownMutex().enter();
        ourInnermostPtr = this;
    }
    ActionScope( const ActionScope& ) = delete;
    ActionScope& operator=( const ActionScope& ) = delete;
    ~ActionScope() NUV_NO_THREAD_SAFETY_ANALYSIS
    {
        ourInnermostPtr = myOuterPtr;
        if ( !isDestroyed() )
            myTimerPtr->ownMutex().exit();
    }

    bool isDestroyed() const { return myTimerPtr == nullptr; }

    static void leaveAll( const Timer* timerPtr ) NUV_NO_THREAD_SAFETY_ANALYSIS
    {
        for ( ActionScope* scopePtr = ourInnermostPtr; scopePtr != nullptr;
              scopePtr = scopePtr->myOuterPtr ) {
            if ( scopePtr->myTimerPtr != timerPtr )
                continue;
            scopePtr->myTimerPtr->ownMutex().exit();
            scopePtr->myTimerPtr = nullptr;
        }
    }

private:
    static thread_local ActionScope* ourInnermostPtr;

    Mt::MutexLock myActionLock;
    Timer* myTimerPtr;
    ActionScope* myOuterPtr;
};

thread_local Timer::ActionScope* Timer::ActionScope::ourInnermostPtr = nullptr;

Mt::Mutex& Timer::ownMutex() const
{
    return isForkedChild() ? ourActionMutex : myMutex;
}

Timer::Timer( AlarmActionFunc func, void* argumentPtr )
    : myAlarmActionFunc( func )
    , myArgumentPtr( argumentPtr )
    , myIsEnabled( func != nullptr )
{
    TimerTask::singletonPtr();
    myListPosition = TimerTask::actionListEndPtr();
}

// The list's mutex first: from then on the timer thread cannot be about to serve this timer.
Timer::~Timer()
{
    ActionScope::leaveAll( this );
    if ( isForkedChild() ) {
        new ( &myMutex ) Mt::Mutex();
        return;
    }
    const Mt::MutexLock noActions( ourActionMutex );
    disableAction();
    TimerTask::unschedule( this );
}

void Timer::action() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    nuvAssert( myAlarmActionFunc != NULL );
    myAlarmActionFunc( this, myArgumentPtr );
}

void Timer::setCallBack( AlarmActionFunc func, void* argumentPtr )
{
    const Mt::MutexLock lock( ownMutex() );
    myAlarmActionFunc = func;
    myArgumentPtr = argumentPtr;
}

void Timer::expireTime( unsigned int seconds, TimerMode mode )
{
    nuvAssert( seconds <= maxSeconds );
    {
        const Mt::MutexLock lock( ownMutex() );
        myIsEnabled = false;
        myMode = seconds > 0 ? mode : oneShot;
        if ( seconds > 0 )
            myExpireTimeInMs = seconds * static_cast< std::uint32_t >( Time::msPerSec );
    }
    if ( seconds > 0 )
        TimerTask::schedule( this );
    else
        TimerTask::unschedule( this );
}

void Timer::enableAction()
{
    const Mt::MutexLock lock( ownMutex() );
    myIsEnabled = true;
}

void Timer::disableAction()
{
    const Mt::MutexLock lock( ownMutex() );
    myIsEnabled = false;
}

void Timer::doAction() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    const ActionScope scope( this );
    if ( myIsEnabled )
        action();
}

bool Timer::isArmed() const
{
    const Mt::MutexLock noActions( ourActionMutex );
    return !isForkedChild() && myListPosition != TimerTask::actionListEndPtr();
}

// ------------------------------------------------------------------------------- TimerTaskImpl

TimerTaskImpl::TimerTaskImpl()
    : myTask( &timerTask, "Timer task", this, Mt::ThreadedTask::priorityHigh )
{
    myStarted.wait( Mt::Event::infinite );
}

TimerTaskImpl::~TimerTaskImpl()
{
    myTask.requestExit();
    myTask.waitForTaskCompletion( Mt::ThreadedTask::infinite );
}

void TimerTaskImpl::schedule( Timer* timerPtr )
{
    const Mt::MutexLock noActions( ourActionMutex );
    if ( timerPtr->myListPosition == timers().end() )
        timerPtr->myListPosition = timers().insert( timers().end(), timerPtr );
    std::uint32_t ms = 0;
    {
        const Mt::MutexLock lock( timerPtr->ownMutex() );
        timerPtr->myIsEnabled = true;
        timerPtr->myStopwatch.reset();
        ms = timerPtr->myRemainingMs = timerPtr->myExpireTimeInMs;
    }
    if ( !isInTime( ms ) )
        myWakeUp.signal();
}

void TimerTaskImpl::unschedule( Timer* timerPtr )
{
    const Mt::MutexLock noActions( ourActionMutex );
    if ( timerPtr->myListPosition == timers().end() )
        return;
    timers().erase( timerPtr->myListPosition );
    timerPtr->myListPosition = timers().end();
}

// Never destroyed: positions in it are good for static timers that outlive the task.
TimerTaskImpl::TimerList& TimerTaskImpl::timers()
{
    static TimerList* const ourListPtr = new TimerList();
    return *ourListPtr;
}

bool TimerTaskImpl::isTimerThread() const
{
    return ::pthread_equal( ::pthread_self(), myTask.threadId() ) != 0;
}

// Whether the thread looks at the timers within that time by itself: a signal would cost two
// switches of threads.
bool TimerTaskImpl::isInTime( std::uint32_t ms ) const
{
    if ( myIsServing )
        return true; // an action arms: the walk begins again after it
    if ( myWaitMs == MsTimer::infinite )
        return false;
    const std::uint32_t elapsedMs = MsTimer::clockMs() - myWaitStartMs;
    return elapsedMs < myWaitMs && myWaitMs - elapsedMs <= ms;
}

unsigned int TimerTaskImpl::timerTask( Mt::ThreadedTask* taskPtr, void* thisPtr )
{
    TimerTaskImpl& task = *static_cast< TimerTaskImpl* >( thisPtr );
    task.myStarted.signal();
    std::uint32_t waitMs = MsTimer::infinite;
    for ( ;; ) {
        Mt::MultiEvent::waitOnEvents( { &taskPtr->exitEvent(), &task.myWakeUp }, waitMs );
        if ( taskPtr->isExitRequested() )
            return 0;
        waitMs = task.serveTimers();
    }
}

// @return how long to wait for the next one
std::uint32_t TimerTaskImpl::serveTimers()
{
    const Mt::MutexLock noActions( ourActionMutex );
    myIsServing = true;
    std::uint32_t waitMs = MsTimer::infinite;
    TimerList& list = timers();
    for ( auto i = list.begin(); i != list.end(); ) {
        Timer* const timerPtr = *i;
        const std::uint32_t remainingMs = countDown( timerPtr );
        if ( remainingMs > 0 ) {
            waitMs = std::min( { waitMs, remainingMs, maxWaitMs } );
            ++i;
            continue;
        }
        unschedule( timerPtr );
        if ( serve( timerPtr ) )
            schedule( timerPtr );
        waitMs = MsTimer::infinite; // what the action has disarmed does not count
        i = list.begin();
    }
    myIsServing = false;
    myWaitMs = std::max( waitMs, resolutionMs );
    myWaitStartMs = MsTimer::clockMs();
    return myWaitMs;
}

// @return what remains, in ms
std::uint32_t TimerTaskImpl::countDown( Timer* timerPtr )
{
    Timer* const tPtr = timerPtr;
    const Mt::MutexLock lock( tPtr->ownMutex() );
    nuvAssert( tPtr->myExpireTimeInMs != 0 );
    tPtr->myStopwatch.decrementByElapsedTime( &tPtr->myRemainingMs );
    return tPtr->myRemainingMs;
}

// Runs the action. @return whether the timer still exists and is periodic
// (A forced unwinding has no object: the reference that catches it is null.)
__attribute__( ( no_sanitize( "null" ) ) ) bool TimerTaskImpl::serve( Timer* timerPtr )
{
    const Timer::ActionScope scope( timerPtr );
    try {
        timerPtr->doAction();
    } catch ( abi::__forced_unwind& ) {
        throw;
    } catch ( ... ) {
        Mt::logEscapedException( "errSystemError timer action catch" );
    }
    if ( scope.isDestroyed() )
        return false;
    const Mt::MutexLock lock( timerPtr->ownMutex() );
    return timerPtr->myMode == Timer::periodic;
}

// ----------------------------------------------------------------------------------- TimerTask

std::atomic< TimerTaskImpl* > TimerTask::ourTimerTaskImplPtr = nullptr;

TimerTask* TimerTask::singletonPtr()
{
    return Singleton< TimerTask >::ptr( TimerTaskSingletonPtrMutex );
}

TimerTask::TimerTask()
{
    [[maybe_unused]] static const int ourIsRegistered =
        ::pthread_atfork( nullptr, nullptr, &atForkInChild );
    ourTimerTaskImplPtr.store( new TimerTaskImpl(), std::memory_order_release );
}

// An action that ends the process leaves its thread to the system: it cannot wait for itself.
TimerTask::~TimerTask()
{
    if ( !isForkedChild() &&
         !ourTimerTaskImplPtr.load( std::memory_order_relaxed )->isTimerThread() )
        delete ourTimerTaskImplPtr.exchange( nullptr );
}

void TimerTask::schedule( Timer* timerPtr )
{
    if ( isForkedChild() )
        return;
    if ( TimerTaskImpl* const implPtr = ourTimerTaskImplPtr.load( std::memory_order_acquire ) )
        implPtr->schedule( timerPtr );
}

void TimerTask::unschedule( Timer* timerPtr )
{
    if ( !isForkedChild() )
        TimerTaskImpl::unschedule( timerPtr );
}

TimerTaskImpl::TimerList::iterator TimerTask::actionListEndPtr()
{
    return TimerTaskImpl::actionListEndPtr();
}

Mt::Mutex& TimerTask::actionMutex()
{
    return ourActionMutex;
}

} // namespace Nuv::Utils
