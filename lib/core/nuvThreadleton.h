#pragma once

#include "nuv.h"

#include <cstdint>
#include <pthread.h>

namespace Nuv::Mt {

/// A thread-local storage key as the library numbers it; its values have no destructor function.
using LocalStorageKey = std::uint32_t;
inline constexpr LocalStorageKey invalidLocalStorageKey = 0xFFFFFFFF;

/// @return a new key, or invalidLocalStorageKey when the system has none left
NUV_API LocalStorageKey allocateLocalStorage();
/// An invalid key is ignored.
NUV_API void freeLocalStorage( LocalStorageKey key );
/// @return the calling thread's value; null when unset or the key is invalid
NUV_API void* tlsValue( LocalStorageKey key );
/// Sets the calling thread's value; an invalid key is ignored.
NUV_API void tlsValue( LocalStorageKey key, void* valuePtr );

/// Base of an object that exists once per thread and is deleted when a library thread ends.
///
/// Owns:    once pushed, the thread's list owns it; deletion is newest first, as the thread body's
///          last action. Threads that the library did not start keep theirs until the process ends.
class NUV_API Threadleton
{
public:
    Threadleton() = default;
    Threadleton( const Threadleton& ) = delete;
    Threadleton& operator=( const Threadleton& ) = delete;
    virtual ~Threadleton();

    /// Puts the object at the head of the calling thread's list.
    static void pushThreadleton( Threadleton* objectPtr );

private:
    friend class ThreadletonMgr;
    Threadleton* myNextPtr = nullptr;
};

} // namespace Nuv::Mt

namespace Nuv::Utils {
template < class T >
class Singleton;
}

namespace Nuv::Mt {

/// The process-wide keeper of the threads' lists.
class NUV_API ThreadletonMgr
{
public:
    static ThreadletonMgr* singletonPtr();

    void push( Threadleton* objectPtr );

    /// Deletes every threadleton of the calling thread; its list head is not cleared, so it is the
    /// last thing a thread does with its threadletons.
    void deleteThreadletons();

private:
    friend class Utils::Singleton< ThreadletonMgr >;
    ThreadletonMgr();
    ~ThreadletonMgr();

    LocalStorageKey myKey;
};

} // namespace Nuv::Mt
