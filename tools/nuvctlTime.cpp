#include "nuvctlTime.h"

#include "nuvctl.h"

#include "nuvFileHelper.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <ctime>
#include <iostream>
#include <set>

namespace Nuv::Ctl {

using Utils::Time;
using Utils::TimeZone;

namespace {

constexpr std::int64_t secondsPerYear = 366 * 86400;
/// Within this time before its end a file's first block "ends soon".
constexpr std::int64_t soon = 2 * secondsPerYear;
constexpr std::int64_t maxTime = 18446744073; // of Time

std::int64_t now()
{
    return static_cast< std::int64_t >( Time().seconds() );
}

/// Also before 1970, which Time does not know.
std::string dateText( std::int64_t seconds )
{
    std::tm fields{};
    TimeZone::decodeTime( &fields, seconds );
    char text[32];
    std::strftime( text, sizeof( text ), "%Y-%m-%d %H:%M:%S", &fields );
    return text;
}

std::string offsetText( std::int64_t seconds )
{
    const std::int64_t minutes = std::abs( seconds ) / 60;
    char text[16];
    std::snprintf( text, sizeof( text ), "%c%02d%02d", seconds < 0 ? '-' : '+',
                   static_cast< int >( minutes / 60 ), static_cast< int >( minutes % 60 ) );
    return text;
}

const char* kindText( int isDst )
{
    return isDst != 0 ? "daylight-saving time" : "standard time";
}

Json timeJson( std::int64_t utc, const TimeZone& zone )
{
    std::string abbreviation;
    int isDst = 0;
    const std::int64_t local = zone.toLocal( utc, &abbreviation, &isDst );
    return {
        { "seconds", utc },        { "utc", dateText( utc ) },       { "local", dateText( local ) },
        { "offset", local - utc }, { "abbreviation", abbreviation }, { "isDst", isDst } };
}

} // namespace

// --------------------------------------------------------------------------------------- zones

ZoneChoice chooseZone( const std::string& name )
{
    ZoneChoice choice;
    choice.myName = name;
    choice.myReason = "asked for";
    if ( name.empty() )
        choice.myReason =
            TimeZone::getCurrentTzName( &choice.myName )
                ? TimeZone::ourClockPathname
                : std::string( "the default: no line ZONE= in " ) + TimeZone::ourClockPathname;
    if ( choice.myName.empty() ) {
        choice.myFault = "its name is empty";
        return choice;
    }
    Io::FileHelper helper( TimeZone::maxNbrOfFileBytes );
    helper.pathname =
        Io::Pathname( Io::Pathname( Utils::String( "/usr/share/zoneinfo" ) ), choice.myName );
    choice.myFile = helper.pathname.str();
    try {
        helper.load();
    } catch ( const Io::FileHelper::Exception& exception ) {
        choice.myFault = exception.what();
        return choice;
    }
    if ( const char* const faultPtr =
             Utils::ZoneFileBlock::faultOf( helper.data, &choice.myIsSlim ) )
        choice.myFault = choice.myFile + ": " + faultPtr;
    else if ( choice.myIsSlim )
        choice.myFault = choice.myFile + ": the first block is empty (slim form); "
                                         "\"zic -b fat\" makes a full file";
    else
        choice.myZone = TimeZone( choice.myName, helper.data );
    return choice;
}

bool chooseZoneOrComplain( const std::string& name, ZoneChoice* choicePtr )
{
    *choicePtr = chooseZone( name );
    if ( choicePtr->myFault.empty() )
        return true;
    complain( "the zone \"" + choicePtr->myName +
              "\" is taken as UTC by the library: " + choicePtr->myFault );
    return name.empty();
}

std::string localText( std::int64_t utc, const TimeZone& zone )
{
    std::string abbreviation;
    const std::int64_t local = zone.toLocal( utc, &abbreviation, nullptr );
    return dateText( local ) + ( abbreviation.empty() ? "" : " " + abbreviation ) + " " +
           offsetText( local - utc );
}

// --------------------------------------------------------------------------------------- times

bool readTime( const std::string& text, std::int64_t* secondsPtr, bool* isUtcPtr )
{
    *isUtcPtr = true;
    const char* const endPtr = text.data() + text.size();
    const auto [stopPtr, error] = std::from_chars( text.data(), endPtr, *secondsPtr );
    if ( error == std::errc() && stopPtr == endPtr )
        return *secondsPtr >= -maxTime && *secondsPtr <= maxTime;
    for ( const char* const formatPtr : { "%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M",
                                          "%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d" } ) {
        std::tm fields{};
        const char* const restPtr = ::strptime( text.c_str(), formatPtr, &fields );
        if ( restPtr == nullptr )
            continue;
        const std::string rest = restPtr;
        *isUtcPtr = rest == "Z";
        *secondsPtr = TimeZone::timeCode64( fields );
        std::tm normal{};
        TimeZone::decodeTime( &normal, *secondsPtr );
        if ( ( rest.empty() || *isUtcPtr ) && normal.tm_mday == fields.tm_mday )
            return true;
    }
    return false;
}

Readings readingsOf( std::int64_t local, const TimeZone& zone )
{
    // By every type: no hint tells two of the same kind apart.
    std::set< std::int64_t > times;
    for ( int type = 0; type < zone.nbrOfTypes(); ++type ) {
        TimeZone::LocalTimeInfo info;
        zone.getLocalTimeInfo( type, &info );
        const std::int64_t utc = local - info.utcOffsetInSeconds;
        if ( zone.toLocal( utc, nullptr, nullptr ) == local )
            times.insert( utc );
    }
    const bool isShown = !times.empty();
    for ( const auto hint : { TimeZone::standardTime, TimeZone::daylightSavingTime } ) {
        try {
            if ( !isShown )
                times.insert( zone.toUtc( local, hint ) );
        } catch ( const TimeZone::Exception& ) {
            continue;
        }
    }
    Readings readings;
    readings.myFirst =
        times.empty() ? 2 * local - zone.toLocal( local, nullptr, nullptr ) : *times.begin();
    if ( times.size() > 1 )
        readings.mySecond = *times.rbegin();
    readings.myIsSkipped = zone.toLocal( readings.myFirst, nullptr, nullptr ) != local;
    return readings;
}

namespace {

void printReading( std::int64_t utc, const TimeZone& zone )
{
    std::string abbreviation;
    int isDst = 0;
    zone.toLocal( utc, &abbreviation, &isDst );
    std::cout << "UTC      " << dateText( utc ) << " UTC\nlocal    " << localText( utc, zone )
              << " (" << zone.name() << ", " << kindText( isDst ) << ")\nseconds  " << utc << '\n';
}

} // namespace

int showTime( const CommonOptions& common, const TimeOptions& options )
{
    ZoneChoice choice;
    if ( !chooseZoneOrComplain( options.myZone, &choice ) )
        return problem;
    const TimeZone& zone = choice.myZone;
    Readings readings;
    readings.myFirst = now();
    bool isUtc = true;
    if ( !options.myTime.empty() && !readTime( options.myTime, &readings.myFirst, &isUtc ) )
        return complain( "\"" + options.myTime +
                         "\" is no time: give seconds since 1970, or YYYY-MM-DD HH:MM[:SS][Z]" ),
               wrongUsage;
    if ( !isUtc )
        readings = readingsOf( readings.myFirst, zone );
    std::vector< std::int64_t > times = { readings.myFirst };
    if ( readings.mySecond )
        times.push_back( *readings.mySecond );
    if ( common.myJson ) {
        Json list = Json::array();
        for ( const std::int64_t utc : times )
            list.push_back( timeJson( utc, zone ) );
        printJson( { { "zone", choice.myName },
                     { "reason", choice.myReason },
                     { "isSkipped", readings.myIsSkipped },
                     { "readings", list } } );
    } else {
        for ( const std::int64_t utc : times )
            printReading( utc, zone );
        if ( readings.mySecond && !readings.myIsSkipped )
            std::cout << "This local time comes twice.\n";
    }
    return readings.myIsSkipped
               ? complain( "no clock of the zone shows this local time: it is skipped" )
               : good;
}

// ------------------------------------------------------------------------------ nuvctl tz [NAME]

namespace {

/// The transitions that matter now: the last two and the next three.
std::vector< std::int64_t > transitionsAround( const TimeZone& zone, std::int64_t time )
{
    std::vector< std::int64_t > all( zone.transitionTimes().begin(), zone.transitionTimes().end() );
    if ( !all.empty() )
        all.pop_back(); // the end mark
    const auto next = std::upper_bound( all.begin(), all.end(), time );
    const auto first = next - std::min< std::ptrdiff_t >( next - all.begin(), 2 );
    const auto end = next + std::min< std::ptrdiff_t >( all.end() - next, 3 );
    return std::vector< std::int64_t >( first, end );
}

/// @return what an operator should know of the file's end; "" if there is nothing
std::string endRemark( const TimeZone& zone, std::int64_t time )
{
    if ( time > INT_MAX - soon )
        return "the file's 32-bit times end on 2038-01-19; from then on the zone is " +
               localText( INT_MAX, zone ).substr( 20 );
    bool hasPast = false;
    bool hasNext = false;
    for ( const std::int64_t transition : transitionsAround( zone, time ) ) {
        hasPast = hasPast || ( transition <= time && transition > time - secondsPerYear );
        hasNext = hasNext || ( transition > time && transition < time + secondsPerYear );
    }
    return hasPast && !hasNext ? "the file ends soon: it has a change in the last year and none in "
                                 "the next one; the zone stays " +
                                     localText( time, zone ).substr( 20 )
                               : "";
}

Json zoneJson( const ZoneChoice& choice, std::int64_t time, const std::string& remark )
{
    Json transitions = Json::array();
    for ( const std::int64_t transition : transitionsAround( choice.myZone, time ) )
        transitions.push_back( timeJson( transition, choice.myZone ) );
    return { { "zone", choice.myName },
             { "reason", choice.myReason },
             { "file", choice.myFile },
             { "fault", choice.myFault },
             { "isSlim", choice.myIsSlim },
             { "remark", remark },
             { "now", timeJson( time, choice.myZone ) },
             { "transitions", transitions } };
}

void printZone( const ZoneChoice& choice, std::int64_t time )
{
    const TimeZone& zone = choice.myZone;
    std::string abbreviation;
    int isDst = 0;
    zone.toLocal( time, &abbreviation, &isDst );
    std::cout << "zone    " << choice.myName << "\nwhy     " << choice.myReason << "\nfile    "
              << choice.myFile << "\nnow     " << localText( time, zone ) << ", "
              << kindText( isDst ) << '\n';
    Table table( { "CHANGE (UTC)", "BEFORE", "FROM THEN ON" } );
    for ( const std::int64_t transition : transitionsAround( zone, time ) )
        table.add( { dateText( transition ), localText( transition - 1, zone ),
                     localText( transition, zone ) } );
    table.print();
}

} // namespace

int showZone( const CommonOptions& common, const TimeOptions& options )
{
    const ZoneChoice choice = chooseZone( options.myZone );
    const std::int64_t time = now();
    const std::string remark =
        choice.myZone.hasData() ? endRemark( choice.myZone, time ) : std::string();
    if ( common.myJson )
        printJson( zoneJson( choice, time, remark ) );
    else
        printZone( choice, time );
    if ( !choice.myFault.empty() )
        return complain( "the zone is taken as UTC by the library: " + choice.myFault );
    return remark.empty() ? good : complain( remark );
}

} // namespace Nuv::Ctl
