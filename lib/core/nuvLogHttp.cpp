#include "nuvLogHttp.h"

#include "nuvHttpRequest.h"

#include <exception>
#include <string>
#include <unistd.h>

namespace Nuv::Log {

namespace {

constexpr const char* serverPath = "/cgi-bin/sys-server";
constexpr int bufferSize = 1500;

/// @return whether the slot is the name's own, or was free and is so now
bool takeSlot( LostMessages::Slot& slot, const DrainName& name )
{
    std::uint32_t state = LostMessages::unused;
    if ( __atomic_compare_exchange_n( &slot.myState, &state, LostMessages::beingNamed, false,
                                      __ATOMIC_ACQUIRE, __ATOMIC_ACQUIRE ) ) {
        slot.myName = name;
        __atomic_store_n( &slot.myState, LostMessages::inUse, __ATOMIC_RELEASE );
        return true;
    }
    // Another process names a slot in no time; of one that was killed meanwhile the slot is lost.
    for ( int i = 0; state == LostMessages::beingNamed && i < 1000; ++i ) {
        ::usleep( 10 );
        state = __atomic_load_n( &slot.myState, __ATOMIC_ACQUIRE );
    }
    return state == LostMessages::inUse && slot.myName == name;
}

} // namespace

HttpPoster::HttpPoster( const Net::IpV4Address& address )
    : myAddress( address )
{
}

HttpPoster::~HttpPoster() = default;

bool HttpPoster::post( Severity severity, const Utils::Buffer& message, std::string_view zoneName )
{
    for ( int i = 0; i < nbrOfAttempts; ++i ) {
        if ( i > 0 )
            ::usleep( attemptGapUs );
        if ( attempt( severity, message, zoneName ) )
            return true;
        // Closed first, lest the destructor tries to send again what the server did not take.
        if ( myConnectionPtr )
            myConnectionPtr->close();
        myConnectionPtr.reset();
    }
    return false;
}

bool HttpPoster::attempt( Severity severity, const Utils::Buffer& message,
                          std::string_view zoneName )
{
    try {
        if ( !myConnectionPtr ) {
            myConnectionPtr.reset( Net::HttpRequest::createTcpRequestConnectionStream(
                myAddress, bufferSize, bufferSize, timeoutSeconds * 1000 ) );
            myConnectionPtr->socketPtr()->soSndTimeOut( { timeoutSeconds, 0 } );
        }
        Net::HttpPostRequest request( myConnectionPtr.get() );
        std::string zone;
        Net::Http::urlEncodeStr( std::string( zoneName ).c_str(), &zone );
        request.variables() = { { "f", "log" },
                                { "sev", std::string( 1, severityLetter( severity ) ) },
                                { "zone", zone } };
        request.headerMap()[Net::Http::headerContentType] = "text/plain";
        request.readIdleTimeoutInSeconds( timeoutSeconds );
        request.issue( serverPath, message );
        const Net::Http::HeaderMap& headers = request.response().headerMap();
        const auto connection = headers.find( Net::Http::headerConnection );
        if ( connection != headers.end() && connection->second == "close" )
            myConnectionPtr.reset();
        return true;
    } catch ( const RuntimeException& ) {
    } catch ( const FixedTextException& ) {
    } catch ( const std::exception& ) {
    }
    return false;
}

void HttpPoster::leaveConnection()
{
    static_cast< void >( myConnectionPtr.release() );
}

LostMessages::LostMessages( const DrainName& drainName )
    : mySharedMemory( segmentName, sizeof( Table ), Io::SharedMemory::readWrite )
    , mySlotPtr( nullptr )
{
    Slot* const slotsPtr = reinterpret_cast< Slot* >( mySharedMemory.memoryPtr() );
    for ( int i = 0; i < maxNbrOfSlots && mySlotPtr == nullptr; ++i ) {
        if ( takeSlot( slotsPtr[i], drainName ) )
            mySlotPtr = slotsPtr + i;
    }
}

void LostMessages::count()
{
    if ( mySlotPtr != nullptr )
        __atomic_fetch_add( &mySlotPtr->myCount, 1, __ATOMIC_RELAXED );
}

} // namespace Nuv::Log
