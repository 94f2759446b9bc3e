#include "nuvOs.h"

#include "nuvLogCapture.h"
#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <cerrno>
#include <cstdlib>
#include <grp.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {

// The process as the system is made to see it. It is needed before main, when the library drops the
// effective user, so it comes from the environment: real id, effective id, number of the refused
// switch.
struct Identity
{
    Identity()
    {
        const char* const textPtr = std::getenv( "NUV_TEST_IDENTITY" );
        std::istringstream( textPtr != nullptr ? textPtr : "1000 1000 0" ) >> real >> effective >>
            refused;
        saved = effective;
    }
    int change( unsigned int* idPtr, uid_t uid )
    {
        if ( --refused == 0 || ( uid != real && uid != saved && effective != 0 ) )
            return -1;
        *idPtr = uid;
        return 0;
    }
    unsigned int real, effective, saved;
    int refused;
};

Identity& process()
{
    static Identity identity;
    return identity;
}

gid_t ourEgid = 1000;
bool ourIsMember = true;
std::string ourGroupName = "nuvs";
int ourChownResult = 0;
std::ostringstream ourChanges; // of groups

} // namespace

NUV_WRAP( uid_t, getuid, (), process().real )
NUV_WRAP( uid_t, geteuid, (), process().effective )
NUV_WRAP( gid_t, getegid, (), ourEgid )
NUV_WRAP( int, seteuid, ( uid_t uid ), process().change( &process().effective, uid ) )
NUV_WRAP( int, setreuid, ( uid_t real, uid_t ), process().change( &process().real, real ) )
NUV_WRAP( int, getgroups, ( int size, gid_t* ptr ), size > 0 ? * ptr = 777, 1 : ourIsMember )
NUV_WRAP( int, getgrnam_r,
          ( const char* namePtr, group* ptr, char*, size_t size, group** foundPtr ),
          ( ptr->gr_gid = 777, *foundPtr = namePtr == ourGroupName ? ptr : nullptr,
            size < 3000000 ? ERANGE : 0 ) ) // a group of very many members
NUV_WRAP( int, fchown, ( int, uid_t owner, gid_t group ),
          ( ourChanges << "fd " << owner + 1 << ' ' << group << ' ', ourChownResult ) )
NUV_WRAP( int, lchown, ( const char* pathPtr, uid_t owner, gid_t group ),
          ( ourChanges << pathPtr << ' ' << owner + 1 << ' ' << group << ' ', ourChownResult ) )

namespace Nuv::Utils {
namespace {

// Lets the calling test run in a fresh process that starts with this identity. @return whether this
// is that process
bool startedAs( const std::string& identity )
{
    if ( std::getenv( "NUV_TEST_IDENTITY" ) != nullptr )
        return std::getenv( "NUV_TEST_IDENTITY" ) == identity;
    const ::testing::TestInfo& test = *::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter =
        std::string( "--gtest_filter=" ) + test.test_suite_name() + "." + test.name();
    const NuvTest::Outcome outcome = NuvTest::runProgram(
        "/proc/self/exe", { { filter }, { "NUV_TEST_IDENTITY=" + identity } } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
    return false;
}

const unsigned int trueEuid = static_cast< unsigned int >( ::syscall( SYS_geteuid ) );

// The log makes its shared objects as the real user: not every namespace has the made-up ones.
void openLog()
{
    const unsigned int effective = std::exchange( process().effective, trueEuid );
    ourEgid = static_cast< gid_t >( ::syscall( SYS_getegid ) );
    Log::getStandardSource( Log::fatal );
    process().effective = effective;
}

TEST( EffectiveUser, IsDroppedToTheLoginUserOnceAndComesBackAtTheEnd )
{
    // Identity; then state, owner, effective user during and after; whether a line is logged.
    const std::tuple< const char*, int, unsigned int, unsigned int, unsigned int, bool > rows[] = {
        { "1000 1000 0", 0, 1000, 1000, 1000, false },
        { "1000 50 0", 1, 50, 1000, 50, false },
        { "1000 50 1", 2, 50, 50, 50, false },
        { "1000 50 2", 1, 50, 1000, 1000, true } }; // the way back is refused
    for ( const auto& [identityPtr, state, owner, during, after, isLogged] : rows ) {
        if ( !startedAs( identityPtr ) )
            continue;
        SetupEffectiveUserId& setup = *SetupEffectiveUserId::singletonPtr();
        EXPECT_EQ( setup.state(), state );
        EXPECT_EQ( setup.fileOwnerId(), owner );
        EXPECT_TRUE( state == 1 || Suid().euidToFileOwner() ); // changes nothing
        EXPECT_EQ( process().effective, during );
        openLog();
        const Log::Capture capture;
        setup.deinit();
        EXPECT_EQ( process().effective, after );
        EXPECT_EQ( capture.contains( "errSystemError SetupEffectiveUserId::deinit() could not "
                                     "restore fileOwnersId. 50" ),
                   isLogged );
    }
}

TEST( SuidProgram, ScopesNestOverlapAndFailWithoutLeavingTheOwnersRights )
{
    if ( !startedAs( "1000 50 0" ) )
        return;
    openLog();
    const Log::Capture capture;
    {
        Suid outer, inner;
        EXPECT_TRUE( outer.euidToFileOwner() && outer.euidToFileOwner() );
        EXPECT_TRUE( inner.euidToFileOwner() );
        inner.euidToLogin();
        EXPECT_EQ( process().effective, 50u );
        outer.euidToLogin();
        EXPECT_EQ( process().effective, 1000u ); // though the first call's id was saved twice
        EXPECT_TRUE( outer.euidToFileOwner() && inner.euidToFileOwner() );
        outer.euidToLogin(); // before the other, as another thread would
    }
    EXPECT_EQ( process().effective, 1000u );
    Suid suid;
    process().refused = 1;
    EXPECT_FALSE( suid.euidToFileOwner() );
    EXPECT_TRUE( suid.euidToFileOwner() );
    process().refused = 1;
    suid.euidToLogin();
    EXPECT_TRUE( capture.contains( "errSystemError Could not set user id back from 50" ) );
    suid.euidToLogin(); // tries again
    EXPECT_EQ( process().effective, 1000u );
    EXPECT_FALSE( SuperUser( SuperUser::effectiveOnly ).enter() ); // not a program of root
}

TEST( SuperUserScope, TakesTheRealUserAlongOnDemand )
{
    if ( !startedAs( "1000 0 0" ) )
        return;
    openLog();
    const auto ids = [] { return std::pair( process().real, process().effective ); };
    for ( const SuperUser::UidMode mode : { SuperUser::effectiveOnly, SuperUser::realToo } ) {
        SuperUser root( mode );
        EXPECT_TRUE( root.enter() && root.enter() );
        EXPECT_EQ( ids(), std::pair( mode == SuperUser::realToo ? 0u : 1000u, 0u ) );
        root.exit();
        EXPECT_EQ( ids(), std::pair( 1000u, 1000u ) );
    }
    SuperUser root( SuperUser::realToo );
    process().refused = 2; // that of the real id
    EXPECT_FALSE( root.enter() );
    EXPECT_TRUE( root.enter() );
    process().refused = 1; // the same, on the way back
    root.exit();
    EXPECT_EQ( process().effective, 1000u );
}

TEST( SecuritySettings, GroupIsTheApplicationsForItsMembersAndGivenToOwnObjects )
{
    if ( !startedAs( "1000 1000 0" ) )
        return;
    const std::string configuration = NuvTest::RootFixture::root( "nuvs.conf" );
    NuvTest::writeFile( configuration, "groupName = appliance" );
    EXPECT_EQ( SecurityInfo( SecurityInfo::ipcObject, 0 ).groupId(),
               1000u ); // there is no such group yet
    ourGroupName = "appliance";
    ourIsMember = false;
    EXPECT_EQ( SecurityInfo( SecurityInfo::ipcObject, 0 ).groupId(), 1000u );
    ourIsMember = true;
    ::unlink( configuration.c_str() );
    EXPECT_EQ( SecurityInfo( SecurityInfo::ipcObject, 14 ).mode(), 0666u );
    NuvTest::writeFile( "./x", "" );
    const SecurityInfo info( SecurityInfo::ipcObject, SecurityInfo::ownerAndGroup );
    EXPECT_EQ( info.groupId(), 777u );
    for ( const unsigned int euid : { trueEuid + 1, trueEuid } ) {
        process().effective = euid;
        info.applyGroupOwnership( 0 );
        info.applyGroupOwnership( "x" );
        info.applyGroupOwnership( "missing" );
        EXPECT_EQ( ourChanges.str(), euid != trueEuid ? "" : "fd 0 777 x 0 777 " );
    }
    ourChownResult = -1;
    EXPECT_THROW( info.applyGroupOwnership( "x" ), LogicException );
    ourEgid = 777; // is the effective group already
    EXPECT_NO_THROW( info.applyGroupOwnership( "x" ) );
}

} // namespace
} // namespace Nuv::Utils
