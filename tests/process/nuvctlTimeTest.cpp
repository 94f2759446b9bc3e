// nuvctl time, tz and sched, run as an operator runs them.

#include "nuvTestSupport.h"

#include <filesystem>
#include <tuple>

namespace {

TEST( NuvctlTime, ShowsTimesZonesAndSchedules )
{
    if ( !std::filesystem::exists( "/usr/share/zoneinfo/Europe/Berlin" ) )
        GTEST_SKIP() << "there are no zone files (package tzdata)";
    const std::tuple< std::string, int, const char*, const char* > rows[] = {
        { "time --zone Europe/Berlin 1774747800", 0, "03:30:00 CEST +0200", "" },
        { "time --zone Europe/Berlin 2026-06-01T00:00:00Z", 0, "local    2026-06-01 02:00", "" },
        { "time --zone Europe/Berlin '2026-10-25 02:30'", 0, "twice", "" },
        { "time --zone Europe/Moscow '2014-10-26 01:30'", 0, "twice", "" },
        { "time --zone Europe/Berlin '2026-03-29 02:30' --json", 1, "\"isSkipped\": true",
          "skipped" },
        { "time --zone Europe/Berlin '2026-02-30 02:30'", 2, "", "is no time" },
        { "time --zone No/Such", 1, "", "taken as UTC" },
        { "tz Asia/Tokyo", 0,
          "1951-09-08 15:00:00  1951-09-09 00:59:59 JDT +1000  1951-09-09 00:00:00 JST +0900", "" },
        { "tz ../../../etc/passwd --json", 1, "\"isSlim\": false", "tzfile signature incorrect" },
        { "sched --days Sun --hours 2:30:00 --zone Europe/Berlin --from '2026-03-28 12:00' --count "
          "2",
          0,
          "Sun  2026-03-29 03:30:00 CEST +0200  2026-03-29 01:30:00  0d 14:30:00\n"
          "Sun  2026-04-05 02:30:00 CEST +0200  2026-04-05 00:30:00  7d 13:30:00\n",
          "" },
        { "sched --start 13:10:00 --period 1 --zone Europe/Berlin --from '2026-01-01 13:00' "
          "--count 1",
          0, "Fri  2026-01-02 13:10:00 CET", "" },
        { "sched --days Monday --hours 8:00:00 --zone UTC", 2, "",
          "nuvctl: invalid conversion error days [Monday]\n" },
        { "sched --start 1:00:00 --period 5 --zone UTC", 2, "",
          "nuvctl: invalid hourPeriod [5]\n" },
        { "sched", 2, "", "give --days" } };
    for ( const auto& [words, status, output, errors] : rows ) {
        const NuvTest::Outcome outcome = NuvTest::runProgram(
            "/bin/sh", { { "-c", "exec \"$0\" " + words, NuvTest::tool( "nuvctl" ) }, {} } );
        SCOPED_TRACE( words + "\n" + outcome.output + outcome.errors );
        EXPECT_EQ( outcome.exitStatus(), status );
        EXPECT_NE( outcome.output.find( output ), std::string::npos );
        EXPECT_NE( outcome.errors.find( errors ), std::string::npos );
        EXPECT_EQ( outcome.errors.empty(), *errors == '\0' );
    }
    EXPECT_FALSE( std::filesystem::exists( NuvTest::RootFixture::root( "ixoRoot" ) ) );
}

} // namespace
