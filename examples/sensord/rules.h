#pragma once

#include <nuvEvent.h>
#include <nuvHttpRequest.h>
#include <nuvLog.h>
#include <nuvMutex.h>
#include <nuvThreadedTask.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace Sensor {

/// Keeps the file "rules" in the root directory as a web server has it: on a thread of its own,
/// which asks again after an interval, goes on where a download was broken off, and replaces the
/// file only by a whole one.
///
/// What an operator may set in "etc/sensord.conf":
///
/// | section | key       | default | meaning                                                     |
/// |---------|-----------|---------|-------------------------------------------------------------|
/// | rules   | uri       |         | http://HOST[:PORT]/PATH; empty: no rules are fetched        |
/// | rules   | intervalS | 3600    | seconds until the server is asked again, at least 1         |
/// | rules   | timeoutS  | 10      | seconds to connect, and without a byte, at least 1          |
///
/// Threads: any.
/// Errors:  none; the zone "rules" has them, and status() the last one.
/// Cost:    a stop breaks off connecting and reading; only the look-up of a host's name holds it.
class Rules
{
public:
    Rules();
    Rules( const Rules& ) = delete;
    Rules& operator=( const Rules& ) = delete;
    /// Stops.
    ~Rules();

    void start();
    /// The settings are read again, and the server is asked at once.
    void reload();
    std::string status() const;

private:
    struct Source
    {
        std::string myUri;
        std::string myHost; ///< as the request names it
        std::string myHostName;
        std::string myPath; ///< with the query
        std::uint16_t myPort = 80;
        unsigned int myIntervalS = 0;
        unsigned int myTimeoutS = 0;
        std::string myFault; ///< why it cannot be fetched
    };
    enum Outcome
    {
        failed,
        unchanged, ///< since it was fetched
        fetched
    };
    using Connection = std::unique_ptr< Nuv::Net::TcpConnectionStream >;

    static Source loadSource();
    void run();
    bool fetch( const Source& source );
    Outcome fetchInto( std::ostream* outputPtr, const Source& source );
    void transfer( Nuv::Net::HttpGetRequest* requestPtr, Connection* connectionPtr,
                   std::ostream* outputPtr, const Source& source );
    void resume( Nuv::Net::HttpGetRequest* requestPtr, Connection* connectionPtr,
                 std::ostream* outputPtr, const Source& source );
    Connection connectTo( const Source& source );
    void setSocket( Nuv::Net::TcpSocket* socketPtr );
    void tell( Nuv::Log::Severity severity, const std::string& text );
    bool isInterrupted() const { return myIsStopping || myIsReloading; }

    Nuv::Log::SourceSet mySources;
    std::string myLastModified; // of the file that is there, fetched from myFetchedUri
    std::string myFetchedUri;
    std::atomic< bool > myIsStopping = false;
    std::atomic< bool > myIsReloading = false;
    std::atomic< unsigned int > myNbrOfFetches = 0;
    std::atomic< unsigned int > myNbrOfResumptions = 0;
    Nuv::Mt::Event myWake;
    mutable Nuv::Mt::Mutex myMutex;
    Nuv::Net::TcpSocket* mySocketPtr = nullptr; // in use, by myMutex
    std::string myLast;                         // by myMutex
    Nuv::Utils::Ptr< Nuv::Mt::ThreadedTask > myTaskPtr;
};

} // namespace Sensor
