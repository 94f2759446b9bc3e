#pragma once

#include "nuv.h"
#include "nuvFileSystem.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace Nuv::Utils {

/// Link seam, defined in nuvGlobal.cpp: the group name of the master configuration, "nuvs" when it
/// names none. Valid until exit.
const std::string& applicationGroupName();

template < class T >
class Singleton;

/// Drops the effective user to the login user at start-up; one per process.
///
/// A daemon installed set-user-id starts with the file owner's rights and runs with those of who
/// started it; the saved set-user-id lets Suid switch back for a scope.
///
/// Threads: any; built during the library's start-up, read-only afterwards.
class NUV_API SetupEffectiveUserId
{
public:
    static SetupEffectiveUserId* singletonPtr();

    /// In state 1: sets the effective user back to the file's owner; a failure is logged at fatal.
    void deinit();

    /// 0: the identities were equal at start; 1: switched to the real id; 2: the switch failed
    int state() const { return myState; }
    /// The real user id at start.
    uid_t loginId() const { return myLoginId; }
    /// The effective user id at start.
    uid_t fileOwnerId() const { return myFileOwnerId; }

private:
    friend class Singleton< SetupEffectiveUserId >;
    SetupEffectiveUserId();
    ~SetupEffectiveUserId() = default;

    int myState = 0;
    uid_t myLoginId;
    uid_t myFileOwnerId;
};

/// Scoped switch of the process's effective user to the owner of a set-user-id program.
///
/// | state of SetupEffectiveUserId | euidToFileOwner()                | euidToLogin()         |
/// |-------------------------------|----------------------------------|-----------------------|
/// | 0 or 2                        | true, nothing                    | nothing               |
/// | 1                             | saves the effective id, switches | goes back to that id  |
///
/// Threads: a switch concerns all threads of the process. The switches are serialised, their scopes
///          are not: the first scope that ends takes the rights from one that overlaps it on
///          another thread. When the last of overlapping scopes ends, the process is back at the id
///          from before the first, never left with the owner's.
/// Errors:  what cannot be switched back is logged at fatal; the next euidToLogin(), the
///          destructor's at the latest, tries again.
/// Example: Suid suid; if ( suid.euidToFileOwner() ) { ... } // back at the scope's end
class NUV_API Suid
{
public:
    Suid() = default;
    Suid( const Suid& ) = delete;
    Suid& operator=( const Suid& ) = delete;
    /// Calls euidToLogin().
    virtual ~Suid();

    /// The file owner's id.
    virtual uid_t requestedEuid();
    /// A second call before euidToLogin() switches again if need be, but the saved id stays that of
    /// the first.
    /// @return false only when the switch was refused; errno tells why
    bool euidToFileOwner();
    void euidToLogin();

    /// @return the number of switches that Suid objects of the process made in state 1
    static std::uint32_t nbrOfSwitches();

private:
    uid_t mySavedEuid = static_cast< uid_t >( -1 ); // -1: nothing saved
};

/// Scoped switch to the superuser.
///
/// Threads and Errors: as Suid.
/// Example: SuperUser root( SuperUser::effectiveOnly ); if ( root.enter() ) { ... }
class NUV_API SuperUser : public Suid
{
public:
    enum UidMode
    {
        effectiveOnly = 0,
        realToo = 1
    };

    explicit SuperUser( UidMode mode );
    /// Calls exit().
    ~SuperUser() override;

    /// 0.
    uid_t requestedEuid() override;
    /// @return whether the effective user is the superuser now and, with realToo, the real one too;
    /// after false the effective user may have been switched: exit() or the destructor undoes it
    bool enter();
    void exit();

private:
    UidMode myMode;
    uid_t mySavedRuid = static_cast< uid_t >( -1 ); // -1: nothing saved
};

/// Group, permission bits and umask for an object that the library creates.
///
/// The group is the application group, by applicationGroupName(), if it is among the process's
/// supplementary groups, else the effective group. Its number is looked up in the system's group
/// data once per process (again while it does not exist); the membership is asked each time.
///
/// | permissions bit | adds to the mode | umask |
/// |-----------------|------------------|-------|
/// | none            |                  | 022   |
/// | 2               | 0600             | 022   |
/// | 4               | 0060             | 002   |
/// | 8               | 0006             | 000   |
///
/// Threads: one; on the stack. From applyUmask() to restoreUmask() other threads' applyUmask()
///          waits, as UmaskScope describes: put it round the creating call alone.
/// Errors:  a group change that the system refuses fails nuvAssert.
/// Example: SecurityInfo info( SecurityInfo::ipcObject, SecurityInfo::ownerAndGroup );
class NUV_API SecurityInfo
{
public:
    /// Does not change the result.
    enum AccessType
    {
        fileObject = 1,
        semaphoreObject = 2,
        ipcObject = 3
    };
    /// The permissions of all interprocess objects: mode 0660, umask 002.
    static constexpr unsigned int ownerAndGroup = 6;

    SecurityInfo( AccessType type, unsigned int permissions );
    SecurityInfo( const SecurityInfo& ) = delete;
    SecurityInfo& operator=( const SecurityInfo& ) = delete;
    /// Restores the umask.
    ~SecurityInfo();

    /// Nothing if applied already.
    void applyUmask();
    /// Nothing if not applied.
    void restoreUmask();

    /// Gives an object of the effective user to groupId(), unless that is the effective group; the
    /// owner stays. What belongs to another user or cannot be examined is left alone.
    void applyGroupOwnership( int fd ) const;
    /// A symbolic link is changed itself.
    void applyGroupOwnership( const char* pathPtr ) const;

    gid_t groupId() const { return myGroupId; }
    mode_t mode() const { return myMode; }
    mode_t umask() const { return myUmask; }

private:
    gid_t myGroupId;
    mode_t myMode = 0;
    mode_t myUmask = 022;
    std::optional< Io::UmaskScope > myAppliedUmask;
};

} // namespace Nuv::Utils
