#include "nuvStackSymbols.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <link.h>

namespace Nuv {

namespace {

// The tables of an object's dynamic section that symbols are found by.
struct SymbolTable
{
    const ElfW( Sym ) * symbolsPtr = nullptr;
    const char* namesPtr = nullptr;
    const std::uint32_t* gnuHashPtr = nullptr;
    const std::uint32_t* hashPtr = nullptr;
};

// The loader has turned the section's offsets into addresses, except where it cannot write (vDSO).
template < class Pointed >
void setAddress( const Pointed** resultPtr, const link_map& map, ElfW( Addr ) value )
{
    const ElfW( Addr ) address = value < map.l_addr ? value + map.l_addr : value;
    *resultPtr = reinterpret_cast< const Pointed* >( address );
}

SymbolTable symbolTable( const link_map& map )
{
    SymbolTable table;
    for ( const ElfW( Dyn )* entryPtr = map.l_ld; entryPtr->d_tag != DT_NULL; ++entryPtr ) {
        switch ( entryPtr->d_tag ) {
        case DT_SYMTAB:
            setAddress( &table.symbolsPtr, map, entryPtr->d_un.d_ptr );
            break;
        case DT_STRTAB:
            setAddress( &table.namesPtr, map, entryPtr->d_un.d_ptr );
            break;
        case DT_GNU_HASH:
            setAddress( &table.gnuHashPtr, map, entryPtr->d_un.d_ptr );
            break;
        case DT_HASH:
            setAddress( &table.hashPtr, map, entryPtr->d_un.d_ptr );
            break;
        default:
            break;
        }
    }
    return table;
}

// GNU hash: { number of buckets, first symbol, words of the filter, shift }, filter, buckets,
// chains; a chain ends with an odd hash, and the last symbol ends the chain of the highest bucket.
std::size_t endOfGnuHash( const std::uint32_t* hashPtr )
{
    const std::uint32_t nbrOfBuckets = hashPtr[0];
    const std::uint32_t firstSymbol = hashPtr[1];
    const std::size_t filterWords =
        hashPtr[2] * ( sizeof( ElfW( Addr ) ) / sizeof( std::uint32_t ) );
    const std::uint32_t* const bucketsPtr = hashPtr + 4 + filterWords;
    const std::uint32_t* const chainsPtr = bucketsPtr + nbrOfBuckets;
    std::uint32_t last = 0;
    for ( std::uint32_t i = 0; i < nbrOfBuckets; ++i ) {
        last = std::max( last, bucketsPtr[i] );
    }
    if ( last < firstSymbol )
        return 0;
    while ( ( chainsPtr[last - firstSymbol] & 1 ) == 0 ) {
        ++last;
    }
    return last + std::size_t{ 1 };
}

std::size_t nbrOfSymbols( const SymbolTable& table )
{
    if ( table.symbolsPtr == nullptr || table.namesPtr == nullptr )
        return 0;
    if ( table.gnuHashPtr != nullptr )
        return endOfGnuHash( table.gnuHashPtr );
    return table.hashPtr != nullptr ? table.hashPtr[1] : 0;
}

bool covers( const ElfW( Sym ) & symbol, ElfW( Addr ) offset )
{
    return symbol.st_shndx != SHN_UNDEF && symbol.st_value != 0 && symbol.st_value <= offset &&
           offset - symbol.st_value < symbol.st_size;
}

} // namespace

StackSymbol::StackSymbol( const void* addressPtr ) noexcept
{
#if __GLIBC_PREREQ( 2, 35 )
    dl_find_object found;
    if ( ::_dl_find_object( const_cast< void* >( addressPtr ), &found ) != 0 )
        return;
    const link_map& map = *found.dlfo_link_map;
    myObjectPtr = map.l_name[0] != '\0' ? map.l_name : program_invocation_name;
    myOffset = reinterpret_cast< std::uintptr_t >( addressPtr ) - map.l_addr;
    const SymbolTable table = symbolTable( map );
    const std::size_t endOfSymbols = nbrOfSymbols( table );
    for ( std::size_t i = 0; i < endOfSymbols; ++i ) {
        const ElfW( Sym )& symbol = table.symbolsPtr[i];
        if ( !covers( symbol, myOffset ) )
            continue;
        myNamePtr = table.namesPtr + symbol.st_name;
        myOffset -= symbol.st_value;
        return;
    }
#else
    static_cast< void >( addressPtr );
#endif
}

} // namespace Nuv
