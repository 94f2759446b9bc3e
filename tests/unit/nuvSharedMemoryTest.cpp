#include "nuvSharedMemory.h"

#include "nuvFileSystem.h"
#include "nuvTestInterprocess.h"
#include "nuvTestWrap.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace {
NuvTest::Fault ourFault; // in any call that makes a segment
}

NUV_FAIL_CALLS( ourFault, -1, int, shmget, ( key_t k, size_t size, int flags ), ( k, size, flags ) )
NUV_FAIL_CALLS( ourFault, reinterpret_cast< void* >( -1 ), void*, shmat,
                ( int id, const void* ptr, int flags ), ( id, ptr, flags ) )
NUV_FAIL_CALLS( ourFault, -1, int, NUV_CTL64( shmctl ), ( int id, int command, shmid_ds* ptr ),
                ( id, command, ptr ) )

namespace Nuv::Io {
namespace {

using NuvTest::expectFailure;

class SharedMemoryTest : public NuvTest::InterprocessFixture
{
protected:
    using Ptr = std::unique_ptr< SharedMemory >;
    static Ptr make( const char* namePtr, unsigned int size,
                     SharedMemory::AccessMode mode = SharedMemory::readWrite )
    {
        return std::make_unique< SharedMemory >( namePtr, size, mode );
    }
};

TEST_F( SharedMemoryTest, UsersShareOneSegmentAndTheLastRemovesIt )
{
    Ptr firstPtr = make( "a/b", 1000 );
    Ptr secondPtr = make( "a/b", 1000, SharedMemory::readOnly );
    EXPECT_TRUE( firstPtr->isCreated() && !secondPtr->isCreated() );
    EXPECT_EQ( firstPtr->endPtr(), firstPtr->memoryPtr() + 1000 );
    EXPECT_EQ( std::string( firstPtr->memoryPtr(), 1000 ), std::string( 1000, '\0' ) );
    std::memcpy( firstPtr->memoryPtr() + 995, "tail", 5 );
    EXPECT_STREQ( firstPtr->keyFileName(), ipc( "shm_a-b" ).c_str() );
    shmid_ds status;
    ASSERT_EQ( ::shmctl( firstPtr->shmId(), IPC_STAT, &status ), 0 );
    EXPECT_EQ( status.shm_perm.mode & 0777, 0660 );
    EXPECT_EQ( status.shm_perm.uid, ::geteuid() );
    EXPECT_EQ( ::shmget( FileSystem::ftok( firstPtr->keyFileName(), 1 ), 0, 0 ),
               firstPtr->shmId() );
    firstPtr.reset();
    EXPECT_STREQ( secondPtr->memoryPtr() + 995, "tail" );
    EXPECT_NE( NuvTest::runInChild( [&] { *secondPtr->memoryPtr() = 'x'; } ).status, 0 );
    secondPtr.reset();
    EXPECT_FALSE( exists( "shm_a-b" ) || exists( "sem_shm_a-b" ) );
}

TEST_F( SharedMemoryTest, AnotherSizeOrModeIsRefused )
{
    const Ptr memoryPtr = make( "sized", 1000 );
    for ( const unsigned int size : { 999u, 1001u, 50000u } ) {
        expectFailure( "failed: segment \"sized\" has 1000 bytes instead of " +
                           std::to_string( size ) + ",  Invalid argument",
                       [=] { make( "sized", size ); } );
    }
    expectFailure( "failed: false,  Invalid access mode. (",
                   [] { make( "mode", 10, static_cast< SharedMemory::AccessMode >( 2 ) ); } );
    EXPECT_FALSE( exists( "sem_shm_mode" ) );
    expectFailure( "Invalid argument", [] { make( "empty", 0 ); } );
    ASSERT_EQ( ::symlink( "/missing/file", ipc( "shm_dangling" ).c_str() ), 0 );
    expectFailure( "failed: mappingFileHandle.isValid(),  No such file",
                   [] { make( "dangling", 10 ); } );
}

TEST_F( SharedMemoryTest, SegmentRemovedUnderItsUserTakesOnlyItsOwnKeyFileAlong )
{
    Ptr oldPtr = make( "removed", 10 );
    ASSERT_EQ( ::shmctl( oldPtr->shmId(), IPC_RMID, nullptr ), 0 );
    Ptr freshPtr = make( "removed", 20 );
    EXPECT_TRUE( freshPtr->isCreated() );
    oldPtr.reset();
    EXPECT_TRUE( exists( "shm_removed" ) );
    ASSERT_EQ( ::shmctl( freshPtr->shmId(), IPC_RMID, nullptr ), 0 );
    freshPtr.reset();
    EXPECT_FALSE( exists( "shm_removed" ) );
}

TEST_F( SharedMemoryTest, FailedCallsLeaveNothingBehind )
{
    const int nbrOfSegments = nbrOfKernelObjects( "shm" );
    for ( int n = 1; n <= 3; ++n ) { // shmget, shmctl, shmat
        ourFault.arm( n, ENOMEM );
        expectFailure( "failed: myMemoryPtr != reinterpret_cast< char* >( -1 ),  Cannot",
                       [] { make( "faulty", 10 ); } );
        ourFault.disarm();
        EXPECT_FALSE( exists( "shm_faulty" ) || exists( "sem_shm_faulty" ) ) << n;
        EXPECT_EQ( nbrOfKernelObjects( "shm" ), nbrOfSegments ) << n;
    }
}

} // namespace
} // namespace Nuv::Io
