#include "nuvThreadleton.h"

#include "nuvSingleton.h"

#include <cerrno>

namespace Nuv::Mt {

extern Mutex ThreadletonMgrSingletonPtrMutex;
Mutex ThreadletonMgrSingletonPtrMutex;

static_assert( sizeof( ::pthread_key_t ) == sizeof( LocalStorageKey ) );

LocalStorageKey allocateLocalStorage()
{
    ::pthread_key_t key;
    const int errorNbr = ::pthread_key_create( &key, nullptr );
    if ( errorNbr == 0 )
        return key;
    errno = errorNbr;
    return invalidLocalStorageKey;
}

void freeLocalStorage( LocalStorageKey key )
{
    if ( key != invalidLocalStorageKey )
        ::pthread_key_delete( key );
}

void* tlsValue( LocalStorageKey key )
{
    return key == invalidLocalStorageKey ? nullptr : ::pthread_getspecific( key );
}

void tlsValue( LocalStorageKey key, void* valuePtr )
{
    if ( key == invalidLocalStorageKey )
        return;
    const int errorNbr = ::pthread_setspecific( key, valuePtr );
    errno = errorNbr == 0 ? errno : errorNbr;
    nuvCheckResourceText( errorNbr == 0, "::pthread_setspecific( key, valuePtr ) == 0" );
}

Threadleton::~Threadleton() = default;

void Threadleton::pushThreadleton( Threadleton* objectPtr )
{
    ThreadletonMgr::singletonPtr()->push( objectPtr );
}

ThreadletonMgr* ThreadletonMgr::singletonPtr()
{
    return Utils::Singleton< ThreadletonMgr >::ptr( ThreadletonMgrSingletonPtrMutex );
}

ThreadletonMgr::ThreadletonMgr()
    : myKey( allocateLocalStorage() )
{
    nuvCheckResource( myKey != invalidLocalStorageKey );
}

ThreadletonMgr::~ThreadletonMgr()
{
    freeLocalStorage( myKey );
}

void ThreadletonMgr::push( Threadleton* objectPtr )
{
    nuvAssert( objectPtr != NULL );
    objectPtr->myNextPtr = static_cast< Threadleton* >( tlsValue( myKey ) );
    tlsValue( myKey, objectPtr );
}

void ThreadletonMgr::deleteThreadletons()
{
    Threadleton* objectPtr = static_cast< Threadleton* >( tlsValue( myKey ) );
    while ( objectPtr != nullptr ) {
        Threadleton* const nextPtr = objectPtr->myNextPtr;
        delete objectPtr;
        objectPtr = nextPtr;
    }
}

} // namespace Nuv::Mt
