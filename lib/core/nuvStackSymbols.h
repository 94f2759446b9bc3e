#pragma once

#include "nuv.h"

#include <cstdint>

namespace Nuv {

/// Where a code address lies, in terms of loaded objects and their exported symbols.
///
/// Threads: any, also in signal context: nothing is allocated, locked or loaded. (The C library's
///          backtrace_symbols_fd() takes the loader's lock, which a crashed process may hold.)
/// Errors:  an address outside all objects, or a C library older than 2.35, has all members empty.
/// Owns:    nothing; the texts live as long as the object stays loaded.
/// Cost:    a pass over the object's exported symbols.
struct StackSymbol
{
    explicit StackSymbol( const void* addressPtr ) noexcept;

    const char* myObjectPtr = nullptr; ///< pathname; as the program was called for the program
    const char* myNamePtr = nullptr;   ///< mangled; null when the object exports no name there
    std::uintptr_t myOffset = 0;       ///< from the symbol's start, else from the object's
};

} // namespace Nuv
