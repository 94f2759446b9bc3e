#pragma once

#include "nuv.h"

#include <sys/types.h>

namespace Nuv {

/// The application's own main function, run on the task "main". An application that calls
/// startMainThread() defines it, with this header included (which makes it visible to the library
/// also where the application hides its symbols); a program that only uses the toolbox need not.
NUV_API int main( int argc, char** argv ) __attribute__( ( weak ) );

} // namespace Nuv

namespace Nuv::Mt {

/// The process frame: runs Nuv::main( argc, argv ) on the task "main" (priority 3), while the
/// calling thread, which must be the initial one, dispatches signals until that task has ended.
///
/// SignalHandler::singletonPtr() must have been called before; without it no signal is dispatched.
/// The program's pathname is recorded, from "/proc/self/exe" or else argv[0], and the process
/// begins to log, so that an assertion of Nuv::main has its fatal line.
///
/// In the child of a fork the library's part of the process is over: an exit handler registered
/// there writes out what the child printed to standard output and ends it with _exit( 0 ), before
/// the parent's exit handlers and static destructors could run.
///
/// Threads: the initial one, once at a time.
/// Errors:  nuvAssert ("Nuv::main != NULL") in a program that defines no Nuv::main;
///          nuvCheckResource ("thrOk", "errno == EINTR") without a thread or when waiting fails. An
///          exception that an observer of a signal throws is logged as that of a thread is, and
///          dispatching goes on.
/// Cost:    the end of Nuv::main is noticed within 250 ms, a signal at once.
/// Example: int main( int argc, char** argv ) { return Nuv::Mt::startMainThread( argc, argv ); }
/// @return what Nuv::main returned, -1 if it threw
NUV_API int startMainThread( int argc, char** argv );

/// @return the process id at startMainThread(), 0 before it
NUV_API pid_t getPid();

} // namespace Nuv::Mt
