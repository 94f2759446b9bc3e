#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <vector>

/// What the tests share: the root folder, child processes, waiting, files, faults in system calls.
/// Uses nothing of the library, so that every unit's test may use all of it.
namespace NuvTest {

/// How long anything may take that is expected to happen; far above what a loaded machine needs.
constexpr std::chrono::milliseconds wideTimeout{ 60000 };

/// Calls the condition every millisecond until it holds. @return false when time ran out
bool waitFor( const std::function< bool() >& condition,
              std::chrono::milliseconds timeout = wideTimeout );

/// @return the file's bytes; a test failure and "" when it cannot be read
std::string readFile( const std::string& pathname );
/// Creates missing directories, replaces what the file held; a test failure when it cannot.
void writeFile( const std::string& pathname, const std::string& bytes );

/// @return the permission bits of what the pathname leads to; none that exist when nothing is there
unsigned int modeOf( const std::string& pathname );

/// @return the text of the exception of this type that the action throws, "" if it throws none
template < class Exception, class Action >
std::string textOf( const Action& action )
{
    try {
        action();
    } catch ( const Exception& exception ) {
        return exception.what();
    }
    return "";
}

/// A folder below HOME that lives as long as the object.
class TemporaryFolder
{
public:
    TemporaryFolder();
    TemporaryFolder( const TemporaryFolder& ) = delete;
    TemporaryFolder& operator=( const TemporaryFolder& ) = delete;
    ~TemporaryFolder();

    const std::string& path() const { return myPath; }
    std::string path( const std::string& relative ) const { return myPath + "/" + relative; }

private:
    std::string myPath;
};

/// A small file system in memory, e.g. to be filled up. Needs mount privilege, which run-isolated
/// gives; without it isMounted() is false and the test skips.
class TmpfsMount
{
public:
    explicit TmpfsMount( std::size_t nbrOfBytes );
    TmpfsMount( const TmpfsMount& ) = delete;
    TmpfsMount& operator=( const TmpfsMount& ) = delete;
    ~TmpfsMount();

    bool isMounted() const { return myIsMounted; }
    const std::string& path() const { return myFolder.path(); }
    std::string path( const std::string& relative ) const { return myFolder.path( relative ); }

private:
    TemporaryFolder myFolder;
    bool myIsMounted;
};

/// Tests of units that keep files or interprocess objects. The library reads HOME and the root
/// folder once per process: all tests of one program share one root, a fresh folder that
/// run-isolated made. A test that needs another root starts a program with another HOME.
class RootFixture : public ::testing::Test
{
public:
    static std::string root();
    static std::string root( const std::string& relative ) { return root() + "/" + relative; }
};

/// Removes all System V sets and segments, for tests that kill processes before these can do it
/// themselves. Does nothing outside the namespaces of run-isolated.
void removeInterprocessObjects();

/// How a child process ended, and what it wrote.
struct Outcome
{
    int status = -1; ///< as waitpid() gives it
    bool isTimedOut = false;
    std::string output; ///< standard output
    std::string errors; ///< standard error

    /// @return the exit status, -1 if the process was ended by a signal or by the time-out
    int exitStatus() const;
    /// @return the signal that ended the process, 0 if it exited
    int signal() const;
};

/// What a started program gets.
struct Start
{
    std::vector< std::string > arguments;
    std::vector< std::string > environment; ///< "NAME=value", added to or replacing the caller's
};

/// A child process with pipes to its three standard streams. What it writes is collected while this
/// object waits for anything. Destroying the object kills a child that still runs.
class ChildProcess
{
public:
    /// Runs the function in a forked child, which then exits with 0, or with 1 after a failed
    /// expectation, or with 2 after an exception (its text goes to standard error).
    explicit ChildProcess( const std::function< void() >& body );
    /// Executes the program; exit status 127 if it cannot be executed.
    explicit ChildProcess( const std::string& programPath, const Start& start = {} );
    ChildProcess( const ChildProcess& ) = delete;
    ChildProcess& operator=( const ChildProcess& ) = delete;
    ~ChildProcess();

    pid_t pid() const { return myPid; }
    void writeInput( const std::string& bytes );
    void closeInput();
    void kill( int signalNbr );

    /// @return the next line of standard output, without its line feed; a test failure and "" when
    ///         none comes
    std::string readLine( std::chrono::milliseconds timeout = wideTimeout );
    /// Waits for the end; kills the child with SIGKILL when time runs out.
    Outcome wait( std::chrono::milliseconds timeout = wideTimeout );

private:
    void start( const std::function< void() >& body );
    void collect( int timeoutMs );

    pid_t myPid = -1;
    int myInput = -1;
    int myOutput = -1;
    int myErrors = -1;
    std::size_t myNbrOfBytesRead = 0; // of output, by readLine()
    Outcome myOutcome;
};

/// The same in one step.
Outcome runInChild( const std::function< void() >& body,
                    std::chrono::milliseconds timeout = wideTimeout );
Outcome runProgram( const std::string& programPath, const Start& start = {},
                    std::chrono::milliseconds timeout = wideTimeout );
/// Runs the function in a forked child; a test failure, with what it wrote, unless it passes there.
void passInChild( const std::function< void() >& body );

/// @return the pathname of a helper program (tests/process/programs/NAME.cpp) of this width
std::string program( const std::string& name );
/// The same of the given width in bits, 32 or 64.
/// @return "" when that build does not exist: the test says SKIPPED then, see NUV_SKIP_WITHOUT
std::string program( const std::string& name, int width );
/// @return the pathname of a program of tools/ or examples/ of this width
std::string tool( const std::string& name );

/// @return whether a thread still is itself after it has handled a signal while others exist. The
///         emulator qemu-i386 (7.2 at least) gives such a thread the local storage of the one
///         created last, so what comes after the signal cannot be tested with it.
bool doThreadsSurviveSignals();

/// Fails calls of one system function, which the test intercepts:
///
///     NuvTest::Fault ourWriteFault;
///     extern "C" ssize_t __real_write( int, const void*, size_t );
///     extern "C" ssize_t __wrap_write( int fd, const void* dataPtr, size_t nbrOfBytes )
///     {
///         return ourWriteFault.strikes() ? -1 : __real_write( fd, dataPtr, nbrOfBytes );
///     }
///
/// with "write" as a line of the test's .wrap file. A test lets n rise until a run meets no fault.
/// Threads: may strike on any thread.
class Fault
{
public:
    enum Kind
    {
        once,
        forGood
    };

    /// The n-th call from now on (counted from 1) fails with errno set to errorNbr.
    void arm( int n, int errorNbr, Kind kind = once );
    void disarm();
    /// Called by the intercepting function. @return true, with errno set, if the call must fail
    bool strikes() noexcept;
    /// @return the number of calls that failed since arm()
    int nbrOfStrikes() const { return myNbrOfStrikes; }

private:
    std::atomic< int > myCallsToGo{ 0 };
    std::atomic< int > myNbrOfStrikes{ 0 };
    std::atomic< int > myErrorNbr{ 0 };
    std::atomic< bool > myIsForGood{ false };
    std::atomic< bool > myIsArmed{ false };
};

} // namespace NuvTest

/// Skips the test when the program of the other width was not built.
#define NUV_SKIP_WITHOUT( programPath )                                                            \
    if ( ( programPath ).empty() )                                                                 \
    GTEST_SKIP() << "the build of the other width is missing (presets dev and i386)"

/// Skips the test where the emulator mixes up threads after a signal.
#define NUV_SKIP_IF_SIGNALS_BREAK_THREADS()                                                        \
    if ( !NuvTest::doThreadsSurviveSignals() )                                                     \
    GTEST_SKIP() << "this emulator mixes up the threads of a process that handles a signal"
