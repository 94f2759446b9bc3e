#pragma once

#include "nuvBuffer.h"

#include <string>
#include <sys/types.h>

namespace Nuv::Utils {

template < class T >
class Singleton;

/// The library's start-up, and the restart of the program at process exit.
///
/// When the library is loaded, before the application's entry runs, in this order:
/// SetupEffectiveUserId drops the effective user to the login user, ProcessHelper blocks the
/// interrupt signals in the first thread, so that every later thread inherits the mask, and the
/// capability device is opened if the machine has one. Nothing else happens until the first call:
/// no file, thread, directory or interprocess object.
///
/// At process exit the effective user is set back to the file's owner; then, if setArgs() was
/// called, the process executes the command with its own environment. Descriptors from 3 on are
/// closed by that, and whoever has the interrupt signals blocked then hands the mask on. An exec
/// that fails leaves one line on standard error, and the exit goes on.
///
/// Threads: setArgs() from one thread at a time.
/// Errors:  none but the line of a failed exec.
/// Example: ProcessHelper::singletonPtr()->setArgs( "/usr/bin/sensord", &args ); std::exit( 0 );
class NUV_API ProcessHelper
{
public:
    static ProcessHelper* singletonPtr();

    /// Asks for the restart at exit; a second call replaces the first.
    /// @param commandPtr pathname of the program; copied; null fails nuvAssert
    /// @param argsPtr zero-terminated strings, argument 0 first; swapped with the helper's buffer,
    ///        which is empty at first. None at all makes the command argument 0. Null fails
    ///        nuvAssert.
    void setArgs( const char* commandPtr, Buffer* argsPtr );

private:
    friend class Singleton< ProcessHelper >;
    ProcessHelper();
    ~ProcessHelper();

    void execute();

    bool myRestart = false;
    pid_t myPid = -1; // of the process that asked for the restart
    std::string myCommand;
    Buffer myArgs;
};

} // namespace Nuv::Utils
