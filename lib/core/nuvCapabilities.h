#pragma once

#include "nuvThreadleton.h"

#include <array>
#include <cstdint>

namespace Nuv::Utils {

/// Counts, for the calling thread, how often each capability has been raised, and keeps the
/// thread's capability set at those that are raised at least once.
///
/// | device | effective user | newThread()       | apply()              | remove()          |
/// |--------|----------------|-------------------|----------------------|-------------------|
/// | closed | any            | nothing           | false, nothing       | nothing           |
/// | open   | 0              | nothing           | true, nothing        | nothing           |
/// | open   | another        | counts from device| counts, sets, true   | counts, sets      |
///
/// Raise and lower under the same effective user: the superuser's calls are not counted.
///
/// Threads: an object belongs to its thread; device requests of all threads are serialised by one
///          mutex, which is held during the request and under which nothing else is taken.
/// Errors:  a request that the open device refuses fails nuvCheckResource ("status == 0"). A
///          refused apply() leaves the counts as they were; a refused remove() leaves them lowered,
///          so that the thread's next request drops what this one could not.
/// Example: Utils::ScopedCapabilities raised( capSysNiceMask ); if ( raised.isRaised() ) ...
class NUV_API Capabilities : public Mt::Threadleton
{
public:
    /// The calling thread's object, made on first use. Fails nuvCheckResource without a storage
    /// key.
    static Capabilities* threadletonPtr();
    ~Capabilities() override;

    /// Starts the counts anew: 1 for each capability of the thread's set, as the device reads it.
    /// Called by the constructor.
    void newThread();

    /// @param mask bit n raises capability n once more
    /// @return whether the device is open
    bool apply( std::uint32_t mask );
    /// Takes back one apply() of each capability in mask; one that is not raised is ignored.
    void remove( std::uint32_t mask );

private:
    Capabilities();

    std::uint32_t raisedMask() const;

    std::array< std::uint32_t, 32 > myCounts{};
};

/// Raises capabilities for a scope and lowers them at its end if they were raised.
///
/// Errors:  the constructor's are those of Capabilities::apply(); a refused lowering at the end has
///          been logged by the failed check and is otherwise ignored.
class NUV_API ScopedCapabilities
{
public:
    explicit ScopedCapabilities( std::uint32_t mask );
    ScopedCapabilities( const ScopedCapabilities& ) = delete;
    ScopedCapabilities& operator=( const ScopedCapabilities& ) = delete;
    ~ScopedCapabilities();

    bool isRaised() const { return myRaised; }

private:
    std::uint32_t myMask;
    bool myRaised;
};

} // namespace Nuv::Utils
