#pragma once

#include "nuv.h"

#include <string>
#include <sys/types.h>

namespace Nuv::Utils {

/// Link seam, defined in nuvGlobal.cpp: the group name of the master configuration, "nuvs" when it
/// names none.
const std::string& applicationGroupName();

template < class T >
class Singleton;

/// Drops the effective user to the login user at start-up; one per process.
class NUV_API SetupEffectiveUserId
{
public:
    static SetupEffectiveUserId* singletonPtr();

    /// In state 1: sets the effective user back to the file's owner; a failure is logged.
    void deinit();

    /// 0: the identities were equal at start; 1: switched to the real id; 2: the switch failed
    int state() const { return myState; }
    uid_t loginId() const { return myLoginId; }
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
class NUV_API Suid
{
public:
    Suid() = default;
    virtual ~Suid();

    virtual uid_t requestedEuid();
    bool euidToFileOwner();
    void euidToLogin();

private:
    uid_t mySavedEuid = static_cast< uid_t >( -1 );
};

/// Scoped switch to the superuser.
class NUV_API SuperUser : public Suid
{
public:
    enum UidMode { effectiveOnly = 0, realToo = 1 };

    explicit SuperUser( UidMode mode );
    ~SuperUser() override;

    uid_t requestedEuid() override;
    bool enter();
    void exit();

private:
    UidMode myMode;
    uid_t mySavedRuid = static_cast< uid_t >( -1 );
};

/// Group, permission bits and umask for an object that the library creates.
///
/// Example: SecurityInfo info( SecurityInfo::ipcObject, SecurityInfo::ownerAndGroup );
class NUV_API SecurityInfo
{
public:
    /// Does not change the result.
    enum AccessType { fileObject = 1, semaphoreObject = 2, ipcObject = 3 };
    static constexpr unsigned int ownerAndGroup = 6;

    SecurityInfo( AccessType type, unsigned int permissions );
    SecurityInfo( const SecurityInfo& ) = delete;
    SecurityInfo& operator=( const SecurityInfo& ) = delete;
    ~SecurityInfo();

    void applyUmask();
    void restoreUmask();
    void applyGroupOwnership( int fd ) const;
    void applyGroupOwnership( const char* pathPtr ) const;

    gid_t groupId() const { return myGroupId; }
    mode_t mode() const { return myMode; }
    mode_t umask() const { return myUmask; }

private:
    gid_t myGroupId;
    mode_t myMode = 0;
    mode_t myUmask = 022;
    mode_t mySavedUmask = 0;
    bool myApplied = false;
};

} // namespace Nuv::Utils
