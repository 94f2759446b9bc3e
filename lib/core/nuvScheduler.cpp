#include "nuvScheduler.h"

#include "nuvSingleton.h"
#include "nuvThreadedTask.h"

#include <algorithm>
#include <cxxabi.h>

namespace Nuv::Utils {

extern Mt::Mutex SchedulerManagerSingletonPtrMutex;
Mt::Mutex SchedulerManagerSingletonPtrMutex;

namespace {

constexpr const char* ourTimeFormat = "%T %Z %a %b %d %Y";

std::atomic< ScheduleClock* > ourSubstitutePtr = nullptr;

Mt::Mutex& managerMutex()
{
    return TimerTask::actionMutex();
}

void log( const SchedulePlan::Messages& messages )
{
    for ( const SchedulePlan::Message& message : messages )
        nuvLogTo( Log::getStandardSource( message.myIsError ? Log::error : Log::debug ) )
            << message.myText;
}

Log::Source& debugSource()
{
    return Log::getStandardSource( Log::debug );
}

std::int64_t secondsOf( const Time& time )
{
    return static_cast< std::int64_t >( time.seconds() );
}

Time timeOf( std::int64_t seconds )
{
    return Time( static_cast< std::uint64_t >( seconds ) * Time::nsPerSec );
}

// (A forced unwinding has no object: the reference that catches it is null.)
__attribute__( ( no_sanitize( "null" ) ) ) void call( const Scheduler::Callback& callback,
                                                      Scheduler* schedulerPtr )
{
    try {
        callback( schedulerPtr );
    } catch ( abi::__forced_unwind& ) {
        throw;
    } catch ( ... ) {
        Mt::logEscapedException( "errSystemError scheduler callback catch" );
    }
}

} // namespace

// ------------------------------------------------------------------------------- ScheduleClock

ScheduleClock::~ScheduleClock() = default;

ScheduleClock& ScheduleClock::instance()
{
    static ScheduleClock* const ourSystemPtr = new ScheduleClock(); // for callbacks during exit too
    ScheduleClock* const substitutePtr = ourSubstitutePtr.load( std::memory_order_acquire );
    return substitutePtr != nullptr ? *substitutePtr : *ourSystemPtr;
}

void ScheduleClock::substitute( ScheduleClock* substitutePtr )
{
    ourSubstitutePtr.store( substitutePtr, std::memory_order_release );
}

// ----------------------------------------------------------------------------------- Scheduler

Scheduler::Scheduler( const Callback& callback, const char* daysStrPtr, const char* hoursStrPtr,
                      const char* namePtr )
    : myCallback( callback )
    , myPlan( daysStrPtr, hoursStrPtr, namePtr )
    , myTimer( &ourCallback, this )
{
    start();
}

Scheduler::Scheduler( const Callback& callback, const char* startTimeStrPtr, int hourPeriod,
                      PeriodicMode mode, const char* namePtr )
    : myCallback( callback )
    , myPlan( startTimeStrPtr, hourPeriod, mode, namePtr )
    , myTimer( &ourCallback, this )
{
    start();
}

void Scheduler::start()
{
    log( myPlan.messages() );
    if ( isValid() )
        SchedulerManager::singletonPtr()->registerScheduler( this );
}

Scheduler::~Scheduler()
{
    const Mt::MutexLock lock( managerMutex() );
    if ( myIsDestroyedPtr != nullptr )
        *myIsDestroyedPtr = true;
    SchedulerManager* const managerPtr = Singleton< SchedulerManager >::ptrIfBuilt();
    if ( managerPtr != nullptr )
        managerPtr->unregisterScheduler( this );
    myTimer.expireTime( 0, Timer::oneShot );
}

void Scheduler::setTimer( TimeCalled timeCalled )
{
    const Mt::MutexLock lock( managerMutex() );
    if ( !isValid() || !myIsEnabled ) {
        myNextTime = Time( 0 );
        nuvLogTo( debugSource() ) << "Scheduler::setTimer (" << name() << ") unschedule Timer";
        myTimer.expireTime( 0, Timer::oneShot );
        return;
    }
    const TimeZone zone = ScheduleClock::instance().zone();
    const Time now = ScheduleClock::instance().now();
    nuvLogTo( debugSource() ) << "Scheduler::setTimer (" << name() << ") myStartTimeStr ["
                              << myPlan.startTimeStr() << "] myPeriodInSeconds ["
                              << myPlan.periodInSeconds() << "] myDaysStr [" << myPlan.daysStr()
                              << "] myHoursStr [" << myPlan.hoursStr() << "]";
    if ( timeCalled == SchedulePlan::setAnew )
        myIsInitialWaitDue = true;
    SchedulePlan::Messages messages;
    const std::int64_t nextUtc = myPlan.next( secondsOf( now ), zone, timeCalled, &messages );
    log( messages );
    nuvLogTo( debugSource() ) << "Scheduler::setTimer (" << name()
                              << ") next callback will occur in seconds ["
                              << nextUtc - secondsOf( now ) << "] at UTC time ["
                              << timeOf( nextUtc ).asString( ourTimeFormat ) << "] at local time ["
                              << timeOf( nextUtc ).asString( ourTimeFormat, zone ) << "]";
    arm( now, nextUtc );
}

void Scheduler::arm( const Time& now, std::int64_t nextUtc )
{
    const std::int64_t delay = nextUtc - secondsOf( now );
    myNextTime = timeOf( nextUtc );
    nuvLogTo( debugSource() ) << "Scheduler::setTimer (" << name() << ") myNextTime [" << nextUtc
                              << "] scheduleTimeInSecs [" << delay << "]";
    myCheckpointTime = now;
    myStopwatch.reset();
    myTimer.expireTime( static_cast< unsigned int >( delay ), Timer::oneShot );
}

void Scheduler::enable( bool isEnabled )
{
    const Mt::MutexLock lock( managerMutex() );
    myIsEnabled = isEnabled;
    setTimer( SchedulePlan::setAnew );
}

bool Scheduler::isEnabled() const
{
    const Mt::MutexLock lock( managerMutex() );
    return myIsEnabled;
}

bool Scheduler::mayWaitInitially() const
{
    return isValid() && myIsEnabled && myPlan.isPeriodic() && myLastCallbackTime == Time( 0 );
}

void Scheduler::waitAtLeastOnePeriodInitially()
{
    const Mt::MutexLock lock( managerMutex() );
    myIsInitialWaitDue = false;
    if ( !mayWaitInitially() )
        return;
    const Time now = ScheduleClock::instance().now();
    const std::int64_t nextSec = secondsOf( myNextTime ) - secondsOf( now );
    nuvLogTo( debugSource() ) << "Scheduler::waitAtLeastOnePeriodInitially periodSec ["
                              << myPlan.periodInSeconds() << "] nextSec [" << nextSec << "]";
    if ( nextSec >= myPlan.periodInSeconds() )
        return;
    SchedulePlan::Messages messages;
    const std::int64_t nextUtc =
        myPlan.nextAfterOnePeriod( secondsOf( now ), ScheduleClock::instance().zone(), &messages );
    log( messages );
    arm( now, nextUtc );
}

// The callback may destroy the scheduler, and with it the function that runs.
void Scheduler::ourCallback( Timer*, void* schedulerPtr )
{
    const Mt::MutexLock lock( managerMutex() );
    Scheduler& scheduler = *static_cast< Scheduler* >( schedulerPtr );
    nuvLogTo( debugSource() ) << "Scheduler::ourCallback";
    const Callback callback = scheduler.myCallback;
    bool isDestroyed = false;
    scheduler.myIsDestroyedPtr = &isDestroyed;
    call( callback, &scheduler );
    if ( isDestroyed )
        return;
    scheduler.myIsDestroyedPtr = nullptr;
    scheduler.myLastCallbackTime = ScheduleClock::instance().now();
    scheduler.myPlan.lastCallback( scheduler.myLastCallbackTime );
    scheduler.setTimer( SchedulePlan::afterCallback );
}

void Scheduler::watchClock( const Log::Source& source, unsigned int maxTimeDeltaSeconds )
{
    if ( !isValid() || !myIsEnabled )
        return;
    const Time now = ScheduleClock::instance().now();
    const std::uint64_t scheduleNow =
        myCheckpointTime.ns() + myStopwatch.totalTime() * std::uint64_t{ Time::nsPerMs };
    const auto delta = static_cast< std::int64_t >( now.ns() - scheduleNow );
    const std::int64_t maxDelta =
        maxTimeDeltaSeconds * static_cast< std::int64_t >( Time::nsPerSec );
    if ( delta > maxDelta || delta < -maxDelta ) {
        nuvLogTo( source ) << "SchedulerManager calling setTimer() for schedule [" << name()
                           << "] now [" << now.seconds() << "] nanoSeconds [" << now.ns()
                           << "] checkpointTime [" << myCheckpointTime.ns() << "] scheduleNow ["
                           << scheduleNow << "] delta [" << delta << "]";
        setTimer( SchedulePlan::setAnew );
    }
    if ( myIsInitialWaitDue )
        waitAtLeastOnePeriodInitially();
}

std::int64_t Scheduler::getNextCallback() const
{
    const Mt::MutexLock lock( managerMutex() );
    return secondsOf( myNextTime );
}

bool Scheduler::convertTimeString( int* hourPtr, int* minutePtr, int* secondPtr,
                                   const std::string& text )
{
    const bool isGood = SchedulePlan::parseTimeOfDay( hourPtr, minutePtr, secondPtr, text );
    if ( !isGood )
        nuvLogTo( debugSource() ) << SchedulePlan::timeOfDayFault( *hourPtr, *minutePtr,
                                                                   *secondPtr );
    return isGood;
}

int Scheduler::convertTimeStr( const std::string& text )
{
    int hour = 0, minute = 0, second = 0;
    return convertTimeString( &hour, &minute, &second, text ) ? hour * 3600 + minute * 60 + second
                                                              : -1;
}

// @return null while a callback is scheduled
const char* Scheduler::whyUnscheduled() const
{
    if ( !isValid() )
        return "No callback is scheduled, the scheduler's config is invalid.";
    return myIsEnabled ? nullptr : "No callback is scheduled, the scheduler is disabled.";
}

std::string Scheduler::showSchedule() const
{
    const Mt::MutexLock lock( managerMutex() );
    const TimeZone zone = ScheduleClock::instance().zone();
    std::string text = "Unable to determine schedule type or parameters.";
    if ( myPlan.isCalendar() )
        text =
            "Calendar schedule: days [" + myPlan.daysStr() + "] hours [" + myPlan.hoursStr() + "].";
    else if ( myPlan.isPeriodic() )
        text = "Periodic schedule: start time [" + myPlan.startTimeStr() + "] period [" +
               std::to_string( myPlan.periodInSeconds() / 3600 ) + "].";
    if ( myLastCallbackTime == Time( 0 ) )
        text += "\nThe first callback has not yet occurred";
    else
        text += "\n  The last scheduled callback was at [" +
                myLastCallbackTime.asString( ourTimeFormat, zone ) + "].";
    if ( const char* const reasonPtr = whyUnscheduled() )
        return text + "\n" + reasonPtr;
    return text + "\n  The next scheduled callback will be at [" +
           myNextTime.asString( ourTimeFormat, zone ) + "].";
}

std::string Scheduler::showSecondsUntilNextCallback() const
{
    const Mt::MutexLock lock( managerMutex() );
    if ( const char* const reasonPtr = whyUnscheduled() )
        return reasonPtr;
    const std::int64_t seconds =
        secondsOf( myNextTime ) - secondsOf( ScheduleClock::instance().now() );
    return "Seconds until the next scheduled callback [" + std::to_string( seconds ) + "]";
}

std::string Scheduler::showCurrentTime()
{
    const ScheduleClock& clock = ScheduleClock::instance();
    return "The current time is [" + clock.now().asString( ourTimeFormat, clock.zone() ) + "]";
}

// ---------------------------------------------------------------------------- SchedulerManager

// Its constructor takes the manager's mutex, which comes first.
SchedulerManager* SchedulerManager::singletonPtr()
{
    SchedulerManager* const managerPtr = Singleton< SchedulerManager >::ptrIfBuilt();
    if ( managerPtr != nullptr )
        return managerPtr;
    const Mt::MutexLock lock( managerMutex() );
    return Singleton< SchedulerManager >::ptr( SchedulerManagerSingletonPtrMutex );
}

SchedulerManager::SchedulerManager()
    : mySource( Log::debug, "sched" )
    , myTimer( &ourCallback, this )
{
    timeCheckWaitSeconds( defaultTimeCheckWaitSeconds );
}

void SchedulerManager::registerScheduler( Scheduler* schedulerPtr )
{
    const Mt::MutexLock lock( managerMutex() );
    schedulerPtr->setTimer( SchedulePlan::setAnew );
    mySchedulers.push_back( schedulerPtr );
}

void SchedulerManager::unregisterScheduler( Scheduler* schedulerPtr )
{
    const Mt::MutexLock lock( managerMutex() );
    mySchedulers.remove( schedulerPtr );
}

void SchedulerManager::setAllTimers()
{
    const Mt::MutexLock lock( managerMutex() );
    for ( Scheduler* const schedulerPtr : mySchedulers )
        schedulerPtr->setTimer( SchedulePlan::setAnew );
}

void SchedulerManager::timeCheckWaitSeconds( unsigned int seconds )
{
    myTimer.expireTime( seconds, Timer::periodic );
}

void SchedulerManager::maxTimeDeltaSeconds( unsigned int seconds )
{
    const Mt::MutexLock lock( managerMutex() );
    myMaxTimeDeltaSeconds = seconds;
}

void SchedulerManager::ourCallback( Timer*, void* managerPtr )
{
    const Mt::MutexLock lock( managerMutex() );
    SchedulerManager& manager = *static_cast< SchedulerManager* >( managerPtr );
    for ( Scheduler* const schedulerPtr : manager.mySchedulers )
        schedulerPtr->watchClock( manager.mySource, manager.myMaxTimeDeltaSeconds );
}

} // namespace Nuv::Utils
