#pragma once

#include "nuv.h"

#include <cstdint>
#include <string_view>

namespace Nuv::Io {

/// Hash of a message of the pipes: from 0, H = H * 63 + byte (signed) modulo 2^32 for each byte
/// before the first zero byte.
///
/// Threads: any.
/// Cost:    a pass for the zero byte and one by blocks, a byte a cycle or more.
NUV_API std::uint32_t pipeDataHash( std::string_view data );

} // namespace Nuv::Io
