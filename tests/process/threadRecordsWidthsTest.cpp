#include "nuvTestFrame.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/shm.h>
#include <sys/stat.h>

namespace {

using namespace NuvTest;

class ThreadRecords : public ProcessFrame
{
};

// The segment of thread records as a tool of any language sees it: bytes at offsets.
class Records
{
public:
    explicit Records( const std::string& keyFile )
    {
        struct stat info
        {
        };
        EXPECT_EQ( ::stat( keyFile.c_str(), &info ), 0 ) << keyFile;
        EXPECT_EQ( info.st_mode & 0777, 0660u );
        const int id = ::shmget( static_cast< key_t >( info.st_ino ), 8804, 0 );
        myBytesPtr = static_cast< const char* >( ::shmat( id, nullptr, SHM_RDONLY ) );
    }
    Records( const Records& ) = delete;
    Records& operator=( const Records& ) = delete;
    ~Records() { ::shmdt( myBytesPtr ); }

    std::int32_t header() const { return word( 0 ); }
    std::int32_t field( int record, int offset ) const { return word( 4 + 88 * record + offset ); }
    bool isUsed( int record ) const { return field( record, 0 ) == 1; }
    int processId( int record ) const { return field( record, 4 ); }
    int state( int record ) const { return field( record, 8 ); }
    int waitKind( int record ) const { return field( record, 12 ); }
    int waitObject( int record ) const { return field( record, 16 ); }
    std::string description( int record ) const { return myBytesPtr + 4 + 88 * record + 20; }
    std::string statusMessage( int record ) const { return myBytesPtr + 4 + 88 * record + 53; }
    int nbrOfUsed() const
    {
        int n = 0;
        for ( int k = 0; k < 100; ++k ) {
            n += isUsed( k ) ? 1 : 0;
        }
        return n;
    }

private:
    std::int32_t word( int offset ) const
    {
        std::int32_t value;
        std::memcpy( &value, myBytesPtr + offset, sizeof( value ) );
        return value;
    }

    const char* myBytesPtr = nullptr;
};

} // namespace

TEST_F( ThreadRecords, ToolSeesEachThreadAndWhatItWaitsFor )
{
    ChildProcess child( program( "frameProbe" ), start( { "none", "records" } ) );
    const int semaphoreId = std::atoi( child.readLine().c_str() );
    EXPECT_EQ( child.readLine(), "ready" );
    const Records records( path( "tmp/ipc/shm_ubrdebug_frameProbe" ) );
    ASSERT_TRUE( waitFor( [&] { return records.waitKind( 2 ) == 2; } ) );
    EXPECT_EQ( records.header(), 2 );
    EXPECT_EQ( records.nbrOfUsed(), 3 );
    const char* const descriptions[] = { "Signal handler", "main",
                                         "a task whose name is longer than" };
    for ( int k = 0; k < 3; ++k ) {
        EXPECT_EQ( records.processId( k ), child.pid() );
        EXPECT_EQ( records.state( k ), 1 );
        EXPECT_EQ( records.description( k ), descriptions[k] );
        EXPECT_EQ( records.waitObject( k ), k == 2 ? semaphoreId : 0 );
    }
    child.closeInput(); // posts the semaphore
    EXPECT_EQ( child.readLine(), "waited" );
    EXPECT_EQ( child.wait().exitStatus(), 0 );
    EXPECT_EQ( records.waitKind( 2 ), 0 );
    EXPECT_EQ( records.waitObject( 2 ), 0 );
    EXPECT_EQ( records.statusMessage( 2 ), "has waited" );
    EXPECT_EQ( records.state( 2 ), 2 );
    EXPECT_EQ( records.nbrOfUsed(), 0 ) << "an orderly end releases every record";
}

TEST_F( ThreadRecords, RecordsOfAKilledProcessStayAndTheNextOneTakesFurtherOnes )
{
    const Start listen = start( { "none", "listen" } );
    Listener killed( program( "frameProbe" ), listen );
    killed.child().kill( SIGKILL );
    EXPECT_EQ( killed.child().wait().signal(), SIGKILL );
    {
        Listener next( program( "frameProbe" ), listen );
        const Records records( path( "tmp/ipc/shm_ubrdebug_frameProbe" ) );
        EXPECT_EQ( records.nbrOfUsed(), 4 );
        for ( int k = 0; k < 4; ++k ) {
            EXPECT_EQ( records.processId( k ), k < 2 ? killed.child().pid() : next.child().pid() );
            EXPECT_EQ( records.description( k ), k % 2 == 0 ? "Signal handler" : "main" );
        }
        EXPECT_EQ( next.exitStatus(), 7 );
        EXPECT_EQ( records.nbrOfUsed(), 2 );
    }
    EXPECT_EQ( run( { "none", "throw", "10" } ).exitStatus(), 255 );
    const Records records( path( "tmp/ipc/shm_ubrdebug_frameProbe" ) );
    EXPECT_EQ( records.state( 3 ), 3 ) << "ended by an exception";
}

TEST_F( ThreadRecords, ProcessesOfBothWidthsShareOneSegment )
{
    const std::string narrow = program( "frameProbe", 32 );
    const std::string wide = program( "frameProbe", 64 );
    NUV_SKIP_WITHOUT( narrow );
    NUV_SKIP_WITHOUT( wide );
    Listener first( narrow, start( { "none", "listen" } ) );
    Listener second( wide, start( { "none", "listen" } ) );
    const Records records( path( "tmp/ipc/shm_ubrdebug_frameProbe" ) );
    EXPECT_EQ( records.processId( 1 ), first.child().pid() );
    EXPECT_EQ( records.processId( 3 ), second.child().pid() );
    EXPECT_EQ( records.description( 1 ), "main" );
    EXPECT_EQ( records.description( 3 ), "main" );
    EXPECT_EQ( first.exitStatus(), 7 );
    EXPECT_EQ( second.exitStatus(), 7 );
}
