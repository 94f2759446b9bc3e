#pragma once

#include "nuvMutex.h"
#include "nuvSemaphore.h"
#include "nuvString.h"
#include "nuvUtils.h"

#include <list>
#include <string>
#include <vector>

namespace Nuv::Mt {

class WaitEventImpl;

/// A sticky flag that one party signals and another waits for; a wait consumes the signal.
class NUV_API Event
{
public:
    static constexpr unsigned int infinite = 0xFFFFFFFF;

    Event();
    explicit Event( const std::string& name );
    Event( const Event& ) = delete;
    Event& operator=( const Event& ) = delete;
    ~Event();

    void signal();
    bool readAndReset();
    void reset() { readAndReset(); }
    bool wait( unsigned int timeoutMs );

    void addWaitEventImpl( WaitEventImpl* implPtr );
    void removeWaitEventImpl( WaitEventImpl* implPtr );

    bool isNamed() const { return myObjIsNamed; }
    /// The descriptor that is readable while a named event is pending; -1 for a non-named event.
    int readFd() const { return myReadOnlyFd.fd(); }

private:
    bool myObjIsNamed;
    Mutex myMutex;
    Utils::SimpleStr myFifoPathname;
    Semaphore myCreationSemaphore;
    Utils::Handle myReadOnlyFd;
    Utils::Handle myWriteOnlyFd;
    bool mySignalled = false;
    std::list< WaitEventImpl* > myWaitEventImpls;
};

/// Waits until one of several events fires.
class NUV_API MultiEvent
{
public:
    static constexpr unsigned int infinite = 0xFFFFFFFF;

    /// @return position of the event that fired, its signal consumed; -1 on time-out
    static int waitOnEvents( const std::vector< Event* >& events, unsigned int timeoutMs );
    static int waitOnEvents( const std::list< Event* >& events, unsigned int timeoutMs );
};

} // namespace Nuv::Mt
