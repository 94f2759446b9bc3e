#include "nuvIpcRepair.h"

#include "nuvSemaphore.h"
#include "nuvSubsystemInfo.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

namespace Nuv::Tools {

namespace {

constexpr unsigned int masterTimeoutMs = 5000;
constexpr unsigned int guardTimeoutMs = 500;

// semctl's fourth argument; the C library leaves its declaration to the caller.
union SemaphoreArgument {
    int myValue;
    semid_ds* myStatusPtr;
    unsigned short* myValuesPtr;
};

bool isAboutTaken( const Finding& finding )
{
    return finding.myKind == Finding::masterTaken || finding.myKind == Finding::masterUnfinished ||
           finding.myKind == Finding::semaphoreTaken;
}

std::string reasonOfErrno()
{
    const int errorNbr = errno;
    if ( errorNbr == EPERM || errorNbr == EACCES )
        return "not permitted (run as root or as the object's owner)";
    return std::strerror( errorNbr );
}

/// One repair at a time: a lock on the open directory, released when the process ends.
class DirectoryLock
{
public:
    explicit DirectoryLock( const std::string& directory )
        : myFd( ::open( directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC ) )
    {
        myIsHeld = myFd >= 0 && ::flock( myFd, LOCK_EX | LOCK_NB ) == 0;
    }
    DirectoryLock( const DirectoryLock& ) = delete;
    DirectoryLock& operator=( const DirectoryLock& ) = delete;
    ~DirectoryLock()
    {
        if ( myFd >= 0 )
            ::close( myFd );
    }

    bool isHeld() const { return myIsHeld; }

private:
    int myFd;
    bool myIsHeld;
};

/// The changes themselves. Each returns "" when it is made, else why not.
class Surgery
{
public:
    Surgery( const std::string& directory, const Inventory& inventory )
        : myDirectory( directory )
        , myInventory( inventory )
    {
    }

    std::string apply( const Finding& finding ) const;

private:
    std::string removeFile( const Finding& finding ) const;
    std::string removeSet( const Finding& finding ) const;
    std::string removeSegment( const Finding& finding ) const;
    std::string lowerUseCount( const Finding& finding ) const;
    std::string releaseRecord( const Finding& finding ) const;
    /// The set that an object's users hold while they open and close it; -1 if there is none.
    int guardOf( const std::string& fileName ) const;

    const std::string& myDirectory;
    const Inventory& myInventory;
};

int Surgery::guardOf( const std::string& fileName ) const
{
    const NamedSemaphore* const guardPtr = myInventory.findSemaphore( flatName( fileName ) );
    return guardPtr != nullptr && guardPtr->mySet ? guardPtr->mySet->myId : -1;
}

std::string Surgery::removeFile( const Finding& finding ) const
{
    const UndoLock guard( guardOf( finding.myFileName ), guardTimeoutMs );
    if ( !guard.isHeld() )
        return "its lock is taken";
    const std::string path = myDirectory + "/" + finding.myFileName;
    return ::unlink( path.c_str() ) == 0 || errno == ENOENT ? "" : reasonOfErrno();
}

std::string Surgery::removeSet( const Finding& finding ) const
{
    if ( ::semctl( finding.myKernelId, 0, GETNCNT ) > 0 )
        return "somebody waits for it";
    if ( ::semctl( finding.myKernelId, 0, IPC_RMID ) != 0 && errno != EINVAL && errno != EIDRM )
        return reasonOfErrno();
    if ( finding.myFileName.empty() )
        return "";
    const std::string path = myDirectory + "/" + finding.myFileName;
    return ::unlink( path.c_str() ) == 0 || errno == ENOENT ? "" : reasonOfErrno();
}

std::string Surgery::removeSegment( const Finding& finding ) const
{
    const UndoLock guard( finding.myFileName.empty() ? -1 : guardOf( finding.myFileName ),
                          guardTimeoutMs );
    if ( !guard.isHeld() )
        return "its lock is taken";
    shmid_ds status{};
    if ( ::shmctl( finding.myKernelId, IPC_STAT, &status ) != 0 )
        return errno == EINVAL || errno == EIDRM ? "" : reasonOfErrno();
    if ( status.shm_nattch != 0 )
        return "somebody has attached it";
    if ( ::shmctl( finding.myKernelId, IPC_RMID, nullptr ) != 0 )
        return reasonOfErrno();
    if ( finding.myFileName.empty() )
        return "";
    const std::string path = myDirectory + "/" + finding.myFileName;
    return ::unlink( path.c_str() ) == 0 || errno == ENOENT ? "" : reasonOfErrno();
}

std::string Surgery::lowerUseCount( const Finding& finding ) const
{
    const int count = ::semctl( finding.myKernelId, 1, GETVAL );
    if ( count < 0 )
        return reasonOfErrno();
    if ( count <= finding.myAmount )
        return removeSet( finding );
    SemaphoreArgument argument{};
    argument.myValue = count - finding.myAmount;
    return ::semctl( finding.myKernelId, 1, SETVAL, argument ) == 0 ? "" : reasonOfErrno();
}

std::string Surgery::releaseRecord( const Finding& finding ) const
{
    using Array = Mt::SubsystemInfo::ThreadDetailsArray;
    void* const addressPtr = ::shmat( finding.myKernelId, nullptr, 0 );
    if ( addressPtr == reinterpret_cast< void* >( -1 ) )
        return reasonOfErrno();
    Array* const arrayPtr = static_cast< Array* >( addressPtr );
    auto& details = arrayPtr->myRecords[finding.myAmount];
    // Whoever claims the record anew has exchanged its word first and then written another id.
    if ( details.myProcessId == finding.myPid )
        details.reset();
    ::shmdt( addressPtr );
    return "";
}

std::string Surgery::apply( const Finding& finding ) const
{
    switch ( finding.myKind ) {
    case Finding::threadRecord:
        return releaseRecord( finding );
    case Finding::fifoUnused:
    case Finding::keyWithoutSet:
    case Finding::keyWithoutSegment:
        return removeFile( finding );
    case Finding::segmentUnused:
    case Finding::straySegment:
        return removeSegment( finding );
    case Finding::setUnfinished:
    case Finding::straySet:
        return removeSet( finding );
    case Finding::useCount:
        return lowerUseCount( finding );
    case Finding::masterTaken:
    case Finding::masterUnfinished:
    case Finding::semaphoreTaken:
        return postIfZero( finding.myKernelId ) ? "" : "it is free again already";
    case Finding::remark:
        break;
    }
    return "nothing to do";
}

} // namespace

Repair::Repair( std::string directory, Approval approval, Pauses pauses )
    : myDirectory( std::move( directory ) )
    , myApproval( std::move( approval ) )
    , myPauses( pauses )
{
}

bool Repair::isApproved( const Finding& finding )
{
    if ( finding.myRepair.empty() )
        return false;
    const auto isSame = [&]( const Finding& other ) { return finding.isSameAs( other ); };
    if ( std::none_of( myAsked.begin(), myAsked.end(), isSame ) ) {
        myAsked.push_back( finding );
        if ( myApproval( finding ) )
            myApproved.push_back( finding );
    }
    return std::any_of( myApproved.begin(), myApproved.end(), isSame );
}

void Repair::record( const Finding& finding, bool done, const std::string& outcome )
{
    mySteps.push_back( RepairStep{ finding, done, outcome } );
}

void Repair::giveBackWhatIsTaken()
{
    std::vector< Finding > findings = examine( myDirectory, myPauses.myFirstMs, nullptr );
    std::erase_if( findings, [this]( const Finding& finding ) {
        return !isAboutTaken( finding ) || !isApproved( finding );
    } );
    if ( findings.empty() )
        return;
    // The answer may have taken a while: a finding must stand at this moment.
    const Inventory inventory = Inventory::read( myDirectory );
    const Surgery surgery( myDirectory, inventory );
    for ( const Finding& finding : persistent( findings, diagnose( inventory ) ) ) {
        const std::string error = surgery.apply( finding );
        record( finding, error.empty(), error.empty() ? "done" : error );
    }
}

bool Repair::putRightTheRest( std::string* errorPtr )
{
    Inventory inventory;
    std::vector< Finding > findings = examine( myDirectory, myPauses.mySettlingMs, &inventory );
    std::erase_if( findings, [this]( const Finding& finding ) {
        return isAboutTaken( finding ) || !isApproved( finding );
    } );
    if ( findings.empty() )
        return true;
    // Without a master set nothing of the library runs yet; make it, to keep it from starting now.
    const int masterId =
        inventory.myMaster ? inventory.myMaster->myId : Mt::MasterSemaphore().handle();
    const UndoLock master( masterId, masterTimeoutMs );
    if ( !master.isHeld() ) {
        *errorPtr = "the master semaphore could not be had within " +
                    std::to_string( masterTimeoutMs / 1000 ) + " seconds";
        return false;
    }
    inventory = Inventory::read( myDirectory );
    findings = persistent( findings, diagnose( inventory, true ) );
    // By kind: what a set guards goes before the set itself.
    std::stable_sort( findings.begin(), findings.end(),
                      []( const Finding& a, const Finding& b ) { return a.myKind < b.myKind; } );
    const Surgery surgery( myDirectory, inventory );
    for ( const Finding& finding : findings ) {
        const std::string error = surgery.apply( finding );
        record( finding, error.empty(), error.empty() ? "done" : error );
    }
    return true;
}

bool Repair::run( std::string* errorPtr )
{
    const DirectoryLock lock( myDirectory );
    if ( !lock.isHeld() ) {
        *errorPtr = "another repair is at work on " + myDirectory + ", or it cannot be opened";
        return false;
    }
    giveBackWhatIsTaken();
    return putRightTheRest( errorPtr );
}

} // namespace Nuv::Tools
