#include "nuvTimeZone.h"

#include "nuvTestSupport.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>

namespace Nuv::Utils {
namespace {

// Where the C library keeps leap seconds, which this library does not count.
constexpr const char* leapSecondFolder = "right/";

std::vector< std::string > zoneNames()
{
    std::vector< std::string > names;
    const std::string base = TimeZone::basePath().str();
    for ( const auto& entry : std::filesystem::recursive_directory_iterator( base ) ) {
        const std::string name = entry.path().string().substr( base.size() + 1 );
        if ( entry.is_regular_file() && !name.starts_with( leapSecondFolder ) &&
             NuvTest::readFile( entry.path().string() ).starts_with( "TZif" ) )
            names.push_back( name );
    }
    return names;
}

// 1902 to 2037, and every transition with what surrounds it.
std::vector< std::int64_t > samples( const TimeZone& zone )
{
    std::vector< std::int64_t > result;
    for ( std::int64_t time = -2145916800; time < 2145916800; time += 37 * 86400 + 4567 )
        result.push_back( time );
    for ( const std::int64_t time : zone.transitionTimes() ) {
        for ( const int step : { -86400, -3601, -1, 0, 1, 1800, 7199 } ) {
            if ( time + step >= -2145916800 && time + step < 2145916800 )
                result.push_back( time + step );
        }
    }
    return result;
}

std::tm theirLocal( std::int64_t utc )
{
    const auto time = static_cast< std::time_t >( utc );
    std::tm fields{};
    ::localtime_r( &time, &fields );
    return fields;
}

// A local time that comes twice in one kind of time may be either: theirs must show it so too.
void expectTheWayBack( const TimeZone& zone, std::int64_t utc, std::int64_t local, int isDst )
{
    // Within an offset of the first transition the default type reads local times, not theirs.
    if ( std::abs( utc - zone.transitionTimes().front() ) < 86400 )
        return;
    const std::int64_t back = zone.toUtc( local, static_cast< TimeZone::Hint >( isDst ) );
    if ( back == utc )
        return;
    const std::tm theirs = theirLocal( back );
    EXPECT_TRUE( TimeZone::timeCode64( theirs ) == local && ( theirs.tm_isdst > 0 ) == isDst )
        << utc << " comes back as " << back;
}

TEST( TimeZonePeer, TheCLibraryShowsTheSameTimesInEveryZone )
{
    if ( !std::filesystem::is_directory( "/usr/share/zoneinfo" ) )
        GTEST_SKIP() << "there are no zone files (package tzdata)";
    bool isAnyCompared = false;
    for ( const std::string& name : zoneNames() ) {
        SCOPED_TRACE( name );
        const TimeZone zone( name );
        ASSERT_TRUE( zone.hasData() );
        if ( zone.isSlim() )
            continue;
        isAnyCompared = true;
        ::setenv( "TZ", ( ":/usr/share/zoneinfo/" + name ).c_str(), 1 );
        ::tzset();
        for ( const std::int64_t utc : samples( zone ) ) {
            std::string abbreviation;
            int isDst = 0;
            const std::int64_t local = zone.toLocal( utc, &abbreviation, &isDst );
            const std::tm theirs = theirLocal( utc );
            ASSERT_EQ( local, utc + theirs.tm_gmtoff ) << utc;
            ASSERT_EQ( isDst, theirs.tm_isdst ) << utc;
            ASSERT_EQ( abbreviation, theirs.tm_zone ) << utc;
            expectTheWayBack( zone, utc, local, isDst );
        }
    }
    EXPECT_TRUE( isAnyCompared );
}

} // namespace
} // namespace Nuv::Utils
