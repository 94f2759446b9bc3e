#include "nuvTimeZone.h"

#include "nuvFileHelper.h"
#include "nuvLog.h"
#include "nuvRegEx.h"
#include "nuvUtils.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

namespace Nuv::Utils {

namespace {

constexpr StaticMap< int, const char* >::Pair ourReasonPairs[] = {
    { TimeZone::ok, "ok" },
    { TimeZone::skippedTime, "skipped time" },
    { TimeZone::ambiguousTime, "ambiguous time" },
    { TimeZone::outOfRange, "out of range" } };
constexpr StaticMap< int, const char* > ourReasonMap( ourReasonPairs );
static_assert( ourReasonMap.isSorted() );

constexpr std::int32_t endMark = 0x7FFFFFFF;

// Longer lines of the clock file are read in portions, each taken as a line.
constexpr std::size_t maxClockLineSize = 256;

struct FileCloser
{
    void operator()( std::FILE* filePtr ) const { std::fclose( filePtr ); }
};

// @return whether the line names a value for ZONE
bool zoneOfLine( const char* linePtr, std::string* namePtr )
{
    // Never destroyed: the timer thread asks for the zone during exit too.
    static const RegEx& ourPattern = *new RegEx( "([^=]*)=\"?([^\"]*)\"?" );
    RegEx::SearchResults results;
    if ( !ourPattern.search( linePtr, &results ) || results[1].text() != "ZONE" )
        return false;
    *namePtr = results[2].text();
    return true;
}

void logFault( const char* faultPtr, const std::string& name )
{
    nuvLogTo( Log::getStandardSource( Log::error ) ) << faultPtr << " (zone " << name << ")";
}

} // namespace

// ------------------------------------------------------------------------------ loading a zone

const char* const TimeZone::ourClockPathname = "/etc/sysconfig/clock";
const char* const TimeZone::ourDefaultName = "nuvsZoneInfo";

void TimeZone::Exception::getReasonStr() const
{
    const auto i = ourReasonMap.find( myReason );
    nuvAssert( i != ourReasonMap.end() );
    myText = std::string( "TimeZone::Exception( " ) + i->value + " ) ";
}

TimeZone::TimeZone()
{
    std::string name;
    getCurrentTzName( &name );
    if ( !name.empty() )
        loadTzFile( name );
    init();
}

TimeZone::TimeZone( const std::string& name )
{
    loadTzFile( name );
    init();
}

TimeZone::TimeZone( const std::string& name, const Buffer& fileData )
    : myName( name )
    , myFileData( fileData )
{
    init();
}

const Io::Pathname& TimeZone::basePath()
{
    // Never destroyed, as the pattern above.
    static const Io::Pathname* const ourBasePathPtr = [] {
        Io::Pathname zoneBase( "/usr/share/zoneinfo" );
        nuvAssert( zoneBase.isDirectory() );
        return new Io::Pathname( zoneBase );
    }();
    return *ourBasePathPtr;
}

bool TimeZone::getCurrentTzName( std::string* namePtr, const char* clockPathPtr )
{
    const std::unique_ptr< std::FILE, FileCloser > filePtr( std::fopen( clockPathPtr, "re" ) );
    char line[maxClockLineSize];
    while ( filePtr != nullptr &&
            std::fgets( line, static_cast< int >( sizeof( line ) ), filePtr.get() ) != nullptr ) {
        line[std::strcspn( line, "\n" )] = '\0';
        if ( zoneOfLine( line, namePtr ) )
            return true;
    }
    *namePtr = ourDefaultName;
    return false;
}

void TimeZone::loadTzFile( const std::string& name )
{
    myName = name;
    myFileData.clear();
    Io::FileHelper helper( maxNbrOfFileBytes );
    helper.pathname = Io::Pathname( basePath(), name );
    try {
        helper.load();
        if ( helper.data.empty() ) // for init() as if there were no file
            logFault( ZoneFileBlock::faultOf( helper.data, nullptr ), name );
        myFileData.swap( helper.data );
    } catch ( const Io::FileHelper::Exception& exception ) {
        nuvLogTo( Log::getStandardSource( Log::error ) )
            << "errSystemError The zone " << name << " is taken as UTC: " << exception.what();
    }
}

void TimeZone::clear()
{
    myTransTimes.clear();
    myTransTypes.clear();
    myTypes.clear();
    myCharacters.clear();
    myLeapSeconds.clear();
    myStdIndicators.clear();
    myGmtIndicators.clear();
    myDefaultType = 0;
    myMinOffset = myMaxOffset = 0;
    myIsSlim = false;
}

// A zone whose file is missing or empty has been logged by loadTzFile(), or has no name.
void TimeZone::init()
{
    clear();
    if ( myFileData.empty() )
        return;
    if ( const char* const faultPtr = ZoneFileBlock::faultOf( myFileData, &myIsSlim ) ) {
        logFault( faultPtr, myName );
        return;
    }
    index( ZoneFileBlock( myFileData, 0, 4 ) );
    if ( myIsSlim )
        nuvLogTo( Log::getStandardSource( Log::error ) )
            << "The zone " << myName << " is taken as UTC: the first block of its file "
            << basePath().str() << "/" << myName
            << " is empty, its transitions are in the second block alone (slim form)";
}

void TimeZone::index( const ZoneFileBlock& block )
{
    for ( int i = 0; i < block.myTimeCnt; ++i ) {
        myTransTimes.push_back( block.transitionTime( i ) );
        myTransTypes.push_back( static_cast< std::uint8_t >( block.transitionType( i ) ) );
    }
    myTransTimes.push_back( endMark );
    for ( int i = 0; i < block.myTypeCnt; ++i ) {
        myTypes.push_back( block.localType( i ) );
        myMinOffset = std::min( myMinOffset, myTypes.back().myOffset );
        myMaxOffset = std::max( myMaxOffset, myTypes.back().myOffset );
    }
    const auto standard = std::find_if( myTypes.begin(), myTypes.end(),
                                        []( const Type& type ) { return type.myIsDst == 0; } );
    if ( standard != myTypes.end() )
        myDefaultType = static_cast< int >( standard - myTypes.begin() );
    myCharacters = block.characters();
    for ( int i = 0; i < block.myLeapCnt; ++i ) {
        LeapSecondInfo info;
        block.leapSecond( i, &info.transitionTime, &info.totalCorrection );
        myLeapSeconds.push_back( info );
    }
    for ( int i = 0; i < block.myTtisStdCnt; ++i )
        myStdIndicators.push_back( block.stdIndicator( i ) );
    for ( int i = 0; i < block.myTtisGmtCnt; ++i )
        myGmtIndicators.push_back( block.gmtIndicator( i ) );
}

// --------------------------------------------------------------------------------- conversions

// Binary search without branches to mispredict. @param utc not before the first transition
int TimeZone::lastTransitionAt( std::int32_t utc ) const
{
    const std::int32_t* firstPtr = myTransTimes.data();
    for ( std::size_t count = myTransTypes.size(); count > 1; ) {
        const std::size_t half = count / 2;
        firstPtr = firstPtr[half] <= utc ? firstPtr + half : firstPtr;
        count -= half;
    }
    return static_cast< int >( firstPtr - myTransTimes.data() );
}

TimeZone::Result TimeZone::findTransTimeByUtc( std::int64_t utc, int* indexPtr ) const
{
    if ( myTransTypes.empty() || utc < myTransTimes.front() || utc >= endMark )
        return outOfRange;
    *indexPtr = lastTransitionAt( static_cast< std::int32_t >( utc ) );
    return ok;
}

// @return null without data
const TimeZone::Type* TimeZone::typeAtUtc( std::int64_t utc ) const
{
    int i = 0;
    if ( findTransTimeByUtc( utc, &i ) == ok )
        return &typeOfTransition( i );
    return myTypes.empty() ? nullptr : &myTypes[static_cast< std::size_t >( myDefaultType )];
}

std::int64_t TimeZone::toLocal( std::int64_t utc, std::string* abbreviationPtr,
                                int* isDstPtr ) const
{
    const Type* const typePtr = typeAtUtc( utc );
    if ( isDstPtr != nullptr )
        *isDstPtr = typePtr != nullptr ? typePtr->myIsDst : 0;
    if ( abbreviationPtr != nullptr )
        *abbreviationPtr =
            typePtr != nullptr ? abbrevCstr( static_cast< int >( typePtr - myTypes.data() ) ) : "";
    return typePtr != nullptr ? utc + typePtr->myOffset : utc;
}

// @return j with transition j <= utc < transition j + 1, found by steps from the guess; -1 if none
int TimeZone::transitionNear( std::int64_t utc, int guess ) const
{
    const std::int32_t* const timesPtr = myTransTimes.data();
    const int nbrOfTransitions = static_cast< int >( myTransTypes.size() );
    int j = guess;
    while ( j >= 0 && utc < timesPtr[j] )
        --j;
    while ( j >= 0 && j < nbrOfTransitions && utc >= timesPtr[j + 1] )
        ++j;
    return j < nbrOfTransitions ? j : -1;
}

// The local time that utc stands for, read by the type, may lie in the gap that opens at transition
// j: the type was in force before it. @return the side of the gap by the hint; -1 if there is none
int TimeZone::gapSide( int j, std::size_t type, std::int64_t utc, Hint hint ) const
{
    if ( j < 1 || myTransTypes[static_cast< std::size_t >( j - 1 )] != type )
        return -1;
    const Type& before = myTypes[type];
    const Type& behind = typeOfTransition( j );
    const std::int64_t gap = std::int64_t{ behind.myOffset } - before.myOffset;
    if ( utc >= myTransTimes[static_cast< std::size_t >( j )] + gap )
        return -1;
    if ( before.myIsDst == hint )
        return j - 1;
    return behind.myIsDst == hint ? j : -1;
}

TimeZone::Result TimeZone::findTransTimeByLocal( std::int64_t local, int* indexPtr,
                                                 Hint hint ) const
{
    if ( myTransTypes.empty() || local < myTransTimes.front() || local >= endMark )
        return outOfRange;
    // Away from transitions every type leads to the same one.
    const std::int64_t earliest =
        std::max< std::int64_t >( local - myMaxOffset, myTransTimes.front() );
    const int guess = lastTransitionAt(
        static_cast< std::int32_t >( std::min< std::int64_t >( earliest, endMark - 1 ) ) );
    if ( earliest == local - myMaxOffset &&
         local - myMinOffset < myTransTimes[static_cast< std::size_t >( guess ) + 1] ) {
        *indexPtr = guess;
        return ok;
    }
    return chooseCandidate( local, guess, indexPtr, hint );
}

TimeZone::Result TimeZone::chooseCandidate( std::int64_t local, int guess, int* indexPtr,
                                            Hint hint ) const
{
    int nbrOfCandidates = 0;
    int candidate = -1;
    bool isHinted = false;
    for ( std::size_t type = 0; type < myTypes.size(); ++type ) {
        const std::int64_t utc = local - myTypes[type].myOffset;
        int j = transitionNear( utc, guess );
        if ( j >= 0 && myTransTypes[static_cast< std::size_t >( j )] != type )
            j = gapSide( j, type, utc, hint );
        if ( j < 0 )
            continue;
        ++nbrOfCandidates;
        if ( !isHinted ) {
            isHinted = typeOfTransition( j ).myIsDst == hint;
            candidate = j;
        }
    }
    if ( nbrOfCandidates == 0 ) {
        const Type& type = myTypes[static_cast< std::size_t >( myDefaultType )];
        return local - type.myOffset < myTransTimes.front() ? outOfRange : skippedTime;
    }
    if ( nbrOfCandidates > 1 && !isHinted )
        return ambiguousTime;
    *indexPtr = candidate;
    return ok;
}

std::int64_t TimeZone::toUtc( std::int64_t local, Hint hint ) const
{
    if ( myTypes.empty() )
        return local;
    int i = 0;
    const Result result = findTransTimeByLocal( local, &i, hint );
    if ( result == ok )
        return local - typeOfTransition( i ).myOffset;
    if ( result != outOfRange )
        throw Exception( "", result, 0 );
    return local - myTypes[static_cast< std::size_t >( myDefaultType )].myOffset;
}

// -------------------------------------------------------------------------------------- tables

int TimeZone::transitionTimeType( int ttIdx ) const
{
    const int myTimeCnt = static_cast< int >( myTransTypes.size() );
    nuvAssert( 0 <= ttIdx && ttIdx < myTimeCnt );
    return myTransTypes[static_cast< std::size_t >( ttIdx )];
}

void TimeZone::getLocalTimeInfo( int lttIdx, LocalTimeInfo* infoPtr ) const
{
    const int myTypeCnt = nbrOfTypes();
    nuvAssert( 0 <= lttIdx && lttIdx < myTypeCnt );
    const Type& type = myTypes[static_cast< std::size_t >( lttIdx )];
    *infoPtr = { type.myOffset, type.myIsDst, type.myAbbreviation };
}

const char* TimeZone::abbrevCstr( int ccIdx ) const
{
    const int myTypeCnt = nbrOfTypes();
    nuvAssert( 0 <= ccIdx && ccIdx < myTypeCnt );
    const std::size_t i = myTypes[static_cast< std::size_t >( ccIdx )].myAbbreviation;
    return myCharacters.c_str() + std::min( i, myCharacters.size() );
}

const char* TimeZone::abbrevOffsetCstr( int ofs ) const
{
    const int myCharCnt = static_cast< int >( myCharacters.size() );
    nuvAssert( 0 <= ofs && ofs < myCharCnt );
    return myCharacters.c_str() + ofs;
}

void TimeZone::getLeapSecondInfo( int leapIdx, LeapSecondInfo* infoPtr ) const
{
    const int myLeapCnt = static_cast< int >( myLeapSeconds.size() );
    nuvAssert( 0 <= leapIdx && leapIdx < myLeapCnt );
    *infoPtr = myLeapSeconds[static_cast< std::size_t >( leapIdx )];
}

bool TimeZone::ttisStd( int type ) const
{
    const auto i = static_cast< std::size_t >( type );
    return i < myStdIndicators.size() && myStdIndicators[i];
}

bool TimeZone::ttisGmt( int type ) const
{
    const auto i = static_cast< std::size_t >( type );
    return i < myGmtIndicators.size() && myGmtIndicators[i];
}

void TimeZone::dump() const
{
    const Log::Source& debug = Log::getStandardSource( Log::debug );
    const auto text = []( bool value ) { return value ? "true" : "false"; };
    for ( std::size_t i = 0; i < myTransTypes.size(); ++i )
        nuvLogTo( debug ) << "transTime " << i << ": " << myTransTimes[i] << ", "
                          << int{ myTransTypes[i] };
    nuvLogTo( debug ) << "transTime " << myTransTypes.size() << ": " << endMark;
    for ( int i = 0; i < nbrOfTypes(); ++i ) {
        LocalTimeInfo info;
        getLocalTimeInfo( i, &info );
        nuvLogTo( debug ) << "local time type " << i << ": utcOffsetInSeconds "
                          << info.utcOffsetInSeconds << ", isDst " << info.isDst << ", abbrev "
                          << abbrevCstr( i );
    }
    for ( std::size_t i = 0; i < myLeapSeconds.size(); ++i )
        nuvLogTo( debug ) << "leap second instance " << i << ": transition time "
                          << myLeapSeconds[i].transitionTime << ", total correction "
                          << myLeapSeconds[i].totalCorrection;
    for ( std::size_t i = 0; i < myStdIndicators.size(); ++i )
        nuvLogTo( debug ) << "for type " << i
                          << ", transition time is standard: " << text( myStdIndicators[i] );
    for ( std::size_t i = 0; i < myGmtIndicators.size(); ++i )
        nuvLogTo( debug ) << "for type " << i
                          << ", transition time is UTC: " << text( myGmtIndicators[i] );
}

// ------------------------------------------------------------------------------------ calendar

namespace {

// Years begin on 1 March, so that the day that comes every four years is the last one; days count
// from 1 March 1600, the first day of a cycle of 400 years.
constexpr std::int32_t daysPer400Years = 146097;
constexpr std::int32_t daysPerCentury = 36524;
constexpr std::int32_t daysPer4Years = 1461;
constexpr std::int32_t daysPerYear = 365;
constexpr std::int32_t dayOf1970 = 135080;
constexpr std::int32_t secondsPerDay = 86400;
constexpr std::int16_t daysBeforeMonth[] = { 0,   31,  61,  92,  122, 153,
                                             184, 214, 245, 275, 306, 337 };

constexpr std::int64_t floorDivide( std::int64_t a, std::int64_t b )
{
    return a / b - ( a % b < 0 ? 1 : 0 );
}

/// The calendar day of a day of the 400 years.
void decodeDay( std::tm* fieldsPtr, std::int64_t cycle, std::int32_t days )
{
    const std::int32_t century = std::min( days / daysPerCentury, 3 );
    days -= century * daysPerCentury;
    const std::int32_t fourYears = days / daysPer4Years;
    days -= fourYears * daysPer4Years;
    const std::int32_t year = std::min( days / daysPerYear, 3 );
    days -= year * daysPerYear;
    nuvAssert( 0 <= days && days < 366 );
    const std::int32_t month = ( 5 * days + 2 ) / 153;
    fieldsPtr->tm_mday = days - ( 153 * month + 2 ) / 5 + 1;
    const bool isNextYear = month >= 10;
    fieldsPtr->tm_mon = month + ( isNextYear ? -10 : 2 );
    fieldsPtr->tm_year = static_cast< int >( 400 * cycle + 100 * century + 4 * fourYears + year +
                                             ( isNextYear ? 1 : 0 ) - 300 );
    // The leap day of this calendar year lies before 1 March: it begins the count of the year.
    const bool isLeapYear = year == 0 && ( fourYears != 0 || century == 0 );
    fieldsPtr->tm_yday = isNextYear ? days - 306 : days + 59 + ( isLeapYear ? 1 : 0 );
}

} // namespace

std::int64_t TimeZone::timeCode64( const std::tm& fields )
{
    const std::int64_t months = std::int64_t{ fields.tm_mon } - 2;
    const std::int64_t carry = floorDivide( months, 12 );
    const std::int64_t year = std::int64_t{ fields.tm_year } + 300 + carry;
    const std::int64_t cycle = floorDivide( year, 400 );
    const auto yearOfCycle = static_cast< std::int32_t >( year - 400 * cycle );
    const std::int32_t dayOfCycle =
        daysPerCentury * ( yearOfCycle / 100 ) + daysPer4Years * ( yearOfCycle % 100 / 4 ) +
        daysPerYear * ( yearOfCycle % 4 ) + daysBeforeMonth[months - 12 * carry];
    const std::int64_t day =
        daysPer400Years * cycle + dayOfCycle + std::int64_t{ fields.tm_mday } - 1;
    return ( day - dayOf1970 ) * secondsPerDay + std::int64_t{ fields.tm_hour } * 3600 +
           std::int64_t{ fields.tm_min } * 60 + fields.tm_sec;
}

void TimeZone::decodeTime( std::tm* fieldsPtr, std::int64_t seconds )
{
    constexpr std::int64_t limit = std::int64_t{ 1 } << 55; // 1.1e9 years
    nuvAssert( -limit < seconds && seconds < limit );
    const std::int64_t day = floorDivide( seconds, secondsPerDay );
    const auto second = static_cast< std::int32_t >( seconds - day * secondsPerDay );
    const std::int64_t dayFrom1600 = day + dayOf1970;
    const std::int64_t cycle = floorDivide( dayFrom1600, daysPer400Years );
    const auto dayOfCycle = static_cast< std::int32_t >( dayFrom1600 - cycle * daysPer400Years );
    *fieldsPtr = std::tm();
    decodeDay( fieldsPtr, cycle, dayOfCycle );
    fieldsPtr->tm_wday = ( dayOfCycle + 3 ) % 7; // a cycle is a whole number of weeks
    fieldsPtr->tm_hour = second / 3600;
    fieldsPtr->tm_min = second % 3600 / 60;
    fieldsPtr->tm_sec = second % 60;
    fieldsPtr->tm_zone = "UTC";
}

// ---------------------------------------------------- times by the calendar, declared in nuvTime.h

namespace {

/// @return the seconds in nanoseconds, drawn to the nearest end of the range
std::uint64_t nanoseconds( std::int64_t seconds )
{
    constexpr std::uint64_t limit = std::numeric_limits< std::uint64_t >::max();
    if ( seconds < 0 )
        return 0;
    return static_cast< std::uint64_t >( seconds ) > limit / Time::nsPerSec
               ? limit
               : static_cast< std::uint64_t >( seconds ) * Time::nsPerSec;
}

void appendOffset( std::string* textPtr, std::int64_t seconds )
{
    const auto minutes = static_cast< unsigned int >( ( seconds < 0 ? -seconds : seconds ) / 60 );
    char text[16];
    std::snprintf( text, sizeof( text ), "%c%02u%02u", seconds < 0 ? '-' : '+', minutes / 60,
                   minutes % 60 );
    textPtr->append( text );
}

/// The format with the conversions of the zone written out, and ended so that no text is empty.
std::string zonedFormat( std::string_view format, const char* abbreviationPtr, std::int64_t offset )
{
    std::string result;
    result.reserve( format.size() + 16 );
    for ( std::size_t i = 0; i < format.size(); ++i ) {
        const char next = format[i] == '%' && i + 1 < format.size() ? format[i + 1] : '\0';
        if ( next == 'Z' ) {
            for ( const char* ptr = abbreviationPtr; *ptr != '\0'; ++ptr )
                result.append( *ptr == '%' ? 2 : 1, *ptr );
        } else if ( next == 'z' ) {
            appendOffset( &result, offset );
        } else {
            result += format[i];
            if ( next != '\0' )
                result += next;
        }
        i += next != '\0' ? 1 : 0;
    }
    return result;
}

// The format comes from the caller: no compiler can check it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::size_t formatTime( char* ptr, std::size_t size, const char* formatPtr,
                        const std::tm* fieldsPtr )
{
    return std::strftime( ptr, size, formatPtr, fieldsPtr );
}
#pragma GCC diagnostic pop

/// @return the text; strftime() tells a buffer that is too small by an empty one
std::string wrappedStrftime( std::string_view format, std::tm* fieldsPtr,
                             const char* abbreviationPtr, std::int64_t offset )
{
    constexpr std::size_t maxSize = std::size_t{ 1 } << 20;
    fieldsPtr->tm_zone = abbreviationPtr;
    fieldsPtr->tm_gmtoff = static_cast< long >( offset );
    const std::string rewritten =
        zonedFormat( format.substr( 0, format.find( '\0' ) ), abbreviationPtr, offset ) + "|";
    char small[256];
    const std::size_t smallLength =
        formatTime( small, sizeof( small ), rewritten.c_str(), fieldsPtr );
    if ( smallLength != 0 )
        return std::string( small, smallLength - 1 );
    std::string text;
    for ( std::size_t size = std::max( 2 * sizeof( small ), 2 * rewritten.size() ); size <= maxSize;
          size *= 2 ) {
        text.resize( size );
        const std::size_t length =
            formatTime( text.data(), text.size(), rewritten.c_str(), fieldsPtr );
        if ( length != 0 ) {
            text.resize( length - 1 );
            return text;
        }
    }
    return std::string();
}

} // namespace

Time::Time( const std::tm& fields )
    : myNs( nanoseconds( TimeZone::timeCode64( fields ) ) )
{
}

Time::Time( const std::tm& fields, const TimeZone& zone )
    : myNs( nanoseconds( zone.toUtc( TimeZone::timeCode64( fields ), TimeZone::standardTime ) ) )
{
}

std::string Time::asString( std::string_view format ) const
{
    std::tm fields;
    TimeZone::decodeTime( &fields, static_cast< std::int64_t >( seconds() ) );
    return wrappedStrftime( format, &fields, "UTC", 0 );
}

std::string Time::asString( std::string_view format, const TimeZone& zone ) const
{
    const auto utc = static_cast< std::int64_t >( seconds() );
    std::string abbreviation;
    int isDst = 0;
    const std::int64_t local = zone.toLocal( utc, &abbreviation, &isDst );
    std::tm fields;
    TimeZone::decodeTime( &fields, local );
    fields.tm_isdst = isDst;
    return wrappedStrftime( format, &fields, abbreviation.c_str(), local - utc );
}

} // namespace Nuv::Utils
