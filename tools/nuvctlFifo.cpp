#include "nuvctl.h"

#include <iostream>
#include <unistd.h>

namespace Nuv::Ctl {

namespace {

using Tools::Inventory;
using Tools::RingHeader;

/// A copy of a ring that no writer changed while it was made.
struct RingCopy
{
    std::string myBytes; ///< the whole segment; empty where it could not be read
    RingHeader myHeader;
    bool myIsSound = false; ///< header and entries agree
    std::vector< std::string > myEntries;
};

/// The ring's lock is not taken: a copy is good when header and entries agree and the header was
/// the same before and after. Writers move the header only after an entry lies in the ring whole.
RingCopy copyRing( const Tools::Segment& segment, int guardSetId )
{
    constexpr int maxNbrOfAttempts = 50;
    const std::size_t size = static_cast< std::size_t >( segment.mySize );
    RingCopy copy;
    for ( int i = 0; i < maxNbrOfAttempts && !copy.myIsSound; ++i ) {
        copy.myBytes = Tools::copySegment( segment, size, guardSetId );
        copy.myHeader = RingHeader::parse( copy.myBytes );
        if ( copy.myBytes.empty() )
            return copy;
        copy.myIsSound = copy.myHeader.isSound( size );
        if ( copy.myIsSound )
            copy.myEntries = Tools::ringEntries( copy.myBytes, &copy.myIsSound );
        const std::string after = Tools::copySegment( segment, RingHeader::nbrOfBytes, guardSetId );
        if ( after != copy.myBytes.substr( 0, RingHeader::nbrOfBytes ) )
            copy.myIsSound = false;
        if ( !copy.myIsSound )
            ::usleep( 1000 );
    }
    return copy;
}

void printRing( const std::string& name, const RingCopy& copy, const std::vector< int >& pids )
{
    const RingHeader& header = copy.myHeader;
    std::cout << "FIFO " << name << ": " << copy.myEntries.size() << " entries, "
              << header.myFifoSize - header.myNbrOfBytesFree << " of " << header.myFifoSize
              << " bytes used, read offset " << header.myReadOffset << ", write offset "
              << header.myWriteOffset << ", " << pids.size() << " processes\n";
    for ( std::size_t i = 0; i < copy.myEntries.size(); ++i )
        std::cout << i << ": " << printable( copy.myEntries[i] ) << '\n';
}

Json ringJson( const std::string& name, const RingCopy& copy, const std::vector< int >& pids )
{
    const RingHeader& header = copy.myHeader;
    return { { "name", name },
             { "size", header.myFifoSize },
             { "free", header.myNbrOfBytesFree },
             { "readOffset", header.myReadOffset },
             { "writeOffset", header.myWriteOffset },
             { "sound", copy.myIsSound },
             { "attached", pids },
             { "entries", copy.myEntries } };
}

} // namespace

int showFifo( const CommonOptions& common, const std::string& name )
{
    const Inventory inventory = Inventory::read( Installation::find().myIpcDirectory );
    const std::string segmentName = "IpFifo_" + Tools::flatName( name );
    const Tools::NamedSegment* const segmentPtr = inventory.findSegment( segmentName );
    if ( segmentPtr == nullptr || !segmentPtr->mySegment )
        return complain( "no FIFO \"" + name + "\" in " + inventory.myDirectory );
    const RingCopy copy = copyRing( *segmentPtr->mySegment, inventory.guardSetId( *segmentPtr ) );
    if ( copy.myBytes.empty() )
        return complain( "the FIFO's segment cannot be read by this user" );
    const std::vector< int > pids = inventory.myProcesses.attachedTo( segmentPtr->mySegment->myId );
    if ( common.myJson )
        printJson( ringJson( name, copy, pids ) );
    else
        printRing( name, copy, pids );
    return copy.myIsSound
               ? good
               : complain( "the ring is damaged, or being written without pause: what is "
                           "shown may be incomplete" );
}

} // namespace Nuv::Ctl
