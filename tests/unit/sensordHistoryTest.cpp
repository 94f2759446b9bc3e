#include "history.h"

#include <gtest/gtest.h>

namespace Sensor {

TEST( SensordHistory, IncreaseIsThatOfTheSpanOrOfWhatIsKnown )
{
    History history;
    EXPECT_EQ( history.increase( History::minute )[0], 0u );
    constexpr std::uint64_t begin = 1000000;
    constexpr std::uint64_t end = begin + 2 * History::day;
    for ( std::uint64_t time = begin; time <= end; ++time ) {
        history.add( time, { time, 2 * time } );
        if ( time == begin + 10 ) {
            EXPECT_EQ( history.increase( History::minute )[0], 10u );
        }
    }
    EXPECT_EQ( history.increase( History::minute )[0], History::minute );
    EXPECT_EQ( history.increase( History::minute )[1], 2 * History::minute );
    for ( const std::uint64_t span : { 60 * History::minute, History::day } ) {
        EXPECT_GE( history.increase( span )[0], span );
        EXPECT_LT( history.increase( span )[0], span + History::minute );
    }
    history.add( end - 1, { 0 } ); // the clock went back: ignored
    EXPECT_EQ( history.increase( History::minute )[0], History::minute );
    history.add( end + 1, { 5 } ); // the counter was reset
    EXPECT_EQ( history.increase( History::day )[0], 0u );
}

} // namespace Sensor
