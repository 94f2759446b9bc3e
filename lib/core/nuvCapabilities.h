#pragma once

#include "nuvThreadleton.h"

#include <array>
#include <cstdint>

namespace Nuv::Utils {

/// Counts, for the calling thread, how often each capability has been raised, and keeps the
/// thread's capability set at those that are raised at least once.
///
/// Threads: per thread; device requests of all threads are serialised.
/// Errors:  a request that the open device refuses fails nuvCheckResource ("status == 0").
class NUV_API Capabilities : public Mt::Threadleton
{
public:
    static Capabilities* threadletonPtr();

    /// Reads the thread's set from the device and counts each present capability once.
    void newThread();

    /// Raises the capabilities of mask; with effective user 0 no request is made or counted.
    /// @return whether the device is open
    bool apply( std::uint32_t mask );
    /// Lowers them again.
    void remove( std::uint32_t mask );

private:
    Capabilities();

    std::uint32_t raisedMask() const;

    std::array< std::uint32_t, 32 > myCounts{};
};

/// Raises capabilities for a scope and lowers them at its end if they were raised.
class NUV_API ScopedCapabilities
{
public:
    explicit ScopedCapabilities( std::uint32_t mask )
        : myMask( mask )
        , myRaised( Capabilities::threadletonPtr()->apply( mask ) )
    {
    }
    ScopedCapabilities( const ScopedCapabilities& ) = delete;
    ScopedCapabilities& operator=( const ScopedCapabilities& ) = delete;
    ~ScopedCapabilities();

    bool isRaised() const { return myRaised; }

private:
    std::uint32_t myMask;
    bool myRaised;
};

} // namespace Nuv::Utils
