#pragma once

#include "nuv.h"
#include "nuvString.h"

#include <string>

namespace Nuv::Mt {

/// One System V semaphore operation; retried on an interruption at once, on "resource temporarily
/// unavailable" after a second. @return whether it was performed
NUV_API bool doSemOp( int operation, int semaphoreIdx, int semaphoreHandle, int flags );

/// The machine-wide binary semaphore that serialises creation and removal of named objects.
class NUV_API MasterSemaphore
{
public:
    class NUV_API Lock
    {
    public:
        Lock() = default;
        Lock( const Lock& ) = delete;
        Lock& operator=( const Lock& ) = delete;
        ~Lock();

        void lock();
        void unlock();

    private:
        friend class MasterSemaphore;
        MasterSemaphore* mySemaphorePtr = nullptr;
        int myState = 1; // 0 locked, 1 unlocked
    };

    MasterSemaphore();

    bool wait();
    bool post();
    void acquire( Lock* lockPtr );

    int handle() const { return myHandle; }

private:
    int myHandle = -1;
};

/// A named counting semaphore shared between processes.
class NUV_API Semaphore
{
public:
    static constexpr unsigned int infinite = 0xFFFFFFFF;

    /// A semaphore without a set: handle() is -1.
    Semaphore();
    Semaphore( const std::string& name, unsigned int initialCount );
    Semaphore( const Semaphore& ) = delete;
    Semaphore& operator=( const Semaphore& ) = delete;
    ~Semaphore();

    bool wait();
    bool post();
    bool peek();
    bool peek( unsigned int timeoutMs );

    int useCount() const;
    int handle() const { return mySemaphoreHandle; }
    bool isCreated() const { return myCreated; }
    const char* fileName() const;

private:
    Utils::SimpleStr myFileName;
    bool myCreated = false;
    int mySemaphoreHandle = -1;
};

/// Holds a Semaphore for a scope.
class NUV_API SemaphoreLock
{
public:
    enum LockState { stateLocked = 0, stateUnlocked = 1 };

    explicit SemaphoreLock( Semaphore* semaPtr, LockState state = stateLocked );
    SemaphoreLock( const SemaphoreLock& ) = delete;
    SemaphoreLock& operator=( const SemaphoreLock& ) = delete;
    ~SemaphoreLock();

    bool lock();
    bool lock( unsigned int timeoutMs );
    bool unlock();

private:
    Semaphore* mySemaPtr;
    LockState myState;
};

} // namespace Nuv::Mt
