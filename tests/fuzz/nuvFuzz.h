#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

/// What the fuzz targets share.
namespace NuvFuzz {

/// Ends the target, which reports the input, unless the condition holds.
inline void require( bool condition )
{
    if ( !condition )
        std::abort();
}

inline std::string text( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    return std::string( reinterpret_cast< const char* >( dataPtr ), nbrOfBytes );
}

} // namespace NuvFuzz
