#pragma once

#include "nuvIpcDoctor.h"

#include <functional>
#include <string>
#include <vector>

namespace Nuv::Tools {

/// What became of one finding.
struct RepairStep
{
    Finding myFinding;
    bool myDone = false;
    std::string myOutcome; ///< "done", or why not
};

/// Puts right what the doctor finds, and nothing else.
///
/// First what the dead left taken is given back, for whoever waits for it to go on. Then the
/// directory is looked at anew, twice; the master semaphore is taken, so that no process opens or
/// closes an object; every finding that still stands in a third look is put right; the master is
/// given back. Both it and an object's own lock are taken in such a way that the kernel gives them
/// back should the repair itself be killed, and never waited for longer than a few seconds. A set
/// that somebody waits for and a segment that somebody has attached are not removed.
///
/// Only one repair at a time works on a directory.
class Repair
{
public:
    /// Asked about each finding before anything of it is changed; never while a lock is held.
    using Approval = std::function< bool( const Finding& ) >;

    /// Between two looks, in milliseconds: long enough for whoever is half-way through opening or
    /// closing an object, or waited for what was given back, to come out at the other end.
    struct Pauses
    {
        unsigned int myFirstMs = 300;
        unsigned int mySettlingMs = 600;
    };

    Repair( std::string directory, Approval approval, Pauses pauses );

    /// @return false, with the reason in *errorPtr, if nothing could be attempted
    bool run( std::string* errorPtr );

    /// What was approved and attempted, in order.
    const std::vector< RepairStep >& steps() const { return mySteps; }

private:
    bool isApproved( const Finding& finding );
    void giveBackWhatIsTaken();
    bool putRightTheRest( std::string* errorPtr );
    void record( const Finding& finding, bool done, const std::string& outcome );

    std::string myDirectory;
    Approval myApproval;
    Pauses myPauses;
    std::vector< Finding > myAsked;
    std::vector< Finding > myApproved;
    std::vector< RepairStep > mySteps;
};

} // namespace Nuv::Tools
