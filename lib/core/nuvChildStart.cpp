#include "nuvChildStart.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#if defined( __SANITIZE_THREAD__ )
// The checker takes what clone() makes for a process with memory of its own, and forgets the
// threads of this one. The same function by the name that it does not know:
extern "C" int __clone( int ( *functionPtr )( void* ), void* stackPtr, int flags, void* argumentPtr,
                        ... ) noexcept;
#define clone __clone
#endif

namespace Nuv::Mt {

namespace {

constexpr int identityStatus = 126;
constexpr int execStatus = 127;
constexpr std::size_t stackSize = 64 * 1024;

/// A line of fixed size that is put together without allocation.
class Line
{
public:
    Line& operator<<( const char* textPtr )
    {
        while ( *textPtr != '\0' && mySize < sizeof( myText ) ) {
            myText[mySize++] = *textPtr++;
        }
        return *this;
    }
    Line& operator<<( unsigned int number )
    {
        char digits[11];
        char* ptr = digits + sizeof( digits );
        *--ptr = '\0';
        do {
            *--ptr = static_cast< char >( '0' + number % 10 );
            number /= 10;
        } while ( number != 0 );
        return *this << ptr;
    }
    void writeToStandardOutput() const
    {
        [[maybe_unused]] const ssize_t ignored = ::write( STDOUT_FILENO, myText, mySize );
    }

private:
    char myText[400];
    std::size_t mySize = 0;
};

const char* errorText( int errorNbr )
{
    const char* const textPtr = ::strerrordesc_np( errorNbr );
    return textPtr != nullptr ? textPtr : "Unknown error";
}

#if defined( SYS_setresuid32 )
constexpr long setresuidNbr = SYS_setresuid32;
#else
constexpr long setresuidNbr = SYS_setresuid;
#endif

// The system calls themselves: the C library's functions would change the parent's threads too.
bool setIdentities( const ChildStart& start )
{
    constexpr uid_t keep = static_cast< uid_t >( -1 );
    if ( start.userId == keep && start.effectiveUserId == keep )
        return true;
    start.devicePtr->prepareIdentityChange( start.userId == 0 && start.effectiveUserId == 0 );
    if ( start.effectiveUserId != keep &&
         ::syscall( setresuidNbr, keep, start.effectiveUserId, keep ) != 0 )
        return false;
    // Who sets the real identity gives up the saved one, which could bring the old one back.
    return start.userId == keep || ::syscall( setresuidNbr, start.userId, keep, ::geteuid() ) == 0;
}

void closeOnExec( int maxNbrOfFds )
{
#if defined( SYS_close_range )
    constexpr unsigned int closeRangeCloexec = 4;
    if ( ::syscall( SYS_close_range, 3U, ~0U, closeRangeCloexec ) == 0 )
        return;
#endif
    for ( int fd = 3; fd < maxNbrOfFds; ++fd ) {
        ::fcntl( fd, F_SETFD, FD_CLOEXEC );
    }
}

// What the kernel takes; the C library's sigaction() may keep tables that the parent shares.
struct KernelSigaction
{
    void ( *handlerPtr )( int );
    unsigned long flags;
    void ( *restorerPtr )();
    std::uint64_t mask;
};
static_assert( sizeof( KernelSigaction ) == 3 * sizeof( void* ) + 8 );

void resetSignals()
{
    for ( int sig = 1; sig < NSIG; ++sig ) {
        KernelSigaction action;
        if ( ::syscall( SYS_rt_sigaction, sig, nullptr, &action, sizeof( action.mask ) ) != 0 )
            continue;
        if ( action.handlerPtr == SIG_DFL || ( action.handlerPtr == SIG_IGN && sig != SIGPIPE ) )
            continue;
        std::memset( &action, 0, sizeof( action ) );
        ::syscall( SYS_rt_sigaction, sig, &action, nullptr, sizeof( action.mask ) );
    }
}

int childMain( void* argumentPtr )
{
    const ChildStart& start = *static_cast< const ChildStart* >( argumentPtr );
    if ( !setIdentities( start ) ) {
        const int errorNbr = errno;
        ( Line() << "errSystemError Process::spawn(): setreuid( " << start.userId << ", "
                 << start.effectiveUserId << " ) failed, err = " << errorText( errorNbr ) << ".\n" )
            .writeToStandardOutput();
        ::_exit( identityStatus );
    }
    closeOnExec( start.maxNbrOfFds );
    for ( int fd = 0; fd < 3; ++fd ) {
        if ( start.streamFds[fd] >= 0 )
            ::dup2( start.streamFds[fd], fd );
    }
    resetSignals();
    ::sigprocmask( SIG_SETMASK, &start.signalMask, nullptr );
    ::execve( start.pathnamePtr, start.argumentVector, start.environment );
    const int errorNbr = errno;
    ( Line() << "Exec failed with " << static_cast< unsigned int >( errorNbr ) << ", "
             << errorText( errorNbr ) << "\n" )
        .writeToStandardOutput();
    ::_exit( execStatus );
}

} // namespace

pid_t ChildStart::run() const
{
    // Handlers must not run in the child, whose memory is the parent's.
    sigset_t all;
    sigset_t saved;
    ::sigfillset( &all );
    ::pthread_sigmask( SIG_SETMASK, &all, &saved );
    alignas( 16 ) char stack[stackSize];
    const int pid = ::clone( &childMain, stack + stackSize, CLONE_VM | CLONE_VFORK | SIGCHLD,
                             const_cast< ChildStart* >( this ) );
    const int errorNbr = errno;
    ::pthread_sigmask( SIG_SETMASK, &saved, nullptr );
    errno = errorNbr;
    return pid;
}

} // namespace Nuv::Mt
