#include "nuvMainThread.h"

#include "nuvLog.h"
#include "nuvSignalHandler.h"
#include "nuvSubsystemInfo.h"
#include "nuvThreadedTask.h"
#include "nuvUtils.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <iostream>
#include <memory>
#include <poll.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <unistd.h>

namespace Nuv::Mt {

namespace {

constexpr int dispatchTimeoutMs = 250;

std::atomic< pid_t > ourMainPid = 0;

// -------- the child of a fork

void endForkedChild()
{
    SubsystemInfo::releaseAllAtExit();
    std::cout.flush();
    std::clog.flush();
    std::fflush( stdout );
    std::fflush( stderr );
    ::_exit( 0 );
}

// Exit handlers run newest first, so this one comes before all that the parent registered.
void atForkInChild()
{
    ::pthread_sigmask( SIG_BLOCK, &SignalHandler::defaultAppSet(), nullptr );
    // What the parent has printed but not written out yet is the parent's to write.
    ::__fpurge( stdout );
    std::atexit( &endForkedChild );
}

void registerForkHandler()
{
    static std::atomic< bool > ourIsRegistered = false;
    if ( ourIsRegistered.exchange( true ) )
        return;
    if ( ::pthread_atfork( nullptr, nullptr, &atForkInChild ) != 0 ) {
        ourIsRegistered.store( false );
        nuvLogTo( Log::getStandardSource( Log::error ) ) << "errSystemError Set atfork failed";
    }
}

// -------- the initial thread

struct Arguments
{
    int argc;
    char** argv;
};

unsigned int runMain( ThreadedTask*, void* argumentPtr )
{
    const Arguments& arguments = *static_cast< const Arguments* >( argumentPtr );
    return static_cast< unsigned int >( ::Nuv::main( arguments.argc, arguments.argv ) );
}

void describeThread()
{
    SubsystemInfo::ThreadDetails& record = *SubsystemInfo::threadletonPtr()->detail();
    record.description( "Signal handler" );
    record.state( SubsystemInfo::stateRunning );
    record.wait( WaitKind::none, 0 );
}

// (A forced unwinding has no object: the reference that catches it is null.)
__attribute__( ( no_sanitize( "null" ) ) ) void dispatch( int fd )
{
    unsigned char byte = 0;
    const ssize_t n = Utils::retryOnEintr( [&] { return ::read( fd, &byte, 1 ); } );
    if ( n != 1 )
        return;
    try {
        SignalHandler::sigHandlerRoutine( byte );
    } catch ( abi::__forced_unwind& ) {
        throw;
    } catch ( ... ) {
        logEscapedException( "errSystemError sigHandlerRoutine catch" );
    }
}

int dispatchUntilEnd( pollfd descriptor, std::unique_ptr< ThreadedTask > taskPtr )
{
    for ( ;; ) {
        const int nbrOfReady = ::poll( &descriptor, 1, dispatchTimeoutMs );
        const int errorNbr = errno;
        if ( !taskPtr->isRunning() ) {
            taskPtr->waitForTaskCompletion( ThreadedTask::infinite );
            return taskPtr->exitCode();
        }
        if ( nbrOfReady < 0 ) {
            errno = errorNbr;
            nuvCheckResource( errno == EINTR );
            continue;
        }
        // While another thread ends the process the pipe is gone, its number perhaps in other use.
        if ( descriptor.fd != SignalHandler::readFd() )
            descriptor.fd = -1;
        else if ( ( descriptor.revents & POLLIN ) != 0 )
            dispatch( descriptor.fd );
    }
}

} // namespace

int startMainThread( int argc, char** argv )
{
    SignalHandler::recordExecutable( argc > 0 ? argv[0] : program_invocation_name );
    Log::getStandardSource( Log::fatal );
    nuvAssertText( &::Nuv::main != nullptr, "Nuv::main != NULL" );
    registerForkHandler();
    SignalHandler::becomeDispatcher();
    ourMainPid.store( ::getpid(), std::memory_order_relaxed );
    const pollfd descriptor{ SignalHandler::readFd(), POLLIN, 0 };
    describeThread();
    Arguments arguments{ argc, argv };
    return dispatchUntilEnd( descriptor,
                             std::make_unique< ThreadedTask >( &runMain, "main", &arguments,
                                                               ThreadedTask::priorityNormal ) );
}

pid_t getPid()
{
    return ourMainPid.load( std::memory_order_relaxed );
}

} // namespace Nuv::Mt
