#include "nuvTimeZone.h"

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"

#include "nuvTestInterprocess.h"
#include "nuvZoneBytes.h"

#include <climits>
#include <string_view>

namespace Nuv::Utils {
namespace {

using NuvTest::ZoneBytes;
constexpr int hour = 3600;

class Zones : public NuvTest::RootFixture
{
protected:
    void SetUp() override { Log::ConfigManager::singletonPtr()->openZone( "Nuv" ); }
};

TimeZone zoneOf( const ZoneBytes& bytes )
{
    return TimeZone( "made", Buffer( bytes.str() ) );
}

// Two hours east of UTC, an hour more from 100 h to 200 h, then back; type 0 before.
TimeZone summerZone()
{
    return zoneOf( { { { 100 * hour, 1 }, { 200 * hour, 0 } },
                     { { 2 * hour, 0, 0 }, { 3 * hour, 1, 4 } },
                     std::string( "STD\0DST", 8 ) } );
}

std::string outcome( const TimeZone& zone, std::int64_t local, TimeZone::Hint hint )
{
    try {
        return std::to_string( zone.toUtc( local, hint ) );
    } catch ( const TimeZone::Exception& exception ) {
        return exception.what();
    }
}

TEST_F( Zones, ReadLocalTimeByTheHintWhereItIsSkippedOrComesTwice )
{
    const std::string skipped = "TimeZone::Exception( skipped time )  [1,0]";
    const std::string ambiguous = "TimeZone::Exception( ambiguous time )  [2,0]";
    const auto h = []( double hours ) { return std::to_string( std::int64_t( hours * hour ) ); };
    const auto made = []( int isDstBefore, int isDstBehind ) {
        return zoneOf( { { { 0, 0 }, { 100 * hour, 1 }, { 200 * hour, 0 } },
                         { { 2 * hour, isDstBefore, 0 }, { 3 * hour, isDstBehind, 0 } },
                         "X" } );
    };
    const TimeZone summer = made( 0, 1 ), moved = made( 0, 0 ), doubled = made( 1, 1 ),
                   early = summerZone();
    const std::tuple< const TimeZone&, double, std::string, std::string > rows[] = {
        { summer, 102, h( 100 ), h( 99 ) }, // the gap begins
        { summer, 103, h( 100 ), h( 100 ) },
        { summer, 202, h( 200 ), h( 199 ) }, // the overlap begins
        { moved, 102.5, h( 100.5 ), skipped },
        { moved, 202.5, h( 200.5 ), ambiguous },
        { doubled, 102.5, skipped, h( 100.5 ) },
        { doubled, 202.5, ambiguous, h( 200.5 ) },
        // Shown only by the default type, though not before the first transition's seconds.
        { summer, 1.5, h( -0.5 ), h( -0.5 ) },
        { summer, -1, h( -3 ), h( -3 ) },
        { early, 102.5, skipped, skipped }, // at the first transition
    };
    for ( const auto& [zone, hours, byStandard, byDaylight] : rows ) {
        const auto local = static_cast< std::int64_t >( hours * hour );
        EXPECT_EQ( outcome( zone, local, TimeZone::standardTime ), byStandard ) << hours;
        EXPECT_EQ( outcome( zone, local, TimeZone::daylightSavingTime ), byDaylight ) << hours;
    }
    EXPECT_EQ( outcome( TimeZone( "none", Buffer() ), 5, TimeZone::standardTime ), "5" );
}

TEST_F( Zones, BadFilesAreLoggedAndGiveUtc )
{
    const ZoneBytes sound = { { { 0, 1 }, { 9, 0 } }, { { 60, 1, 0 }, { 120, 0, 0 } }, "X" };
    const auto with = [&]( std::size_t at, std::string_view bytes ) {
        std::string text = sound.str();
        return text.replace( at, bytes.size(), bytes );
    };
    constexpr std::string_view minusOne( "\xff\xff\xff\xff", 4 );
    constexpr std::string_view huge( "\x7f\xff\xff\xff", 4 );
    const std::pair< std::string, const char* > rows[] = {
        { std::string( 43, 'T' ), "tzfile header too short" },
        { with( 0, "TZiX" ), "tzfile signature incorrect" },
        { sound.str().substr( 0, sound.str().size() - 1 ), "tzfile length inconsistent" },
        { with( 20, minusOne ), "tzfile length inconsistent" },
        { with( 32, huge ), "tzfile length inconsistent" },
        { with( 52, "\xff" ), "tzfile type index inconsistent" },
        { with( 44, huge ), "tzfile transition times not ascending" } };
    for ( const auto& [bytes, fault] : rows ) {
        SCOPED_TRACE( fault );
        const Log::Capture capture;
        const TimeZone zone( "made", Buffer( bytes ) );
        ASSERT_EQ( capture.messages().size(), 1u );
        EXPECT_EQ( capture.messages()[0].severity, Log::error );
        EXPECT_TRUE( capture.contains( fault ) && !zone.hasData() );
    }
    const Log::Capture capture;
    EXPECT_FALSE( TimeZone( "No/Such" ).hasData() );
    EXPECT_TRUE( capture.contains( "errSystemError" ) && capture.contains( "No/Such" ) );
    NuvTest::writeFile( root( "empty" ), "" );
    EXPECT_FALSE( TimeZone( "../../.." + root( "empty" ) ).hasData() );
    EXPECT_TRUE( capture.contains( "tzfile header too short" ) );
}

TEST_F( Zones, ASlimFileIsNotUtcWithoutAWord )
{
    const ZoneBytes empty = { {}, { { 0, 0, 0 } }, std::string( 1, '\0' ) };
    const ZoneBytes full = { { { 0, 0 } }, { { 60, 0, 0 } }, "X" };
    const ZoneBytes fixed = { {}, { { 60, 0, 0 } }, "X" };
    const std::pair< std::string, bool > rows[] = { { empty.str() + full.str( 8 ), true },
                                                    { empty.str() + fixed.str( 8 ), true },
                                                    { empty.str() + empty.str( 8 ), false },
                                                    { fixed.str() + full.str( 8 ), false },
                                                    { empty.str(), false } };
    for ( const auto& [bytes, isSlim] : rows ) {
        const Log::Capture capture;
        EXPECT_EQ( TimeZone( "Made/Slim", Buffer( bytes ) ).isSlim(), isSlim );
        EXPECT_EQ( capture.contains( "/usr/share/zoneinfo/Made/Slim" ), isSlim );
        EXPECT_EQ( capture.messages().size(), isSlim ? 1 : 0 );
    }
}

TEST_F( Zones, GiveTheirTablesWithinTheirLimits )
{
    const TimeZone zone = zoneOf( { { { 0, 1 }, { 9, 0 } },
                                    { { 60, 1, 2 }, { 120, 0, 200 } },
                                    "ABC",
                                    { { 77, 1 } },
                                    std::string( "\1\0", 2 ),
                                    std::string( "\0\5", 2 ) } );
    EXPECT_STREQ( zone.abbrevOffsetCstr( 1 ), "BC" ); // no NUL behind it in the file
    EXPECT_FALSE( zone.ttisStd( -1 ) || zone.ttisGmt( 2 ) );
    EXPECT_THROW( zone.abbrevCstr( 2 ), LogicException );
    EXPECT_THROW( zone.transitionTimeType( -1 ), LogicException );
}

TEST_F( Zones, AreNamedByTheFirstZoneLineOfTheClockFile )
{
    const std::string path = root( "clock" );
    const std::tuple< const char*, bool, const char* > rows[] = {
        { "UTC=true\nZONE=\"Europe/Berlin\"\nZONE=\"Asia/Tokyo\"\n", true, "Europe/Berlin" },
        { "ZONE=Asia/Tokyo", true, "Asia/Tokyo" },
        { "ZONE= a b\"c\n", true, " a b" },
        { " ZONE=\"Asia/Tokyo\"\nZONE =x\nzone=x\nZONE\n", false, "nuvsZoneInfo" },
        { "", false, "nuvsZoneInfo" } };
    for ( const auto& [text, isNamed, expected] : rows ) {
        NuvTest::writeFile( path, text );
        std::string name = "?";
        EXPECT_EQ( TimeZone::getCurrentTzName( &name, path.c_str() ), isNamed ) << text;
        EXPECT_EQ( name, expected );
    }
}

TEST( Calendar, CountsAsTheCLibraryDoes )
{
    std::int64_t seconds = -62135596800 - 7; // before year 1
    for ( int i = 0; i < 20000; ++i, seconds += 86400 * 200 + 12345 ) {
        const std::time_t time = seconds;
        std::tm theirs{};
        std::tm ours{};
        ::gmtime_r( &time, &theirs );
        TimeZone::decodeTime( &ours, seconds );
        const auto fields = []( const std::tm& t ) {
            return std::vector< int >{ t.tm_year, t.tm_mon,  t.tm_mday, t.tm_hour, t.tm_min,
                                       t.tm_sec,  t.tm_wday, t.tm_yday, t.tm_isdst };
        };
        ASSERT_EQ( fields( ours ), fields( theirs ) ) << seconds;
        ASSERT_EQ( TimeZone::timeCode64( ours ), seconds );
        ASSERT_EQ( TimeZone::timeCode( ours ), static_cast< std::int32_t >( seconds ) );
        // Fields that are not normal.
        ours.tm_mon += i % 100 - 50;
        ours.tm_mday += i % 77 - 30;
        ours.tm_sec += i;
        std::tm copy = ours;
        ASSERT_EQ( TimeZone::timeCode64( ours ), ::timegm( &copy ) );
    }
    std::tm fields;
    EXPECT_THROW( TimeZone::decodeTime( &fields, INT64_MAX ), LogicException );
    EXPECT_THROW( TimeZone::decodeTime( &fields, INT64_MIN ), LogicException );
}

TEST( TimeByCalendar, ReadsFieldsAndStaysInItsRange )
{
    const auto at = []( int year, int month, int day, int minutes = 0 ) {
        std::tm fields{};
        fields.tm_year = year - 1900;
        fields.tm_mon = month - 1;
        fields.tm_mday = day;
        fields.tm_min = minutes;
        return fields;
    };
    EXPECT_EQ( Time( at( 1969, 12, 31 ) ).ns(), 0u );
    EXPECT_EQ( Time( at( 2040, 1, 1 ) ).seconds(), 2208988800u ); // beyond 32 bits
    EXPECT_EQ( Time( at( 2600, 1, 1 ) ).ns(), UINT64_MAX );
    const TimeZone zone = summerZone();
    EXPECT_EQ( Time( at( 1970, 1, 9, 630 ), zone ).seconds(), 200.5 * hour ); // the second one
    EXPECT_EQ( Time( at( 1970, 1, 1, 60 ), zone ).ns(), 0u );
}

TEST( TimeByCalendar, WritesTheZoneAndGrowsForLongTexts )
{
    const TimeZone odd = zoneOf( { {}, { { -( 5 * hour + 30 * 60 ), 0, 0 } }, "%d" } );
    const TimeZone zone = summerZone();
    const std::string wide( 3000, 'x' );
    const std::tuple< std::uint64_t, const TimeZone*, std::string, std::string > rows[] = {
        { 0, nullptr, "%Y-%m-%d %H:%M:%S %Z %z", "1970-01-01 00:00:00 UTC +0000" },
        { 100 * hour, &zone, "%H:%M %Z %z", "07:00 DST +0300" },
        { 0, &odd, "%H %Z %z", "18 %d -0530" },
        { 0, nullptr, "%%Z %%z %", "%Z %z %" },
        { 0, nullptr, "%p" + wide, "AM" + wide },
        { 0, nullptr, "%400Y", std::string( 396, '0' ) + "1970" },
        { 0, nullptr, "%9999999Y", "" },
        { 18446744073, &zone, "%Y %H:%M", "2554 01:34" } };
    for ( const auto& [seconds, zonePtr, format, text] : rows ) {
        const Time time( seconds * Time::nsPerSec );
        EXPECT_EQ( zonePtr != nullptr ? time.asString( format, *zonePtr ) : time.asString( format ),
                   text );
    }
}

} // namespace
} // namespace Nuv::Utils
