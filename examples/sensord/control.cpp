#include "control.h"

namespace Sensor {

using namespace Nuv;

Control::Control()
    : mySources( "control" )
    , myUnknownCommands( mySources, "unknown command", 2 )
    , myPipe( "sensord" )
{
    add( "help", [this] {
        std::string all;
        for ( const auto& [command, function] : myFunctions )
            all += command + "\n";
        return all;
    } );
}

Control::~Control()
{
    myIsStopping = true;
    myPipe.stop();
    if ( myTaskPtr )
        myTaskPtr->waitForTaskCompletion( Mt::ThreadedTask::infinite );
}

void Control::add( const std::string& command, std::function< std::string() > function )
{
    myFunctions[command] = std::move( function );
}

void Control::start()
{
    const auto function = []( Mt::ThreadedTask*, void* controlPtr ) {
        static_cast< Control* >( controlPtr )->run();
        return 0u;
    };
    myTaskPtr = new Mt::ThreadedTask( function, "control", this, Mt::ThreadedTask::priorityNormal );
}

std::string Control::answerTo( const Utils::Buffer& message )
{
    Utils::String command( std::string( message.view() ) );
    command.trimLeft();
    command.trimRight();
    const auto iter = myFunctions.find( command );
    if ( iter != myFunctions.end() )
        return iter->second();
    // A client in a loop must not flood the log.
    nuvThrottledLogTo( Log::warning, &myUnknownCommands )
        << "unknown command \"" << command << "\"";
    return "there is no command \"" + command + "\"; try \"help\"\n";
}

void Control::serveOne()
{
    myPipe.connect();
    try {
        Utils::Buffer message;
        myPipe.readMsg( &message );
        ++myNbrOfMessages;
        myPipe.writeMsg( Utils::Buffer( answerTo( message ) ) );
        nuvLogTo( mySources.source( Log::debug ) ) << "answered \"" << message.view() << "\"";
    } catch ( const RuntimeException& exception ) { // the pipe has logged it
        nuvLogTo( mySources.source( Log::debug ) ) << "not answered: " << exception.what();
    }
    myPipe.disconnect();
}

void Control::run()
{
    while ( !myIsStopping ) {
        try {
            serveOne();
        } catch ( const Io::ServerPipe::Exception& ) { // a client that died half-way, or the stop
            continue;
        }
    }
}

} // namespace Sensor
