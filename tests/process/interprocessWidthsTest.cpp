#include "nuvFileSystem.h"
#include "nuvInterprocessFifo.h"
#include "nuvTestInterprocess.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Nuv {
namespace {

[[maybe_unused]] const bool ourCleanUp = std::atexit( &NuvTest::removeInterprocessObjects ) == 0;

// Another process with objects of its own, see programs/ipcActor.cpp.
class Actor : public NuvTest::ChildProcess
{
    static std::string root() { return NuvTest::RootFixture::root(); }

public:
    explicit Actor( int width )
        : ChildProcess( NuvTest::program( "ipcActor", width ) )
    {
    }
    explicit Actor( const std::string& home = root() )
        : ChildProcess( NuvTest::program( "ipcActor" ), { {}, { "HOME=" + home } } )
    {
    }

    void tell( const std::string& command ) { writeInput( command + "\n" ); }
    std::string ask( const std::string& command )
    {
        tell( command );
        return readLine();
    }
    void kill()
    {
        ChildProcess::kill( SIGKILL );
        EXPECT_EQ( wait().signal(), SIGKILL );
    }
};

// Says the same to all at once. @return their answers, sorted
std::vector< std::string > askAll( std::array< Actor, 3 >& actors, const std::string& command )
{
    std::vector< std::string > answers;
    for ( Actor& actor : actors ) {
        actor.tell( command );
    }
    for ( Actor& actor : actors ) {
        answers.push_back( actor.readLine() );
    }
    std::sort( answers.begin(), answers.end() );
    return answers;
}

using Answers = std::vector< std::string >;

class Interprocess : public NuvTest::InterprocessFixture
{
protected:
    // What an operator's repair does once those who were killed are gone: all is free again.
    static void repair()
    {
        std::ifstream file( "/proc/sysvipc/sem" );
        std::string line;
        while ( std::getline( file, line ) ) {
            int key, id, mode, nbrOfSemaphores;
            if ( std::sscanf( line.c_str(), "%d %d %o %d", &key, &id, &mode, &nbrOfSemaphores ) !=
                 4 )
                continue;
            ::semctl( id, 0, SETVAL, 1 );
            if ( nbrOfSemaphores == 2 )
                ::semctl( id, 1, SETVAL, 0 );
        }
    }
};

TEST_F( Interprocess, OneOfTheCreatorsThatComeAtOnceCreates )
{
    std::array< Actor, 3 > actors;
    for ( int round = 0; round < 75; ++round ) {
        const char* const kinds[] = { "semaphore", "segment", "fifo" };
        const std::string kind = kinds[round % 3];
        SCOPED_TRACE( kind + std::to_string( round ) );
        EXPECT_EQ( askAll( actors, kind + " race 100" ),
                   Answers( { "created", "joined", "joined" } ) );
        EXPECT_EQ( askAll( actors, "drop" ), Answers( 3, "dropped" ) );
        for ( const char* const namePtr :
              { "sem_race", "shm_race", "sem_shm_race", "sem_IpFifo_race", "shm_IpFifo_race",
                "sem_evt_IpFifo_race", "evt_IpFifo_race" } ) {
            EXPECT_FALSE( exists( namePtr ) ) << namePtr;
        }
    }
}

TEST_F( Interprocess, MasterSetIsMadeOnceByProcessesThatStartAtOnce )
{
    const auto masterHandle = [] {
        return ::semget( Io::FileSystem::ftok( ipc( "" ).c_str(), 1 ), 1, 0 );
    };
    for ( int round = 0; round < 10; ++round ) {
        ASSERT_TRUE( round == 0 || ::semctl( masterHandle(), 0, IPC_RMID ) == 0 );
        std::array< Actor, 3 > actors;
        askAll( actors, "semaphore first 1" );
        EXPECT_EQ( ::semctl( masterHandle(), 0, GETVAL ), 1 );
        EXPECT_EQ( askAll( actors, "uses" ), Answers( 3, "3" ) );
        for ( Actor& actor : actors ) {
            actor.closeInput();
            EXPECT_EQ( actor.wait().exitStatus(), 0 );
        }
    }
}

TEST_F( Interprocess, LastUserGoesAlsoWhenAnotherWasKilled )
{
    Actor killed, last;
    for ( const std::string command : { "semaphore last 3", "segment last 100", "event last" } ) {
        killed.ask( command );
        last.ask( command );
    }
    EXPECT_EQ( killed.ask( "wait" ), "taken" );
    EXPECT_EQ( killed.ask( "put left" ), "left" );
    EXPECT_EQ( killed.ask( "signal" ), "signalled" );
    killed.kill();
    EXPECT_EQ( last.ask( "get" ), "left" );
    EXPECT_EQ( last.ask( "await 1000" ), "fired" );
    EXPECT_EQ( last.ask( "uses" ), "2" ) << "of which one is the dead process's";
    EXPECT_EQ( last.ask( "drop" ), "dropped" );
    EXPECT_FALSE( exists( "shm_last" ) ) << "the system knows who is attached";
    EXPECT_TRUE( exists( "sem_last" ) );
    EXPECT_TRUE( exists( "evt_last" ) );

    EXPECT_EQ( last.ask( "semaphore last 3" ), "joined" );
    EXPECT_EQ( last.ask( "uses" ), "2" );
    for ( const char* const answerPtr : { "taken", "taken", "not taken" } ) {
        EXPECT_EQ( last.ask( "peek" ), answerPtr );
    }
    EXPECT_EQ( last.ask( "segment last 100" ), "created" );
    EXPECT_EQ( last.ask( "event last" ), "made" );
    last.tell( "await 60000" );
    Actor other;
    other.ask( "event last" );
    EXPECT_EQ( other.ask( "signal" ), "signalled" );
    EXPECT_EQ( last.readLine(), "fired" );
    last.ask( "drop" );
    other.ask( "drop" );
    repair();
    EXPECT_EQ( last.ask( "semaphore last 3" ), "created" ) << "a set of no user is made anew";
    EXPECT_EQ( last.ask( "event last" ), "made" );
    EXPECT_EQ( last.ask( "drop" ), "dropped" );
    EXPECT_FALSE( exists( "sem_last" ) );
    EXPECT_FALSE( exists( "evt_last" ) );
}

TEST_F( Interprocess, KilledAtAnyStepLeavesNothingThatRepairDoesNotPutRight )
{
    std::mt19937 random( 815 );
    for ( int round = 0; round < 40; ++round ) {
        SCOPED_TRACE( round );
        Actor first, second;
        first.tell( "churn churned" );
        second.tell( "churn churned" );
        for ( unsigned int i = random() % 4; i > 0; --i ) {
            first.readLine();
        }
        for ( unsigned int i = random() % 3000; i > 0; --i ) {
            ::getppid(); // no time is waited for: any moment will do
        }
        first.kill();
        second.kill();
        repair();
        Actor after;
        const std::string made = after.ask( "fifo churned 1000" );
        EXPECT_TRUE( made == "created" || made == "joined" ) << made;
        while ( after.ask( "read" ) != "-" ) {
        }
        EXPECT_EQ( after.ask( "write 1 10 x" ), "0" );
        EXPECT_EQ( after.ask( "read" ), "x 0 xxxxxx" );
        EXPECT_EQ( after.ask( "drop" ), "dropped" );
        EXPECT_FALSE( exists( "shm_IpFifo_churned" ) );
        EXPECT_FALSE( exists( "sem_IpFifo_churned" ) );
        EXPECT_FALSE( exists( "evt_IpFifo_churned" ) );
    }
}

// What goes wrong while a process is inside the ring is logged; if the log goes into that very
// ring, the line must not wait for the process itself.
TEST_F( Interprocess, FailureInsideTheRingOfTheLogBlocksNobody )
{
    const std::string home = root( "logApp" );
    NuvTest::writeFile( home + "/ixoRoot/etc/log.conf",
                        "[logApp]\nenabled = true\nfifoName = ring\nfifoSizeInK = 1\n" );
    Actor actor( home );
    EXPECT_EQ( actor.ask( "fifo ring 1024" ), "created" );
    const std::string keyFile = home + "/ixoRoot/tmp/ipc/sem_evt_IpFifo_ring";
    const int handle = ::semget( Io::FileSystem::ftok( keyFile.c_str(), 1 ), 2, 0 );
    ASSERT_EQ( ::semctl( handle, 0, IPC_RMID ), 0 ); // its removal will fail
    EXPECT_EQ( actor.ask( "drop" ), "dropped" );
    const std::string ringKeyFile = home + "/ixoRoot/tmp/ipc/sem_IpFifo_ring";
    const int ringHandle = ::semget( Io::FileSystem::ftok( ringKeyFile.c_str(), 1 ), 2, 0 );
    EXPECT_EQ( ::semctl( ringHandle, 0, GETVAL ), 1 );
    actor.closeInput();
    EXPECT_EQ( actor.wait().exitStatus(), 0 );
}

// Every entry is read, or counted as discarded by the writer that made room.
void streamFromFourWriters( const std::vector< int >& widths, unsigned int ringSize )
{
    constexpr int nbrOfEntries = 4000;
    constexpr std::size_t length = 60;
    Io::InterprocessFifo fifo( "stream", ringSize );
    std::vector< std::unique_ptr< Actor > > writers;
    for ( const int width : widths ) {
        writers.push_back( std::make_unique< Actor >( width ) );
        EXPECT_EQ( writers.back()->ask( "fifo stream " + std::to_string( ringSize ) ), "joined" );
    }
    char id = 'a';
    for ( const auto& writer : writers ) {
        writer->tell( "write " + std::to_string( nbrOfEntries ) + " " + std::to_string( length ) +
                      " " + id++ );
    }
    std::uint64_t nbrOfDiscarded = 0;
    std::thread collector( [&] {
        for ( const auto& writer : writers ) {
            nbrOfDiscarded += std::stoull( writer->readLine() );
        }
    } );
    std::atomic< bool > isWritten = false;
    std::thread ending( [&] {
        collector.join();
        isWritten = true;
        fifo.event().signal();
    } );
    std::uint64_t nbrOfRead = 0;
    std::map< std::string, int > nextOf;
    for ( bool isLastRound = false; !isLastRound; ) {
        isLastRound = isWritten;
        fifo.event().wait( isLastRound ? 0 : 60000 );
        for ( Utils::Buffer entry; fifo.read( &entry ); ++nbrOfRead ) {
            std::istringstream words( entry.str() );
            std::string writer, rest;
            int number = -1;
            words >> writer >> number >> rest;
            EXPECT_EQ( entry.size(), length );
            EXPECT_EQ( rest.find_first_not_of( writer ), std::string::npos ) << entry.str();
            EXPECT_GE( number, nextOf[writer] );
            nextOf[writer] = number + 1;
        }
    }
    ending.join();
    EXPECT_EQ( nbrOfRead + nbrOfDiscarded, nbrOfEntries * widths.size() );
    EXPECT_EQ( nextOf.size(), widths.size() );
    for ( const auto& [writer, next] : nextOf ) {
        EXPECT_LE( next, nbrOfEntries );
    }
    EXPECT_EQ( nbrOfDiscarded == 0, fifo.nbrOfOverruns() == 0 );
}

TEST_F( Interprocess, EveryEntryOfFourWritersIsReadOrCountedAsDiscarded )
{
    const int width = 8 * static_cast< int >( sizeof( void* ) );
    streamFromFourWriters( { width, width, width, width }, 2048 );
}

TEST_F( Interprocess, EveryEntryOfWritersOfBothWidthsIsReadOrCounted )
{
    NUV_SKIP_WITHOUT( NuvTest::program( "ipcActor", 32 ) );
    NUV_SKIP_WITHOUT( NuvTest::program( "ipcActor", 64 ) );
    streamFromFourWriters( { 32, 64, 32, 64 }, 2048 );
    streamFromFourWriters( { 64, 32 }, 4000000 );
}

TEST_F( Interprocess, ProcessesOfBothWidthsShareAllKinds )
{
    NUV_SKIP_WITHOUT( NuvTest::program( "ipcActor", 32 ) );
    NUV_SKIP_WITHOUT( NuvTest::program( "ipcActor", 64 ) );
    Actor narrow( 32 ), wide( 64 );
    for ( const auto& [creatorPtr, otherPtr] :
          { std::pair( &narrow, &wide ), std::pair( &wide, &narrow ) } ) {
        for ( const std::string command :
              { "semaphore both 1", "segment both 100", "fifo both 1000" } ) {
            EXPECT_EQ( creatorPtr->ask( command ), "created" );
            EXPECT_EQ( otherPtr->ask( command ), "joined" );
        }
        EXPECT_EQ( creatorPtr->ask( "event both" ), "made" );
        EXPECT_EQ( otherPtr->ask( "event both" ), "made" );
        EXPECT_EQ( creatorPtr->ask( "put shared" ), "shared" );
        EXPECT_EQ( otherPtr->ask( "get" ), "shared" );
        EXPECT_EQ( creatorPtr->ask( "wait" ), "taken" );
        EXPECT_EQ( otherPtr->ask( "uses" ), "2" );
        EXPECT_EQ( otherPtr->ask( "peek" ), "not taken" );
        otherPtr->tell( "wait" );
        EXPECT_EQ( creatorPtr->ask( "post" ), "posted" );
        EXPECT_EQ( otherPtr->readLine(), "taken" );
        otherPtr->tell( "await 60000" );
        EXPECT_EQ( creatorPtr->ask( "signal" ), "signalled" );
        EXPECT_EQ( otherPtr->readLine(), "fired" );
        EXPECT_EQ( creatorPtr->ask( "write 12 97 x" ), "3" ); // 104 bytes each of 1004
        EXPECT_EQ( otherPtr->ask( "read" ).substr( 0, 4 ), "x 3 " );
        EXPECT_EQ( otherPtr->ask( "drop" ), "dropped" );
        EXPECT_EQ( creatorPtr->ask( "read" ).substr( 0, 4 ), "x 4 " );
        EXPECT_EQ( creatorPtr->ask( "drop" ), "dropped" );
        EXPECT_FALSE( exists( "sem_both" ) || exists( "evt_both" ) || exists( "shm_both" ) );
    }
}

} // namespace
} // namespace Nuv
