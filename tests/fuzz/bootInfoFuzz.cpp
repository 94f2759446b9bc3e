// boot.info of any content: no capability without a model, and each is a key of the model's section
// that reads true.

#include "nuvConfig.h"
#include "nuvFuzz.h"
#include "nuvGlobal.h"

#include <sstream>

using Nuv::Utils::Config;
using Nuv::Utils::PlatformFacts;

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    std::istringstream stream( NuvFuzz::text( dataPtr, nbrOfBytes ) );
    const Config config( stream );
    const PlatformFacts facts = PlatformFacts::of( config );
    NuvFuzz::require( !facts.model.empty() || facts.capabilities.empty() );
    std::size_t nbrOfTrue = 0;
    const std::string section = facts.model + "/Capabilities";
    for ( auto iter = config.tspBegin( section ); iter != config.tspEnd( section ); ++iter )
        nbrOfTrue += config.boolValue( section, iter->first, false ) ? 1 : 0;
    NuvFuzz::require( facts.model.empty() || nbrOfTrue == facts.capabilities.size() );
    for ( const std::string& name : facts.capabilities )
        NuvFuzz::require( config.boolValue( section, name, false ) );
    return 0;
}
