#pragma once

#include "nuvIpcInventory.h"

#include <string>
#include <vector>

namespace Nuv::Tools {

/// What is wrong with one interprocess object.
struct Finding
{
    enum Kind
    {
        masterTaken,       ///< the master semaphore is taken by a process that has ended
        masterUnfinished,  ///< the master set was created and never given its value
        semaphoreTaken,    ///< a named semaphore is taken by a process that has ended
        threadRecord,      ///< a record is in use by a process that has ended
        fifoUnused,        ///< a FIFO that no process has open
        segmentUnused,     ///< a segment that no process has attached
        setUnfinished,     ///< a set that was created and never given its values, or never removed
        useCount,          ///< more users are counted than there are
        keyWithoutSet,     ///< key file without a set in the kernel
        keyWithoutSegment, ///< key file without a segment in the kernel
        straySet,          ///< set of the library's form whose key no file has
        straySegment,      ///< segment of the library's form whose key no file has
        remark             ///< nothing to put right, but worth knowing
    };

    /// certain: the kernel's own lists prove it. likely: the evidence is strong, but the kernel
    /// keeps no list that would prove it. note: only worth knowing; no problem by itself.
    enum Certainty
    {
        note,
        likely,
        certain
    };

    Kind myKind = remark;
    Certainty myCertainty = note;
    std::string myObject;   ///< as the operator sees it: "semaphore shm_LogConfigManager"
    std::string myText;     ///< what was found
    std::string myRepair;   ///< what the repair does; empty for a note
    std::string myFileName; ///< of the object, below the directory; empty for a stray
    int myKernelId = -1;    ///< set or segment
    int myAmount = 0;       ///< useCount: how many too many; threadRecord: the record's index
    int myPid = 0;          ///< the process that has ended, where one is to blame

    /// The same trouble of the same object.
    bool isSameAs( const Finding& other ) const;
};

/// "master-taken", "use-count" ...
const char* kindKeyword( Finding::Kind kind );
const char* certaintyKeyword( Finding::Certainty certainty );

/// Judges one look.
///
/// How it knows:
/// | object                  | taken by the dead          | its users are                        |
/// |-------------------------|----------------------------|--------------------------------------|
/// | master                  | value 0, last process ended| (it has no use count)                |
/// | sem_shm_N               | the same: it is a lock     | processes attached to shm_N (kernel) |
/// | sem_evt_N               | the same                   | readers of evt_N (/proc/.../fd)      |
/// | sem_IpFifo_N,           | the same                   | processes attached to the segment    |
/// | sem_LogConfigManager,   |                            |                                      |
/// | sem_global-shm          |                            |                                      |
/// | sem_pipe_...            | not judged: 0 is normal    | as of any other                      |
/// | any other sem_N         | the same, but only likely: | judged only when no process that     |
/// |                         | it may be a signal         | uses the library is left: none,      |
/// |                         |                            | likely                               |
///
/// A forked child inherits attachments without counting as a user, so too few are found rather than
/// too many. Use counts are not judged while the master semaphore or the object's own is taken, or
/// anybody waits for one of them: an object may just then be opened or closed.
///
/// @param holdsMaster the caller holds the master semaphore, so none is opened or closed
std::vector< Finding > diagnose( const Inventory& inventory, bool holdsMaster = false );

/// The findings of both looks (an excess of users: the smaller of the two). An object that is just
/// being opened or closed shows in one look alone.
std::vector< Finding > persistent( const std::vector< Finding >& first,
                                   const std::vector< Finding >& second );

/// Looks twice, pauseMs apart. @param inventoryPtr takes the second look; may be null
std::vector< Finding > examine( const std::string& directory, unsigned int pauseMs,
                                Inventory* inventoryPtr );

} // namespace Nuv::Tools
