#include "nuvSemaphore.h"

#include "nuvFileSystem.h"
#include "nuvLogCapture.h"
#include "nuvTestCapabilityDevice.h"
#include "nuvTestInterprocess.h"
#include "nuvTestThread.h"
#include "nuvTestWrap.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <tuple>

namespace {
NuvTest::Fault ourFault, ourRemovalFault; // in all calls but IPC_RMID, and in that
std::atomic< int > ourNbrOfSemops = 0;
unsigned int ourSecondsSlept = 0;
std::function< void() > ourOnUsleep = [] {};
} // namespace

NUV_FAIL_CALLS( ourFault, -1, int, semget, ( key_t k, int n, int flags ), ( k, n, flags ) )
NUV_FAIL_CALLS( command == IPC_RMID ? ourRemovalFault : ourFault, -1, int, NUV_CTL64( semctl ),
                ( int handle, int idx, int command, void* ptr ), ( handle, idx, command, ptr ) )
NUV_WRAP_REAL( int, semop, ( int handle, sembuf* ptr, size_t count ), ++ourNbrOfSemops,
               ourFault.strikes() ? -1 : NUV_REAL( semop )( handle, ptr, count ) )
NUV_FAIL_CALLS( ourFault, -1, int, NUV_OFF64( open ), ( const char* p, int flags, mode_t mode ),
                ( p, flags, mode ) )
NUV_WRAP( unsigned int, sleep, ( unsigned int seconds ), ourSecondsSlept += seconds, 0 )
NUV_WRAP( int, usleep, ( useconds_t ), ourOnUsleep(), 0 )

namespace Nuv::Mt {
namespace {

using NuvTest::expectFailure;
using NuvTest::Fault;
using SemaphorePtr = std::unique_ptr< Semaphore >;

class SemaphoreTest : public NuvTest::InterprocessFixture
{
protected:
    static SemaphorePtr make( const char* namePtr, unsigned int count = 1 )
    {
        return std::make_unique< Semaphore >( namePtr, count );
    }
    // @return count and use count
    static std::string values( const Semaphore& semaphore )
    {
        return std::to_string( ::semctl( semaphore.handle(), 0, GETVAL ) ) + "/" +
               std::to_string( semaphore.useCount() );
    }
    static void removeSet( int handle ) { ASSERT_EQ( ::semctl( handle, 0, IPC_RMID ), 0 ); }
    // A set of one semaphore, as only the directory itself ("") has one.
    static int openSet( const std::string& name, int flags = 0 )
    {
        return ::semget( Io::FileSystem::ftok( ipc( name ).c_str(), 1 ), 1, flags );
    }
    static int masterValue() { return ::semctl( openSet( "" ), 0, GETVAL ); }
    static bool waitForWaiter( int handle )
    {
        return NuvTest::waitFor( [=] { return ::semctl( handle, 0, GETNCNT ) == 1; } );
    }

    const SemaphorePtr myWarmUp = make( "warmUp" ); // the master set exists from here on
};

TEST_F( SemaphoreTest, TimedPeekTriesOnceOrUntilItsTimeHasPassed )
{
    Semaphore semaphore( "peeked", 0 );
    NuvTest::CapabilityDeviceDouble device;
    std::uint32_t clockMs = 0;
    ourOnUsleep = [&] {
        device.setClockMs( ++clockMs );
        if ( clockMs == 50 )
            semaphore.post();
    };
    const std::pair< unsigned int, std::uint32_t > cases[] = {
        { 0, 0 }, { 5, 5 }, { Semaphore::infinite, 50 } };
    for ( const auto& [timeoutMs, endMs] : cases ) {
        EXPECT_EQ( semaphore.peek( timeoutMs ), endMs == 50 );
        EXPECT_EQ( clockMs, endMs );
    }
    ourOnUsleep = [] {};
    EXPECT_FALSE( SemaphoreLock( &semaphore, SemaphoreLock::stateUnlocked ).lock( 0 ) );
    EXPECT_EQ( values( semaphore ), "0/1" ) << "a lock that timed out has posted";
}

TEST_F( SemaphoreTest, InterruptionsAreRepeatedAndOtherFailuresReported )
{
    WaitMark( WaitKind::events ); // this thread has a record from here on
    Semaphore semaphore( "interrupted", 30 );
    using Operation = std::function< bool() >;
    const Operation peek = [&] { return semaphore.peek(); };
    const Operation timedPeek = [&] { return semaphore.peek( 1000 ); };
    const Operation post = [&] { return semaphore.post(); };
    const Operation wait = [&] { return semaphore.wait(); };
    const std::tuple< Operation, int, bool, int, unsigned int > cases[] = {
        { peek, EINTR, true, 2, 0 },      { peek, EFBIG, false, 1, 0 },
        { timedPeek, EINTR, true, 2, 0 }, { timedPeek, EFBIG, false, 1, 0 },
        { post, EINTR, true, 2, 0 },      { post, EAGAIN, true, 2, 1 },
        { post, EIDRM, false, 1, 0 },     { wait, EINTR, true, 2, 0 },
        { wait, EAGAIN, true, 2, 0 },
    };
    for ( const auto& [operation, errorNbr, result, nbrOfSemops, secondsSlept] : cases ) {
        ourNbrOfSemops = 0;
        ourSecondsSlept = 0;
        ourFault.arm( 1, errorNbr ); // the first call
        EXPECT_EQ( operation(), result ) << errorNbr;
        ourFault.disarm();
        EXPECT_EQ( ourNbrOfSemops, nbrOfSemops ) << errorNbr;
        EXPECT_EQ( ourSecondsSlept, secondsSlept ) << errorNbr;
    }
}

TEST_F( SemaphoreTest, RemovedSetFailsWaitsAndTakesOnlyItsOwnFilesAlong )
{
    SemaphorePtr oldPtr = make( "removed", 0 );
    std::thread remover = NuvTest::startThread( [&] {
        EXPECT_TRUE( waitForWaiter( oldPtr->handle() ) );
        removeSet( oldPtr->handle() );
    } );
    const std::string text = "failed: doSemOp( -1, semaphoreIdx, mySemaphoreHandle ),  ";
    expectFailure( text + "Identifier removed", [&] { oldPtr->wait(); } );
    remover.join();
    EXPECT_FALSE( SemaphoreLock( oldPtr.get(), SemaphoreLock::stateUnlocked ).lockOrLog() );
    EXPECT_FALSE( oldPtr->post() || oldPtr->peek() || oldPtr->useCount() != 0 );
    expectFailure( "failed: mySemaPtr != NULL (", [] { SemaphoreLock lock( nullptr ); } );

    SemaphorePtr freshPtr = make( "removed" ); // a new set of the same key file
    oldPtr.reset();
    EXPECT_TRUE( exists( "sem_removed" ) );
    EXPECT_EQ( values( *freshPtr ), "1/1" );
    NuvTest::writeFile( ipc( "companion" ), "" );
    freshPtr->companionFileName( ipc( "companion" ).c_str() );
    removeSet( freshPtr->handle() );
    freshPtr.reset();
    EXPECT_FALSE( exists( "sem_removed" ) || exists( "companion" ) );
}

TEST_F( SemaphoreTest, CountsThatCannotBeAreRefused )
{
    expectFailure( "failed: initialCount <= maxCount", [] { make( "counts", 32768 ); } );
    EXPECT_FALSE( exists( "sem_counts" ) );
    Semaphore semaphore( "counts", 32767 );
    EXPECT_FALSE( semaphore.post() );
    EXPECT_TRUE( semaphore.peek() && semaphore.post() );
    ::semctl( semaphore.handle(), Semaphore::useCountIdx, SETVAL, 32767 );
    expectFailure( "failed: mySemaphoreHandle >= 0,  ", [] { make( "counts" ); } );
    // Must not hold the destructor.
    ::semctl( semaphore.handle(), Semaphore::useCountIdx, SETVAL, 0 );
    NuvTest::writeFile( ipc( "sem_foreign" ), "" );
    const int foreign = openSet( "sem_foreign", IPC_CREAT | 0660 );
    expectFailure( "failed: mySemaphoreHandle >= 0,  Invalid argument", [] { make( "foreign" ); } );
    removeSet( foreign );
}

TEST_F( SemaphoreTest, RemovalThatIsRefusedIsTriedOnceMoreWithTheCapability )
{
    NuvTest::CapabilityDeviceDouble device;
    const std::tuple< int, Fault::Kind, int > cases[] = {
        { EPERM, Fault::once, 1 }, { EPERM, Fault::forGood, 2 }, { EINVAL, Fault::forGood, 1 } };
    for ( const auto& [errorNbr, kind, nbrOfStrikes] : cases ) {
        SCOPED_TRACE( nbrOfStrikes );
        const Log::Capture capture;
        SemaphorePtr semaphorePtr = make( "refused" );
        const int handle = semaphorePtr->handle();
        ourRemovalFault.arm( 1, errorNbr, kind );
        semaphorePtr.reset();
        EXPECT_EQ( ourRemovalFault.nbrOfStrikes(), nbrOfStrikes );
        ourRemovalFault.disarm();
        EXPECT_EQ( capture.contains( "errSystemError could not remove " + ipc( "sem_refused" ) +
                                     " errno " + std::to_string( errorNbr ) ),
                   kind == Fault::forGood );
        EXPECT_EQ( ::semctl( handle, 0, IPC_RMID ) == 0, kind == Fault::forGood );
        EXPECT_EQ( exists( "sem_refused" ), errorNbr == EINVAL ) << "the set may be another's";
    }
}

TEST_F( SemaphoreTest, FailedCallsLeaveNothingBehindAndNothingLocked )
{
    const int nbrOfSets = nbrOfKernelObjects( "sem" );
    for ( int n = 1; n == 1 || ourFault.nbrOfStrikes() != 0; ++n ) {
        SCOPED_TRACE( n );
        SemaphorePtr semaphorePtr;
        ourFault.arm( n, EACCES );
        try {
            semaphorePtr = make( "faulty" );
        } catch ( const ResourceException& exception ) {
            EXPECT_NE( std::string( exception.what() ).find( "Permission" ), std::string::npos );
        }
        ourFault.disarm();
        if ( masterValue() == 0 ) // the post itself was made to fail
            ::semctl( openSet( "" ), 0, SETVAL, 1 );
        semaphorePtr.reset();
        EXPECT_EQ( nbrOfKernelObjects( "sem" ), nbrOfSets );
        EXPECT_FALSE( exists( "sem_faulty" ) );
        ASSERT_LT( n, 20 );
    }
    ASSERT_EQ( ::rename( ipc( "" ).c_str(), root( "away" ).c_str() ), 0 );
    expectFailure( "failed: myHandle >= 0,  No such file", [] { MasterSemaphore(); } );
    ASSERT_EQ( ::rename( root( "away" ).c_str(), ipc( "" ).c_str() ), 0 );
}

TEST_F( SemaphoreTest, MasterIsWaitedForAndOnlyTheSetThatWasTakenIsPosted )
{
    SemaphorePtr destroyedPtr = make( "destroyed" );
    removeSet( openSet( "" ) );
    const int handle = openSet( "", IPC_CREAT | 0660 ); // whose creator was killed
    MasterSemaphore master;
    EXPECT_EQ( master.handle(), handle );
    EXPECT_EQ( masterValue(), 1 );
    MasterSemaphore::Lock lock;
    master.acquire( &lock );
    EXPECT_TRUE( lock.isHeld() && MasterSemaphore::isHeldByThisThread() );
    const MasterSemaphore other; // what is taken is not half-made
    EXPECT_EQ( masterValue(), 0 );
    std::thread destroyer = NuvTest::startThread( [&] { destroyedPtr.reset(); } );
    EXPECT_TRUE( waitForWaiter( handle ) );

    removeSet( handle ); // is made anew, by either
    destroyer.join();
    EXPECT_TRUE( master.wait() );
    lock.unlock();
    EXPECT_EQ( masterValue(), 0 );
    EXPECT_FALSE( MasterSemaphore::isHeldByThisThread() );
    EXPECT_TRUE( master.post() );
    EXPECT_EQ( masterValue(), 1 );
}

} // namespace
} // namespace Nuv::Mt
