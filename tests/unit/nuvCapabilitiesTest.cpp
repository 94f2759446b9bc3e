#include "nuvCapabilities.h"

#include "nuvTestCapabilityDevice.h"
#include "nuvTestThread.h"
#include "nuvTestWrap.h"

#include <functional>
#include <gtest/gtest.h>
#include <tuple>
#include <unistd.h>

namespace {
uid_t ourEuid = 4711;
}
NUV_WRAP( uid_t, getuid, (), 4711 )
NUV_WRAP( uid_t, geteuid, (), ourEuid )

namespace Nuv::Utils {
namespace {

constexpr std::uint32_t cap0 = 1, cap21 = capSysAdminMask, cap23 = capSysNiceMask, cap31 = 1u << 31;

class CapabilitiesCounting : public ::testing::Test
{
protected:
    ~CapabilitiesCounting() override { ourEuid = 4711; }

    // A thread that starts with these capabilities.
    void runThread( std::uint32_t capabilities, const std::function< void( Capabilities& ) >& body )
    {
        NuvTest::startThread( [&] {
            myDevice.setOwnCapabilities( capabilities );
            body( *Capabilities::threadletonPtr() );
        } ).join();
    }

    std::uint32_t own() const { return myDevice.own().capabilities; }

    NuvTest::CapabilityDeviceDouble myDevice;
};

TEST_F( CapabilitiesCounting, StaysRaisedUntilLoweredAsOften )
{
    runThread( cap31, [this]( Capabilities& capabilities ) { // raised once from the start
        const std::tuple< bool, std::uint32_t, std::uint32_t > steps[] = {
            { true, cap21, cap21 | cap31 },
            { true, cap21 | cap31, cap21 | cap31 },
            { false, cap21 | cap31, cap21 | cap31 },
            { false, cap21 | cap23, cap31 }, // 23 is not raised: no count below 0
            { true, cap23, cap23 | cap31 },
            { false, 0xFFFFFFFF, 0 } };
        for ( const auto& [isApply, mask, after] : steps ) {
            if ( !isApply )
                capabilities.remove( mask );
            EXPECT_TRUE( !isApply || capabilities.apply( mask ) );
            EXPECT_EQ( own(), after ) << isApply << " " << mask;
        }
        runThread( cap0, [&]( Capabilities& others ) {
            EXPECT_TRUE( &others != &capabilities && others.apply( cap23 ) );
            EXPECT_EQ( own(), cap0 | cap23 );
        } );
        EXPECT_EQ( own(), 0u );
        EXPECT_EQ( myDevice.own().nbrOfSets, 6 );
    } );
}

TEST_F( CapabilitiesCounting, SuperuserAndMissingDeviceAskForNothing )
{
    for ( const bool isOpen : { true, false } ) {
        myDevice.setOpen( isOpen );
        ourEuid = isOpen ? 0 : 4711;
        runThread( cap0, [&]( Capabilities& capabilities ) {
            EXPECT_EQ( capabilities.apply( cap21 ), isOpen );
            EXPECT_EQ( myDevice.own().nbrOfSets, 0 );
            // Nothing was counted: what is raised now alone is set, and dropped at once.
            myDevice.setOpen( true );
            ourEuid = 4711;
            capabilities.apply( cap23 );
            EXPECT_EQ( own(), cap23 );
            capabilities.remove( cap23 );
            EXPECT_EQ( own(), 0u );
        } );
    }
}

TEST_F( CapabilitiesCounting, RefusedRequestIsAResourceFailureAndKeepsTheCounts )
{
    runThread( 0, [this]( Capabilities& capabilities ) {
        capabilities.apply( cap21 );
        {
            ScopedCapabilities scope( cap0 );
            EXPECT_TRUE( scope.isRaised() );
            myDevice.setRefusing( true );
            EXPECT_THROW( capabilities.apply( cap21 | cap23 ), ResourceException );
        } // refused, and nothing thrown
        NuvTest::startThread( [] {
            EXPECT_THROW( Capabilities::threadletonPtr(), ResourceException );
        } ).join();
        myDevice.setRefusing( false );
        capabilities.remove( cap21 ); // 21 was counted once, 23 not at all
        EXPECT_EQ( own() & ~cap0, 0u );
    } );
}

} // namespace
} // namespace Nuv::Utils
