#include "history.h"

#include <algorithm>

namespace Sensor {

// One look behind the span's begin stays, for the increase over the whole of it.
void History::keep( const Look& look, std::uint64_t distance, std::uint64_t span,
                    std::deque< Look >* looksPtr )
{
    if ( looksPtr->empty() || look.mySeconds >= looksPtr->back().mySeconds + distance )
        looksPtr->push_back( look );
    while ( looksPtr->size() > 1 && ( *looksPtr )[1].mySeconds + span <= look.mySeconds )
        looksPtr->pop_front();
}

void History::add( std::uint64_t seconds, const Counters& counters )
{
    if ( seconds < myLast.mySeconds )
        return;
    myLast = { seconds, counters };
    keep( myLast, 1, minute, &mySeconds );
    keep( myLast, minute, day, &myMinutes );
}

History::Counters History::increase( std::uint64_t span ) const
{
    const std::deque< Look >& looks = span <= minute ? mySeconds : myMinutes;
    Counters result{};
    if ( looks.empty() )
        return result;
    // The newest look that is as old as the span, else the oldest.
    auto iter = std::upper_bound(
        looks.begin(), looks.end(), myLast.mySeconds - std::min( span, myLast.mySeconds ),
        []( std::uint64_t time, const Look& look ) { return time < look.mySeconds; } );
    if ( iter != looks.begin() )
        --iter;
    for ( std::size_t i = 0; i < nbrOfCounters; ++i ) {
        const std::uint64_t now = myLast.myCounters[i];
        result[i] = now - std::min( iter->myCounters[i], now );
    }
    return result;
}

} // namespace Sensor
