#include "nuvGlobal.h"
#include "nuvTestSupport.h"

#include <cstring>
#include <sys/shm.h>
#include <sys/stat.h>

namespace Nuv::Utils {
namespace {

using GlobalData = NuvTest::RootFixture;

constexpr std::size_t size = 100108;

// This root's segment, attached as any other program would.
char* attachRaw()
{
    struct stat status = {};
    const std::string keyFile = NuvTest::RootFixture::root( "ixoRoot/tmp/ipc/shm_global-data" );
    EXPECT_EQ( 0, ::stat( keyFile.c_str(), &status ) );
    const int id = ::shmget( static_cast< key_t >( status.st_ino ), size, 0 );
    void* const ptr = ::shmat( id, nullptr, 0 );
    EXPECT_NE( reinterpret_cast< void* >( -1 ), ptr );
    return static_cast< char* >( ptr );
}

template < class Word >
Word wordAt( std::size_t offset )
{
    Word word;
    const char* const ptr = attachRaw();
    std::memcpy( &word, ptr + offset, sizeof( word ) );
    ::shmdt( ptr );
    return word;
}

TEST_F( GlobalData, FreshSegmentStartsFromItsDefaultsAtTheirOffsets )
{
    const Global& global = *Global::singletonPtr();
    EXPECT_FALSE( global.dnsIsEnabled() || global.httpProxyIsEnabled() );
    int offset = -1;
    std::string zone;
    global.localTimeOffsetAndZone( &offset, &zone );
    EXPECT_EQ( "0UTC", std::to_string( offset ) + zone );
    int version = 0;
    Buffer bytes( "old" );
    EXPECT_TRUE( global.getKeystore( &version, &bytes ) && version != 0 && bytes.empty() );
    const std::pair< std::size_t, int > rows[] = {
        { 128, 2 }, { 140, 300 }, { 144, 1 }, { 148, version } };
    for ( const auto& [at, value] : rows )
        EXPECT_EQ( value, wordAt< int >( at ) ) << at;
}

TEST_F( GlobalData, SettingsAreSeenByOtherProgramsAndKeepTheirBounds )
{
    Global& global = *Global::singletonPtr();
    global.localTimeOffsetAndZone( -3600, std::string( 120, 'z' ).c_str() );
    global.httpProxyAddress( 8080, "192.168.100.200:too-long" );
    EXPECT_THROW( global.localTimeOffsetAndZone( 1, nullptr ), LogicException );
    EXPECT_THROW( global.httpProxyAddress( 1, nullptr ), LogicException );
    global.httpProxyIsEnabled( true );
    global.dnsIsEnabled( true );
    global.ftpTimeout( 7 );
    global.incrementCertificateStoreVersionNbr();
    const std::pair< std::size_t, int > rows[] = { { 0, -3600 }, { 140, 7 }, { 144, 2 } };
    for ( const auto& [at, value] : rows )
        EXPECT_EQ( value, wordAt< int >( at ) ) << at;
    EXPECT_EQ( 0x0101u, wordAt< std::uint16_t >( 104 ) );
    EXPECT_EQ( 8080u, wordAt< std::uint16_t >( 106 ) );
    char* const ptr = attachRaw();
    EXPECT_EQ( std::string( 99, 'z' ), ptr + 4 );
    EXPECT_STREQ( "192.168.100.200:too", ptr + 108 );
    ptr[103] = ptr[127] = 'x'; // another program destroys the ends of the texts
    unsigned short port = 0;
    int offset = 0;
    std::string text;
    global.httpProxyAddress( &port, &text );
    EXPECT_EQ( "192.168.100.200:toox", text );
    global.localTimeOffsetAndZone( &offset, &text );
    EXPECT_EQ( std::string( 99, 'z' ) + "x", text );
    ::shmdt( ptr );
}

TEST_F( GlobalData, KeystoreTakesThirtyThousandBytesAndTellsNewVersions )
{
    Global& global = *Global::singletonPtr();
    int version = 0;
    Buffer bytes;
    global.getKeystore( &version, &bytes );
    bytes = "kept";
    EXPECT_FALSE( global.setKeystore( Buffer( std::size_t( 30001 ), 'k' ) ) );
    EXPECT_FALSE( global.getKeystore( &version, &bytes ) || bytes.view() != "kept" );
    const int oldVersion = version;
    EXPECT_TRUE( global.setKeystore( Buffer( std::size_t( 30000 ), 'k' ) ) );
    EXPECT_TRUE( global.getKeystore( &version, &bytes ) );
    EXPECT_TRUE( bytes.size() == 30000 && version != oldVersion );
}

} // namespace
} // namespace Nuv::Utils
