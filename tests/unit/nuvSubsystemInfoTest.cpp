#include "nuvSubsystemInfo.h"

#include "nuvSemaphore.h"
#include "nuvTestInterprocess.h"
#include "nuvTestWrap.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <sys/shm.h>
#include <thread>
#include <unistd.h>

namespace {
NuvTest::Fault ourShmgetFault;
NuvTest::Fault ourShmatFault;
} // namespace

NUV_FAIL_CALLS( ourShmgetFault, -1, int, shmget, ( key_t key, size_t size, int flags ),
                ( key, size, flags ) )
NUV_FAIL_CALLS( ourShmatFault, reinterpret_cast< void* >( -1 ), void*, shmat,
                ( int id, const void* p, int flags ), ( id, p, flags ) )

namespace Nuv::Mt {
namespace {

using namespace NuvTest;
using Details = SubsystemInfo::ThreadDetails;
using Array = SubsystemInfo::ThreadDetailsArray;

// The segment is set up once in a process: what needs a fresh one runs in a child of its own.
class SubsystemInfoSegment : public InterprocessFixture
{
protected:
    void TearDown() override { removeInterprocessObjects(); }

    const std::string myKeyFile = ipc( "shm_ubrdebug_nuvSubsystemInf" );
};

TEST( SubsystemInfoRecord, ReaderNeverMeetsATextWithoutEnd )
{
    Details record{};
    std::atomic< bool > isDone = false;
    std::thread writer( [&] {
        for ( int i = 0; i < 20000; ++i )
            record.description( i % 2 == 0 ? "12345678901234567890123456789012xyz" : "1" );
        isDone = true;
    } );
    bool isEnded = true;
    while ( !isDone && isEnded )
        isEnded = std::ranges::any_of( record.myDescription, []( char& c ) {
            return std::atomic_ref< char >( c ).load() == '\0';
        } );
    writer.join();
    EXPECT_TRUE( isEnded );
}

TEST( SubsystemInfoArray, EachRecordIsClaimedOnceThenAllShareTheOverflowRecord )
{
    const auto arrayPtr = std::make_unique< Array >();
    arrayPtr->clear();
    std::atomic< int > nbrOfClaims[Array::nbrOfRecords] = {};
    std::vector< std::thread > threads;
    for ( int t = 0; t < 4; ++t ) {
        threads.emplace_back( [&] {
            for ( int i = 0; i < 25; ++i )
                ++nbrOfClaims[arrayPtr->newDetail() - arrayPtr->myRecords];
        } );
    }
    for ( std::thread& thread : threads )
        thread.join();
    for ( const std::atomic< int >& n : nbrOfClaims )
        EXPECT_EQ( n, 1 );
    Details* const overflowPtr = arrayPtr->newDetail();
    EXPECT_TRUE( overflowPtr < arrayPtr->myRecords || overflowPtr >= arrayPtr->myRecords + 100 );
    EXPECT_EQ( arrayPtr->newDetail(), overflowPtr );

    Details& released = arrayPtr->myRecords[40];
    released.description( "old" );
    released.wait( WaitKind::events, 7 );
    released.reset();
    EXPECT_STREQ( released.myDescription, "old" );
    EXPECT_EQ( arrayPtr->newDetail(), &released );
    EXPECT_STREQ( released.myDescription, "" );
    EXPECT_EQ( released.myWaitKind, 0u );
}

TEST_F( SubsystemInfoSegment, IsReplacedByOrdinaryMemoryWhenItCannotBeHad )
{
    for ( Fault* const faultPtr : { &ourShmgetFault, &ourShmatFault } ) {
        passInChild( [&] {
            SubsystemInfo& info = *SubsystemInfo::threadletonPtr();
            EXPECT_EQ( info.detailPtr(), nullptr );
            EXPECT_NE( ::access( myKeyFile.c_str(), F_OK ), 0 ) << "before its first use";
            faultPtr->arm( 1, ENOSPC, Fault::forGood );
            info.detail()->description( "kept" );
            faultPtr->disarm();
            EXPECT_STREQ( info.detail()->myDescription, "kept" );
            EXPECT_EQ( info.detail()->myProcessId, ::getpid() );
            ::unlink( myKeyFile.c_str() );
        } );
    }
}

TEST_F( SubsystemInfoSegment, MissingKeyFileIsAResourceFailureThatAMarkSwallows )
{
    passInChild( [this] {
        Semaphore semaphore( "other", 1 ); // makes the root's folders
        ASSERT_EQ( ::symlink( "/nonexistent/file", myKeyFile.c_str() ), 0 );
        expectFailure( "Condition failed: mappingFileHandle.isValid(),  ",
                       [] { SubsystemInfo::threadletonPtr()->allocDetail(); } );
        markWait( WaitKind::events, 0 );
        markWait( WaitKind::none, 0 );
        EXPECT_EQ( SubsystemInfo::threadletonPtr()->detailPtr(), nullptr );
        ::unlink( myKeyFile.c_str() );
        markWait( WaitKind::events, 3 ); // the master semaphore was given back
        EXPECT_EQ( SubsystemInfo::threadletonPtr()->detail()->myWaitKind, 3u );
    } );
}

TEST_F( SubsystemInfoSegment, ForkedChildClaimsARecordOfItsOwn )
{
    passInChild( [] {
        Details* const parentsPtr = SubsystemInfo::threadletonPtr()->detail();
        passInChild( [=] {
            EXPECT_EQ( SubsystemInfo::threadletonPtr()->detailPtr(), nullptr );
            markWait( WaitKind::semaphore, 9 );
            Details* const childsPtr = SubsystemInfo::threadletonPtr()->detailPtr();
            ASSERT_TRUE( childsPtr != nullptr && childsPtr != parentsPtr );
            EXPECT_EQ( childsPtr->myProcessId, ::getpid() );
            SubsystemInfo::releaseAllAtExit();
            EXPECT_EQ( childsPtr->myInUse, 0u );
            EXPECT_EQ( parentsPtr->myInUse, 1u ) << "the parent's to release";
        } );
        EXPECT_EQ( parentsPtr->myWaitKind, 0u );
    } );
}

TEST_F( SubsystemInfoSegment, ReleasedThreadReportsToTheOverflowRecord )
{
    passInChild( [] {
        SubsystemInfo& info = *SubsystemInfo::threadletonPtr();
        info.releaseDetail( SubsystemInfo::stateEndedNormally ); // without a record: nothing
        SubsystemInfo::markCrashed();                            // the same
        EXPECT_EQ( info.detailPtr(), nullptr );
        Details* const detailPtr = info.detail();
        info.releaseDetail( SubsystemInfo::stateEndedByException );
        EXPECT_EQ( detailPtr->myInUse, 0u );
        EXPECT_EQ( detailPtr->myState, 3u );
        markWait( WaitKind::events, 0 );
        EXPECT_EQ( detailPtr->myWaitKind, 0u );
        std::thread( [=] {
            EXPECT_EQ( SubsystemInfo::threadletonPtr()->detail(), detailPtr );
            SubsystemInfo::markCrashed();
            EXPECT_EQ( detailPtr->myState, 5u );
        } ).join();
        EXPECT_EQ( detailPtr->myInUse, 0u ) << "released with its thread, whoever started that";
    } );
}

} // namespace
} // namespace Nuv::Mt
