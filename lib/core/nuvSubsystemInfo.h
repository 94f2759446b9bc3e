#pragma once

#include "nuvThreadleton.h"
#include "nuvUtils.h"
#include "nuvWaitMark.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Nuv::Mt {

/// The calling thread's subsystem name and its status record in shared memory.
///
/// The records of all threads of a process lie in one segment, named "shm_ubrdebug_" and the
/// process's name as the system knows it (the first 15 characters of the program's file name, '/'
/// written as '-'), so that a tool outside can see what each thread does. Processes of one name
/// share one segment; it is never removed, and what a killed process had claimed stays claimed
/// until a tool frees it. A process that ends by exit() or by returning from its main function
/// releases what it had claimed.
///
/// Threads: an instance belongs to its thread.
/// Errors:  threadletonPtr() fails nuvCheckResource without a storage key; for allocDetail() see
///          there.
/// Owns:    a share of the name. The record is released by releaseDetail(), not by the destructor.
/// Cost:    nothing is created before the first call that needs it; then a key file and a segment
///          for each process, a record for each thread.
/// Example: Mt::SubsystemInfo::threadletonPtr()->detail()->statusMessage( "3 sensors" );
class NUV_API SubsystemInfo : public Threadleton
{
public:
    enum State : std::uint32_t
    {
        stateNew = 0,
        stateRunning = 1,
        stateEndedNormally = 2,
        stateEndedByException = 3, ///< or without a task function
        stateCrashed = 5
    };

    /// One thread's record.
    ///
    /// Bytes:   | offset | size | field                                              |
    ///          |--------|------|----------------------------------------------------|
    ///          | 0      | 4    | in use: 0 free, 1 taken                            |
    ///          | 4      | 4    | process id of the claiming thread's process        |
    ///          | 8      | 4    | State                                              |
    ///          | 12     | 4    | WaitKind                                           |
    ///          | 16     | 4    | wait object: the semaphore set's identifier, else 0|
    ///          | 20     | 33   | description, at most 32 characters and NUL         |
    ///          | 53     | 33   | status message, at most 32 characters and NUL      |
    ///          | 86     | 2    | padding, never written                             |
    /// Threads: claimed by any thread, then written by the claiming one alone (the overflow record
    ///          by all that share it). Each field is written atomically, not the record; a reader
    ///          meets texts half changed at times, but never one without its NUL.
    struct NUV_API ThreadDetails
    {
        static constexpr std::size_t maxNbrOfTextChars = 32;

        std::uint32_t myInUse;
        std::int32_t myProcessId;
        std::uint32_t myState;
        std::uint32_t myWaitKind;
        std::int32_t myWaitObject;
        char myDescription[maxNbrOfTextChars + 1];
        char myStatusMessage[maxNbrOfTextChars + 1];
        char myPadding[2];

        /// Copies the first 32 characters; null empties the field.
        void description( const char* textPtr );
        void statusMessage( const char* textPtr );
        void state( State state );
        void wait( WaitKind kind, int object );

        /// Takes the record, if it is free, for the calling process: state and wait 0, texts empty.
        /// @return whether it was free
        bool claim();
        /// Releases the record; the other fields keep their last values.
        void reset();

        /// Empties everything. For a record that nobody else knows yet.
        void clear();
    };

    /// The segment: a word of value 2, then the records.
    struct NUV_API ThreadDetailsArray
    {
        static constexpr std::size_t nbrOfRecords = 100;
        static constexpr std::uint32_t headerValue = 2;

        std::uint32_t myHeader;
        ThreadDetails myRecords[nbrOfRecords];

        /// Claims the first free record.
        /// @return it, or the process's overflow record, in ordinary memory, when none is free
        ThreadDetails* newDetail();

        void clear();
    };

    using NamePtr = Utils::CountedPtr< std::string >;

    /// Made on first use in a thread.
    static SubsystemInfo* threadletonPtr();

    /// The same without making it: null in a thread that has none yet.
    static SubsystemInfo* existingPtr();

    /// A new thread's name is the one its creator has at that time.
    void nameStrPtr( const NamePtr& namePtr );
    const NamePtr& nameStrPtr() const { return myNamePtr; }

    /// Gives the thread a record, and the process its segment if this is its first one. Waits for
    /// the master semaphore then.
    /// @throws ResourceException ("mappingFileHandle.isValid()", "shmKey != static_cast< ::key_t >(
    ///         -1 )") if the key file cannot be created or examined. A segment that cannot be
    ///         attached is no error: the process then keeps its records in ordinary memory.
    ThreadDetails* allocDetail();
    /// Null until the thread first needs a record, and in the child of a fork.
    ThreadDetails* detailPtr() const { return myDetailPtr; }
    /// The record, claimed if there is none yet.
    ThreadDetails* detail() { return myDetailPtr != nullptr ? myDetailPtr : allocDetail(); }
    /// Sets the state and releases the record. What the thread reports from then on goes to the
    /// overflow record.
    void releaseDetail( State state );

    /// For the thread body, which releases the record itself: not to be done at the thread's end.
    /// (The record of a terminated task stays as it is; that of a thread that the library did not
    /// start is released when this ends.)
    void leaveDetailAtThreadEnd() { myIsLeftAtThreadEnd = true; }

    /// For exit handlers: releases every record that this process has claimed; what its threads
    /// report from then on goes to the overflow record if they had no record yet.
    static void releaseAllAtExit();

    /// For the crash handler: sets the calling thread's state to stateCrashed if it has a record.
    /// Safe in signal context.
    static void markCrashed() noexcept;

    ~SubsystemInfo() override;

private:
    friend void markWait( WaitKind kind, int object ) noexcept;

    SubsystemInfo() = default;

    static void forgetDetailInForkedChild();
    static void endForeignThread();
    friend struct ForeignThread;

    NamePtr myNamePtr;
    ThreadDetails* myDetailPtr = nullptr;
    bool myIsLeftAtThreadEnd = false;
    bool myAllocating = false; // a wait within allocDetail() must not call it again
};

static_assert( sizeof( SubsystemInfo::ThreadDetails ) == 88 );
static_assert( offsetof( SubsystemInfo::ThreadDetails, myInUse ) == 0 );
static_assert( offsetof( SubsystemInfo::ThreadDetails, myProcessId ) == 4 );
static_assert( offsetof( SubsystemInfo::ThreadDetails, myState ) == 8 );
static_assert( offsetof( SubsystemInfo::ThreadDetails, myWaitKind ) == 12 );
static_assert( offsetof( SubsystemInfo::ThreadDetails, myWaitObject ) == 16 );
static_assert( offsetof( SubsystemInfo::ThreadDetails, myDescription ) == 20 );
static_assert( offsetof( SubsystemInfo::ThreadDetails, myStatusMessage ) == 53 );
static_assert( sizeof( SubsystemInfo::ThreadDetailsArray ) == 8804 );
static_assert( offsetof( SubsystemInfo::ThreadDetailsArray, myRecords ) == 4 );

} // namespace Nuv::Mt
