#include "nuvGlobal.h"
#include "nuvGlobalHealthStatusAccessor.h"
#include "nuvTestSupport.h"
#include "nuvTime.h"
#include "nuvVersionedRecord.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace Nuv::HealthAndSecurity {
namespace {

using Health = NuvTest::RootFixture;

// A record whose every word tells which commit wrote it.
struct Stamped
{
    static constexpr std::size_t nbrOfWords = 17462; // as large as the sensor's record
    std::uint32_t words[nbrOfWords];

    void stamp( std::uint32_t value )
    {
        std::fill( std::begin( words ), std::end( words ), value );
    }
    bool isWhole() const
    {
        return std::all_of( std::begin( words ), std::end( words ),
                            [this]( std::uint32_t word ) { return word == words[0]; } );
    }
};

struct SharedStamped
{
    std::uint32_t version = 0;
    Stamped record{};

    void commit( Stamped* privatePtr )
    {
        const VersionedRecord::Part part = { &record, privatePtr, sizeof( Stamped ) };
        VersionedRecord::commit( &version, &part, 1 );
    }
    bool read( Stamped* privatePtr )
    {
        const VersionedRecord::Part part = { &record, privatePtr, sizeof( Stamped ) };
        return VersionedRecord::read( &version, &part, 1 );
    }
};

TEST( HealthVersion, ReadThatReportsTrueIsNeverTorn )
{
    constexpr std::uint32_t nbrOfWriters = 2;
    const auto sharedPtr = std::make_unique< SharedStamped >();
    std::atomic< bool > stop = false;
    std::vector< std::thread > writers;
    for ( std::uint32_t w = 0; w < nbrOfWriters; ++w ) {
        writers.emplace_back( [&, w] {
            const auto minePtr = std::make_unique< Stamped >();
            for ( std::uint32_t n = w; !stop; n += nbrOfWriters ) {
                minePtr->stamp( n );
                sharedPtr->commit( minePtr.get() );
            }
        } );
    }
    const auto copyPtr = std::make_unique< Stamped >();
    int nbrOfWhole = 0, nbrOfTorn = 0;
    NuvTest::waitFor( [&] {
        for ( int i = 0; i < 1000; ++i ) {
            if ( sharedPtr->read( copyPtr.get() ) )
                ( copyPtr->isWhole() ? nbrOfWhole : nbrOfTorn )++;
        }
        return nbrOfWhole >= 2000;
    } );
    stop = true;
    for ( std::thread& writer : writers )
        writer.join();
    EXPECT_GE( nbrOfWhole, 2000 );
    EXPECT_EQ( 0, nbrOfTorn );
}

TEST( HealthVersion, CounterWrapsAndADeadWritersBusyBitIsTakenOver )
{
    const auto sharedPtr = std::make_unique< SharedStamped >();
    const auto minePtr = std::make_unique< Stamped >();
    const auto copyPtr = std::make_unique< Stamped >();
    sharedPtr->version = VersionedRecord::counterMask;
    sharedPtr->commit( minePtr.get() );
    EXPECT_EQ( 0u, sharedPtr->version );

    sharedPtr->version = 7 | VersionedRecord::busyBit; // killed within its copy
    copyPtr->stamp( 99 );
    EXPECT_FALSE( sharedPtr->read( copyPtr.get() ) );
    EXPECT_EQ( 99u, copyPtr->words[0] ); // nothing copied
    minePtr->stamp( 3 );
    sharedPtr->commit( minePtr.get() );
    EXPECT_EQ( 0u, sharedPtr->version & VersionedRecord::busyBit );
    EXPECT_TRUE( sharedPtr->read( copyPtr.get() ) );
    EXPECT_EQ( 3u, copyPtr->words[Stamped::nbrOfWords - 1] );
}

TEST_F( Health, CommittedRecordsAreReadBackWholeWithTheirTime )
{
    Utils::Global& global = *Utils::Global::singletonPtr();
    MainAppStatusSetter mainApp;
    mainApp.setExtendedExecutionStatus( stateDegraded, 1, 2, 3, 4, std::string( 70, 'x' ).c_str() );
    const std::uint64_t before = Utils::Time().ns();
    mainApp.commitToSharedMemory();
    CommonAppStatus common;
    ASSERT_TRUE( global.conditionalGetMainAppStatus( &common ) );
    EXPECT_GE( common.commitTime, before );
    EXPECT_EQ( stateDegraded, common.executionState );
    EXPECT_EQ( 4u, common.executionParameters[3] );
    EXPECT_EQ( std::string( 64, 'x' ), common.statusText );
    mainApp.setExecutionState( stateRunning );
    mainApp.commitToSharedMemory();
    ASSERT_TRUE( global.conditionalGetMainAppStatus( &common ) );
    EXPECT_STREQ( "", common.statusText );
    EXPECT_EQ( 0u, common.executionParameters[0] );
}

TEST_F( Health, SensorRecordHasItsFieldsAtTheirOffsets )
{
    SensorStatusSetter setter;
    setter.setExecutionState( stateRunning );
    setter.setSensorLoadValue( 0x11111111 );
    setter.setMemoryUsedPct( 0x22222222 );
    setter.setMissedPacketPct( 0x33333333 );
    setter.setMeshrankTimeOfLastUpdateSuccess( -2 );
    setter.setMeshrankEnabled( true );
    setter.setFeedshareNumOfFailures( 0x66666666 );
    VirtualSensorStatusSetter& last = setter.virtualSensorSetter( 255 );
    last.name( "vs255" );
    last.setBucketStatus( lastDay, 1, 2, 3, 4, 5, 6, 0x77777777 );
    last.setTopService( 9, TopService::protocolUdp, 0x88888888, 0x99999999 );
    setter.commitToSharedMemory();

    CommonAppStatus common;
    const auto sensorPtr = std::make_unique< SensorStatus >();
    ASSERT_TRUE(
        Utils::Global::singletonPtr()->conditionalGetSensorStatus( &common, sensorPtr.get() ) );
    EXPECT_EQ( stateRunning, common.executionState );
    const auto wordAt = [&]( std::size_t offset ) {
        std::uint32_t word;
        std::memcpy( &word, reinterpret_cast< const char* >( sensorPtr.get() ) + offset, 4 );
        return word;
    };
    constexpr std::size_t virtualSensor = 120 + 255 * 272;
    const std::pair< std::size_t, std::uint32_t > cases[] = {
        { 0, 0 },
        { 96, 0x11111111 },
        { 100, 0x22222222 },
        { 104, 0x33333333 },
        { 108, 0xFFFFFFFE },
        { 112, 1 },
        { 116, 0x66666666 },
        { virtualSensor + 68 + 2 * 28 + 24, 0x77777777 },
        { virtualSensor + 152 + 9 * 12, 17 },
        { virtualSensor + 152 + 9 * 12 + 8, 0x99999999 },
    };
    for ( const auto& [offset, value] : cases )
        EXPECT_EQ( value, wordAt( offset ) ) << offset;
    EXPECT_STREQ( "vs255", reinterpret_cast< const char* >( sensorPtr.get() ) + virtualSensor + 1 );
}

TEST_F( Health, NumbersOutOfRangeAndUnattachedSettersAssert )
{
    SensorStatusSetter setter;
    VirtualSensorStatusSetter unattached;
    const std::pair< const char*, std::function< void() > > rows[] = {
        { "vsNumber < maxNbrOfVirtualsSensors", [&] { setter.virtualSensorSetter( 256 ); } },
        { "serviceNumber < maxNbrOfTopServices",
          [&] {
              setter.virtualSensorSetter( 0 ).setTopService( 10, TopService::protocolTcp, 0, 0 );
          } },
        { "myVirtualStatusPtr != NULL", [&] { unattached.name( "x" ); } },
        { "myVirtualStatusPtr != NULL",
          [&] { unattached.setTopService( 0, TopService::protocolTcp, 0, 0 ); } },
        { "statusPtr != NULL", [&] { unattached.virtualStatusPtr( nullptr ); } } };
    for ( const auto& [textPtr, call] : rows ) {
        try {
            call();
            ADD_FAILURE() << textPtr;
        } catch ( const LogicException& exception ) {
            EXPECT_NE( nullptr, std::strstr( exception.what(), textPtr ) ) << exception.what();
        }
    }
}

} // namespace
} // namespace Nuv::HealthAndSecurity
