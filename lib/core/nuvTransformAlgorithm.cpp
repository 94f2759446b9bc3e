#include "nuvTransformAlgorithm.h"

namespace Nuv::Utils {

TransformAlgorithm::~TransformAlgorithm() = default;

void TransformAlgorithm::forwardUpdate( const Buffer&, Buffer* )
{
    nuvAssert( false, "forwardUpdate not implemented" );
}

void TransformAlgorithm::reverseUpdate( const Buffer&, Buffer* )
{
    nuvAssert( false, "reverseUpdate not implemented" );
}

void TransformAlgorithm::forwardFinal( Buffer* )
{
    nuvAssert( false, "forwardFinal not implemented" );
}

void TransformAlgorithm::reverseFinal( Buffer* )
{
    nuvAssert( false, "reverseFinal not implemented" );
}

} // namespace Nuv::Utils
