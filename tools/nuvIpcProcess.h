#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Nuv::Tools {

/// A file's identity, whatever name leads to it.
struct FileId
{
    dev_t myDevice = 0;
    ino_t myInode = 0;

    friend auto operator<=>( const FileId&, const FileId& ) = default;
};

/// How often one process has a FIFO open.
struct FifoUse
{
    int myNbrOfReaders = 0;
    int myNbrOfWriters = 0;
};

/// A process as /proc shows it.
struct Process
{
    int myPid = 0;
    std::string myName;           ///< at most 15 characters
    char myState = '?';           ///< 'R', 'S', 'T' (stopped), 'Z' (ended, not yet waited for) ...
    std::int64_t myStartTime = 0; ///< seconds since 1970; 0 where it is not known
    bool myReadable = true;       ///< its attachments and descriptors could be examined
    bool myUsesLibrary = false;   ///< it has the shared library loaded
    std::map< int, int > mySegments;     ///< identifier of a segment, how often it is attached
    std::map< FileId, FifoUse > myFifos; ///< of the interprocess-communication directory
};

/// All processes that this one can see, at one moment.
///
/// Attachments are read from /proc/PID/maps and open FIFOs from /proc/PID/fd, so the table is
/// complete only for who may read these of every process (root); nbrOfUnreadable() tells.
/// This process itself, processes of other interprocess namespaces and ended ones (zombies) are
/// listed without attachments and descriptors.
class ProcessTable
{
public:
    /// An empty table.
    ProcessTable() = default;
    explicit ProcessTable( std::vector< Process > processes );

    static ProcessTable read();

    /// @return false for a process that does not exist or has ended without being waited for; true
    /// for 0, which stands for a process that this pid namespace does not see
    bool isAlive( int pid ) const;
    /// @return true if no process of that id is alive, or if the one that is began after the time
    /// (seconds since 1970; two seconds are allowed for rounding): the id was used again
    bool isGoneSince( int pid, std::int64_t time ) const;
    /// @return null if there is no such process
    const Process* find( int pid ) const;
    const std::vector< Process >& processes() const { return myProcesses; }
    int nbrOfUnreadable() const { return myNbrOfUnreadable; }
    /// False where /proc does not show this process under its own id: then nothing can be judged.
    bool isTrustworthy() const { return myTrustworthy; }

    /// @return ids of the processes that have the segment attached
    std::vector< int > attachedTo( int segmentId ) const;
    /// @return ids of the processes that have the FIFO open, with how often
    std::map< int, FifoUse > usersOf( const FileId& fifo ) const;

    /// "1234 (name)", "1234 (ended)" for a process that is not alive, "?" for 0.
    std::string describe( int pid ) const;

private:
    std::vector< Process > myProcesses; // ascending ids
    int myNbrOfUnreadable = 0;
    bool myTrustworthy = true;
};

/// Takes name, state and the time of start (in clock ticks since the machine's start) out of the
/// text of /proc/PID/stat; false if it has another form.
bool parseProcessStat( std::string_view text, Process* processPtr, std::uint64_t* startTicksPtr );

/// Adds the segments that the text of /proc/PID/maps shows attached, and whether the library is
/// loaded. A segment that is mapped in pieces counts once for each attach address.
void parseProcessMaps( std::string_view text, Process* processPtr );

} // namespace Nuv::Tools
