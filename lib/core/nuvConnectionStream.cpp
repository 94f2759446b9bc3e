#include "nuvConnectionStream.h"

#include <utility>

namespace Nuv::Net {

ConnectionStream::~ConnectionStream() = default;

TcpConnectionStream::TcpConnectionStream( Utils::Ptr< TcpSocket > socketPtr,
                                          const IpAddress& address, int outputSize, int inputSize )
    : mySocketPtr( std::move( socketPtr ) )
    , myAddressStr( address.asString() )
    , myStreamBuf( mySocketPtr.get(), outputSize, inputSize )
    , myIstream( &myStreamBuf )
    , myOstream( &myStreamBuf )
{
}

TcpConnectionStream::~TcpConnectionStream() = default;

void TcpConnectionStream::timerCallback( Utils::Timer*, void* streamPtr )
{
    TcpConnectionStream* const objPtr = static_cast< TcpConnectionStream* >( streamPtr );
    nuvAssert( objPtr != NULL );
    objPtr->close();
}

std::istream* TcpConnectionStream::istreamPtrImpl()
{
    return &myIstream;
}

std::ostream* TcpConnectionStream::ostreamPtrImpl()
{
    return &myOstream;
}

const std::string& TcpConnectionStream::addressStrImpl() const
{
    return myAddressStr;
}

void TcpConnectionStream::readIdleTimeoutInSecondsImpl( unsigned int seconds )
{
    myStreamBuf.readIdleTimeoutInSeconds( seconds );
}

int TcpConnectionStream::readLimitImpl( int limit )
{
    return myStreamBuf.readLimit( limit );
}

void TcpConnectionStream::resetReadCounterImpl()
{
    myStreamBuf.resetReadCounter();
}

void TcpConnectionStream::closeImpl()
{
    mySocketPtr->close();
}

} // namespace Nuv::Net
