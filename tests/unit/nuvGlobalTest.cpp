#include "nuvGlobal.h"

#include "nuvOs.h"
#include "nuvTestSupport.h"

#include <cstdlib>

namespace Nuv::Utils {
namespace {

// Each in a process with a home of its own, since the facts are read once.
void runWith( const char* masterConfPtr, const char* bootInfoPtr,
              const std::function< void( Global& ) >& body )
{
    const NuvTest::TemporaryFolder home;
    const NuvTest::Outcome outcome = NuvTest::runInChild( [&] {
        ::setenv( "HOME", home.path().c_str(), 1 );
        if ( masterConfPtr != nullptr )
            NuvTest::writeFile( home.path( "nuvs.conf" ), masterConfPtr );
        if ( bootInfoPtr != nullptr )
            NuvTest::writeFile( home.path( "ixoRoot/etc/boot.info" ), bootInfoPtr );
        body( *Global::singletonPtr() );
    } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
}

TEST( GlobalFacts, GroupSettingsComeFromTheMasterConfiguration )
{
    runWith( "groupName = sensors\n[WinNt]\nincludeAdministrators = no\n", nullptr,
             []( Global& global ) {
                 EXPECT_EQ( global.groupName(), "sensors" );
                 EXPECT_EQ( applicationGroupName(), "sensors" );
                 EXPECT_TRUE( global.includeSelf() && !global.includeAdministrators() &&
                              global.includeLocalSystem() );
             } );
    runWith( "[WinNt]\ngroupName = x\nincludeSelf = 0\nincludeLocalSystem = F\n", nullptr,
             []( Global& global ) {
                 EXPECT_EQ( applicationGroupName(), "nuvs" );
                 EXPECT_FALSE( global.includeSelf() || global.includeLocalSystem() );
                 EXPECT_TRUE( global.model().empty() && global.capabilities().empty() );
             } );
}

TEST( GlobalFacts, CapabilitiesAreTheTrueKeysOfTheModelsSection )
{
    runWith(
        nullptr,
        "[Platform]\nmodel = nip500\n"
        "[nip500/Capabilities]\nbypass = yes\nfiber = 1\nwifi = no\nfan = maybe\n"
        "[nip900/Capabilities]\nwifi = yes\n[Capabilities]\nroot = yes\n",
        []( Global& global ) {
            EXPECT_EQ( global.model(), "nip500" );
            EXPECT_EQ( global.capabilities(), ( std::set< std::string >{ "bypass", "fiber" } ) );
            EXPECT_TRUE( global.platformHasCapability( "bypass" ) );
            EXPECT_FALSE( global.platformHasCapability( "byPass" ) );
            EXPECT_FALSE( global.platformHasCapability( nullptr ) );
        } );
    runWith( nullptr, "[Platform]\nmodel =\n[/Capabilities]\nbypass = yes\n",
             []( Global& global ) { EXPECT_FALSE( global.platformHasCapability( "bypass" ) ); } );
}

} // namespace
} // namespace Nuv::Utils
