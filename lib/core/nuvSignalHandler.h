#pragma once

#include "nuv.h"
#include "nuvUtils.h"

#include <atomic>
#include <csignal>
#include <poll.h>
#include <pthread.h>

namespace Nuv::Utils {
template < class T >
class Singleton;
}

namespace Nuv::Mt {

/// Signals outside signal context: what the system delivers goes through a pipe to the initial
/// thread, which hands it, one signal at a time, to the attached observers.
///
/// | signals                              | before the singleton    | from then on                |
/// |--------------------------------------|-------------------------|-----------------------------|
/// | interrupt: HUP INT USR1 USR2 QUIT    | blocked in every thread | into the pipe; blocked in   |
/// | CONT TTIN TTOU TERM CHLD PIPE ALRM   |                         | all threads but one: the    |
/// | IO URG PWR                           |                         | constructor of the singleton|
/// | crash: ILL ABRT BUS SEGV FPE         | as the system does      | crash report                |
///
/// | dispatched signal        | no observer | claimed by one | claimed by none |
/// |--------------------------|-------------|----------------|-----------------|
/// | SIGABRT                  | nothing     | nothing        | abort()         |
/// | another of               | nothing     | nothing        | exit( -1 )      |
/// | ourDefaultTermination... |             |                |                 |
/// | any other                | nothing     | nothing        | nothing         |
///
/// The handlers are installed without automatic restart, so a blocking call in the constructing
/// thread, or within an InterruptibleCall, returns as interrupted (EINTR). With the pipe full
/// (some 60000 signals that nobody has read) a further signal is dropped. A forked child's signals
/// never reach the parent's pipe.
///
/// The construction also makes the application's core directory, <root>/core/<application>, keeps
/// the first regular file found there and deletes all others.
///
/// Threads: observers run on the initial thread with the subject's mutex held, and attach or detach
///          nobody from update(). raise() and interruptSystemCall() are for any thread.
/// Errors:  the construction fails nuvCheckResource without a pipe. A core directory that cannot be
///          made is no error: the crash report then goes to standard output.
/// Owns:    the pipe, until exit.
/// Example: struct Stop : Utils::Observer< Mt::SignalHandler > {
///              void update( Mt::SignalHandler& h ) override { h.setSignalHandled(); } } stop;
///          Mt::SignalHandler::singletonPtr()->attach( &stop ); Mt::startMainThread( argc, argv );
class NUV_API SignalHandler : public Utils::Subject< SignalHandler >
{
public:
    /// To be called once before startMainThread(), which watches the pipe that exists then, by the
    /// thread that is to get the signals: the initial one.
    static SignalHandler* singletonPtr();

    /// Bit n is signal n: SIGHUP, SIGINT, SIGABRT, SIGTERM.
    static constexpr std::uint32_t ourDefaultTerminationSignals = 0x8046;
    /// What interruptSystemCall() sends.
    static constexpr int interruptSignal = SIGPWR;
    static_assert( interruptSignal == 30 );

    /// Tells every observer. @return whether one of them claimed the signal
    bool handleSignal( int sig );

    /// For update(): the signal that is being dispatched.
    int signalNumber() const { return mySignalNumber; }
    /// For update(): claims the signal.
    void setSignalHandled( bool handled = true ) { myHandled = handled; }

    /// Dispatches one signal as the class's second table says; called by startMainThread().
    static void sigHandlerRoutine( int sig );
    /// Blocks the interrupt signals in the calling thread; called once, by the first thread, during
    /// library start-up. Needs nothing that is constructed.
    static void blockSignals();
    /// Sends the signal to the initial thread (before startMainThread(): to the process).
    /// @param sig nuvAssert for what is no signal number
    static void raise( int sig );
    /// Makes a call that blocks within an InterruptibleCall of that thread return as interrupted.
    /// The observers then see signal 30. Needs no singleton: without one the signal does nothing
    /// else.
    /// @param thread of a thread that is not joined yet (ThreadedTask::threadId())
    static void interruptSystemCall( unsigned long thread );

    /// Records the running program, from "/proc/self/exe" or else this text, as the special
    /// pathname of the executable, unless that is set already.
    static void recordExecutable( const char* fallbackPtr );

    /// The interrupt signals.
    static sigset_t interruptSet();

    /// For startMainThread(): the calling thread is the one that dispatches.
    static void becomeDispatcher();
    /// The pipe's read end, non-blocking; -1 before construction and after destruction.
    static int readFd();
    /// The first thread's mask before the library blocked the interrupt signals.
    static const sigset_t& defaultAppSet();

private:
    friend class Utils::Singleton< SignalHandler >;
    SignalHandler();
    ~SignalHandler() override;

    int mySignalNumber = 0;
    bool myHandled = false;
};

/// For its scope, makes signal 30 deliverable to the calling thread, so that interruptSystemCall()
/// reaches it; restores the thread's mask on every way out.
///
/// Library threads keep the signal blocked, so an interruption sent between two scopes waits for
/// the next one. Who must not lose one waits by poll(), which unblocks the signal and waits in one
/// step. A plain blocking call misses an interruption that arrives in the moment between the
/// scope's begin and the call's; isInterrupted() tells, before and after it, those that had
/// arrived.
///
/// Threads: one; scopes may nest.
/// Cost:    two system calls for a scope, two for poll().
/// Example: Mt::InterruptibleCall call; n = call.isInterrupted() ? -1 : ::read( fd, ptr, length );
class NUV_API InterruptibleCall
{
public:
    InterruptibleCall();
    InterruptibleCall( const InterruptibleCall& ) = delete;
    InterruptibleCall& operator=( const InterruptibleCall& ) = delete;
    ~InterruptibleCall();

    /// @return whether signal 30 reached this thread since the scope's begin
    bool isInterrupted() const;

    /// As ::poll(), interruptible without a gap: an interruption sent at any time before it ends
    /// the wait at once. Leaves the signal as it was: not to be used within a scope.
    /// @param timeoutMs milliseconds; negative waits for ever
    /// @param endPtr may be null: a flag that whoever interrupts sets before. It ends the wait also
    ///        where the signal came just before it, in a thread that does not keep it blocked.
    static int poll( pollfd* descriptorsPtr, nfds_t nbrOfDescriptors, int timeoutMs,
                     const std::atomic< bool >* endPtr = nullptr );

private:
    sigset_t mySavedSet;
    unsigned int myNbrOfInterruptions;
};

} // namespace Nuv::Mt
