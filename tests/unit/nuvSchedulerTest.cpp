#include "nuvScheduler.h"

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"

#include "nuvMovedTimers.h"
#include "nuvZoneBytes.h"

#include <climits>
#include <memory>
#include <stdexcept>

namespace Nuv::Utils {
namespace {

using NuvTest::ZoneBytes;
constexpr auto setAnew = SchedulePlan::setAnew;
constexpr auto afterCallback = SchedulePlan::afterCallback;
constexpr auto anyPeriod = SchedulePlan::anyPeriod;
constexpr auto aligned = SchedulePlan::alignedPeriod;

// An hour east of UTC, two from Sunday 03-29 to Sunday 10-25 of 1970, each from 01:00 UTC on.
// @param winterIsDst as some zones have it: the summer is their standard time
TimeZone summerZone( bool winterIsDst = false )
{
    const auto bytes = ZoneBytes{ { { INT_MIN, 0 }, { 7520400, 1 }, { 25664400, 0 } },
                                  { { 3600, winterIsDst, 0 }, { 7200, !winterIsDst, 2 } },
                                  std::string( "W\0S", 4 ) };
    return TimeZone( "summer", Buffer( bytes.str() ) );
}

std::int64_t utc( const std::string& text )
{
    std::tm fields{};
    EXPECT_NE( ::strptime( ( "1970-" + text ).c_str(), "%Y-%m-%d %H:%M", &fields ), nullptr );
    return TimeZone::timeCode64( fields );
}

std::string text( std::int64_t seconds, const TimeZone& zone )
{
    return Time( static_cast< std::uint64_t >( seconds ) * Time::nsPerSec )
        .asString( "%m-%d %H:%M %Z", zone );
}

TEST( SchedulePlanTimes, ComeAsTheOperatorExpects )
{
    struct
    {
        const char* title;
        SchedulePlan plan;
        const char* now; // UTC
        const char* expected;
        bool winterIsDst = false;
    } rows[] = {
        { "days and hours", SchedulePlan( "Mon|friday", "20:30:0|8:00:00" ), "01-01 00:00",
          "01-02 08:00 W, 01-02 20:30 W, 01-05 08:00 W, 01-05 20:30 W" },
        { "strictly later", SchedulePlan( "Fri", "8:00:00" ), "01-02 07:00",
          "01-09 08:00 W, 01-16 08:00 W, 01-23 08:00 W, 01-30 08:00 W" },
        { "skipped hour", SchedulePlan( "Sat|Sun", "2:30:00" ), "03-28 12:00",
          "03-29 03:30 S, 04-04 02:30 S, 04-05 02:30 S, 04-11 02:30 S" },
        { "hour that comes twice", SchedulePlan( "Sun", "1:59:59|2:30:00|3:0:0" ), "10-24 12:00",
          "10-25 01:59 S, 10-25 02:30 W, 10-25 03:00 W, 11-01 01:59 W" },
        { "the first one is standard time", SchedulePlan( "Sun", "2:30:00" ), "10-25 00:00",
          "10-25 02:30 S, 11-01 02:30 W, 11-08 02:30 W, 11-15 02:30 W", true },
        { "five seconds", SchedulePlan( "Fri", "8:00:00|8:00:04|8:00:09" ), "01-02 06:00",
          "01-02 08:00 W, 01-02 08:00 W, 01-09 08:00 W, 01-09 08:00 W" },
        { "every hour, one skipped", SchedulePlan( "0:00:00", 1, aligned ), "03-28 22:30",
          "03-29 00:00 W, 03-29 01:00 W, 03-29 03:00 S, 03-29 04:00 S" },
        { "every hour, one twice", SchedulePlan( "1:00:00", 1, aligned ), "10-24 22:30",
          "10-25 01:00 S, 10-25 02:00 W, 10-25 03:00 W, 10-25 04:00 W" },
        { "every two days", SchedulePlan( "03:30:00", 48, aligned ), "03-28 12:00",
          "03-29 03:30 S, 03-31 03:30 S, 04-02 03:30 S, 04-04 03:30 S" },
        { "every five hours", SchedulePlan( "23:00:00", 5, anyPeriod ), "01-01 22:00",
          "01-02 23:00 W, 01-03 04:00 W, 01-03 09:00 W, 01-03 14:00 W" },
    };
    for ( auto& row : rows ) {
        SCOPED_TRACE( row.title );
        ASSERT_TRUE( row.plan.isValid() );
        const TimeZone zone = summerZone( row.winterIsDst );
        std::int64_t now = utc( row.now );
        std::string times;
        for ( int i = 0; i < 4; ++i ) {
            const std::int64_t next = row.plan.next( now, zone, i == 0 ? setAnew : afterCallback );
            ASSERT_GT( next, now );
            times += ( i == 0 ? "" : ", " ) + text( next, zone );
            row.plan.lastCallback(
                Time( static_cast< std::uint64_t >( now = next ) * Time::nsPerSec ) );
        }
        EXPECT_EQ( times, row.expected );
    }
}

TEST( SchedulePlanTexts, ThatAreNoPlanSaySo )
{
    const std::string calendar = "Scheduler::Scheduler( Calendar ) ";
    const std::string periodic = "Scheduler::Scheduler(periodic) ";
    const char* const good = "8:00:00";
    const std::pair< SchedulePlan, std::string > rows[] = {
        { { nullptr, good }, calendar + " invalid days or hours (NULL)" },
        { { "|Mon", good }, calendar + "invalid days format - leading separator" },
        { { "Mon||Tue", good }, calendar + "invalid days format - too many separators" },
        { { "Mon Tue", good }, calendar + " invalid days format - no regex match" },
        { { "Mon|Mon|Monday", good },
          calendar + " invalid conversion error days [Mon|Mon|Monday]" },
        { { "Mon|monday", good }, calendar + " invalid duplicate days [Mon|monday]" },
        { { "Mon", "|" }, calendar + "invalid hours format - leading separator" },
        { { "Monday", "8:00" }, calendar + " invalid hours format" }, // forms come first
        { { "Mon", "24:00:00" }, calendar + " invalid hours conversion error [24:00:00]" },
        { { "Mon", "8:0:0|08:00:00" }, calendar + " invalid duplicate hours [8:0:0|08:00:00]" },
        { { good, 169, anyPeriod }, periodic + " invalid hourPeriod [169]" },
        { { good, 5, aligned }, periodic + " invalid hourPeriod [5]" },
        { { nullptr, 5, anyPeriod }, periodic + " invalid start time (NULL)" },
        { { "8:0:x", 5, anyPeriod }, periodic + " invalid timeStr [8:0:x] startTimeCStr [8:0:x]" },
        { { "8:60:0", 5, anyPeriod },
          periodic + " invalid timeStr [8:60:0] startTimeCStr [8:60:0]" } };
    for ( const auto& [plan, fault] : rows ) {
        EXPECT_FALSE( plan.isValid() ) << fault;
        EXPECT_EQ( plan.messages().back().myText, fault );
    }
    for ( const char* const text : { "1:2", "1:2:3:4", "x:2:3", "1:-2:3", "99999999999:0:0", "" } )
        EXPECT_EQ( Scheduler::convertTimeStr( text ), -1 ) << text;
    EXPECT_EQ( Scheduler::convertTimeStr( "23:59:08" ), 86348 );
}

// Both clocks of schedulers, which run together unless a test steps the wall clock.
class Schedulers : public NuvTest::MovedTimers, public ScheduleClock
{
protected:
    Schedulers()
    {
        substitute( this );
        Log::ConfigManager::singletonPtr()->openZone( "sched" );
    }
    ~Schedulers() override { substitute( nullptr ); }

    Time now() const override
    {
        return Time( static_cast< std::uint64_t >( myNow.load() ) * Time::nsPerSec );
    }
    TimeZone zone() const override { return summerZone(); }
    void passSeconds( int seconds, int maxStep = 30 )
    {
        for ( int step = 0; seconds > 0; seconds -= step ) {
            step = std::min( seconds, maxStep );
            myNow += step;
            pass( static_cast< std::uint32_t >( step ) * 1000 );
        }
    }
    std::string next( const Scheduler& scheduler ) const
    {
        return text( scheduler.getNextCallback(), zone() );
    }

    const Scheduler::Callback myCounting = [this]( Scheduler* ) { return ++myCount; };
    std::atomic< std::int64_t > myNow = utc( "01-08 12:00" ); // 13:00 local, Thursday
    std::atomic< int > myCount = 0;
};

TEST_F( Schedulers, CallAtTheirTimesUntilTheyAreDisabled )
{
    Scheduler scheduler( myCounting, "Thu", "13:01:00|13:02:00", "shift" );
    for ( const int count : { 0, 1, 1, 2 } ) {
        passSeconds( 30 );
        EXPECT_EQ( myCount, count );
    }
    EXPECT_EQ( scheduler.showSchedule(),
               "Calendar schedule: days [Thu] hours [13:01:00|13:02:00].\n"
               "  The last scheduled callback was at [13:02:00 W Thu Jan 08 1970].\n"
               "  The next scheduled callback will be at [13:01:00 W Thu Jan 15 1970]." );
    scheduler.enable( false );
    EXPECT_EQ( scheduler.getNextCallback(), 0 );
    scheduler.enable( true );
    EXPECT_EQ( next( scheduler ), "01-15 13:01 W" );
}

TEST_F( Schedulers, FollowStepsOfTheClockInBothDirections )
{
    const Scheduler scheduler( myCounting, "Thu|Fri", "13:30:00" );
    Log::LogAppHelper::zoneSeverity( "debug", "sched" );
    // The first is tolerated.
    const std::pair< int, const char* > steps[] = { { 60, "01-08 13:30 W" },
                                                    { 1, "01-08 13:30 W" },
                                                    { 3600, "01-09 13:30 W" },
                                                    { -86400, "01-08 13:30 W" } };
    for ( const auto& [step, expected] : steps ) {
        const Log::Capture capture( "sched" );
        myNow += step;
        passSeconds( 30 );
        EXPECT_EQ( next( scheduler ), expected ) << step;
        EXPECT_EQ( capture.contains( "calling setTimer() for schedule [defaultName] now [" ),
                   step != 60 );
    }
    EXPECT_EQ( myCount, 0 );
}

TEST_F( Schedulers, APeriodicOneWaitsForAPeriodOnceThenKeepsItsGrid )
{
    const Scheduler scheduler( myCounting, "13:10:00", 1, aligned );
    EXPECT_EQ( next( scheduler ), "01-08 13:10 W" );
    passSeconds( 30 ); // the watch pushes
    EXPECT_EQ( next( scheduler ), "01-09 13:10 W" );
    passSeconds( 3600 * 24 + 540, 900 ); // and does not push again
    EXPECT_EQ( myCount, 0 );
    passSeconds( 30 );
    EXPECT_EQ( myCount, 1 );
    EXPECT_EQ( next( scheduler ), "01-09 14:10 W" );
    SchedulerManager::singletonPtr()->setAllTimers();
    EXPECT_EQ( next( scheduler ), "01-10 13:10 W" );
}

TEST_F( Schedulers, GoOnAfterWhatACallbackThrowsAndEndWhenItDestroysThem )
{
    const auto fail = [this]( Scheduler* ) -> int {
        throw std::runtime_error( std::to_string( ++myCount ) );
    };
    const Scheduler throwing( fail, "Thu", "13:01:00|13:02:00" );
    std::unique_ptr< Scheduler > suicidalPtr;
    const auto destroy = [&]( Scheduler* ) { return suicidalPtr.reset(), ++myCount; };
    suicidalPtr = std::make_unique< Scheduler >( destroy, "Thu", "13:01:30" );
    const Log::Capture capture;
    passSeconds( 120 );
    EXPECT_EQ( myCount, 3 );
    EXPECT_EQ( suicidalPtr, nullptr );
    EXPECT_TRUE(
        capture.contains( "errSystemError scheduler callback catch(STL runtime error) 3" ) );
}

} // namespace
} // namespace Nuv::Utils
