// The number parsers on any text, beside the C library's where both know the form.

#include "nuvFuzz.h"
#include "nuvUtils.h"

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

using NuvFuzz::require;

// Whether the text has the prefix of base 16, which the two treat differently.
bool hasHexPrefix( const std::string& text )
{
    return text.find( "0x" ) != std::string::npos || text.find( "0X" ) != std::string::npos;
}

void requireAgreement( const std::string& text, int base )
{
    char* endPtr = nullptr;
    bool overflow = false;
    const std::uint64_t value = Nuv::Utils::strtou64( text.c_str(), &endPtr, base, &overflow );
    require( endPtr >= text.c_str() && endPtr <= text.c_str() + text.size() );
    bool signedOverflow = false;
    const std::int64_t number =
        Nuv::Utils::strtoi64( text.c_str(), nullptr, base, &signedOverflow );
    require( static_cast< std::uint64_t >( number ) == value );
    require( signedOverflow || !overflow );
    if ( base < 0 || base == 1 || base > 36 || hasHexPrefix( text ) )
        return;

    char* theirEndPtr = nullptr;
    errno = 0;
    const std::uint64_t theirs = std::strtoull( text.c_str(), &theirEndPtr, base );
    if ( errno == 0 && theirEndPtr != text.c_str() )
        require( value == theirs && endPtr == theirEndPtr && !overflow );
    else if ( errno == ERANGE )
        require( endPtr <= theirEndPtr );
    errno = 0;
    const std::int64_t theirNumber = std::strtoll( text.c_str(), &theirEndPtr, base );
    if ( errno == 0 && theirEndPtr != text.c_str() )
        require( number == theirNumber && !signedOverflow );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    if ( nbrOfBytes == 0 )
        return 0;
    const int base = static_cast< int >( dataPtr[0] % 40 ) - 1;
    // Up to the first NUL, as the parsers see it.
    const std::string text(
        std::string( reinterpret_cast< const char* >( dataPtr ) + 1, nbrOfBytes - 1 ).c_str() );
    requireAgreement( text, base );
    requireAgreement( text, 0 );
    requireAgreement( text, 10 );
    return 0;
}
