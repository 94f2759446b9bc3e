#pragma once

#include "nuv.h"
#include "nuvString.h"

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

namespace Nuv::Net {

enum IpAddrExceptionReason
{
    ipAddrInvalidString = 0, ///< "string does not represent a valid ip address"
    ipAddrUnresolved = 1     ///< "Unable to resolve host name, bad address"
};

/// An address that could not be had from a text. The text comes from the reason, the error number
/// is 0.
class NUV_API IpAddrException : public RuntimeException
{
public:
    using RuntimeException::RuntimeException;
    void getReasonStr() const override;
};

/// A peer's address and port, as the system's socket calls take it.
class NUV_API IpAddress
{
public:
    virtual ~IpAddress();

    /// Borrowed, valid while the address lives.
    virtual operator sockaddr_in const*() const = 0;
    virtual operator sockaddr const*() const = 0;
    /// The address alone, without the port.
    virtual Utils::String asString() const = 0;
    /// In host order.
    virtual std::uint16_t port() const = 0;
    virtual std::uint32_t addrCode() const = 0;

    /// Bytes of the socket address, to be passed with the pointer to it.
    std::int32_t length() const { return myLength; }

protected:
    explicit IpAddress( std::int32_t length )
        : myLength( length )
    {
    }
    IpAddress( const IpAddress& ) = default;
    IpAddress& operator=( const IpAddress& ) = default;

    std::int32_t myLength;
};

/// An IPv4 address and port: a value that holds one sockaddr_in.
///
/// Threads: a value; const operations may run concurrently.
/// Errors:  an empty text fails nuvAssert "!ipAddrStr.empty()", one that is no address is an
///          IpAddrException.
/// Bytes:   family (16 bits), port (16, network order), address (32, network order), 8 of padding.
/// Example: socket.connect( Net::IpV4Address( 80, "127.0.0.1" ) );
class NUV_API IpV4Address : public IpAddress
{
public:
    /// @param port in host order, as everywhere in this class
    /// @param address in network order
    IpV4Address( std::uint16_t port, in_addr address, sa_family_t family = AF_INET );
    /// @param address in host order: 0x7F000001 is 127.0.0.1
    IpV4Address( std::uint16_t port, std::uint32_t address, sa_family_t family = AF_INET );
    /// @param ipAddrStr as the platform's inet_addr() reads it: four decimal parts, and its other
    ///        forms (fewer parts, octal, hexadecimal)
    IpV4Address( std::uint16_t port, const Utils::String& ipAddrStr, sa_family_t family = AF_INET );
    explicit IpV4Address( const sockaddr_in& address );
    /// @param addressPtr 16 bytes are copied
    /// @param length as the system returned it; kept as it is
    IpV4Address( const sockaddr* addressPtr, int length );

    /// Asks the system's resolver, which may block for as long as it is configured to.
    /// @return an address that the caller owns: the first one that the resolver names
    /// @throws IpAddrException ipAddrUnresolved, also if the first one is of another family
    static IpV4Address* getIpV4AddressByHostName( std::uint16_t port, const std::string& host,
                                                  sa_family_t family = AF_INET );

    operator sockaddr_in const*() const override { return &myAddress; }
    operator sockaddr const*() const override
    {
        return reinterpret_cast< const sockaddr* >( &myAddress );
    }
    /// Four decimal parts.
    Utils::String asString() const override;
    std::uint16_t port() const override;
    std::uint32_t addrCode() const override;

    /// Family, port, address and length are equal.
    friend bool operator==( const IpV4Address& a, const IpV4Address& b )
    {
        return a.myAddress.sin_family == b.myAddress.sin_family &&
               a.myAddress.sin_port == b.myAddress.sin_port &&
               a.myAddress.sin_addr.s_addr == b.myAddress.sin_addr.s_addr &&
               a.myLength == b.myLength;
    }

private:
    sockaddr_in myAddress{};
};
static_assert( sizeof( sockaddr_in ) == 16 );

} // namespace Nuv::Net
