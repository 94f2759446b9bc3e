#pragma once

#include "nuv.h"
#include "nuvUtils.h"

#include <atomic>
#include <csignal>
#include <pthread.h>

namespace Nuv::Utils {
template < class T >
class Singleton;
}

namespace Nuv::Mt {

/// Signals outside signal context.
class NUV_API SignalHandler : public Utils::Subject< SignalHandler >
{
public:
    static SignalHandler* singletonPtr();

    /// Bit n is signal n: SIGHUP, SIGINT, SIGABRT, SIGTERM.
    static constexpr std::uint32_t ourDefaultTerminationSignals = 0x8046;

    bool handleSignal( int sig );
    int signalNumber() const { return mySignalNumber; }
    void setSignalHandled( bool handled = true ) { myHandled = handled; }

    static void sigHandlerRoutine( int sig );
    static void blockSignals();
    static void raise( int sig );
    static void interruptSystemCall( unsigned long thread );

private:
    friend class Utils::Singleton< SignalHandler >;
    SignalHandler();
    ~SignalHandler() override;

    int mySignalNumber = 0;
    bool myHandled = false;
};

/// For the time of a blocking system call, makes signal 30 deliverable to the calling thread, so
/// that interruptSystemCall() reaches it; restores the thread's mask on every way out.
class NUV_API InterruptibleCall
{
public:
    InterruptibleCall();
    InterruptibleCall( const InterruptibleCall& ) = delete;
    InterruptibleCall& operator=( const InterruptibleCall& ) = delete;
    ~InterruptibleCall();

private:
    sigset_t mySavedSet;
};

} // namespace Nuv::Mt
