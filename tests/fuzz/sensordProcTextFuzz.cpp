#include "procText.h"

#include <cstddef>
#include <cstdint>

// One text for all four readers: each must refuse what is not its own.
extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    const std::string_view text( reinterpret_cast< const char* >( dataPtr ), nbrOfBytes );
    unsigned int number = 0;
    Sensor::Memory memory;
    Sensor::Load load;
    for ( const Sensor::Interface& interface : Sensor::parseNetDev( text, &number ) ) {
        if ( interface.myName.empty() )
            __builtin_trap();
    }
    for ( const Sensor::Interrupt& interrupt : Sensor::parseInterrupts( text, &number ) ) {
        if ( interrupt.myName.empty() || number == 0 )
            __builtin_trap();
    }
    Sensor::parseMemInfo( text, &memory );
    Sensor::parseLoadAvg( text, &load );
    return 0;
}
