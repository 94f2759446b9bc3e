// sensord, an example of a daemon: samples this machine's counters on a thread for each kind, logs
// through a zone for each, and obeys signals.
//
//     SIGTERM, SIGINT   ends
//     SIGHUP            reads etc/sensord.conf again
//     SIGUSR1           every sampler reports at warning

#include "sensors.h"

#include <nuvMainThread.h>
#include <nuvSignalHandler.h>
#include <nuvSubsystemInfo.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <iostream>

namespace {

using namespace Nuv;

/// From the command line.
unsigned int ourIntervalMs = 0; // 0: as configured
bool ourIsCrashing = false;

/// Turns signals into events that the main task waits for.
class Signals : public Utils::Observer< Mt::SignalHandler >
{
public:
    Signals() { Mt::SignalHandler::singletonPtr()->attach( this ); }
    Signals( const Signals& ) = delete;
    Signals& operator=( const Signals& ) = delete;
    ~Signals() override { Mt::SignalHandler::singletonPtr()->detach( this ); }

    void update( Mt::SignalHandler& handler ) override
    {
        const int sig = handler.signalNumber();
        if ( sig == SIGTERM || sig == SIGINT )
            myStop.signal();
        else if ( sig == SIGHUP )
            myReload.signal();
        else if ( sig == SIGUSR1 )
            myReport.signal();
        else
            return;
        handler.setSignalHandled();
    }

    enum Request
    {
        stop,
        reload,
        report
    };

    Request wait()
    {
        const std::vector< Mt::Event* > events = { &myStop, &myReload, &myReport };
        return static_cast< Request >(
            Mt::MultiEvent::waitOnEvents( events, Mt::Event::infinite ) );
    }

private:
    Mt::Event myStop;
    Mt::Event myReload;
    Mt::Event myReport;
};

void loadSettings( Sensor::Settings* settingsPtr )
{
    settingsPtr->load();
    if ( ourIntervalMs != 0 )
        settingsPtr->myIntervalMs = ourIntervalMs;
}

} // namespace

int Nuv::main( int, char** )
{
    const Log::Source source( Log::warning, "sensor" );
    Sensor::Settings settings;
    loadSettings( &settings );
    Signals signals;
    Sensor::NetSampler net( settings );
    Sensor::MemSampler mem( settings );
    Sensor::LoadSampler load( settings );
    Sensor::IrqSampler irq( settings );
    Sensor::Sampler* const samplers[] = { &net, &mem, &load, &irq };

    nuvLogTo( source ) << "sensord starts, a sample every " << settings.myIntervalMs << " ms";
    if ( ourIsCrashing )
        net.requestCrash();
    for ( Sensor::Sampler* samplerPtr : samplers )
        samplerPtr->start();
    std::cout << "sensord: ready" << std::endl;
    Mt::SubsystemInfo::threadletonPtr()->detail()->statusMessage( "sampling" );

    Signals::Request request = signals.wait();
    for ( ; request != Signals::stop; request = signals.wait() ) {
        if ( request == Signals::reload ) {
            loadSettings( &settings );
            nuvLogTo( source ) << "settings read again, a sample every " << settings.myIntervalMs
                               << " ms";
        } else {
            for ( Sensor::Sampler* samplerPtr : samplers )
                samplerPtr->requestReport();
        }
    }
    for ( Sensor::Sampler* samplerPtr : samplers )
        samplerPtr->requestExit();
    for ( Sensor::Sampler* samplerPtr : samplers )
        samplerPtr->waitForEnd();
    nuvLogTo( source ) << "sensord ends";
    return 0;
}

int main( int argc, char** argv )
{
    CLI::App app(
        "sensord: samples this machine's network, memory, load and interrupt counters and logs "
        "them.\nRuns in the foreground; SIGTERM ends it, SIGHUP makes it read "
        "etc/sensord.conf again, SIGUSR1 makes it report.",
        "sensord" );
    app.add_option( "--interval-ms", ourIntervalMs, "Pause between samples (else as configured)" )
        ->check( CLI::Range( 10u, 3600000u ) );
    app.add_flag( "--crash", ourIsCrashing, "Crash in the first sample, to show the crash report" );
    try {
        app.parse( argc, argv );
    } catch ( const CLI::ParseError& error ) {
        return app.exit( error ) == 0 ? 0 : 2;
    }
    Mt::SignalHandler::singletonPtr();
    return Mt::startMainThread( argc, argv );
}
