#include "nuvIpcInventory.h"
#include "nuvctlCheck.h"
#include "nuvctlZones.h"

#include <cstddef>
#include <cstdint>
#include <sstream>

using namespace Nuv;

// What the tools read of the kernel's tables, of /proc and of shared segments. The first byte
// chooses.
extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    if ( nbrOfBytes == 0 )
        return 0;
    const std::string text( reinterpret_cast< const char* >( dataPtr + 1 ), nbrOfBytes - 1 );
    Tools::Process process;
    std::uint64_t startTicks = 0;
    switch ( dataPtr[0] ) {
    case 'e':
        Tools::parseSemaphoreSets( text );
        break;
    case 'h':
        Tools::parseSegments( text );
        break;
    case 's':
        Tools::parseProcessStat( text, &process, &startTicks );
        break;
    case 'm':
        Tools::parseProcessMaps( text, &process );
        break;
    case 'r':
        if ( Tools::RingHeader::parse( text ).isSound( text.size() ) ) {
            bool isSound = false;
            std::size_t nbrOfEntryBytes = 0;
            for ( const std::string& entry : Tools::ringEntries( text, &isSound ) )
                nbrOfEntryBytes += entry.size();
            if ( nbrOfEntryBytes > text.size() )
                __builtin_trap();
        }
        break;
    case 'c': {
        std::istringstream stream( text );
        const Utils::Config config( stream );
        std::vector< Ctl::Mistake > mistakes;
        Ctl::checkLogConfiguration( config, "/nowhere", &mistakes );
        break;
    }
    case 'z':
        Ctl::ZoneTable::parse( text );
        break;
    default:
        Tools::parseThreadRecords( text );
    }
    return 0;
}
