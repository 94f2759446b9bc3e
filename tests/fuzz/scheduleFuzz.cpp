// The texts of schedules: a first byte for the kind, then two texts of which the first ends at a
// line feed. A valid plan has next times that rise, all of them times of the plan.

#include "nuvFuzz.h"
#include "nuvSchedulePlan.h"

#include <cstdint>
#include <string>

using namespace Nuv::Utils;
using NuvFuzz::require;

namespace {

// Local time is UTC: a zone without data.
void requireRisingTimes( SchedulePlan* planPtr, int period )
{
    const TimeZone utc( "none", Buffer() );
    std::int64_t now = 1795549164;
    SchedulePlan::TimeCalled timeCalled = SchedulePlan::setAnew;
    std::int64_t first = 0;
    for ( int i = 0; i < 4; ++i ) {
        const std::int64_t next = planPtr->next( now, utc, timeCalled );
        require( next > now && next <= now + 8 * SchedulePlan::secondsPerDay );
        first = i == 0 ? next : first;
        require( period == 0 || ( next - first ) % period == 0 );
        if ( period == 0 ) {
            std::tm fields{};
            std::tm after{};
            TimeZone::decodeTime( &fields, next - 1 );
            planPtr->nextSchedCalendarTime( fields, &after );
            require( TimeZone::timeCode64( after ) == next );
        }
        planPtr->lastCallback( Time( static_cast< std::uint64_t >( next ) * Time::nsPerSec ) );
        timeCalled = SchedulePlan::afterCallback;
        now = next;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    if ( nbrOfBytes == 0 )
        return 0;
    const std::string text( reinterpret_cast< const char* >( dataPtr ) + 1, nbrOfBytes - 1 );
    const std::size_t end = std::min( text.find( '\n' ), text.size() );
    const std::string first = text.substr( 0, end );
    const std::string second = text.substr( std::min( end + 1, text.size() ) );
    const bool isCalendar = dataPtr[0] % 2 == 0;
    SchedulePlan plan =
        isCalendar ? SchedulePlan( first.c_str(), second.c_str() )
                   : SchedulePlan( first.c_str(), dataPtr[0] / 2, SchedulePlan::anyPeriod );
    require( plan.isValid() || !plan.messages().empty() );
    if ( plan.isValid() )
        requireRisingTimes( &plan, plan.periodInSeconds() );
    return 0;
}
