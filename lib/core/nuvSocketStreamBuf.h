#pragma once

#include "nuvBuffer.h"
#include "nuvSocket.h"

#include <exception>
#include <streambuf>

namespace Nuv::Net {

/// Stream buffer with both directions, over what a derived class reads and writes.
///
/// A read limit makes the get side report the end of the stream after so many bytes. Four bytes can
/// be put back. Large reads and writes pass the buffers by.
///
/// Threads: one at a time.
/// Errors:  what read() and write() throw passes. A read that fails after the call has copied some
///          bytes gives these first; the next one throws.
/// Owns:    both buffers.
class NUV_API AbstractSocketStreamBuf : public std::streambuf
{
public:
    /// @param outputSize, inputSize bytes, at least 10 each (less is taken as 10)
    AbstractSocketStreamBuf( int outputSize, int inputSize );
    AbstractSocketStreamBuf( const AbstractSocketStreamBuf& ) = delete;
    AbstractSocketStreamBuf& operator=( const AbstractSocketStreamBuf& ) = delete;
    ~AbstractSocketStreamBuf() override;

    /// Writes the put area by one call of write().
    /// @return 0; -1 after a short write, the data being kept
    int flushBuffer();
    /// Sets the limit (0: none) and counts from what is buffered.
    /// @return the previous limit
    int readLimit( int limit );
    /// Counts anew from what is buffered; what of that is beyond the limit is dropped.
    void resetReadCounter();
    /// @param seconds 0: none
    void readIdleTimeoutInSeconds( unsigned int seconds )
    {
        readIdleTimeoutInSecondsImpl( seconds );
    }

protected:
    int sync() override;
    std::streamsize xsgetn( char* ptr, std::streamsize count ) override;
    int_type underflow() override;
    std::streamsize xsputn( const char* ptr, std::streamsize count ) override;
    int_type overflow( int_type c = traits_type::eof() ) override;

    /// @return number of bytes, not positive at the end of the stream
    virtual int read( char* ptr, int count ) = 0;
    /// @return number of bytes taken
    virtual int write( const char* ptr, int count ) = 0;
    virtual void readIdleTimeoutInSecondsImpl( unsigned int seconds ) = 0;

private:
    char* dataPtr();
    int inputSize() const;
    std::ptrdiff_t keepPutBack( const char* endPtr, std::ptrdiff_t count );
    int readCounted( char* ptr, std::streamsize count );
    bool writeDirectly( const char* ptr, std::streamsize count, std::streamsize* donePtr );

    Utils::Buffer myOutputBuffer;
    Utils::Buffer myInputBuffer; // the first bytes are the put-back area
    int myReadLimit = 0;
    int myReadCounter = 0;
    std::exception_ptr myPendingException;
};

/// The stream buffer of a TcpSocket, with an idle time-out for reads.
///
/// A read that brings nothing within the time-out closes the socket and throws SocketException
/// socketReadTimedOut. The reading thread keeps the time itself, so that a read with a time-out
/// costs neither another thread nor a wake-up of one.
///
/// Threads: one at a time; the socket may be closed by any.
/// Errors:  SocketException of the socket. What the destructor's sync throws is logged.
/// Owns:    nothing but its buffers; the socket is borrowed (null fails nuvAssert "mySocketPtr !=
///          NULL").
class NUV_API SocketStreamBuf : public AbstractSocketStreamBuf
{
public:
    SocketStreamBuf( TcpSocket* socketPtr, int outputSize, int inputSize );
    ~SocketStreamBuf() override;

protected:
    std::streamsize showmanyc() override;
    int read( char* ptr, int count ) override;
    int write( const char* ptr, int count ) override;
    void readIdleTimeoutInSecondsImpl( unsigned int seconds ) override;

private:
    TcpSocket* mySocketPtr;
    unsigned int myReadIdleTimeoutInSeconds = 0;
};

} // namespace Nuv::Net
