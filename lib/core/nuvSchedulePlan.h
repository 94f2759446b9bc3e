#pragma once

#include "nuvTimeZone.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace Nuv::Utils {

/// What a schedule asks for, and when its time comes: the arithmetic behind Scheduler, without
/// clock, timer and log.
///
/// A calendar plan names days and times of day, each list separated by '|' ("Mon|friday",
/// "8:00:00|20:30:00"); full names are lower case, short ones begin with a capital. A periodic plan
/// has a start time and comes every so many hours from it. Both go by local time:
///
/// | local time asked for | comes                                                               |
/// |----------------------|---------------------------------------------------------------------|
/// | skipped by the clock | once, as late as if the clock had gone on (02:30 as 03:30)          |
/// | shown twice          | once, in standard time                                              |
///
/// Threads: one at a time; const operations may run concurrently.
/// Errors:  a plan that cannot be read is invalid: messages() says why. Nothing is thrown but
///          std::bad_alloc.
/// Example: SchedulePlan plan( "Mon", "8:00:00" ); plan.next( now, zone, SchedulePlan::setAnew )
class NUV_API SchedulePlan
{
public:
    enum PeriodicMode
    {
        anyPeriod = 0,    ///< 1 to 168 hours
        alignedPeriod = 1 ///< 1, 2, 3, 4, 6, 8, 12 hours, or 1 to 7 days; so any value but 0
    };
    enum TimeCalled
    {
        afterCallback = 0,
        setAnew = 1 ///< forgets the grid and the last callback
    };
    /// A line for the log: at error severity, or at debug.
    struct Message
    {
        bool myIsError;
        std::string myText;
    };
    using Messages = std::vector< Message >;

    static constexpr int secondsPerDay = 86400;
    /// A time nearer than this to the last callback is taken for the same one.
    static constexpr int minSecondsAfterCallback = 5;

    /// A calendar plan. Null for a text or the name is allowed: the plan is invalid, the name
    /// "defaultName".
    SchedulePlan( const char* daysPtr, const char* hoursPtr, const char* namePtr = nullptr );
    /// A periodic plan; null as above.
    SchedulePlan( const char* startTimePtr, int hourPeriod, PeriodicMode mode,
                  const char* namePtr = nullptr );

    /// The callback has run at that time.
    void lastCallback( const Time& time ) { myLastCallback = time; }
    /// @param utc now, in seconds
    /// @param messagesPtr may be null; gets lines that tell how the result came about
    /// @return the next time of the plan behind now, in UTC seconds; 0 for an invalid plan
    std::int64_t next( std::int64_t utc, const TimeZone& zone, TimeCalled timeCalled,
                       Messages* messagesPtr = nullptr );
    /// Moves the grid of a periodic plan to the first start time that is a period or more away.
    /// @return that time
    std::int64_t nextAfterOnePeriod( std::int64_t utc, const TimeZone& zone,
                                     Messages* messagesPtr = nullptr );

    bool isValid() const { return myIsValid; }
    bool isCalendar() const { return myIsCalendar; }
    bool isPeriodic() const { return !myIsCalendar && myPeriodInSeconds > 0; }
    /// What was found while the plan was read; the last line is the fault of an invalid one.
    const Messages& messages() const { return myMessages; }
    const std::string& name() const { return myName; }
    const std::string& daysStr() const { return myDaysStr; }
    const std::string& hoursStr() const { return myHoursStr; }
    const std::string& startTimeStr() const { return myStartTimeStr; }
    int periodInSeconds() const { return myPeriodInSeconds; }

    /// The next (day, time) of a calendar plan strictly later than these fields of local time.
    void nextSchedCalendarTime( const std::tm& now, std::tm* nextPtr,
                                Messages* messagesPtr = nullptr ) const;

    /// Reads "h:m:s". @return whether it is a time of day; the fields are -1 where there is no
    /// number
    static bool parseTimeOfDay( int* hourPtr, int* minutePtr, int* secondPtr,
                                const std::string& text );
    /// What is to be logged about a text that is none.
    static std::string timeOfDayFault( int hour, int minute, int second );
    /// The first point behind now of the grid start + k x period; local seconds.
    static std::int64_t nextLocalMoment( std::int64_t now, std::int64_t period, std::int64_t start )
    {
        return ( ( now - start ) / period + 1 ) * period + start;
    }

private:
    bool fail( const std::string& text );
    bool hasGoodForm( const std::string& text, const char* kindPtr, const char* patternPtr,
                      const char* mismatchPtr );
    bool readDays();
    bool readHours();
    bool readTimeOfDay( const std::string& text, int* secondsPtr );
    void readStartTime();
    std::int64_t nextCalendar( std::int64_t utc, std::int64_t local, const TimeZone& zone,
                               std::int64_t* momentPtr, Messages* messagesPtr ) const;
    std::int64_t nextPeriodic( std::int64_t utc, const TimeZone& zone, TimeCalled timeCalled,
                               Messages* messagesPtr );
    std::string prefix( const char* functionPtr ) const;
    bool isTooSoon( std::int64_t utc ) const;

    bool myIsCalendar;
    bool myIsValid = true;
    std::string myName;
    std::string myDaysStr;
    std::string myHoursStr;
    std::string myStartTimeStr;
    std::vector< int > myDays;  // 0 (Sunday) to 6, ascending
    std::vector< int > myHours; // seconds after midnight, ascending
    int myStartTime = 0;        // seconds after midnight
    int myPeriodInSeconds = 0;
    std::int64_t myPeriod = 0; // of the running grid; 0 before it is begun
    std::int64_t myE0 = 0;     // its first point, local seconds
    Time myLastCallback = Time( 0 );
    Messages myMessages;
};

} // namespace Nuv::Utils
