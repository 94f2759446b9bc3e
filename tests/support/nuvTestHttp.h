#pragma once

#include "nuvConnectionStream.h"

#include <atomic>
#include <functional>
#include <istream>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace NuvTest {

/// A connection whose peer has answered before it was asked.
class MemoryConnection : public Nuv::Net::ConnectionStream
{
public:
    explicit MemoryConnection( const std::string& answer, std::string address = "10.1.2.3" )
        : myInput( answer )
        , myAddress( std::move( address ) )
    {
    }

    std::string sent() const { return myOutput.str(); }
    std::string notRead() { return std::string( std::istreambuf_iterator< char >( myInput ), {} ); }

    unsigned int idleTimeout = 0;

protected:
    std::istream* istreamPtrImpl() override { return &myInput; }
    std::ostream* ostreamPtrImpl() override { return &myOutput; }
    const std::string& addressStrImpl() const override { return myAddress; }
    void readIdleTimeoutInSecondsImpl( unsigned int seconds ) override { idleTimeout = seconds; }
    int readLimitImpl( int ) override { return 0; }
    void resetReadCounterImpl() override {}
    void closeImpl() override {}

private:
    std::istringstream myInput;
    std::ostringstream myOutput;
    std::string myAddress;
};

/// A server on loopback that follows a script: for each connection, one after the other, a list of
/// steps. Its destructor ends it wherever it is.
class ScriptedServer
{
public:
    struct Peer
    {
        int fd = -1;
        ScriptedServer& server;

        /// Reads head and body of one request. @return false at the end of the stream
        bool readRequest() const;
        void send( const std::string& bytes ) const;
        /// Each byte as a packet of its own.
        void sendSlowly( const std::string& bytes ) const
        {
            for ( const char c : bytes )
                send( std::string( 1, c ) );
        }
        /// Makes the closing of the connection a reset.
        void reset() const
        {
            const linger atOnce{ 1, 0 };
            ::setsockopt( fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof( atOnce ) );
        }
        /// Until the client closes, or the server ends.
        void stall() const
        {
            while ( readRequest() ) {
            }
        }
    };
    using Script = std::function< void( const Peer& ) >;

    /// @param scripts one for each connection; the last one serves all others
    explicit ScriptedServer( std::vector< Script > scripts )
        : myScripts( std::move( scripts ) )
    {
        myListener.bind( Nuv::Net::IpV4Address( 0, 0x7F000001u ) );
        myListener.listen( 16 );
        myListener.getLocalAddr( &myAddressPtr );
        const timeval timeout{ 0, 20000 };
        myListener.soRcvTimeOut( timeout );
        myThread = std::thread( [this] { run(); } );
    }
    ScriptedServer( const ScriptedServer& ) = delete;
    ScriptedServer& operator=( const ScriptedServer& ) = delete;
    ~ScriptedServer()
    {
        myEnds = true;
        myThread.join();
    }

    const Nuv::Net::IpAddress& address() const { return *myAddressPtr; }
    std::vector< std::string > requests() const
    {
        const std::lock_guard< std::mutex > lock( myMutex );
        return myRequests;
    }

private:
    void run();

    std::vector< Script > myScripts;
    Nuv::Net::TcpSocket myListener{ AF_INET, SOCK_STREAM, 0 };
    Nuv::Utils::Ptr< Nuv::Net::IpAddress > myAddressPtr;
    std::atomic< bool > myEnds = false;
    mutable std::mutex myMutex;
    std::vector< std::string > myRequests;
    std::thread myThread;
};

inline void ScriptedServer::run()
{
    for ( std::size_t i = 0; !myEnds; ) {
        Nuv::Utils::Ptr< Nuv::Net::TcpSocket > peerPtr;
        Nuv::Utils::Ptr< Nuv::Net::IpAddress > addressPtr;
        try {
            myListener.accept( &peerPtr, &addressPtr );
            peerPtr->tcpNoDelay( true );
            peerPtr->soRcvTimeOut( { 0, 20000 } );
            myScripts[std::min( i++, myScripts.size() - 1 )]( { peerPtr->socketFd(), *this } );
        } catch ( const Nuv::Net::SocketException& ) {
            // time to look whether it ends
        }
    }
}

inline bool ScriptedServer::Peer::readRequest() const
{
    std::string request;
    for ( std::size_t end = std::string::npos; request.size() < end; ) {
        char c = 0;
        const ssize_t n = ::recv( fd, &c, 1, 0 );
        if ( n < 0 && ( errno == EAGAIN || errno == EINTR ) && !server.myEnds )
            continue;
        if ( n <= 0 )
            return false;
        request.push_back( c );
        if ( end != std::string::npos || !request.ends_with( "\r\n\r\n" ) )
            continue;
        const std::size_t at = request.find( "Content-Length: " );
        end = request.size() +
              ( at == std::string::npos ? 0 : std::stoul( request.substr( at + 16 ) ) );
    }
    const std::lock_guard< std::mutex > lock( server.myMutex );
    server.myRequests.push_back( request );
    return true;
}

inline void ScriptedServer::Peer::send( const std::string& bytes ) const
{
    for ( std::size_t done = 0; done < bytes.size() && !server.myEnds; ) {
        const ssize_t n = ::send( fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL );
        if ( n <= 0 )
            return;
        done += static_cast< std::size_t >( n );
    }
}

} // namespace NuvTest
