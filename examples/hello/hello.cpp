// The smallest application: logs one line into <root>/log/main.log and ends.

#include "nuvLog.h"
#include "nuvMainThread.h"
#include "nuvSignalHandler.h"

namespace {

/// The application's own zone; its severity, flags and drain come from <root>/etc/log.conf.
Nuv::Log::Source& log()
{
    static Nuv::Log::Source source( Nuv::Log::warning, "hello" );
    return source;
}

} // namespace

/// Runs on the library's thread "main"; its result is the program's exit status.
int Nuv::main( int argc, char** argv )
{
    nuvLogTo( log() ) << "hello, " << ( argc > 1 ? argv[1] : "world" );
    return 0;
}

int main( int argc, char** argv )
{
    Nuv::Mt::SignalHandler::singletonPtr(); // first, so that signals and crashes are taken care of
    return Nuv::Mt::startMainThread( argc, argv );
}
