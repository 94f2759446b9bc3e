#include "nuvIpcDoctor.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <unistd.h>

namespace Nuv::Tools {

namespace {

bool beginsWith( const std::string& text, const char* prefixPtr )
{
    return text.compare( 0, std::strlen( prefixPtr ), prefixPtr ) == 0;
}

/// What is known of the users of a named semaphore, other than its own use count.
struct KnownUsers
{
    int myNbr = 0;
    Finding::Certainty myCertainty = Finding::certain;
    std::string mySource; ///< "processes attached to shm_x"
};

class Diagnosis
{
public:
    Diagnosis( const Inventory& inventory, bool holdsMaster );

    std::vector< Finding > run();

private:
    bool isGone( int pid, std::int64_t time ) const
    {
        return myInventory.myProcesses.isGoneSince( pid, time );
    }
    std::string describe( int pid ) const { return myInventory.myProcesses.describe( pid ); }
    Finding& add( Finding::Kind kind, Finding::Certainty certainty, const std::string& object );

    void judgeMaster();
    void judgeSemaphore( const NamedSemaphore& semaphore );
    bool judgeUnfinished( const NamedSemaphore& semaphore );
    void judgeTaken( const NamedSemaphore& semaphore );
    void judgeUseCount( const NamedSemaphore& semaphore );
    void judgeSegment( const NamedSegment& segment );
    void judgeFifo( const NamedFifo& fifo );
    void judgeRecord( const ThreadRecord& record );
    void judgeStrays();
    std::optional< KnownUsers > usersOf( const std::string& name ) const;
    KnownUsers attachedTo( const std::string& segmentName ) const;
    KnownUsers openersOf( const std::string& fifoName ) const;
    bool hasAllAttachedVisible( const NamedSegment& segment ) const;
    void findLiveUsers();

    const Inventory& myInventory;
    std::vector< Finding > myFindings;
    /// The master is free or nobody's: no object is being created or removed.
    bool myIsQuiet = true;
    bool myHasLiveUsers = false;    // processes that use the library
    bool myHasStoppedUsers = false; // one of them is stopped, perhaps half-way through opening
    bool myHasForeignUsers = false; // one of them holds nothing of this directory
};

// Semaphores that the library itself uses as locks: value 1 when free.
bool isLock( const std::string& name )
{
    return beginsWith( name, "shm_" ) || beginsWith( name, "evt_" ) ||
           beginsWith( name, "IpFifo_" ) || beginsWith( name, "mmf_" ) ||
           name == "LogConfigManager" || name == "global-shm";
}

Diagnosis::Diagnosis( const Inventory& inventory, bool holdsMaster )
    : myInventory( inventory )
{
    findLiveUsers();
    if ( !holdsMaster && myInventory.myMaster && !myInventory.myMaster->mySemaphores.empty() ) {
        const SemaphoreState& master = myInventory.myMaster->mySemaphores[0];
        myIsQuiet = master.myValue > 0 && master.myNbrOfWaiters == 0;
    }
}

void Diagnosis::findLiveUsers()
{
    for ( const Process& process : myInventory.myProcesses.processes() ) {
        const auto holds = [&process]( const NamedSegment& segment ) {
            return segment.mySegment && process.mySegments.count( segment.mySegment->myId ) != 0;
        };
        const auto opens = [&process]( const NamedFifo& fifo ) {
            return fifo.myUsers.count( process.myPid ) != 0;
        };
        const bool isHere =
            std::any_of( myInventory.mySegments.begin(), myInventory.mySegments.end(), holds ) ||
            std::any_of( myInventory.myFifos.begin(), myInventory.myFifos.end(), opens );
        // This tool uses the library, but unless it holds something it only looks.
        if ( !isHere && ( !process.myUsesLibrary || process.myName == "nuvctl" ) )
            continue;
        myHasLiveUsers = true;
        myHasForeignUsers = myHasForeignUsers || !isHere;
        const bool isStopped = process.myState == 'T' || process.myState == 't';
        myHasStoppedUsers = myHasStoppedUsers || isStopped;
    }
}

Finding& Diagnosis::add( Finding::Kind kind, Finding::Certainty certainty,
                         const std::string& object )
{
    Finding finding;
    finding.myKind = kind;
    finding.myCertainty = certainty;
    finding.myObject = object;
    myFindings.push_back( std::move( finding ) );
    return myFindings.back();
}

std::vector< Finding > Diagnosis::run()
{
    if ( !myInventory.myProcesses.isTrustworthy() ) {
        add( Finding::remark, Finding::note, "/proc" ).myText =
            "shows another process namespace than this one: nothing can be judged";
        return std::move( myFindings );
    }
    if ( const int nbr = myInventory.myProcesses.nbrOfUnreadable(); nbr > 0 )
        add( Finding::remark, Finding::note, "/proc" ).myText =
            std::to_string( nbr ) + " processes could not be examined (run as root to see all)";
    judgeMaster();
    for ( const NamedSemaphore& semaphore : myInventory.mySemaphores )
        judgeSemaphore( semaphore );
    for ( const NamedSegment& segment : myInventory.mySegments )
        judgeSegment( segment );
    for ( const NamedFifo& fifo : myInventory.myFifos )
        judgeFifo( fifo );
    for ( const ThreadRecord& record : myInventory.myThreadRecords )
        judgeRecord( record );
    judgeStrays();
    return std::move( myFindings );
}

void Diagnosis::judgeMaster()
{
    if ( !myInventory.myMaster || myInventory.myMaster->mySemaphores.empty() )
        return;
    const SemaphoreSet& set = *myInventory.myMaster;
    const SemaphoreState& state = set.mySemaphores[0];
    if ( state.myValue > 1 )
        add( Finding::remark, Finding::note, "master semaphore" ).myText =
            "has the value " + std::to_string( state.myValue ) + ", so it excludes nobody";
    if ( state.myValue != 0 )
        return;
    const std::string waiters = std::to_string( state.myNbrOfWaiters ) + " waiting";
    if ( set.myOperationTime == 0 && state.myLastPid == 0 ) {
        Finding& finding = add( Finding::masterUnfinished, Finding::certain, "master semaphore" );
        finding.myText = "was created but never given its value; " + waiters;
        finding.myRepair = "give it the value 1";
        finding.myKernelId = set.myId;
    } else if ( isGone( state.myLastPid, set.myOperationTime ) ) {
        Finding& finding = add( Finding::masterTaken, Finding::certain, "master semaphore" );
        finding.myText = "is taken by process " + describe( state.myLastPid ) + "; " + waiters +
                         "; until it is free no process can open or close any other object";
        finding.myRepair = "give it back";
        finding.myKernelId = set.myId;
        finding.myPid = state.myLastPid;
    } else {
        add( Finding::remark, Finding::note, "master semaphore" ).myText =
            "is taken by process " + describe( state.myLastPid ) + ", which is alive; " + waiters;
    }
}

void Diagnosis::judgeSemaphore( const NamedSemaphore& semaphore )
{
    const std::string object = "semaphore " + semaphore.myName;
    if ( !semaphore.mySet ) {
        Finding& finding = add( Finding::keyWithoutSet, Finding::certain, object );
        finding.myText = "has a key file, but the kernel has no set for it";
        finding.myRepair = "remove the key file";
        finding.myFileName = semaphore.myFile.myFileName;
        return;
    }
    if ( semaphore.mySet->myNbrOfSemaphores != 2 ) {
        add( Finding::remark, Finding::note, object ).myText =
            "the set of its key has " + std::to_string( semaphore.mySet->myNbrOfSemaphores ) +
            " semaphores: it is another program's";
        return;
    }
    if ( !semaphore.isReadable() ) {
        add( Finding::remark, Finding::note, object ).myText = "may not be read by this user";
        return;
    }
    if ( judgeUnfinished( semaphore ) )
        return;
    judgeTaken( semaphore );
    judgeUseCount( semaphore );
}

bool Diagnosis::judgeUnfinished( const NamedSemaphore& semaphore )
{
    const SemaphoreSet& set = *semaphore.mySet;
    const bool neverSet = set.myOperationTime == 0 && set.mySemaphores[0].myLastPid == 0;
    if ( !neverSet && semaphore.useCount() > 0 )
        return false;
    if ( !myIsQuiet )
        return true; // it may be in the making; it is looked at once the master is free
    Finding& finding =
        add( Finding::setUnfinished, Finding::certain, "semaphore " + semaphore.myName );
    finding.myText = neverSet ? "was created but never given its values"
                              : "is used by nobody, but was not removed";
    finding.myRepair = "remove the set and its key file";
    finding.myFileName = semaphore.myFile.myFileName;
    finding.myKernelId = set.myId;
    return true;
}

void Diagnosis::judgeTaken( const NamedSemaphore& semaphore )
{
    const SemaphoreSet& set = *semaphore.mySet;
    const SemaphoreState& state = set.mySemaphores[0];
    const std::string object = "semaphore " + semaphore.myName;
    if ( state.myValue > 1 && isLock( semaphore.myName ) )
        add( Finding::remark, Finding::note, object ).myText =
            "has the value " + std::to_string( state.myValue ) + ", so it excludes nobody";
    // A set that nobody ever operated on still has the value it was made with.
    if ( state.myValue != 0 || set.myOperationTime == 0 ||
         beginsWith( semaphore.myName, "pipe_" ) ||
         !isGone( state.myLastPid, set.myOperationTime ) )
        return;
    const bool lock = isLock( semaphore.myName );
    Finding& finding =
        add( Finding::semaphoreTaken, lock ? Finding::certain : Finding::likely, object );
    finding.myText = "has the value 0, and process " + describe( state.myLastPid ) +
                     " took it last; " + std::to_string( state.myNbrOfWaiters ) + " waiting";
    if ( !lock )
        finding.myText += " (if it is used as a signal and not as a lock, this is no fault)";
    finding.myRepair = "give it back";
    finding.myFileName = semaphore.myFile.myFileName;
    finding.myKernelId = set.myId;
    finding.myPid = state.myLastPid;
}

KnownUsers Diagnosis::attachedTo( const std::string& segmentName ) const
{
    const NamedSegment* const segmentPtr = myInventory.findSegment( segmentName );
    return { segmentPtr != nullptr ? segmentPtr->nbrOfAttached() : 0, Finding::certain,
             "processes attached to the segment " + segmentName };
}

KnownUsers Diagnosis::openersOf( const std::string& fifoName ) const
{
    KnownUsers users{ 0, Finding::certain, "users that have the FIFO " + fifoName + " open" };
    const NamedFifo* const fifoPtr = myInventory.findFifo( fifoName );
    if ( fifoPtr != nullptr ) {
        for ( const auto& [pid, use] : fifoPtr->myUsers )
            users.myNbr += use.myNbrOfReaders;
    } else {
        // A FIFO whose file was removed by hand may still be open somewhere.
        for ( const Process& process : myInventory.myProcesses.processes() ) {
            for ( const auto& [id, use] : process.myFifos ) {
                const bool isListed = std::any_of(
                    myInventory.myFifos.begin(), myInventory.myFifos.end(),
                    [&id = id]( const NamedFifo& fifo ) { return fifo.myFile.myId == id; } );
                users.myNbr += isListed ? 0 : use.myNbrOfReaders;
            }
        }
    }
    if ( myInventory.myProcesses.nbrOfUnreadable() > 0 )
        users.myCertainty = Finding::likely;
    return users;
}

std::optional< KnownUsers > Diagnosis::usersOf( const std::string& name ) const
{
    if ( beginsWith( name, "shm_" ) )
        return attachedTo( name.substr( 4 ) );
    if ( beginsWith( name, "evt_" ) )
        return openersOf( name );
    if ( beginsWith( name, "IpFifo_" ) || name == "LogConfigManager" )
        return attachedTo( name );
    if ( name == "global-shm" )
        return attachedTo( "global-data" );
    if ( myHasLiveUsers || myInventory.myProcesses.nbrOfUnreadable() > 0 )
        return std::nullopt;
    return KnownUsers{ 0, Finding::likely, "processes left that use the library" };
}

void Diagnosis::judgeUseCount( const NamedSemaphore& semaphore )
{
    const SemaphoreState& state = semaphore.mySet->mySemaphores[0];
    const bool lockIsBusy = isLock( semaphore.myName ) && state.myValue == 0;
    if ( !myIsQuiet || lockIsBusy || state.myNbrOfWaiters > 0 )
        return;
    const std::optional< KnownUsers > users = usersOf( semaphore.myName );
    // Its last user may have opened it without the shared library (linked in another way).
    const int lastOpener = semaphore.mySet->mySemaphores[1].myLastPid;
    const bool isOpenerAlive = !isGone( lastOpener, semaphore.mySet->myOperationTime );
    const int excess = users ? semaphore.useCount() - users->myNbr : 0;
    if ( excess <= 0 || ( users->myCertainty == Finding::likely && isOpenerAlive ) )
        return;
    const Finding::Certainty certainty = myHasStoppedUsers ? Finding::likely : users->myCertainty;
    Finding& finding = add( Finding::useCount, certainty, "semaphore " + semaphore.myName );
    finding.myText = "counts " + std::to_string( semaphore.useCount() ) + " users, but there are " +
                     std::to_string( users->myNbr ) + " " + users->mySource;
    if ( myHasStoppedUsers )
        finding.myText += " (a stopped process may be half-way through opening it)";
    finding.myRepair = users->myNbr > 0 ? "lower the use count to " + std::to_string( users->myNbr )
                                        : "remove the set and its key file";
    finding.myFileName = semaphore.myFile.myFileName;
    finding.myKernelId = semaphore.mySet->myId;
    finding.myAmount = excess;
}

void Diagnosis::judgeSegment( const NamedSegment& segment )
{
    const std::string object = "segment " + segment.myName;
    if ( !segment.mySegment ) {
        Finding& finding = add( Finding::keyWithoutSegment, Finding::certain, object );
        finding.myText = "has a key file, but the kernel has no segment for it";
        finding.myRepair = "remove the key file";
        finding.myFileName = segment.myFile.myFileName;
        return;
    }
    // Segments of thread records outlive their processes by design.
    if ( segment.nbrOfAttached() > 0 || segment.isThreadRecords() )
        return;
    if ( segment.myNbrOfUnread.value_or( 0 ) > 0 ) {
        add( Finding::remark, Finding::note, object ).myText =
            "is attached by no process and holds " + std::to_string( *segment.myNbrOfUnread ) +
            " entries; they are kept for the next process that reads them";
        return;
    }
    Finding& finding = add( Finding::segmentUnused, Finding::certain, object );
    finding.myText = "is attached by no process, but was not removed";
    finding.myRepair = "remove the segment and its key file";
    finding.myFileName = segment.myFile.myFileName;
    finding.myKernelId = segment.mySegment->myId;
}

void Diagnosis::judgeFifo( const NamedFifo& fifo )
{
    const bool isComplete = myInventory.myProcesses.nbrOfUnreadable() == 0;
    std::string text = "is open in no process, but was not removed";
    bool isUsed = !fifo.myUsers.empty();
    for ( const char* prefixPtr : { toServerPrefix, fromServerPrefix } ) {
        if ( !beginsWith( fifo.myName, prefixPtr ) )
            continue;
        isUsed = myInventory.hasPipeServer( fifo.myName.substr( std::strlen( prefixPtr ) ) );
        text = "belongs to a server that has ended; no other can take its name";
    }
    if ( isUsed )
        return;
    Finding& finding = add( Finding::fifoUnused, isComplete ? Finding::certain : Finding::likely,
                            "FIFO " + fifo.myName );
    finding.myText = text;
    finding.myRepair = "remove it";
    finding.myFileName = fifo.myFile.myFileName;
}

bool Diagnosis::hasAllAttachedVisible( const NamedSegment& segment ) const
{
    int nbrOfVisible = 0;
    for ( const Process& process : myInventory.myProcesses.processes() ) {
        const auto iter = process.mySegments.find( segment.mySegment->myId );
        nbrOfVisible += iter != process.mySegments.end() ? iter->second : 0;
    }
    return nbrOfVisible >= segment.nbrOfAttached();
}

void Diagnosis::judgeRecord( const ThreadRecord& record )
{
    const NamedSegment* const segmentPtr = myInventory.findSegment( record.mySegmentName );
    const Process* const processPtr = myInventory.myProcesses.find( record.myPid );
    bool isDead = !myInventory.myProcesses.isAlive( record.myPid );
    std::string reason = "has ended";
    if ( !isDead && processPtr != nullptr && processPtr->myReadable &&
         processPtr->mySegments.count( segmentPtr->mySegment->myId ) == 0 ) {
        isDead = true;
        reason = "has not the segment attached (its id was used again)";
    }
    if ( !isDead )
        return;
    // A user that is not seen may be the process, under an id of another namespace.
    const bool isSure = hasAllAttachedVisible( *segmentPtr );
    Finding& finding =
        add( Finding::threadRecord, isSure ? Finding::certain : Finding::likely,
             "thread record " + std::to_string( record.myIndex ) + " of " + record.mySegmentName );
    finding.myText = "(\"" + record.myDescription + "\") is in use by process " +
                     std::to_string( record.myPid ) + ", which " + reason;
    finding.myRepair = "release the record";
    finding.myFileName = segmentPtr->myFile.myFileName;
    finding.myKernelId = segmentPtr->mySegment->myId;
    finding.myAmount = record.myIndex;
    finding.myPid = record.myPid;
}

void Diagnosis::judgeStrays()
{
    for ( const Segment& segment : myInventory.myStraySegments ) {
        const bool wasAttached = segment.myAttachTime != 0;
        const bool isDead = segment.myNbrOfAttached == 0 &&
                            isGone( segment.myCreatorPid, segment.myChangeTime ) &&
                            ( !wasAttached || isGone( segment.myLastPid, segment.myDetachTime ) );
        const bool isLikely = isDead && !myHasForeignUsers;
        Finding& finding = add( isLikely ? Finding::straySegment : Finding::remark,
                                isLikely ? Finding::likely : Finding::note,
                                "segment with id " + std::to_string( segment.myId ) );
        finding.myText = "has the form of the library's, but its key belongs to no file here";
        finding.myText +=
            isLikely ? "; no process has it attached" : "; it may belong to another installation";
        finding.myRepair = isLikely ? "remove the segment" : "";
        finding.myKernelId = segment.myId;
    }
    for ( const SemaphoreSet& set : myInventory.myStraySets ) {
        if ( set.mySemaphores.size() != 2 || set.mySemaphores[1].myValue < 1 )
            continue;
        const auto isIdle = [&]( const SemaphoreState& state ) {
            return isGone( state.myLastPid, set.myOperationTime ) && state.myNbrOfWaiters == 0;
        };
        const bool isLikely = isIdle( set.mySemaphores[0] ) && isIdle( set.mySemaphores[1] ) &&
                              !myHasForeignUsers && myInventory.myProcesses.nbrOfUnreadable() == 0;
        Finding& finding = add( isLikely ? Finding::straySet : Finding::remark,
                                isLikely ? Finding::likely : Finding::note,
                                "set with id " + std::to_string( set.myId ) );
        finding.myText = "has the form of a named semaphore, but its key belongs to no file here";
        finding.myText += isLikely ? "; the processes that used it last have ended"
                                   : "; it may belong to another installation";
        finding.myRepair = isLikely ? "remove the set" : "";
        finding.myKernelId = set.myId;
    }
}

} // namespace

bool Finding::isSameAs( const Finding& other ) const
{
    return myKind == other.myKind && myObject == other.myObject && myKernelId == other.myKernelId &&
           myPid == other.myPid;
}

const char* kindKeyword( Finding::Kind kind )
{
    static constexpr const char* keywords[] = {
        "master-taken",    "master-unfinished",   "taken",      "thread-record",
        "fifo-unused",     "segment-unused",      "unfinished", "use-count",
        "key-without-set", "key-without-segment", "stray-set",  "stray-segment",
        "remark" };
    static_assert( std::size( keywords ) == Finding::remark + 1 );
    return keywords[kind];
}

const char* certaintyKeyword( Finding::Certainty certainty )
{
    static constexpr const char* keywords[] = { "note", "likely", "certain" };
    return keywords[certainty];
}

std::vector< Finding > diagnose( const Inventory& inventory, bool holdsMaster )
{
    return Diagnosis( inventory, holdsMaster ).run();
}

std::vector< Finding > persistent( const std::vector< Finding >& first,
                                   const std::vector< Finding >& second )
{
    std::vector< Finding > both;
    for ( const Finding& finding : second ) {
        const auto iter = std::find_if( first.begin(), first.end(), [&]( const Finding& earlier ) {
            return finding.isSameAs( earlier );
        } );
        if ( iter == first.end() )
            continue;
        both.push_back( finding );
        both.back().myAmount = std::min( finding.myAmount, iter->myAmount );
    }
    return both;
}

std::vector< Finding > examine( const std::string& directory, unsigned int pauseMs,
                                Inventory* inventoryPtr )
{
    const std::vector< Finding > first = diagnose( Inventory::read( directory ) );
    ::usleep( pauseMs * 1000 );
    Inventory second = Inventory::read( directory );
    std::vector< Finding > both = persistent( first, diagnose( second ) );
    if ( inventoryPtr != nullptr )
        *inventoryPtr = std::move( second );
    return both;
}

} // namespace Nuv::Tools
