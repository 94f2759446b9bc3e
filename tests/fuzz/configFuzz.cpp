// The configuration reader on any bytes: what it reads can be found again under its path, a number
// stands in its one decimal form, and the checking load reads the same.

#include "nuvConfig.h"
#include "nuvFuzz.h"

#include <sstream>

namespace {

using Nuv::Utils::Config;
using NuvFuzz::require;

void requireSame( const Config& config, const Config::Node& a, const Config::Node& b )
{
    require( a.name() == b.name() && a.values().size() == b.values().size() );
    if ( a.path().size() < 1000 ) // the search for a path is not free
        require( config.findKey( a.path() ) == &a );
    for ( const auto& [key, value] : a.values() ) {
        const Config::Value* const otherPtr = b.findValue( key );
        require( otherPtr != nullptr && otherPtr->text == value.text &&
                 otherPtr->type == value.type );
        require( !key.empty() && key.find_first_of( "= \t\n" ) == std::string::npos );
        require( a.stringValue( key, "?" ) == value.text );
        const bool isNumber = value.type == Config::Value::integer;
        for ( const int defaultValue : { 1, 2 } )
            require( a.intValue( key, defaultValue ) ==
                     ( isNumber ? value.number : defaultValue ) );
        require( !isNumber || value.text == std::to_string( value.number ) );
    }
    require( a.children().size() == b.children().size() );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    const std::string text = NuvFuzz::text( dataPtr, nbrOfBytes );
    std::istringstream stream( text ), again( text );
    const Config config( stream );
    Config checked;
    Config::Remarks remarks;
    checked.loadChecked( again, &remarks );
    for ( const Config::Remark& remark : remarks )
        require( remark.lineNbr >= 1 && remark.lineNbr <= nbrOfBytes );
    // Down the last sections only: their number may be large.
    const Config::Node* aPtr = &config.root();
    const Config::Node* bPtr = &checked.root();
    for ( requireSame( config, *aPtr, *bPtr ); !aPtr->children().empty(); ) {
        aPtr = aPtr->children().rbegin()->second;
        bPtr = bPtr->children().rbegin()->second;
        requireSame( config, *aPtr, *bPtr );
    }
    return 0;
}
