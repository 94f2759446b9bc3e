#pragma once

#include "nuvThreadleton.h"
#include "nuvUtils.h"
#include "nuvWaitMark.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Nuv::Mt {

/// The calling thread's subsystem name and its status record in shared memory.
class NUV_API SubsystemInfo : public Threadleton
{
public:
    enum State : std::uint32_t {
        stateNew = 0,
        stateRunning = 1,
        stateEndedNormally = 2,
        stateEndedByException = 3,
        stateCrashed = 5
    };

    /// One thread's record.
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

        void description( const char* textPtr );
        void statusMessage( const char* textPtr );
        void state( State state );
        void wait( WaitKind kind, int object );
        /// Releases the record.
        void reset();
    };

    /// The segment.
    struct NUV_API ThreadDetailsArray
    {
        static constexpr std::size_t nbrOfRecords = 100;

        std::uint32_t myHeader;
        ThreadDetails myRecords[nbrOfRecords];

        ThreadDetails* newDetail();
    };

    using NamePtr = Utils::CountedPtr< std::string >;

    static SubsystemInfo* threadletonPtr();

    void nameStrPtr( const NamePtr& namePtr );
    const NamePtr& nameStrPtr() const { return myNamePtr; }

    ThreadDetails* allocDetail();
    /// Null until the thread first needs a record.
    ThreadDetails* detailPtr() const { return myDetailPtr; }
    /// The record, claimed if there is none yet.
    ThreadDetails* detail() { return myDetailPtr != nullptr ? myDetailPtr : allocDetail(); }

    ~SubsystemInfo() override;

private:
    SubsystemInfo() = default;

    NamePtr myNamePtr;
    ThreadDetails* myDetailPtr = nullptr;
};

static_assert( sizeof( SubsystemInfo::ThreadDetails ) == 88 );
static_assert( sizeof( SubsystemInfo::ThreadDetailsArray ) == 8804 );
static_assert( offsetof( SubsystemInfo::ThreadDetails, myDescription ) == 20 );
static_assert( offsetof( SubsystemInfo::ThreadDetails, myStatusMessage ) == 53 );

} // namespace Nuv::Mt
