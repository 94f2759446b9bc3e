#include "nuvSharedMemory.h"

#include "nuvFileSystem.h"
#include "nuvTestInterprocess.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>

namespace {
NuvTest::Fault ourShmFault; // in any call on segments
}

// NOLINTBEGIN: the linker gives these names
extern "C" int __real_shmget( key_t, size_t, int );
extern "C" int __wrap_shmget( key_t key, size_t size, int flags )
{
    return ourShmFault.strikes() ? -1 : __real_shmget( key, size, flags );
}
extern "C" void* __real_shmat( int, const void*, int );
extern "C" void* __wrap_shmat( int id, const void* addressPtr, int flags )
{
    return ourShmFault.strikes() ? reinterpret_cast< void* >( -1 )
                                 : __real_shmat( id, addressPtr, flags );
}
#if defined( __i386__ )
#define NUV_SHMCTL( prefix ) prefix##__shmctl64
#else
#define NUV_SHMCTL( prefix ) prefix##shmctl
#endif
extern "C" int NUV_SHMCTL( __real_ )( int, int, shmid_ds* );
extern "C" int NUV_SHMCTL( __wrap_ )( int id, int command, shmid_ds* statusPtr )
{
    return command == IPC_SET && ourShmFault.strikes()
               ? -1
               : NUV_SHMCTL( __real_ )( id, command, statusPtr );
}
// NOLINTEND

namespace Nuv::Io {
namespace {

using NuvTest::expectFailure;
using SegmentPtr = std::unique_ptr< SharedMemory >;

class SharedMemoryTest : public NuvTest::InterprocessFixture
{
protected:
    ~SharedMemoryTest() override { ourShmFault.disarm(); }

    static SegmentPtr make( const char* namePtr, unsigned int size,
                            SharedMemory::AccessMode mode = SharedMemory::readWrite )
    {
        return std::make_unique< SharedMemory >( namePtr, size, mode );
    }
    // What an operator does for a killed process, whose use of the segment's semaphore stays.
    // @return number of uses, all of which are taken back
    static int takeBackUses( const std::string& name )
    {
        const Mt::Semaphore semaphore( "shm_" + name, 1 );
        const int nbrOfUses = semaphore.useCount() - 1;
        EXPECT_EQ( ::semctl( semaphore.handle(), Mt::Semaphore::useCountIdx, SETVAL, 1 ), 0 );
        return nbrOfUses;
    }
};

TEST_F( SharedMemoryTest, UsersShareOneSegmentAndTheLastRemovesIt )
{
    SegmentPtr firstPtr = make( "a/b", 1000 );
    SegmentPtr secondPtr = make( "a/b", 1000, SharedMemory::readOnly );
    EXPECT_TRUE( firstPtr->isCreated() && !secondPtr->isCreated() );
    EXPECT_EQ( firstPtr->size(), 1000u );
    EXPECT_EQ( firstPtr->endPtr(), firstPtr->memoryPtr() + 1000 );
    EXPECT_EQ( std::string( firstPtr->memoryPtr(), 1000 ), std::string( 1000, '\0' ) );
    std::memcpy( firstPtr->memoryPtr() + 995, "tail", 5 );
    EXPECT_STREQ( secondPtr->memoryPtr() + 995, "tail" );
    EXPECT_STREQ( firstPtr->keyFileName(), ipc( "shm_a-b" ).c_str() );
    shmid_ds status;
    ASSERT_EQ( ::shmctl( firstPtr->shmId(), IPC_STAT, &status ), 0 );
    EXPECT_EQ( status.shm_perm.mode & 0777, 0660 );
    EXPECT_EQ( status.shm_perm.uid, ::geteuid() );
    EXPECT_EQ( ::shmget( FileSystem::ftok( firstPtr->keyFileName(), 1 ), 0, 0 ),
               firstPtr->shmId() );
    firstPtr.reset();
    EXPECT_TRUE( exists( "shm_a-b" ) && exists( "sem_shm_a-b" ) );
    EXPECT_STREQ( secondPtr->memoryPtr() + 995, "tail" );
    secondPtr.reset();
    EXPECT_FALSE( exists( "shm_a-b" ) || exists( "sem_shm_a-b" ) );
}

TEST_F( SharedMemoryTest, KilledUserLeavesTheSegmentAsItWas )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        const SegmentPtr memoryPtr = make( "killed", 100 );
        std::strcpy( memoryPtr->memoryPtr(), "left" );
        *static_cast< volatile char* >(
            make( "killed", 100, SharedMemory::readOnly )->memoryPtr() ) = 'x'; // kills it
    } );
    EXPECT_NE( outcome.status, 0 );
    const int nbrOfSegments = nbrOfKernelObjects( "shm" );
    {
        const SegmentPtr memoryPtr = make( "killed", 100 );
        EXPECT_FALSE( memoryPtr->isCreated() );
        EXPECT_STREQ( memoryPtr->memoryPtr(), "left" );
    }
    EXPECT_FALSE( exists( "shm_killed" ) );
    EXPECT_EQ( nbrOfKernelObjects( "shm" ), nbrOfSegments - 1 );
    EXPECT_EQ( takeBackUses( "killed" ), 2 );
}

TEST_F( SharedMemoryTest, AnotherSizeOrModeIsRefused )
{
    const SegmentPtr memoryPtr = make( "sized", 1000 );
    for ( const unsigned int size : { 999u, 1001u, 50000u } ) {
        expectFailure( "failed: segment \"sized\" has 1000 bytes instead of " +
                           std::to_string( size ) + ",  Invalid argument",
                       [=] { make( "sized", size ); } );
    }
    EXPECT_NO_THROW( make( "sized", 1000, SharedMemory::readOnly ) );
    expectFailure( "failed: false,  Invalid access mode. (",
                   [] { make( "mode", 10, static_cast< SharedMemory::AccessMode >( 2 ) ); } );
    EXPECT_FALSE( exists( "sem_shm_mode" ) );
    expectFailure( "Invalid argument", [] { make( "empty", 0 ); } );
}

TEST_F( SharedMemoryTest, SegmentRemovedUnderItsUserTakesOnlyItsOwnKeyFileAlong )
{
    SegmentPtr oldPtr = make( "removed", 10 );
    ASSERT_EQ( ::shmctl( oldPtr->shmId(), IPC_RMID, nullptr ), 0 );
    SegmentPtr freshPtr = make( "removed", 20 );
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
    for ( int n = 1; n == 1 || ourShmFault.nbrOfStrikes() != 0; ++n ) {
        SCOPED_TRACE( n );
        ourShmFault.arm( n, ENOMEM );
        const auto isMade = [] { return make( "faulty", 10 ) != nullptr; };
        if ( n <= 3 ) // shmget, shmctl, shmat
            expectFailure( "failed: myMemoryPtr != reinterpret_cast< char* >( -1 ),  Cannot",
                           isMade );
        else
            EXPECT_TRUE( isMade() );
        ourShmFault.disarm();
        EXPECT_FALSE( exists( "shm_faulty" ) || exists( "sem_shm_faulty" ) );
        EXPECT_EQ( nbrOfKernelObjects( "shm" ), nbrOfSegments );
        ASSERT_LT( n, 10 );
    }
    ASSERT_EQ( ::symlink( "/missing/file", ipc( "shm_dangling" ).c_str() ), 0 );
    expectFailure( "failed: mappingFileHandle.isValid(),  No such file",
                   [] { make( "dangling", 10 ); } );
    errno = ERANGE;
    EXPECT_EQ( SharedMemory::getLastError(), ERANGE );
}

} // namespace
} // namespace Nuv::Io
