#include "nuvVersionedRecord.h"

#include "nuvTime.h"

#include <atomic>
#include <cstring>
#include <sched.h>

namespace Nuv::HealthAndSecurity {

namespace {

constexpr std::uint32_t maxWaitForWriterMs = 1000;

#if defined( __SANITIZE_THREAD__ )
#define NUV_COPY_BY_WORDS 1
#elif defined( __has_feature )
#if __has_feature( thread_sanitizer )
#define NUV_COPY_BY_WORDS 1
#endif
#endif

// The copy races with the other side by design; the version word tells whether it was whole. As
// words it is free of data races in the language's sense, which the thread sanitizer needs; as a
// block it is the same on the machine, and four times as fast.
void copy( void* toPtr, const void* fromPtr, std::size_t nbrOfBytes )
{
#if defined( NUV_COPY_BY_WORDS )
    auto* const to = static_cast< std::uint32_t* >( toPtr );
    auto* const from = static_cast< const std::uint32_t* >( fromPtr );
    for ( std::size_t i = 0; i < nbrOfBytes / sizeof( std::uint32_t ); ++i ) {
        __atomic_store_n( &to[i], __atomic_load_n( &from[i], __ATOMIC_RELAXED ), __ATOMIC_RELAXED );
    }
#else
    std::memcpy( toPtr, fromPtr, nbrOfBytes );
#endif
}

// The sanitizer knows no fences; to it the orders on the version word say the same.
void fence( [[maybe_unused]] std::memory_order order )
{
#if !defined( NUV_COPY_BY_WORDS )
    std::atomic_thread_fence( order );
#endif
}

// Sets the busy bit. @return the word with it
std::uint32_t acquire( std::atomic_ref< std::uint32_t > version )
{
    std::uint32_t word = version.load( std::memory_order_relaxed );
    if ( ( word & VersionedRecord::busyBit ) == 0 &&
         version.compare_exchange_strong( word, word | VersionedRecord::busyBit,
                                          std::memory_order_acq_rel ) )
        return word | VersionedRecord::busyBit;
    Utils::MsTimer timer;
    for ( ;; ) {
        const bool isBusy = ( word & VersionedRecord::busyBit ) != 0;
        if ( !isBusy || timer.totalTime() > maxWaitForWriterMs ) {
            // A new count tells the writer that it takes over from, should it live, that it lost.
            const std::uint32_t counter = isBusy ? word + 1 : word;
            const std::uint32_t mine =
                ( counter & VersionedRecord::counterMask ) | VersionedRecord::busyBit;
            if ( version.compare_exchange_strong( word, mine, std::memory_order_acq_rel ) )
                return mine;
            continue;
        }
        ::sched_yield();
        word = version.load( std::memory_order_relaxed );
    }
}

} // namespace

void VersionedRecord::commit( std::uint32_t* versionPtr, const Part* partsPtr, int nbrOfParts )
{
    const std::atomic_ref< std::uint32_t > version( *versionPtr );
    std::uint32_t word = acquire( version );
    fence( std::memory_order_release ); // the busy bit is seen before any byte of the copy
    for ( int i = 0; i < nbrOfParts; ++i ) {
        copy( partsPtr[i].sharedPtr, partsPtr[i].privatePtr, partsPtr[i].nbrOfBytes );
    }
    version.compare_exchange_strong( word, ( word + 1 ) & counterMask, std::memory_order_release,
                                     std::memory_order_relaxed );
}

bool VersionedRecord::read( std::uint32_t* versionPtr, const Part* partsPtr, int nbrOfParts )
{
    const std::atomic_ref< std::uint32_t > version( *versionPtr );
    const std::uint32_t before = version.load( std::memory_order_acquire );
    if ( ( before & busyBit ) != 0 )
        return false;
    for ( int i = 0; i < nbrOfParts; ++i ) {
        copy( partsPtr[i].privatePtr, partsPtr[i].sharedPtr, partsPtr[i].nbrOfBytes );
    }
    fence( std::memory_order_acquire ); // no byte of the copy is read after the word
    return version.load( std::memory_order_relaxed ) == before;
}

} // namespace Nuv::HealthAndSecurity
