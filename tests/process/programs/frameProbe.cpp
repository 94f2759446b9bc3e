// frameProbe OBSERVER MODE [ARGUMENT]: an application whose Nuv::main does what MODE says.
//
// OBSERVER: "claim" and "ignore" attach an observer that prints "signal N" for each signal and
// claims it or not, "throw" one that throws, "none" attaches none, "nohandler" makes no signal
// handler.

#include "nuvMainThread.h"
#include "nuvSemaphore.h"
#include "nuvSignalHandler.h"
#include "nuvSubsystemInfo.h"
#include "nuvThreadedTask.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ios>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <typeinfo>
#include <unistd.h>

using namespace Nuv;

namespace {

int ourArgument = 0;

void say( const std::string& line )
{
    const std::string text = line + "\n";
    [[maybe_unused]] const ssize_t n = ::write( 1, text.data(), text.size() );
}

__attribute__( ( no_sanitize( "address" ) ) ) int overflow( int depth )
{
    volatile char bytes[512];
    bytes[0] = static_cast< char >( depth );
    return depth < 0 ? 0 : overflow( depth + 1 ) + bytes[0];
}

class Printer : public Utils::Observer< Mt::SignalHandler >
{
public:
    explicit Printer( const std::string& kind )
        : myKind( kind )
    {
    }

    void update( Mt::SignalHandler& handler ) override
    {
        if ( myKind == "throw" )
            throw std::runtime_error( "observer" );
        if ( myKind == "overflow" )
            overflow( 0 );
        say( "signal " + std::to_string( handler.signalNumber() ) );
        handler.setSignalHandled( myKind == "claim" );
    }

private:
    std::string myKind;
};

// -------- life

int returnArgument()
{
    return ourArgument;
}

// Until standard input ends; each line that comes is answered, so that its sender may follow the
// dispatching.
int listen()
{
    say( "ready" );
    char c;
    while ( ::read( 0, &c, 1 ) == 1 ) {
        say( "alive" );
    }
    return 7;
}

[[noreturn]] int throwKind()
{
    switch ( ourArgument ) {
    case 1:
        throw LogicException( "one" );
    case 2:
        throw std::out_of_range( "two" );
    case 3:
        throw std::bad_cast();
    case 4:
        throw std::bad_typeid();
    case 5:
        throw std::bad_exception();
    case 6:
        throw ResourceException( "six" );
    case 7:
        throw std::bad_alloc();
    case 8:
        throw RuntimeException( "eight", 0, 4 );
    case 9:
        throw std::ios_base::failure( "nine" );
    case 10:
        throw std::range_error( "ten" );
    case 11:
        throw std::bad_function_call();
    default:
        throw 12;
    }
}

int raiseArgument()
{
    Mt::SignalHandler::raise( ourArgument );
    return listen();
}

// The blocked thread writes a byte for each read that came back interrupted.
unsigned int readInterruptibly( Mt::ThreadedTask* taskPtr, void* fdsPtr )
{
    const int* const fds = static_cast< int* >( fdsPtr );
    while ( !taskPtr->isExitRequested() ) {
        char c;
        pollfd descriptor{ fds[0], POLLIN, 0 };
        if ( Mt::InterruptibleCall::poll( &descriptor, 1, -1 ) > 0 )
            return ::read( fds[0], &c, 1 ) == 1 ? 0 : 1;
        if ( errno != EINTR || ::write( fds[3], "", 1 ) != 1 )
            return 1;
    }
    return 2;
}

// Each interruption is sent at once after the last one was answered: wherever the thread is then.
int interruptOften()
{
    int fds[4];
    if ( ::pipe( fds ) != 0 || ::pipe( fds + 2 ) != 0 )
        return 1;
    Mt::ThreadedTask task( &readInterruptibly, "reader", fds, Mt::ThreadedTask::priorityNormal );
    for ( int i = 0; i < ourArgument; ++i ) {
        char c;
        Mt::SignalHandler::interruptSystemCall( task.threadId() );
        if ( ::read( fds[2], &c, 1 ) != 1 )
            return 1;
    }
    if ( ::write( fds[1], "", 1 ) != 1 )
        return 1;
    task.waitForTaskCompletion( Mt::ThreadedTask::infinite );
    return task.exitCode();
}

unsigned int readOnce( Mt::ThreadedTask*, void* fdPtr )
{
    const Mt::InterruptibleCall call;
    char c;
    const ssize_t n = call.isInterrupted() ? -1 : ::read( *static_cast< int* >( fdPtr ), &c, 1 );
    return n == -1 && errno == EINTR ? 0 : 1;
}

// Interrupted until read() itself has been met.
int interruptRead()
{
    int fds[2];
    if ( ::pipe( fds ) != 0 )
        return 1;
    Mt::ThreadedTask task( &readOnce, "reader", fds, Mt::ThreadedTask::priorityNormal );
    while ( !task.waitForTaskCompletion( 1 ) ) {
        Mt::SignalHandler::interruptSystemCall( task.threadId() );
    }
    return task.exitCode();
}

// -------- status records

unsigned int waitOnSemaphore( Mt::ThreadedTask*, void* semaphorePtr )
{
    static_cast< Mt::Semaphore* >( semaphorePtr )->wait();
    Mt::SubsystemInfo::threadletonPtr()->detail()->statusMessage( "has waited" );
    say( "waited" );
    return listen() == 7 ? 0 : 1;
}

int showRecords()
{
    Mt::Semaphore semaphore( "frameProbe", 0 );
    say( std::to_string( semaphore.handle() ) );
    Mt::ThreadedTask task( &waitOnSemaphore, "a task whose name is longer than 32 characters",
                           &semaphore, Mt::ThreadedTask::priorityNormal );
    listen();
    semaphore.post();
    task.waitForTaskCompletion( Mt::ThreadedTask::infinite );
    return 0;
}

// -------- crashes

// The sanitizers must not find first what the process is to crash by.
#define NUV_UNCHECKED __attribute__( ( no_sanitize( "address", "undefined" ) ) )

volatile int ourOne = 1;
volatile int ourZero = 0;
int* volatile ourNullPtr = nullptr;

// With a negative value in a register that the report has.
NUV_UNCHECKED void segv()
{
    asm volatile( "movl $1, (%0)" : : "a"( ourNullPtr ), "D"( -2L ) : "memory" );
}

NUV_UNCHECKED void fpe()
{
    ourOne = ourOne / ourZero;
}
void ill()
{
    asm volatile( "ud2" );
}

void bus()
{
    const int fd = ::open( ".", O_TMPFILE | O_RDWR, 0600 );
    *static_cast< volatile char* >(
        ::mmap( nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 ) ) = 1;
}

// The links of a freed block are broken, so the next allocation dies within malloc, its arena
// locked.
void insideMalloc()
{
    volatile std::uintptr_t* volatile blockPtr =
        static_cast< volatile std::uintptr_t* >( std::malloc( 5000 ) );
    volatile std::uintptr_t* volatile linksPtr = blockPtr;
    void* volatile keeperPtr = std::malloc( 5000 );
    std::free( const_cast< std::uintptr_t* >( blockPtr ) );
    linksPtr[1] = 16;
    void* volatile victimPtr = std::malloc( 6000 );
    std::free( victimPtr );
    std::free( keeperPtr );
}

std::atomic< int > ourNbrAtGate = 0;

unsigned int crashTogether( Mt::ThreadedTask*, void* )
{
    ++ourNbrAtGate;
    while ( ourNbrAtGate != 2 ) {
    }
    segv();
    return 0;
}

void twoThreads()
{
    Mt::ThreadedTask a( &crashTogether, "a", nullptr, Mt::ThreadedTask::priorityNormal );
    Mt::ThreadedTask b( &crashTogether, "b", nullptr, Mt::ThreadedTask::priorityNormal );
}

void forkedChild()
{
    const pid_t childId = ::fork();
    if ( childId == 0 )
        segv();
    int status = 0;
    ::waitpid( childId, &status, 0 );
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

void withCoreFile()
{
    limitCoreFile( 1 ); // enabled, but too small for one to be written
    segv();
}

void overflowStack()
{
    overflow( 0 );
}

template < void ( *Crash )() >
int crash()
{
    Crash();
    return 0;
}

// -------- forks

int exitFromMain()
{
    std::exit( ourArgument );
}

void neverInChild()
{
    say( "parent's exit handler" );
}

int forkAndExit()
{
    std::atexit( &neverInChild );
    std::printf( "parent\n" ); // not written out yet
    const pid_t childId = ::fork();
    if ( childId == 0 ) {
        std::printf( "child\n" );
        std::exit( 5 );
    }
    int status = 0;
    ::waitpid( childId, &status, 0 );
    std::printf( "status %d\n", status );
    std::fflush( stdout );
    return 0;
}

// A signal to the child, which has the parent's handler, must not come out of the parent's pipe.
int forkAndSignal()
{
    const pid_t childId = ::fork();
    if ( childId == 0 ) {
        sigset_t none;
        sigemptyset( &none );
        ::sigprocmask( SIG_SETMASK, &none, nullptr );
        ::raise( SIGTERM );
        ::_exit( 0 );
    }
    int status = 0;
    ::waitpid( childId, &status, 0 );
    listen();
    return status;
}

struct Mode
{
    const char* namePtr;
    int ( *functionPtr )();
};

constexpr Mode modes[] = { { "return", &returnArgument },
                           { "listen", &listen },
                           { "throw", &throwKind },
                           { "raise", &raiseArgument },
                           { "interrupt", &interruptOften },
                           { "interruptRead", &interruptRead },
                           { "records", &showRecords },
                           { "segv", &crash< segv > },
                           { "abrt", &crash< std::abort > },
                           { "fpe", &crash< fpe > },
                           { "ill", &crash< ill > },
                           { "bus", &crash< bus > },
                           { "malloc", &crash< insideMalloc > },
                           { "two", &crash< twoThreads > },
                           { "forkedChild", &crash< forkedChild > },
                           { "core", &crash< withCoreFile > },
                           { "overflow", &crash< overflowStack > },
                           { "exit", &exitFromMain },
                           { "forkExit", &forkAndExit },
                           { "forkSignal", &forkAndSignal } };

const Mode* ourModePtr = nullptr;

} // namespace

int Nuv::main( int, char** )
{
    return ourModePtr->functionPtr();
}

int main( int argc, char** argv )
{
    const std::string observerKind = argc > 2 ? argv[1] : "";
    for ( const Mode& mode : modes ) {
        if ( argc > 2 && std::strcmp( mode.namePtr, argv[2] ) == 0 )
            ourModePtr = &mode;
    }
    if ( ourModePtr == nullptr )
        return 127;
    limitCoreFile( 0 );
    ourArgument = argc > 3 ? std::atoi( argv[3] ) : 0;
    Printer printer( observerKind );
    if ( observerKind != "nohandler" ) {
        Mt::SignalHandler* const handlerPtr = Mt::SignalHandler::singletonPtr();
        if ( observerKind != "none" )
            handlerPtr->attach( &printer );
    }
    return Mt::startMainThread( argc, argv );
}
