#include "nuvIpcDoctor.h"
#include "nuvIpcRepair.h"

#include "nuvEvent.h"
#include "nuvInterprocessFifo.h"
#include "nuvPipe.h"
#include "nuvSemaphore.h"
#include "nuvSharedMemory.h"
#include "nuvTestTrace.h"
#include "nuvToolFixture.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <set>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

namespace Nuv::Tools {
namespace {

using NuvTest::canTrace;
using NuvTest::ChildProcess;
using NuvTest::killAtChange;
using NuvTest::Outcome;

std::string ipcDirectory()
{
    return NuvTest::RootFixture::root( "ixoRoot/tmp/ipc" );
}

std::string text( const Finding& finding )
{
    return std::string( certaintyKeyword( finding.myCertainty ) ) + " " +
           kindKeyword( finding.myKind ) + ": " + finding.myObject + "\n";
}

std::string findProblems()
{
    std::string all;
    for ( const Finding& finding : examine( ipcDirectory(), 0, nullptr ) )
        all += finding.myCertainty == Finding::note ? "" : text( finding );
    return all;
}

/// Nobody alive is half-way through anything in these tests, so that no pause is needed.
/// @return the kinds of what was put right
std::set< Finding::Kind > repairAll()
{
    std::set< Finding::Kind > kinds;
    Repair repair( ipcDirectory(), []( const Finding& ) { return true; }, { 0, 0 } );
    std::string error;
    EXPECT_TRUE( repair.run( &error ) ) << error;
    for ( const RepairStep& step : repair.steps() ) {
        EXPECT_TRUE( step.myDone ) << step.myFinding.myObject << ": " << step.myOutcome;
        kinds.insert( step.myFinding.myKind );
    }
    EXPECT_EQ( findProblems(), "" );
    return kinds;
}

/// Every kind of object, opened, used and closed.
struct Objects
{
    Mt::Semaphore mySemaphore{ "plain", 1 };
    Io::SharedMemory mySegment{ "table", 64, Io::SharedMemory::readWrite };
    Mt::Event myEvent{ "wake" };
    Io::InterprocessFifo myFifo{ "ring", 1024 };

    bool use()
    {
        const bool isTaken = mySemaphore.peek( 1000 );
        mySemaphore.post();
        myEvent.signal();
        Utils::Buffer entry;
        myFifo.write( Utils::Buffer( "entry" ) );
        bool isRead = false;
        while ( myFifo.read( &entry ) )
            isRead = true;
        return isTaken && isRead && myEvent.wait( 1000 );
    }
};

void useObjects()
{
    if ( !Objects().use() )
        ::_exit( 1 );
}

void expectNothingLeft()
{
    const Inventory inventory = Inventory::read( ipcDirectory() );
    for ( const NamedSemaphore& semaphore : inventory.mySemaphores )
        ADD_FAILURE() << "left: " << semaphore.myFile.myFileName;
    for ( const NamedSegment& segment : inventory.mySegments )
        EXPECT_TRUE( segment.isThreadRecords() ) << "left: " << segment.myFile.myFileName;
    EXPECT_TRUE( inventory.myFifos.empty() && inventory.myStraySets.empty() &&
                 inventory.myStraySegments.empty() );
}

class IpcDoctor : public NuvTest::ToolFixture
{
protected:
    // The folders and the master semaphore, made by a process that then is gone.
    void SetUp() override
    {
        NuvTest::runInChild( [] { Mt::Semaphore semaphore( "first", 1 ); } );
    }
};

} // namespace

TEST_F( IpcDoctor, RepairNextToALiveUserLeavesItUndisturbed )
{
    if ( !canTrace() )
        GTEST_SKIP() << "no child can be traced here";
    ChildProcess live( [] {
        Objects objects;
        std::cout << "open" << std::endl;
        std::string line;
        while ( std::getline( std::cin, line ) )
            std::cout << ( objects.use() ? "works" : "fails" ) << std::endl;
    } );
    ASSERT_EQ( live.readLine(), "open" );
    for ( int n = 1; killAtChange( n, useObjects ); ++n ) {
        SCOPED_TRACE( "change " + std::to_string( n ) );
        repairAll();
        live.writeInput( "use\n" );
        ASSERT_EQ( live.readLine(), "works" );
        const Inventory inventory = Inventory::read( ipcDirectory() );
        for ( const NamedSemaphore& semaphore : inventory.mySemaphores ) {
            ASSERT_TRUE( semaphore.isReadable() ) << semaphore.myName;
            EXPECT_EQ( semaphore.value(), 1 ) << semaphore.myName;
            // Of a semaphore that nothing else belongs to the users cannot be counted.
            if ( semaphore.myName != "plain" ) {
                EXPECT_EQ( semaphore.useCount(), 1 ) << semaphore.myName;
            }
        }
        ASSERT_FALSE( HasFailure() );
    }
    live.closeInput();
    EXPECT_EQ( live.wait().exitStatus(), 0 );
    repairAll(); // the count of "plain" can be judged now
    expectNothingLeft();
}

TEST_F( IpcDoctor, WaiterGoesOnWhenWhatTheDeadHeldIsGivenBackAfterApproval )
{
    for ( const char* namePtr : { "plain", "shm_table", "LogConfigManager" } ) {
        SCOPED_TRACE( namePtr );
        ChildProcess holder( [namePtr] {
            Mt::Semaphore semaphore( namePtr, 1 );
            semaphore.wait();
            std::cout << "has it" << std::endl;
            ::pause();
        } );
        ASSERT_EQ( holder.readLine(), "has it" );
        ChildProcess waiter( [namePtr] {
            Mt::Semaphore semaphore( namePtr, 1 );
            std::cout << "waits" << std::endl;
            semaphore.wait();
            std::cout << "has it" << std::endl;
            semaphore.post();
        } );
        ASSERT_EQ( waiter.readLine(), "waits" );
        EXPECT_EQ( findProblems(), "" ) << "a live holder is no fault";
        holder.kill( SIGKILL );
        holder.wait();
        const std::string before = findProblems();
        std::string questions, error;
        for ( const bool isApproved : { false, true } ) {
            EXPECT_EQ( findProblems(), before );
            const auto answer = [&]( const Finding& finding ) {
                questions += text( finding );
                return isApproved;
            };
            Repair repair( ipcDirectory(), answer, { 0, 200 } );
            EXPECT_TRUE( repair.run( &error ) ) << error;
            EXPECT_EQ( repair.steps().empty(), !isApproved );
        }
        EXPECT_EQ( questions.find( before + before ), 0u ) << questions;
        EXPECT_EQ( waiter.readLine(), "has it" );
        EXPECT_EQ( waiter.wait().exitStatus(), 0 );
        repairAll();
    }
}

TEST_F( IpcDoctor, NamesBecomeFreeStraysGoAndEntriesStayOnceTheirUserIsDead )
{
    constexpr ::key_t key = 0x7ab3c4d1;
    ChildProcess user( [] {
        const int setId = ::semget( key, 2, IPC_CREAT | IPC_EXCL | 0660 );
        sembuf operations[] = { { 0, 1, 0 }, { 1, 1, 0 } };
        ::semop( setId, operations, 2 );
        ::shmget( key, 8804, IPC_CREAT | IPC_EXCL | 0660 );
        Io::ServerPipe idle( "control" );
        Io::InterprocessFifo fifo( "ring", 1024 );
        fifo.write( Utils::Buffer( "last words" ) );
        std::cout << "made" << std::endl;
        ::pause();
    } );
    ASSERT_EQ( user.readLine(), "made" );
    EXPECT_EQ( findProblems(), "" );
    user.kill( SIGKILL );
    user.wait();
    EXPECT_NE( NuvTest::runInChild( [] { Io::ServerPipe pipe( "control" ); } ).exitStatus(), 0 );
    repairAll();
    EXPECT_TRUE( ::semget( key, 0, 0 ) < 0 && ::shmget( key, 0, 0 ) < 0 );
    const Outcome outcome = NuvTest::runInChild( [] {
        Io::ServerPipe pipe( "control" );
        Io::InterprocessFifo fifo( "ring", 1024 );
        Utils::Buffer entry;
        EXPECT_TRUE( fifo.read( &entry ) );
        EXPECT_STREQ( entry.cStr(), "last words" );
    } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
    repairAll(); // a forked child leaves its log's objects
    expectNothingLeft();
}

TEST_F( IpcDoctor, UnfinishedMasterIsGivenItsValue )
{
    const Inventory inventory = Inventory::read( ipcDirectory() );
    ASSERT_TRUE( inventory.myMaster );
    ::semctl( inventory.myMaster->myId, 0, IPC_RMID );
    ASSERT_GE( ::semget( inventory.myMaster->myKey, 1, IPC_CREAT | IPC_EXCL | 0660 ), 0 );
    EXPECT_EQ( repairAll(), std::set{ Finding::masterUnfinished } );
    EXPECT_EQ( NuvTest::runInChild( useObjects ).exitStatus(), 0 );
}

} // namespace Nuv::Tools
