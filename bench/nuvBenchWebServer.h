#pragma once

#include "nuvBenchLog.h"

#include "nuvSocket.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <stdexcept>
#include <string>

namespace NuvBench {

/// nginx on loopback, with files of its own, on core 1; made before the first benchmark asks for it
/// and gone at exit.
///
/// | path                  | answer            |
/// |-----------------------|-------------------|
/// | /1k, /1m              | 1 KiB, 1 MiB      |
/// | /cgi-bin/sys-server   | "ok" for any POST |
class WebServer
{
public:
    static const WebServer& instance()
    {
        static const WebServer ourServer;
        return ourServer;
    }

    Nuv::Net::IpV4Address address() const
    {
        return { myPort, static_cast< std::uint32_t >( INADDR_LOOPBACK ), AF_INET };
    }
    unsigned short port() const { return myPort; }
    std::string uri( const std::string& path ) const
    {
        return "http://127.0.0.1:" + std::to_string( myPort ) + path;
    }

private:
    WebServer()
        : myPort( freePort() )
        , myFolder( LogRoot::path( "web" ) )
        , myConfigured( writeFiles() )
        , myProcess( [this] {
            const std::string config = myFolder + "/nginx.conf";
            const int nullFd = ::open( "/dev/null", O_WRONLY );
            ::dup2( nullFd, 2 );
            ::execlp( "nginx", "nginx", "-p", myFolder.c_str(), "-c", config.c_str(), nullptr );
            ::execl( "/usr/sbin/nginx", "nginx", "-p", myFolder.c_str(), "-c", config.c_str(),
                     nullptr );
        } )
    {
        for ( int i = 0; i < 500; ++i ) {
            try {
                Nuv::Net::TcpSocket socket( AF_INET, SOCK_STREAM, 0 );
                socket.connect( address() );
                return;
            } catch ( const Nuv::Net::SocketException& ) {
                ::usleep( 10000 );
            }
        }
        throw std::runtime_error( "nginx does not answer" );
    }

    static unsigned short freePort()
    {
        Nuv::Net::TcpSocket socket( AF_INET, SOCK_STREAM, 0 );
        socket.bind(
            Nuv::Net::IpV4Address( 0, static_cast< std::uint32_t >( INADDR_LOOPBACK ), AF_INET ) );
        Nuv::Utils::Ptr< Nuv::Net::IpAddress > addressPtr;
        socket.getLocalAddr( &addressPtr );
        return addressPtr->port();
    }

    bool writeFiles() const
    {
        std::filesystem::create_directories( myFolder + "/files" );
        std::ofstream( myFolder + "/files/1k" ) << std::string( 1024, 'x' );
        std::ofstream( myFolder + "/files/1m" ) << std::string( 1024 * 1024, 'x' );
        std::ofstream( myFolder + "/nginx.conf" )
            << "daemon off; master_process off; pid " << myFolder << "/pid;\n"
            << "error_log /dev/null; events {}\nhttp {\n"
            << "access_log off; keepalive_requests 100000000; sendfile on; tcp_nopush on;\n"
            << "client_body_temp_path " << myFolder << "/body; proxy_temp_path " << myFolder
            << "/proxy;\nfastcgi_temp_path " << myFolder << "/fastcgi; uwsgi_temp_path " << myFolder
            << "/uwsgi; scgi_temp_path " << myFolder << "/scgi;\n"
            << "server { listen 127.0.0.1:" << myPort << "; root " << myFolder << "/files;\n"
            << "location /cgi-bin/ { return 200 ok; } } }\n";
        return true;
    }

    const unsigned short myPort;
    const std::string myFolder;
    const bool myConfigured;
    const OtherSide myProcess;
};

} // namespace NuvBench
