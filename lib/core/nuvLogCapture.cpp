#include "nuvLogCapture.h"

#include <algorithm>

namespace Nuv::Log {

namespace {

Mt::Mutex ourCaptureMutex; // guards the chain and the messages; a leaf of the lock order

} // namespace

constinit std::atomic< Capture* > Capture::ourNewestPtr = nullptr;

Capture::Capture( const char* zoneNamePtr )
    : myIsOfAllZones( zoneNamePtr == nullptr )
    , myZoneName( myIsOfAllZones ? "" : zoneNamePtr )
{
    const Mt::MutexLock lock( ourCaptureMutex );
    myOlderPtr = ourNewestPtr.load( std::memory_order_relaxed );
    ourNewestPtr.store( this, std::memory_order_relaxed );
}

Capture::~Capture()
{
    const Mt::MutexLock lock( ourCaptureMutex );
    Capture* newerPtr = ourNewestPtr.load( std::memory_order_relaxed );
    if ( newerPtr == this ) {
        ourNewestPtr.store( myOlderPtr, std::memory_order_relaxed );
        return;
    }
    while ( newerPtr->myOlderPtr != this )
        newerPtr = newerPtr->myOlderPtr;
    newerPtr->myOlderPtr = myOlderPtr;
}

void Capture::clear()
{
    const Mt::MutexLock lock( ourCaptureMutex );
    myMessages.clear();
}

std::vector< Capture::Message > Capture::messages() const
{
    const Mt::MutexLock lock( ourCaptureMutex );
    return myMessages;
}

bool Capture::contains( std::string_view text ) const
{
    const Mt::MutexLock lock( ourCaptureMutex );
    return std::any_of( myMessages.begin(), myMessages.end(), [text]( const Message& message ) {
        return message.line.find( text ) != std::string::npos;
    } );
}

bool Capture::takeHelper( Severity severity, const Utils::Buffer& message, const char* zoneNamePtr )
{
    const Mt::MutexLock lock( ourCaptureMutex );
    const ZoneName name( zoneNamePtr );
    for ( Capture* ptr = ourNewestPtr.load( std::memory_order_relaxed ); ptr != nullptr;
          ptr = ptr->myOlderPtr ) {
        if ( !ptr->myIsOfAllZones && ptr->myZoneName != name )
            continue;
        try {
            ptr->myMessages.push_back( { severity, std::string( name.view() ), message.str() } );
        } catch ( ... ) {
            // As with a drain that fails: the message is lost.
        }
        return true;
    }
    return false;
}

} // namespace Nuv::Log
