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

NamedSemaphore semaphore( const std::string& name, const SemaphoreSet& set )
{
    return { name, { "sem_" + name, {}, set.myId, now }, set };
}

NamedFifo fifo( const std::string& name, std::uint64_t inode, const FifoUse& use )
{
    return { name, { name, { 1, inode }, 0, now }, { { daemonPid, use } } };
}

/// One daemon, idle, that has the segment "table" and the event "wake" open.
struct Scene : Inventory
{
    Scene()
    {
        myDaemon.myPid = daemonPid;
        myDaemon.myName = "daemon";
        myDaemon.myState = 'S';
        myDaemon.myStartTime = now - 1000;
        myDaemon.myUsesLibrary = true;
        myDaemon.mySegments = { { 7, 1 } };
        myDaemon.myFifos = { { FileId{ 1, 5 }, FifoUse{ 1, 1 } } };
        myTime = now;
        myMaster = setOf( 1, 1, 0, deadPid );
        myMaster->mySemaphores.pop_back();
        mySemaphores = { semaphore( "shm_table", setOf( 2, 1, 1, daemonPid ) ),
                         semaphore( "evt_wake", setOf( 3, 1, 1, daemonPid ) ),
                         semaphore( "plain", setOf( 4, 1, 1, daemonPid ) ) };
        Segment segment;
        segment.myId = 7;
        segment.mySize = 64;
        segment.myNbrOfAttached = 1;
        mySegments = { { "table", { "shm_table", {}, 7, now }, segment, {} } };
        myFifos = { fifo( "evt_wake", 5, { 1, 1 } ) };
    }
    std::string verdict()
    {
        myProcesses = ProcessTable( { myDaemon } );
        std::string all;
        for ( const Finding& finding : diagnose( *this ) ) {
            if ( finding.myKind != Finding::remark )
                all += std::string( all.empty() ? "" : "; " ) +
                       certaintyKeyword( finding.myCertainty ) + " " +
                       kindKeyword( finding.myKind ) + " " + finding.myObject;
        }
        return all;
    }
    void detachTable( int nbrOfUnread = 0 )
    {
        mySegments[0].mySegment->myNbrOfAttached = 0;
        mySegments[0].myNbrOfUnread = nbrOfUnread;
        mySemaphores.erase( mySemaphores.begin() );
    }

    Process myDaemon;
};

} // namespace

TEST( IpcJudge, SaysWhatIsProvenAndWhatIsOnlyLikely )
{
    const auto extraUse = []( Scene& s ) { s.mySemaphores[0].mySet = setOf( 2, 1, 2, daemonPid ); };
    const std::pair< const char*, std::function< void( Scene& ) > > cases[] = {
        { "", []( Scene& ) {} },
        // What the dead have taken; a plain semaphore may be a signal.
        { "certain taken semaphore shm_table; likely taken semaphore plain",
          []( Scene& s ) {
              s.mySemaphores[0].mySet = setOf( 2, 0, 1, deadPid );
              s.mySemaphores[2].mySet = setOf( 4, 0, 1, deadPid );
          } },
        // A set never operated on has its first value, and semaphores of pipes are signals; nothing
        // is wrong with what the living have taken, or one that this namespace does not see.
        { "",
          []( Scene& s ) {
              s.mySemaphores[2].mySet = setOf( 4, 0, 1, deadPid );
              s.mySemaphores[2].mySet->myOperationTime = 0;
              s.mySemaphores.push_back(
                  semaphore( "pipe_SrvrConnect_x", setOf( 9, 0, 1, deadPid ) ) );
              s.mySemaphores[0].mySet = setOf( 2, 0, 1, daemonPid );
              s.mySemaphores[1].mySet = setOf( 3, 0, 1, 0 );
          } },
        // The id of the process that took it was used again.
        { "certain taken semaphore shm_table",
          []( Scene& s ) {
              s.mySemaphores[0].mySet = setOf( 2, 0, 1, daemonPid );
              s.myDaemon.myStartTime = now - 50;
          } },
        // Two users are counted and one is attached, or both (a forked child).
        { "certain use-count semaphore shm_table", extraUse },
        { "", []( Scene& s ) { s.mySegments[0].mySegment->myNbrOfAttached = 2; } },
        // Counts are not judged while somebody waits; a stopped process may be half-way through
        // opening.
        { "",
          [=]( Scene& s ) {
              extraUse( s );
              s.mySemaphores[0].mySet->mySemaphores[0].myNbrOfWaiters = 1;
          } },
        { "likely use-count semaphore shm_table",
          [=]( Scene& s ) {
              extraUse( s );
              s.myDaemon.myState = 'T';
          } },
        // Descriptors of some processes cannot be read, and the last opener is alive.
        { "",
          []( Scene& s ) {
              s.mySemaphores[1].mySet = setOf( 3, 1, 2, daemonPid );
              s.myDaemon.myReadable = false;
          } },
        // FIFOs that nobody has open, and those of a pipe whose server is idle or gone.
        { "certain use-count semaphore evt_wake; certain fifo-unused FIFO evt_wake",
          []( Scene& s ) { s.myFifos[0].myUsers.clear(); } },
        { "certain fifo-unused FIFO pipe_toSrvr_y; certain fifo-unused FIFO pipe_fmSrvr_y",
          []( Scene& s ) {
              s.myFifos.push_back( fifo( "pipe_toSrvr_x", 6, { 1, 0 } ) );
              s.myFifos.push_back( fifo( "pipe_fmSrvr_x", 7, { 0, 0 } ) );
              s.myFifos.push_back( fifo( "pipe_toSrvr_y", 8, { 0, 1 } ) );
              s.myFifos.push_back( fifo( "pipe_fmSrvr_y", 9, { 1, 0 } ) );
          } },
        { "certain key-without-set semaphore plain; certain key-without-segment segment other",
          []( Scene& s ) {
              s.mySemaphores[2].mySet.reset();
              s.mySegments.push_back( { "other", { "shm_other", {}, 8, now }, {}, {} } );
          } },
        // A set never finished, another not removed.
        { "certain unfinished semaphore plain; certain unfinished semaphore gone",
          []( Scene& s ) {
              s.mySemaphores[2].mySet->myOperationTime = 0;
              s.mySemaphores[2].mySet->mySemaphores[0].myLastPid = 0;
              s.mySemaphores.push_back( semaphore( "gone", setOf( 9, 1, 0, deadPid ) ) );
          } },
        // A segment that nobody has attached, unless it is a ring with entries.
        { "certain segment-unused segment table", []( Scene& s ) { s.detachTable(); } },
        { "", []( Scene& s ) { s.detachTable( 3 ); } },
        // Records of a dead process, and of one whose id was used again.
        { "certain thread-record thread record 0 of ubrdebug_daemon; "
          "certain thread-record thread record 1 of ubrdebug_daemon",
          []( Scene& s ) {
              s.mySegments[0].myName = "ubrdebug_daemon";
              s.myThreadRecords.resize( 2 );
              for ( ThreadRecord& record : s.myThreadRecords )
                  record.mySegmentName = "ubrdebug_daemon";
              s.myThreadRecords[0].myPid = deadPid;
              s.myThreadRecords[1].myPid = daemonPid;
              s.myThreadRecords[1].myIndex = 1;
              s.detachTable();
              s.myDaemon.mySegments.clear();
          } },
        { "likely stray-set set with id 20",
          []( Scene& s ) { s.myStraySets = { setOf( 20, 1, 1, deadPid ) }; } },
    };
    for ( const auto& [verdict, change] : cases ) {
        Scene scene;
        change( scene );
        EXPECT_EQ( scene.verdict(), verdict );
    }
}

TEST( IpcJudge, OnlyWhatBothLooksShowIsFoundAndTheSmallerExcess )
{
    Scene first, second;
    first.verdict();
    second.verdict();
    first.mySemaphores[0].mySet = setOf( 2, 1, 4, daemonPid );
    second.mySemaphores[0].mySet = setOf( 2, 1, 3, daemonPid );
    second.myFifos[0].myUsers.clear();
    const std::vector< Finding > both = persistent( diagnose( first ), diagnose( second ) );
    ASSERT_EQ( both.size(), 1u );
    EXPECT_TRUE( both[0].myKind == Finding::useCount && both[0].myAmount == 2 );
}

TEST( IpcText, ProcessTextsAreTakenApart )
{
    Process process;
    std::uint64_t startTicks = 0;
    EXPECT_TRUE(
        parseProcessStat( "42 (a) b (c) T 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 777 19",
                          &process, &startTicks ) );
    EXPECT_EQ( process.myName, "a) b (c" );
    EXPECT_TRUE( process.myState == 'T' && startTicks == 777 );
    for ( const char* textPtr : { "", "42", "42 (a)", "42 )a( S 1", "42 (a) S 1 2 3" } )
        EXPECT_FALSE( parseProcessStat( textPtr, &process, &startTicks ) ) << textPtr;
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
    std::string bytes( RingHeader::nbrOfBytes + 32, '\0' );
    const auto store = [&bytes]( std::size_t offset, const std::vector< std::uint32_t >& words ) {
        std::memcpy( bytes.data() + offset, words.data(), 4 * words.size() );
    };
    store( 0, { 32, 24, 8, 16 } );
    store( RingHeader::nbrOfBytes + 24, { 10 } ); // four bytes, then six from the begin on
    bytes.replace( RingHeader::nbrOfBytes + 28, 4, "abcd" );
    bytes.replace( RingHeader::nbrOfBytes, 6, "efghij" );
    ASSERT_TRUE( RingHeader::parse( bytes ).isSound( bytes.size() ) );
    bool isSound = false;
    EXPECT_EQ( ringEntries( bytes, &isSound ), std::vector< std::string >{ "abcdefghij" } );
    EXPECT_TRUE( isSound );
    for ( const std::uint32_t length : { 13u, 33u, 0xFFFFFFF8u, 0xFFFFFFFFu } ) {
        store( RingHeader::nbrOfBytes + 24, { length } );
        EXPECT_TRUE( ringEntries( bytes, &isSound ).empty() );
        EXPECT_FALSE( isSound ) << length;
    }
    store( 0, { 32, 25, 9, 16 } );
    EXPECT_FALSE( RingHeader::parse( bytes ).isSound( bytes.size() ) );
}

} // namespace Nuv::Tools
