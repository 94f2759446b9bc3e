#pragma once

#include "nuvEvent.h"
#include "nuvMutex.h"
#include "nuvString.h"
#include "nuvSubsystemInfo.h"
#include "nuvThreadleton.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <sys/time.h>

namespace Nuv::Mt {

/// The library's thread.
class NUV_API ThreadedTask
{
public:
    /// 0 is the highest, 6 the lowest; nice = 5 x priority - 10.
    enum Priority {
        priorityHighest = 0,
        priorityVeryHigh = 1,
        priorityHigh = 2,
        priorityNormal = 3,
        priorityLow = 4,
        priorityVeryLow = 5,
        priorityLowest = 6
    };
    enum StartState { startRunning = 0, startSuspended = 1 };
    /// Selects the suspended constructor; the pointer's value is not used.
    struct StartSuspended
    {
    };
    using TaskFunction = unsigned int ( * )( ThreadedTask* taskPtr, void* argumentPtr );

    static constexpr unsigned int infinite = 0xFFFFFFFF;
    static constexpr LocalStorageKey invalidLocalStorageKey = Mt::invalidLocalStorageKey;

    ThreadedTask( TaskFunction function, const char* namePtr, void* argumentPtr, Priority priority );
    ThreadedTask( TaskFunction function, const char* namePtr, void* argumentPtr, Priority priority,
                  StartSuspended* );
    ThreadedTask( const ThreadedTask& ) = delete;
    ThreadedTask& operator=( const ThreadedTask& ) = delete;
    virtual ~ThreadedTask();
    virtual void requestExit();

    void resume();
    bool waitForTaskCompletion( unsigned int timeoutMs );
    bool terminateThread();

    static Priority changePriority( Priority priority );
    static void setAffinity( unsigned long mask );
    static LocalStorageKey allocateLocalStorage() { return Mt::allocateLocalStorage(); }
    static void freeLocalStorage( LocalStorageKey key ) { Mt::freeLocalStorage( key ); }
    static void* tlsValue( LocalStorageKey key ) { return Mt::tlsValue( key ); }
    static void tlsValue( LocalStorageKey key, void* valuePtr ) { Mt::tlsValue( key, valuePtr ); }

    bool isExitRequested() const;
    bool isRunning() const;
    int exitCode() const;
    /// Signalled by requestExit(); the task function may wait on it.
    Event& exitEvent() { return myExitEvent; }
    Event& completionEvent() { return myCompletionEvent; }

private:
    // Data members and createThread(): see the owner of this unit.
    Event myExitEvent;
    Event myCompletionEvent;
};

} // namespace Nuv::Mt
