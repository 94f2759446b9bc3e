#pragma once

#include "nuvThreadleton.h"

#include <thread>
#include <utility>

namespace NuvTest {

/// A thread that is not the library's and yet gives back, at its end, what the library keeps for
/// each thread.
template < class Body >
std::thread startThread( Body body )
{
    return std::thread( [body = std::move( body )]() mutable {
        body();
        Nuv::Mt::ThreadletonMgr::singletonPtr()->deleteThreadletons();
    } );
}

} // namespace NuvTest
