#pragma once

#include "nuv.h"

#include <sys/types.h>

namespace Nuv {

/// The application's own main function, run on the task "main". An application that calls
/// startMainThread() must define it; a program that only uses the toolbox need not.
NUV_API int main( int argc, char** argv ) __attribute__( ( weak ) );

} // namespace Nuv

namespace Nuv::Mt {

/// The process frame.
NUV_API int startMainThread( int argc, char** argv );

/// @return the process id at startMainThread(), 0 before it
NUV_API pid_t getPid();

} // namespace Nuv::Mt
