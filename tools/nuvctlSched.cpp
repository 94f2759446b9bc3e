#include "nuvctlTime.h"

#include "nuvctl.h"

#include "nuvSchedulePlan.h"
#include "nuvScheduler.h"

#include <iostream>

namespace Nuv::Ctl {

using Utils::SchedulePlan;
using Utils::SchedulerManager;
using Utils::Time;
using Utils::TimeZone;

namespace {

SchedulePlan planOf( const ScheduleOptions& options )
{
    if ( options.myIsPeriodic )
        return SchedulePlan( options.myStart.c_str(), options.myPeriodHours,
                             options.myMode == "any" ? SchedulePlan::anyPeriod
                                                     : SchedulePlan::alignedPeriod );
    return SchedulePlan( options.myDays.c_str(), options.myHours.c_str() );
}

/// What the scheduler would log, without its title.
std::string faultOf( const SchedulePlan& plan )
{
    const std::string& text = plan.messages().back().myText;
    return text.substr( text.find_first_not_of( ' ', text.find( ") " ) + 1 ) );
}

/// The callbacks of a process that starts the schedule at that time.
std::vector< std::int64_t > callbacks( SchedulePlan* planPtr, std::int64_t from,
                                       const TimeZone& zone, unsigned int count )
{
    std::vector< std::int64_t > result;
    std::int64_t time = planPtr->next( from, zone, SchedulePlan::setAnew );
    // Its first clock watch has it wait for a period.
    const std::int64_t watch = from + SchedulerManager::defaultTimeCheckWaitSeconds;
    if ( planPtr->isPeriodic() && time > watch && time - watch < planPtr->periodInSeconds() )
        time = planPtr->nextAfterOnePeriod( watch, zone );
    while ( result.size() < count ) {
        result.push_back( time );
        planPtr->lastCallback( Time( static_cast< std::uint64_t >( time ) * Time::nsPerSec ) );
        time = planPtr->next( time, zone, SchedulePlan::afterCallback );
    }
    return result;
}

std::string weekday( std::int64_t utc, const TimeZone& zone )
{
    return Time( static_cast< std::uint64_t >( utc ) * Time::nsPerSec ).asString( "%a", zone );
}

std::string spanText( std::int64_t seconds )
{
    char text[32];
    std::snprintf( text, sizeof( text ), "%lldd %02d:%02d:%02d",
                   static_cast< long long >( seconds / 86400 ),
                   static_cast< int >( seconds / 3600 % 24 ),
                   static_cast< int >( seconds / 60 % 60 ), static_cast< int >( seconds % 60 ) );
    return text;
}

} // namespace

int showSchedule( const CommonOptions& common, const ScheduleOptions& options )
{
    ZoneChoice choice;
    if ( !chooseZoneOrComplain( options.myZone, &choice ) )
        return problem;
    SchedulePlan plan = planOf( options );
    if ( !plan.isValid() )
        return complain( faultOf( plan ) ), wrongUsage;
    std::int64_t from = static_cast< std::int64_t >( Time().seconds() );
    bool isUtc = true;
    if ( !options.myFrom.empty() && ( !readTime( options.myFrom, &from, &isUtc ) || from < 0 ) )
        return complain( "\"" + options.myFrom + "\" is no time since 1970" ), wrongUsage;
    if ( !isUtc )
        from = readingsOf( from, choice.myZone ).myFirst;
    Json list = Json::array();
    Table table( { "DAY", "LOCAL", "UTC", "FROM NOW" } );
    static const TimeZone ourUtc( "UTC", Utils::Buffer() );
    for ( const std::int64_t utc : callbacks( &plan, from, choice.myZone, options.myCount ) ) {
        const std::string utcText = localText( utc, ourUtc ).substr( 0, 19 );
        list.push_back( { { "seconds", utc },
                          { "utc", utcText },
                          { "local", localText( utc, choice.myZone ) },
                          { "day", weekday( utc, choice.myZone ) } } );
        table.add( { weekday( utc, choice.myZone ), localText( utc, choice.myZone ), utcText,
                     spanText( utc - from ) } );
    }
    if ( common.myJson )
        printJson( { { "zone", choice.myName }, { "from", from }, { "callbacks", list } } );
    else
        table.print();
    return good;
}

} // namespace Nuv::Ctl
