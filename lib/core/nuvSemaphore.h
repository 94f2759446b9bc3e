#pragma once

#include "nuv.h"
#include "nuvString.h"
#include "nuvWaitMark.h"

#include <atomic>
#include <string>

namespace Nuv::Utils {
class SecurityInfo;
}

namespace Nuv::Mt {

/// One System V semaphore operation on a semaphore of a set.
///
/// Retried on an interruption by a signal at once, on "resource temporarily unavailable" after a
/// second; any other failure ends it. Blocks as long as the operation cannot be performed.
/// @param operation +1 and -1 in the library's uses
/// @return whether it was performed; errno tells why not
NUV_API bool doSemOp( int operation, int semaphoreIdx, int semaphoreHandle, int flags = 0 );

/// The machine-wide binary semaphore that serialises creation and removal of named objects.
///
/// Its set of one semaphore has the inode number of the interprocess-communication directory as
/// key; all objects of this class, in all processes of the installation, open the same set. The
/// set is never removed by the library.
///
/// Creation is guarded by an exclusive flock() of that directory, which ends with its process: a
/// set that is found without ever having been operated on was left by a creator that was killed,
/// and is completed. So nobody waits on a half-made set.
///
/// Threads: any, in any process.
/// Errors:  the constructor fails nuvCheckResource if the directory cannot be examined or the set
///          cannot be had. wait() opens the set anew when it was removed under it (ipcrm).
/// Owns:    nothing; the set outlives the process. A process that is killed while it holds the
///          semaphore leaves it taken: `nuvctl ipc repair` frees it.
/// Bytes:   see Semaphore.
class NUV_API MasterSemaphore
{
public:
    /// Holds the master semaphore for a scope.
    ///
    /// | state            | lock()                  | unlock()           | destructor |
    /// |------------------|-------------------------|--------------------|------------|
    /// | no semaphore yet | state becomes locked    | state unlocked     | as unlock()|
    /// | unlocked         | waits; locked           | posts (no guard!)  | nothing    |
    /// | locked           | waits: for itself       | posts; unlocked    | as unlock()|
    ///
    /// Threads: one; not shared.
    class NUV_API Lock
    {
    public:
        Lock() = default;
        Lock( const Lock& ) = delete;
        Lock& operator=( const Lock& ) = delete;
        ~Lock();

        void lock() { lock( false ); }
        void unlock();

        /// Whether the semaphore was really taken (false: the set could not be had).
        bool isHeld() const { return myHeldHandle >= 0; }

    private:
        friend class MasterSemaphore;
        void lock( bool showsWait );

        MasterSemaphore* mySemaphorePtr = nullptr;
        int myState = 1;       // 0 locked, 1 unlocked
        int myHeldHandle = -1; // the set that was taken: it alone may be posted
    };

    MasterSemaphore();
    MasterSemaphore( const MasterSemaphore& ) = delete;
    MasterSemaphore& operator=( const MasterSemaphore& ) = delete;

    /// Blocks. @return false when the set cannot be had
    bool wait();
    bool post();

    /// Blocks. The thread's record does not show it: for code that claims records.
    void acquire( Lock* lockPtr );
    /// The same; while it blocks, the thread's record shows WaitKind::masterSemaphore.
    void acquireShown( Lock* lockPtr );

    /// Whether the calling thread holds a Lock: it then must not wait on anything else.
    static bool isHeldByThisThread();

    int handle() const { return myHandle.load( std::memory_order_relaxed ); }

private:
    bool take( int* handlePtr, bool showsWait );

    std::atomic< int > myHandle; // changes only when the set was removed under us
};

/// A named counting semaphore shared between processes.
///
/// Bytes:   the key file is "sem_" and the name, "/" replaced by "-", in the interprocess-
///          communication directory; its inode number is the key of a System V set:
///
/// | set              | index | role                                             | when created  |
/// |------------------|-------|--------------------------------------------------|---------------|
/// | of a Semaphore   | 0     | the counting semaphore itself                    | initial count |
/// |                  | 1     | use count: objects that have the set open        | 1             |
/// | of the directory | 0     | the master semaphore: 1 free, 0 taken            | 1             |
///
/// Owner: effective user; group: that of SecurityInfo (master: "nuvs", else 50); mode 0660.
///
/// | key file | set                     | constructor                                     |
/// |----------|-------------------------|-------------------------------------------------|
/// | none     | none                    | makes both; isCreated()                         |
/// | there    | none (reboot, ipcrm)    | makes the set; isCreated()                      |
/// | there    | there, use count > 0    | joins: use count + 1, the initial count ignored |
/// | there    | there, use count 0      | nobody's (creator or last user was killed half- |
/// |          |                         | way): set to the initial count; isCreated()     |
///
/// The destructor takes the use count back; the last user removes the set and unlinks the key file.
/// A set that was removed under the object (ipcrm) is reported as a failed removal, and the key
/// file is unlinked unless it has become the key of another set meanwhile.
///
/// Operations are made without undo: a process that is killed leaves what it took taken and the use
/// count raised (`nuvctl ipc doctor` shows both). A forked child shares the parent's objects: it
/// ends with _exit() (or one of the two runs the destructors, as after a fork into the background).
///
/// Threads: any. The master semaphore is held during construction and destruction alone.
/// Errors:  the constructor fails nuvCheckResource (also for an inode number whose low 32 bits are
///          no key) and, for an initial count above maxCount, nuvAssert. wait() fails
///          nuvCheckResource; the other operations answer false.
/// Cost:    a free semaphore is taken by one system call and given back by one. One that is taken
///          is tried some 30 times more before the wait blocks, if the machine has several
///          processors; the thread's record is written only when it really blocks.
/// Example: Semaphore gate( "gate", 1 ); const SemaphoreLock lock( &gate );
class NUV_API Semaphore
{
public:
    static constexpr unsigned int infinite = 0xFFFFFFFF;
    /// The greatest value of a System V semaphore.
    static constexpr unsigned int maxCount = 32767;
    static constexpr int semaphoreIdx = 0;
    static constexpr int useCountIdx = 1;

    /// A semaphore without a set: handle() is -1, wait() fails, the rest answers "no".
    Semaphore();
    Semaphore( const std::string& name, unsigned int initialCount );
    Semaphore( const Semaphore& ) = delete;
    Semaphore& operator=( const Semaphore& ) = delete;
    ~Semaphore();

    /// Blocks until the count could be decremented; meanwhile the thread's record shows
    /// WaitKind::semaphore and the set. @return true
    bool wait();
    /// Increments the count. @return false when that cannot be (set removed, maxCount reached)
    bool post();
    /// Decrements the count if that is possible at once.
    bool peek();
    /// Tries every millisecond until timeoutMs have passed: 0 tries once, `infinite` for ever.
    bool peek( unsigned int timeoutMs );

    /// @return number of objects, in all processes, that have the set open (and of those that died
    ///         with it); 0 without a set
    int useCount() const;
    int handle() const { return mySemaphoreHandle; }
    bool isCreated() const { return myCreated; }
    /// Full pathname of the key file; "" without a set.
    const char* fileName() const { return myFileName.cStr(); }

    /// A file that shares the set's life, unlinked by whoever removes the set.
    void companionFileName( const char* pathPtr ) { myCompanionFileName = pathPtr; }

private:
    const char* openSet( Utils::SecurityInfo& security, unsigned int initialCount );
    const char* openSetOfKey( int key, unsigned int groupId, unsigned int initialCount );
    bool joinSet( unsigned int groupId, unsigned int initialCount );
    int leaveSet();
    int removeSet();
    bool decrementAtOnce();
    bool decrementSoon();
    bool waitLonger();

    Utils::SimpleStr myFileName;
    bool myCreated = false;
    int mySemaphoreHandle = -1;
    Utils::SimpleStr myCompanionFileName;
};

/// Holds a Semaphore for a scope.
///
/// | state    | lock()            | lock( timeoutMs )         | unlock()        | destructor |
/// |----------|-------------------|---------------------------|-----------------|------------|
/// | unlocked | waits; locked     | locked if taken, else not | posts; unlocked | nothing    |
/// | locked   | waits: for itself | times out: for itself     | posts; unlocked | posts      |
///
/// Threads: one; not shared.
/// Errors:  a null semaphore fails nuvAssert; lock() as Semaphore::wait().
class NUV_API SemaphoreLock
{
public:
    enum LockState
    {
        stateLocked = 0,
        stateUnlocked = 1
    };

    /// @param semaPtr borrowed for the guard's life
    explicit SemaphoreLock( Semaphore* semaPtr, LockState state = stateLocked );
    SemaphoreLock( const SemaphoreLock& ) = delete;
    SemaphoreLock& operator=( const SemaphoreLock& ) = delete;
    ~SemaphoreLock()
    {
        if ( myState == stateLocked )
            unlock();
    }

    bool lock();
    bool lock( unsigned int timeoutMs );
    /// As lock(), for destructors: a failure is logged, the guard then staying unlocked.
    bool lockOrLog() noexcept;
    bool unlock();

    LockState state() const { return myState; }

private:
    Semaphore* mySemaPtr;
    LockState myState;
};

} // namespace Nuv::Mt
