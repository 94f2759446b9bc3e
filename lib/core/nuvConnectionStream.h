#pragma once

#include "nuvSocketStreamBuf.h"
#include "nuvUtils.h"

#include <istream>
#include <ostream>
#include <string>

namespace Nuv::Utils {
class Timer;
}

namespace Nuv::Net {

/// A connection to a peer, as the HTTP client sees it: an input and an output stream.
///
/// Threads: one at a time.
/// Errors:  a derived class's.
class NUV_API ConnectionStream
{
public:
    ConnectionStream() = default;
    ConnectionStream( const ConnectionStream& ) = delete;
    ConnectionStream& operator=( const ConnectionStream& ) = delete;
    virtual ~ConnectionStream();

    /// Borrowed, while the connection lives.
    std::istream* istreamPtr() { return istreamPtrImpl(); }
    std::ostream* ostreamPtr() { return ostreamPtrImpl(); }
    /// The peer's address text.
    const std::string& addressStr() const { return addressStrImpl(); }
    /// @param seconds that a read waits for bytes; 0: for ever
    void readIdleTimeoutInSeconds( unsigned int seconds )
    {
        readIdleTimeoutInSecondsImpl( seconds );
    }
    /// The input stream ends after so many bytes; 0: no limit. @return the previous limit
    int readLimit( int limit ) { return readLimitImpl( limit ); }
    /// The limit counts from here.
    void resetReadCounter() { resetReadCounterImpl(); }
    void close() { closeImpl(); }

protected:
    virtual std::istream* istreamPtrImpl() = 0;
    virtual std::ostream* ostreamPtrImpl() = 0;
    virtual const std::string& addressStrImpl() const = 0;
    virtual void readIdleTimeoutInSecondsImpl( unsigned int seconds ) = 0;
    virtual int readLimitImpl( int limit ) = 0;
    virtual void resetReadCounterImpl() = 0;
    virtual void closeImpl() = 0;
};

/// A connection over a TcpSocket.
///
/// Threads: one at a time; close() from any, it breaks off a read.
/// Errors:  operations on the streams' buffers throw SocketException; the streams' own operators
///          turn it into the bad state. A missing socket fails nuvAssert "myPtr != NULL".
/// Owns:    the socket, which its destructor closes.
class NUV_API TcpConnectionStream : public ConnectionStream
{
public:
    /// @param socketPtr connected; handed over
    /// @param address of the peer; its text without the port is kept
    /// @param outputSize, inputSize of the buffers, in bytes
    TcpConnectionStream( Utils::Ptr< TcpSocket > socketPtr, const IpAddress& address,
                         int outputSize, int inputSize );
    ~TcpConnectionStream() override;

    /// For a Timer that shall break the connection off: closes the socket.
    /// @param streamPtr a TcpConnectionStream; null fails nuvAssert "objPtr != NULL"
    static void timerCallback( Utils::Timer* timerPtr, void* streamPtr );

    /// For options; borrowed.
    TcpSocket* socketPtr() { return mySocketPtr.get(); }

protected:
    std::istream* istreamPtrImpl() override;
    std::ostream* ostreamPtrImpl() override;
    const std::string& addressStrImpl() const override;
    void readIdleTimeoutInSecondsImpl( unsigned int seconds ) override;
    int readLimitImpl( int limit ) override;
    void resetReadCounterImpl() override;
    void closeImpl() override;

private:
    Utils::Ptr< TcpSocket > mySocketPtr;
    std::string myAddressStr;
    SocketStreamBuf myStreamBuf;
    std::istream myIstream;
    std::ostream myOstream;
};

} // namespace Nuv::Net
