#include "nuvOs.h"

#include "nuvLogCapture.h"
#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <grp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <tuple>
#include <unistd.h>

namespace {

// The process as the system is made to see it. It is needed before main, when the library drops the
// effective user, so it comes from the environment: real id, effective id, number of the refused
// switch.
struct Identity
{
    Identity()
    {
        if ( const char* const textPtr = std::getenv( "NUV_TEST_IDENTITY" ) )
            std::sscanf( textPtr, "%u %u %d", &real, &effective, &refused );
        saved = effective;
    }
    bool refuses( uid_t uid )
    {
        return --refused == 0 || ( uid != real && uid != saved && effective != 0 );
    }
    unsigned int real = 1000, effective = 1000, saved;
    int refused = 0;
};

Identity& process()
{
    static Identity identity;
    return identity;
}

gid_t ourEgid = 1000;
std::vector< gid_t > ourGroups;
std::size_t ourNeededBytes = 0;
int ourNbrOfLookUps = 0;
std::string ourGroupName = "nuvs";
NuvTest::Fault ourSwitchFault;
uid_t ourObjectOwner = 1000;
std::string ourChanges; // of owners

int change( const std::string& what, uid_t owner, gid_t group )
{
    ourChanges += what + std::to_string( static_cast< int >( owner ) ) + std::to_string( group );
    return ourChanges.size() < 14 ? 0 : -1;
}

int owned( int result, struct stat* statPtr )
{
    statPtr->st_uid = ourObjectOwner;
    return result;
}

} // namespace

NUV_WRAP( uid_t, getuid, (), process().real )
NUV_WRAP( uid_t, geteuid, (), process().effective )
NUV_WRAP( gid_t, getegid, (), ourEgid )
NUV_WRAP( int, seteuid, ( uid_t uid ),
          ourSwitchFault.strikes() || process().refuses( uid ) ? -1
                                                               : ( process().effective = uid, 0 ) )
NUV_WRAP( int, setreuid, ( uid_t real, uid_t ),
          ourSwitchFault.strikes() ? -1 : ( process().real = real, 0 ) )
NUV_WRAP( int, getgroups, ( int size, gid_t* ptr ),
          ( std::copy_n( ourGroups.data(), size, ptr ), static_cast< int >( ourGroups.size() ) ) )
NUV_WRAP( int, getgrnam_r,
          ( const char* namePtr, group* ptr, char*, size_t size, group** foundPtr ),
          ( ++ourNbrOfLookUps, ptr->gr_gid = 777,
            *foundPtr = size >= ourNeededBytes && namePtr == ourGroupName ? ptr : nullptr,
            size < ourNeededBytes ? ERANGE : 0 ) )
NUV_WRAP( int, fchown, ( int, uid_t owner, gid_t group ), change( "fd", owner, group ) )
NUV_WRAP( int, lchown, ( const char* p, uid_t owner, gid_t group ), change( p, owner, group ) )
NUV_WRAP_REAL( int, NUV_TIME64( fstat ), ( int fd, struct stat* ptr ),
               owned( NUV_REAL( NUV_TIME64( fstat ) )( fd, ptr ), ptr ) )
NUV_WRAP_REAL( int, NUV_TIME64( lstat ), ( const char* pathPtr, struct stat* ptr ),
               owned( NUV_REAL( NUV_TIME64( lstat ) )( pathPtr, ptr ), ptr ) )

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
    EXPECT_NE( outcome.output.find( "[       OK ]" ), std::string::npos ) << outcome.output;
    return false;
}

#define NUV_AS( identity )                                                                         \
    if ( !startedAs( identity ) )                                                                  \
    return

// The log makes its shared objects as the real user: not every namespace has the made-up ones.
void openLog()
{
    const unsigned int effective = process().effective;
    process().effective = static_cast< unsigned int >( ::syscall( SYS_geteuid ) );
    ourEgid = static_cast< gid_t >( ::syscall( SYS_getegid ) );
    Log::getStandardSource( Log::fatal );
    process().effective = effective;
}

constexpr const char* ordinary = "1000 1000 0";
constexpr const char* ofUser50 = "1000 50 0";

TEST( EffectiveUser, IsDroppedToTheLoginUserOnceAndComesBackAtTheEnd )
{
    // Identity; then state, owner, effective user during and after; whether a line is logged.
    const std::tuple< const char*, int, unsigned int, unsigned int, unsigned int, bool > rows[] = {
        { ordinary, 0, 1000, 1000, 1000, false },
        { ofUser50, 1, 50, 1000, 50, false },
        { "1000 50 1", 2, 50, 50, 50, false },
        { "1000 50 2", 1, 50, 1000, 1000, true } }; // the way back is refused
    for ( const auto& [identityPtr, state, owner, during, after, isLogged] : rows ) {
        if ( !startedAs( identityPtr ) )
            continue;
        SetupEffectiveUserId& setup = *SetupEffectiveUserId::singletonPtr();
        EXPECT_EQ( setup.state(), state );
        EXPECT_EQ( setup.loginId(), 1000u );
        EXPECT_EQ( setup.fileOwnerId(), owner );
        if ( state != 1 ) {
            Suid suid;
            EXPECT_TRUE( suid.euidToFileOwner() );
            EXPECT_EQ( Suid::nbrOfSwitches(), 0u );
        }
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
    NUV_AS( ofUser50 );
    {
        Suid outer;
        EXPECT_TRUE( outer.euidToFileOwner() );
        EXPECT_TRUE( outer.euidToFileOwner() ); // the first one's id stays the saved one
        {
            Suid inner;
            EXPECT_TRUE( inner.euidToFileOwner() );
        }
        EXPECT_EQ( process().effective, 50u );
        outer.euidToLogin();
        EXPECT_EQ( process().effective, 1000u );
        EXPECT_TRUE( outer.euidToFileOwner() );
    }
    EXPECT_EQ( process().effective, 1000u );
    EXPECT_EQ( Suid::nbrOfSwitches(), 4u );
    Suid first, second;
    EXPECT_TRUE( first.euidToFileOwner() );
    EXPECT_TRUE( second.euidToFileOwner() ); // as another thread would
    first.euidToLogin();
    second.euidToLogin();
    EXPECT_EQ( process().effective, 1000u );
    Suid suid;
    ourSwitchFault.arm( 1, EAGAIN );
    EXPECT_FALSE( suid.euidToFileOwner() );
    EXPECT_TRUE( suid.euidToFileOwner() );
    ourSwitchFault.arm( 1, EAGAIN );
    openLog();
    const Log::Capture capture;
    suid.euidToLogin();
    EXPECT_TRUE( capture.contains( "errSystemError Could not set user id back from 50" ) );
    EXPECT_EQ( process().effective, 50u );
    suid.euidToLogin(); // tries again
    EXPECT_EQ( process().effective, 1000u );
}

TEST( SuperUserScope, NeedsAProgramOfRootAndTakesTheRealUserAlongOnDemand )
{
    EXPECT_FALSE( startedAs( ofUser50 ) && SuperUser( SuperUser::effectiveOnly ).enter() );
    EXPECT_TRUE( !startedAs( "0 0 0" ) || SuperUser( SuperUser::realToo ).enter() );
    NUV_AS( "1000 0 0" );
    const auto ids = [] { return std::pair( process().real, process().effective ); };
    SuperUser effective( SuperUser::effectiveOnly );
    EXPECT_TRUE( effective.enter() );
    EXPECT_EQ( ids(), std::pair( 1000u, 0u ) );
    effective.exit();
    SuperUser root( SuperUser::realToo );
    EXPECT_TRUE( root.enter() && root.enter() );
    EXPECT_EQ( ids(), std::pair( 0u, 0u ) );
    root.exit();
    EXPECT_EQ( ids(), std::pair( 1000u, 1000u ) );
    openLog();
    const Log::Capture capture;
    ourSwitchFault.arm( 2, EPERM ); // that of the real id
    EXPECT_FALSE( root.enter() );
    EXPECT_TRUE( capture.contains( "errPermissionDenied Could not set ruid to 0" ) );
    EXPECT_TRUE( root.enter() );
    ourSwitchFault.arm( 1, EPERM );
    root.exit();
    EXPECT_TRUE( capture.contains( "errSystemError Could not set ruid back to 1000" ) );
    EXPECT_EQ( process().effective, 1000u ) << "after a failed way back of the real id";
}

TEST( SecuritySettings, ModeAndUmaskComeFromThePermissions )
{
    const unsigned int rows[][3] = { { 0, 0, 022 },    { 2, 0600, 022 }, { 4, 0060, 002 },
                                     { 6, 0660, 002 }, { 8, 0006, 0 },   { 14, 0666, 0 } };
    for ( const auto& [permissions, mode, umask] : rows ) {
        const SecurityInfo info( SecurityInfo::fileObject, permissions );
        EXPECT_EQ( std::pair( info.mode(), info.umask() ), std::pair( mode, umask ) )
            << permissions;
    }
    const mode_t savedMask = ::umask( 077 );
    {
        SecurityInfo info( SecurityInfo::ipcObject, SecurityInfo::ownerAndGroup );
        info.applyUmask();
        info.applyUmask();
        EXPECT_EQ( ::umask( 002 ), 002u );
        info.restoreUmask();
        EXPECT_EQ( ::umask( 077 ), 077u );
        info.applyUmask();
    }
    EXPECT_EQ( ::umask( savedMask ), 077u ); // by the destructor
}

TEST( SecuritySettings, GroupIsTheApplicationsForItsMembersOnly )
{
    NUV_AS( ordinary );
    const auto groupId = [] {
        return SecurityInfo( SecurityInfo::ipcObject, SecurityInfo::ownerAndGroup ).groupId();
    };
    NuvTest::writeFile( NuvTest::RootFixture::root( "nuvs.conf" ), "groupName = appliance" );
    ourGroups.resize( 65536, 777 );
    EXPECT_EQ( groupId(), 1000u ); // there is no such group yet
    ourGroupName = "appliance";
    ourNeededBytes = static_cast< std::size_t >( -1 ); // never enough: given up
    EXPECT_EQ( groupId(), 1000u );
    ourNeededBytes = 3000000; // a group of very many members
    EXPECT_EQ( groupId(), 777u );
    const int nbrOfLookUps = ourNbrOfLookUps;
    ourGroups.clear();
    EXPECT_EQ( groupId(), 1000u );
    EXPECT_EQ( ourNbrOfLookUps, nbrOfLookUps ); // known by now
    ::unlink( NuvTest::RootFixture::root( "nuvs.conf" ).c_str() );
}

TEST( SecuritySettings, GroupIsGivenToOwnObjectsOnly )
{
    NUV_AS( ordinary );
    NuvTest::writeFile( "./x", "" );
    ourGroups = { 777 };
    const SecurityInfo info( SecurityInfo::ipcObject, SecurityInfo::ownerAndGroup );
    for ( const int owner : { 51, 1000 } ) {
        ourObjectOwner = owner;
        info.applyGroupOwnership( 0 );
        info.applyGroupOwnership( "x" );
        info.applyGroupOwnership( "missing" );
        EXPECT_EQ( ourChanges, owner == 51 ? "" : "fd-1777x-1777" );
    }
    EXPECT_THROW( info.applyGroupOwnership( 0 ), LogicException ); // the system refuses it
    EXPECT_THROW( info.applyGroupOwnership( "x" ), LogicException );
    ourEgid = 777; // is the effective group already
    EXPECT_NO_THROW( info.applyGroupOwnership( "x" ) );
}

} // namespace
} // namespace Nuv::Utils
