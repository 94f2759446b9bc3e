#pragma once

#include "nuv.h"

#include <cstdint>
#include <pthread.h>

namespace Nuv::Utils {
template < class T >
class Singleton;
}

namespace Nuv::Mt {

/// A thread-local storage key as the library numbers it; its values have no destructor function.
using LocalStorageKey = std::uint32_t;
inline constexpr LocalStorageKey invalidLocalStorageKey = 0xFFFFFFFF;

/// @return a new key, null in every thread, or invalidLocalStorageKey (with errno) when the system
/// has none left
NUV_API LocalStorageKey allocateLocalStorage();
/// What the values point at stays as it is. An invalid key is ignored.
NUV_API void freeLocalStorage( LocalStorageKey key );
/// @return the calling thread's value; null when unset or the key is invalid
NUV_API void* tlsValue( LocalStorageKey key );
/// Sets the calling thread's value; an invalid key is ignored. Fails nuvCheckResource when the
/// system has no memory for the value.
NUV_API void tlsValue( LocalStorageKey key, void* valuePtr );

/// Base of an object that exists once per thread and is deleted when a library thread ends.
///
/// A class makes its object on first use in a thread, keeps it in a storage key of its own for its
/// `threadletonPtr()`, and pushes it. A destructor may use threadletons pushed before its own, and
/// none pushed after it.
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
    /// @param objectPtr allocated with new, in no list yet; null fails nuvAssert. If the push
    /// throws, the caller still owns it.
    static void pushThreadleton( Threadleton* objectPtr );

private:
    friend class ThreadletonMgr;
    Threadleton* myNextPtr = nullptr; // pushed just before this one, by the same thread
};

/// The process-wide keeper of the threads' lists.
///
/// Threads: any; each sees only its own list, so there is no lock.
/// Errors:  the construction fails nuvCheckResource when no storage key is left.
class NUV_API ThreadletonMgr
{
public:
    static ThreadletonMgr* singletonPtr();

    /// See Threadleton::pushThreadleton().
    void push( Threadleton* objectPtr );

    /// Deletes every threadleton of the calling thread, newest first. The list's head is not
    /// cleared: this is the last thing a thread does with its threadletons, once in its life. What
    /// a destructor pushes meanwhile is not deleted.
    void deleteThreadletons();

private:
    friend class Utils::Singleton< ThreadletonMgr >;
    ThreadletonMgr();
    ~ThreadletonMgr();

    LocalStorageKey myKey;
};

} // namespace Nuv::Mt
