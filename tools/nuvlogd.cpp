// nuvlogd, the log application: moves the lines of all processes from the interprocess FIFO into
// the log file.

#include "nuvlogdCollector.h"

#include "nuvConfig.h"
#include "nuvLogConfigManager.h"
#include "nuvMainThread.h"
#include "nuvPathname.h"
#include "nuvSignalHandler.h"
#include "nuvUtils.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <sys/file.h>
#include <unistd.h>

namespace {

using namespace Nuv;

enum Status
{
    good = 0,
    problem = 1,
    wrongUsage = 2
};

int complain( const std::string& text )
{
    std::cerr << "nuvlogd: " << text << std::endl;
    return problem;
}

/// Held by the one log application of the installation; the system releases it with the process,
/// however that ends.
class OnlyInstance
{
public:
    OnlyInstance()
        : myPath( Io::Pathname( Io::Pathname::rootDirectory, "tmp/nuvlogd.lock" ).str() )
        , myFile( Utils::retryOnEintr(
              [this] { return ::open( myPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660 ); } ) )
    {
        myIsHeld = myFile.isValid() && Utils::retryOnEintr( [this] {
                                           return ::flock( myFile.fd(), LOCK_EX | LOCK_NB );
                                       } ) == 0;
        if ( !myIsHeld )
            return;
        const std::string pid = std::to_string( ::getpid() ) + "\n";
        // Only for the message of a second instance.
        if ( ::ftruncate( myFile.fd(), 0 ) == 0 )
            Utils::retryOnEintr(
                [&] { return ::pwrite( myFile.fd(), pid.data(), pid.size(), 0 ); } );
    }

    bool isHeld() const { return myIsHeld; }

    std::string reason() const
    {
        if ( !myFile.isValid() )
            return "cannot open " + myPath;
        char pid[16] = {};
        Utils::retryOnEintr( [&] { return ::pread( myFile.fd(), pid, sizeof( pid ) - 1, 0 ); } );
        return "already runs as process " + std::to_string( std::atoi( pid ) );
    }

private:
    const std::string myPath;
    Utils::Handle myFile;
    bool myIsHeld = false;
};

class Signals : public Utils::Observer< Mt::SignalHandler >
{
public:
    explicit Signals( LogApp::Collector* collectorPtr )
        : myCollectorPtr( collectorPtr )
    {
        Mt::SignalHandler::singletonPtr()->attach( this );
    }
    Signals( const Signals& ) = delete;
    Signals& operator=( const Signals& ) = delete;
    ~Signals() override { Mt::SignalHandler::singletonPtr()->detach( this ); }

    void update( Mt::SignalHandler& handler ) override
    {
        const int sig = handler.signalNumber();
        if ( sig == SIGTERM || sig == SIGINT )
            myCollectorPtr->requestStop();
        else if ( sig == SIGHUP || sig == SIGUSR1 )
            myCollectorPtr->requestStatus();
        else
            return;
        handler.setSignalHandled();
    }

private:
    LogApp::Collector* myCollectorPtr;
};

int collect()
{
    const Io::Pathname configFile( Io::Pathname::rootDirectory, "etc/log.conf" );
    const Utils::Config config( configFile.str() );
    if ( config.stringValue( "logApp", "enabled", "false" ) != "true" )
        return complain( "the log application is not enabled: " + configFile.str() +
                         " needs \"enabled = true\" in section logApp" );
    const OnlyInstance onlyInstance;
    if ( !onlyInstance.isHeld() )
        return complain( onlyInstance.reason() );
    Log::Drain* const drainPtr = Log::ConfigManager::singletonPtr()->logAppDrainPtr();
    if ( drainPtr->options().type != Log::Drain::Options::file )
        return complain( "the log file " + drainPtr->options().fileName + " cannot be opened" );
    LogApp::Collector collector( Log::LogAppHelper::interprocessFifoPtr(), drainPtr,
                                 config.stringValue( "logApp", "fifoName", "logAppFifo" ) );
    const Signals signals( &collector );
    std::cout << "nuvlogd: ready" << std::endl;
    collector.run();
    return good;
}

} // namespace

int Nuv::main( int, char** )
try {
    return collect();
} catch ( const RuntimeException& exception ) {
    return complain( exception.what() );
} catch ( const FixedTextException& exception ) {
    return complain( exception.what() );
}

int main( int argc, char** argv )
{
    CLI::App app(
        "nuvlogd, the log application: moves the log lines of all processes from the "
        "interprocess FIFO into the log file.\n"
        "Runs in the foreground. SIGTERM and SIGINT: takes what the FIFO still holds, then "
        "ends. SIGHUP and SIGUSR1: writes a status line into the log.\n"
        "Exit status: 0 stopped by a signal, 1 cannot work, 2 wrong usage.",
        "nuvlogd" );
    try {
        app.parse( argc, argv );
    } catch ( const CLI::ParseError& error ) {
        return app.exit( error ) == 0 ? good : wrongUsage;
    }
    Nuv::Mt::SignalHandler::singletonPtr();
    return Nuv::Mt::startMainThread( argc, argv );
}
