#include "nuvOs.h"

#include "nuvLog.h"
#include "nuvMutex.h"
#include "nuvSingleton.h"
#include "nuvUtils.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Nuv::Utils {

extern Mt::Mutex SetupEffectiveUserIdSingletonPtrMutex;
Mt::Mutex SetupEffectiveUserIdSingletonPtrMutex;

namespace {

constexpr uid_t noUser = static_cast< uid_t >( -1 );
constexpr gid_t noGroup = static_cast< gid_t >( -1 );

// Guards what follows; a leaf: messages are written after it is released.
Mt::Mutex ourSuidCountMutex;
std::uint32_t ourSuidCount NUV_GUARDED_BY( ourSuidCountMutex ) = 0;
// Scopes of Suid objects that saved an id, and the id that the first of them saved.
std::uint32_t ourNbrOfScopes NUV_GUARDED_BY( ourSuidCountMutex ) = 0;
uid_t ourOutermostEuid NUV_GUARDED_BY( ourSuidCountMutex ) = noUser;

// On the way of destructors and of the process's end: a line that cannot be written is lost.
void logFatal( const std::string& text ) noexcept
{
    try {
        nuvLogTo( Log::getStandardSource( Log::fatal ) ) << text;
    } catch ( ... ) {
    }
}

bool isSwitching()
{
    return SetupEffectiveUserId::singletonPtr()->state() == 1;
}

} // namespace

NUV_STARTUP SetupEffectiveUserId* SetupEffectiveUserId::singletonPtr()
{
    return Singleton< SetupEffectiveUserId >::ptr( SetupEffectiveUserIdSingletonPtrMutex );
}

NUV_STARTUP SetupEffectiveUserId::SetupEffectiveUserId()
    : myLoginId( ::getuid() )
    , myFileOwnerId( ::geteuid() )
{
    if ( myLoginId != myFileOwnerId )
        myState = ::seteuid( myLoginId ) == 0 ? 1 : 2;
}

void SetupEffectiveUserId::deinit()
{
    if ( myState == 1 && ::seteuid( myFileOwnerId ) != 0 ) {
        logFatal( "errSystemError SetupEffectiveUserId::deinit() could not restore fileOwnersId. " +
                  std::to_string( myFileOwnerId ) );
    }
}

Suid::~Suid()
{
    Suid::euidToLogin();
}

uid_t Suid::requestedEuid()
{
    return SetupEffectiveUserId::singletonPtr()->fileOwnerId();
}

bool Suid::euidToFileOwner()
{
    if ( !isSwitching() )
        return true;
    const uid_t requested = requestedEuid();
    const Mt::MutexLock lock( ourSuidCountMutex );
    const uid_t current = ::geteuid();
    ++ourSuidCount;
    if ( mySavedEuid == noUser ) {
        mySavedEuid = current;
        if ( ourNbrOfScopes++ == 0 )
            ourOutermostEuid = current;
    }
    return current == requested || ::seteuid( requested ) == 0;
}

void Suid::euidToLogin()
{
    if ( mySavedEuid == noUser )
        return;
    bool restored = true;
    {
        const Mt::MutexLock lock( ourSuidCountMutex );
        // The last scope may have saved an id that another thread's scope has switched back since.
        const uid_t euid = ourNbrOfScopes == 1 ? ourOutermostEuid : mySavedEuid;
        restored = ::geteuid() == euid || ::seteuid( euid ) == 0;
        if ( restored ) {
            mySavedEuid = noUser;
            --ourNbrOfScopes;
        }
    }
    if ( !restored )
        logFatal( "errSystemError Could not set user id back from " +
                  std::to_string( ::geteuid() ) );
}

std::uint32_t Suid::nbrOfSwitches()
{
    const Mt::MutexLock lock( ourSuidCountMutex );
    return ourSuidCount;
}

SuperUser::SuperUser( UidMode mode )
    : myMode( mode )
{
}

SuperUser::~SuperUser()
{
    SuperUser::exit();
}

uid_t SuperUser::requestedEuid()
{
    return 0;
}

bool SuperUser::enter()
{
    if ( !euidToFileOwner() || ::geteuid() != 0 )
        return false;
    if ( myMode != realToo || mySavedRuid != noUser )
        return true;
    const uid_t ruid = ::getuid();
    if ( ::setreuid( 0, noUser ) != 0 ) {
        logFatal( "errPermissionDenied Could not set ruid to 0" );
        return false;
    }
    mySavedRuid = ruid;
    return true;
}

void SuperUser::exit()
{
    if ( mySavedRuid != noUser ) {
        if ( ::setreuid( mySavedRuid, noUser ) != 0 )
            logFatal( "errSystemError Could not set ruid back to " +
                      std::to_string( mySavedRuid ) );
        mySavedRuid = noUser;
    }
    euidToLogin();
}

namespace {

// The number of a group of that name, noGroup if the system's group data have none.
gid_t lookUpGroup( const std::string& name )
{
    constexpr std::size_t maxNbrOfBytes = 16 * 1024 * 1024; // a group of a million members
    std::vector< char > bytes( 1024 );
    for ( ;; ) {
        group entry;
        group* foundPtr = nullptr;
        const int errorNbr =
            ::getgrnam_r( name.c_str(), &entry, bytes.data(), bytes.size(), &foundPtr );
        if ( errorNbr == EINTR )
            continue;
        if ( errorNbr != ERANGE || bytes.size() >= maxNbrOfBytes )
            return foundPtr != nullptr ? foundPtr->gr_gid : noGroup;
        bytes.resize( bytes.size() * 4 );
    }
}

gid_t applicationGroupId()
{
    static std::atomic< gid_t > ourApplicationGroupId = noGroup;
    gid_t groupId = ourApplicationGroupId.load( std::memory_order_relaxed );
    if ( groupId == noGroup ) {
        groupId = lookUpGroup( applicationGroupName() );
        ourApplicationGroupId.store( groupId, std::memory_order_relaxed );
    }
    return groupId;
}

std::vector< gid_t > supplementaryGroups()
{
    std::vector< gid_t > groups;
    int count = 0;
    do { // the number may grow between the two calls
        groups.resize( static_cast< std::size_t >( std::max( 0, ::getgroups( 0, nullptr ) ) ) );
        count =
            groups.empty() ? 0 : ::getgroups( static_cast< int >( groups.size() ), groups.data() );
    } while ( count < 0 && errno == EINVAL );
    groups.resize( static_cast< std::size_t >( std::max( 0, count ) ) );
    return groups;
}

// A process of no other group than its effective one gets that in any case: it is spared the search
// for the application's group, which may ask many sources, one over the network.
gid_t groupForObjects()
{
    const gid_t effectiveGroupId = ::getegid();
    const std::vector< gid_t > groups = supplementaryGroups();
    if ( std::count( groups.begin(), groups.end(), effectiveGroupId ) ==
         static_cast< std::ptrdiff_t >( groups.size() ) )
        return effectiveGroupId;
    const gid_t groupId = applicationGroupId();
    const bool isMember = std::find( groups.begin(), groups.end(), groupId ) != groups.end();
    return groupId != noGroup && isMember ? groupId : effectiveGroupId;
}

} // namespace

SecurityInfo::SecurityInfo( AccessType, unsigned int permissions )
    : myGroupId( groupForObjects() )
{
    if ( permissions & 2 )
        myMode |= 0600;
    if ( permissions & 4 ) {
        myMode |= 0060;
        myUmask = 002;
    }
    if ( permissions & 8 ) {
        myMode |= 0006;
        myUmask = 000;
    }
}

SecurityInfo::~SecurityInfo() = default;

void SecurityInfo::applyUmask()
{
    if ( !myAppliedUmask )
        myAppliedUmask.emplace( myUmask );
}

void SecurityInfo::restoreUmask()
{
    myAppliedUmask.reset();
}

void SecurityInfo::applyGroupOwnership( int fd ) const
{
    struct stat info;
    if ( myGroupId == ::getegid() || ::fstat( fd, &info ) != 0 || info.st_uid != ::geteuid() )
        return;
    const int status = retryOnEintr( [&] { return ::fchown( fd, noUser, myGroupId ); } );
    nuvAssert( status == 0, "group of a created object" );
}

void SecurityInfo::applyGroupOwnership( const char* pathPtr ) const
{
    struct stat info;
    if ( myGroupId == ::getegid() || ::lstat( pathPtr, &info ) != 0 || info.st_uid != ::geteuid() )
        return;
    const int status = retryOnEintr( [&] { return ::lchown( pathPtr, noUser, myGroupId ); } );
    nuvAssert( status == 0, "group of a created object" );
}

} // namespace Nuv::Utils
