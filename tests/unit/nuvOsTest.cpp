#include "nuvOs.h"

#include "nuvLogCapture.h"
#include "nuvTestSupport.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <numeric>
#include <optional>
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

    unsigned int real = 1000;
    unsigned int effective = 1000;
    unsigned int saved;
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
std::optional< uid_t > ourObjectOwner;
std::vector< std::string > ourChanges; // of owners
int ourChangeError = 0;

int setEffective( uid_t uid )
{
    if ( ourSwitchFault.strikes() || --process().refused == 0 ) {
        errno = EAGAIN;
        return -1;
    }
    if ( uid != process().real && uid != process().saved && process().effective != 0 ) {
        errno = EPERM;
        return -1;
    }
    process().effective = uid;
    return 0;
}

int change( const std::string& what, uid_t owner, gid_t group )
{
    ourChanges.push_back( what + " " + std::to_string( static_cast< int >( owner ) ) + " " +
                          std::to_string( group ) );
    errno = ourChangeError;
    return ourChangeError == 0 ? 0 : -1;
}

} // namespace

// NOLINTBEGIN: the linker gives these names
extern "C" {
uid_t __wrap_getuid()
{
    return process().real;
}
uid_t __wrap_geteuid()
{
    return process().effective;
}
gid_t __wrap_getegid()
{
    return ourEgid;
}
int __wrap_seteuid( uid_t uid )
{
    return setEffective( uid );
}
int __wrap_setreuid( uid_t real, uid_t )
{
    if ( ourSwitchFault.strikes() )
        return -1;
    process().real = real;
    process().saved = process().effective;
    return 0;
}
int __wrap_getgroups( int size, gid_t* groupsPtr )
{
    const int count = static_cast< int >( ourGroups.size() );
    if ( size == 0 )
        return count;
    if ( size < count ) {
        errno = EINVAL;
        return -1;
    }
    std::copy( ourGroups.begin(), ourGroups.end(), groupsPtr );
    return count;
}
int __wrap_getgrnam_r( const char* namePtr, group* entryPtr, char*, size_t size,
                       group** foundPtrPtr )
{
    ++ourNbrOfLookUps;
    *foundPtrPtr = nullptr;
    if ( ourNbrOfLookUps == 1 )
        return EINTR;
    if ( size < ourNeededBytes )
        return ERANGE;
    if ( namePtr != ourGroupName )
        return 0;
    entryPtr->gr_gid = 777;
    *foundPtrPtr = entryPtr;
    return 0;
}
int __wrap_fchown( int, uid_t owner, gid_t group )
{
    return change( "fd", owner, group );
}
int __wrap_lchown( const char* pathPtr, uid_t owner, gid_t group )
{
    return change( pathPtr, owner, group );
}
#ifdef __i386__
#define NUV_STAT( prefix, name ) prefix##__##name##64_time64
#else
#define NUV_STAT( prefix, name ) prefix##name
#endif
int NUV_STAT( __real_, fstat )( int, struct stat* );
int NUV_STAT( __wrap_, fstat )( int fd, struct stat* statPtr )
{
    const int result = NUV_STAT( __real_, fstat )( fd, statPtr );
    statPtr->st_uid = ourObjectOwner.value_or( statPtr->st_uid );
    return result;
}
int NUV_STAT( __real_, lstat )( const char*, struct stat* );
int NUV_STAT( __wrap_, lstat )( const char* pathPtr, struct stat* statPtr )
{
    const int result = NUV_STAT( __real_, lstat )( pathPtr, statPtr );
    statPtr->st_uid = ourObjectOwner.value_or( statPtr->st_uid );
    return result;
}
}
// NOLINTEND

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
constexpr const char* ofRoot = "1000 0 0";

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
        EXPECT_EQ( process().effective, during );
        if ( state != 1 ) {
            Suid suid;
            EXPECT_TRUE( suid.euidToFileOwner() );
            suid.euidToLogin();
            EXPECT_EQ( process().effective, during );
            EXPECT_EQ( Suid::nbrOfSwitches(), 0u );
        }
        openLog();
        const Log::Capture capture;
        setup.deinit();
        EXPECT_EQ( process().effective, after );
        EXPECT_EQ(
            capture.contains( "errSystemError SetupEffectiveUserId::deinit() could not restore "
                              "fileOwnersId. 50" ),
            isLogged );
    }
}

TEST( SuidProgram, ScopesNestAndEndInTheirDestructors )
{
    if ( !startedAs( ofUser50 ) )
        return;
    {
        Suid outer;
        EXPECT_TRUE( outer.euidToFileOwner() );
        EXPECT_TRUE( outer.euidToFileOwner() ); // the first one's id stays the saved one
        EXPECT_EQ( process().effective, 50u );
        {
            Suid inner;
            EXPECT_TRUE( inner.euidToFileOwner() );
        }
        EXPECT_EQ( process().effective, 50u );
        outer.euidToLogin();
        EXPECT_EQ( process().effective, 1000u );
        outer.euidToLogin(); // nothing is saved any more
        EXPECT_TRUE( outer.euidToFileOwner() );
    }
    EXPECT_EQ( process().effective, 1000u );
    EXPECT_EQ( Suid::nbrOfSwitches(), 4u );
}

TEST( SuidProgram, OverlappingScopesNeverLeaveTheOwnersRights )
{
    if ( !startedAs( ofUser50 ) )
        return;
    Suid first;
    Suid second;
    EXPECT_TRUE( first.euidToFileOwner() );
    EXPECT_TRUE( second.euidToFileOwner() ); // as another thread would
    first.euidToLogin();
    EXPECT_EQ( process().effective, 1000u );
    second.euidToLogin();
    EXPECT_EQ( process().effective, 1000u );
}

TEST( SuidProgram, RefusedSwitchIsToldAndTheWayBackStaysOpen )
{
    if ( !startedAs( ofUser50 ) )
        return;
    Suid suid;
    ourSwitchFault.arm( 1, EAGAIN );
    EXPECT_FALSE( suid.euidToFileOwner() );
    EXPECT_EQ( process().effective, 1000u );
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

TEST( SuperUserScope, NeedsAProgramOfRoot )
{
    for ( const char* identityPtr : { ordinary, ofUser50 } ) {
        if ( !startedAs( identityPtr ) )
            continue;
        SuperUser root( SuperUser::effectiveOnly );
        EXPECT_FALSE( root.enter() );
        EXPECT_EQ( process().effective, 1000u );
    }
    if ( startedAs( "0 0 0" ) ) { // the superuser itself, without set-user-id
        SuperUser root( SuperUser::realToo );
        EXPECT_TRUE( root.enter() );
    }
}

TEST( SuperUserScope, TakesTheRealUserAlongOnDemandAndGivesBothBack )
{
    if ( !startedAs( ofRoot ) )
        return;
    {
        SuperUser root( SuperUser::effectiveOnly );
        EXPECT_TRUE( root.enter() );
        EXPECT_EQ( process().effective, 0u );
        EXPECT_EQ( process().real, 1000u );
    }
    EXPECT_EQ( process().effective, 1000u );
    {
        SuperUser root( SuperUser::realToo );
        EXPECT_TRUE( root.enter() );
        EXPECT_TRUE( root.enter() );
        EXPECT_EQ( process().real, 0u );
        root.exit();
        EXPECT_EQ( process().real, 1000u );
        EXPECT_EQ( process().effective, 1000u );
        openLog();
        const Log::Capture capture;
        ourSwitchFault.arm( 2, EPERM ); // that of the real id
        EXPECT_FALSE( root.enter() );
        EXPECT_TRUE( capture.contains( "errPermissionDenied Could not set ruid to 0" ) );
        EXPECT_EQ( process().effective, 0u );
        EXPECT_TRUE( root.enter() );
        ourSwitchFault.arm( 1, EPERM );
        root.exit();
        EXPECT_TRUE( capture.contains( "errSystemError Could not set ruid back to 1000" ) );
        process().real = 1000;
    }
    EXPECT_EQ( process().effective, 1000u );
    EXPECT_EQ( process().real, 1000u );
}

TEST( SecuritySettings, ModeAndUmaskComeFromThePermissions )
{
    const unsigned int rows[][3] = { { 0, 0, 022 },    { 1, 0, 022 },    { 2, 0600, 022 },
                                     { 4, 0060, 002 }, { 6, 0660, 002 }, { 8, 0006, 0 },
                                     { 10, 0606, 0 },  { 14, 0666, 0 } };
    for ( const auto& [permissions, mode, umask] : rows ) {
        const SecurityInfo info( SecurityInfo::fileObject, permissions );
        EXPECT_EQ( info.mode(), mode ) << permissions;
        EXPECT_EQ( info.umask(), umask ) << permissions;
    }
}

mode_t currentUmask()
{
    const mode_t mask = ::umask( 0 );
    ::umask( mask );
    return mask;
}

TEST( SecuritySettings, UmaskIsAppliedOnceAndRestoredByTheDestructor )
{
    const mode_t savedMask = ::umask( 077 );
    {
        SecurityInfo info( SecurityInfo::ipcObject, SecurityInfo::ownerAndGroup );
        info.restoreUmask();
        EXPECT_EQ( currentUmask(), 077u );
        info.applyUmask();
        info.applyUmask();
        EXPECT_EQ( currentUmask(), 002u );
        info.restoreUmask();
        EXPECT_EQ( currentUmask(), 077u );
        info.applyUmask();
    }
    EXPECT_EQ( ::umask( savedMask ), 077u );
}

gid_t groupId()
{
    return SecurityInfo( SecurityInfo::ipcObject, SecurityInfo::ownerAndGroup ).groupId();
}

TEST( SecuritySettings, GroupIsTheApplicationsForItsMembersOnly )
{
    if ( !startedAs( ordinary ) )
        return;
    ourNeededBytes = 3000000; // a group of very many members
    ourGroups.resize( 65536 );
    std::iota( ourGroups.begin(), ourGroups.end(), 1000000 );
    EXPECT_EQ( groupId(), 1000u );
    ourGroups.back() = 777;
    const int nbrOfLookUps = ourNbrOfLookUps;
    EXPECT_EQ( groupId(), 777u );
    EXPECT_EQ( ourNbrOfLookUps, nbrOfLookUps ); // known by now
    ourGroups.clear();
    EXPECT_EQ( groupId(), 1000u );
}

TEST( SecuritySettings, GroupIsLookedUpAgainUntilItExists )
{
    if ( !startedAs( ordinary ) )
        return;
    NuvTest::writeFile( NuvTest::RootFixture::root( "nuvs.conf" ), "groupName = appliance" );
    ourGroups = { 777 };
    EXPECT_EQ( groupId(), 1000u );
    ourGroupName = "appliance";
    ourNeededBytes = static_cast< std::size_t >( -1 ); // never enough: given up
    EXPECT_EQ( groupId(), 1000u );
    ourNeededBytes = 0;
    EXPECT_EQ( groupId(), 777u );
    ::unlink( NuvTest::RootFixture::root( "nuvs.conf" ).c_str() );
}

TEST( SecuritySettings, GroupIsGivenToOwnObjectsOnly )
{
    if ( !startedAs( ordinary ) )
        return;
    NuvTest::writeFile( "./x", "" );
    ourGroups = { 777 };
    const SecurityInfo info( SecurityInfo::ipcObject, SecurityInfo::ownerAndGroup );
    ourObjectOwner = 51;
    info.applyGroupOwnership( 0 );
    info.applyGroupOwnership( "x" );
    EXPECT_TRUE( ourChanges.empty() );
    ourObjectOwner = 1000;
    info.applyGroupOwnership( 0 );
    info.applyGroupOwnership( "x" );
    info.applyGroupOwnership( "missing" );
    EXPECT_EQ( ourChanges, ( std::vector< std::string >{ "fd -1 777", "x -1 777" } ) );
    ourChangeError = EPERM;
    EXPECT_THROW( info.applyGroupOwnership( 0 ), LogicException );
    EXPECT_THROW( info.applyGroupOwnership( "x" ), LogicException );
    ourChanges.clear();
    ourEgid = 777; // is the effective group already
    info.applyGroupOwnership( 0 );
    info.applyGroupOwnership( "x" );
    EXPECT_TRUE( ourChanges.empty() );
}

} // namespace
} // namespace Nuv::Utils
