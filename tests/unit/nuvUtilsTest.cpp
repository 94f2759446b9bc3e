#include "nuvUtils.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace Nuv::Utils {
namespace {

// Each alive holds a share of the count.
struct Counted
{
    std::shared_ptr< int > myShare;
    CountedPtr< Counted > myNextPtr = {};
};

TEST( CountedPtrOwnership, LastOwnerDeletesTheObjectOnceAssignedInAnyOrder )
{
    const auto count = std::make_shared< int >();
    CountedPtr< Counted > listPtr( new Counted{ count } ), otherPtr( new Counted{ count } );
    CountedPtr< const Counted >{ listPtr } = otherPtr;
    EXPECT_EQ( 1 + 1, listPtr.nbrOfOwners() + otherPtr.nbrOfOwners() );
    listPtr->myNextPtr = new Counted{ count };
    const Counted* const nextPtr = listPtr->myNextPtr.get();
    listPtr = listPtr->myNextPtr; // the source dies with the object that is released
    EXPECT_EQ( nextPtr, listPtr.get() );
    listPtr = listPtr.get(); // the object held
    EXPECT_EQ( 1 + 2, count.use_count() );
    listPtr = otherPtr;
    EXPECT_EQ( 2, otherPtr.nbrOfOwners() );
    listPtr = std::move( otherPtr );
    EXPECT_EQ( 1, listPtr.nbrOfOwners() );
    listPtr.dispose();
    EXPECT_EQ( 1, count.use_count() );
    EXPECT_THROW( *listPtr, LogicException );
}

TEST( HandleOwnership, ClosesOnceAndKeepsErrno )
{
    const auto isOpen = []( int fd ) { return ::fcntl( fd, F_GETFD ) != -1; };
    int fds[2];
    ASSERT_EQ( 0, ::pipe( fds ) );
    {
        Handle reader( fds[0] ), writer( fds[1] );
        reader.reset( fds[0] ); // the same: stays open
        EXPECT_TRUE( isOpen( fds[0] ) );
        reader = std::move( writer );
        EXPECT_FALSE( isOpen( fds[0] ) );
        EXPECT_EQ( fds[1], reader.release() );
    }
    EXPECT_TRUE( isOpen( fds[1] ) );
    errno = ENOSPC;
    Handle( fds[1] ).reset();
    EXPECT_EQ( ENOSPC, errno );
    EXPECT_FALSE( isOpen( fds[1] ) );
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

TEST( SubjectObservers, AreToldWhileAttachedAndNeverAfter )
{
    Station station;
    Listener first;
    station.attach( &first );
    station.attach( &first );
    station.send();
    EXPECT_EQ( 1, first.myCount );
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

TEST( NumberParser, ReadsAsTabled )
{
    // Text, base; then value, nbr of bytes consumed, overflow.
    const std::tuple< std::string, int, std::uint64_t, std::ptrdiff_t, bool > rows[] = {
        { "  -1", 10, UINT64_MAX, 4, false },
        { "18446744073709551615", 10, UINT64_MAX, 20, false },
        { "18446744073709551616", 10, 0, 19, true },
        { "0x1f", 0, 31, 4, false },
        { "0x1f", 16, 0, 1, false }, // an explicit base knows no prefix
        { "z", 36, 35, 1, false },
        { std::string( 65, '1' ), 2, UINT64_MAX, 64, true }, // the last digit changes nothing
        { " -000x", 10, 0, 5, false },
        { " 12", 37, 0, 0, false } };
    for ( const auto& [text, base, value, length, isOverflow] : rows ) {
        SCOPED_TRACE( text );
        char* endPtr = nullptr;
        bool overflow = !isOverflow;
        EXPECT_EQ( value, strtou64( text.c_str(), &endPtr, base, &overflow ) );
        EXPECT_EQ( length, endPtr - text.c_str() );
        EXPECT_EQ( isOverflow, overflow );
    }
    EXPECT_THROW( strtou64( nullptr, nullptr, 10, nullptr ), LogicException );
    // Signed numbers overflow where the sign is lost.
    const std::tuple< const char*, std::int64_t, bool > signedRows[] = {
        { "9223372036854775807", INT64_MAX, false },
        { "9223372036854775808", INT64_MIN, true },
        { "-9223372036854775808", INT64_MIN, false },
        { " -9223372036854775809", INT64_MAX, true },
        { "18446744073709551615", -1, true } };
    for ( const auto& [textPtr, value, isOverflow] : signedRows ) {
        bool overflow = !isOverflow;
        EXPECT_EQ( value, strtoi64( textPtr, nullptr, 10, &overflow ) ) << textPtr;
        EXPECT_EQ( isOverflow, overflow ) << textPtr;
    }
}

} // namespace
} // namespace Nuv::Utils
