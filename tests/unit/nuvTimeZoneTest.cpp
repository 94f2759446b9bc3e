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
using Result = TimeZone::Result;
constexpr TimeZone::Hint standard = TimeZone::standardTime;
constexpr TimeZone::Hint daylight = TimeZone::daylightSavingTime;
constexpr int hour = 3600;

class Zones : public NuvTest::RootFixture
{
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

TEST_F( Zones, ShowUtcAsLocalTime )
{
    const TimeZone zone = summerZone();
    struct
    {
        std::int64_t utc;
        int offset;
        int isDst;
        const char* abbreviation;
    } const rows[] = {
        { INT_MIN, 2 * hour, 0, "STD" },    { 100 * hour - 1, 2 * hour, 0, "STD" },
        { 100 * hour, 3 * hour, 1, "DST" }, { 200 * hour - 1, 3 * hour, 1, "DST" },
        { 200 * hour, 2 * hour, 0, "STD" }, { INT_MAX, 2 * hour, 0, "STD" }, // no wrap
        { 1LL << 40, 2 * hour, 0, "STD" } };
    for ( const auto& row : rows ) {
        SCOPED_TRACE( row.utc );
        std::string abbreviation;
        int isDst = 7;
        EXPECT_EQ( zone.toLocal( row.utc, &abbreviation, &isDst ), row.utc + row.offset );
        EXPECT_EQ( abbreviation, row.abbreviation );
        EXPECT_EQ( isDst, row.isDst );
        EXPECT_EQ( zone.toLocal( row.utc, nullptr, nullptr ), row.utc + row.offset );
    }
    int index = 7;
    EXPECT_EQ( zone.findTransTimeByUtc( INT_MAX, &index ), TimeZone::outOfRange );
    EXPECT_EQ( zone.findTransTimeByUtc( 100 * hour - 1, &index ), TimeZone::outOfRange );
    EXPECT_EQ( index, 7 );
    EXPECT_EQ( zone.findTransTimeByUtc( INT_MAX - 1, &index ), TimeZone::ok );
    EXPECT_EQ( index, 1 );
}

TEST_F( Zones, ReadLocalTimeByTheHintWhereItIsSkippedOrComesTwice )
{
    const std::string skipped = "TimeZone::Exception( skipped time )  [1,0]";
    const std::string ambiguous = "TimeZone::Exception( ambiguous time )  [2,0]";
    const auto h = []( double hours ) { return std::to_string( std::int64_t( hours * hour ) ); };
    // In two more zones the second change is of the standard offset, and both sides of each change
    // are daylight-saving time.
    const TimeZone moved = zoneOf( { { { 0, 0 }, { 100 * hour, 1 }, { 200 * hour, 0 } },
                                     { { 2 * hour, 0, 0 }, { 3 * hour, 0, 0 } },
                                     "X" } );
    const TimeZone doubled = zoneOf( { { { 0, 0 }, { 100 * hour, 1 }, { 200 * hour, 0 } },
                                       { { 2 * hour, 1, 0 }, { 3 * hour, 1, 0 } },
                                       "X" } );
    const TimeZone summer = zoneOf( { { { 0, 0 }, { 100 * hour, 1 }, { 200 * hour, 0 } },
                                      { { 2 * hour, 0, 0 }, { 3 * hour, 1, 0 } },
                                      "X" } );
    struct
    {
        const char* title;
        const TimeZone& zone;
        double local;
        std::string byStandard;
        std::string byDaylight;
    } const rows[] = {
        { "before", summer, 101.9, h( 99.9 ), h( 99.9 ) },
        { "gap begins", summer, 102, h( 100 ), h( 99 ) },
        { "gap", summer, 102.5, h( 100.5 ), h( 99.5 ) },
        { "gap ends", summer, 103, h( 100 ), h( 100 ) },
        { "overlap begins", summer, 202, h( 200 ), h( 199 ) },
        { "overlap", summer, 202.5, h( 200.5 ), h( 199.5 ) },
        { "overlap ends", summer, 203, h( 201 ), h( 201 ) },
        { "gap of two standard times", moved, 102.5, h( 100.5 ), skipped },
        { "overlap of two standard times: the first type", moved, 202.5, h( 200.5 ), ambiguous },
        { "gap of two daylight times", doubled, 102.5, skipped, h( 100.5 ) },
        { "overlap of two daylight times", doubled, 202.5, ambiguous, h( 200.5 ) },
        // Shown only by the default type, though not before the first transition's seconds.
        { "behind the first transition", summer, 1.5, h( -0.5 ), h( -0.5 ) },
        { "before the first transition", summer, -1, h( -3 ), h( -3 ) },
        { "gap at the first transition", summerZone(), 102.5, skipped, skipped },
    };
    for ( const auto& row : rows ) {
        SCOPED_TRACE( row.title );
        const auto local = static_cast< std::int64_t >( row.local * hour );
        EXPECT_EQ( outcome( row.zone, local, standard ), row.byStandard );
        EXPECT_EQ( outcome( row.zone, local, daylight ), row.byDaylight );
    }
    const TimeZone none( "none", Buffer() );
    std::string abbreviation = "?";
    EXPECT_EQ( none.toUtc( 5, daylight ), 5 );
    EXPECT_EQ( none.toLocal( 5, &abbreviation, nullptr ), 5 );
    EXPECT_EQ( abbreviation, "" );
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
        { with( 28, huge ), "tzfile length inconsistent" },
        { with( 32, huge ), "tzfile length inconsistent" },
        { with( 52, "\x02" ), "tzfile type index inconsistent" },
        { with( 52, "\xff" ), "tzfile type index inconsistent" },
        { with( 44, huge ), "tzfile transition times not ascending" } };
    Log::ConfigManager::singletonPtr()->openZone( "Nuv" );
    for ( const auto& [bytes, fault] : rows ) {
        SCOPED_TRACE( fault );
        const Log::Capture capture;
        const TimeZone zone( "made", Buffer( bytes ) );
        ASSERT_EQ( capture.messages().size(), 1u );
        EXPECT_EQ( capture.messages()[0].severity, Log::error );
        EXPECT_TRUE( capture.contains( fault ) && capture.contains( "made" ) );
        EXPECT_FALSE( zone.hasData() );
        EXPECT_EQ( zone.toLocal( 5, nullptr, nullptr ), 5 );
    }
    const Log::Capture capture;
    EXPECT_FALSE( TimeZone( "No/Such" ).hasData() );
    EXPECT_TRUE( capture.contains( "errSystemError" ) && capture.contains( "No/Such" ) );
}

TEST_F( Zones, ASlimFileIsNotUtcWithoutAWord )
{
    const ZoneBytes empty = { {}, { { 0, 0, 0 } }, std::string( 1, '\0' ) };
    const ZoneBytes full = { { { 0, 0 } }, { { 60, 0, 0 } }, "X" };
    const ZoneBytes fixed = { {}, { { 60, 0, 0 } }, "X" };
    const std::pair< std::string, bool > rows[] = {
        { empty.str() + full.str( 8 ), true },
        { empty.str() + fixed.str( 8 ), true },
        { empty.str() + empty.str( 8 ), false }, // it is UTC
        { full.str() + full.str( 8 ), false },
        { fixed.str() + full.str( 8 ), false },
        { empty.str() + full.str( 8 ).substr( 0, 50 ), false },
        { empty.str(), false } };
    Log::ConfigManager::singletonPtr()->openZone( "Nuv" );
    for ( const auto& [bytes, isSlim] : rows ) {
        const Log::Capture capture;
        const TimeZone zone( "Made/Slim", Buffer( bytes ) );
        EXPECT_EQ( zone.isSlim(), isSlim );
        EXPECT_EQ( capture.messages().size(), isSlim ? 1 : 0 );
        EXPECT_EQ( capture.contains( "/usr/share/zoneinfo/Made/Slim" ), isSlim );
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
    EXPECT_EQ( zone.transitionTimes(), ( std::vector< std::int32_t >{ 0, 9, INT_MAX } ) );
    EXPECT_EQ( zone.transitionTimeType( 1 ), 0 );
    EXPECT_EQ( zone.defaultType(), 1 );
    TimeZone::LocalTimeInfo info;
    zone.getLocalTimeInfo( 1, &info );
    EXPECT_EQ( info.abbreviationIndex, 200 );
    EXPECT_STREQ( zone.abbrevCstr( 0 ), "C" ); // no NUL behind it in the file
    EXPECT_STREQ( zone.abbrevCstr( 1 ), "" );
    EXPECT_STREQ( zone.abbrevOffsetCstr( 1 ), "BC" );
    TimeZone::LeapSecondInfo leap;
    zone.getLeapSecondInfo( 0, &leap );
    EXPECT_EQ( leap.transitionTime, 77 );
    for ( const int type : { -1, 0, 1, 2 } ) {
        EXPECT_EQ( zone.ttisStd( type ), type == 0 );
        EXPECT_EQ( zone.ttisGmt( type ), type == 1 );
    }
    for ( const int i : { -1, 3 } ) {
        using NuvTest::expectFailure;
        expectFailure( "0 <= ttIdx && ttIdx < myTimeCnt", [&] { zone.transitionTimeType( i ); } );
        expectFailure( "0 <= lttIdx && lttIdx < myTypeCnt",
                       [&] { zone.getLocalTimeInfo( i, &info ); } );
        expectFailure( "0 <= ccIdx && ccIdx < myTypeCnt", [&] { zone.abbrevCstr( i ); } );
        expectFailure( "0 <= ofs && ofs < myCharCnt", [&] { zone.abbrevOffsetCstr( i ); } );
        expectFailure( "0 <= leapIdx && leapIdx < myLeapCnt",
                       [&] { zone.getLeapSecondInfo( i, &leap ); } );
    }
    Log::ConfigManager::singletonPtr()->openZone( "Nuv" );
    Log::LogAppHelper::zoneSeverity( "debug", "Nuv" );
    Log::LogAppHelper::zoneFlags( 0, "Nuv" );
    const Log::Capture capture;
    zone.dump();
    std::string lines;
    for ( const Log::Capture::Message& message : capture.messages() )
        lines += message.line + "\n";
    EXPECT_EQ( lines, "transTime 0: 0, 1\ntransTime 1: 9, 0\ntransTime 2: 2147483647\n"
                      "local time type 0: utcOffsetInSeconds 60, isDst 1, abbrev C\n"
                      "local time type 1: utcOffsetInSeconds 120, isDst 0, abbrev \n"
                      "leap second instance 0: transition time 77, total correction 1\n"
                      "for type 0, transition time is standard: true\n"
                      "for type 1, transition time is standard: false\n"
                      "for type 0, transition time is UTC: false\n"
                      "for type 1, transition time is UTC: true\n" );
    Log::LogAppHelper::zoneSeverity( "warning", "Nuv" );
}

TEST_F( Zones, AreNamedByTheFirstZoneLineOfTheClockFile )
{
    const std::string path = root( "clock" );
    const std::tuple< const char*, bool, const char* > rows[] = {
        { "UTC=true\nZONE=\"Europe/Berlin\"\nZONE=\"Asia/Tokyo\"\n", true, "Europe/Berlin" },
        { "ZONE=Asia/Tokyo\n", true, "Asia/Tokyo" },
        { "ZONE=Asia/Tokyo", true, "Asia/Tokyo" },
        { "ZONE=\"\"\n", true, "" },
        { "ZONE= a b\"c\n", true, " a b" },
        { " ZONE=\"Asia/Tokyo\"\nZONE =x\nzone=x\nZONE\n", false, "nuvsZoneInfo" },
        { "", false, "nuvsZoneInfo" } };
    for ( const auto& [text, isNamed, expected] : rows ) {
        NuvTest::writeFile( path, text );
        std::string name = "?";
        EXPECT_EQ( TimeZone::getCurrentTzName( &name, path.c_str() ), isNamed ) << text;
        EXPECT_EQ( name, expected );
    }
    std::string name;
    EXPECT_FALSE( TimeZone::getCurrentTzName( &name, root( "none" ).c_str() ) );
    EXPECT_EQ( name, TimeZone::ourDefaultName );
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

std::tm at( int year, int month, int day, int hours = 0, int minutes = 0 )
{
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hours;
    fields.tm_min = minutes;
    return fields;
}

TEST( TimeByCalendar, ReadsFieldsAndStaysInItsRange )
{
    const std::pair< std::tm, std::uint64_t > rows[] = {
        { at( 1970, 1, 1 ), 0 },
        { at( 1969, 12, 31 ), 0 },
        { at( 2040, 1, 1 ), 2208988800u * Time::nsPerSec }, // beyond 32 bits
        { at( 2600, 1, 1 ), UINT64_MAX } };
    for ( const auto& [fields, ns] : rows )
        EXPECT_EQ( Time( fields ).ns(), ns );
    const TimeZone zone = summerZone();
    EXPECT_EQ( Time( at( 1970, 1, 2 ), zone ).seconds(), 22 * hour );
    EXPECT_EQ( Time( at( 1970, 1, 9, 10, 30 ), zone ).seconds(), 200.5 * hour ); // the second one
    EXPECT_EQ( Time( at( 1970, 1, 1, 1 ), zone ).ns(), 0u );
}

TEST( TimeByCalendar, WritesTheZoneAndGrowsForLongTexts )
{
    const TimeZone odd = zoneOf( { {}, { { -( 5 * hour + 30 * 60 ), 0, 0 } }, "%d" } );
    const TimeZone zone = summerZone();
    const std::string wide( 3000, 'x' );
    struct
    {
        std::uint64_t seconds;
        const TimeZone* zonePtr;
        std::string format;
        std::string text;
    } const rows[] = { { 0, nullptr, "%Y-%m-%d %H:%M:%S %Z %z", "1970-01-01 00:00:00 UTC +0000" },
                       { 100 * hour, &zone, "%H:%M %Z %z", "07:00 DST +0300" },
                       { 0, &odd, "%H %Z %z", "18 %d -0530" },
                       { 0, nullptr, "%%Z %%z %", "%Z %z %" },
                       { 0, nullptr, "", "" },
                       { 0, nullptr, "%p" + wide, "AM" + wide },
                       { 0, nullptr, "%400Y", std::string( 396, '0' ) + "1970" },
                       { 0, nullptr, "%9999999Y", "" },
                       { 18446744073, nullptr, "%Y", "2554" },
                       { 18446744073, &zone, "%H:%M", "01:34" } };
    for ( const auto& row : rows ) {
        const Time time( row.seconds * Time::nsPerSec );
        EXPECT_EQ( row.zonePtr != nullptr ? time.asString( row.format, *row.zonePtr )
                                          : time.asString( row.format ),
                   row.text );
    }
}

} // namespace
} // namespace Nuv::Utils
