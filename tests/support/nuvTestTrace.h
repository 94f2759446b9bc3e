#pragma once

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <limits.h>
#include <string>
#include <sys/ipc.h>
#include <sys/ptrace.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/// Processes that are killed when they are about to change something that others see.
namespace NuvTest {

using CallInfo = __ptrace_syscall_info;

/// @return the pathname behind a descriptor of a process
inline std::string pathOfDescriptor( pid_t pid, std::uint64_t fd )
{
    char text[PATH_MAX];
    const std::string link = "/proc/" + std::to_string( pid ) + "/fd/" + std::to_string( fd );
    const ssize_t length = ::readlink( link.c_str(), text, sizeof( text ) );
    return length > 0 ? std::string( text, static_cast< std::size_t >( length ) ) : std::string();
}

/// Whether the call makes, changes or removes something that other processes see.
inline bool isChange( pid_t pid, const CallInfo& info )
{
    const auto& args = info.entry.args;
    switch ( info.entry.nr ) {
    case SYS_openat:
        return ( args[2] & O_CREAT ) != 0;
    case SYS_read:
    case SYS_write:
    case SYS_writev:
        return pathOfDescriptor( pid, args[0] ).find( "/tmp/ipc/" ) != std::string::npos;
    case SYS_semctl:
    case SYS_shmctl: {
        const std::uint64_t command = args[info.entry.nr == SYS_semctl ? 2 : 1] & 0xff;
        return command == IPC_RMID || command == IPC_SET || command == SETVAL || command == SETALL;
    }
    case SYS_semget:
    case SYS_shmget:
    case SYS_shmat:
    case SYS_shmdt:
    case SYS_mknodat:
    case SYS_unlink:
#ifdef SYS_ipc
    case SYS_ipc: // operations on sets have no number of their own in this width
#else
    case SYS_semop:
    case SYS_semtimedop:
#endif
        return true;
    default:
        return false;
    }
}

/// Starts a child that is traced and stopped between the two functions.
inline pid_t startTraced( const std::function< void() >& prepare,
                          const std::function< void() >& function )
{
    const pid_t pid = ::fork();
    if ( pid == 0 ) {
        if ( prepare )
            prepare();
        ::ptrace( PTRACE_TRACEME, 0, nullptr, nullptr );
        ::raise( SIGSTOP );
        function();
        ::_exit( 0 );
    }
    int status = 0;
    ::waitpid( pid, &status, 0 );
    ::ptrace( PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL );
    return pid;
}

/// @return false if the child has ended, which is to be with status 0
inline bool resumeTraced( pid_t pid, __ptrace_request request )
{
    int status = 0;
    ::ptrace( request, pid, nullptr, nullptr );
    ::waitpid( pid, &status, 0 );
    if ( !WIFEXITED( status ) && !WIFSIGNALED( status ) )
        return true;
    EXPECT_TRUE( WIFEXITED( status ) && WEXITSTATUS( status ) == 0 ) << status;
    return false;
}

inline void killTraced( pid_t pid )
{
    int status = 0;
    ::kill( pid, SIGKILL );
    ::waitpid( pid, &status, 0 );
}

/// Kills a child that runs the function when it is about to make its n-th change (from 1), so
/// behind everything it did before. A call that only finds that it would have to wait is none.
/// @param look called right before, with the call that it is about to make
/// @return false if it ended before that
inline bool killAtChange( int n, const std::function< void() >& function,
                          const std::function< void( pid_t, const CallInfo& ) >& look = {},
                          const std::function< void() >& prepare = {} )
{
    const pid_t pid = startTraced( prepare, function );
    bool isCounted = false; // the call that it is in
    for ( int nbrOfChanges = 0; resumeTraced( pid, PTRACE_SYSCALL ); ) {
        CallInfo info{};
        ::ptrace( PTRACE_GET_SYSCALL_INFO, pid, reinterpret_cast< void* >( sizeof( info ) ),
                  &info );
        if ( info.op == PTRACE_SYSCALL_INFO_EXIT ) {
            const bool isFutile = info.exit.is_error != 0 && info.exit.rval == -EAGAIN;
            nbrOfChanges -= isCounted && isFutile ? 1 : 0;
        }
        isCounted = info.op == PTRACE_SYSCALL_INFO_ENTRY && isChange( pid, info );
        if ( !isCounted || ++nbrOfChanges < n )
            continue;
        if ( look )
            look( pid, info );
        killTraced( pid );
        return true;
    }
    return false;
}

inline bool canTrace()
{
    const pid_t pid = ::fork();
    if ( pid == 0 )
        ::_exit( ::ptrace( PTRACE_TRACEME, 0, nullptr, nullptr ) == 0 ? 0 : 1 );
    int status = 0;
    ::waitpid( pid, &status, 0 );
    return WIFEXITED( status ) && WEXITSTATUS( status ) == 0;
}

} // namespace NuvTest
