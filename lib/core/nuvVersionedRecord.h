#pragma once

#include "nuv.h"

#include <cstdint>

namespace Nuv::HealthAndSecurity {

/// Commit and read of a record in shared memory, guarded by its version word: bits 0 to 30 count
/// commits, bit 31 says that one is going on. A reader takes no lock and never delays a writer.
///
/// | word found by | busy bit clear                      | busy bit set                           |
/// |---------------|-------------------------------------|----------------------------------------|
/// | a commit      | sets the bit, copies, counts by one | waits a second at most (two writers), |
/// |               | and clears it                       | then takes over what a dead one left   |
/// | a read        | copies; true if the word is the     | false, nothing copied                  |
/// |               | same afterwards                     |                                        |
///
/// One writer per record is the contract; of several, each commits whole, so that a read that
/// reports true never holds bytes of two commits. (Only a writer that is stopped for longer than
/// a second within its copy, with a second one at work, can break that.)
///
/// Threads: any number of readers; 32-bit and 64-bit processes alike.
struct NUV_API VersionedRecord
{
    static constexpr std::uint32_t busyBit = 0x80000000;
    static constexpr std::uint32_t counterMask = 0x7FFFFFFF;

    struct Part
    {
        void* sharedPtr; ///< aligned to 4
        void* privatePtr;
        std::size_t nbrOfBytes; ///< a multiple of 4
    };

    /// Copies the private parts into the shared ones.
    static void commit( std::uint32_t* versionPtr, const Part* partsPtr, int nbrOfParts );
    /// Copies the shared parts out. @return false: the private parts may be torn; try again later
    static bool read( std::uint32_t* versionPtr, const Part* partsPtr, int nbrOfParts );
};

} // namespace Nuv::HealthAndSecurity
