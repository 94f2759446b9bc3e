// frameProbe OBSERVER MODE [ARGUMENT]: an application whose Nuv::main does what MODE says.
//
// OBSERVER: "claim" and "ignore" attach an observer that prints "signal N" for each signal and
// claims it or not; that of "throw" throws, that of "overflow" recurses without end; "none"
// attaches none.

#include "nuvMainThread.h"
#include "nuvSignalHandler.h"
#include "nuvThreadedTask.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <typeinfo>
#include <unistd.h>

using namespace Nuv;
using Body = std::function< unsigned int() >;

namespace {

// The sanitizers must not find first what the process is to crash by.
#define NUV_UNCHECKED __attribute__( ( no_sanitize( "address", "undefined" ) ) )

int ourArgument = 0;

void say( const std::string& line )
{
    const std::string text = line + "\n";
    [[maybe_unused]] const ssize_t n = ::write( 1, text.data(), text.size() );
}

// Until standard input ends; each byte is answered, so that its sender may follow the dispatching.
int listen()
{
    say( "ready" );
    for ( char c; ::read( 0, &c, 1 ) == 1; ) {
        say( "alive" );
    }
    return 7;
}

unsigned int runBody( Mt::ThreadedTask*, void* bodyPtr )
{
    return ( *static_cast< Body* >( bodyPtr ) )();
}

class Task : public Mt::ThreadedTask
{
public:
    Task( const char* namePtr, Body* bodyPtr )
        : ThreadedTask( &runBody, namePtr, bodyPtr, priorityNormal )
    {
    }
    int result() { return waitForTaskCompletion( infinite ) ? exitCode() : -1; }
};

// @return the status with which the child has ended
template < class Action >
int runForked( const Action& action, pid_t* childIdPtr )
{
    *childIdPtr = ::fork();
    if ( *childIdPtr == 0 )
        action();
    int status = 0;
    ::waitpid( *childIdPtr, &status, 0 );
    return status;
}

NUV_UNCHECKED int overflow( int depth )
{
    volatile char bytes[512];
    bytes[0] = static_cast< char >( depth );
    return depth < 0 ? 0 : overflow( depth + 1 ) + bytes[0];
}

struct Printer : Utils::Observer< Mt::SignalHandler >
{
    void update( Mt::SignalHandler& handler ) override
    {
        if ( myKind == "throw" )
            throw std::runtime_error( "observer" );
        if ( myKind == "overflow" )
            overflow( 0 );
        say( "signal " + std::to_string( handler.signalNumber() ) );
        handler.setSignalHandled( myKind == "claim" );
    }

    std::string myKind;
};

constexpr unsigned int ( *throwers[] )() = {
    []() -> unsigned int { throw LogicException( "one" ); },
    []() -> unsigned int { throw std::out_of_range( "two" ); },
    []() -> unsigned int { throw std::bad_cast(); },
    []() -> unsigned int { throw std::bad_typeid(); },
    []() -> unsigned int { throw std::bad_exception(); },
    []() -> unsigned int { throw ResourceException( "six" ); },
    []() -> unsigned int { throw std::bad_alloc(); },
    []() -> unsigned int { throw RuntimeException( "eight", 0, 4 ); },
    []() -> unsigned int { throw std::ios_base::failure( "nine" ); },
    []() -> unsigned int { throw std::range_error( "ten" ); },
    []() -> unsigned int { throw std::bad_function_call(); },
    []() -> unsigned int { throw 12; } };

// Each interruption is sent at once after the last one was answered: wherever the thread is then.
int interruptOften()
{
    std::atomic< int > nbrOfAnswers = 0;
    Body answer = [&] {
        while ( nbrOfAnswers < ourArgument && Mt::InterruptibleCall::poll( nullptr, 0, -1 ) == -1 &&
                errno == EINTR )
            ++nbrOfAnswers;
        return nbrOfAnswers == ourArgument ? 0u : 1u;
    };
    Task task( "reader", &answer );
    for ( int i = 0; i < ourArgument; ++i ) {
        Mt::SignalHandler::interruptSystemCall( task.threadId() );
        while ( nbrOfAnswers == i )
            std::this_thread::yield();
    }
    return task.result() == 0 ? listen() : 1;
}

int* volatile ourNullPtr = nullptr;

// With a negative value in a register that the report has.
NUV_UNCHECKED void segv()
{
    asm volatile( "movl $1, (%0)" : : "a"( ourNullPtr ), "D"( -2L ) : "memory" );
}

// The links of a freed block are broken, so the next allocation dies within malloc, its arena
// locked.
void insideMalloc()
{
    volatile std::uintptr_t* volatile linksPtr =
        static_cast< volatile std::uintptr_t* >( std::malloc( 5000 ) );
    void* volatile blockPtr = const_cast< std::uintptr_t* >( linksPtr );
    void* volatile keeperPtr = std::malloc( 5000 );
    std::free( blockPtr );
    linksPtr[1] = 16;
    blockPtr = std::malloc( 6000 );
    std::free( keeperPtr );
}

void twoThreads()
{
    std::atomic< int > nbrAtGate = 0;
    Body crash = [&] {
        ++nbrAtGate;
        while ( nbrAtGate != 2 ) {
        }
        segv();
        return 0u;
    };
    Task a( "a", &crash );
    Task b( "b", &crash );
}

// The handler goes to the core directory; another thread aborts once the report has begun there.
void abortMeanwhile()
{
    Body abort = []() -> unsigned int {
        while ( ::access( "core.txt", F_OK ) != 0 ) {
        }
        std::abort();
    };
    Task other( "other", &abort );
    segv();
}

void forkedChild()
{
    pid_t childId;
    const int status = runForked( &segv, &childId );
    say( std::to_string( childId ) + " " + std::to_string( WTERMSIG( status ) ) );
    segv();
}

void limitCoreFile( rlim_t nbrOfBytes )
{
    rlimit limit{};
    ::getrlimit( RLIMIT_CORE, &limit );
    limit.rlim_cur = nbrOfBytes;
    ::setrlimit( RLIMIT_CORE, &limit );
}

int forkAndExit()
{
    std::atexit( [] { say( "parent's exit handler" ); } );
    std::printf( "parent\n" ); // not written out yet
    pid_t childId;
    const auto endChild = [] {
        std::printf( "child\n" );
        std::exit( 5 );
    };
    std::printf( "status %d\n", runForked( endChild, &childId ) );
    std::fflush( stdout );
    return 0;
}

// A signal to the child, which has the parent's handler, must not come out of the parent's pipe.
int forkAndSignal()
{
    pid_t childId;
    const auto raiseInChild = [] {
        sigset_t none;
        sigemptyset( &none );
        ::sigprocmask( SIG_SETMASK, &none, nullptr );
        ::raise( SIGTERM );
        ::_exit( 0 );
    };
    const int status = runForked( raiseInChild, &childId );
    listen();
    return status;
}

struct Mode
{
    const char* namePtr;
    int ( *functionPtr )();
};

// An array, which outlives the exit handlers: another thread may be using it then.
constexpr Mode modes[] = {
    { "return", [] { return ourArgument; } },
    { "exit", []() -> int { std::exit( ourArgument ); } },
    { "throw", [] { return static_cast< int >( throwers[ourArgument - 1]() ); } },
    { "listen", &listen },
    { "signal", [] { return ::raise( ourArgument ); } },
    { "raise", [] { return Mt::SignalHandler::raise( ourArgument ), listen(); } },
    { "interrupt", &interruptOften },
    { "forkExit", &forkAndExit },
    { "forkSignal", &forkAndSignal },
    { "segv", [] { return segv(), 0; } },
    { "malloc", [] { return insideMalloc(), 0; } },
    { "two", [] { return twoThreads(), 0; } },
    { "forkedChild", [] { return forkedChild(), 0; } },
    { "abortMeanwhile", [] { return abortMeanwhile(), 0; } },
    { "overflow", [] { return overflow( 0 ); } },
    // Enabled, but too small for a file to be written.
    { "core", [] { return limitCoreFile( 1 ), segv(), 0; } },
};

} // namespace

int Nuv::main( int, char** argv )
{
    for ( const Mode& mode : modes ) {
        if ( std::string_view( argv[2] ) == mode.namePtr )
            return mode.functionPtr();
    }
    return 127;
}

int main( int argc, char** argv )
{
    limitCoreFile( 0 );
    ourArgument = argc > 3 ? std::atoi( argv[3] ) : 0;
    Printer printer;
    printer.myKind = argv[1];
    Mt::SignalHandler* const handlerPtr = Mt::SignalHandler::singletonPtr();
    if ( printer.myKind != "none" )
        handlerPtr->attach( &printer );
    return Mt::startMainThread( argc, argv );
}
