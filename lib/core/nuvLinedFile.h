#pragma once

#include "nuvPathname.h"
#include "nuvString.h"

#include <cstdio>
#include <list>

namespace Nuv::Io {

/// Reads a text file into a list of lines and writes one back.
///
/// Each element is one line with its terminating LF; the last line of a file without a final LF has
/// none. Lines are split at LF alone: other bytes, NULs included, are kept.
///
/// Threads: any; one file is not to be written by two at once.
/// Errors:  reported by the result; nothing is thrown but std::bad_alloc.
class NUV_API LinedFile
{
public:
    using Lines = std::list< Utils::String >;

    /// Replaces the list by the file's lines.
    /// @return false, with the list unchanged, if the file cannot be opened for reading
    static bool readFile( const Pathname& pathname, Lines* linesPtr );
    /// Appends the lines from the current position to the end (or to a read error) to the list.
    /// @param filePtr open for reading; stays open
    static bool readFile( std::FILE* filePtr, Lines* linesPtr );

    /// Replaces the file's content by the elements as they are, no separator added. A file that is
    /// not writeable is made so (owner) for the time of the write and then loses all its write
    /// permissions.
    /// @return whether the file was opened and all of it written
    static bool writeFile( const Pathname& pathname, const Lines* linesPtr );
};

} // namespace Nuv::Io
