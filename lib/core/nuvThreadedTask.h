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

/// The library's thread: a named task function on a thread of its own, with a priority, a suspended
/// start if wished, a request to exit and a wait for completion.
///
/// | state      | task function     | isRunning() | left by                                       |
/// |------------|-------------------|-------------|-----------------------------------------------|
/// | suspended  | not yet called    | true        | resume(), destructor                          |
/// | running    | executing         | true        | its return, an exception, terminateThread()   |
/// | ended      | returned          | false       | waitForTaskCompletion(), which joins          |
/// | completed  | thread joined     | false       | destructor                                    |
///
/// The thread shows itself in its status record (description: the name), takes its priority, calls
/// the function, and at its end releases the record and deletes its threadletons. An exception that
/// escapes the function ends the thread, not the process: it is logged as one fatal message of the
/// standard source, "errSystemError threadStart catch" and a tag for its category. A function that
/// is left by pthread_exit(), or cancelled by others than terminateThread(), ends it too, silently.
///
/// Threads: any thread may request the exit, wait or terminate; resume() is for the constructing
///          one. The function runs concurrently with the rest of a derived class's constructor: a
///          derived class that it uses starts suspended.
/// Errors:  the constructors fail nuvCheckResource if there is no thread to be had ("thrOk") and
///          nuvAssert for a priority outside the enumeration.
/// Owns:    the thread and a copy of the name; function and argument are borrowed for the thread's
///          life.
/// Example: Mt::ThreadedTask task( &poll, "poller", &sensor, Mt::ThreadedTask::priorityNormal );
class NUV_API ThreadedTask
{
public:
    /// 0 is the highest, 6 the lowest; the thread's nice value is 5 x priority - 10. (The system
    /// keeps 20 as 19, which counts as priority 6.)
    enum Priority : int // of a fixed type: other values are possible, and refused
    {
        priorityHighest = 0,
        priorityVeryHigh = 1,
        priorityHigh = 2,
        priorityNormal = 3,
        priorityLow = 4,
        priorityVeryLow = 5,
        priorityLowest = 6
    };
    enum StartState
    {
        startRunning = 0,
        startSuspended = 1
    };
    /// Selects the suspended constructor; the pointer's value is not used.
    struct StartSuspended
    {
    };
    using TaskFunction = unsigned int ( * )( ThreadedTask* taskPtr, void* argumentPtr );

    static constexpr unsigned int infinite = 0xFFFFFFFF;
    static constexpr LocalStorageKey invalidLocalStorageKey = Mt::invalidLocalStorageKey;

    /// Starts the thread at once.
    /// @param function null ends the thread as an exception would, without a message
    /// @param namePtr copied; the record shows 32 characters; null is an empty name
    ThreadedTask( TaskFunction function, const char* namePtr, void* argumentPtr,
                  Priority priority );
    /// Starts the thread, which then waits for resume(); its status record is not set up before.
    ThreadedTask( TaskFunction function, const char* namePtr, void* argumentPtr, Priority priority,
                  StartSuspended* );
    ThreadedTask( const ThreadedTask& ) = delete;
    ThreadedTask& operator=( const ThreadedTask& ) = delete;
    /// Requests the exit (of this class, not of an overriding one), resumes a task that is still
    /// suspended, and blocks until the function has returned and the thread is joined.
    virtual ~ThreadedTask();
    /// Sets isExitRequested() and signals exitEvent(); it is up to the function to return.
    virtual void requestExit();

    /// Lets a suspended task run. For the constructing thread, once: nuvAssert otherwise.
    void resume();
    /// Waits for the function's end; the call that sees it joins the thread.
    /// One waiter at a time: another one blocks until the first has its result, whatever its own
    /// time-out. Called by the task's own thread it fails nuvAssert.
    /// @param timeoutMs milliseconds; 0 only looks, `infinite` waits for ever
    /// @return whether the task is completed
    bool waitForTaskCompletion( unsigned int timeoutMs );
    /// Cancels the thread at its next cancellation point within the function, and counts the task
    /// as ended. The function's stack is unwound, but the end steps of the thread are skipped: its
    /// record stays as it is and its threadletons stay undeleted. What the function holds by other
    /// means than objects on its stack stays taken, and unwinding through a destructor or another
    /// noexcept function ends the process; so this is for functions written for it.
    /// waitForTaskCompletion() joins the thread and blocks until it has reacted; a suspended one
    /// reacts when it is resumed, without calling the function.
    /// @return whether the request was accepted; false when the thread is (being) joined
    bool terminateThread();

    /// Sets the calling thread's priority. Needs the capability device; without it nothing changes,
    /// and the first call in the process logs a fatal message.
    /// @return the previous priority; priorityNormal without the device
    /// @throws ResourceException ("priortySetOk") if the system refuses, LogicException for a
    ///         priority outside the enumeration
    static Priority changePriority( Priority priority );
    /// Sets the processors that may run the calling thread. Does nothing on a single processor or
    /// without the capability device.
    /// @param mask bit n is processor n, 32 of them; nuvAssert for a higher one
    static void setAffinity( unsigned long mask );

    static LocalStorageKey allocateLocalStorage() { return Mt::allocateLocalStorage(); }
    static void freeLocalStorage( LocalStorageKey key ) { Mt::freeLocalStorage( key ); }
    static void* tlsValue( LocalStorageKey key ) { return Mt::tlsValue( key ); }
    static void tlsValue( LocalStorageKey key, void* valuePtr ) { Mt::tlsValue( key, valuePtr ); }

    /// To be polled by the function.
    bool isExitRequested() const { return myExitRequested.load( std::memory_order_acquire ); }
    /// True from construction until the function has ended or terminateThread() was called.
    bool isRunning() const { return myRunning.load( std::memory_order_acquire ); }
    /// The function's result; -1 until it has returned.
    int exitCode() const { return myExitCode.load( std::memory_order_acquire ); }
    /// For SignalHandler::interruptSystemCall().
    unsigned long threadId() const { return myThread; }
    /// Signalled by requestExit(); the task function may wait on it.
    Event& exitEvent() { return myExitEvent; }
    /// Signalled at the task's end; a wait on it takes the signal from waitForTaskCompletion().
    Event& completionEvent() { return myCompletionEvent; }

private:
    void createThread( StartState startState );
    bool run();
    void runFunction();
    void end( bool isNormal );
    static void* threadStart( void* taskPtr );

    TaskFunction myFunction;
    void* myArgumentPtr;
    std::atomic< bool > myExitRequested{ false };
    std::atomic< bool > myCompleted{ false };
    std::atomic< bool > myRunning{ true };
    Priority myPriority;
    Event myExitEvent;
    Mutex myCompletionMutex; // before myJoinMutex and the completion event's mutex
    pthread_t myThread{};
    Event myCompletionEvent;
    Mutex myStartMutex; // the start gate: the new thread passes it once, taking nothing else
    MutexLock myStartLock;
    itimerval myProfilingTimer{};
    std::atomic< int > myExitCode{ -1 };
    Utils::SimpleStr myName;
    SubsystemInfo::NamePtr mySubsystemNamePtr;
    const pthread_t myConstructingThread;
    bool myIsSuspended = false; // used by the constructing thread alone
    Mutex myJoinMutex;          // leaf: keeps a cancel request from a thread that is being joined
    bool myIsJoining NUV_GUARDED_BY( myJoinMutex ) = false;
};

/// To be called in a catch block that has let abi::__forced_unwind pass: logs the exception being
/// handled through the standard source of severity fatal as one message, prefix, category tag and
/// the exception's own text.
///
/// | tag                         | caught, the first that matches | text    |
/// |-----------------------------|--------------------------------|---------|
/// | "(NUVS logic exception) "   | LogicException                 | what()  |
/// | "(STL logic error) "        | std::logic_error               | what()  |
/// | "(STL bad cast) "           | std::bad_cast                  | what()  |
/// | "(STL bad typeid) "         | std::bad_typeid                | what()  |
/// | "(STL bad exception) "      | std::bad_exception             | what()  |
/// | "(resource exception) "     | ResourceException              | what()  |
/// | "(out of memory) "          | std::bad_alloc                 | what()  |
/// | "(NUVS runtime exception) " | RuntimeException               | what()  |
/// | "(ioStreams failure) "      | std::ios_base::failure         | what()  |
/// | "(STL runtime error) "      | std::runtime_error             | what()  |
/// | "(STL exception) "          | std::exception                 | what()  |
/// | "unknown exception!"        | anything else                  | nothing |
void logEscapedException( const char* prefixPtr ) noexcept;

} // namespace Nuv::Mt
