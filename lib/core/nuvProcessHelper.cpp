#include "nuvProcessHelper.h"

#include "nuvCapabilityDevice.h"
#include "nuvOs.h"
#include "nuvSignalHandler.h"
#include "nuvSingleton.h"
#include "nuvUtils.h"

#include <climits>
#include <fcntl.h>
#include <linux/close_range.h>
#include <unistd.h>
#include <vector>

namespace Nuv::Utils {

extern Mt::Mutex ProcessHelperSingletonPtrMutex;
Mt::Mutex ProcessHelperSingletonPtrMutex;

namespace {

constexpr int firstOwnFd = 3;

void markCloseOnExec()
{
    if ( ::close_range( firstOwnFd, UINT_MAX, CLOSE_RANGE_CLOEXEC ) == 0 )
        return;
    const long endFd = ::sysconf( _SC_OPEN_MAX ); // a kernel before 5.11
    for ( int fd = firstOwnFd; fd < endFd; ++fd )
        ::fcntl( fd, F_SETFD, FD_CLOEXEC );
}

std::vector< char* > argumentVector( Buffer* argsPtr, std::string* commandPtr )
{
    std::vector< char* > arguments;
    char* const endPtr = argsPtr->data() + argsPtr->size();
    for ( char* ptr = argsPtr->data(); ptr < endPtr; ptr += std::strlen( ptr ) + 1 )
        arguments.push_back( ptr ); // the last one ends at the latest with the Buffer's own NUL
    if ( arguments.empty() )
        arguments.push_back( commandPtr->data() );
    arguments.push_back( nullptr );
    return arguments;
}

} // namespace

NUV_STARTUP ProcessHelper* ProcessHelper::singletonPtr()
{
    return Singleton< ProcessHelper >::ptr( ProcessHelperSingletonPtrMutex );
}

NUV_STARTUP ProcessHelper::ProcessHelper()
{
    Mt::SignalHandler::blockSignals();
}

ProcessHelper::~ProcessHelper()
{
    SetupEffectiveUserId::singletonPtr()->deinit();
    if ( myRestart && myPid == ::getpid() )
        execute();
}

void ProcessHelper::setArgs( const char* commandPtr, Buffer* argsPtr )
{
    nuvAssert( commandPtr != NULL && argsPtr != NULL );
    myCommand = commandPtr;
    myArgs.swap( *argsPtr );
    myPid = ::getpid();
    myRestart = true;
}

void ProcessHelper::execute()
{
    const std::vector< char* > arguments = argumentVector( &myArgs, &myCommand );
    markCloseOnExec();
    ::execv( myCommand.c_str(), arguments.data() );
    const std::string text = "processAtExit() execv failed for Command: " + myCommand + "\n";
    [[maybe_unused]] const ssize_t ignored =
        retryOnEintr( [&] { return ::write( STDERR_FILENO, text.data(), text.size() ); } );
}

namespace {

// Runs while the library is loaded, in the first thread, after the statics of the lower units (they
// are linked first), whose mutexes it uses; so these also outlive the exit handlers it registers.
struct LibraryStartup
{
    LibraryStartup()
    {
        SetupEffectiveUserId::singletonPtr();
        ProcessHelper::singletonPtr();
        CapabilityDevice::instance();
    }
};

const LibraryStartup ourLibraryStartup;

} // namespace
} // namespace Nuv::Utils
