#pragma once

#include "nuvMutex.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace Nuv::Utils {

/// The one mechanism behind every process-wide singleton of the library.
///
/// The object is built on first use under the class's own mutex, `<Class>SingletonPtrMutex`, and
/// destroyed at process exit in reverse order of creation. A use after that, by another exit
/// handler, builds it anew, to be destroyed right after the handler that needed it. A class with a
/// static member `outlivesExit` is never destroyed.
///
/// A class T has a private constructor and destructor, befriends Singleton< T > and defines
///
///     Mt::Mutex TSingletonPtrMutex;
///     T* T::singletonPtr() { return Utils::Singleton< T >::ptr( TSingletonPtrMutex ); }
///
/// Threads: any. The pointer is valid until exit. Threads that outlive exit() are on their own with
///          an object that is destroyed; its memory stays, so that a class may be prepared for
///          them.
/// Errors:  what T's constructor throws leaves ptr(); the next call tries again.
/// Cost:    one acquiring load once the object exists.
template < class T >
class Singleton
{
public:
    /// @param mutex the class's own; T's constructor runs while it is held
    static T* ptr( Mt::Mutex& mutex )
    {
        if ( T* const objectPtr = ourPtr.load( std::memory_order_acquire ) )
            return objectPtr;
        return build( mutex );
    }

    /// @return the object if it exists at this moment, else null; builds nothing
    static T* ptrIfBuilt() { return ourPtr.load( std::memory_order_acquire ); }

private:
    static T* build( Mt::Mutex& mutex )
    {
        const Mt::MutexLock lock( mutex );
        T* objectPtr = ourPtr.load( std::memory_order_acquire );
        if ( objectPtr == nullptr ) {
            alignas( T ) static std::byte ourStorage[sizeof( T )];
            objectPtr = new ( ourStorage ) T();
            ourPtr.store( objectPtr, std::memory_order_release );
            if constexpr ( !requires { T::outlivesExit; } )
                std::atexit( &destroy );
        }
        return objectPtr;
    }

    // The pointer stays until the destructor has ended: what it calls may ask for the object.
    static void destroy()
    {
        ourPtr.load( std::memory_order_acquire )->~T();
        ourPtr.store( nullptr, std::memory_order_release );
    }

    static inline std::atomic< T* > ourPtr = nullptr;
};

} // namespace Nuv::Utils
