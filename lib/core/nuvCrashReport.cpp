#include "nuvCrashReport.h"

#include "nuvStackSymbols.h"
#include "nuvSubsystemInfo.h"
#include "nuvUtils.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <ucontext.h>
#include <unistd.h>

namespace Nuv::Mt {

namespace {

constexpr int crashSignals[] = { SIGILL, SIGABRT, SIGBUS, SIGSEGV, SIGFPE };
constexpr int maxNbrOfFrames = 128;
constexpr std::string_view separator =
    "--------------------------------------------------------------\n";
static_assert( separator.size() == 62 + 1 );

// Plain arrays: never destroyed, and read in signal context.
char ourCoreDirectory[PATH_MAX] = "/usr/nuvs/ixoRoot/core/";
char ourPreviousCrashFile[PATH_MAX] = "";

// The process that has entered the handler: a forked child has an id of its own and may crash too.
std::atomic< pid_t > ourCrashedProcessId = 0;
std::atomic< pid_t > ourCrashedThreadId = 0; // the one that reports
static_assert( std::atomic< pid_t >::is_always_lock_free );

void copyPath( char ( &destination )[PATH_MAX], const std::string& path )
{
    destination[path.copy( destination, PATH_MAX - 1 )] = '\0';
}

// -------- in signal context from here

struct Register
{
    const char* namePtr;
    unsigned long value;
};

struct Registers
{
    Register general[9];
    Register segments[6];
    Register state[4];
    unsigned long programCounter;
};

#if defined( __x86_64__ )

constexpr int nbrOfHexDigits = 16;

// Delivery of a signal leaves these two as they were; the machine context has no place for them.
unsigned long currentEs()
{
    unsigned long value = 0;
    asm( "movq %%es, %0" : "=r"( value ) );
    return value;
}

unsigned long currentDs()
{
    unsigned long value = 0;
    asm( "movq %%ds, %0" : "=r"( value ) );
    return value;
}

Registers registersOf( const ucontext_t& context )
{
    const auto reg = [&]( int index ) {
        return static_cast< unsigned long >( context.uc_mcontext.gregs[index] );
    };
    // One word of 16 bits each: cs, gs, fs, ss.
    const auto segment = [&]( int position ) {
        return reg( REG_CSGSFS ) >> ( 16 * position ) & 0xFFFF;
    };
    return { { { "rax", reg( REG_RAX ) },
               { "rbx", reg( REG_RBX ) },
               { "rdx", reg( REG_RDX ) },
               { "rcx", reg( REG_RCX ) },
               { "rdi", reg( REG_RDI ) },
               { "rsi", reg( REG_RSI ) },
               { "rip", reg( REG_RIP ) },
               { "rbp", reg( REG_RBP ) },
               { "rsp", reg( REG_RSP ) } },
             { { "cs ", segment( 0 ) },
               { "es ", currentEs() },
               { "ds ", currentDs() },
               { "gs ", segment( 1 ) },
               { "fs ", segment( 2 ) },
               { "ss ", segment( 3 ) } },
             { { "efl    ", reg( REG_EFL ) },
               { "ursp   ", reg( REG_RSP ) },
               { "trapno ", reg( REG_TRAPNO ) },
               { "err    ", reg( REG_ERR ) } },
             reg( REG_RIP ) };
}

#elif defined( __i386__ )

constexpr int nbrOfHexDigits = 8;

Registers registersOf( const ucontext_t& context )
{
    const auto reg = [&]( int index ) {
        return static_cast< unsigned long >( context.uc_mcontext.gregs[index] );
    };
    return { { { "eax", reg( REG_EAX ) },
               { "ebx", reg( REG_EBX ) },
               { "edx", reg( REG_EDX ) },
               { "ecx", reg( REG_ECX ) },
               { "edi", reg( REG_EDI ) },
               { "esi", reg( REG_ESI ) },
               { "eip", reg( REG_EIP ) },
               { "ebp", reg( REG_EBP ) },
               { "esp", reg( REG_ESP ) } },
             { { "cs ", reg( REG_CS ) },
               { "es ", reg( REG_ES ) },
               { "ds ", reg( REG_DS ) },
               { "gs ", reg( REG_GS ) },
               { "fs ", reg( REG_FS ) },
               { "ss ", reg( REG_SS ) } },
             { { "efl    ", reg( REG_EFL ) },
               { "uesp   ", reg( REG_UESP ) },
               { "trapno ", reg( REG_TRAPNO ) },
               { "err    ", reg( REG_ERR ) } },
             reg( REG_EIP ) };
}

#else
#error "the crash report knows the registers of i386 and x86-64"
#endif

// One line of the report: built in place (what the C library formats with may lock), cut at 500
// bytes, written at once.
class Line
{
public:
    explicit Line( int fd )
        : myFd( fd )
    {
    }
    Line( const Line& ) = delete;
    Line& operator=( const Line& ) = delete;
    ~Line()
    {
        pollfd descriptor{ myFd, POLLOUT, 0 };
        // Nobody may read standard output any more: a full pipe must not hold up the abort.
        if ( ::poll( &descriptor, 1, 1000 ) == 0 )
            return;
        [[maybe_unused]] const ssize_t ignored =
            Utils::retryOnEintr( [&] { return ::write( myFd, myBytes, myLength ); } );
    }

    Line& text( std::string_view value )
    {
        for ( const char c : value ) {
            put( c );
        }
        return *this;
    }
    Line& decimal( long value )
    {
        const unsigned long magnitude = static_cast< unsigned long >( value );
        if ( value < 0 )
            put( '-' );
        return digits( value < 0 ? 0 - magnitude : magnitude, 10, 1 );
    }
    Line& hex( unsigned long value, int minNbrOfDigits )
    {
        return text( "0x" ).digits( value, 16, minNbrOfDigits );
    }

private:
    void put( char c )
    {
        if ( myLength < sizeof( myBytes ) )
            myBytes[myLength++] = c;
    }
    Line& digits( unsigned long value, unsigned long base, int minNbrOfDigits )
    {
        char reversed[24];
        int n = 0;
        for ( ; value != 0 || n < minNbrOfDigits; value /= base ) {
            reversed[n++] = "0123456789abcdef"[value % base];
        }
        while ( n > 0 ) {
            put( reversed[--n] );
        }
        return *this;
    }

    int myFd;
    std::size_t myLength = 0;
    char myBytes[500];
};

template < std::size_t N >
void writeRegisters( int fd, const Register ( &registers )[N] )
{
    for ( const Register& r : registers ) {
        Line( fd )
            .text( r.namePtr )
            .text( "   " )
            .hex( r.value, nbrOfHexDigits )
            .text( "  " )
            .decimal( static_cast< long >( r.value ) )
            .text( "\n" );
    }
}

void writeHead( int fd, pid_t processId, int sig, const Registers& registers )
{
    Line( fd )
        .text( "Application thread " )
        .decimal( processId )
        .text( " received trap: " )
        .decimal( sig )
        .text( "\n" );
    Line( fd ).text( separator );
    writeRegisters( fd, registers.general );
    Line( fd ).text( "\n" );
    writeRegisters( fd, registers.segments );
    Line( fd ).text( "\n" );
    writeRegisters( fd, registers.state );
    Line( fd ).text( separator );
}

void writeFrame( int fd, const void* addressPtr )
{
    const StackSymbol symbol( addressPtr );
    Line line( fd );
    if ( symbol.myObjectPtr != nullptr ) {
        line.text( symbol.myObjectPtr ).text( "(" );
        if ( symbol.myNamePtr != nullptr )
            line.text( std::string_view( symbol.myNamePtr ).substr( 0, 200 ) );
        line.text( "+" ).hex( symbol.myOffset, 1 ).text( ") " );
    }
    line.text( "[" ).hex( reinterpret_cast< unsigned long >( addressPtr ), 1 ).text( "]\n" );
}

// @return whether the system will write a core file; an unreadable limit counts as one
bool isCoreFileEnabled()
{
    rlimit limit{};
    return ::getrlimit( RLIMIT_CORE, &limit ) != 0 || limit.rlim_cur != 0;
}

// @return whether the core directory is the current one now
bool enterCoreDirectory()
{
    const bool isEntered = ::chdir( ourCoreDirectory ) == 0;
    if ( ourPreviousCrashFile[0] != '\0' )
        ::unlink( ourPreviousCrashFile );
    return isEntered;
}

int openReport()
{
    if ( !enterCoreDirectory() )
        return STDOUT_FILENO;
    const int fd = Utils::retryOnEintr(
        [] { return ::open( "core.txt", O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644 ); } );
    return fd >= 0 ? fd : STDOUT_FILENO;
}

void leaveToSystem( int sig )
{
    enterCoreDirectory();
    ::signal( sig, SIG_DFL );
    ::raise( sig ); // pending until the handler returns, since it blocks the crash signals
}

// A thread that crashes while another one reports: back in abort() it would end the process in the
// middle of the report. Not for ever, though: the other one may hang.
void waitForReport()
{
    constexpr int maxMs = 10000;
    ::poll( nullptr, 0, maxMs );
}

// Calls backtrace() itself, so that frame 0 is this function and frame 1 the signal trampoline.
void coreSigHandler( int sig, siginfo_t*, void* contextPtr )
{
    const pid_t processId = ::getpid();
    if ( ourCrashedProcessId.exchange( processId, std::memory_order_relaxed ) == processId ) {
        if ( ourCrashedThreadId.load( std::memory_order_relaxed ) != ::gettid() )
            waitForReport();
        return;
    }
    ourCrashedThreadId.store( ::gettid(), std::memory_order_relaxed );
    SubsystemInfo::markCrashed();
    if ( isCoreFileEnabled() ) {
        leaveToSystem( sig );
        return;
    }
    const int fd = openReport();
    const Registers registers = registersOf( *static_cast< const ucontext_t* >( contextPtr ) );
    writeHead( fd, processId, sig, registers );

    void* frames[maxNbrOfFrames];
    const int nbrOfFrames = ::backtrace( frames, maxNbrOfFrames );
    if ( nbrOfFrames > 1 )
        frames[1] = reinterpret_cast< void* >( registers.programCounter );
    for ( int i = 0; i < nbrOfFrames; ++i ) {
        writeFrame( fd, frames[i] );
    }
    if ( fd != STDOUT_FILENO )
        ::close( fd );
    std::abort();
}

} // namespace

namespace CrashReport {

void directories( const std::string& coreDirectory, const std::string& previousCrashFile )
{
    copyPath( ourCoreDirectory, coreDirectory );
    copyPath( ourPreviousCrashFile, previousCrashFile );
}

sigset_t signals()
{
    sigset_t set;
    sigemptyset( &set );
    for ( const int sig : crashSignals ) {
        sigaddset( &set, sig );
    }
    return set;
}

void installHandler()
{
    // The first backtrace() of a process loads the unwinder: too late inside the handler.
    void* frame = nullptr;
    ::backtrace( &frame, 1 );

    struct sigaction action
    {
    };
    action.sa_sigaction = &coreSigHandler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    action.sa_mask = signals();
    for ( const int sig : crashSignals ) {
        ::sigaction( sig, &action, nullptr );
    }
}

} // namespace CrashReport

AlternateSignalStack::AlternateSignalStack()
{
    stack_t present{};
    if ( ::sigaltstack( nullptr, &present ) != 0 || ( present.ss_flags & SS_DISABLE ) == 0 )
        return;
    void* const memoryPtr = ::mmap( nullptr, nbrOfBytes, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0 );
    if ( memoryPtr == MAP_FAILED )
        return;
    const stack_t stack{ .ss_sp = memoryPtr, .ss_flags = 0, .ss_size = nbrOfBytes };
    if ( ::sigaltstack( &stack, nullptr ) == 0 )
        myMemoryPtr = memoryPtr;
    else
        ::munmap( memoryPtr, nbrOfBytes );
}

AlternateSignalStack::~AlternateSignalStack()
{
    if ( myMemoryPtr == nullptr )
        return;
    const stack_t none{ .ss_sp = nullptr, .ss_flags = SS_DISABLE, .ss_size = 0 };
    ::sigaltstack( &none, nullptr );
    ::munmap( myMemoryPtr, nbrOfBytes );
}

} // namespace Nuv::Mt
