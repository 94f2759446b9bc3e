#pragma once

#include "nuv.h"

namespace Nuv {

// The option parser's state, named as the C library names its own. It belongs to the main thread at
// start-up.

/// Argument of the option returned last, within argv; null if it takes none.
extern NUV_API char* optarg;
/// Index of the argument to be read next, initially 1. Setting it starts anew at that argument.
extern NUV_API int optind;
/// 0 silences the messages, initially 1.
extern NUV_API int opterr;
/// The character that was no option, initially '?'.
extern NUV_API int optopt;

/// Reads the command line option by option: "-a", "-ab" for "-a -b", "-bvalue" or "-b value".
///
/// Parsing ends at the first argument that does not begin with '-', at a lone "-" (which stays an
/// operand), and behind "--". Arguments are not reordered, and argv is not changed.
///
/// Threads: one.
/// Errors:  an illegal character, an unknown option or a missing argument is told on standard error
///          unless silenced; nothing is thrown.
/// Example: while ( ( c = Nuv::getopt( argc, argv, "ab:" ) ) != -1 ) ...
/// @param optionsPtr option characters, ':' behind one that takes an argument; ':' in front
///        silences
/// @return the option character; '?' for one that is illegal or unknown; -1 at the end. An option
///         whose argument is missing is returned with an empty optarg.
NUV_API int getopt( int argc, char* const argv[], const char* optionsPtr );

} // namespace Nuv
