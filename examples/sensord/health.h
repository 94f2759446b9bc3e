#pragma once

#include "history.h"
#include "procText.h"

#include <nuvGlobalHealthStatusAccessor.h>
#include <nuvMutex.h>

#include <cstdint>
#include <map>
#include <string>

namespace Sensor {

/// The sensor's health record: this machine's load and memory, and a virtual sensor for every
/// network interface.
///
/// | field of the record         | what it tells here                                            |
/// |-----------------------------|---------------------------------------------------------------|
/// | load                        | of the last minute, in hundredths                             |
/// | memory used                 | percent that is not available                                 |
/// | missed packets              | percent of those received in the last minute that were dropped|
/// | failures                    | how often the helper program had to be started anew           |
/// | parameters                  | commits' interval in ms, messages answered, interfaces, the   |
/// |                             | helper's process id                                           |
/// | buckets of a virtual sensor | received packets, KiB, errors, drops; sent packets, KiB,      |
/// |                             | errors and drops                                              |
///
/// Threads: commit() by one; counters() by any.
class Health
{
public:
    struct Activity
    {
        unsigned int myIntervalMs = 0;
        unsigned int myNbrOfMessages = 0;
        unsigned int myNbrOfRestarts = 0;
        int myHelperPid = 0; ///< 0: it does not run
    };

    /// Looks at the machine and commits what it found.
    void commit( Nuv::HealthAndSecurity::ExtendedExecutionStates state, const Activity& activity,
                 const char* textPtr );

    /// What the last commit found, a line "NAME VALUE" for each counter.
    std::string counters() const;

private:
    struct VirtualSensor
    {
        unsigned int myNumber = 0;
        History myHistory;
    };

    void look();
    void lookAtInterfaces( std::uint64_t seconds );
    void setInterface( const Interface& interface, std::uint64_t seconds );

    Nuv::HealthAndSecurity::SensorStatusSetter mySetter;
    std::map< std::string, VirtualSensor > mySensors; // by the interface's name
    std::uint64_t myNbrReceived = 0;                  // in the last minute, by all interfaces
    std::uint64_t myNbrDropped = 0;
    std::string myFound;
    mutable Nuv::Mt::Mutex myMutex;
    std::string myCounters; // by myMutex
};

} // namespace Sensor
