#include "nuvIpcDoctor.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>

namespace Nuv::Tools {
namespace {

constexpr int daemonPid = 100;
constexpr int deadPid = 999;
constexpr std::int64_t now = 1000000;

SemaphoreSet setOf( int id, int value, int useCount, int lastPid )
{
    SemaphoreSet set;
    set.myId = id;
    set.myNbrOfSemaphores = 2;
    set.myMode = 0660;
    set.myOperationTime = now - 100;
    set.mySemaphores = { { value, lastPid, 0 }, { useCount, lastPid, 0 } };
    return set;
}

NamedSemaphore semaphore( const std::string& name, int id, int value, int useCount, int lastPid )
{
    return { name, { "sem_" + name, {}, id, now }, setOf( id, value, useCount, lastPid ) };
}

NamedFifo pipeFifo( const std::string& name, const FifoUse& use )
{
    return { name, { name, { 1, 6 }, 0, now }, { { daemonPid, use } } };
}

/// One daemon, idle, that has the segment "table" and the event "wake" open.
Inventory healthy()
{
    Process process;
    process.myPid = daemonPid;
    process.myName = "daemon";
    process.myState = 'S';
    process.myStartTime = now - 1000;
    process.myUsesLibrary = true;
    process.mySegments = { { 7, 1 } };
    process.myFifos = { { FileId{ 1, 5 }, FifoUse{ 1, 1 } } };
    Inventory inventory;
    inventory.myTime = now;
    inventory.myProcesses = ProcessTable( { process } );
    inventory.myMaster = setOf( 1, 1, 0, deadPid );
    inventory.myMaster->mySemaphores.pop_back();
    inventory.mySemaphores = { semaphore( "shm_table", 2, 1, 1, daemonPid ),
                               semaphore( "evt_wake", 3, 1, 1, daemonPid ),
                               semaphore( "plain", 4, 1, 1, daemonPid ) };
    Segment segment;
    segment.myId = 7;
    segment.mySize = 64;
    segment.myNbrOfAttached = 1;
    inventory.mySegments = { { "table", { "shm_table", {}, 7, now }, segment, {} } };
    inventory.myFifos = {
        { "evt_wake", { "evt_wake", { 1, 5 }, 0, now }, { { daemonPid, { 1, 1 } } } } };
    return inventory;
}

Process& daemonIn( Inventory& inventory, std::vector< Process >* copyPtr )
{
    *copyPtr = inventory.myProcesses.processes();
    return copyPtr->front();
}

/// Changes the daemon's process and puts it back into the inventory.
void withDaemon( Inventory& inventory, const std::function< void( Process& ) >& change )
{
    std::vector< Process > processes;
    change( daemonIn( inventory, &processes ) );
    inventory.myProcesses = ProcessTable( processes );
}

std::string verdict( const Inventory& inventory )
{
    std::string all;
    for ( const Finding& finding : diagnose( inventory ) ) {
        if ( finding.myKind != Finding::remark )
            all += std::string( all.empty() ? "" : "; " ) +
                   certaintyKeyword( finding.myCertainty ) + " " + kindKeyword( finding.myKind ) +
                   " " + finding.myObject;
    }
    return all;
}

} // namespace

TEST( IpcJudge, SaysWhatIsProvenAndWhatIsOnlyLikely )
{
    const struct
    {
        const char* namePtr;
        std::function< void( Inventory& ) > change;
        const char* verdictPtr;
    } cases[] = {
        { "healthy", []( Inventory& ) {}, "" },
        { "lock taken by the dead",
          []( Inventory& i ) { i.mySemaphores[0].mySet = setOf( 2, 0, 1, deadPid ); },
          "certain taken semaphore shm_table" },
        { "plain semaphore taken by the dead may be a signal",
          []( Inventory& i ) { i.mySemaphores[2].mySet = setOf( 4, 0, 1, deadPid ); },
          "likely taken semaphore plain" },
        { "a set never operated on has its first value",
          []( Inventory& i ) {
              i.mySemaphores[2].mySet = setOf( 4, 0, 1, deadPid );
              i.mySemaphores[2].mySet->myOperationTime = 0;
          },
          "" },
        { "semaphores of pipes are signals",
          []( Inventory& i ) {
              i.mySemaphores[2] = semaphore( "pipe_SrvrConnect_x", 4, 0, 1, deadPid );
          },
          "" },
        { "lock taken by the living",
          []( Inventory& i ) { i.mySemaphores[0].mySet = setOf( 2, 0, 1, daemonPid ); }, "" },
        { "lock taken by a process whose id was used again",
          []( Inventory& i ) {
              i.mySemaphores[0].mySet = setOf( 2, 0, 1, daemonPid );
              withDaemon( i, []( Process& process ) { process.myStartTime = now - 50; } );
          },
          "certain taken semaphore shm_table" },
        { "lock taken by a process that this namespace does not see",
          []( Inventory& i ) { i.mySemaphores[0].mySet = setOf( 2, 0, 1, 0 ); }, "" },
        { "two users counted, one attached",
          []( Inventory& i ) { i.mySemaphores[0].mySet = setOf( 2, 1, 2, daemonPid ); },
          "certain use-count semaphore shm_table" },
        { "a forked child is attached, too",
          []( Inventory& i ) { i.mySegments[0].mySegment->myNbrOfAttached = 2; }, "" },
        { "counts are not judged while somebody waits",
          []( Inventory& i ) {
              i.mySemaphores[0].mySet = setOf( 2, 1, 2, daemonPid );
              i.mySemaphores[0].mySet->mySemaphores[0].myNbrOfWaiters = 1;
          },
          "" },
        { "nor while the master is taken",
          []( Inventory& i ) {
              i.mySemaphores[0].mySet = setOf( 2, 1, 2, daemonPid );
              i.myMaster->mySemaphores[0] = { 0, daemonPid, 0 };
          },
          "" },
        { "a stopped process may be half-way through opening",
          []( Inventory& i ) {
              i.mySemaphores[0].mySet = setOf( 2, 1, 2, daemonPid );
              withDaemon( i, []( Process& process ) { process.myState = 'T'; } );
          },
          "likely use-count semaphore shm_table" },
        { "descriptors of some processes cannot be read, and the last opener is alive",
          []( Inventory& i ) {
              i.mySemaphores[1].mySet = setOf( 3, 1, 2, daemonPid );
              withDaemon( i, []( Process& process ) { process.myReadable = false; } );
          },
          "" },
        { "nobody left of a plain semaphore's users",
          []( Inventory& i ) {
              i = Inventory();
              i.mySemaphores = { semaphore( "plain", 4, 1, 3, deadPid ) };
          },
          "likely use-count semaphore plain" },
        { "a FIFO that nobody has open", []( Inventory& i ) { i.myFifos[0].myUsers.clear(); },
          "certain use-count semaphore evt_wake; certain fifo-unused FIFO evt_wake" },
        { "the FIFOs of a pipe whose server is idle",
          []( Inventory& i ) {
              i.myFifos.push_back( pipeFifo( "pipe_toSrvr_x", { 1, 0 } ) );
              i.myFifos.push_back( pipeFifo( "pipe_fmSrvr_x", { 0, 0 } ) );
          },
          "" },
        { "the FIFOs of a pipe that only a client still has open",
          []( Inventory& i ) {
              i.myFifos.push_back( pipeFifo( "pipe_toSrvr_x", { 0, 1 } ) );
              i.myFifos.push_back( pipeFifo( "pipe_fmSrvr_x", { 1, 0 } ) );
          },
          "certain fifo-unused FIFO pipe_toSrvr_x; certain fifo-unused FIFO pipe_fmSrvr_x" },
        { "key files without their objects",
          []( Inventory& i ) {
              i.mySemaphores[2].mySet.reset();
              i.mySegments.push_back( { "other", { "shm_other", {}, 8, now }, {}, {} } );
          },
          "certain key-without-set semaphore plain; certain key-without-segment segment other" },
        { "a set never finished, another not removed",
          []( Inventory& i ) {
              i.mySemaphores[2].mySet->myOperationTime = 0;
              i.mySemaphores[2].mySet->mySemaphores[0].myLastPid = 0;
              i.mySemaphores.push_back( semaphore( "gone", 9, 1, 0, deadPid ) );
          },
          "certain unfinished semaphore plain; certain unfinished semaphore gone" },
        { "a segment that nobody has attached",
          []( Inventory& i ) {
              i.mySegments[0].mySegment->myNbrOfAttached = 0;
              i.mySemaphores.erase( i.mySemaphores.begin() );
          },
          "certain segment-unused segment table" },
        { "a ring with entries is kept",
          []( Inventory& i ) {
              i.mySegments[0].mySegment->myNbrOfAttached = 0;
              i.mySegments[0].myNbrOfUnread = 3;
              i.mySemaphores.erase( i.mySemaphores.begin() );
          },
          "" },
        { "records of a dead process, and of one whose id was used again",
          []( Inventory& i ) {
              i.mySegments[0].myName = "ubrdebug_daemon";
              i.mySemaphores[0].myName = "shm_ubrdebug_daemon";
              i.myThreadRecords.resize( 2 );
              for ( ThreadRecord& record : i.myThreadRecords )
                  record.mySegmentName = "ubrdebug_daemon";
              i.myThreadRecords[0].myPid = deadPid;
              i.myThreadRecords[1].myPid = daemonPid;
              i.myThreadRecords[1].myIndex = 1;
              i.mySegments[0].mySegment->myNbrOfAttached = 0;
              i.mySemaphores.erase( i.mySemaphores.begin() );
              withDaemon( i, []( Process& process ) { process.mySegments.clear(); } );
          },
          "certain thread-record thread record 0 of ubrdebug_daemon; "
          "certain thread-record thread record 1 of ubrdebug_daemon" },
        { "strays, next to a process that holds nothing here",
          []( Inventory& i ) {
              i.myStraySets = { setOf( 20, 1, 1, deadPid ) };
              withDaemon( i, []( Process& process ) { process.mySegments.clear(); } );
              i.myFifos.clear();
              i.mySegments.clear();
              i.mySemaphores.clear();
          },
          "" },
        { "strays, and nobody else",
          []( Inventory& i ) { i.myStraySets = { setOf( 20, 1, 1, deadPid ) }; },
          "likely stray-set set with id 20" },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.namePtr );
        Inventory inventory = healthy();
        row.change( inventory );
        EXPECT_EQ( verdict( inventory ), row.verdictPtr );
    }
}

TEST( IpcJudge, OnlyWhatBothLooksShowIsFoundAndTheSmallerExcess )
{
    Inventory first = healthy();
    Inventory second = healthy();
    first.mySemaphores[0].mySet = setOf( 2, 1, 4, daemonPid );
    second.mySemaphores[0].mySet = setOf( 2, 1, 3, daemonPid );
    second.myFifos[0].myUsers.clear();
    const std::vector< Finding > both = persistent( diagnose( first ), diagnose( second ) );
    ASSERT_EQ( both.size(), 1u );
    EXPECT_EQ( both[0].myKind, Finding::useCount );
    EXPECT_EQ( both[0].myAmount, 2 );
}

TEST( IpcText, ProcessTextsAreTakenApart )
{
    Process process;
    std::uint64_t startTicks = 0;
    EXPECT_TRUE(
        parseProcessStat( "42 (a) b (c) T 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 777 19",
                          &process, &startTicks ) );
    EXPECT_EQ( process.myName, "a) b (c" );
    EXPECT_EQ( process.myState, 'T' );
    EXPECT_EQ( startTicks, 777u );
    for ( const char* textPtr : { "", "42", "42 (a)", "42 )a( S 1", "42 (a) S 1 2 3" } ) {
        SCOPED_TRACE( textPtr );
        EXPECT_FALSE( parseProcessStat( textPtr, &process, &startTicks ) );
    }
    Process other;
    parseProcessMaps( "7f00-7f10 rw-s 00000000 00:01 5          /SYSV000000ff (deleted)\n"
                      "7f10-7f20 r--s 00010000 00:01 5          /SYSV000000ff (deleted)\n"
                      "7f30-7f40 rw-s 00000000 00:01 5          /SYSV000000ff (deleted)\n"
                      "7f50-7f60 rw-s 00000000 00:01 0          /SYSVffffffff (deleted)\n"
                      "7f70-7f80 r-xp 00000000 fe:01 99         /opt/x/lib/libnuvcore.so.1.0.0\n"
                      "/SYSV\n",
                      &other );
    EXPECT_EQ( other.mySegments, ( std::map< int, int >{ { 0, 1 }, { 5, 2 } } ) );
    EXPECT_TRUE( other.myUsesLibrary );
}

TEST( IpcText, RingEntriesAreFollowedAcrossTheWrapAndNeverBeyondIt )
{
    constexpr std::uint32_t size = 32;
    std::string bytes( RingHeader::nbrOfBytes + size, '\0' );
    const auto store = [&bytes]( std::size_t offset, std::uint32_t word ) {
        std::memcpy( bytes.data() + offset, &word, sizeof( word ) );
    };
    const std::uint32_t words[] = { size, 24, 8, 16 };
    for ( std::size_t i = 0; i < 4; ++i )
        store( 4 * i, words[i] );
    store( RingHeader::nbrOfBytes + 24, 10 ); // four bytes, then six from the begin on
    bytes.replace( RingHeader::nbrOfBytes + 28, 4, "abcd" );
    bytes.replace( RingHeader::nbrOfBytes, 6, "efghij" );
    ASSERT_TRUE( RingHeader::parse( bytes ).isSound( bytes.size() ) );
    bool isSound = false;
    EXPECT_EQ( ringEntries( bytes, &isSound ), std::vector< std::string >{ "abcdefghij" } );
    EXPECT_TRUE( isSound );
    for ( const std::uint32_t length : { 13u, 33u, 0xFFFFFFF8u, 0xFFFFFFFFu } ) {
        store( RingHeader::nbrOfBytes + 24, length );
        EXPECT_TRUE( ringEntries( bytes, &isSound ).empty() );
        EXPECT_FALSE( isSound ) << length;
    }
    const std::uint32_t unsound[][4] = { { 32, 24, 8, 12 }, { 32, 25, 9, 16 }, { 32, 32, 16, 16 },
                                         { 36, 24, 8, 20 }, { 0, 0, 0, 0 },    { 32, 0, 0, 36 } };
    for ( const auto& row : unsound ) {
        for ( std::size_t i = 0; i < 4; ++i )
            store( 4 * i, row[i] );
        EXPECT_FALSE( RingHeader::parse( bytes ).isSound( bytes.size() ) ) << row[1];
    }
}

} // namespace Nuv::Tools
