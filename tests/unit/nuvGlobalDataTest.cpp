#include "nuvGlobal.h"
#include "nuvTestSupport.h"

#include <cstring>
#include <sys/shm.h>
#include <sys/stat.h>

namespace Nuv::Utils {
namespace {

using GlobalData = NuvTest::RootFixture;

// The bytes of this root's segment, as any other program would see them.
std::string rawSegment()
{
    constexpr std::size_t size = 100108;
    struct stat status;
    const std::string keyFile = NuvTest::RootFixture::root( "ixoRoot/tmp/ipc/shm_global-data" );
    if ( ::stat( keyFile.c_str(), &status ) != 0 )
        return std::string( size, 'x' );
    const int id = ::shmget( static_cast< key_t >( status.st_ino ), size, 0 );
    void* const ptr = ::shmat( id, nullptr, SHM_RDONLY );
    if ( ptr == reinterpret_cast< void* >( -1 ) )
        return std::string( size, 'x' );
    const std::string bytes( static_cast< const char* >( ptr ), size );
    ::shmdt( ptr );
    return bytes;
}

TEST_F( GlobalData, FreshSegmentStartsFromItsDefaultsAtTheirOffsets )
{
    {
        const Global& global = *Global::singletonPtr();
        EXPECT_EQ( 300u, global.ftpTimeout() );
        EXPECT_EQ( 1u, global.certificateStoreVersionNbr() );
        EXPECT_FALSE( global.dnsIsEnabled() || global.httpProxyIsEnabled() );
        int offset = -1;
        std::string zone;
        global.localTimeOffsetAndZone( &offset, &zone );
        EXPECT_EQ( 0, offset );
        EXPECT_EQ( "UTC", zone );
        int version = 0;
        Buffer bytes( "old" );
        EXPECT_TRUE( global.getKeystore( &version, &bytes ) );
        EXPECT_NE( 0, version );
        EXPECT_TRUE( bytes.empty() );

        const std::string segment = rawSegment();
        const char* const ptr = segment.data();
        const auto wordAt = [ptr]( std::size_t offsetInSegment ) {
            std::uint32_t word;
            std::memcpy( &word, ptr + offsetInSegment, sizeof( word ) );
            return word;
        };
        EXPECT_STREQ( "UTC", ptr + 4 );
        EXPECT_EQ( 2u, wordAt( 128 ) );
        EXPECT_EQ( 300u, wordAt( 140 ) );
        EXPECT_EQ( 1u, wordAt( 144 ) );
        EXPECT_EQ( static_cast< std::uint32_t >( version ), wordAt( 148 ) );
    }
}

TEST_F( GlobalData, SettingsAreSeenByOtherProcesses )
{
    Global& global = *Global::singletonPtr();
    global.localTimeOffsetAndZone( -3600, std::string( 120, 'z' ).c_str() );
    global.httpProxyAddress( 8080, "192.168.100.200:too-long" );
    global.httpProxyIsEnabled( true );
    global.dnsIsEnabled( true );
    global.ftpTimeout( 7 );
    global.incrementCertificateStoreVersionNbr();
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        // The parent's object is inherited; what another program sees are the bytes.
        const std::string segment = rawSegment();
        const char* const ptr = segment.data();
        std::int32_t offset;
        std::uint16_t port;
        std::memcpy( &offset, ptr, 4 );
        std::memcpy( &port, ptr + 106, 2 );
        EXPECT_EQ( -3600, offset );
        EXPECT_EQ( std::string( 99, 'z' ), ptr + 4 );
        EXPECT_EQ( 1, ptr[104] );
        EXPECT_EQ( 1, ptr[105] );
        EXPECT_EQ( 8080, port );
        EXPECT_STREQ( "192.168.100.200:too", ptr + 108 );
        EXPECT_EQ( 7, ptr[140] );
        EXPECT_EQ( 2, ptr[144] );
    } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.output << outcome.errors;
    unsigned short port = 0;
    std::string address;
    global.httpProxyAddress( &port, &address );
    EXPECT_EQ( 8080, port );
    EXPECT_EQ( "192.168.100.200:too", address );
}

TEST_F( GlobalData, KeystoreTakesThirtyThousandBytesAndTellsNewVersions )
{
    Global& global = *Global::singletonPtr();
    int version = 0;
    Buffer bytes;
    global.getKeystore( &version, &bytes );
    const int oldVersion = version;
    bytes = "kept";
    EXPECT_FALSE( global.getKeystore( &version, &bytes ) );
    EXPECT_EQ( "kept", bytes.view() );
    EXPECT_FALSE( global.setKeystore( Buffer( std::size_t( 30001 ), 'k' ) ) );
    EXPECT_FALSE( global.getKeystore( &version, &bytes ) );

    EXPECT_TRUE( global.setKeystore( Buffer( std::size_t( 30000 ), 'k' ) ) );
    EXPECT_TRUE( global.getKeystore( &version, &bytes ) );
    EXPECT_EQ( 30000u, bytes.size() );
    EXPECT_NE( oldVersion, version );
    EXPECT_FALSE( global.getKeystore( &version, &bytes ) );
}

} // namespace
} // namespace Nuv::Utils
