#include "nuvSharedMemory.h"

#include "nuvFileSystem.h"
#include "nuvTestSupport.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

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

class SharedMemoryTest : public NuvTest::RootFixture
{
protected:
    ~SharedMemoryTest() override { ourShmFault.disarm(); }

    static std::string ipc( const std::string& name ) { return root( "ixoRoot/tmp/ipc/" + name ); }
    static bool exists( const std::string& path ) { return ::access( path.c_str(), F_OK ) == 0; }
    static int nbrOfLines( const std::string& path )
    {
        std::ifstream file( path );
        std::string line;
        int count = -1; // the title
        while ( std::getline( file, line ) ) {
            ++count;
        }
        return count;
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
    static int nbrOfSegments() { return nbrOfLines( "/proc/sysvipc/shm" ); }
};

// @return text of the resource failure, "" if there was none
template < class Action >
std::string resourceFailure( Action&& action )
{
    try {
        action();
    } catch ( const ResourceException& exception ) {
        return exception.what();
    }
    return "";
}

bool contains( const std::string& text, const std::string& part )
{
    return text.find( part ) != std::string::npos;
}

TEST_F( SharedMemoryTest, UsersShareOneSegmentAndTheLastRemovesIt )
{
    auto firstPtr = std::make_unique< SharedMemory >( "a/b", 1000, SharedMemory::readWrite );
    auto secondPtr = std::make_unique< SharedMemory >( "a/b", 1000, SharedMemory::readOnly );
    EXPECT_TRUE( firstPtr->isCreated() );
    EXPECT_FALSE( secondPtr->isCreated() );
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
    EXPECT_TRUE( exists( ipc( "shm_a-b" ) ) );
    EXPECT_TRUE( exists( ipc( "sem_shm_a-b" ) ) );
    EXPECT_STREQ( secondPtr->memoryPtr() + 995, "tail" );
    secondPtr.reset();
    EXPECT_FALSE( exists( ipc( "shm_a-b" ) ) );
    EXPECT_FALSE( exists( ipc( "sem_shm_a-b" ) ) );
    EXPECT_EQ( nbrOfSegments(), 0 );
}

TEST_F( SharedMemoryTest, ReadOnlyAttachmentCannotBeWritten )
{
    {
        const SharedMemory writable( "readOnly", 100, SharedMemory::readWrite );
        const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
            const SharedMemory memory( "readOnly", 100, SharedMemory::readOnly );
            *static_cast< volatile char* >( memory.memoryPtr() ) = 'x';
        } );
        EXPECT_NE( outcome.status, 0 );
        EXPECT_EQ( *writable.memoryPtr(), '\0' );
    }
    EXPECT_EQ( takeBackUses( "readOnly" ), 1 );
}

TEST_F( SharedMemoryTest, SegmentOfAKilledUserGoesOnWithItsContents )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        auto* const memoryPtr = new SharedMemory( "killed", 100, SharedMemory::readWrite );
        std::strcpy( memoryPtr->memoryPtr(), "left" );
        ::_exit( 0 );
    } );
    ASSERT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
    {
        const SharedMemory memory( "killed", 100, SharedMemory::readWrite );
        EXPECT_FALSE( memory.isCreated() );
        EXPECT_STREQ( memory.memoryPtr(), "left" );
    }
    EXPECT_FALSE( exists( ipc( "shm_killed" ) ) );
    EXPECT_EQ( nbrOfSegments(), 0 );
    EXPECT_EQ( takeBackUses( "killed" ), 1 );
}

TEST_F( SharedMemoryTest, AnotherSizeIsAResourceFailureThatNamesBoth )
{
    const SharedMemory memory( "sized", 1000, SharedMemory::readWrite );
    for ( const unsigned int size : { 999u, 1001u, 50000u } ) {
        const std::string text =
            resourceFailure( [&] { SharedMemory( "sized", size, SharedMemory::readWrite ); } );
        EXPECT_TRUE( contains( text, "segment \"sized\" has 1000 bytes instead of " +
                                         std::to_string( size ) + ",  Invalid argument" ) )
            << text;
    }
    EXPECT_TRUE( exists( ipc( "shm_sized" ) ) );
    EXPECT_NO_THROW( SharedMemory( "sized", 1000, SharedMemory::readOnly ) );
}

TEST_F( SharedMemoryTest, InvalidModeAsserts )
{
    try {
        SharedMemory( "mode", 10, static_cast< SharedMemory::AccessMode >( 2 ) );
        ADD_FAILURE() << "no exception";
    } catch ( const LogicException& exception ) {
        EXPECT_TRUE( contains( exception.what(), "failed: false,  Invalid access mode. (" ) );
    }
    EXPECT_FALSE( exists( ipc( "sem_shm_mode" ) ) );
}

TEST_F( SharedMemoryTest, SegmentRemovedUnderItsUserTakesOnlyItsOwnKeyFileAlong )
{
    auto oldPtr = std::make_unique< SharedMemory >( "removed", 10, SharedMemory::readWrite );
    ASSERT_EQ( ::shmctl( oldPtr->shmId(), IPC_RMID, nullptr ), 0 );
    auto freshPtr = std::make_unique< SharedMemory >( "removed", 20, SharedMemory::readWrite );
    EXPECT_TRUE( freshPtr->isCreated() );
    oldPtr.reset();
    EXPECT_TRUE( exists( ipc( "shm_removed" ) ) );
    ASSERT_EQ( ::shmctl( freshPtr->shmId(), IPC_RMID, nullptr ), 0 );
    freshPtr.reset();
    EXPECT_FALSE( exists( ipc( "shm_removed" ) ) );
    EXPECT_EQ( nbrOfSegments(), 0 );
}

TEST_F( SharedMemoryTest, FailedCallsLeaveNothingBehind )
{
    bool isStruck = true;
    for ( int n = 1; isStruck; ++n ) {
        SCOPED_TRACE( n );
        ourShmFault.arm( n, ENOMEM );
        const std::string text =
            resourceFailure( [] { SharedMemory( "faulty", 10, SharedMemory::readWrite ); } );
        isStruck = ourShmFault.nbrOfStrikes() != 0;
        ourShmFault.disarm();
        EXPECT_TRUE(
            !isStruck ||
            contains( text, "failed: myMemoryPtr != reinterpret_cast< char* >( -1 ),  Cannot" ) )
            << text;
        EXPECT_FALSE( exists( ipc( "sem_shm_faulty" ) ) );
        EXPECT_EQ( nbrOfSegments(), 0 );
        ASSERT_LT( n, 10 );
    }
    EXPECT_TRUE(
        contains( resourceFailure( [] { SharedMemory( "empty", 0, SharedMemory::readWrite ); } ),
                  "Invalid argument" ) );

    ASSERT_EQ( ::mkdir( ipc( "shm_folder" ).c_str(), 0777 ), 0 ); // exists, so it is not made
    EXPECT_NO_THROW( SharedMemory( "folder", 10, SharedMemory::readWrite ) );
    ASSERT_EQ( ::rmdir( ipc( "shm_folder" ).c_str() ), 0 );
    ASSERT_EQ( ::symlink( "/missing/file", ipc( "shm_dangling" ).c_str() ), 0 );
    EXPECT_TRUE( contains(
        resourceFailure( [] { SharedMemory( "dangling", 10, SharedMemory::readWrite ); } ),
        "failed: mappingFileHandle.isValid(),  No such file" ) );
    errno = ERANGE;
    EXPECT_EQ( SharedMemory::getLastError(), ERANGE );
}

} // namespace
} // namespace Nuv::Io
