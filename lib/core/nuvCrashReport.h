#pragma once

#include "nuv.h"

#include <csignal>
#include <cstddef>
#include <string>

namespace Nuv::Mt {

/// What a crash signal (SIGILL, SIGABRT, SIGBUS, SIGSEGV, SIGFPE) leaves behind: a report in
/// "core.txt" or a core file, in the application's core directory.
///
/// | core-size limit       | the first crash signal of the process                                |
/// |-----------------------|----------------------------------------------------------------------|
/// | 0                     | appends the report to "core.txt", aborts the process                 |
/// | another, or unreadable| gives the signal its default action: the system writes a core file   |
///
/// Either removes the artefact of an earlier run first, so the directory holds one at most. The
/// report goes to standard output if the directory or the file cannot be opened. It holds, in
/// this order: process id and signal number, the registers, a line for each of up to 128 return
/// addresses; the second of them, the signal trampoline, is replaced by the faulting instruction.
/// A crash signal that comes while the process already handles one is left alone; another thread
/// that gets one waits up to ten seconds, so that the report is finished.
///
/// Threads: the handler runs on whatever thread crashed. It allocates nothing, takes no lock and
///          loads nothing, so a crash inside malloc, or with any lock of the process held, reports
///          like every other. Library threads and the initial thread have an alternate signal
///          stack, so that an overflow of their stack reports too.
namespace CrashReport {

/// Sets the process's crash directory and the one artefact of an earlier run (empty: none), both
/// absolute; until then it is "/usr/nuvs/ixoRoot/core/" and none. A directory of more than 4095
/// bytes is not accepted by the system either: it is cut.
void directories( const std::string& coreDirectory, const std::string& previousCrashFile );

/// Installs the handler for the five crash signals.
void installHandler();

/// The signals of the handler, all blocked while it runs.
sigset_t signals();

} // namespace CrashReport

/// An alternate signal stack for the calling thread and scope; none if the thread has one already.
///
/// Threads: one.
/// Errors:  without memory for it the thread goes without.
class NUV_API AlternateSignalStack
{
public:
    static constexpr std::size_t nbrOfBytes = 64 * 1024;

    AlternateSignalStack();
    AlternateSignalStack( const AlternateSignalStack& ) = delete;
    AlternateSignalStack& operator=( const AlternateSignalStack& ) = delete;
    ~AlternateSignalStack();

private:
    void* myMemoryPtr = nullptr;
};

} // namespace Nuv::Mt
