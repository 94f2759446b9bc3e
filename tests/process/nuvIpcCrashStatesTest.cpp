// Makes docs/crash-states.md: kills a process before each of its steps and writes down what it
// leaves, what the doctor says of it and what the repair does. The page in the sources is compared
// with what is found; scripts/crash-states writes its tables anew.

#include "nuvIpcDoctor.h"
#include "nuvIpcRepair.h"
#include "nuvctlHealth.h"

#include "nuvEvent.h"
#include "nuvGlobal.h"
#include "nuvGlobalHealthStatusAccessor.h"
#include "nuvInterprocessFifo.h"
#include "nuvPipe.h"
#include "nuvSubsystemInfo.h"
#include "nuvTestSupport.h"
#include "nuvTestTrace.h"

#include <array>
#include <atomic>
#include <cstring>
#include <iostream>
#include <memory>
#include <poll.h>
#include <regex>
#include <set>
#include <sstream>
#include <sys/prctl.h>
#include <thread>
#include <tuple>

namespace Nuv::Tools {
namespace {

using NuvTest::CallInfo;
using NuvTest::ChildProcess;

std::string ipcDirectory()
{
    return NuvTest::RootFixture::root( "ixoRoot/tmp/ipc" );
}

std::string join( const std::vector< std::string >& texts, const char* separatorPtr )
{
    std::string all;
    for ( const std::string& text : texts )
        all += ( all.empty() ? "" : separatorPtr ) + text;
    return all;
}

std::string nameOfSet( const Inventory& inventory, std::uint64_t setId )
{
    if ( inventory.myMaster && inventory.myMaster->myId == static_cast< int >( setId ) )
        return "the master";
    const std::string name = inventory.nameOfSet( static_cast< int >( setId ) );
    return name.empty() ? "the new set" : name;
}

std::string nameOfSegment( const Inventory& inventory, std::uint64_t segmentId )
{
    for ( const NamedSegment& segment : inventory.mySegments ) {
        if ( segment.mySegment && segment.mySegment->myId == static_cast< int >( segmentId ) )
            return segment.myName;
    }
    return "a segment";
}

template < class T >
T peek( pid_t pid, std::uint64_t address )
{
    T value{};
    const int fd = ::open( ( "/proc/" + std::to_string( pid ) + "/mem" ).c_str(), O_RDONLY );
    if ( ::pread( fd, &value, sizeof( value ), static_cast< off_t >( address ) ) < 0 )
        ADD_FAILURE() << "cannot read the traced process";
    ::close( fd );
    return value;
}

std::string fileName( pid_t pid, std::uint64_t address )
{
    const auto bytes = peek< std::array< char, 300 > >( pid, address );
    const std::string path( bytes.data(), ::strnlen( bytes.data(), bytes.size() ) );
    return path.substr( path.rfind( '/' ) + 1 );
}

/// What a stopped process is about to do.
std::string stepText( pid_t pid, const CallInfo& info, const Inventory& inventory )
{
    const auto& args = info.entry.args;
    switch ( info.entry.nr ) {
    case SYS_openat:
        return "create " + fileName( pid, args[1] );
    case SYS_mknodat:
        return "make the FIFO " + fileName( pid, args[1] );
    case SYS_unlink: {
        const std::string name = fileName( pid, args[0] );
        return name[0] == '(' ? name : "unlink " + name;
    }
    case SYS_semget:
        return "get a set";
    case SYS_shmget:
        return "get a segment";
    case SYS_semctl:
        return ( ( args[2] & 0xff ) == IPC_RMID ? "remove the set of " : "set up " ) +
               nameOfSet( inventory, args[0] );
    case SYS_shmctl:
        return ( ( args[1] & 0xff ) == IPC_RMID ? "remove the segment " : "set up the segment " ) +
               nameOfSegment( inventory, args[0] );
    case SYS_shmat:
        return "attach " + nameOfSegment( inventory, args[0] );
    case SYS_shmdt:
        return "detach";
    case SYS_read:
    case SYS_write:
    case SYS_writev: {
        const std::string path = NuvTest::pathOfDescriptor( pid, args[0] );
        return ( info.entry.nr == SYS_read ? "read " : "write " ) +
               path.substr( path.rfind( '/' ) + 1 );
    }
    default: {
        const std::string name = nameOfSet( inventory, args[0] );
        const auto operation = peek< sembuf >( pid, args[1] );
        if ( args[2] > 1 )
            return "keep " + name + " taken";
        if ( operation.sem_num == Mt::Semaphore::useCountIdx )
            return ( operation.sem_op > 0 ? "count a use of " : "give back a use of " ) + name;
        return ( operation.sem_op > 0 ? "post " : "take " ) + name;
    }
    }
}

/// What is there of the objects whose name has the tag.
std::string stateText( const Inventory& inventory, const std::string& tag )
{
    std::vector< std::string > texts;
    const auto add = [&]( const std::string& name, const std::string& text ) {
        if ( name.find( tag ) != std::string::npos )
            texts.push_back( text );
    };
    if ( inventory.myMaster && inventory.myMaster->mySemaphores[0].myValue == 0 )
        texts.emplace_back( "the master is taken" );
    for ( const NamedSemaphore& semaphore : inventory.mySemaphores ) {
        add( semaphore.myName,
             "semaphore " + semaphore.myName + ": " +
                 ( semaphore.isReadable() ? "value " + std::to_string( semaphore.value() ) + ", " +
                                                std::to_string( semaphore.useCount() ) + " counted"
                                          : "key file alone" ) );
    }
    for ( const NamedSegment& segment : inventory.mySegments ) {
        const std::size_t nbrOfUnread = segment.myNbrOfUnread.value_or( 0 );
        add( segment.myName,
             "segment " + segment.myName +
                 ( !segment.mySegment            ? ": key file alone"
                   : segment.nbrOfAttached() > 0 ? ": in use"
                                                 : ": not attached" ) +
                 ( nbrOfUnread > 0 ? ", " + std::to_string( nbrOfUnread ) + " unread" : "" ) );
    }
    for ( const NamedFifo& fifo : inventory.myFifos )
        add( fifo.myName, "FIFO " + fifo.myName );
    for ( const ThreadRecord& record : inventory.myThreadRecords )
        add( record.mySegmentName, "record of \"" + record.myDescription + "\" in use" );
    texts.insert( texts.end(), inventory.myStraySets.size(), "a set without key file" );
    texts.insert( texts.end(), inventory.myStraySegments.size(), "a segment without key file" );
    return texts.empty() ? "nothing" : join( texts, "<br>" );
}

std::string findingText( const Finding& finding )
{
    static const std::regex process( "(process|id) [0-9]+" );
    const std::string found = finding.myText.substr( 0, finding.myText.find( ';' ) );
    return std::string( certaintyKeyword( finding.myCertainty ) ) + ": " +
           std::regex_replace( finding.myObject + " " + found, process, "$1 N" );
}

/// Steps in a row before which a kill has one outcome.
struct Row
{
    std::size_t myFirst = 0;
    std::vector< std::string > mySteps;
    /// What the other side met, what was left, doctor, repair.
    std::array< std::string, 4 > myOutcome;
};
using Rows = std::vector< Row >;

// Until the other side has come as far as it can without the one that is stopped.
constexpr useconds_t settlingUs = 300000;

/// Looks at what the dead left and puts it right.
void examineInto( const std::string& tag, Row* rowPtr )
{
    const auto isMeant = [&tag]( const Finding& finding ) {
        return finding.myCertainty != Finding::note &&
               std::regex_search( finding.myObject, std::regex( tag + "|master|with id" ) );
    };
    const auto textOf = []( const std::set< std::string >& texts ) {
        return texts.empty() ? "nothing" : join( { texts.begin(), texts.end() }, "<br>" );
    };
    Inventory inventory;
    std::set< std::string > doctor;
    std::set< std::string > done;
    std::string error;
    for ( const Finding& finding : examine( ipcDirectory(), 0, &inventory ) ) {
        if ( isMeant( finding ) )
            doctor.insert( findingText( finding ) );
    }
    Repair repair( ipcDirectory(), []( const Finding& ) { return true; }, { 0, 0 } );
    EXPECT_TRUE( repair.run( &error ) ) << error;
    for ( const RepairStep& step : repair.steps() ) {
        EXPECT_TRUE( step.myDone ) << step.myFinding.myObject << ": " << step.myOutcome;
        if ( isMeant( step.myFinding ) )
            done.insert( step.myFinding.myObject + ": " + step.myFinding.myRepair );
    }
    rowPtr->myOutcome = { rowPtr->myOutcome[0], stateText( inventory, tag ), textOf( doctor ),
                          textOf( done ) };
    const std::string left = stateText( Inventory::read( ipcDirectory() ), tag );
    // What holds entries is kept for their reader, the records' segment always.
    EXPECT_TRUE( left == "nothing" || left.find( "unread" ) != std::string::npos ||
                 left.find( "segment ubrdebug" ) == 0 )
        << left;
}

/// Step by step: kills, looks, repairs.
/// @param peer run by a process of its own beside each that is killed; may be empty
Rows sweep( const std::string& tag, const std::function< void() >& prepare,
            const std::function< void() >& actor, const std::function< void() >& peer = {} )
{
    Rows rows;
    bool isKilled = true;
    for ( int n = 1; isKilled && !::testing::Test::HasFailure(); ++n ) {
        SCOPED_TRACE( tag + ", step " + std::to_string( n ) );
        Row row{ static_cast< std::size_t >( n ), { "(it ends in good order)" }, {} };
        std::unique_ptr< ChildProcess > peerPtr;
        if ( peer ) {
            peerPtr = std::make_unique< ChildProcess >( peer );
            EXPECT_EQ( peerPtr->readLine(), "ready" );
        }
        const auto look = [&]( pid_t pid, const CallInfo& info ) {
            if ( peer )
                ::usleep( settlingUs );
            row.mySteps = { stepText( pid, info, Inventory::read( ipcDirectory() ) ) };
        };
        isKilled = NuvTest::killAtChange( n, actor, look, prepare );
        if ( peerPtr ) {
            peerPtr->writeInput( "the other side has ended\n" );
            row.myOutcome[0] = peerPtr->wait().output.substr( std::strlen( "ready\n" ) );
        }
        examineInto( tag, &row );
        if ( !rows.empty() && rows.back().myOutcome == row.myOutcome )
            rows.back().mySteps.push_back( row.mySteps[0] );
        else
            rows.push_back( row );
    }
    return rows;
}

std::string tableText( const std::string& title, const Rows& rows )
{
    const bool hasPeer = !rows.front().myOutcome[0].empty();
    std::ostringstream text;
    text << "\n## " << title << "\n\n| before step | it was about to |"
         << ( hasPeer ? " the other side |" : "" ) << " left | doctor | repair |\n|---|---|"
         << ( hasPeer ? "---|" : "" ) << "---|---|---|\n";
    for ( const Row& row : rows ) {
        text << "| " << row.myFirst;
        if ( row.mySteps.size() > 1 )
            text << " to " << row.myFirst + row.mySteps.size() - 1;
        text << " | " << join( row.mySteps, "; " );
        for ( std::size_t i = hasPeer ? 0 : 1; i < row.myOutcome.size(); ++i )
            text << " | " << row.myOutcome[i];
        text << " |\n";
    }
    return text.str();
}

void begin()
{
    ::prctl( PR_SET_NAME, "daemon" );
}

/// Everything else of the library that a process with a pipe makes.
void beginWithPipe()
{
    begin();
    static Log::SourceSet sources( "IoPipe" );
    Mt::SubsystemInfo::threadletonPtr()->detail();
    Io::CtConfig::handshakeTimeoutMs = 1000;
    Io::CtConfig::maxPipeReadWaitTimeInSec = 1;
}

void serve( Io::ServerPipe* pipePtr )
{
    Utils::Buffer message;
    pipePtr->readMsg( &message );
    pipePtr->writeMsg( message );
    pipePtr->disconnect();
}

void ask( Io::ClientPipe* pipePtr )
{
    Utils::Buffer answer;
    pipePtr->writeMsg( Utils::Buffer( "question" ) );
    pipePtr->readMsg( &answer, 1 );
    pipePtr->disconnect();
}

void connectAndAsk()
{
    Io::ClientPipe pipe( "job" );
    pipe.connect( 30000, false );
    ask( &pipe );
}

/// In a peer: waits until the other side is said to have ended.
bool isOtherSideGone( int timeoutMs )
{
    pollfd input = { STDIN_FILENO, POLLIN, 0 };
    return ::poll( &input, 1, timeoutMs ) > 0;
}

/// In a peer: what it met, and whether it can close its pipe.
[[noreturn]] void end( const std::string& outcome )
{
    isOtherSideGone( -1 );
    const bool isMasterFree = ::semctl( Mt::MasterSemaphore().handle(), 0, GETVAL ) > 0;
    std::cout << outcome << ( isMasterFree ? "" : "; cannot close its pipe" ) << std::flush;
    if ( isMasterFree )
        std::exit( 0 );
    ::_exit( 0 );
}

template < class Call >
std::string outcomeOf( Call&& call, const char* goodPtr )
{
    try {
        call();
        return goodPtr;
    } catch ( const RuntimeException& exception ) {
        return exception.what();
    }
}

void clientPeer()
{
    beginWithPipe();
    std::cout << "ready" << std::endl;
    while ( ::access( ( ipcDirectory() + "/pipe_fmSrvr_job" ).c_str(), F_OK ) != 0 ) {
        if ( isOtherSideGone( 1 ) )
            end( "meets no server" );
    }
    static Io::ClientPipe pipe( "job" );
    for ( bool isConnected = false; !isConnected; ) {
        const bool isLast = isOtherSideGone( 0 );
        isConnected = outcomeOf( [] { pipe.connect( 20, true ); }, "" ).empty();
        if ( !isConnected && isLast )
            end( "is not connected" );
    }
    end( outcomeOf( [] { ask( &pipe ); }, "gets its answer" ) );
}

void serverPeer()
{
    beginWithPipe();
    static Io::ServerPipe pipe( "job" );
    static std::atomic< bool > isWaiting = true;
    static std::atomic< bool > isStopped = false;
    std::thread( [] {
        constexpr useconds_t patienceUs = 1500000; // longer than a handshake's step
        isOtherSideGone( -1 );
        ::usleep( patienceUs );
        if ( isWaiting ) {
            isStopped = true;
            pipe.stop();
        }
    } ).detach();
    std::thread( [] {
        Mt::Semaphore server( "pipe_SrvrConnect_job", 0 );
        NuvTest::waitFor( [&] { return ::semctl( server.handle(), 0, GETVAL ) > 0; } );
        std::cout << "ready" << std::endl;
    } ).detach();
    const std::string connected = outcomeOf( [] { pipe.connect(); }, "" );
    isWaiting = false;
    if ( isStopped )
        end( "goes on waiting for a client" );
    end( !connected.empty() ? connected : outcomeOf( [] { serve( &pipe ); }, "has answered" ) );
}

/// Lets a process commit instruction by instruction, up to the middle of its copy.
template < class Setter >
void killWithinCommit( std::size_t versionAt )
{
    static Setter* setterPtr;
    const auto commit = [] { setterPtr->commitToSharedMemory(); };
    const auto prepare = [&] {
        begin();
        setterPtr = new Setter;
        commit();
    };
    const pid_t pid = NuvTest::startTraced( prepare, commit );
    const Inventory inventory = Inventory::read( ipcDirectory() );
    const NamedSegment* const segmentPtr = inventory.findSegment( "global-data" );
    ASSERT_TRUE( segmentPtr != nullptr && segmentPtr->mySegment );
    const SegmentView view( *segmentPtr->mySegment, -1 );
    std::uint32_t version = 0;
    while ( ( version & 0x80000000 ) == 0 ) {
        ASSERT_TRUE( NuvTest::resumeTraced( pid, PTRACE_SINGLESTEP ) );
        std::memcpy( &version, view.ptr() + versionAt, sizeof( version ) );
    }
    NuvTest::killTraced( pid );
}

class IpcCrashStates : public NuvTest::RootFixture
{
    // The folders and the master semaphore, made by a process that then is gone.
    void SetUp() override
    {
        ASSERT_EQ(
            NuvTest::runInChild( [] { Mt::Semaphore semaphore( "first", 1 ); } ).exitStatus(), 0 );
    }
    void TearDown() override { NuvTest::removeInterprocessObjects(); }
};

} // namespace

TEST_F( IpcCrashStates, PageTellsWhatIsFound )
{
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
    GTEST_SKIP() << "the steps of a sanitized process are not those of the page";
#endif
    if ( !NuvTest::canTrace() || sizeof( void* ) < 8 )
        GTEST_SKIP() << "no child can be traced here, or its calls have other names";
    const std::string pathOfPage = NUV_SOURCE_FOLDER "/docs/crash-states.md";
    const std::string before = NuvTest::readFile( pathOfPage );
    std::string page = before.substr( 0, before.find( "\n## " ) ); // the introduction stays
    const auto semaphore = [] {
        Mt::Semaphore object( "job", 1 );
        object.wait();
        object.post();
    };
    const auto event = [] {
        Mt::Event object( "job" );
        object.signal();
        object.wait( 1000 );
    };
    const auto segment = [] { Io::SharedMemory( "job", 64, Io::SharedMemory::readWrite ); };
    const auto ring = [] {
        Io::InterprocessFifo object( "job", 1024 );
        Utils::Buffer entry;
        object.write( Utils::Buffer( "entry" ) );
        object.read( &entry );
    };
    const auto threadRecord = [] {
        Mt::SubsystemInfo* const infoPtr = Mt::SubsystemInfo::threadletonPtr();
        infoPtr->detail()->description( "worker" );
        ::unlink( "/(it works)" ); // a step to be killed at
        infoPtr->releaseDetail( Mt::SubsystemInfo::stateEndedNormally );
    };
    const auto globalData = [] {
        Utils::Global::singletonPtr()->localTimeOffsetAndZone( 3600, "CET" );
        std::exit( 0 );
    };
    const std::tuple< const char*, const char*, std::function< void() > > objects[] = {
        { "Semaphore", "job", semaphore },
        { "Event", "job", event },
        { "Shared segment", "job", segment },
        { "Ring of an interprocess FIFO", "job", ring },
        { "Thread record", "ubrdebug_daemon", threadRecord },
        { "Global data", "global", globalData } };
    for ( const auto& [title, tag, actor] : objects ) {
        page += tableText( title, sweep( tag, begin, actor ) );
        ASSERT_FALSE( HasFailure() ) << title;
    }
    Rows commits = { { 1, { "end the commit of the main application's record" }, {} },
                     { 2, { "end the commit of the sensor's record" }, {} } };
    for ( Row& row : commits ) {
        if ( row.myFirst == 1 )
            killWithinCommit< HealthAndSecurity::MainAppStatusSetter >(
                offsetof( Utils::Global::Data, mainApp ) );
        else
            killWithinCommit< HealthAndSecurity::SensorStatusSetter >(
                offsetof( Utils::Global::Data, sensor ) );
        const std::optional< Ctl::HealthLook > look = Ctl::HealthLook::take( ipcDirectory() );
        row.myOutcome[0] = ( row.myFirst == 1 ? look->myMainApp : look->mySensor ).myIsWhole
                               ? "reads the record"
                               : "is told that the record is not whole, until the next commit";
        examineInto( "global", &row );
        row.myOutcome[1] += "<br>version word: busy";
    }
    page += tableText( "Health record", commits );
    const auto server = [] {
        Io::ServerPipe pipe( "job" );
        pipe.connect();
        serve( &pipe );
    };
    page += tableText( "Pipe, the server", sweep( "job", beginWithPipe, server, clientPeer ) );
    page +=
        tableText( "Pipe, the client", sweep( "job", beginWithPipe, connectAndAsk, serverPeer ) );
    if ( const char* const pathPtr = std::getenv( "NUV_CRASH_STATES_PAGE" ) )
        NuvTest::writeFile( pathPtr, page );
    else
        EXPECT_EQ( page, before );
}

TEST_F( IpcCrashStates, ClientKilledAtAnyStepLeavesTheServerToTheNextOne )
{
    if ( !NuvTest::canTrace() )
        GTEST_SKIP() << "no child can be traced here";
    ChildProcess server( [] {
        beginWithPipe();
        Io::CtConfig::handshakeTimeoutMs = 200;
        Io::ServerPipe pipe( "job" );
        std::cout << "ready" << std::endl;
        for ( ;; ) {
            if ( outcomeOf( [&] { pipe.connect(); }, "" ).empty() &&
                 !outcomeOf( [&] { serve( &pipe ); }, "" ).empty() )
                pipe.disconnect();
        }
    } );
    ASSERT_EQ( server.readLine(), "ready" );
    int n = 1;
    for ( ; NuvTest::killAtChange( n, connectAndAsk, {}, beginWithPipe ) && !HasFailure(); ++n ) {
        SCOPED_TRACE( "step " + std::to_string( n ) );
        Repair repair( ipcDirectory(), []( const Finding& ) { return true; }, { 0, 0 } );
        std::string error;
        EXPECT_TRUE( repair.run( &error ) ) << error; // of the master, perhaps
        // What the killed one had begun may cost one attempt more.
        const NuvTest::Outcome next = NuvTest::runInChild( [] {
            beginWithPipe();
            if ( outcomeOf( connectAndAsk, "" ).empty() )
                return;
            EXPECT_EQ( outcomeOf( connectAndAsk, "gets its answer" ), "gets its answer" );
        } );
        EXPECT_EQ( next.exitStatus(), 0 ) << next.errors << next.output;
    }
    EXPECT_GT( n, 20 );
    server.kill( SIGKILL );
    server.wait();
}

} // namespace Nuv::Tools
