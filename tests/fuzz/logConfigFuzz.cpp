// The log configuration: whatever the file holds, what is made of it lies within the limits that
// zones, drains and the FIFO rely on.

#include "nuvFuzz.h"
#include "nuvInterprocessFifo.h"
#include "nuvLogSettings.h"

using namespace Nuv;

namespace {

using NuvFuzz::require;

void checkNamed( const Log::Settings& settings, const Log::ZoneName& name )
{
    const Log::Zone zone = settings.zone( name );
    require( zone.myName == name );
    require( zone.mySeverity >= Log::debug && zone.mySeverity <= Log::none );
    require( zone.myFlags <= 0x7F );
    require( zone.myDrainName.length() <= 15 );
    Log::Drain::Options options;
    settings.drainOptions( name, &options );
    require( options.type >= 0 && options.type <= 6 && options.type != Log::Drain::Options::fifo );
    require( options.maxSize <= 0xFFFFFFFF );
    require( Log::zoneFlagsFromText( Log::zoneFlagsText( zone.myFlags ) ) == zone.myFlags );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* dataPtr, size_t nbrOfBytes )
{
    const std::string text( reinterpret_cast< const char* >( dataPtr ), nbrOfBytes );
    Log::Settings settings;
    Utils::IBufferStream stream( text );
    settings.load( stream );
    checkNamed( settings, "main" );
    checkNamed( settings, "" );
    checkNamed( settings, "a/b" );
    checkNamed( settings, settings.logAppName() );
    // Any piece of the file may be a name.
    checkNamed( settings, text.substr( text.size() / 2 ).c_str() );
    const Log::Drain::Options fifo = settings.fifoOptions();
    require( fifo.maxSize >= Io::InterprocessFifo::minSize &&
             fifo.maxSize <= Io::InterprocessFifo::maxSize );
    require( settings.logAppOptions().type == Log::Drain::Options::file );
    require( settings.facility() % 8 == 0 && settings.facility() > 0 );
    static_cast< void >( settings.timeMode() );
    return 0;
}
