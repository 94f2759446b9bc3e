#include "nuvCapabilities.h"

#include "nuvCapabilityDevice.h"
#include "nuvMutex.h"

#include <memory>
#include <unistd.h>

namespace Nuv::Utils {

namespace {

Mt::Mutex ourCapabilitiesMutex; // a leaf: nothing is locked under it

Mt::LocalStorageKey tlsKey()
{
    static Mt::Mutex keyMutex;
    static Mt::LocalStorageKey ourTlsKey = Mt::invalidLocalStorageKey;
    const Mt::MutexLock lock( keyMutex );
    if ( ourTlsKey == Mt::invalidLocalStorageKey )
        ourTlsKey = Mt::allocateLocalStorage();
    nuvCheckResource( ourTlsKey != Mt::invalidLocalStorageKey );
    return ourTlsKey;
}

bool needsRequests( const CapabilityDevice& device )
{
    return device.isOpen() && ::geteuid() != 0;
}

void setThread( CapabilityDevice* devicePtr, std::uint32_t mask )
{
    const int status = devicePtr->setCapabilities( mask ) ? 0 : -1;
    nuvCheckResource( status == 0 );
}

} // namespace

Capabilities* Capabilities::threadletonPtr()
{
    const Mt::LocalStorageKey key = tlsKey();
    if ( void* const valuePtr = Mt::tlsValue( key ) )
        return static_cast< Capabilities* >( valuePtr );
    std::unique_ptr< Capabilities > newPtr( new Capabilities() );
    Mt::tlsValue( key, newPtr.get() );
    Mt::Threadleton::pushThreadleton( newPtr.get() );
    return newPtr.release();
}

Capabilities::Capabilities()
{
    newThread();
}

// A use after the thread's end of threadletons then makes a new object instead of meeting this one.
Capabilities::~Capabilities()
{
    Mt::tlsValue( tlsKey(), nullptr );
}

void Capabilities::newThread()
{
    const Mt::MutexLock lock( ourCapabilitiesMutex );
    CapabilityDevice& device = CapabilityDevice::instance();
    if ( !needsRequests( device ) )
        return;
    std::uint32_t mask = 0;
    const int status = device.readCapabilities( &mask ) ? 0 : -1;
    nuvCheckResource( status == 0 );
    for ( std::uint32_t& count : myCounts ) {
        count = mask & 1;
        mask >>= 1;
    }
}

bool Capabilities::apply( std::uint32_t mask )
{
    const Mt::MutexLock lock( ourCapabilitiesMutex );
    CapabilityDevice& device = CapabilityDevice::instance();
    if ( !needsRequests( device ) )
        return device.isOpen();
    const auto savedCounts = myCounts;
    for ( unsigned int i = 0; i < myCounts.size(); ++i )
        myCounts[i] += mask >> i & 1;
    try {
        setThread( &device, raisedMask() );
    } catch ( ... ) {
        myCounts = savedCounts;
        throw;
    }
    return true;
}

void Capabilities::remove( std::uint32_t mask )
{
    const Mt::MutexLock lock( ourCapabilitiesMutex );
    CapabilityDevice& device = CapabilityDevice::instance();
    if ( !needsRequests( device ) )
        return;
    for ( unsigned int i = 0; i < myCounts.size(); ++i ) {
        if ( myCounts[i] > 0 )
            myCounts[i] -= mask >> i & 1;
    }
    setThread( &device, raisedMask() );
}

std::uint32_t Capabilities::raisedMask() const
{
    std::uint32_t mask = 0;
    for ( unsigned int i = 0; i < myCounts.size(); ++i )
        mask |= static_cast< std::uint32_t >( myCounts[i] > 0 ) << i;
    return mask;
}

ScopedCapabilities::ScopedCapabilities( std::uint32_t mask )
    : myMask( mask )
    , myRaised( Capabilities::threadletonPtr()->apply( mask ) )
{
}

ScopedCapabilities::~ScopedCapabilities()
{
    if ( !myRaised )
        return;
    try {
        Capabilities::threadletonPtr()->remove( myMask );
    } catch ( const ResourceException& ) {
        // Logged by the check; a destructor has nobody to tell.
    }
}

} // namespace Nuv::Utils
