#pragma once

#include "nuvMutex.h"
#include "nuvSemaphore.h"
#include "nuvString.h"
#include "nuvUtils.h"

#include <array>
#include <ctime>
#include <initializer_list>
#include <list>
#include <poll.h>
#include <pthread.h>
#include <span>
#include <string>
#include <vector>

namespace Nuv::Mt {

class WaitEventImpl;

/// A sticky flag that one party signals and another waits for; a wait consumes the signal.
///
/// A non-named event lives in the memory of one process. A named one is shared by all processes of
/// the installation that construct an event of its name; a FIFO carries it.
///
/// | event, state      | signal()           | readAndReset()       | wait that reports it |
/// |-------------------|--------------------|----------------------|----------------------|
/// | non-named, clear  | pending            | false                | blocks               |
/// | non-named, pending| nothing            | true; clear          | clear                |
/// | named, clear      | one byte: pending  | false                | blocks               |
/// | named, pending    | one byte more, or  | true; takes all the  | takes all the bytes; |
/// |                   | none if it is full | bytes; clear         | clear                |
///
/// So any number of signals before a wait makes one successful wait. When several threads wait on a
/// non-named event, a signal wakes all, and the first to read the flag has it; the others wait on.
///
/// Threads: any may signal and wait. Lock order: an event's mutex before a wait's own.
/// Errors:  construction of a named event fails nuvCheckResource if its FIFO or semaphore cannot be
///          had (a name with "/" needs that folder); signal() reports nothing.
/// Owns:    its descriptors. The last user of a name, in any process, removes FIFO and semaphore.
/// Cost:    non-named: signal() without a waiter is a flag under a mutex; a wait that finds the
///          signal registers nothing; none allocates once the event has been waited on. Named:
///          signal() one system call, a wait two (poll, read), or one (read) if the event was
///          pending when it was last waited on; every 32nd wait looks whether that has become so.
/// Bytes:   the FIFO "evt_" and the name, unchanged, in the interprocess-communication directory;
///          each signal is one byte "S". Beside it the semaphore "evt_" and the name (value 1).
/// Example: Event done; /* other thread: */ done.signal(); /* here: */ done.wait( 1000 );
class NUV_API Event
{
public:
    /// A time-out, in ms, that never comes.
    static constexpr unsigned int infinite = 0xFFFFFFFF;

    Event();
    explicit Event( const std::string& name );
    Event( const Event& ) = delete;
    Event& operator=( const Event& ) = delete;
    /// Waits for a signal() that is under way. Waits that are still registered get a line on
    /// standard error and must never touch the event again.
    ~Event();

    void signal();
    /// @return whether the event was pending; it no longer is
    bool readAndReset();
    void reset() { readAndReset(); }
    /// @return true when the event fired, its signal consumed; false after timeoutMs
    bool wait( unsigned int timeoutMs );

    /// For waits: registers one at the front, or takes it off again. A pending event signals the
    /// wait at once. Of a named event, or of a wait that is not registered: nuvAssert.
    void addWaitEventImpl( WaitEventImpl* implPtr );
    void removeWaitEventImpl( WaitEventImpl* implPtr );

    bool isNamed() const { return myObjIsNamed; }
    /// The descriptor that is readable while a named event is pending; -1 for a non-named event.
    int readFd() const { return myReadOnlyFd.fd(); }
    /// @return how many signals of a named event this object has taken so far, by itself and by
    ///         waits: for a reader that counts what was announced
    std::uint64_t nbrOfSignalsTaken() const
    {
        return myNbrOfSignalsTaken.load( std::memory_order_relaxed );
    }

private:
    void openFifo();
    bool takeAtOnce();

    static constexpr std::uint8_t maxNbrOfBlindWaits = 32;

    bool myObjIsNamed;
    mutable Mutex myMutex; // before a wait's own mutex
    Utils::SimpleStr myFifoPathname;
    Semaphore myCreationSemaphore;
    Utils::Handle myReadOnlyFd;
    Utils::Handle myWriteOnlyFd;
    bool mySignalled NUV_GUARDED_BY( myMutex ) = false;
    // The front of the list is the vector's end; a vector keeps its storage between waits.
    std::vector< WaitEventImpl* > myWaitEventImpls NUV_GUARDED_BY( myMutex );
    std::atomic< std::uint64_t > myNbrOfSignalsTaken = 0;
    std::atomic< std::uint8_t > myNbrOfBlindWaits = 0;
};

/// Waits until one of several events fires.
///
/// Threads: any number, also on the same events.
/// Errors:  a null event fails nuvAssert; resource failures of a wait object leave the call.
/// Cost:    see Event. A list of named and non-named events uses a pipe that its thread keeps.
/// Example: const int fired = MultiEvent::waitOnEvents( { &stop, &work }, MultiEvent::infinite );
class NUV_API MultiEvent
{
public:
    static constexpr unsigned int infinite = 0xFFFFFFFF;

    /// @param events borrowed; of events that are pending together the first in the list fires and
    ///        the others stay pending
    /// @param timeoutMs 0 looks once; no clock step stretches or cuts it
    /// @return position of the event that fired, its signal consumed; -1 after timeoutMs
    static int waitOnEvents( const std::vector< Event* >& events, unsigned int timeoutMs );
    static int waitOnEvents( const std::list< Event* >& events, unsigned int timeoutMs );
    static int waitOnEvents( std::initializer_list< Event* > events, unsigned int timeoutMs );
};

/// One wait operation on some events: registered with the non-named ones as long as it lives.
///
/// Threads: signal() on any, the rest on the waiting one. The events outlive it.
class NUV_API WaitEventImpl
{
public:
    using Events = std::vector< Event* >;

    /// @return a new NamedWaitEventImpl if any of the events is named, else a new
    ///         NonNamedWaitEventImpl; the caller deletes it
    static WaitEventImpl* create( const Events& events );

    WaitEventImpl( const WaitEventImpl& ) = delete;
    WaitEventImpl& operator=( const WaitEventImpl& ) = delete;
    virtual ~WaitEventImpl();

    /// Wakes the wait; called with the mutex of a non-named event held.
    virtual void signal() = 0;
    /// Blocks once. @return false after timeoutMs; true for any other reason to wake up
    virtual bool wait( unsigned int timeoutMs ) = 0;

protected:
    explicit WaitEventImpl( const Events& events );
    /// The events are borrowed for the object's life.
    explicit WaitEventImpl( std::span< Event* const > events );

    void addToEventLists();
    void removeFromEventLists();

    const Events myOwnEvents;
    const std::span< Event* const > myEvents;

private:
    std::size_t myNbrOfListed = 0; // events, from the front, that addToEventLists() has done
};

/// The wait on events none of which is named: a condition variable.
class NUV_API NonNamedWaitEventImpl : public WaitEventImpl
{
public:
    explicit NonNamedWaitEventImpl( const Events& events );
    explicit NonNamedWaitEventImpl( std::span< Event* const > events );
    ~NonNamedWaitEventImpl() override;

    void signal() override;
    bool wait( unsigned int timeoutMs ) override;

private:
    void init();

    bool mySignalled = false;
    pthread_mutex_t myMutex; // guards mySignalled; after an event's mutex
    pthread_cond_t myCondVar;
};

/// The wait on events of which at least one is named: a poll over their FIFOs, and over a private
/// pipe if some event is not named.
class NUV_API NamedWaitEventImpl : public WaitEventImpl
{
public:
    explicit NamedWaitEventImpl( const Events& events );
    explicit NamedWaitEventImpl( std::span< Event* const > events );
    ~NamedWaitEventImpl() override;

    void signal() override;
    /// A failed poll counts as a wake-up.
    bool wait( unsigned int timeoutMs ) override;

private:
    void init();
    void releasePipe();

    static constexpr std::size_t nbrOfInlineDescriptors = 8;

    std::array< pollfd, nbrOfInlineDescriptors > myInlineDescriptors;
    std::vector< pollfd > myManyDescriptors;
    std::span< pollfd > myDescriptors; // in one of the two; the pipe, if there is one, first
    Utils::Handle myReadOnlyFd;
    Utils::Handle myWriteOnlyFd;
};

/// @return the clock's time plus timeoutMs, as an absolute deadline
NUV_API timespec computeTimeOfDayToTimeout( unsigned int timeoutMs,
                                            clockid_t clock = CLOCK_REALTIME );

} // namespace Nuv::Mt
