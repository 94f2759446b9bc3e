#include "nuvSubsystemInfo.h"

#include "nuvSemaphore.h"
#include "nuvTestSupport.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/shm.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {
NuvTest::Fault ourShmgetFault;
NuvTest::Fault ourShmatFault;
} // namespace

extern "C" int __real_shmget( key_t, size_t, int );
extern "C" int __wrap_shmget( key_t key, size_t size, int flags )
{
    return ourShmgetFault.strikes() ? -1 : __real_shmget( key, size, flags );
}
extern "C" void* __real_shmat( int, const void*, int );
extern "C" void* __wrap_shmat( int id, const void* addressPtr, int flags )
{
    return ourShmatFault.strikes() ? reinterpret_cast< void* >( -1 )
                                   : __real_shmat( id, addressPtr, flags );
}

namespace Nuv::Mt {
namespace {

using namespace NuvTest;
using Details = SubsystemInfo::ThreadDetails;
using Array = SubsystemInfo::ThreadDetailsArray;

// The segment is set up once in a process: what needs a fresh one runs in a child of its own.
class SubsystemInfoSegment : public RootFixture
{
protected:
    static void inChild( const std::function< void() >& body )
    {
        const Outcome outcome = runInChild( body );
        EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
    }
    static std::string keyFile() { return root( "ixoRoot/tmp/ipc/shm_ubrdebug_nuvSubsystemInf" ); }
    static Array* segmentPtr()
    {
        struct stat info
        {
        };
        EXPECT_EQ( ::stat( keyFile().c_str(), &info ), 0 );
        const int id = __real_shmget( static_cast< key_t >( info.st_ino ), sizeof( Array ), 0 );
        return static_cast< Array* >( __real_shmat( id, nullptr, 0 ) );
    }
    void TearDown() override { removeInterprocessObjects(); }
};

// -------- records and array

TEST( SubsystemInfoRecord, FieldsLieAtTheirOffsets )
{
    char bytes[sizeof( Details )];
    std::memset( bytes, 0x55, sizeof( bytes ) );
    Details& record = *reinterpret_cast< Details* >( bytes );
    record.clear();
    ASSERT_TRUE( record.claim() );
    record.state( SubsystemInfo::stateCrashed );
    record.wait( WaitKind::semaphore, 0x01020304 );
    record.description( "d" );
    record.statusMessage( "s" );
    const std::uint32_t words[] = { 1, static_cast< std::uint32_t >( ::getpid() ), 5, 2,
                                    0x01020304 };
    EXPECT_EQ( std::memcmp( bytes, words, sizeof( words ) ), 0 );
    EXPECT_STREQ( bytes + 20, "d" );
    EXPECT_STREQ( bytes + 53, "s" );
    EXPECT_EQ( bytes[86], 0x55 );
    EXPECT_EQ( bytes[87], 0x55 );
}

TEST( SubsystemInfoRecord, TextsAreCutAt32CharactersAndNullEmpties )
{
    Details record{};
    std::memset( record.myStatusMessage, 'x', sizeof( record.myStatusMessage ) );
    record.description( "123456789012345678901234567890123456" );
    EXPECT_STREQ( record.myDescription, "12345678901234567890123456789012" );
    EXPECT_EQ( record.myStatusMessage[0], 'x' ) << "the neighbour is untouched";
    record.statusMessage( "short" );
    EXPECT_STREQ( record.myStatusMessage, "short" );
    EXPECT_EQ( record.myStatusMessage[32], '\0' ) << "a field filled by others has its end again";
    record.description( nullptr );
    EXPECT_STREQ( record.myDescription, "" );
}

TEST( SubsystemInfoRecord, ReaderNeverMeetsATextWithoutEnd )
{
    Details record{};
    std::atomic< bool > isDone = false;
    std::thread writer( [&] {
        for ( int i = 0; i < 20000; ++i ) {
            record.description( i % 2 == 0 ? "12345678901234567890123456789012xyz" : "1" );
        }
        isDone = true;
    } );
    while ( !isDone ) {
        std::size_t n = 0;
        while ( n < sizeof( record.myDescription ) &&
                std::atomic_ref< char >( record.myDescription[n] ).load() != '\0' ) {
            ++n;
        }
        ASSERT_LT( n, sizeof( record.myDescription ) );
    }
    writer.join();
}

TEST( SubsystemInfoArray, FirstFreeRecordIsClaimedThenAllShareTheOverflowRecord )
{
    const auto arrayPtr = std::make_unique< Array >();
    arrayPtr->clear();
    EXPECT_EQ( arrayPtr->myHeader, 2u );
    for ( Details& record : arrayPtr->myRecords ) {
        ASSERT_EQ( arrayPtr->newDetail(), &record );
    }
    Details* const overflowPtr = arrayPtr->newDetail();
    EXPECT_TRUE( overflowPtr < arrayPtr->myRecords || overflowPtr >= arrayPtr->myRecords + 100 );
    EXPECT_EQ( arrayPtr->newDetail(), overflowPtr );

    Details& released = arrayPtr->myRecords[40];
    released.description( "old" );
    released.state( SubsystemInfo::stateEndedNormally );
    released.wait( WaitKind::events, 7 );
    released.reset();
    EXPECT_STREQ( released.myDescription, "old" );
    EXPECT_EQ( released.myState, 2u );
    EXPECT_EQ( arrayPtr->newDetail(), &released );
    EXPECT_STREQ( released.myDescription, "" );
    EXPECT_EQ( released.myState + released.myWaitKind, 0u );
    EXPECT_EQ( released.myWaitObject, 0 );
}

TEST( SubsystemInfoArray, ConcurrentThreadsClaimEachRecordOnce )
{
    const auto arrayPtr = std::make_unique< Array >();
    arrayPtr->clear();
    std::atomic< int > nbrOfClaims[Array::nbrOfRecords] = {};
    std::vector< std::thread > threads;
    for ( int t = 0; t < 4; ++t ) {
        threads.emplace_back( [&] {
            for ( int i = 0; i < 25; ++i ) {
                ++nbrOfClaims[arrayPtr->newDetail() - arrayPtr->myRecords];
            }
        } );
    }
    for ( std::thread& thread : threads ) {
        thread.join();
    }
    for ( const std::atomic< int >& n : nbrOfClaims ) {
        EXPECT_EQ( n, 1 );
    }
}

// -------- segment

TEST_F( SubsystemInfoSegment, IsMadeByTheFirstRecordAndKeepsWhatItHolds )
{
    EXPECT_NE( ::access( keyFile().c_str(), F_OK ), 0 );
    inChild( [] {
        SubsystemInfo* const infoPtr = SubsystemInfo::threadletonPtr();
        EXPECT_EQ( SubsystemInfo::threadletonPtr(), infoPtr );
        EXPECT_EQ( infoPtr->detailPtr(), nullptr );
        EXPECT_NE( ::access( keyFile().c_str(), F_OK ), 0 );
        Details* const detailPtr = infoPtr->detail();
        EXPECT_EQ( infoPtr->detail(), detailPtr );
        detailPtr->description( "first" );
        EXPECT_STREQ( segmentPtr()->myRecords[0].myDescription, "first" );
        ::_exit( ::testing::Test::HasFailure() ? 1 : 0 ); // leaves the record behind
    } );
    inChild( [] {
        SubsystemInfo::threadletonPtr()->detail()->description( "second" );
        EXPECT_EQ( segmentPtr()->myHeader, 2u );
        EXPECT_STREQ( segmentPtr()->myRecords[0].myDescription, "first" );
        EXPECT_STREQ( segmentPtr()->myRecords[1].myDescription, "second" );
    } );
}

TEST_F( SubsystemInfoSegment, IsReplacedByOrdinaryMemoryWhenItCannotBeHad )
{
    for ( NuvTest::Fault* faultPtr : { &ourShmgetFault, &ourShmatFault } ) {
        inChild( [=] {
            faultPtr->arm( 1, ENOSPC, NuvTest::Fault::forGood );
            Details* const detailPtr = SubsystemInfo::threadletonPtr()->detail();
            faultPtr->disarm();
            detailPtr->description( "kept" );
            EXPECT_STREQ( SubsystemInfo::threadletonPtr()->detail()->myDescription, "kept" );
            EXPECT_EQ( detailPtr->myInUse, 1u );
            EXPECT_EQ( detailPtr->myProcessId, ::getpid() );
        } );
    }
}

TEST_F( SubsystemInfoSegment, MissingKeyFileIsAResourceFailureThatAMarkSwallows )
{
    inChild( [] {
        Semaphore semaphore( "other", 1 ); // makes the root's folders
        ::unlink( keyFile().c_str() );
        ASSERT_EQ( ::symlink( "/nonexistent/file", keyFile().c_str() ), 0 );
        try {
            SubsystemInfo::threadletonPtr()->allocDetail();
            ADD_FAILURE() << "no exception";
        } catch ( const ResourceException& e ) {
            EXPECT_NE( std::strstr( e.what(), "Condition failed: mappingFileHandle.isValid(),  " ),
                       nullptr );
        }
        markWait( WaitKind::events, 0 );
        markWait( WaitKind::none, 0 );
        EXPECT_EQ( SubsystemInfo::threadletonPtr()->detailPtr(), nullptr );
        ::unlink( keyFile().c_str() );
        markWait( WaitKind::events, 3 ); // the master semaphore was given back
        EXPECT_EQ( SubsystemInfo::threadletonPtr()->detail()->myWaitKind, 3u );
    } );
}

TEST_F( SubsystemInfoSegment, ForkedChildClaimsARecordOfItsOwn )
{
    inChild( [] {
        Details* const parentsPtr = SubsystemInfo::threadletonPtr()->detail();
        parentsPtr->description( "parent" );
        inChild( [=] {
            EXPECT_EQ( SubsystemInfo::threadletonPtr()->detailPtr(), nullptr );
            markWait( WaitKind::semaphore, 9 );
            Details* const childsPtr = SubsystemInfo::threadletonPtr()->detailPtr();
            ASSERT_NE( childsPtr, nullptr );
            EXPECT_NE( childsPtr, parentsPtr );
            EXPECT_EQ( childsPtr->myProcessId, ::getpid() );
            SubsystemInfo::releaseAllAtExit();
            EXPECT_EQ( childsPtr->myInUse, 0u );
            EXPECT_EQ( parentsPtr->myInUse, 1u )
                << "the parent's record is the parent's to release";
        } );
        EXPECT_EQ( parentsPtr->myWaitKind, 0u );
    } );
}

TEST_F( SubsystemInfoSegment, ReleasedThreadReportsToTheOverflowRecord )
{
    inChild( [] {
        SubsystemInfo& info = *SubsystemInfo::threadletonPtr();
        info.releaseDetail( SubsystemInfo::stateEndedNormally ); // without a record: nothing
        EXPECT_EQ( info.detailPtr(), nullptr );
        Details* const detailPtr = info.detail();
        info.releaseDetail( SubsystemInfo::stateEndedByException );
        EXPECT_EQ( detailPtr->myInUse, 0u );
        EXPECT_EQ( detailPtr->myState, 3u );
        markWait( WaitKind::events, 0 );
        EXPECT_EQ( detailPtr->myWaitKind, 0u );
        EXPECT_NE( info.detailPtr(), detailPtr );
        std::thread( [=] {
            EXPECT_EQ( SubsystemInfo::threadletonPtr()->detail(), detailPtr );
            SubsystemInfo::markCrashed();
            EXPECT_EQ( detailPtr->myState, 5u );
        } ).join();
        EXPECT_EQ( detailPtr->myInUse, 0u ) << "released with its thread, whoever started that";
        std::thread( [] { SubsystemInfo::markCrashed(); } ).join(); // no record: nothing
    } );
}

} // namespace
} // namespace Nuv::Mt
