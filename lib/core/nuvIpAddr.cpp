#include "nuvIpAddr.h"

#include "nuvUtils.h"

#include <arpa/inet.h>
#include <cstring>
#include <memory>
#include <netdb.h>

namespace Nuv::Net {

namespace {

constexpr int addressLength = sizeof( sockaddr_in );

struct AddressListDeleter
{
    void operator()( addrinfo* listPtr ) const { ::freeaddrinfo( listPtr ); }
};
using AddressList = std::unique_ptr< addrinfo, AddressListDeleter >;

std::uint32_t parse( const Utils::String& ipAddrStr )
{
    nuvAssert( !ipAddrStr.empty() );
    const in_addr_t address = ::inet_addr( ipAddrStr.c_str() );
    // The all-ones value is the failure and the broadcast address.
    if ( address == INADDR_NONE && ipAddrStr != "255.255.255.255" )
        throw IpAddrException( "", ipAddrInvalidString, 0 );
    return address;
}

} // namespace

void IpAddrException::getReasonStr() const
{
    using Map = Utils::StaticMap< int, const char* >;
    static constexpr Map::Pair ourReasonMap[] = {
        { ipAddrInvalidString, "string does not represent a valid ip address" },
        { ipAddrUnresolved, "Unable to resolve host name, bad address" },
    };
    constexpr Map reasonMap( ourReasonMap );
    const auto i = reasonMap.find( myReason );
    nuvAssert( i != reasonMap.end() );
    myText = i->value;
}

IpAddress::~IpAddress() = default;

IpV4Address::IpV4Address( std::uint16_t port, in_addr address, sa_family_t family )
    : IpAddress( addressLength )
{
    myAddress.sin_family = family;
    myAddress.sin_port = htons( port );
    myAddress.sin_addr = address;
}

IpV4Address::IpV4Address( std::uint16_t port, std::uint32_t address, sa_family_t family )
    : IpV4Address( port, in_addr{ htonl( address ) }, family )
{
}

IpV4Address::IpV4Address( std::uint16_t port, const Utils::String& ipAddrStr, sa_family_t family )
    : IpV4Address( port, in_addr{ parse( ipAddrStr ) }, family )
{
}

IpV4Address::IpV4Address( const sockaddr_in& address )
    : IpAddress( addressLength )
    , myAddress( address )
{
}

IpV4Address::IpV4Address( const sockaddr* addressPtr, int length )
    : IpAddress( length )
{
    std::memcpy( &myAddress, addressPtr, sizeof( myAddress ) );
}

IpV4Address* IpV4Address::getIpV4AddressByHostName( std::uint16_t port, const std::string& host,
                                                    sa_family_t family )
{
    addrinfo hints{};
    hints.ai_family = family;
    addrinfo* rawListPtr = nullptr;
    const int result = ::getaddrinfo( host.c_str(), nullptr, &hints, &rawListPtr );
    const AddressList list( result == 0 ? rawListPtr : nullptr );
    if ( !list || list->ai_family != family || list->ai_addrlen < sizeof( sockaddr_in ) )
        throw IpAddrException( "", ipAddrUnresolved, 0 );
    sockaddr_in address{};
    std::memcpy( &address, list->ai_addr, sizeof( address ) );
    return new IpV4Address( port, address.sin_addr, family );
}

Utils::String IpV4Address::asString() const
{
    char text[INET_ADDRSTRLEN];
    ::inet_ntop( AF_INET, &myAddress.sin_addr, text, sizeof( text ) );
    return text;
}

std::uint16_t IpV4Address::port() const
{
    return ntohs( myAddress.sin_port );
}

std::uint32_t IpV4Address::addrCode() const
{
    return ntohl( myAddress.sin_addr.s_addr );
}

} // namespace Nuv::Net
