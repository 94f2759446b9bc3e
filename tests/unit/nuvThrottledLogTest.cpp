#include "nuvThrottledLog.h"

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"

#include "nuvTestInterprocess.h"

#include <iomanip>
#include <sys/time.h>

namespace {
std::int64_t ourNow = 1000000;
int setTime( timeval* timePtr )
{
    *timePtr = {};
    timePtr->tv_sec = ourNow;
    return 0;
}
} // namespace

extern "C" int __wrap_gettimeofday( timeval* timePtr, void* )
{
    return setTime( timePtr );
}
extern "C" int __wrap___gettimeofday64( timeval* timePtr, void* )
{
    return setTime( timePtr );
}

namespace Nuv::Log {
namespace {

class Throttled : public NuvTest::RootFixture
{
protected:
    Throttled()
    {
        LogAppHelper::zoneFlags( 0, "throttled" );
        LogAppHelper::zoneSeverity( "warning", "throttled" );
    }
    // @return the message of one occurrence at that time; "" if it is suppressed
    std::string occur( std::int64_t time, Severity severity = warning )
    {
        const Capture capture( "throttled" );
        ourNow = time;
        nuvThrottledLogTo( severity, &myEntry ) << "down " << std::hex << ++myNbrOfTexts;
        return capture.messages().empty() ? "" : capture.messages()[0].line;
    }
    static std::string counted( int text, unsigned int count, unsigned int seconds )
    {
        return "down " + std::to_string( text ) +
               "\nMessages, like this one, in the category - linkDown - were logged " +
               std::to_string( count ) + " times in the last " + std::to_string( seconds ) +
               " seconds.";
    }

    SourceSet mySources{ "throttled" };
    ThrottledLogEntry myEntry{ mySources, "linkDown", 60 };
    int myNbrOfTexts = 0;
};

TEST_F( Throttled, OnePerIntervalTellsHowManyThereWere )
{
    EXPECT_EQ( occur( 5000 ), counted( 1, 1, 0 ) );
    for ( const int time : { 5010, 5059 } )
        EXPECT_EQ( occur( time ), "" );
    EXPECT_EQ( occur( 5061 ), counted( 2, 3, 61 ) ); // the two texts were not made
    EXPECT_EQ( occur( 5121, timing ), "" );          // blocked by the zone, and counted
    for ( const int severity : { -1, 0, 6 } )
        EXPECT_EQ( occur( 5122, static_cast< Severity >( severity ) ), "" );
    EXPECT_EQ( myEntry.count(), 4u );
    EXPECT_EQ( occur( 5121, error ), counted( 3, 5, 60 ) );
    EXPECT_EQ( occur( 4000 ), counted( 4, 1, 0 ) ); // the clock was stepped back
    LogAppHelper::zoneSeverity( "debug", "throttled" );
    EXPECT_EQ( occur( 4000 ), "down 5" );
    EXPECT_EQ( occur( 4000, timing ), "down 6" );
    LogAppHelper::zoneSeverity( "warning", "throttled" );
    EXPECT_EQ( occur( 4060 ), counted( 7, 3, 60 ) );
    ThrottleLogHelper suppressed( warning, &myEntry );
    EXPECT_FALSE( suppressed.mayEmit() );
    NuvTest::expectFailure( "myLogStreamPtr != NULL", [&] { suppressed.logStream(); } );
    ThrottledLogEntry longest( mySources, "longest", 0xFFFFFFFF );
    EXPECT_TRUE( ThrottleLogHelper( warning, &longest ).mayEmit() );
}

TEST_F( Throttled, EntriesAreSharedByKeyAndOutliveIt )
{
    ThrottledLogMgr& manager = *ThrottledLogMgr::singletonPtr();
    const auto firstPtr = manager.createThrottledEntry( "key", mySources, "first", 1 );
    EXPECT_EQ( manager.getThrottledEntry( "key" ), firstPtr );
    const auto secondPtr = manager.createThrottledEntry( "key", mySources, "second", 2 );
    EXPECT_EQ( manager.getThrottledEntry( "key" ), secondPtr );
    EXPECT_EQ( firstPtr->category(), "first" );
    manager.deleteThrottledEntry( "key" );
    manager.deleteThrottledEntry( "key" );
    EXPECT_EQ( manager.getThrottledEntry( "key" ), nullptr );
    EXPECT_EQ( secondPtr->intervalInSeconds(), 2u );
}

} // namespace
} // namespace Nuv::Log
