#pragma once

#include "nuv.h"

namespace Nuv::Mt {

/// What a thread is blocked on, as its record in shared memory shows it.
enum class WaitKind : std::uint32_t
{
    none = 0,
    masterSemaphore = 1,
    semaphore = 2, ///< the wait object is the set's identifier
    events = 3
};

/// Link seam, defined in nuvSubsystemInfo.cpp: writes kind and object into the calling thread's
/// record, claiming a record (and creating the process's segment) if the thread has none.
/// Not to be called while the master semaphore is held. Throws nothing: without a record the mark
/// is dropped.
void markWait( WaitKind kind, int object ) noexcept;

/// Shows a wait for a scope; made only when the thread really has to wait.
class WaitMark
{
public:
    explicit WaitMark( WaitKind kind, int object = 0 ) { markWait( kind, object ); }
    WaitMark( const WaitMark& ) = delete;
    WaitMark& operator=( const WaitMark& ) = delete;
    ~WaitMark() { markWait( WaitKind::none, 0 ); }
};

} // namespace Nuv::Mt
