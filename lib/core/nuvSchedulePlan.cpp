#include "nuvSchedulePlan.h"

#include "nuvRegEx.h"
#include "nuvUtils.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

namespace Nuv::Utils {

namespace {

using DayMap = StaticMap< const char*, int >;
constexpr DayMap::Pair ourDayPairs[] = { { "friday", 5 },   { "monday", 1 },   { "saturday", 6 },
                                         { "sunday", 0 },   { "thursday", 4 }, { "tuesday", 2 },
                                         { "wednesday", 3 } };
constexpr DayMap dayMap( ourDayPairs );
static_assert( dayMap.isSorted() );

constexpr DayMap::Pair ourShortDayPairs[] = { { "Fri", 5 }, { "Mon", 1 }, { "Sat", 6 },
                                              { "Sun", 0 }, { "Thu", 4 }, { "Tue", 2 },
                                              { "Wed", 3 } };
constexpr DayMap dayMapShort( ourShortDayPairs );
static_assert( dayMapShort.isSorted() );

constexpr int secondsPerHour = 3600;
constexpr int maxHourPeriod = 168;
constexpr int hoursPerDay = 24;

constexpr const char* daysPattern = "([a-zA-Z]+)(\\|[a-zA-Z]+)*";
constexpr const char* timePattern = "([0-9][0-9]?:[0-9][0-9]?:[0-9][0-9]?)";
constexpr const char* hoursPattern = "([0-9][0-9]?:[0-9][0-9]?:[0-9][0-9]?)"
                                     "(\\|[0-9][0-9]?:[0-9][0-9]?:[0-9][0-9]?)*";

const char* orDefault( const char* namePtr )
{
    return namePtr != nullptr ? namePtr : "defaultName";
}

bool matchesAsAWhole( const RegEx& regEx, const std::string& text,
                      RegEx::SearchResults* resultsPtr )
{
    return regEx.search( text.c_str(), resultsPtr ) &&
           ( *resultsPtr )[0].text().size() == text.size() && ( *resultsPtr )[1].isPartOfMatch();
}

bool matchesAsAWhole( const char* patternPtr, const std::string& text )
{
    RegEx::SearchResults results;
    return matchesAsAWhole( RegEx( patternPtr ), text, &results );
}

std::vector< std::string > parts( const std::string& text )
{
    std::vector< std::string > result;
    TokenScanner< std::string > scanner( text );
    for ( std::string part; scanner.next( &part, "|" ); )
        result.push_back( part );
    return result;
}

// @return 0 to 6, -1 for a name in neither table
int dayOfName( const std::string& name )
{
    for ( const DayMap* mapPtr : { &dayMap, &dayMapShort } ) {
        const auto i = mapPtr->find( name.c_str() );
        if ( i != mapPtr->end() )
            return i->value;
    }
    return -1;
}

// Sorts. @return whether all are different
bool makeSet( std::vector< int >* valuesPtr )
{
    std::sort( valuesPtr->begin(), valuesPtr->end() );
    return std::adjacent_find( valuesPtr->begin(), valuesPtr->end() ) == valuesPtr->end();
}

bool isGoodPeriod( int hours, SchedulePlan::PeriodicMode mode )
{
    if ( hours < 1 || hours > maxHourPeriod )
        return false;
    return mode == SchedulePlan::anyPeriod ||
           ( hours < hoursPerDay ? hoursPerDay % hours : hours % hoursPerDay ) == 0;
}

// A local time by the rules of the header's table. Where daylight-saving time alone has it, by
// that; where the zone file's marks do not decide, by the offset in force about then.
std::int64_t toUtc( const TimeZone& zone, std::int64_t local )
{
    for ( const auto hint : { TimeZone::standardTime, TimeZone::daylightSavingTime } ) {
        try {
            return zone.toUtc( local, hint );
        } catch ( const TimeZone::Exception& ) {
            continue;
        }
    }
    return 2 * local - zone.toLocal( local, nullptr, nullptr );
}

void add( SchedulePlan::Messages* messagesPtr, std::string text )
{
    if ( messagesPtr != nullptr )
        messagesPtr->push_back( { false, std::move( text ) } );
}

/// "name [value" and so on, as the log lines have it.
template < class... Rest >
std::string fields( const char* namePtr, std::int64_t value, Rest... rest )
{
    std::string text = namePtr + std::to_string( value );
    if constexpr ( sizeof...( rest ) > 0 )
        text += fields( rest... );
    else
        text += "]";
    return text;
}

} // namespace

// -------------------------------------------------------------------------------- reading plans

SchedulePlan::SchedulePlan( const char* daysPtr, const char* hoursPtr, const char* namePtr )
    : myIsCalendar( daysPtr != nullptr && hoursPtr != nullptr )
    , myName( orDefault( namePtr ) )
    , myDaysStr( daysPtr != nullptr ? daysPtr : "" )
    , myHoursStr( hoursPtr != nullptr ? hoursPtr : "" )
{
    if ( !myIsCalendar )
        fail( "Scheduler::Scheduler( Calendar )  invalid days or hours (NULL)" );
    else if ( hasGoodForm( myDaysStr, "days", daysPattern, " - no regex match" ) &&
              hasGoodForm( myHoursStr, "hours", hoursPattern, "" ) && readDays() )
        readHours();
}

SchedulePlan::SchedulePlan( const char* startTimePtr, int hourPeriod, PeriodicMode mode,
                            const char* namePtr )
    : myIsCalendar( false )
    , myName( orDefault( namePtr ) )
    , myStartTimeStr( startTimePtr != nullptr ? startTimePtr : "" )
{
    const std::string title = "Scheduler::Scheduler(periodic) ";
    add( &myMessages, title + " periodic ctor" );
    if ( !isGoodPeriod( hourPeriod, mode ) ) {
        fail( title + " invalid hourPeriod [" + std::to_string( hourPeriod ) + "]" );
        return;
    }
    myPeriodInSeconds = hourPeriod * secondsPerHour;
    if ( startTimePtr != nullptr )
        readStartTime();
    else
        fail( title + " invalid start time (NULL)" );
}

// @return false
bool SchedulePlan::fail( const std::string& text )
{
    myIsValid = false;
    add( &myMessages, text );
    return false;
}

bool SchedulePlan::hasGoodForm( const std::string& text, const char* kindPtr,
                                const char* patternPtr, const char* mismatchPtr )
{
    const std::string title =
        std::string( "Scheduler::Scheduler( Calendar ) invalid " ) + kindPtr + " format - ";
    if ( text.starts_with( '|' ) )
        return fail( title + "leading separator" );
    if ( text.ends_with( '|' ) )
        return fail( title + "trailing separator" );
    if ( text.find( "||" ) != std::string::npos )
        return fail( title + "too many separators" );
    return matchesAsAWhole( patternPtr, text ) ||
           fail( std::string( "Scheduler::Scheduler( Calendar )  invalid " ) + kindPtr + " format" +
                 mismatchPtr );
}

bool SchedulePlan::readDays()
{
    const std::string title = "Scheduler::Scheduler( Calendar ) ";
    for ( const std::string& name : parts( myDaysStr ) ) {
        const int day = dayOfName( name );
        if ( day < 0 ) {
            myMessages.push_back( { true, "errSystemError  - could not find day: " + name } );
            return fail( title + " invalid conversion error days [" + myDaysStr + "]" );
        }
        myDays.push_back( day );
    }
    if ( !makeSet( &myDays ) )
        return fail( title + " invalid duplicate days [" + myDaysStr + "]" );
    return !myDays.empty() || fail( title + " invalid empty daymap days [" + myDaysStr + "]" );
}

bool SchedulePlan::readHours()
{
    const std::string title = "Scheduler::Scheduler( Calendar ) ";
    for ( const std::string& text : parts( myHoursStr ) ) {
        int seconds = 0;
        if ( !readTimeOfDay( text, &seconds ) )
            return fail( title + " invalid hours conversion error [" + myHoursStr + "]" );
        myHours.push_back( seconds );
    }
    if ( !makeSet( &myHours ) )
        return fail( title + " invalid duplicate hours [" + myHoursStr + "]" );
    return !myHours.empty() || fail( title + " no valid hours found[" + myHoursStr + "]" );
}

bool SchedulePlan::readTimeOfDay( const std::string& text, int* secondsPtr )
{
    int hour = 0, minute = 0, second = 0;
    const bool isGood = parseTimeOfDay( &hour, &minute, &second, text );
    *secondsPtr = hour * secondsPerHour + minute * 60 + second;
    if ( !isGood )
        add( &myMessages, timeOfDayFault( hour, minute, second ) );
    return isGood;
}

void SchedulePlan::readStartTime()
{
    const std::string title = "Scheduler::Scheduler(periodic) ";
    const RegEx regEx( timePattern );
    RegEx::SearchResults sr;
    const bool isMatch = matchesAsAWhole( regEx, myStartTimeStr, &sr );
    if ( !isMatch )
        add( &myMessages, title + fields( " invalid regex isValid [", regEx.isValid(),
                                          "] sr.size() [", static_cast< std::int64_t >( sr.size() ),
                                          "] sr[1].isPartOfMatch() [", sr[1].isPartOfMatch() ) );
    if ( !isMatch || !readTimeOfDay( myStartTimeStr, &myStartTime ) )
        fail( title + " invalid timeStr [" + myStartTimeStr + "] startTimeCStr [" + myStartTimeStr +
              "]" );
}

bool SchedulePlan::parseTimeOfDay( int* hourPtr, int* minutePtr, int* secondPtr,
                                   const std::string& text )
{
    TokenScanner< std::string > scanner( text );
    std::string token;
    for ( int* const valuePtr : { hourPtr, minutePtr, secondPtr } ) {
        *valuePtr = -1;
        if ( !scanner.next( &token, ": \n" ) )
            continue;
        const char* const endPtr = token.data() + token.size();
        const auto [stopPtr, error] = std::from_chars( token.data(), endPtr, *valuePtr );
        if ( stopPtr != endPtr || error != std::errc() )
            *valuePtr = -1;
    }
    return !scanner.next( nullptr, ": \n" ) && *hourPtr >= 0 && *hourPtr < 24 && *minutePtr >= 0 &&
           *minutePtr < 60 && *secondPtr >= 0 && *secondPtr < 60;
}

std::string SchedulePlan::timeOfDayFault( int hour, int minute, int second )
{
    return fields( "convertTimeString() invalid time component hr [", hour, "] min [", minute,
                   "] sec [", second );
}

// ----------------------------------------------------------------------------------- next times

std::string SchedulePlan::prefix( const char* functionPtr ) const
{
    return std::string( "Scheduler::" ) + functionPtr + "(" + myName + ")";
}

bool SchedulePlan::isTooSoon( std::int64_t utc ) const
{
    const std::uint64_t earliest =
        myLastCallback.ns() + std::uint64_t{ minSecondsAfterCallback } * Time::nsPerSec;
    return myLastCallback.ns() != 0 &&
           static_cast< std::uint64_t >( utc ) * Time::nsPerSec < earliest;
}

std::int64_t SchedulePlan::next( std::int64_t utc, const TimeZone& zone, TimeCalled timeCalled,
                                 Messages* messagesPtr )
{
    if ( !myIsValid )
        return 0;
    if ( timeCalled == setAnew )
        myLastCallback = Time( 0 );
    const char* const tooSoon =
        " time since last callback too low - use next scheduled callback time";
    if ( !myIsCalendar ) {
        const std::int64_t result = nextPeriodic( utc, zone, timeCalled, messagesPtr );
        if ( !isTooSoon( result ) )
            return result;
        add( messagesPtr, prefix( "setTimer " ) + tooSoon );
        return result + myPeriodInSeconds;
    }
    std::int64_t moment = zone.toLocal( utc, nullptr, nullptr );
    const std::int64_t result = nextCalendar( utc, moment, zone, &moment, messagesPtr );
    if ( !isTooSoon( result ) )
        return result;
    add( messagesPtr, prefix( "setTimer " ) + tooSoon );
    return nextCalendar( utc, moment, zone, &moment, messagesPtr );
}

// A moment of which the clock has shown the standard time already comes no second time.
std::int64_t SchedulePlan::nextCalendar( std::int64_t utc, std::int64_t local, const TimeZone& zone,
                                         std::int64_t* momentPtr, Messages* messagesPtr ) const
{
    std::int64_t result = 0;
    std::tm next{};
    *momentPtr = local;
    do {
        std::tm now{};
        TimeZone::decodeTime( &now, *momentPtr );
        nextSchedCalendarTime( now, &next, messagesPtr );
        *momentPtr = TimeZone::timeCode64( next );
        result = toUtc( zone, *momentPtr );
    } while ( result <= utc );
    add( messagesPtr, prefix( "setTimer " ) + fields( " scheduleTimeInSecs [", result - utc,
                                                      "] hour [", next.tm_hour, "] min [",
                                                      next.tm_min, "] sec [", next.tm_sec ) );
    return result;
}

void SchedulePlan::nextSchedCalendarTime( const std::tm& now, std::tm* nextPtr,
                                          Messages* messagesPtr ) const
{
    nuvAssert( myIsValid && myIsCalendar );
    const int time = now.tm_hour * secondsPerHour + now.tm_min * 60 + now.tm_sec;
    const auto laterTime = std::upper_bound( myHours.begin(), myHours.end(), time );
    const bool isListedDay = std::binary_search( myDays.begin(), myDays.end(), now.tm_wday );
    const bool isToday = isListedDay && laterTime != myHours.end();
    const int schedTime = isToday ? *laterTime : myHours.front();
    int nbrOfDays = 0;
    std::string text = " run today";
    if ( !isToday ) {
        const auto laterDay = std::upper_bound( myDays.begin(), myDays.end(), now.tm_wday );
        const bool isThisWeek = laterDay != myDays.end();
        const int day = isThisWeek ? *laterDay : myDays.front();
        nbrOfDays = day - now.tm_wday + ( isThisWeek ? 0 : 7 );
        text = fields( isThisWeek ? " run this week on day " : " run next week on day ", day );
    }
    if ( messagesPtr != nullptr )
        add( messagesPtr,
             prefix( "nextSchedCalendarTime" ) + text + fields( " schedTime [", schedTime ) );
    std::tm fieldsOfDay = now;
    fieldsOfDay.tm_mday += nbrOfDays;
    fieldsOfDay.tm_hour = fieldsOfDay.tm_min = 0;
    fieldsOfDay.tm_sec = schedTime;
    TimeZone::decodeTime( nextPtr, TimeZone::timeCode64( fieldsOfDay ) );
}

std::int64_t SchedulePlan::nextPeriodic( std::int64_t utc, const TimeZone& zone,
                                         TimeCalled timeCalled, Messages* messagesPtr )
{
    const std::int64_t local = zone.toLocal( utc, nullptr, nullptr );
    const bool isFirst = timeCalled == setAnew || myPeriod == 0;
    if ( isFirst ) {
        myPeriod = myPeriodInSeconds;
        myE0 = nextLocalMoment( local, secondsPerDay, myStartTime );
    }
    std::int64_t moment = isFirst ? myE0 : nextLocalMoment( local, myPeriod, myE0 % myPeriod );
    std::int64_t result = toUtc( zone, moment );
    while ( result <= utc ) {
        moment += isFirst ? secondsPerDay : myPeriod;
        result = toUtc( zone, moment );
    }
    if ( !isFirst ) {
        add( messagesPtr, prefix( "setTimer " ) +
                              fields( "nlm [", moment, "] scheduleTimeInSecs  [", result - utc ) );
        return result;
    }
    myE0 = moment;
    add( messagesPtr, prefix( "setTimer " ) + fields( "myPeriod [", myPeriod, "] myE0 [", myE0,
                                                      "] scheduleTimeInSecs [", result - utc ) );
    add( messagesPtr,
         "Scheduler::setTimer (" + myName +
             fields( ") first time scheduleTimeInSecs [", result - utc, "] startTime [",
                     myStartTime, "] currentTimeSinceMid [", local % secondsPerDay ) );
    return result;
}

std::int64_t SchedulePlan::nextAfterOnePeriod( std::int64_t utc, const TimeZone& zone,
                                               Messages* messagesPtr )
{
    nuvAssert( myIsValid && !myIsCalendar );
    const std::int64_t local = zone.toLocal( utc, nullptr, nullptr );
    myPeriod = myPeriodInSeconds;
    myE0 = nextLocalMoment( local + myPeriod, secondsPerDay, myStartTime );
    const std::int64_t result = toUtc( zone, myE0 );
    add( messagesPtr, prefix( "waitAtLeastOnePeriodInitially " ) +
                          fields( "myPeriod [", myPeriod, "] myE0 [", myE0,
                                  "] scheduleTimeInSecs [", result - utc ) );
    return result;
}

} // namespace Nuv::Utils
