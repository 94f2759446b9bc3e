#pragma once

#include "nuv.h"

#include <atomic>
#include <pthread.h>

// Lock annotations: checked by clang's thread-safety analysis, empty under g++.
#if defined( __clang__ )
#define NUV_THREAD_ATTRIBUTE( x ) __attribute__( ( x ) )
#else
#define NUV_THREAD_ATTRIBUTE( x )
#endif
#define NUV_CAPABILITY( x ) NUV_THREAD_ATTRIBUTE( capability( x ) )
#define NUV_SCOPED_CAPABILITY NUV_THREAD_ATTRIBUTE( scoped_lockable )
#define NUV_GUARDED_BY( x ) NUV_THREAD_ATTRIBUTE( guarded_by( x ) )
#define NUV_PT_GUARDED_BY( x ) NUV_THREAD_ATTRIBUTE( pt_guarded_by( x ) )
#define NUV_REQUIRES( ... ) NUV_THREAD_ATTRIBUTE( requires_capability( __VA_ARGS__ ) )
#define NUV_EXCLUDES( ... ) NUV_THREAD_ATTRIBUTE( locks_excluded( __VA_ARGS__ ) )
#define NUV_ACQUIRE( ... ) NUV_THREAD_ATTRIBUTE( acquire_capability( __VA_ARGS__ ) )
#define NUV_RELEASE( ... ) NUV_THREAD_ATTRIBUTE( release_capability( __VA_ARGS__ ) )
#define NUV_RETURN_CAPABILITY( x ) NUV_THREAD_ATTRIBUTE( lock_returned( x ) )
#define NUV_NO_THREAD_SAFETY_ANALYSIS NUV_THREAD_ATTRIBUTE( no_thread_safety_analysis )

namespace Nuv::Mt {

/// A recursive mutex of one process that is harmless outside its own life.
///
/// Statics are constructed in an order that nobody controls, so code may meet a mutex in
/// zero-filled static storage before its constructor has run, or after its destructor. There every
/// operation is a no-op:
///
/// | storage                              | enter()         | exit()  |
/// |--------------------------------------|-----------------|---------|
/// | zero-filled, not yet constructed     | false, at once  | nothing |
/// | constructed                          | true, may block | unlocks |
/// | from the destructor's first step on  | false, at once  | nothing |
///
/// Threads: any; the holder may enter again and must exit as many times.
/// Errors:  the constructor fails nuvCheckResource if the system has no mutex left; the destructor
///          aborts the process, after a line on standard error, if another thread holds it.
/// Cost:    one flag test more than the system's recursive mutex.
class NUV_API NUV_CAPABILITY( "mutex" ) Mutex
{
public:
    Mutex();
    Mutex( const Mutex& ) = delete;
    Mutex& operator=( const Mutex& ) = delete;
    ~Mutex();

    /// @return whether the mutex was valid and is now held; false means there is nothing to exit
    bool enter() NUV_ACQUIRE()
    {
        if ( !isValid() )
            return false;
        ::pthread_mutex_lock( &myMutex );
        return isValid();
    }

    void exit() NUV_RELEASE()
    {
        if ( isValid() )
            ::pthread_mutex_unlock( &myMutex );
    }

private:
    bool isValid() const { return myValid.load( std::memory_order_relaxed ); }

    std::atomic< bool > myValid;
    pthread_mutex_t myMutex;
};

/// Holds a Mutex for a scope; may be opened and closed again inside it.
///
/// Threads: one; not shared.
/// Errors:  lock() of a locked and unlock() of an unlocked guard fail nuvAssert.
class NUV_API NUV_SCOPED_CAPABILITY MutexLock
{
public:
    enum LockState
    {
        stateLocked = 0,
        stateUnlocked = 1
    };

    /// @param mutex borrowed for the guard's life
    explicit MutexLock( Mutex& mutex ) NUV_ACQUIRE( mutex )
        : myMutexPtr( &mutex )
        , myState( stateLocked )
        , myEntered( mutex.enter() )
    {
    }
    MutexLock( const MutexLock& ) = delete;
    MutexLock& operator=( const MutexLock& ) = delete;
    ~MutexLock() NUV_RELEASE()
    {
        if ( myState == stateLocked && myEntered )
            myMutexPtr->exit();
    }

    void lock() NUV_ACQUIRE();
    void unlock() NUV_RELEASE();

private:
    Mutex* myMutexPtr;
    LockState myState;
    bool myEntered;
};

/// Sets for a scope whether the calling thread can be cancelled.
///
/// Not while something is half made that no guard takes back, and not under a destructor, a
/// noexcept function or a handler of all exceptions: none of them lets a cancellation's unwinding
/// pass.
///
/// Threads: one; scopes nest.
class CancelState
{
public:
    explicit CancelState( int state = PTHREAD_CANCEL_DISABLE )
    {
        ::pthread_setcancelstate( state, &mySavedState );
    }
    CancelState( const CancelState& ) = delete;
    CancelState& operator=( const CancelState& ) = delete;
    ~CancelState() { ::pthread_setcancelstate( mySavedState, nullptr ); }

private:
    int mySavedState = PTHREAD_CANCEL_ENABLE;
};

} // namespace Nuv::Mt
