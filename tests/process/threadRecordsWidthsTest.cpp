#include "nuvTestFrame.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/shm.h>
#include <sys/stat.h>

namespace {

using namespace NuvTest;

// The segment of thread records as a tool of any language sees it: bytes at offsets.
class Records
{
public:
    explicit Records( const std::string& keyFile )
    {
        struct stat info = {};
        EXPECT_EQ( ::stat( keyFile.c_str(), &info ), 0 ) << keyFile;
        EXPECT_EQ( info.st_mode & 0777, 0660u );
        const int id = ::shmget( static_cast< key_t >( info.st_ino ), 8804, 0 );
        myBytesPtr = static_cast< const char* >( ::shmat( id, nullptr, SHM_RDONLY ) );
        EXPECT_EQ( word( 0 ), 2 );
    }
    Records( const Records& ) = delete;
    Records& operator=( const Records& ) = delete;
    ~Records() { ::shmdt( myBytesPtr ); }

    int processId( int record ) const { return word( 8 + 88 * record ); }
    int state( int record ) const { return word( 12 + 88 * record ); }
    std::string description( int record ) const { return myBytesPtr + 24 + 88 * record; }
    int nbrOfUsed() const
    {
        int n = 0;
        for ( int record = 0; record < 100; ++record )
            n += word( 4 + 88 * record ) == 1 ? 1 : 0;
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

class ThreadRecords : public ProcessFrame
{
protected:
    Records records() const { return Records( path( "tmp/ipc/shm_ubrdebug_frameProbe" ) ); }
};

} // namespace

TEST_F( ThreadRecords, ProcessesOfBothWidthsShareOneSegmentAndThoseOfAKilledOneStay )
{
    for ( const int width : { 32, 64 } ) {
        const std::string killedProgram = program( "frameProbe", width );
        const std::string nextProgram = program( "frameProbe", 96 - width );
        NUV_SKIP_WITHOUT( killedProgram );
        NUV_SKIP_WITHOUT( nextProgram );
        Listener killed( killedProgram, start( { "none", "listen" } ) );
        killed.child().kill( SIGKILL );
        EXPECT_EQ( killed.child().wait().signal(), SIGKILL );
        Listener next( nextProgram, start( { "none", "listen" } ) );
        const Records records = this->records();
        const int first = width == 32 ? 0 : 2;
        EXPECT_EQ( records.nbrOfUsed(), first + 4 );
        for ( int k = first; k < first + 4; ++k ) {
            EXPECT_EQ( records.processId( k ), ( k < first + 2 ? killed : next ).child().pid() );
            EXPECT_EQ( records.state( k ), 1 );
            EXPECT_EQ( records.description( k ), k % 2 == 0 ? "Signal handler" : "main" );
        }
        EXPECT_EQ( next.exitStatus(), 7 );
        EXPECT_EQ( records.nbrOfUsed(), first + 2 ) << "an orderly end releases every record";
    }
    EXPECT_EQ( run( { "none", "throw", "10" } ).exitStatus(), 255 );
    EXPECT_EQ( records().state( 5 ), 3 ) << "ended by an exception";
}
