#include "nuvctlEncode.h"

#include "nuvPipe.h"
#include "nuvProcess.h"
#include "nuvSignalHandler.h"
#include "nuvSimpleStreamBuf.h"
#include "nuvTime.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <unistd.h>

namespace Nuv::Ctl {

namespace {

using Utils::Buffer;

/// Calls a function when the operator, or the system, wants the command to end.
class OnStop : public Utils::Observer< Mt::SignalHandler >
{
public:
    explicit OnStop( std::function< void() > function )
        : myFunction( std::move( function ) )
    {
        Mt::SignalHandler::singletonPtr()->attach( this );
    }
    OnStop( const OnStop& ) = delete;
    OnStop& operator=( const OnStop& ) = delete;
    ~OnStop() override { Mt::SignalHandler::singletonPtr()->detach( this ); }

    void update( Mt::SignalHandler& handler ) override
    {
        const int sig = handler.signalNumber();
        if ( sig != SIGTERM && sig != SIGINT && sig != SIGHUP )
            return;
        handler.setSignalHandled();
        myFunction();
    }

private:
    std::function< void() > myFunction;
};

// --- send ---------------------------------------------------------------------------------------

/// @return why nothing can be sent; "" if there is a server, or none can be seen by this user
std::string reasonAgainst( const std::string& pipe )
{
    const Tools::Inventory inventory =
        Tools::Inventory::read( Installation::find().myIpcDirectory );
    if ( inventory.findFifo( Tools::toServerPrefix + pipe ) == nullptr )
        return "there is no server pipe \"" + pipe + "\"";
    if ( !inventory.hasPipeServer( pipe ) && inventory.myProcesses.nbrOfUnreadable() == 0 )
        return "the server of the pipe \"" + pipe +
               "\" has ended without removing it; see \"nuvctl ipc doctor\"";
    return {};
}

/// In short steps, so that an interruption need not wait for a server that is busy.
bool connect( Io::ClientPipe* pipePtr, unsigned int timeoutSec, const std::atomic< bool >& stop )
{
    constexpr unsigned int stepMs = 200;
    const Utils::MsTimer timer;
    while ( !stop && timer.totalTime() <= std::uint64_t{ timeoutSec } * 1000 ) {
        try {
            pipePtr->connect( stepMs, true );
            return true;
        } catch ( const Io::ClientPipe::Exception& ) {
            continue;
        }
    }
    return false;
}

int exchange( const CommonOptions& common, const SendOptions& options, const Buffer& message )
{
    std::atomic< bool > stop = false;
    const OnStop onStop( [&] {
        // The wait for an answer is not broken off lightly: it would leave the server waiting, too.
        if ( stop.exchange( true ) )
            ::_exit( problem );
        complain( "interrupted; once more to leave at once" );
    } );
    Io::ClientPipe pipe( options.myPipe.c_str() );
    const Utils::MsTimer timer;
    if ( !connect( &pipe, options.myTimeoutSec, stop ) )
        return complain( stop ? "nothing was sent"
                              : "the server of the pipe \"" + options.myPipe +
                                    "\" was not free within " +
                                    std::to_string( options.myTimeoutSec ) + " s" );
    Buffer answer;
    pipe.writeMsg( message );
    pipe.readMsg( &answer, options.myTimeoutSec );
    pipe.disconnect();
    if ( common.myJson ) {
        printJson( { { "pipe", options.myPipe },
                     { "milliseconds", timer.totalTime() },
                     { "size", answer.size() },
                     { "answer", bytesJson( answer.view() ) } } );
        return good;
    }
    const bool needsLineFeed =
        ::isatty( STDOUT_FILENO ) && !answer.view().empty() && answer.view().back() != '\n';
    const int status = writeOutput( answer.view() );
    return status == good && needsLineFeed ? writeOutput( "\n" ) : status;
}

// --- serve --------------------------------------------------------------------------------------

/// A run of the program for one message.
class Run
{
public:
    Run( const ServeOptions& options, const std::atomic< bool >& stop )
        : myProcess( options.myProgram.c_str() )
        , myTimeoutMs( std::uint64_t{ options.myTimeoutSec } * 1000 )
        , myStop( stop )
    {
        for ( const std::string& argument : options.myArguments )
            myProcess.addArg( argument.c_str() );
    }

    /// Feeds the message to the program's standard input while it takes what it writes.
    Buffer answerTo( const Buffer& message );
    /// How it ended, for the operator.
    std::string outcome() const;
    bool isGood() const { return !myIsTooLate && !isKilled() && myProcess.exitValue() == 0; }

private:
    bool isKilled() const { return myProcess.isTerminatedBySignal(); }
    bool isTimeLeft() const { return !myStop && myTimer.totalTime() < myTimeoutMs; }
    void feed( int fd );
    bool take( int fd );
    void end();

    Mt::Process myProcess;
    const std::uint64_t myTimeoutMs;
    const std::atomic< bool >& myStop;
    const Utils::MsTimer myTimer;
    std::string_view myRest; // of the message
    Buffer myAnswer;
    bool myIsTooLate = false;
};

void Run::feed( int fd )
{
    const ssize_t n =
        Utils::retryOnEintr( [&] { return ::write( fd, myRest.data(), myRest.size() ); } );
    if ( n > 0 )
        myRest.remove_prefix( static_cast< std::size_t >( n ) );
    // A program that wants no more has ended, or has closed its end.
    if ( myRest.empty() || ( n < 0 && errno != EAGAIN ) )
        myProcess.closeChildsStdin();
}

/// @return false at the end of the output
bool Run::take( int fd )
{
    char bytes[4096];
    const ssize_t n = Utils::retryOnEintr( [&] { return ::read( fd, bytes, sizeof( bytes ) ); } );
    if ( n > 0 )
        myAnswer.append( bytes, static_cast< Buffer::size_type >( n ) );
    return n > 0;
}

Buffer Run::answerTo( const Buffer& message )
{
    constexpr int stepMs = 100;
    std::streambuf* inPtr = nullptr;
    std::streambuf* outPtr = nullptr;
    myProcess.spawn( &inPtr, &outPtr, nullptr );
    pollfd descriptors[] = { { dynamic_cast< Io::SimpleOStreamBuf& >( *inPtr ).fd(), POLLOUT, 0 },
                             { dynamic_cast< Io::SimpleIStreamBuf& >( *outPtr ).fd(), POLLIN, 0 } };
    ::fcntl( descriptors[0].fd, F_SETFL, O_NONBLOCK );
    myRest = message.view();
    bool isOpen = true;
    bool isFed = false;
    while ( isOpen && isTimeLeft() ) {
        if ( isFed )
            descriptors[0].fd = -1;
        if ( ::poll( descriptors, 2, stepMs ) <= 0 )
            continue;
        if ( !isFed && descriptors[0].revents != 0 ) {
            feed( descriptors[0].fd );
            isFed = myRest.empty() || ( descriptors[0].revents & POLLERR ) != 0;
        }
        if ( descriptors[1].revents != 0 )
            isOpen = take( descriptors[1].fd );
    }
    end();
    return std::move( myAnswer );
}

void Run::end()
{
    constexpr unsigned int stepMs = 100;
    while ( isTimeLeft() && !myProcess.waitForExit( stepMs ) )
        continue;
    if ( myProcess.hasExited() )
        return;
    myIsTooLate = true;
    ::kill( myProcess.pid(), SIGKILL );
    myProcess.waitForExit( Mt::Process::infinite );
}

std::string Run::outcome() const
{
    if ( myIsTooLate )
        return "was ended, its time being over";
    return isKilled() ? "was ended by signal " + std::to_string( myProcess.exitValue() )
                      : "ended with status " + std::to_string( myProcess.exitValue() );
}

void report( const CommonOptions& common, const Buffer& message, const Buffer& answer,
             const Run& run )
{
    if ( common.myJson )
        std::cout << Json( { { "message", bytesJson( message.view() ) },
                             { "answer", bytesJson( answer.view() ) },
                             { "good", run.isGood() },
                             { "program", run.outcome() } } )
                  << std::endl;
    else
        std::cout << message.size() << " bytes in, " << answer.size() << " bytes out, the program "
                  << run.outcome() << std::endl;
}

/// One message for each connection.
void serveOne( const CommonOptions& common, const ServeOptions& options, Io::ServerPipe* pipePtr,
               const std::atomic< bool >& stop )
{
    pipePtr->connect();
    try {
        Buffer message;
        pipePtr->readMsg( &message );
        Run run( options, stop );
        const Buffer answer = run.answerTo( message );
        pipePtr->writeMsg( answer );
        report( common, message, answer, run );
    } catch ( const RuntimeException& exception ) {
        if ( !stop )
            complain( exception.what() );
    }
    pipePtr->disconnect();
}

int serveAll( const CommonOptions& common, const ServeOptions& options )
{
    std::atomic< bool > stop = false;
    Io::ServerPipe pipe( options.myPipe.c_str() );
    const OnStop onStop( [&] {
        stop = true;
        pipe.stop();
    } );
    if ( !common.myJson )
        std::cout << "serving the pipe \"" << printable( options.myPipe ) << "\"" << std::endl;
    while ( !stop ) {
        try {
            serveOne( common, options, &pipe, stop );
        } catch ( const Io::ServerPipe::Exception& exception ) { // a client that died half-way
            if ( !stop )
                complain( exception.what() );
        }
    }
    return good;
}

} // namespace

int send( const CommonOptions& common, const SendOptions& options )
{
    std::string text = options.myMessage;
    if ( options.myMessage == "-" && !readInput( "-", &text ) )
        return problem;
    if ( const std::string reason = reasonAgainst( options.myPipe ); !reason.empty() )
        return complain( reason );
    if ( !refuseIfLocked() )
        return problem;
    const Buffer message{ std::string_view( text ) };
    return runInFrame( [&] { return exchange( common, options, message ); } );
}

int serve( const CommonOptions& common, const ServeOptions& options )
{
    if ( ::access( options.myProgram.c_str(), X_OK ) != 0 )
        return complain( options.myProgram + " cannot be executed: " + std::strerror( errno ) );
    if ( !refuseIfLocked() )
        return problem;
    return runInFrame( [&] { return serveAll( common, options ); } );
}

} // namespace Nuv::Ctl
