#pragma once

#include "nuvBuffer.h"
#include "nuvLog.h"
#include "nuvPipeFrame.h"
#include "nuvSemaphore.h"
#include "nuvString.h"
#include "nuvUtils.h"

#include <atomic>
#include <cstdint>

namespace Nuv::Utils {
template < class T >
class Singleton;
}

namespace Nuv::Io {

/// Settings of the process's pipes.
///
/// A process whose application never calls CtConfig::singletonPtr() keeps the initial values.
class NUV_API CtConfig
{
public:
    /// Reads "etc/mainApp.conf" under the installation root, once: key "maxWaitTimeForPipeRead" of
    /// the section "ControlTransaction", default 30, becomes maxPipeReadWaitTimeInSec.
    static CtConfig* singletonPtr();

    /// Seconds: read time-out of servers, drain time-out of both sides.
    static std::atomic< unsigned int > maxPipeReadWaitTimeInSec;
    /// Milliseconds that one side waits for the other's next step in a handshake.
    static std::atomic< unsigned int > handshakeTimeoutMs;

private:
    friend class Utils::Singleton< CtConfig >;
    CtConfig();
    ~CtConfig() = default;
};

/// What the two ends of a pipe have in common: names, semaphores, descriptors, frames.
///
/// A pipe of the name N is two FIFOs and two named semaphores in the interprocess directory:
///
/// | object                              | written by | read by |
/// |-------------------------------------|------------|---------|
/// | FIFO "pipe_toSrvr_" + N             | client     | server  |
/// | FIFO "pipe_fmSrvr_" + N             | server     | client  |
/// | semaphore "pipe_SrvrConnect_" + N   | posted by the server, initial count 0 |
/// | semaphore "pipe_ClntConnect_" + N   | posted by the client, initial count 0 |
///
/// Cost:    a message that fits the FIFO is one gathered write and two reads. A read that finds
///          nothing tries 128 times more, some 30 us, before it waits, if the machine has several
///          processors.
class NUV_API PipeEnd
{
public:
    PipeEnd( const PipeEnd& ) = delete;
    PipeEnd& operator=( const PipeEnd& ) = delete;

    bool isConnected() const { return myInFd.isValid() && myOutFd.isValid(); }
    const Utils::String& inPipeName() const { return myInPipeNameStr; }
    const Utils::String& outPipeName() const { return myOutPipeNameStr; }

    /// Messages of more bytes are refused by readMsg(); 64 MiB at first. Process-wide.
    static void maxMessageSize( std::uint32_t nbrOfBytes ) { PipeFrame::maxDataSize( nbrOfBytes ); }

protected:
    PipeEnd( const char* classNamePtr, const char* namePtr, bool isServer );
    ~PipeEnd() = default;

    void logStep( const char* textPtr, const char* functionPtr ) const;
    void logOpenError( const char* textPtr, const Utils::String& pathname, int errorNbr ) const;
    /// Waits for the other side's step. @return false when it did not come in time
    bool waitForPeer( Mt::Semaphore* semaphorePtr ) const;
    bool openIn();
    bool openOut();
    void close();

    const char* myClassNamePtr;
    Log::SourceSet mySources;
    Utils::String myInPipeNameStr;
    Utils::String myOutPipeNameStr;
    Utils::Handle myInFd;  // non-blocking
    Utils::Handle myOutFd; // blocking
    Mt::Semaphore myServerConnectSema;
    Mt::Semaphore myClientConnectSema;
    PipeFrame myFrame;
};

/// The end that makes the FIFOs and serves one client at a time.
///
/// | state        | connect()                | readMsg(), writeMsg() | disconnect()      |
/// |--------------|--------------------------|-----------------------|-------------------|
/// | disconnected | waits for a client       | Exception             | waits for nobody  |
/// | connected    | as disconnected          | one frame             | to disconnected   |
///
/// connect() waits without limit for a client to ask; from then on every step of either handshake
/// waits for the other side CtConfig::handshakeTimeoutMs (30 s) at most, so that a client that was
/// killed is an error, not a hang. stop() ends the waits that have no limit.
///
/// Threads: one at a time; stop() from any.
/// Errors:  Exception as each member says, after a line in the zone "IoPipe" at error severity; a
///          write into a pipe whose reader has gone is one, SIGPIPE ends nobody.
/// Owns:    the FIFOs, which its destructor removes. A killed server leaves them behind, and its
///          name in use; `nuvctl ipc doctor` tells them from a live server's, which holds an O_PATH
///          descriptor on the FIFO to it, and `nuvctl ipc repair` removes them.
/// Example: ServerPipe p( "control" ); p.connect(); p.readMsg( &m ); p.writeMsg( answer );
///          p.disconnect();
class NUV_API ServerPipe : public PipeEnd
{
public:
    /// Reason 0, error number 0.
    class NUV_API Exception : public RuntimeException
    {
    public:
        using RuntimeException::RuntimeException;
    };

    /// What the handshakes with an earlier server, that was killed, left in the semaphores is
    /// taken out.
    /// @throws Exception "The specified Io::ServerPipe name is already in use." if a FIFO cannot be
    ///         made
    explicit ServerPipe( const char* namePtr );
    ~ServerPipe();

    /// @throws Exception "The connect to the specified Io::ServerPipe failed."
    void connect();
    void disconnect();

    /// Waits without limit for a connected client's next message; from its first byte on, and while
    /// no client is connected, CtConfig::maxPipeReadWaitTimeInSec without a byte is the end.
    /// @throws PipeReadTimeoutException, PipeDataValidationException; Exception "The read from the
    ///         specified Io::ServerPipe failed." (also for a message above the limit)
    void readMsg( Utils::Buffer* messagePtr );
    /// @throws Exception "The write to the specified Io::ServerPipe failed."
    void writeMsg( const Utils::Buffer& message );
    /// Empties the incoming FIFO after a failed read; does not wait for a connected client.
    /// @throws Exception "Failed to clear contents from the specified Io::ServerPipe."
    void drainPipe();

    /// For a daemon that is to end: connect() and readMsg() that wait throw their Exception, the
    /// latter within a second; so do all later ones that would have to wait.
    void stop();

private:
    bool myIsStopTaken = false; // connect() has consumed what stop() posted
    Utils::Handle myMark;       // O_PATH on the FIFO to the server: a live server's sign
};

/// The end that connects to an existing server.
///
/// Threads: one at a time.
/// Errors:  Exception as each member says, after a line in the zone "IoPipe" at error severity.
/// Owns:    its semaphores' use and its descriptors; it makes and removes no FIFO.
/// Example: ClientPipe p( "control" ); p.connect( 5000, false ); p.writeMsg( m );
///          p.readMsg( &answer, 30 );
class NUV_API ClientPipe : public PipeEnd
{
public:
    /// Reason 0, error number 0.
    class NUV_API Exception : public RuntimeException
    {
    public:
        using RuntimeException::RuntimeException;
    };

    explicit ClientPipe( const char* namePtr );
    ~ClientPipe() = default;

    /// A process that is killed within it leaves the server free for the next client, at the latest
    /// after one failed connect() of that server.
    /// Clients that come while another one is connected wait for their turn.
    /// @param timeoutMs for this client's turn and a server to be available; the steps after that
    ///        wait as the server's do
    /// @param quiet no line at error severity when no server is available in time
    /// @throws Exception "The connect to the specified Io::ClientPipe failed."
    void connect( unsigned int timeoutMs, bool quiet );
    /// Waits for the server to disconnect, at most CtConfig::handshakeTimeoutMs; for nobody if this
    /// client is not connected.
    void disconnect();
    /// Ends the way to the server alone: its next read finds no writer.
    void disconnectWriter();

    /// @param timeoutSec without a byte, counted from the call
    /// @throws PipeReadTimeoutException, PipeDataValidationException; Exception "The read from the
    ///         specified Io::ServerPipe failed." (also for a message above the limit)
    void readMsg( Utils::Buffer* messagePtr, unsigned int timeoutSec );
    /// @throws Exception "The write to the specified Io::ClientPipe failed."
    void writeMsg( const Utils::Buffer& message );
    /// @throws Exception "Failed to clear contents from the specified Io::ClientPipe."
    void drainPipe();

private:
    Utils::Handle myTurn; // no other client has it; from connect() to disconnect()
};

} // namespace Nuv::Io
