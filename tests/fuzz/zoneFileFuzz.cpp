// A zone file of any bytes: a zone that is sound gives its tables, and times that come back.

#include "nuvFuzz.h"
#include "nuvTimeZone.h"

#include <climits>
#include <cstdint>

using namespace Nuv::Utils;
using NuvFuzz::require;

namespace {

// What the clock of the zone shows at a time is read as a time that it shows so too.
void requireTheWayBack( const TimeZone& zone, std::int64_t utc )
{
    std::string abbreviation;
    int isDst = 0;
    const std::int64_t local = zone.toLocal( utc, &abbreviation, &isDst );
    int index = INT_MAX;
    if ( ( isDst != 0 && isDst != 1 ) || zone.findTransTimeByUtc( utc, &index ) != TimeZone::ok )
        return;
    const auto hint = static_cast< TimeZone::Hint >( isDst );
    if ( zone.findTransTimeByLocal( local, &index, hint ) == TimeZone::ok )
        require( index >= 0 && zone.transitionTimeType( index ) < zone.nbrOfTypes() );
    try {
        zone.toUtc( local, hint );
    } catch ( const TimeZone::Exception& exception ) {
        require( exception.reason() == TimeZone::skippedTime ||
                 exception.reason() == TimeZone::ambiguousTime );
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    const Buffer data( reinterpret_cast< const char* >( dataPtr ), nbrOfBytes );
    // Unsound files are refused here, as the zone would log them.
    bool isSlim = false;
    if ( ZoneFileBlock::faultOf( data, &isSlim ) != nullptr || isSlim )
        return 0;
    const TimeZone zone( "fuzzed", data );
    for ( const std::int64_t time : zone.transitionTimes() ) {
        for ( const int step : { -1, 0, 1 } )
            requireTheWayBack( zone, time + step );
    }
    for ( int i = 0; i < zone.nbrOfTypes(); ++i )
        require( zone.abbrevCstr( i ) != nullptr );
    for ( const std::int64_t time : { std::int64_t{ INT_MIN }, std::int64_t{ 0 } } )
        requireTheWayBack( zone, time );
    require( Time( 0 ).asString( "%Z", zone ).size() < nbrOfBytes );
    return 0;
}
