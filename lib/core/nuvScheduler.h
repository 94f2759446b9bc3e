#pragma once

#include "nuvLog.h"
#include "nuvMutex.h"
#include "nuvSchedulePlan.h"
#include "nuvTimer.h"
#include "nuvUtils.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <list>
#include <string>

namespace Nuv::Utils {

/// Where schedulers take the time of day and the zone from: the system, or what a test puts in its
/// place. (Their stopwatches and timers go by MsTimer's clock.)
///
/// Threads: any.
class NUV_API ScheduleClock
{
public:
    ScheduleClock() = default;
    ScheduleClock( const ScheduleClock& ) = delete;
    ScheduleClock& operator=( const ScheduleClock& ) = delete;
    virtual ~ScheduleClock();

    virtual Time now() const { return Time(); }
    virtual TimeZone zone() const { return TimeZone(); }

    static ScheduleClock& instance();
    /// @param substitutePtr borrowed until the next call; null puts the system back
    static void substitute( ScheduleClock* substitutePtr );
};

/// Calls a function at the times of a plan: on a calendar, or every so many hours.
///
/// | state                  | armed | left by                                          |
/// |------------------------|-------|--------------------------------------------------|
/// | invalid (a bad plan)   | no    |                                                  |
/// | valid, disabled        | no    | enable( true )                                   |
/// | valid, enabled         | yes   | enable( false ), destructor                      |
///
/// A valid scheduler is registered with the SchedulerManager from construction to destruction. How
/// the times are computed, across daylight changes too, is SchedulePlan's description. When a
/// callback has returned, the next time is computed anew, with a fresh TimeZone, so that a change
/// of the machine's zone takes effect then; SchedulerManager follows steps of the clock.
///
/// Threads: any. Callbacks run on the timer thread with the manager's mutex held, one at a time in
///          a process; the members below wait for a callback that runs. A callback may use and
///          destroy its scheduler.
/// Errors:  a bad plan is logged and makes an invalid scheduler. What a callback throws is logged,
///          fatal, and the schedule goes on; its result is not used.
/// Owns:    a copy of the callback. A derived class may be called before its constructor has ended.
/// Example: Scheduler nightly( Scheduler::Callback( this, &Backup::run ), "Mon|Thu", "2:30:00" );
class NUV_API Scheduler
{
public:
    using Callback = CallbackFunctor< int, Scheduler* >;
    using PeriodicMode = SchedulePlan::PeriodicMode;
    using TimeCalled = SchedulePlan::TimeCalled;

    /// On a calendar: see SchedulePlan. A null text makes it invalid, a null name "defaultName".
    Scheduler( const Callback& callback, const char* daysStrPtr, const char* hoursStrPtr,
               const char* namePtr = nullptr );
    /// Periodic: from the next start time on every hourPeriod hours.
    Scheduler( const Callback& callback, const char* startTimeStrPtr, int hourPeriod,
               PeriodicMode mode, const char* namePtr = nullptr );
    Scheduler( const Scheduler& ) = delete;
    Scheduler& operator=( const Scheduler& ) = delete;
    virtual ~Scheduler();

    /// Computes the next time and arms the timer, or disarms it.
    void setTimer( TimeCalled timeCalled );
    /// Switches the schedule on (as set anew) or off; it is on at first.
    void enable( bool isEnabled );
    /// Pushes the first callback of a periodic schedule to the first start time that is at least
    /// one period away, unless it is already. Does nothing after the first callback.
    void waitAtLeastOnePeriodInitially();

    /// The timer's callback.
    static void ourCallback( Timer* timerPtr, void* schedulerPtr );

    bool isEnabled() const;
    bool isValid() const { return myPlan.isValid(); }
    const std::string& name() const { return myPlan.name(); }
    /// @return the next time in UTC seconds; 0 while none is scheduled
    std::int64_t getNextCallback() const;
    /// For a valid calendar schedule; nuvAssert otherwise. See SchedulePlan.
    void nextSchedCalendarTime( const std::tm& now, std::tm* nextPtr ) const
    {
        myPlan.nextSchedCalendarTime( now, nextPtr );
    }
    /// Reads "h:m:s". @return false, with a line at debug severity, if it is no time of day
    static bool convertTimeString( int* hourPtr, int* minutePtr, int* secondPtr,
                                   const std::string& text );
    /// @return seconds after midnight; -1, with a line as above, for a text that is no time of day
    static int convertTimeStr( const std::string& text );

    /// What is scheduled, the last and the next callback, a line each.
    std::string showSchedule() const;
    std::string showSecondsUntilNextCallback() const;
    static std::string showCurrentTime();

private:
    friend class SchedulerManager;

    void start();
    void arm( const Time& now, std::int64_t nextUtc );
    void watchClock( const Log::Source& source, unsigned int maxTimeDeltaSeconds );
    bool mayWaitInitially() const;
    const char* whyUnscheduled() const;

    // All but the callback are guarded by the manager's mutex.
    Callback myCallback;
    SchedulePlan myPlan;
    bool myIsEnabled = true;
    bool myIsInitialWaitDue = false; // set anew since the clock watch has looked
    Time myNextTime = Time( 0 );
    Time myLastCallbackTime = Time( 0 );
    Time myCheckpointTime = Time( 0 ); // when the timer was armed, and:
    MsTimer myStopwatch;
    bool* myIsDestroyedPtr = nullptr; // of a callback that runs
    Timer myTimer;
};

/// The valid schedulers of a process, and the watch on the clock: every timeCheckWaitSeconds it
/// compares the time of day with a monotonic stopwatch, and sets those schedulers anew for which
/// both have run apart by more than maxTimeDeltaSeconds.
///
/// A periodic schedule that has not made its first callback gets, once each time it is set anew,
/// the push of waitAtLeastOnePeriodInitially() by the first watch behind.
///
/// Its mutex is TimerTask::actionMutex(), which the timer thread holds in callbacks anyway: one
/// lock less to take in order.
///
/// Threads: any. Logs through its own source "sched" at debug severity.
class NUV_API SchedulerManager
{
public:
    static constexpr unsigned int defaultTimeCheckWaitSeconds = 30;
    static constexpr unsigned int defaultMaxTimeDeltaSeconds = 60;

    static SchedulerManager* singletonPtr();

    /// Adds it and sets its timer. Borrowed until unregisterScheduler().
    void registerScheduler( Scheduler* schedulerPtr );
    void unregisterScheduler( Scheduler* schedulerPtr );
    /// Sets every registered scheduler anew.
    void setAllTimers();
    /// @param seconds 0 switches the watch off
    void timeCheckWaitSeconds( unsigned int seconds );
    void maxTimeDeltaSeconds( unsigned int seconds );

    /// The clock watch.
    static void ourCallback( Timer* timerPtr, void* managerPtr );

private:
    friend class Singleton< SchedulerManager >;
    SchedulerManager();
    ~SchedulerManager() = default;

    Log::Source mySource;
    std::list< Scheduler* > mySchedulers;
    unsigned int myMaxTimeDeltaSeconds = defaultMaxTimeDeltaSeconds;
    Timer myTimer;
};

} // namespace Nuv::Utils
