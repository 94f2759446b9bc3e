#pragma once

#include "nuvBuffer.h"
#include "nuvPathname.h"
#include "nuvTime.h"
#include "nuvZoneFile.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace Nuv::Utils {

/// A time zone as the system's compiled zone file has it: conversions between UTC and local time,
/// and the arithmetic of the calendar.
///
/// Seconds count from 1970-01-01 00:00:00 UTC; local seconds are UTC seconds plus the offset in
/// force. The file's first block is used, which covers 1901 to 2037 by 32-bit seconds. Outside its
/// transitions (before the first one; from 2038-01-19 03:14:07 UTC on; everywhere in a file without
/// any) the default type is in force: the first one that is standard time. The later blocks of the
/// file are ignored. A zone without data (no file, a bad one) is UTC with an empty abbreviation.
///
/// Threads: const operations may run concurrently.
/// Errors:  a file that is missing or bad is logged, one line at error severity, and gives a zone
///          without data; so is a "slim" file, whose first block is empty while its second is not:
///          its zone is UTC, which isSlim() tells. An index out of range fails nuvAssert.
/// Cost:    conversions allocate nothing but a long abbreviation; a zone is 1 to 20 KiB.
/// Example: TimeZone zone( "Europe/Berlin" ); int isDst; std::string name;
///          const auto local = zone.toLocal( Time().seconds(), &name, &isDst );
class NUV_API TimeZone
{
public:
    /// The outcome of a conversion; the reason of an Exception.
    enum Result
    {
        ok = 0,
        skippedTime = 1,   ///< a local time that no clock of the zone shows
        ambiguousTime = 2, ///< a local time that comes twice
        outOfRange = 3     ///< outside the transitions: the default type holds
    };
    /// Which of two isDst values is meant by a local time that comes twice or is skipped.
    enum Hint
    {
        standardTime = 0,
        daylightSavingTime = 1
    };

    /// Reason skippedTime or ambiguousTime, error number 0.
    struct NUV_API Exception : RuntimeException
    {
        using RuntimeException::RuntimeException;
        void getReasonStr() const override;
    };

    struct LocalTimeInfo
    {
        int utcOffsetInSeconds = 0;
        int isDst = 0;             ///< 0 or 1 in a sound file, a signed byte in any
        int abbreviationIndex = 0; ///< 0 to 255, among the characters
    };
    struct LeapSecondInfo
    {
        int transitionTime = 0;
        int totalCorrection = 0;
    };

    static constexpr std::int64_t maxNbrOfFileBytes = 4000000;
    /// The file that names the zone of the machine.
    static const char* const ourClockPathname;
    /// The zone where that file names none: the product's own zone file.
    static const char* const ourDefaultName;

    /// The zone of the machine, as it is named now; see getCurrentTzName().
    TimeZone();
    /// @param name of a file below basePath(), such as "Europe/Berlin"
    explicit TimeZone( const std::string& name );
    /// @param fileData the bytes of a zone file
    TimeZone( const std::string& name, const Buffer& fileData );

    /// Loads the file of that name; init() must follow. A file that cannot be loaded is logged.
    void loadTzFile( const std::string& name );
    /// Takes over the loaded data, having checked it.
    void init();

    /// "/usr/share/zoneinfo". Fails nuvAssert "zoneBase.isDirectory()" without that folder.
    static const Io::Pathname& basePath();
    /// Finds the zone's name in the first line ZONE="name" (with or without the quotes) of the
    /// clock file. Nothing is trimmed: ZONE begins the line and touches the "=".
    /// @param clockPathPtr the file
    /// @return whether a line named it; without one the name is ourDefaultName
    static bool getCurrentTzName( std::string* namePtr,
                                  const char* clockPathPtr = ourClockPathname );

    /// @param abbreviationPtr, isDstPtr may be null
    /// @return local seconds
    std::int64_t toLocal( std::int64_t utc, std::string* abbreviationPtr, int* isDstPtr ) const;
    /// A time that comes twice is the one whose isDst is the hint. A skipped time is read by the
    /// offset of the side of the gap whose isDst is the hint, first the side before it.
    /// @return UTC seconds
    /// @throws Exception skippedTime or ambiguousTime if the hint does not decide
    std::int64_t toUtc( std::int64_t local, Hint hint ) const;

    /// @param indexPtr receives the last transition at or before t
    /// @return ok; or outOfRange before the first one, or if t is 2147483647 or later: *indexPtr is
    ///         unchanged then
    Result findTransTimeByUtc( std::int64_t utc, int* indexPtr ) const;
    /// @param indexPtr receives the transition whose type converts the local time
    /// @return any; *indexPtr is changed by ok alone. A local time that only the default type
    ///         before the first transition can show is outOfRange.
    Result findTransTimeByLocal( std::int64_t local, int* indexPtr, Hint hint ) const;

    int transitionTimeType( int ttIdx ) const;
    void getLocalTimeInfo( int lttIdx, LocalTimeInfo* infoPtr ) const;
    /// @param ccIdx a type. @return its abbreviation, "" where that lies behind the characters
    const char* abbrevCstr( int ccIdx ) const;
    /// @return the abbreviation at that character
    const char* abbrevOffsetCstr( int ofs ) const;
    void getLeapSecondInfo( int leapIdx, LeapSecondInfo* infoPtr ) const;
    /// Whether transitions to the type were given in standard time; false without an indicator.
    bool ttisStd( int type ) const;
    /// Whether they were given in UTC; false without an indicator.
    bool ttisGmt( int type ) const;

    const std::string& name() const { return myName; }
    bool hasData() const { return !myTypes.empty(); }
    /// The file has its transitions in its second block alone: this zone is UTC and wrong.
    bool isSlim() const { return myIsSlim; }
    int defaultType() const { return myDefaultType; }
    int nbrOfTypes() const { return static_cast< int >( myTypes.size() ); }
    /// The transition times, and 2147483647 as an end mark; empty without data.
    const std::vector< std::int32_t >& transitionTimes() const { return myTransTimes; }

    /// Logs all tables at debug severity through the standard source, a line for each entry.
    void dump() const;

    /// Broken-down UTC to seconds, in the proleptic Gregorian calendar, modulo 2^32. A month
    /// outside 0 to 11 carries into the year; the other fields are added as they are, whatever
    /// their value.
    static int timeCode( const std::tm& fields )
    {
        return static_cast< int >( timeCode64( fields ) );
    }
    /// The same without the modulo.
    static std::int64_t timeCode64( const std::tm& fields );
    /// Seconds to broken-down UTC, all fields set.
    /// @param seconds of years that fit tm_year; nuvAssert otherwise
    static void decodeTime( std::tm* fieldsPtr, std::int64_t seconds );

private:
    using Type = ZoneFileBlock::LocalType;

    void index( const ZoneFileBlock& block );
    void clear();
    const Type* typeAtUtc( std::int64_t utc ) const;
    const Type& typeOfTransition( int index ) const
    {
        return myTypes[myTransTypes[static_cast< std::size_t >( index )]];
    }
    int lastTransitionAt( std::int32_t utc ) const;
    Result chooseCandidate( std::int64_t local, int guess, int* indexPtr, Hint hint ) const;
    int transitionNear( std::int64_t utc, int guess ) const;
    int gapSide( int j, std::size_t type, std::int64_t utc, Hint hint ) const;

    std::string myName;
    Buffer myFileData;
    std::vector< std::int32_t > myTransTimes;
    std::vector< std::uint8_t > myTransTypes;
    std::vector< Type > myTypes;
    std::string myCharacters;
    std::vector< LeapSecondInfo > myLeapSeconds;
    std::vector< bool > myStdIndicators;
    std::vector< bool > myGmtIndicators;
    int myDefaultType = 0;
    std::int32_t myMinOffset = 0; // of all types, and 0
    std::int32_t myMaxOffset = 0;
    bool myIsSlim = false;
};

} // namespace Nuv::Utils
