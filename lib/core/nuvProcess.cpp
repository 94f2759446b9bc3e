#include "nuvProcess.h"

#include "nuvChildStart.h"
#include "nuvLog.h"
#include "nuvMutex.h"
#include "nuvProcessHelper.h"
#include "nuvSignalHandler.h"
#include "nuvSimpleStreamBuf.h"
#include "nuvTime.h"
#include "nuvUtils.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Nuv::Mt {

namespace {

/// Children whose objects ended before them.
class AbandonedChildren
{
public:
    void add( pid_t pid )
    {
        const MutexLock lock( myMutex );
        myPids.push_back( pid );
    }
    void collect()
    {
        const MutexLock lock( myMutex );
        std::erase_if( myPids, []( pid_t pid ) {
            return Utils::retryOnEintr( [&] { return ::waitpid( pid, nullptr, WNOHANG ); } ) != 0;
        } );
    }

private:
    Mutex myMutex; // taken alone
    std::vector< pid_t > myPids NUV_GUARDED_BY( myMutex );
};

AbandonedChildren& abandonedChildren()
{
    // Never destroyed: objects with static storage may end after it would.
    static AbandonedChildren* const childrenPtr = new AbandonedChildren;
    return *childrenPtr;
}

int maxNbrOfFds()
{
    static const int ourMaxNbrOfFds = [] {
        const long value = ::sysconf( _SC_OPEN_MAX );
        if ( value < 0 ) {
            nuvLogTo( Log::getStandardSource( Log::error ) )
                << "errSystemError spawnProcess(): sysconf( _SC_OPEN_MAX ) failed";
            return 512;
        }
        return static_cast< int >( std::min( value, 0x7FFFFFFFL ) );
    }();
    return ourMaxNbrOfFds;
}

// Moves a descriptor out of the way of the child's three streams.
bool moveAboveStreams( Utils::Handle* handlePtr )
{
    if ( handlePtr->fd() > STDERR_FILENO )
        return true;
    handlePtr->reset( ::fcntl( handlePtr->fd(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1 ) );
    return handlePtr->isValid();
}

struct Pipe
{
    void open( const char* streamPtr )
    {
        int fds[2];
        bool ok = ::pipe2( fds, O_CLOEXEC ) == 0;
        if ( ok ) {
            readEnd.reset( fds[0] );
            writeEnd.reset( fds[1] );
            ok = moveAboveStreams( &readEnd ) && moveAboveStreams( &writeEnd );
        }
        if ( !ok ) {
            const std::string text = std::string( "spawn(): could not redirect " ) + streamPtr +
                                     ": " + std::strerror( errno );
            throw Process::Exception( text.c_str(), 0, 0 );
        }
    }

    Utils::Handle readEnd;
    Utils::Handle writeEnd;
};

bool isExecutable( const Io::Pathname& pathname )
{
    // Nobody, not even the superuser, executes a file without any of these.
    constexpr std::uint32_t permissionBits = Io::FileSystem::userExecutable |
                                             Io::FileSystem::groupExecutable |
                                             Io::FileSystem::otherExecutable;
    const std::uint32_t attributes =
        pathname.isValid() ? Io::FileSystem::pathnameAttributes( pathname.str() ) : 0;
    return ( attributes & Io::FileSystem::file ) != 0 &&
           ( attributes & Io::FileSystem::executable ) != 0 && ( attributes & permissionBits ) != 0;
}

void handOut( std::unique_ptr< std::streambuf >* ownerPtr,
              std::unique_ptr< std::streambuf >* madePtr, std::streambuf** callersPtr )
{
    *ownerPtr = std::move( *madePtr );
    if ( callersPtr != nullptr )
        *callersPtr = ownerPtr->get();
}

std::vector< char* > argumentVector( Utils::Buffer& arguments )
{
    std::vector< char* > vector;
    for ( char* ptr = arguments.data(); ptr < arguments.data() + arguments.size();
          ptr += std::strlen( ptr ) + 1 ) {
        vector.push_back( ptr );
    }
    vector.push_back( nullptr );
    return vector;
}

void setMallocTrace( const Io::Pathname& pathname )
{
    if ( ::getenv( "MALLOC_TRACE" ) != nullptr )
        ::setenv( "MALLOC_TRACE", ( pathname.nameStr() + ".mlog" ).c_str(), 1 );
}

// Returns when the child may have ended, or the time is over.
void waitForChange( const Utils::Handle& pidFd, unsigned int timeoutMs )
{
    constexpr unsigned int maxSleepMs = 1000;
    if ( !pidFd.isValid() ) {
        std::this_thread::sleep_for(
            std::chrono::milliseconds( std::min( timeoutMs, maxSleepMs ) ) );
        return;
    }
    pollfd descriptor = { pidFd.fd(), POLLIN, 0 };
    ::poll( &descriptor, 1,
            timeoutMs == Process::infinite
                ? -1
                : static_cast< int >( std::min( timeoutMs, 0x7FFFFFFFU ) ) );
}

} // namespace

// The pipes of one start: the child's ends by descriptor, the parent's as stream buffers.
struct Process::Pipes
{
    Pipes( bool wantsIn, bool wantsOut, bool wantsErr )
    {
        if ( wantsIn ) {
            in.open( "stdin" );
            inPtr = std::make_unique< Io::SimpleOStreamBuf >( std::move( in.writeEnd ) );
        }
        if ( wantsOut ) {
            out.open( "stdout" );
            outPtr = std::make_unique< Io::SimpleIStreamBuf >( std::move( out.readEnd ) );
        }
        if ( wantsErr ) {
            err.open( "stderr" );
            errPtr = std::make_unique< Io::SimpleIStreamBuf >( std::move( err.readEnd ) );
        }
    }

    Pipe in;
    Pipe out;
    Pipe err;
    std::unique_ptr< std::streambuf > inPtr;
    std::unique_ptr< std::streambuf > outPtr;
    std::unique_ptr< std::streambuf > errPtr;
};

Process::Process()
    : myPathname( Io::Pathname::executablePathname )
    , myRestartIsAllowed( true )
{
    addArg( myPathname.cStr() );
}

Process::Process( const char* pathnamePtr )
    : myPathname( Utils::String( pathnamePtr ) )
    , myRestartIsAllowed( false )
{
    addArg( myPathname.cStr() );
}

Process::Process( const Process& other )
    : myPathname( other.myPathname )
    , myArguments( other.myArguments )
    , myUserId( other.myUserId )
    , myEffectiveUserId( other.myEffectiveUserId )
    , myRestartIsAllowed( other.myRestartIsAllowed )
{
}

Process::~Process()
{
    closeChildsStdin();
    closeChildsStdout();
    closeChildsStderr();
    if ( myProcessIsRunning )
        abandonedChildren().add( myPid );
    abandonedChildren().collect();
}

void Process::addArg( const char* argumentPtr )
{
    nuvAssert( argumentPtr != NULL );
    myArguments.append( argumentPtr, std::strlen( argumentPtr ) + 1 );
}

void Process::spawn( std::streambuf** stdinPtr, std::streambuf** stdoutPtr,
                     std::streambuf** stderrPtr )
{
    nuvAssert( !myProcessIsRunning );
    myProcessHasExited = false;
    abandonedChildren().collect();
    if ( !isExecutable( myPathname ) )
        throw Exception( "spawn(): invalid pathname", 0, 0 );
    const int nbrOfFds = maxNbrOfFds();
    // The parent's ends are made before the child, so that nothing can fail after its start.
    Pipes pipes( stdinPtr != nullptr, stdoutPtr != nullptr, stderrPtr != nullptr );
    const std::vector< char* > arguments = argumentVector( myArguments );
    setMallocTrace( myPathname );
    const ChildStart start{ myPathname.cStr(),
                            arguments.data(),
                            environ,
                            myUserId,
                            myEffectiveUserId,
                            { pipes.in.readEnd, pipes.out.writeEnd, pipes.err.writeEnd },
                            nbrOfFds,
                            SignalHandler::defaultAppSet(),
                            &Utils::CapabilityDevice::instance() };
    const pid_t pid = start.run();
    nuvCheckResource( pid > 0 );
    myPid = pid;
    myProcessIsRunning = true;
    myTerminatedBySignal = false;
    myExitValue = -1;
    handOut( &myStdinPtr, &pipes.inPtr, stdinPtr );
    handOut( &myStdoutPtr, &pipes.outPtr, stdoutPtr );
    handOut( &myStderrPtr, &pipes.errPtr, stderrPtr );
}

bool Process::waitForExit( unsigned int timeoutMs )
{
    if ( !myProcessIsRunning ) {
        nuvAssert( myProcessIsRunning || myProcessHasExited );
        return myProcessHasExited;
    }
    Utils::MsTimer timer;
    Utils::Handle pidFd;
    for ( ;; ) {
        if ( collectExit() )
            return true;
        timer.decrementByElapsedTime( &timeoutMs );
        if ( timeoutMs == 0 )
            return false;
        if ( !pidFd.isValid() )
            pidFd.reset( static_cast< int >( ::syscall( SYS_pidfd_open, myPid, 0 ) ) );
        waitForChange( pidFd, timeoutMs );
    }
}

bool Process::collectExit()
{
    int exitStatus = 0;
    const pid_t status =
        Utils::retryOnEintr( [&] { return ::waitpid( myPid, &exitStatus, WNOHANG ); } );
    if ( status != myPid ) {
        nuvAssertText( !( status == -1 && errno == ECHILD ),
                       "!(status == -1 && errno == ECHILD )" );
        nuvCheckResource( status == 0 );
        return false;
    }
    myTerminatedBySignal = ( exitStatus & 0x7F ) != 0;
    myExitValue = myTerminatedBySignal ? exitStatus & 0x7F : ( exitStatus >> 8 ) & 0xFF;
    myProcessHasExited = true;
    myProcessIsRunning = false;
    return true;
}

void Process::restartOnExit()
{
    nuvAssert( myRestartIsAllowed );
    Utils::Buffer arguments = myArguments;
    Utils::ProcessHelper::singletonPtr()->setArgs( myPathname.cStr(), &arguments );
}

} // namespace Nuv::Mt
