#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Nuv::Tools {

/// One semaphore of a set, as it is at one moment.
struct SemaphoreState
{
    int myValue = 0;
    int myLastPid = 0; ///< process of the last completed operation; 0: in another pid namespace
    int myNbrOfWaiters = 0; ///< threads that wait to decrement it
};

/// A System V semaphore set as the kernel lists it.
struct SemaphoreSet
{
    int myId = -1;
    ::key_t myKey = 0;
    unsigned int myMode = 0; ///< permission bits
    int myNbrOfSemaphores = 0;
    uid_t myUid = 0;
    gid_t myGid = 0;
    std::int64_t myOperationTime = 0; ///< last operation, seconds since 1970; 0: never operated on
    std::int64_t myChangeTime = 0;    ///< creation, or last value set directly
    /// Empty where the caller may not read the set (or it vanished meanwhile).
    std::vector< SemaphoreState > mySemaphores;
};

/// A System V shared-memory segment as the kernel lists it.
struct Segment
{
    int myId = -1;
    ::key_t myKey = 0;
    unsigned int myMode = 0; ///< permission bits
    std::uint64_t mySize = 0;
    int myCreatorPid = 0;
    int myLastPid = 0; ///< process of the last attach or detach
    int myNbrOfAttached = 0;
    uid_t myUid = 0;
    gid_t myGid = 0;
    std::int64_t myAttachTime = 0; ///< seconds since 1970; 0: never
    std::int64_t myDetachTime = 0;
    std::int64_t myChangeTime = 0;
};

/// Reads the kernel's table of semaphore sets (/proc/sysvipc/sem) and each set's values.
/// Creates and changes nothing.
std::vector< SemaphoreSet > readSemaphoreSets();

/// Reads the kernel's table of shared-memory segments (/proc/sysvipc/shm).
std::vector< Segment > readSegments();

/// The parsers of the two tables: a heading line, then one object a line; a line that is not of
/// that form is left out.
std::vector< SemaphoreSet > parseSemaphoreSets( std::string_view text );
std::vector< Segment > parseSegments( std::string_view text );

/// The semaphores of a set; empty where they cannot be read.
std::vector< SemaphoreState > readSemaphoreStates( int setId, int nbrOfSemaphores );

/// Takes a semaphore for a scope, if it can be had soon, so that the kernel gives it back should
/// this process die: for tools that must neither hang nor leave something taken.
class UndoLock
{
public:
    /// @param setId negative, or of a set that is gone: nothing to take, isHeld() is true
    /// @param timeoutMs 0: one attempt
    UndoLock( int setId, unsigned int timeoutMs );
    UndoLock( const UndoLock& ) = delete;
    UndoLock& operator=( const UndoLock& ) = delete;
    ~UndoLock();

    bool isHeld() const { return myIsHeld; }

private:
    int mySetId;
    bool myIsHeld = false;
};

/// Adds 1 to the set's semaphore 0 if it is 0 at that moment, as one step.
bool postIfZero( int setId );

/// A segment attached read-only for a scope, which is to be short.
class SegmentView
{
public:
    /// @param guardSetId as for copySegment()
    SegmentView( const Segment& segment, int guardSetId );
    SegmentView( const SegmentView& ) = delete;
    SegmentView& operator=( const SegmentView& ) = delete;
    ~SegmentView();

    /// Null where it cannot be attached.
    const char* ptr() const { return myPtr; }

private:
    const UndoLock myGuard;
    const char* myPtr;
};

/// @return the first nbrOfBytes of the segment, attached read-only for as long as the copy takes;
/// empty where it cannot be attached or is smaller
/// @param guardSetId the set that the segment's users hold while they attach and detach (so that
/// none of them takes this short visit for another user), negative for none
std::string copySegment( const Segment& segment, std::size_t nbrOfBytes, int guardSetId );

/// Copies again and again, for half a second at most, until two copies in a row are the same: then
/// nobody was changing the bytes. @return the last copy; *settledPtr tells whether it is so
std::string copySettled( const Segment& segment, std::size_t nbrOfBytes, int guardSetId,
                         bool* settledPtr );

/// Reads a whole file of /proc (or any other); false, with an empty text, if it cannot be opened.
bool readWholeFile( const std::string& path, std::string* textPtr );

} // namespace Nuv::Tools
