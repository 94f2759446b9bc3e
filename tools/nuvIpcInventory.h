#pragma once

#include "nuvIpcKernel.h"
#include "nuvIpcProcess.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace Nuv::Tools {

/// A file of the interprocess-communication directory.
struct IpcFile
{
    std::string myFileName; ///< below the directory, for instance "sem_shm_LogConfigManager"
    FileId myId;
    ::key_t myKey = -1;            ///< System V key that the library forms of it
    std::int64_t myChangeTime = 0; ///< seconds since 1970
};

/// A named semaphore: key file "sem_" + name, and its set if the kernel has one for the key.
struct NamedSemaphore
{
    std::string myName;
    IpcFile myFile;
    std::optional< SemaphoreSet > mySet;

    /// The set has the two readable semaphores of a named semaphore.
    bool isReadable() const { return mySet && mySet->mySemaphores.size() == 2; }
    int value() const { return mySet->mySemaphores[0].myValue; }
    int useCount() const { return mySet->mySemaphores[1].myValue; }
};

/// A named segment: key file "shm_" + name, and its segment if the kernel has one for the key.
struct NamedSegment
{
    std::string myName;
    IpcFile myFile;
    std::optional< Segment > mySegment;
    /// Entries not yet read, of the ring of an interprocess FIFO without any process.
    std::optional< unsigned int > myNbrOfUnread;

    int nbrOfAttached() const { return mySegment ? mySegment->myNbrOfAttached : 0; }
    bool isThreadRecords() const;
};

/// A FIFO: of a named event ("evt_" + name) or of a pipe ("pipe_...").
struct NamedFifo
{
    std::string myName; ///< with its prefix, as the file is named
    IpcFile myFile;
    std::map< int, FifoUse > myUsers; ///< by process id
};

/// A thread's record that is in use, in a segment "shm_ubrdebug_" + process name.
struct ThreadRecord
{
    std::string mySegmentName;
    int myIndex = 0;
    int myPid = 0;
    unsigned int myState = 0;
    unsigned int myWaitKind = 0;
    int myWaitObject = 0;
    std::string myDescription;
    std::string myStatusMessage;
};

/// Everything interprocess of one installation, at one moment: the files of the directory, the
/// kernel's objects and the processes that use them. Looking creates, takes and changes nothing;
/// it waits for no lock.
struct Inventory
{
    /// @param directory the interprocess-communication directory; it need not exist
    static Inventory read( const std::string& directory );

    std::string myDirectory;
    bool myDirectoryExists = false;
    std::int64_t myTime = 0; ///< when it was taken, seconds since 1970
    std::optional< SemaphoreSet > myMaster;
    std::vector< NamedSemaphore > mySemaphores;
    std::vector< NamedSegment > mySegments;
    std::vector< NamedFifo > myFifos;
    std::vector< IpcFile > myOtherFiles;
    std::vector< ThreadRecord > myThreadRecords;
    /// Objects of the library's form in the kernel whose key belongs to no file of the directory:
    /// left behind, or of another installation.
    std::vector< SemaphoreSet > myStraySets;
    std::vector< Segment > myStraySegments;
    ProcessTable myProcesses;

    const NamedSemaphore* findSemaphore( const std::string& name ) const;
    const NamedSegment* findSegment( const std::string& name ) const;
    /// @param name with '-' for '/' or not: the name of an event's semaphore leads to its FIFO
    const NamedFifo* findFifo( const std::string& name ) const;
    /// The set that users of a segment hold while they attach and detach; -1 if there is none.
    int guardSetId( const NamedSegment& segment ) const;
    /// A pipe's server keeps a descriptor of the FIFO to it, connected or not; no client reads that
    /// one.
    bool hasPipeServer( const std::string& pipeName ) const;
    /// @return the name of the named semaphore with that set, "" if there is none
    std::string nameOfSet( int setId ) const;
};

/// The FIFOs of a pipe begin so, by direction.
inline constexpr const char* toServerPrefix = "pipe_toSrvr_";
inline constexpr const char* fromServerPrefix = "pipe_fmSrvr_";

/// The name with '-' for every '/', as key files have it.
std::string flatName( std::string name );

/// The text of a field that its writer always terminates; a field that is not is cut at its end.
template < std::size_t n >
std::string fieldText( const char ( &field )[n] )
{
    return std::string( field, ::strnlen( field, n ) );
}

/// The part of a ring that does not need its entries: four words, as they lie in the segment.
struct RingHeader
{
    std::uint32_t myFifoSize = 0;
    std::uint32_t myReadOffset = 0;
    std::uint32_t myWriteOffset = 0;
    std::uint32_t myNbrOfBytesFree = 0;

    static constexpr std::size_t nbrOfBytes = 16;

    /// @param bytes begin with the header; fewer than its bytes give a header that is not sound
    static RingHeader parse( std::string_view bytes );
    /// Offsets, free bytes and size agree with each other and with a segment of that size.
    bool isSound( std::uint64_t segmentSize ) const;
};

/// @return the ring's entries, oldest first; *soundPtr tells whether the lengths lead exactly from
/// the read offset to the write offset (if not, the entries before the fault are returned)
/// @param bytes the whole segment, whose header is sound
std::vector< std::string > ringEntries( std::string_view bytes, bool* soundPtr );

/// @return the records in use of a segment of thread records; empty for bytes of another size
std::vector< ThreadRecord > parseThreadRecords( std::string_view bytes );

} // namespace Nuv::Tools
