#pragma once

#include "nuvCapabilityDevice.h"

#include <csignal>
#include <sys/types.h>

namespace Nuv::Mt {

/// All that a child does between its start and the execution of its program, prepared by the
/// parent. The child shares the parent's memory until then, so it allocates nothing, takes no lock
/// and calls async-signal-safe functions alone.
struct ChildStart
{
    const char* pathnamePtr;
    char* const* argumentVector;
    char* const* environment;
    uid_t userId;          ///< 0xFFFFFFFF keeps the parent's
    uid_t effectiveUserId; ///< the same
    int streamFds[3];      ///< what becomes descriptor 0, 1, 2; -1 keeps it; else 3 or more
    int maxNbrOfFds;       ///< descriptors below it are marked close-on-exec, from 3 on
    sigset_t signalMask;   ///< for the program
    Utils::CapabilityDevice* devicePtr;

    /// @return the child's process id; -1 with errno when there is none. The parent's memory is
    ///         shared, not copied, and the calling thread goes on once the child executes or ends.
    pid_t run() const;
};

} // namespace Nuv::Mt
