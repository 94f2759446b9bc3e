#include "nuvUtils.h"

#include "nuvBuffer.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace Nuv::Utils {
namespace {

constexpr StaticMap< const char*, int >::Pair ourPairs[] = { { "b", 2 }, { "d", 4 }, { "dd", 44 } };
constexpr StaticMap< const char*, int > ourMap( ourPairs );
static_assert( ourMap.isSorted() && ourMap.find( "d" )->value == 4 );

TEST( StaticMapFind, ReturnsTheEndForWhatIsMissing )
{
    for ( const char* keyPtr : { "", "a", "bb", "c", "ddd", "e", "\x80" } ) {
        SCOPED_TRACE( keyPtr );
        EXPECT_EQ( ourMap.end(), ourMap.find( keyPtr ) );
        EXPECT_EQ( ourMap.end(), ourMap.find( std::string_view( keyPtr ) ) );
    }
    EXPECT_EQ( 44, ourMap.find( std::string( "dd" ) )->value );
    constexpr StaticMap< int, int >::Pair twice[] = { { 1, 1 }, { 1, 2 } };
    EXPECT_FALSE( ( StaticMap< int, int >( twice ).isSorted() ) );
    EXPECT_EQ( ourMap.end(), ourMap.find( std::string_view( "b\0", 2 ) ) );
}

// Counts its living instances.
struct Counted
{
    explicit Counted( std::atomic< int >* nbrPtr )
        : myNbrPtr( nbrPtr )
    {
        ++*myNbrPtr;
    }
    Counted( const Counted& ) = delete;
    Counted& operator=( const Counted& ) = delete;
    virtual ~Counted() { --*myNbrPtr; }

    std::atomic< int >* myNbrPtr;
    CountedPtr< Counted > myNextPtr;
    int myValue = 0;
};

TEST( CountedPtrOwnership, LastOwnerDeletesTheObjectOnceAssignedInAnyOrder )
{
    std::atomic< int > nbrAlive{ 0 };
    CountedPtr< Counted > first( new Counted( &nbrAlive ) );
    {
        const CountedPtr< Counted > second( first );
        CountedPtr< const Counted > third;
        third = second;
        EXPECT_EQ( 3, first.nbrOfOwners() );
    }
    EXPECT_EQ( 1, first.nbrOfOwners() );
    first.dispose();
    EXPECT_EQ( 0, nbrAlive );
    EXPECT_THROW( *first, LogicException );
    CountedPtr< Counted > listPtr( new Counted( &nbrAlive ) ), otherPtr( new Counted( &nbrAlive ) );
    listPtr->myNextPtr = CountedPtr< Counted >( new Counted( &nbrAlive ) );
    const Counted* const nextPtr = listPtr->myNextPtr.get();
    listPtr = listPtr->myNextPtr; // the source dies with the object that is released
    EXPECT_EQ( nextPtr, listPtr.get() );
    listPtr = listPtr.get(); // the object held
    listPtr = otherPtr;
    EXPECT_EQ( 2, otherPtr.nbrOfOwners() );
    listPtr = new Counted( &nbrAlive );
    EXPECT_EQ( 1, otherPtr.nbrOfOwners() );
    listPtr = std::move( otherPtr );
    EXPECT_EQ( 1, nbrAlive );
    EXPECT_EQ( 1, listPtr.nbrOfOwners() );
}

TEST( PtrOwnership, StoringDeletesWhatWasHeld )
{
    std::atomic< int > nbrAlive{ 0 };
    Ptr< Counted > ptr( new Counted( &nbrAlive ) );
    ptr = new Counted( &nbrAlive );
    EXPECT_EQ( 1, nbrAlive );
    ptr.reset( ptr.get() );
    Ptr< Counted > other( std::move( ptr ) );
    EXPECT_FALSE( ptr ); // NOLINT: moved-from is defined as null
    EXPECT_THROW( *ptr, LogicException );
    delete other.release();
    other.reset();
    EXPECT_EQ( 0, nbrAlive );
}

TEST( HandleOwnership, ClosesOnceAndKeepsErrno )
{
    const auto isOpen = []( int fd ) { return ::fcntl( fd, F_GETFD ) != -1; };
    int fds[2];
    ASSERT_EQ( 0, ::pipe( fds ) );
    {
        Handle reader( fds[0] );
        Handle writer( fds[1] );
        EXPECT_EQ( 1, ::write( writer, "x", 1 ) );
        reader.reset( fds[0] ); // the same: stays open
        EXPECT_TRUE( isOpen( fds[0] ) );
        reader = std::move( writer );
        EXPECT_FALSE( isOpen( fds[0] ) );
        EXPECT_EQ( fds[1], reader.release() );
    }
    EXPECT_TRUE( isOpen( fds[1] ) );
    {
        const Handle writer( fds[1] );
        errno = ENOSPC;
    }
    EXPECT_EQ( ENOSPC, errno );
    EXPECT_FALSE( isOpen( fds[1] ) );
}

TEST( RetryOnEintr, RepeatsInterruptedCallsAlone )
{
    int nbrOfCalls = 0;
    EXPECT_EQ( -1, retryOnEintr( [&] {
        errno = ++nbrOfCalls < 3 ? EINTR : EBADF;
        return -1;
    } ) );
    EXPECT_EQ( 3, nbrOfCalls );
    EXPECT_EQ( EBADF, errno );
}

TEST( TokenScannerFields, StandBetweenRunsOfDelimiters )
{
    TokenScanner< Buffer > scanner( Buffer( ",a;;bc=d" ) );
    std::string token;
    EXPECT_TRUE( scanner.next( &token, ",;" ) );
    EXPECT_EQ( "a", token );
    EXPECT_TRUE( scanner.next( nullptr, "=;" ) ); // skipped; the delimiters may change
    EXPECT_TRUE( scanner.next( &token, "=" ) );
    EXPECT_EQ( "d", token );
    EXPECT_FALSE( scanner.next( &token, "=" ) );
    EXPECT_EQ( "", token );
    EXPECT_THROW( scanner.next( &token, nullptr ), LogicException );
}

struct Station : Subject< Station >
{
    void send() { notifyObservers( *this ); }
};

struct Listener : Observer< Station >
{
    void update( Station& station ) override
    {
        ++myCount;
        EXPECT_THROW( station.attach( this ), LogicException );
        EXPECT_THROW( station.detach( this ), LogicException );
    }
    int myCount = 0;
};

TEST( SubjectObservers, AreToldWhileAttached )
{
    Station station;
    Listener first, second;
    station.attach( &first );
    station.attach( &first );
    station.attach( &second );
    station.send();
    station.detach( &second );
    station.send();
    EXPECT_EQ( 2, first.myCount );
    EXPECT_EQ( 1, second.myCount );
}

TEST( SubjectThreads, NoUpdateRunsAfterDetach )
{
    Station station;
    std::atomic< bool > isDone{ false };
    std::thread sender( [&] {
        while ( !isDone )
            station.send();
    } );
    for ( int round = 0; round < 500; ++round ) {
        Listener listener; // touched by the sender without a lock of its own
        station.attach( &listener );
        station.detach( &listener );
    }
    isDone = true;
    sender.join();
}

TEST( CallbackFunctorCall, ReachesWhatItIsBoundTo )
{
    struct Backup
    {
        int run( Backup* argumentPtr ) { return argumentPtr == this ? ++myNbrOfRuns : -1; }
        int myNbrOfRuns = 0;
    } backup;
    const CallbackFunctor< int, Backup* > member( &backup, &Backup::run );
    EXPECT_EQ( 1, member( &backup ) );
    const CallbackFunctor< int, Backup* > lambda( []( Backup* ptr ) { return ptr->myNbrOfRuns; } );
    EXPECT_EQ( 1, lambda( &backup ) );
    const CallbackFunctor< int, Backup* > unbound;
    EXPECT_THROW( unbound( &backup ), LogicException );
}

TEST( NumberParser, ReadsUnsignedAsTabled )
{
    // Text, base; then value, nbr of bytes consumed, overflow.
    const std::tuple< const char*, int, std::uint64_t, std::ptrdiff_t, bool > rows[] = {
        { "  -1", 10, UINT64_MAX, 4, false },
        { "\v\f+12x", 10, 12, 5, false },
        { "18446744073709551615", 10, UINT64_MAX, 20, false },
        { "18446744073709551616", 10, 0, 19, true },
        { "0x1f", 0, 31, 4, false },
        { "017", 0, 15, 3, false },
        { "0x1f", 16, 0, 1, false }, // an explicit base knows no prefix
        { "z", 36, 35, 1, false },
        // the 65th digit leaves the value as it was
        { "11111111111111111111111111111111111111111111111111111111111111111", 2, UINT64_MAX, 64,
          true },
        { " -000x", 10, 0, 5, false },
        { " 12", 37, 0, 0, false },
    };
    for ( const auto& [textPtr, base, value, length, isOverflow] : rows ) {
        SCOPED_TRACE( textPtr );
        char* endPtr = nullptr;
        bool overflow = !isOverflow;
        EXPECT_EQ( value, strtou64( textPtr, &endPtr, base, &overflow ) );
        EXPECT_EQ( length, endPtr - textPtr );
        EXPECT_EQ( isOverflow, overflow );
    }
    EXPECT_THROW( strtou64( nullptr, nullptr, 10, nullptr ), LogicException );
}

TEST( NumberParser, SignedOverflowsWhereTheSignIsLost )
{
    const std::tuple< const char*, std::int64_t, bool > rows[] = {
        { "9223372036854775807", INT64_MAX, false },
        { "9223372036854775808", INT64_MIN, true },
        { "-9223372036854775808", INT64_MIN, false },
        { " -9223372036854775809", INT64_MAX, true },
        { "-0", 0, false },
        { "18446744073709551615", -1, true },
    };
    for ( const auto& [textPtr, value, isOverflow] : rows ) {
        SCOPED_TRACE( textPtr );
        bool overflow = !isOverflow;
        EXPECT_EQ( value, strtoi64( textPtr, nullptr, 10, &overflow ) );
        EXPECT_EQ( isOverflow, overflow );
        EXPECT_EQ( value, strtoi64( textPtr, nullptr, 10, nullptr ) );
    }
}

} // namespace
} // namespace Nuv::Utils
