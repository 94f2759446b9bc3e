#pragma once

#include "nuvBuffer.h"
#include "nuvPackedData.h"

#include <cstdint>
#include <string>

namespace Nuv::Utils {

/// One block of a compiled zone file: its counts, and what stands where.
///
/// A file has a block of 32-bit times and, from its version 2 on, one of 64-bit times behind it.
///
/// | byte offset            | size    | of the first block (integers are big-endian and signed)   |
/// |------------------------|---------|-----------------------------------------------------------|
/// | 0                      | 4       | "TZif"                                                    |
/// | 4                      | 16      | not read                                                  |
/// | 20                     | 6 x 4   | counts G, S, L, T, N, C                                   |
/// | 44                     | 4 x T   | transition times, ascending                               |
/// | 44 + 4T                | T       | type of each                                              |
/// | 44 + 5T                | 6 x N   | types: offset (4), isDst (1), abbreviation index (1)      |
/// | 44 + 5T + 6N           | C       | abbreviations, each ended by NUL                          |
/// | 44 + 5T + 6N + C       | 8 x L   | leap seconds: transition time (4), total correction (4)   |
/// | 44 + 5T + 6N + C + 8L  | S, G    | standard/wall, then UTC/local indicators, a byte per type |
///
/// Threads: const operations may run concurrently.
/// Errors:  before the parts are read, hasHeader(), then isLengthConsistent() must hold; indexes
///          are the caller's duty.
/// Owns:    nothing; the data is borrowed.
class NUV_API ZoneFileBlock
{
public:
    struct LocalType
    {
        std::int32_t myOffset; ///< seconds east of UTC
        std::int8_t myIsDst;
        std::uint8_t myAbbreviation;
    };

    /// @param isSlimPtr may be null; receives whether the first block says no more than UTC, but
    ///        the second does
    /// @return what is wrong with a file's first block; null if it is sound
    static const char* faultOf( const Buffer& fileData, bool* isSlimPtr );

    /// @param start of the block's header
    /// @param timeSize bytes of a time: 4, or 8 in later blocks
    ZoneFileBlock( const Buffer& fileData, std::size_t start, unsigned int timeSize );

    bool hasHeader() const;
    bool hasSignature() const;
    /// Whether no count is negative and all parts lie within the data.
    bool isLengthConsistent() const;
    bool areTypesConsistent() const;
    /// Of a block of 32-bit times.
    bool areTimesAscending() const;
    /// Whether the block says no more than UTC.
    bool isEmpty() const;
    std::size_t endOffset() const { return static_cast< std::size_t >( at( end ) ); }

    /// Of a block of 32-bit times.
    std::int32_t transitionTime( int i ) const
    {
        return myData.signed32BitValue( at( times, i, 4 ) );
    }
    int transitionType( int i ) const { return myData.signed8BitValue( at( timeTypes, i, 1 ) ); }
    LocalType localType( int i ) const;
    std::string characters() const;
    /// Of a block of 32-bit times.
    void leapSecond( int i, int* transitionTimePtr, int* totalCorrectionPtr ) const;
    bool stdIndicator( int i ) const
    {
        return myData.unsigned8BitValue( at( stdIndicators, i, 1 ) ) != 0;
    }
    bool gmtIndicator( int i ) const
    {
        return myData.unsigned8BitValue( at( gmtIndicators, i, 1 ) ) != 0;
    }

    int myTtisGmtCnt = 0; ///< G
    int myTtisStdCnt = 0; ///< S
    int myLeapCnt = 0;    ///< L
    int myTimeCnt = 0;    ///< T
    int myTypeCnt = 0;    ///< N
    int myCharCnt = 0;    ///< C

private:
    enum Part
    {
        times,
        timeTypes,
        localTypes,
        chars,
        leaps,
        stdIndicators,
        gmtIndicators,
        end
    };

    std::uint64_t at( Part part ) const;
    std::size_t at( Part part, int i, std::size_t size ) const
    {
        return static_cast< std::size_t >( at( part ) ) + size * static_cast< std::size_t >( i );
    }

    BigEndianPackedData myData;
    std::size_t myStart;
    unsigned int myTimeSize;
};

} // namespace Nuv::Utils
