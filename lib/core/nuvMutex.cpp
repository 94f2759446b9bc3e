#include "nuvMutex.h"

#include <cstdlib>
#include <unistd.h>

namespace Nuv::Mt {

namespace {

struct RecursiveAttribute
{
    RecursiveAttribute()
    {
        ::pthread_mutexattr_init( &attr );
        ::pthread_mutexattr_settype( &attr, PTHREAD_MUTEX_RECURSIVE );
    }
    ~RecursiveAttribute() { ::pthread_mutexattr_destroy( &attr ); }

    pthread_mutexattr_t attr;
};

} // namespace

Mutex::Mutex()
    : myValid( false )
{
    RecursiveAttribute recursive;
    const pthread_mutexattr_t& attr = recursive.attr;
    nuvCheckResource( ::pthread_mutex_init( &myMutex, &attr ) == 0 );
    myValid.store( true, std::memory_order_relaxed );
}

Mutex::~Mutex()
{
    myValid.store( false, std::memory_order_relaxed );
    if ( ::pthread_mutex_trylock( &myMutex ) != 0 ) {
        static constexpr char text[] = "Mutex was still locked in ~Mutex\n";
        [[maybe_unused]] const ssize_t ignored = ::write( STDERR_FILENO, text, sizeof( text ) - 1 );
        std::abort();
    }
    ::pthread_mutex_unlock( &myMutex );
    ::pthread_mutex_destroy( &myMutex );
}

void MutexLock::lock() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    nuvAssert( myState != stateLocked );
    myEntered = myMutexPtr->enter();
    myState = stateLocked;
}

void MutexLock::unlock() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    nuvAssert( myState == stateLocked );
    if ( myEntered )
        myMutexPtr->exit();
    myState = stateUnlocked;
}

} // namespace Nuv::Mt
