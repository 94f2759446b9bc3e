#pragma once

#include "nuvEvent.h"
#include "nuvMutex.h"
#include "nuvThreadedTask.h"
#include "nuvTime.h"
#include "nuvUtils.h"

#include <atomic>
#include <cstdint>
#include <list>

namespace Nuv::Utils {

template < class T >
class Singleton;

/// A one-shot or periodic alarm, with a resolution of 100 ms.
///
/// All timers of a process are served by one thread, "Timer task", which the first Timer starts. An
/// action runs there, between its expiry and about 100 ms after it, or after the actions before it.
///
/// | state    | expireTime( n > 0 )   | expireTime( 0 )      | expiry                            |
/// |----------|-----------------------|----------------------|-----------------------------------|
/// | unarmed  | armed                 | unarmed, one-shot    |                                   |
/// | armed    | armed, counts anew    | unarmed, one-shot    | action; then unarmed, or, if it   |
/// |          |                       |                      | is periodic, armed and counts     |
/// |          |                       |                      | anew from the action's end        |
///
/// The clock is that of MsTimer: steps of the wall clock move no alarm.
///
/// Threads: any. An action runs with TimerTask::actionMutex() and the timer's own mutex held, one
///          action of the process at a time; so expireTime() and disableAction() on another thread
///          return when no action runs. Lock order: actionMutex(), the timer's own. An action may
///          arm, disarm and destroy any timer, its own included; it must not wait for a thread
///          that arms one.
/// Errors:  what an action throws on the timer thread is logged, fatal, and the thread goes on.
/// Owns:    nothing; the argument is borrowed. The destructor returns when the action has returned
///          (or is called by it), after which it never runs again. A derived class with an
///          action() of its own calls expireTime( 0, oneShot ) in its destructor.
/// Cost:    arming is O(1); it wakes the thread only if nothing wakes it in time. Each wake-up
///          walks all armed timers; a thread with far timers alone sleeps.
/// Example: Timer timer( &onAlarm, this ); timer.expireTime( 60, Timer::periodic );
class NUV_API Timer
{
public:
    enum TimerMode
    {
        periodic = 0,
        oneShot = 1
    };
    using AlarmActionFunc = void ( * )( Timer* timerPtr, void* argumentPtr );

    /// The longest time, in seconds: 49.7 days.
    static constexpr unsigned int maxSeconds = 4294967;

    /// Unarmed.
    /// @param func null for none yet
    explicit Timer( AlarmActionFunc func = nullptr, void* argumentPtr = nullptr );
    Timer( const Timer& ) = delete;
    Timer& operator=( const Timer& ) = delete;
    virtual ~Timer();

    /// Calls the function. With none it fails nuvAssert "myAlarmActionFunc != NULL".
    virtual void action();

    void setCallBack( AlarmActionFunc func, void* argumentPtr );
    /// Arms the timer, or disarms it with 0 seconds.
    /// @param seconds more than maxSeconds fails nuvAssert
    void expireTime( unsigned int seconds, TimerMode mode );
    /// A timer that expires while its action is disabled does nothing; arming enables it again.
    void enableAction();
    void disableAction();
    /// Runs the action now, if it is enabled, on the calling thread.
    void doAction();

    bool isArmed() const;

private:
    friend class TimerTaskImpl;
    class ActionScope;

    // @return what guards the fields: in a forked child, where the timer's own may be taken by a
    //         thread that is not there, the action mutex
    Mt::Mutex& ownMutex() const NUV_RETURN_CAPABILITY( myMutex );

    AlarmActionFunc myAlarmActionFunc NUV_GUARDED_BY( myMutex );
    mutable Mt::Mutex myMutex; // after TimerTask::actionMutex()
    void* myArgumentPtr NUV_GUARDED_BY( myMutex );
    bool myIsEnabled NUV_GUARDED_BY( myMutex );
    std::uint32_t myExpireTimeInMs NUV_GUARDED_BY( myMutex ) = 0;
    std::uint32_t myRemainingMs NUV_GUARDED_BY( myMutex ) = 0;
    TimerMode myMode NUV_GUARDED_BY( myMutex ) = oneShot;
    MsTimer myStopwatch NUV_GUARDED_BY( myMutex );
    std::list< Timer* >::iterator myListPosition; // guarded by actionMutex()
};

/// The list of armed timers, in the order of arming, and the thread that serves it.
///
/// Threads: any; all members take TimerTask::actionMutex().
class TimerTaskImpl
{
public:
    using TimerList = std::list< Timer* >;

    /// Returns when the thread has started.
    TimerTaskImpl();
    TimerTaskImpl( const TimerTaskImpl& ) = delete;
    TimerTaskImpl& operator=( const TimerTaskImpl& ) = delete;
    /// Ends the thread; armed timers stay listed and unserved. Not for the timer thread itself.
    ~TimerTaskImpl();

    void schedule( Timer* timerPtr );
    static void unschedule( Timer* timerPtr );
    static TimerList::iterator actionListEndPtr() { return timers().end(); }
    bool isTimerThread() const;

private:
    static unsigned int timerTask( Mt::ThreadedTask* taskPtr, void* thisPtr );
    std::uint32_t serveTimers();
    std::uint32_t countDown( Timer* timerPtr );
    bool serve( Timer* timerPtr );
    bool isInTime( std::uint32_t ms ) const;

    static TimerList& timers();

    // All but the events and the task are guarded by actionMutex().
    bool myIsServing = false;
    std::uint32_t myWaitMs = MsTimer::infinite; // of the thread's current wait, begun at:
    std::uint32_t myWaitStartMs = 0;
    Mt::Event myStarted;
    Mt::Event myWakeUp;
    Mt::ThreadedTask myTask;
};

/// The one handle on the process's TimerTaskImpl: made by the first Timer, destroyed at exit.
///
/// A child of fork() has no timer thread: its timers never expire. An action may end the process.
///
class NUV_API TimerTask
{
public:
    static TimerTask* singletonPtr();

    /// Does nothing after the end at exit.
    static void schedule( Timer* timerPtr );
    static void unschedule( Timer* timerPtr );
    /// The position of a timer that is not armed.
    static TimerTaskImpl::TimerList::iterator actionListEndPtr();

    /// Held while an action runs. Who takes a mutex of his own in an action takes this one first
    /// wherever he arms or destroys a timer with that mutex held.
    static Mt::Mutex& actionMutex();

private:
    friend class Singleton< TimerTask >;
    TimerTask();
    ~TimerTask();

    static std::atomic< TimerTaskImpl* > ourTimerTaskImplPtr;
};

} // namespace Nuv::Utils
