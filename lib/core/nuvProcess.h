#pragma once

#include "nuvBuffer.h"
#include "nuvPathname.h"

#include <cstdint>
#include <memory>
#include <streambuf>
#include <sys/types.h>

namespace Nuv::Mt {

/// A program to run as a child process, and the child while it runs.
///
/// | state       | spawn()          | waitForExit( t )                  | destructor         |
/// |-------------|------------------|-----------------------------------|--------------------|
/// | not started | starts the child | nuvAssert                         |                    |
/// | running     | nuvAssert        | true: collected; false: still runs | child left running |
/// | exited      | starts a new one | true at once                      |                    |
///
/// A child that is left running when its object ends is collected by a later spawn() or destructor
/// of the process once it has ended, so that no zombie stays behind.
///
/// The child starts with the signal mask that this process had before the library blocked the
/// interrupt signals, with handled signals and SIGPIPE at their defaults, with no descriptor but 0,
/// 1 and 2, and with the environment as it is. It ends with status 126 if its identities cannot be
/// set and 127 if the program cannot be executed, after a line on its standard output.
///
/// Threads: one at a time. A write into the pipe of a child that has gone fails with EPIPE; SIGPIPE
///          does not end the process.
/// Errors:  Exception; nuvCheckResource "pid > 0" if no child can be made. Nothing is left open.
/// Owns:    the parent's ends of the pipes, until close...() or the next spawn().
/// Cost:    the memory of a big parent is not copied; the calling thread waits until the child
///          executes the program.
/// Example: Process p( "/bin/cat" ); p.spawn( &in, &out, nullptr ); ... p.waitForExit( 5000 );
class NUV_API Process
{
public:
    /// Reason 0, error number 0.
    struct NUV_API Exception : RuntimeException
    {
        using RuntimeException::RuntimeException;
    };

    static constexpr unsigned int infinite = 0xFFFFFFFF;
    /// A child with this identity keeps the parent's.
    static constexpr uid_t keepIdentity = 0xFFFFFFFF;

    /// The running program itself, which may be restarted on exit.
    Process();
    /// @param pathnamePtr normalised; becomes argument 0
    explicit Process( const char* pathnamePtr );
    /// Copies the description, not the child.
    Process( const Process& other );
    Process& operator=( const Process& ) = delete;
    ~Process();

    void addArg( const char* argumentPtr );
    /// Identities for the children spawned from now on.
    void userId( uid_t id ) { myUserId = id; }
    void effectiveUserId( uid_t id ) { myEffectiveUserId = id; }

    /// Starts the program. Each argument receives the parent's end of a pipe to that stream of the
    /// child, owned by this object; null leaves the stream as the parent's.
    /// @throws Exception "spawn(): invalid pathname" if the program is no executable regular file;
    ///         "spawn(): could not redirect ..." if a pipe cannot be made
    void spawn( std::streambuf** stdinPtr, std::streambuf** stdoutPtr, std::streambuf** stderrPtr );

    /// Waits until the child has ended, and collects its exit.
    /// @param timeoutMs 0 asks once
    /// @return whether it has ended
    bool waitForExit( unsigned int timeoutMs );

    // Deletes the stream buffer, which ends the pipe; nothing happens without one.
    void closeChildsStdin() { myStdinPtr.reset(); }
    void closeChildsStdout() { myStdoutPtr.reset(); }
    void closeChildsStderr() { myStderrPtr.reset(); }

    /// Has this program executed again when the process ends. Only for a default-constructed
    /// Process: nuvAssert "myRestartIsAllowed".
    void restartOnExit();

    bool isRunning() const { return myProcessIsRunning; }
    bool hasExited() const { return myProcessHasExited; }
    bool isTerminatedBySignal() const { return myTerminatedBySignal; }
    /// The exit status (0 to 255), or the number of the signal; -1 before the exit is collected.
    int exitValue() const { return myExitValue; }
    /// -1 before spawn().
    pid_t pid() const { return myPid; }
    const Io::Pathname& pathname() const { return myPathname; }

    /// Same program, same arguments.
    friend bool operator==( const Process& a, const Process& b )
    {
        return Io::FileSystem::compare( a.myPathname.str(), b.myPathname.str() ) == 0 &&
               a.myArguments == b.myArguments;
    }

private:
    struct Pipes;
    bool collectExit();

    bool myProcessIsRunning = false;
    bool myProcessHasExited = false;
    bool myTerminatedBySignal = false;
    int myExitValue = -1;
    pid_t myPid = -1;
    Io::Pathname myPathname;
    std::unique_ptr< std::streambuf > myStdinPtr;
    std::unique_ptr< std::streambuf > myStdoutPtr;
    std::unique_ptr< std::streambuf > myStderrPtr;
    Utils::Buffer myArguments;
    uid_t myUserId = keepIdentity;
    uid_t myEffectiveUserId = keepIdentity;
    bool myRestartIsAllowed;
};

} // namespace Nuv::Mt
