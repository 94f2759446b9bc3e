#pragma once

#include "nuvBuffer.h"
#include "nuvPathname.h"

#include <cstdint>

namespace Nuv::Io {

/// Loads a whole file into a Buffer, or stores a Buffer as a file.
///
/// Threads: one at a time; concurrent writers of one file are not coordinated.
/// Errors:  Exception, its text naming operation, error and pathname (or the refused size); a load
///          that fails leaves the data as it was.
/// Cost:    load takes one read() in the common case and fills nothing beforehand; data whose
///          capacity suffices is read into in place.
/// Example: FileHelper helper( 4000000 ); helper.pathname = Pathname( path ); helper.load();
class NUV_API FileHelper
{
public:
    /// Reason 0, error number 0.
    struct NUV_API Exception : RuntimeException
    {
        using RuntimeException::RuntimeException;
    };

    /// @param maximum largest file that load() accepts, in bytes; 0 means no limit
    explicit FileHelper( long long maximum );

    /// Replaces the data with the file's bytes: those of its size at the start, or fewer if it
    /// shrinks meanwhile.
    /// @return whether as many bytes came as the file's size said
    /// @throws Exception if it is no readable regular file, larger than the maximum (or than what a
    ///         Buffer holds), or does not open
    bool load();
    /// Replaces the file's content with the data, creating the file when missing (0666 less the
    /// umask).
    /// @return whether all bytes were written (a full disk says false)
    /// @throws Exception if the pathname is invalid or the file does not open
    bool store() const;

    std::int64_t maximumSize;
    Pathname pathname;
    Utils::Buffer data;
};

} // namespace Nuv::Io
