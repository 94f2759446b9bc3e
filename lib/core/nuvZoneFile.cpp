#include "nuvZoneFile.h"

#include <cstring>
#include <iterator>
#include <string_view>

namespace Nuv::Utils {

namespace {

constexpr std::size_t headerSize = 44;
constexpr std::size_t countsOffset = 20;
constexpr std::string_view signature = "TZif";

} // namespace

const char* ZoneFileBlock::faultOf( const Buffer& fileData, bool* isSlimPtr )
{
    if ( isSlimPtr != nullptr )
        *isSlimPtr = false;
    const ZoneFileBlock first( fileData, 0, 4 );
    if ( !first.hasHeader() )
        return "tzfile header too short";
    if ( !first.hasSignature() )
        return "tzfile signature incorrect";
    if ( !first.isLengthConsistent() )
        return "tzfile length inconsistent";
    if ( !first.areTypesConsistent() )
        return "tzfile type index inconsistent";
    if ( !first.areTimesAscending() )
        return "tzfile transition times not ascending";
    if ( isSlimPtr != nullptr && first.isEmpty() ) {
        const ZoneFileBlock second( fileData, first.endOffset(), 8 );
        *isSlimPtr = second.hasHeader() && second.hasSignature() && second.isLengthConsistent() &&
                     !second.isEmpty();
    }
    return nullptr;
}

// Packed data take memory that may be written; this one is only read.
ZoneFileBlock::ZoneFileBlock( const Buffer& fileData, std::size_t start, unsigned int timeSize )
    : myData( reinterpret_cast< unsigned char* >( const_cast< char* >( fileData.data() ) ),
              fileData.size() )
    , myStart( start )
    , myTimeSize( timeSize )
{
    if ( !hasHeader() )
        return;
    int* const countPtrs[] = { &myTtisGmtCnt, &myTtisStdCnt, &myLeapCnt,
                               &myTimeCnt,    &myTypeCnt,    &myCharCnt };
    for ( std::size_t i = 0; i < std::size( countPtrs ); ++i )
        *countPtrs[i] = myData.signed32BitValue( start + countsOffset + 4 * i );
}

bool ZoneFileBlock::hasHeader() const
{
    return myStart + headerSize <= myData.nbrOfBytes();
}

bool ZoneFileBlock::hasSignature() const
{
    return std::memcmp( myData.dataPtr() + myStart, signature.data(), signature.size() ) == 0;
}

bool ZoneFileBlock::isLengthConsistent() const
{
    for ( const int count :
          { myTtisGmtCnt, myTtisStdCnt, myLeapCnt, myTimeCnt, myTypeCnt, myCharCnt } ) {
        if ( count < 0 )
            return false;
    }
    return at( end ) <= myData.nbrOfBytes();
}

bool ZoneFileBlock::areTypesConsistent() const
{
    for ( int i = 0; i < myTimeCnt; ++i ) {
        const int type = transitionType( i );
        if ( type < 0 || type >= myTypeCnt )
            return false;
    }
    return true;
}

bool ZoneFileBlock::areTimesAscending() const
{
    for ( int i = 1; i < myTimeCnt; ++i ) {
        if ( transitionTime( i - 1 ) > transitionTime( i ) )
            return false;
    }
    return true;
}

bool ZoneFileBlock::isEmpty() const
{
    bool isUtc = myTimeCnt == 0;
    for ( int i = 0; i < myTypeCnt && isUtc; ++i )
        isUtc = localType( i ).myOffset == 0;
    return isUtc;
}

ZoneFileBlock::LocalType ZoneFileBlock::localType( int i ) const
{
    const std::size_t offset = at( localTypes, i, 6 );
    return { myData.signed32BitValue( offset ), myData.signed8BitValue( offset + 4 ),
             myData.unsigned8BitValue( offset + 5 ) };
}

std::string ZoneFileBlock::characters() const
{
    return std::string( reinterpret_cast< const char* >( myData.dataPtr() ) + at( chars, 0, 1 ),
                        static_cast< std::size_t >( myCharCnt ) );
}

void ZoneFileBlock::leapSecond( int i, int* transitionTimePtr, int* totalCorrectionPtr ) const
{
    const std::size_t offset = at( leaps, i, 8 );
    *transitionTimePtr = myData.signed32BitValue( offset );
    *totalCorrectionPtr = myData.signed32BitValue( offset + 4 );
}

// In 64 bits: before the check of the length the counts may be anything that is not negative.
std::uint64_t ZoneFileBlock::at( Part part ) const
{
    const auto count = []( int value ) { return static_cast< std::uint64_t >( value ); };
    const std::uint64_t sizes[] = { myTimeSize * count( myTimeCnt ),
                                    count( myTimeCnt ),
                                    6 * count( myTypeCnt ),
                                    count( myCharCnt ),
                                    ( myTimeSize + 4 ) * count( myLeapCnt ),
                                    count( myTtisStdCnt ),
                                    count( myTtisGmtCnt ) };
    std::uint64_t offset = myStart + headerSize;
    for ( int i = 0; i < part; ++i )
        offset += sizes[i];
    return offset;
}

} // namespace Nuv::Utils
