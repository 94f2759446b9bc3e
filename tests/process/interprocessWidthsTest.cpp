#include "nuvFileSystem.h"
#include "nuvInterprocessFifo.h"
#include "nuvTestInterprocess.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <thread>
#include <vector>

namespace Nuv {
namespace {

[[maybe_unused]] const bool ourCleanUp = std::atexit( &NuvTest::removeInterprocessObjects ) == 0;

constexpr int ownWidth = 8 * static_cast< int >( sizeof( void* ) );

// Another process with objects of its own, see programs/ipcActor.cpp.
class Actor : public NuvTest::ChildProcess
{
public:
    explicit Actor( int width = ownWidth, const std::string& home = NuvTest::RootFixture::root() )
        : ChildProcess( NuvTest::program( "ipcActor", width ), { {}, { "HOME=" + home } } )
    {
    }
    void tell( const std::string& command ) { writeInput( command + "\n" ); }
    std::string ask( const std::string& command )
    {
        tell( command );
        return readLine();
    }
    void end()
    {
        closeInput();
        EXPECT_EQ( wait().exitStatus(), 0 );
    }
};

// Says the same to all at once. @return their answers, sorted
std::multiset< std::string > askAll( std::array< Actor, 3 >& actors, const std::string& command )
{
    std::multiset< std::string > answers;
    for ( Actor& actor : actors ) {
        actor.tell( command );
    }
    for ( Actor& actor : actors ) {
        answers.insert( actor.readLine() );
    }
    return answers;
}

using Answers = std::multiset< std::string >;

class Interprocess : public NuvTest::InterprocessFixture
{
protected:
    static int handle( const std::string& path, int nbrOfSemaphores = 2 )
    {
        return ::semget( Io::FileSystem::ftok( path.c_str(), 1 ), nbrOfSemaphores, 0 );
    }
    static bool isAnyLeft( const std::string& name )
    {
        for ( const auto& entry : std::filesystem::directory_iterator( ipc( "" ) ) ) {
            if ( entry.path().string().ends_with( "_" + name ) )
                return true;
        }
        return false;
    }
    // Steps of two actors: "1 command: answer; 2 command that blocks: ...; 2 : late answer".
    static void play( Actor& first, Actor& second, const std::string& steps )
    {
        std::istringstream stream( steps );
        for ( std::string step; std::getline( stream >> std::ws, step, ';' ); ) {
            SCOPED_TRACE( step );
            Actor& actor = step[0] == '1' ? first : second;
            const std::size_t colon = step.find( ": " );
            if ( colon > 2 )
                actor.tell( step.substr( 2, colon - 2 ) );
            if ( step.substr( colon ) != ": ..." ) {
                EXPECT_EQ( actor.readLine(), step.substr( colon + 2 ) );
            }
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
        EXPECT_EQ( askAll( actors, "drop" ), Answers( { "dropped", "dropped", "dropped" } ) );
        EXPECT_FALSE( isAnyLeft( "race" ) );
    }
}

TEST_F( Interprocess, MasterSetIsMadeOnceByProcessesThatStartAtOnce )
{
    for ( int round = 0; round < 10; ++round ) {
        ASSERT_TRUE( round == 0 || ::semctl( handle( ipc( "" ), 1 ), 0, IPC_RMID ) == 0 );
        std::array< Actor, 3 > actors;
        askAll( actors, "semaphore first 1" );
        EXPECT_EQ( ::semctl( handle( ipc( "" ), 1 ), 0, GETVAL ), 1 );
        EXPECT_EQ( askAll( actors, "uses" ), Answers( { "3", "3", "3" } ) );
        for ( Actor& actor : actors ) {
            actor.end();
        }
    }
}

TEST_F( Interprocess, LastUserGoesAlsoWhenAnotherWasKilled )
{
    Actor killed, last;
    play( killed, last,
          "1 semaphore last 3: created; 2 semaphore last 3: joined; 1 segment last 100: created;"
          "2 segment last 100: joined; 1 event last: made; 2 event last: made; 1 wait: taken;"
          "1 put left: left; 1 signal: signalled" );
    killed.kill( SIGKILL );
    killed.wait();
    // Of the uses one is the dead process's.
    play( last, last, "1 get: left; 1 await 1000: fired; 1 uses: 2; 1 drop: dropped" );
    EXPECT_FALSE( exists( "shm_last" ) ) << "the system knows who is attached";
    EXPECT_TRUE( exists( "sem_last" ) && exists( "evt_last" ) );
    Actor other;
    play( last, other,
          "1 semaphore last 3: joined; 1 peek: taken; 1 peek: taken; 1 peek: not taken;"
          "1 event last: made; 1 await 60000: ...; 2 event last: made; 2 signal: signalled;"
          "1 : fired; 1 drop: dropped; 2 drop: dropped" );
    for ( const char* const namePtr : { "sem_last", "sem_evt_last", "sem_shm_last" } ) { // repaired
        ::semctl( handle( ipc( namePtr ) ), Mt::Semaphore::useCountIdx, SETVAL, 0 );
    }
    // A set of no user is made anew.
    play( last, last,
          "1 semaphore last 3: created; 1 segment last 9: created; 1 event last: made;"
          "1 drop: dropped" );
    EXPECT_FALSE( isAnyLeft( "last" ) );
}

// What goes wrong while a process is inside the ring is logged; if the log goes into that very
// ring, the line must not wait for the process itself.
TEST_F( Interprocess, FailureInsideTheRingOfTheLogBlocksNobody )
{
    const std::string home = root( "logApp" );
    NuvTest::writeFile( home + "/ixoRoot/etc/log.conf",
                        "[logApp]\nenabled = true\nfifoName = ring\nfifoSizeInK = 1\n" );
    Actor actor( ownWidth, home );
    EXPECT_EQ( actor.ask( "fifo ring 1024" ), "created" );
    const std::string folder = home + "/ixoRoot/tmp/ipc/";
    // Its removal will fail.
    ASSERT_EQ( ::semctl( handle( folder + "sem_evt_IpFifo_ring" ), 0, IPC_RMID ), 0 );
    EXPECT_EQ( actor.ask( "drop" ), "dropped" );
    EXPECT_EQ( ::semctl( handle( folder + "sem_IpFifo_ring" ), 0, GETVAL ), 1 );
    actor.end();
}

// Every entry is read, or counted as discarded by the writer that made room.
void streamFromFourWriters( const std::vector< int >& widths, unsigned int ringSize )
{
    Io::InterprocessFifo fifo( "stream", ringSize );
    std::vector< std::unique_ptr< Actor > > writers;
    for ( const int width : widths ) {
        writers.push_back( std::make_unique< Actor >( width ) );
        EXPECT_EQ( writers.back()->ask( "fifo stream " + std::to_string( ringSize ) ), "joined" );
    }
    char id = 'a';
    for ( const auto& writer : writers ) {
        writer->tell( std::string( "write 4000 60 " ) + id++ );
    }
    std::uint64_t nbrOfDiscarded = 0;
    std::atomic< bool > isWritten = false;
    std::thread collector( [&] {
        for ( const auto& writer : writers ) {
            nbrOfDiscarded += std::stoull( writer->readLine() );
        }
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
            EXPECT_EQ( entry.size(), 60u );
            EXPECT_EQ( rest.find_first_not_of( writer ), std::string::npos ) << entry.str();
            EXPECT_GE( number, nextOf[writer] );
            nextOf[writer] = number + 1;
        }
    }
    collector.join();
    EXPECT_EQ( nbrOfRead + nbrOfDiscarded, 4000 * widths.size() );
    EXPECT_EQ( nextOf.size(), widths.size() );
    EXPECT_EQ( nbrOfDiscarded == 0, fifo.nbrOfOverruns() == 0 );
}

TEST_F( Interprocess, EveryEntryOfFourWritersIsReadOrCountedAsDiscarded )
{
    streamFromFourWriters( { ownWidth, ownWidth, ownWidth, ownWidth }, 2048 );
    NUV_SKIP_WITHOUT( NuvTest::program( "ipcActor", 96 - ownWidth ) );
    streamFromFourWriters( { 32, 64, 32, 64 }, 2048 );
    streamFromFourWriters( { 64, 32 }, 4000000 );
}

TEST_F( Interprocess, ProcessesOfBothWidthsShareAllKinds )
{
    NUV_SKIP_WITHOUT( NuvTest::program( "ipcActor", 96 - ownWidth ) );
    for ( const int width : { 32, 64 } ) {
        Actor creator( width ), other( 96 - width );
        play(
            creator, other,
            "1 semaphore both 1: created; 2 semaphore both 1: joined; 1 segment both 100: created;"
            "2 segment both 100: joined; 1 fifo both 1000: created; 2 fifo both 1000: joined;"
            "1 event both: made; 2 event both: made; 1 put shared: shared; 2 get: shared;"
            "1 wait: taken; 2 uses: 2; 2 peek: not taken; 2 wait: ...; 1 post: posted; 2 : taken;"
            "2 await 60000: ...; 1 signal: signalled; 2 : fired; 1 write 12 17 x: 0;"
            "2 read: x 0 xxxxxxxxxxxxx; 2 drop: dropped; 1 read: x 1 xxxxxxxxxxxxx;"
            "1 drop: dropped" );
        EXPECT_FALSE( isAnyLeft( "both" ) );
    }
}

} // namespace
} // namespace Nuv
