#include "nuvGlobal.h"
#include "nuvGlobalHealthStatusAccessor.h"
#include "nuvTestInterprocess.h"
#include "nuvTime.h"
#include "nuvVersionedRecord.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace Nuv::HealthAndSecurity {
namespace {

using Health = NuvTest::RootFixture;

// A record as large as the sensor's, whose every word tells which commit wrote it.
using Stamped = std::array< std::uint32_t, 17462 >;

struct SharedStamped
{
    std::uint32_t version = 0;
    Stamped record{};

    void commit( std::uint32_t stamp )
    {
        const auto stampedPtr = std::make_unique< Stamped >();
        stampedPtr->fill( stamp );
        const VersionedRecord::Part part = { &record, stampedPtr.get(), sizeof( Stamped ) };
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
    const auto sharedPtr = std::make_unique< SharedStamped >();
    std::atomic< bool > stop = false;
    std::vector< std::thread > writers;
    for ( std::uint32_t writer = 0; writer < 2; ++writer ) {
        writers.emplace_back( [&, writer] {
            for ( std::uint32_t n = writer; !stop; n += 2 )
                sharedPtr->commit( n );
        } );
    }
    const auto copyPtr = std::make_unique< Stamped >();
    int nbrOfWhole = 0, nbrOfTorn = 0;
    EXPECT_TRUE( NuvTest::waitFor( [&] {
        for ( int i = 0; i < 1000; ++i ) {
            if ( sharedPtr->read( copyPtr.get() ) )
                ( std::count( copyPtr->begin(), copyPtr->end(), ( *copyPtr )[0] ) == 17462
                      ? nbrOfWhole
                      : nbrOfTorn )++;
        }
        return nbrOfWhole >= 2000;
    } ) );
    stop = true;
    for ( std::thread& writer : writers )
        writer.join();
    EXPECT_EQ( 0, nbrOfTorn );
}

TEST( HealthVersion, CounterWrapsAndADeadWritersBusyBitIsTakenOver )
{
    const auto sharedPtr = std::make_unique< SharedStamped >();
    const auto copyPtr = std::make_unique< Stamped >();
    sharedPtr->version = VersionedRecord::counterMask;
    sharedPtr->commit( 0 );
    EXPECT_EQ( 0u, sharedPtr->version );
    sharedPtr->version = 7 | VersionedRecord::busyBit; // killed within its copy
    copyPtr->fill( 99 );
    EXPECT_FALSE( sharedPtr->read( copyPtr.get() ) );
    EXPECT_EQ( 99u, copyPtr->front() ); // nothing copied
    sharedPtr->commit( 3 );
    EXPECT_EQ( 0u, sharedPtr->version & VersionedRecord::busyBit );
    EXPECT_TRUE( sharedPtr->read( copyPtr.get() ) );
    EXPECT_EQ( 3u, copyPtr->back() );
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
    constexpr std::size_t last255 = 120 + 255 * 272;
    const std::pair< std::size_t, std::uint32_t > cases[] = {
        { 0, 0 },
        { 96, 0x11111111 },
        { 100, 0x22222222 },
        { 104, 0x33333333 },
        { 108, 0xFFFFFFFE },
        { 112, 1 },
        { 116, 0x66666666 },
        { last255 + 68 + 2 * 28 + 24, 0x77777777 },
        { last255 + 152 + 9 * 12, 17 },
        { last255 + 152 + 9 * 12 + 8, 0x99999999 },
    };
    const char* const bytesPtr = reinterpret_cast< const char* >( sensorPtr.get() );
    for ( const auto& [offset, value] : cases )
        EXPECT_EQ( 0, std::memcmp( &value, bytesPtr + offset, 4 ) ) << offset;
    EXPECT_STREQ( "vs255", bytesPtr + last255 + 1 );
}

TEST_F( Health, NumbersOutOfRangeAndUnattachedSettersAssert )
{
    SensorStatusSetter setter;
    VirtualSensorStatusSetter unattached;
    constexpr char noStatus[] = "myVirtualStatusPtr != NULL";
    constexpr auto tcp = TopService::protocolTcp;
    NuvTest::expectFailure( "vsNumber < maxNbrOfVirtualsSensors",
                            [&] { setter.virtualSensorSetter( 256 ); } );
    NuvTest::expectFailure( "serviceNumber < maxNbrOfTopServices", [&] {
        setter.virtualSensorSetter( 0 ).setTopService( 10, tcp, 0, 0 );
    } );
    NuvTest::expectFailure( noStatus, [&] { unattached.name( "x" ); } );
    NuvTest::expectFailure( noStatus, [&] { unattached.setTopService( 0, tcp, 0, 0 ); } );
    NuvTest::expectFailure( "statusPtr != NULL", [&] { unattached.virtualStatusPtr( nullptr ); } );
}

} // namespace
} // namespace Nuv::HealthAndSecurity
