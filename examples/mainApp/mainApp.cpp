// mainApp, an example of a main application: asks the sensor for its status through its pipe, again
// and again, and commits what it learns as the main application's health record. SIGTERM ends it.

#include <nuvEvent.h>
#include <nuvGlobalHealthStatusAccessor.h>
#include <nuvMainThread.h>
#include <nuvPipe.h>
#include <nuvSignalHandler.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <iostream>

namespace {

using namespace Nuv;
using namespace Nuv::HealthAndSecurity;

unsigned int ourIntervalMs = 1000; // from the command line

class Stop : public Utils::Observer< Mt::SignalHandler >
{
public:
    Stop() { Mt::SignalHandler::singletonPtr()->attach( this ); }
    Stop( const Stop& ) = delete;
    Stop& operator=( const Stop& ) = delete;
    ~Stop() override { Mt::SignalHandler::singletonPtr()->detach( this ); }

    void update( Mt::SignalHandler& handler ) override
    {
        if ( handler.signalNumber() != SIGTERM && handler.signalNumber() != SIGINT )
            return;
        handler.setSignalHandled();
        myEvent.signal();
    }

    bool wait( unsigned int timeoutMs ) { return myEvent.wait( timeoutMs ); }

private:
    Mt::Event myEvent;
};

/// @return whether the sensor answered
bool ask( Io::ClientPipe* pipePtr, std::string* answerPtr )
{
    constexpr unsigned int connectMs = 1000;
    constexpr unsigned int answerSec = 2;
    try {
        Utils::Buffer answer;
        pipePtr->connect( connectMs, true );
        pipePtr->writeMsg( Utils::Buffer( "status" ) );
        pipePtr->readMsg( &answer, answerSec );
        pipePtr->disconnect();
        *answerPtr = "sensor ";
        *answerPtr += answer.view().substr( 0, answer.view().find_first_of( ",\n" ) );
        return true;
    } catch ( const RuntimeException& exception ) {
        *answerPtr = std::string( "the sensor does not answer: " ) + exception.what();
        return false;
    }
}

} // namespace

int Nuv::main( int, char** )
{
    constexpr unsigned int handshakeMs = 2000; // a sensor that died is to be known soon
    Stop stop;
    MainAppStatusSetter setter;
    Io::CtConfig::handshakeTimeoutMs = handshakeMs;
    Io::ClientPipe pipe( "sensord" );
    setter.setExecutionState( stateStarting );
    setter.commitToSharedMemory();
    std::cout << "mainApp: ready" << std::endl;
    unsigned int nbrOfAnswers = 0;
    unsigned int nbrOfFailures = 0;
    do {
        std::string text;
        const bool isAnswered = ask( &pipe, &text );
        ++( isAnswered ? nbrOfAnswers : nbrOfFailures );
        setter.setExtendedExecutionStatus( isAnswered ? stateRunning : stateDegraded, nbrOfAnswers,
                                           nbrOfFailures, 0, 0, text.c_str() );
        setter.commitToSharedMemory();
    } while ( !stop.wait( ourIntervalMs ) );
    setter.setExecutionState( stateStopped );
    setter.commitToSharedMemory();
    return 0;
}

int main( int argc, char** argv )
{
    CLI::App app( "mainApp: asks the sensor for its status and commits the main application's "
                  "health record.\nRuns in the foreground; SIGTERM ends it.",
                  "mainApp" );
    app.add_option( "--interval-ms", ourIntervalMs, "Pause between two questions" )
        ->check( CLI::Range( 10u, 3600000u ) );
    try {
        app.parse( argc, argv );
    } catch ( const CLI::ParseError& error ) {
        return app.exit( error ) == 0 ? 0 : 2;
    }
    Nuv::Mt::SignalHandler::singletonPtr();
    return Nuv::Mt::startMainThread( argc, argv );
}
