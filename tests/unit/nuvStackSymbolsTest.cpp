#include "nuvStackSymbols.h"

#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/auxv.h>

namespace Nuv {
namespace {

const void* plus( const void* addressPtr, std::size_t nbrOfBytes )
{
    return static_cast< const char* >( addressPtr ) + nbrOfBytes;
}

// Not exported: the program has no name for it.
__attribute__( ( noinline ) ) int hiddenFunction( int value )
{
    return value + 1;
}

} // namespace

TEST( StackSymbol, NamesExportedFunctionsByObjectNameAndOffset )
{
    for ( const char* const namePtr : { "abort", "fopen", "pthread_create", "_ZSt9terminatev",
                                        "__cxa_throw", "_Unwind_Resume" } ) {
        SCOPED_TRACE( namePtr );
        const void* const addressPtr = ::dlsym( RTLD_DEFAULT, namePtr );
        Dl_info info{};
        ASSERT_NE( ::dladdr( addressPtr, &info ), 0 );
        for ( const std::size_t offset : { 0, 1, 7 } ) {
            const StackSymbol symbol( plus( addressPtr, offset ) );
            ASSERT_NE( symbol.myNamePtr, nullptr );
            // A function may be exported under several names.
            EXPECT_EQ( ::dlsym( RTLD_DEFAULT, symbol.myNamePtr ), addressPtr ) << symbol.myNamePtr;
            EXPECT_EQ( symbol.myOffset, offset );
            EXPECT_STREQ( symbol.myObjectPtr, info.dli_fname );
        }
    }
}

TEST( StackSymbol, GivesTheOffsetInTheObjectWhereNoNameIsExported )
{
    const void* const addressPtr = reinterpret_cast< const void* >( &hiddenFunction );
    Dl_info info{};
    ASSERT_NE( ::dladdr( addressPtr, &info ), 0 );
    const StackSymbol symbol( plus( addressPtr, 2 ) );
    EXPECT_EQ( symbol.myNamePtr, nullptr );
    EXPECT_EQ( plus( info.dli_fbase, symbol.myOffset ), plus( addressPtr, 2 ) );
    EXPECT_NE( std::strstr( symbol.myObjectPtr, "nuvStackSymbolsTest" ), nullptr );
}

// The loader cannot write into this one: its tables are offsets still.
TEST( StackSymbol, ReadsTheKernelsOwnObject )
{
    const auto startPtr = reinterpret_cast< const void* >( ::getauxval( AT_SYSINFO_EHDR ) );
    if ( startPtr == nullptr )
        GTEST_SKIP() << "no such object here";
    bool isFound = false;
    for ( std::size_t offset = 0; !isFound && offset < 8192; ++offset ) {
        const StackSymbol symbol( plus( startPtr, offset ) );
        isFound =
            symbol.myNamePtr != nullptr && std::strstr( symbol.myNamePtr, "gettime" ) != nullptr;
    }
    EXPECT_TRUE( isFound );
}

TEST( StackSymbol, IsEmptyOutsideAllObjects )
{
    const int local = 0;
    for ( const void* const addressPtr :
          { static_cast< const void* >( nullptr ), static_cast< const void* >( &local ),
            reinterpret_cast< const void* >( UINTPTR_MAX ) } ) {
        const StackSymbol symbol( addressPtr );
        EXPECT_EQ( symbol.myObjectPtr, nullptr );
        EXPECT_EQ( symbol.myNamePtr, nullptr );
        EXPECT_EQ( symbol.myOffset, 0u );
    }
}

} // namespace Nuv
