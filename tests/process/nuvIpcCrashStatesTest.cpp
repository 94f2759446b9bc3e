// Makes docs/crash-states.md: kills a process before each of its steps and writes down what it
// leaves, what the doctor says of it and what the repair does. The page in the sources is compared
// with what is found; scripts/crash-states writes it anew.

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
#include <map>
#include <memory>
#include <poll.h>
#include <regex>
#include <set>
#include <sstream>
#include <sys/prctl.h>
#include <thread>

namespace Nuv::Tools {
namespace {

using NuvTest::CallInfo;
using NuvTest::ChildProcess;

std::string ipcDirectory()
{
    return NuvTest::RootFixture::root( "ixoRoot/tmp/ipc" );
}

// --- texts --------------------------------------------------------------------------------------

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

std::string operationText( const Inventory& inventory, std::uint64_t setId,
                           const sembuf& operation )
{
    const std::string name = nameOfSet( inventory, setId );
    if ( operation.sem_num == Mt::Semaphore::useCountIdx )
        return ( operation.sem_op > 0 ? "count a use of " : "give back a use of " ) + name;
    return ( operation.sem_op > 0 ? "post " : "take " ) + name;
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
    default:
        if ( args[2] > 1 )
            return "keep " + nameOfSet( inventory, args[0] ) + " taken";
        return operationText( inventory, args[0], peek< sembuf >( pid, args[1] ) );
    }
}

/// What is there of the objects whose name has the tag.
std::string stateText( const Inventory& inventory, const std::string& tag )
{
    std::vector< std::string > texts;
    const auto isMeant = [&tag]( const std::string& name ) {
        return name.find( tag ) != std::string::npos;
    };
    if ( inventory.myMaster && inventory.myMaster->mySemaphores[0].myValue == 0 )
        texts.emplace_back( "the master is taken" );
    for ( const NamedSemaphore& semaphore : inventory.mySemaphores ) {
        if ( !isMeant( semaphore.myName ) )
            continue;
        const std::string name = "semaphore " + semaphore.myName;
        texts.push_back( !semaphore.isReadable()
                             ? name + ": key file alone"
                             : name + ": value " + std::to_string( semaphore.value() ) + ", " +
                                   std::to_string( semaphore.useCount() ) + " counted" );
    }
    for ( const NamedSegment& segment : inventory.mySegments ) {
        if ( !isMeant( segment.myName ) )
            continue;
        const std::string name = "segment " + segment.myName;
        texts.push_back( !segment.mySegment            ? name + ": key file alone"
                         : segment.nbrOfAttached() > 0 ? name + ": in use"
                                                       : name + ": not attached" );
        if ( segment.myNbrOfUnread.value_or( 0 ) > 0 )
            texts.back() += ", " + std::to_string( *segment.myNbrOfUnread ) + " unread";
    }
    for ( const NamedFifo& fifo : inventory.myFifos ) {
        if ( isMeant( fifo.myName ) )
            texts.push_back( "FIFO " + fifo.myName );
    }
    for ( const ThreadRecord& record : inventory.myThreadRecords ) {
        if ( isMeant( record.mySegmentName ) )
            texts.push_back( "record of \"" + record.myDescription + "\" in use" );
    }
    for ( std::size_t i = 0; i < inventory.myStraySets.size(); ++i )
        texts.emplace_back( "a set without key file" );
    for ( std::size_t i = 0; i < inventory.myStraySegments.size(); ++i )
        texts.emplace_back( "a segment without key file" );
    return texts.empty() ? "nothing" : join( texts, "<br>" );
}

std::string findingText( const Finding& finding )
{
    static const std::regex process( "(process|id) [0-9]+" );
    const std::string found = finding.myText.substr( 0, finding.myText.find( ';' ) );
    return std::string( certaintyKeyword( finding.myCertainty ) ) + ": " +
           std::regex_replace( finding.myObject + " " + found, process, "$1 N" );
}

// --- the matrix ---------------------------------------------------------------------------------

struct Row
{
    int myFirst = 0;
    int myLast = 0;
    std::vector< std::string > mySteps;
    std::string myPeer; ///< what the other side met
    std::string myState;
    std::string myDoctor;
    std::string myRepair;

    bool isSameAs( const Row& other ) const
    {
        return myPeer == other.myPeer && myState == other.myState && myDoctor == other.myDoctor &&
               myRepair == other.myRepair;
    }
};

// Until the other side has come as far as it can without the one that is stopped.
constexpr useconds_t settlingUs = 300000;

/// Object by object: kills, looks, repairs.
class Matrix
{
public:
    /// @param peer run by a process of its own beside each that is killed; may be empty
    void sweep( const std::string& title, const std::string& tag,
                const std::function< void() >& prepare, const std::function< void() >& actor,
                const std::function< void() >& peer = {} );
    void add( const std::string& title, Row row ) { rowsOf( title ).push_back( std::move( row ) ); }
    /// Looks at what the dead left and puts it right.
    void examineInto( const std::string& tag, Row* rowPtr );

    std::string page() const;

private:
    std::vector< Row >& rowsOf( const std::string& title )
    {
        if ( myTables.empty() || myTables.back().first != title )
            myTables.emplace_back( title, std::vector< Row >() );
        return myTables.back().second;
    }

    std::vector< std::pair< std::string, std::vector< Row > > > myTables;
};

void Matrix::examineInto( const std::string& tag, Row* rowPtr )
{
    const auto isMeant = [&tag]( const Finding& finding ) {
        return finding.myCertainty != Finding::note &&
               ( finding.myObject.find( tag ) != std::string::npos ||
                 finding.myObject.find( "master" ) != std::string::npos ||
                 finding.myObject.find( "with id" ) != std::string::npos );
    };
    Inventory inventory;
    std::set< std::string > doctor;
    for ( const Finding& finding : examine( ipcDirectory(), 0, &inventory ) ) {
        if ( isMeant( finding ) )
            doctor.insert( findingText( finding ) );
    }
    rowPtr->myState = stateText( inventory, tag );
    Repair repair( ipcDirectory(), []( const Finding& ) { return true; }, { 0, 0 } );
    std::string error;
    EXPECT_TRUE( repair.run( &error ) ) << error;
    std::set< std::string > done;
    for ( const RepairStep& step : repair.steps() ) {
        EXPECT_TRUE( step.myDone ) << step.myFinding.myObject << ": " << step.myOutcome;
        if ( isMeant( step.myFinding ) )
            done.insert( step.myFinding.myObject + ": " + step.myFinding.myRepair );
    }
    rowPtr->myDoctor = join( { doctor.begin(), doctor.end() }, "<br>" );
    rowPtr->myRepair = join( { done.begin(), done.end() }, "<br>" );
    const std::string left = stateText( Inventory::read( ipcDirectory() ), tag );
    // What holds entries is kept for their reader, the records' segment always.
    EXPECT_TRUE( left == "nothing" || left.find( "unread" ) != std::string::npos ||
                 left.find( "segment ubrdebug" ) == 0 )
        << left;
}

void Matrix::sweep( const std::string& title, const std::string& tag,
                    const std::function< void() >& prepare, const std::function< void() >& actor,
                    const std::function< void() >& peer )
{
    std::vector< Row >& rows = rowsOf( title );
    for ( bool isKilled = true; isKilled; ) {
        Row row;
        row.myFirst = rows.empty() ? 1 : rows.back().myLast + 1;
        row.myLast = row.myFirst;
        SCOPED_TRACE( title + ", step " + std::to_string( row.myFirst ) );
        std::unique_ptr< ChildProcess > peerPtr;
        if ( peer ) {
            peerPtr = std::make_unique< ChildProcess >( peer );
            ASSERT_EQ( peerPtr->readLine(), "ready" );
        }
        isKilled = NuvTest::killAtChange(
            row.myFirst, actor,
            [&]( pid_t pid, const CallInfo& info ) {
                if ( peer )
                    ::usleep( settlingUs );
                row.mySteps = { stepText( pid, info, Inventory::read( ipcDirectory() ) ) };
            },
            prepare );
        if ( peerPtr ) {
            peerPtr->writeInput( "the other side has ended\n" );
            row.myPeer = peerPtr->wait().output.substr( std::strlen( "ready\n" ) );
        }
        if ( !isKilled )
            row.mySteps = { "(it ends in good order)" };
        examineInto( tag, &row );
        if ( !rows.empty() && rows.back().isSameAs( row ) ) {
            rows.back().myLast = row.myLast;
            rows.back().mySteps.push_back( row.mySteps[0] );
        } else {
            rows.push_back( row );
        }
        ASSERT_FALSE( ::testing::Test::HasFailure() );
    }
}

std::string Matrix::page() const
{
    std::ostringstream page;
    page << R"(# What a killed process leaves

A process was killed (`kill -9`) right before each step that other processes see, once for each line or each step of a line; what
`nuvctl ipc list` then showed of the object, what `nuvctl ipc doctor` said and what `nuvctl ipc repair --yes` did stands beside. Afterwards
nothing was left, but entries of a ring and the segment of thread records, which are kept. Steps with the same outcome share a line. No
other process of the installation ran, unless the table has a column for the other side: that is then let run to its end first,
with time-outs of a second. Use counts of a pipe's semaphores can be judged only when no process that uses the library is left;
until then they stay too high, which harms nobody. Made by `scripts/crash-states`; do not edit.
)";
    for ( const auto& [title, rows] : myTables ) {
        const bool hasPeer = !rows.front().myPeer.empty();
        page << "\n## " << title << "\n\n| before step | it was about to |"
             << ( hasPeer ? " the other side |" : "" ) << " left | doctor | repair |\n|---|---|"
             << ( hasPeer ? "---|" : "" ) << "---|---|---|\n";
        for ( const Row& row : rows ) {
            page << "| " << row.myFirst;
            if ( row.myLast != row.myFirst )
                page << " to " << row.myLast;
            page << " | " << join( row.mySteps, "; " ) << " | ";
            if ( hasPeer )
                page << row.myPeer << " | ";
            page << row.myState << " | " << ( row.myDoctor.empty() ? "nothing" : row.myDoctor )
                 << " | " << ( row.myRepair.empty() ? "nothing" : row.myRepair ) << " |\n";
        }
    }
    return page.str();
}

// --- the processes ------------------------------------------------------------------------------

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

// --- commits ------------------------------------------------------------------------------------

/// Lets a process commit instruction by instruction, up to the middle of its copy.
void killWithinCommit( const std::function< HealthAndSecurity::BaseStatusSetter*() >& make,
                       std::size_t versionAt )
{
    static HealthAndSecurity::BaseStatusSetter* setterPtr;
    const pid_t pid = NuvTest::startTraced(
        [&] {
            begin();
            setterPtr = make();
            setterPtr->commitToSharedMemory();
        },
        [] { setterPtr->commitToSharedMemory(); } );
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
    Matrix matrix;
    matrix.sweep( "Semaphore", "job", begin, [] {
        Mt::Semaphore semaphore( "job", 1 );
        semaphore.wait();
        semaphore.post();
    } );
    matrix.sweep( "Event", "job", begin, [] {
        Mt::Event event( "job" );
        event.signal();
        event.wait( 1000 );
    } );
    matrix.sweep( "Shared segment", "job", begin,
                  [] { Io::SharedMemory memory( "job", 64, Io::SharedMemory::readWrite ); } );
    matrix.sweep( "Ring of an interprocess FIFO", "job", begin, [] {
        Io::InterprocessFifo ring( "job", 1024 );
        Utils::Buffer entry;
        ring.write( Utils::Buffer( "entry" ) );
        ring.read( &entry );
    } );
    matrix.sweep( "Thread record", "ubrdebug_daemon", begin, [] {
        Mt::SubsystemInfo* const infoPtr = Mt::SubsystemInfo::threadletonPtr();
        infoPtr->detail()->description( "worker" );
        ::unlink( "/(it works)" ); // a step to be killed at
        infoPtr->releaseDetail( Mt::SubsystemInfo::stateEndedNormally );
    } );
    matrix.sweep( "Global data", "global", begin, [] {
        Utils::Global::singletonPtr()->localTimeOffsetAndZone( 3600, "CET" );
        std::exit( 0 );
    } );
    const auto makeMain = [] { return new HealthAndSecurity::MainAppStatusSetter; };
    const auto makeSensor = [] { return new HealthAndSecurity::SensorStatusSetter; };
    for ( const bool isSensor : { false, true } ) {
        killWithinCommit(
            isSensor ? std::function< HealthAndSecurity::BaseStatusSetter*() >( makeSensor )
                     : makeMain,
            isSensor ? offsetof( Utils::Global::Data, sensor )
                     : offsetof( Utils::Global::Data, mainApp ) );
        Row row;
        row.mySteps = { std::string( "end the commit of the " ) +
                        ( isSensor ? "sensor's" : "main application's" ) + " record" };
        row.myFirst = row.myLast = isSensor ? 2 : 1;
        const std::optional< Ctl::HealthLook > look = Ctl::HealthLook::take( ipcDirectory() );
        const Ctl::HealthRecord& record = isSensor ? look->mySensor : look->myMainApp;
        row.myPeer = record.myIsWhole
                         ? "reads the record"
                         : "is told that the record is not whole, until the next commit";
        matrix.examineInto( "global", &row );
        row.myState += "<br>version word: busy";
        matrix.add( "Health record", row );
    }
    matrix.sweep(
        "Pipe, the server", "job", beginWithPipe,
        [] {
            Io::ServerPipe pipe( "job" );
            pipe.connect();
            serve( &pipe );
        },
        clientPeer );
    matrix.sweep(
        "Pipe, the client", "job", beginWithPipe,
        [] {
            Io::ClientPipe pipe( "job" );
            pipe.connect( 60000, false );
            ask( &pipe );
        },
        serverPeer );

    if ( const char* const pathPtr = std::getenv( "NUV_CRASH_STATES_PAGE" ) )
        NuvTest::writeFile( pathPtr, matrix.page() );
    else
        EXPECT_EQ( matrix.page(), NuvTest::readFile( NUV_SOURCE_FOLDER "/docs/crash-states.md" ) );
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
    const auto client = [] {
        Io::ClientPipe pipe( "job" );
        pipe.connect( 30000, false );
        ask( &pipe );
    };
    int n = 1;
    for ( ; NuvTest::killAtChange( n, client, {}, beginWithPipe ) && !HasFailure(); ++n ) {
        SCOPED_TRACE( "step " + std::to_string( n ) );
        Repair repair( ipcDirectory(), []( const Finding& ) { return true; }, { 0, 0 } );
        std::string error;
        EXPECT_TRUE( repair.run( &error ) ) << error; // of the master, perhaps
        // What the killed one had begun may cost one attempt more.
        const NuvTest::Outcome next = NuvTest::runInChild( [&client] {
            beginWithPipe();
            if ( outcomeOf( client, "" ).empty() )
                return;
            EXPECT_EQ( outcomeOf( client, "gets its answer" ), "gets its answer" );
        } );
        EXPECT_EQ( next.exitStatus(), 0 ) << next.errors << next.output;
    }
    EXPECT_GT( n, 20 );
    server.kill( SIGKILL );
    server.wait();
}

} // namespace Nuv::Tools
