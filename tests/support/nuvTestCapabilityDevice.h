#pragma once

#include "nuvCapabilityDevice.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <type_traits>

namespace NuvTest {

/// Stands in for the capability device from construction to destruction: keeps a capability set and
/// a processor mask for each thread, and a clock that tests set. Requests can be made to fail.
///
/// Threads: any, the clock and the switches included.
class CapabilityDeviceDouble : public Nuv::Utils::CapabilityDevice
{
public:
    struct ThreadState
    {
        std::uint32_t capabilities = 0;
        std::uint32_t affinity = 0xFFFFFFFF;
        int nbrOfSets = 0; // requests that changed the capabilities
    };

    CapabilityDeviceDouble() { substitute( this ); }
    ~CapabilityDeviceDouble() override { substitute( nullptr ); }

    bool isOpen() const override
    {
        return locked( [this] { return myIsOpen; } );
    }
    bool readCapabilities( std::uint32_t* maskPtr ) override
    {
        return request( [=]( ThreadState& state ) { *maskPtr = state.capabilities; } );
    }
    bool setCapabilities( std::uint32_t mask ) override
    {
        return request( [=]( ThreadState& state ) {
            state.capabilities = mask;
            ++state.nbrOfSets;
        } );
    }
    bool readClockMs( std::uint32_t* msPtr ) override
    {
        return request( [=, this]( ThreadState& ) { *msPtr = myClockMs; } );
    }
    bool setAffinity( std::uint32_t mask ) override
    {
        return request( [=]( ThreadState& state ) { state.affinity = mask; } );
    }

    // Called in a child that shares this process's memory: takes no lock.
    void prepareIdentityChange( bool toSuperuser ) noexcept override
    {
        ( toSuperuser ? nbrOfChangesToSuperuser : nbrOfIdentityChanges )++;
    }

    void setOpen( bool isOpen )
    {
        locked( [&] { myIsOpen = isOpen; } );
    }
    void setRefusing( bool isRefusing )
    {
        locked( [&] { myIsRefusing = isRefusing; } );
    }
    void setClockMs( std::uint32_t ms )
    {
        locked( [&] { myClockMs = ms; } );
    }
    /// Makes the calling thread a new one that was started with this set.
    void setOwnCapabilities( std::uint32_t mask )
    {
        locked( [&] { myThreads[std::this_thread::get_id()] = ThreadState{ mask }; } );
    }

    /// @return what the calling thread has now
    ThreadState own() const { return of( std::this_thread::get_id() ); }
    ThreadState of( std::thread::id id ) const
    {
        return locked( [&] {
            const auto i = myThreads.find( id );
            return i == myThreads.end() ? ThreadState() : i->second;
        } );
    }

    int nbrOfIdentityChanges = 0;
    int nbrOfChangesToSuperuser = 0;

private:
    template < class Action >
    std::invoke_result_t< Action > locked( Action&& action ) const
    {
        const std::lock_guard< std::mutex > lock( myMutex );
        return action();
    }
    template < class Action >
    bool request( Action&& action )
    {
        return locked( [&] {
            if ( !myIsOpen || myIsRefusing )
                return false;
            action( myThreads[std::this_thread::get_id()] );
            return true;
        } );
    }

    mutable std::mutex myMutex;
    bool myIsOpen = true;
    bool myIsRefusing = false;
    std::uint32_t myClockMs = 0;
    std::map< std::thread::id, ThreadState > myThreads;
};

} // namespace NuvTest
