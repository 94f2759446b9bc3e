// sensord, an example of a daemon: samples this machine's counters on a thread for each kind, logs
// through a zone for each, and obeys signals.
//
//     SIGTERM, SIGINT   ends
//     SIGHUP            reads etc/sensord.conf again
//     SIGUSR1           every sampler reports at warning
//
// With --control it is the appliance's sensor: it answers control messages through the server pipe
// "sensord", commits the sensor's health record, feeds a helper program, and fetches its rules from
// a web server.

#include "control.h"
#include "health.h"
#include "helper.h"
#include "rules.h"
#include "sensors.h"

#include <nuvGlobal.h>
#include <nuvMainThread.h>
#include <nuvPathname.h>
#include <nuvScheduler.h>
#include <nuvSignalHandler.h>
#include <nuvSubsystemInfo.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <iostream>
#include <memory>

namespace {

using namespace Nuv;

/// From the command line.
unsigned int ourIntervalMs = 0; // 0: as configured
bool ourIsCrashing = false;
bool ourHasControl = false;

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
        none = -1,
        stop,
        reload,
        report
    };

    /// @return none when the time is over
    Request wait( unsigned int timeoutMs )
    {
        const std::vector< Mt::Event* > events = { &myStop, &myReload, &myReport };
        return static_cast< Request >( Mt::MultiEvent::waitOnEvents( events, timeoutMs ) );
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

std::string platformText()
{
    const Utils::Global& global = *Utils::Global::singletonPtr();
    std::string text = "model " + ( global.model().empty() ? "unknown" : global.model() );
    for ( const std::string& name : global.capabilities() )
        text += " " + name;
    return text + "\n";
}

/// What an instance with --control does besides.
class Station
{
public:
    Station( const Sensor::Settings& settings, std::function< void() > report );

    /// Feeds the helper and commits the health record.
    void update();
    /// The settings have changed.
    void reload() { myRules.reload(); }
    /// The last commit.
    void end() { commit( HealthAndSecurity::stateStopped, "stopped" ); }

private:
    Sensor::Health::Activity activity() const;
    void commit( HealthAndSecurity::ExtendedExecutionStates state, const char* textPtr )
    {
        myHealth.commit( state, activity(), textPtr );
    }
    std::string status() const;

    const Sensor::Settings& mySettings;
    Sensor::Health myHealth;
    Sensor::Helper myHelper;
    Utils::Scheduler mySummary; // has the samplers report four times a day
    Sensor::Rules myRules;
    Sensor::Control myControl; // the last: its thread uses the others
};

Station::Station( const Sensor::Settings& settings, std::function< void() > report )
    : mySettings( settings )
    , myHelper( Io::Pathname(
                    Io::Pathname( Io::Pathname( Io::Pathname::executablePathname ).parentStr() ),
                    "sensordHelper" )
                    .str() )
    , mySummary( [report]( Utils::Scheduler* ) { return report(), 0; },
                 "Mon|Tue|Wed|Thu|Fri|Sat|Sun", "0:00:00|6:00:00|12:00:00|18:00:00", "summary" )
{
    Io::CtConfig::singletonPtr();
    commit( HealthAndSecurity::stateStarting, "starting" );
    myControl.add( "status", [this] { return status(); } );
    myControl.add( "model", platformText );
    myControl.add( "counters", [this] { return myHealth.counters(); } );
    myControl.add( "averages", [this] { return myHelper.averages(); } );
    myControl.add( "rules", [this] { return myRules.status(); } );
    myControl.add( "schedule", [this] {
        return mySummary.showSchedule() + "\n" + mySummary.showSecondsUntilNextCallback() + "\n";
    } );
    myControl.add( "kill-helper", [this] {
        return myHelper.kill() ? "the helper is killed; it will be started anew\n"
                               : "the helper does not run\n";
    } );
    myControl.add( "report", [report = std::move( report )] {
        report();
        return "the samplers report to the log\n";
    } );
    myRules.start();
    myControl.start();
}

Sensor::Health::Activity Station::activity() const
{
    return { mySettings.myIntervalMs, myControl.nbrOfMessages(), myHelper.nbrOfRestarts(),
             myHelper.pid() };
}

void Station::update()
{
    myHelper.feed( myHealth.counters() );
    const bool isWell = myHelper.pid() != 0;
    commit( isWell ? HealthAndSecurity::stateRunning : HealthAndSecurity::stateDegraded,
            isWell ? "sampling" : "without its helper" );
}

std::string Station::status() const
{
    const Sensor::Health::Activity now = activity();
    return "running, a commit every " + std::to_string( now.myIntervalMs ) + " ms, " +
           std::to_string( now.myNbrOfMessages ) + " messages, helper " +
           ( now.myHelperPid != 0 ? std::to_string( now.myHelperPid ) : "down" ) + ", " +
           std::to_string( now.myNbrOfRestarts ) + " restarts\n" + platformText();
}

/// Does what signals ask for, until they ask for the end.
void obey( Signals* signalsPtr, Sensor::Settings* settingsPtr, Station* stationPtr,
           const std::function< void() >& report )
{
    const Log::Source source( Log::warning, "sensor" );
    for ( ;; ) {
        if ( stationPtr != nullptr )
            stationPtr->update();
        const unsigned int timeoutMs =
            stationPtr != nullptr ? settingsPtr->myIntervalMs.load() : Mt::Event::infinite;
        const Signals::Request request = signalsPtr->wait( timeoutMs );
        if ( request == Signals::stop )
            return;
        if ( request == Signals::report )
            report();
        if ( request == Signals::reload ) {
            loadSettings( settingsPtr );
            if ( stationPtr != nullptr )
                stationPtr->reload();
            nuvLogTo( source ) << "settings read again, a sample every "
                               << settingsPtr->myIntervalMs << " ms";
        }
    }
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
    const auto report = [&samplers] {
        for ( Sensor::Sampler* samplerPtr : samplers )
            samplerPtr->requestReport();
    };
    std::unique_ptr< Station > stationPtr;
    try {
        if ( ourHasControl )
            stationPtr = std::make_unique< Station >( settings, report );
    } catch ( const Io::ServerPipe::Exception& exception ) {
        std::cerr << "sensord: " << exception.what() << " (nuvctl ipc doctor tells whose it is)"
                  << std::endl;
        return 1;
    }

    nuvLogTo( source ) << "sensord starts, a sample every " << settings.myIntervalMs << " ms";
    for ( Sensor::Sampler* samplerPtr : samplers )
        samplerPtr->start();
    std::cout << "sensord: ready" << std::endl;
    if ( ourIsCrashing )
        net.requestCrash();
    Mt::SubsystemInfo::threadletonPtr()->detail()->statusMessage( "sampling" );

    obey( &signals, &settings, stationPtr.get(), report );
    for ( Sensor::Sampler* samplerPtr : samplers )
        samplerPtr->requestExit();
    for ( Sensor::Sampler* samplerPtr : samplers )
        samplerPtr->waitForEnd();
    if ( stationPtr )
        stationPtr->end();
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
    app.add_flag( "--control", ourHasControl,
                  "Be the sensor: server pipe \"sensord\", health record, helper program, rules" );
    app.add_flag( "--crash", ourIsCrashing,
                  "Crash in one of the first samples, to show the crash report" );
    try {
        app.parse( argc, argv );
    } catch ( const CLI::ParseError& error ) {
        return app.exit( error ) == 0 ? 0 : 2;
    }
    Mt::SignalHandler::singletonPtr();
    return Mt::startMainThread( argc, argv );
}
