#include "nuvSharedMemory.h"

#include "nuvFileSystem.h"
#include "nuvIpcFile.h"
#include "nuvLog.h"
#include "nuvOs.h"

#include <cerrno>
#include <cstring>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

namespace Nuv::Io {

namespace {

constexpr int segmentMode = 0660;
constexpr int maxNbrOfAttempts = 8;

char* const attachFailurePtr = reinterpret_cast< char* >( -1 );

bool setOwnership( int shmId, gid_t groupId )
{
    shmid_ds status = {};
    status.shm_perm.uid = ::geteuid();
    status.shm_perm.gid = groupId;
    status.shm_perm.mode = segmentMode;
    return ::shmctl( shmId, IPC_SET, &status ) == 0;
}

void removeSegment( int shmId, const char* keyFilePtr )
{
    const int errorNbr = errno;
    if ( shmId >= 0 )
        ::shmctl( shmId, IPC_RMID, nullptr );
    ::unlink( keyFilePtr );
    errno = errorNbr;
}

std::string sizeMismatchText( const std::string& name, std::size_t found, unsigned int wanted )
{
    return "segment \"" + name + "\" has " + std::to_string( found ) + " bytes instead of " +
           std::to_string( wanted );
}

} // namespace

SharedMemory::SharedMemory( const std::string& name, unsigned int size, AccessMode mode )
    : mySize( size )
    , mySemaphore( "shm_" + name, 1 )
{
    nuvAssertText( mode == readOnly || mode == readWrite, "false", "Invalid access mode." );
    std::string failedCondition;
    int errorNbr = 0;
    {
        const Mt::SemaphoreLock lock( &mySemaphore );
        failedCondition = obtain( name, mode );
        errorNbr = errno;
    }
    errno = errorNbr;
    nuvCheckResourceText( failedCondition.empty(), failedCondition.c_str() );
}

// The steps that are taken with the semaphore held.
// @return "", or the text of the condition that failed, errno telling why
std::string SharedMemory::obtain( const std::string& name, AccessMode mode )
{
    myKeyFileName = IpcFile::keyFilePathname( "shm_", name ).c_str();
    Utils::SecurityInfo security( Utils::SecurityInfo::ipcObject,
                                  Utils::SecurityInfo::ownerAndGroup );
    if ( ::access( myKeyFileName.cStr(), F_OK ) != 0 &&
         !IpcFile::createKeyFile( myKeyFileName.cStr(), security ) )
        return "mappingFileHandle.isValid()";
    const ::key_t key = FileSystem::ftok( myKeyFileName.cStr(), 1 );
    if ( key == -1 )
        return "shmKey != static_cast< ::key_t >( -1 )";
    if ( key == IPC_PRIVATE ) { // would make a new segment for each who asks
        errno = EDOM;
        return "shmKey != IPC_PRIVATE";
    }
    if ( !getSegment( key, security.groupId() ) )
        return "myMemoryPtr != reinterpret_cast< char* >( -1 )";
    return attach( name, mode );
}

// While the semaphore is held no process of the library removes the segment; only an operator's
// ipcrm can do so between the calls. Then it is made anew.
bool SharedMemory::getSegment( int key, unsigned int groupId )
{
    for ( int attempt = 0; attempt < maxNbrOfAttempts; ++attempt ) {
        myShmId = ::shmget( key, mySize, IPC_CREAT | IPC_EXCL | segmentMode );
        if ( myShmId >= 0 ) {
            myCreated = true;
            if ( setOwnership( myShmId, groupId ) )
                return true;
            removeSegment( myShmId, myKeyFileName.cStr() );
            return false;
        }
        if ( errno != EEXIST ) {
            removeSegment( -1, myKeyFileName.cStr() ); // there is none: the key file is nobody's
            return false;
        }
        myShmId = ::shmget( key, 0, 0 ); // whatever its size
        if ( myShmId >= 0 )
            return true;
        if ( errno != ENOENT )
            return false;
    }
    return false;
}

std::string SharedMemory::attach( const std::string& name, AccessMode mode )
{
    shmid_ds status = {};
    if ( !myCreated && ::shmctl( myShmId, IPC_STAT, &status ) == 0 && status.shm_segsz != mySize ) {
        errno = EINVAL;
        return sizeMismatchText( name, status.shm_segsz, mySize );
    }
    myMemoryPtr =
        static_cast< char* >( ::shmat( myShmId, nullptr, mode == readOnly ? SHM_RDONLY : 0 ) );
    if ( myMemoryPtr == attachFailurePtr ) {
        if ( myCreated )
            removeSegment( myShmId, myKeyFileName.cStr() );
        return "myMemoryPtr != reinterpret_cast< char* >( -1 )";
    }
    myEndPtr = myMemoryPtr + mySize;
    return {};
}

SharedMemory::~SharedMemory()
{
    int errorNbr = 0;
    {
        Mt::SemaphoreLock lock( &mySemaphore, Mt::SemaphoreLock::stateUnlocked );
        lock.lockOrLog();
        if ( !myIsDetached )
            ::shmdt( myMemoryPtr );
        errorNbr = removeIfUnused();
    }
    if ( errorNbr != 0 ) {
        nuvLogTo( Log::getStandardSource( Log::error ) )
            << "errSystemError could not remove " << myKeyFileName.cStr() << " errno " << errorNbr;
    }
}

// To take an attached segment's place is to detach it, in one step.
void SharedMemory::detachLeavingCopy()
{
    const auto pageSize = static_cast< std::size_t >( ::sysconf( _SC_PAGESIZE ) );
    const std::size_t nbrOfBytes = ( mySize + pageSize - 1 ) / pageSize * pageSize;
    void* const copyPtr =
        ::mmap( nullptr, nbrOfBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
    if ( copyPtr == MAP_FAILED )
        return;
    std::memcpy( copyPtr, myMemoryPtr, mySize );
    myIsDetached = ::mremap( copyPtr, nbrOfBytes, nbrOfBytes, MREMAP_MAYMOVE | MREMAP_FIXED,
                             myMemoryPtr ) != MAP_FAILED;
    if ( !myIsDetached )
        ::munmap( copyPtr, nbrOfBytes );
}

// @return 0, or the error number of a removal that failed
int SharedMemory::removeIfUnused()
{
    shmid_ds status = {};
    if ( ::shmctl( myShmId, IPC_STAT, &status ) == 0 ) {
        if ( status.shm_nattch != 0 )
            return 0;
        if ( ::shmctl( myShmId, IPC_RMID, nullptr ) != 0 )
            return errno;
    } else if ( ::shmget( FileSystem::ftok( myKeyFileName.cStr(), 1 ), 0, 0 ) >= 0 ) {
        return 0; // removed under us (ipcrm); the key file has become another segment's
    }
    ::unlink( myKeyFileName.cStr() );
    return 0;
}

int SharedMemory::getLastError()
{
    return errno;
}

} // namespace Nuv::Io
