#include "nuvThreadleton.h"

#include "nuvCapabilities.h"
#include "nuvTestSupport.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <thread>
#include <utility>

namespace {
NuvTest::Fault ourKeyFault;
}

extern "C" int __real_pthread_key_create( pthread_key_t*, void ( * )( void* ) );
extern "C" int __wrap_pthread_key_create( pthread_key_t* keyPtr, void ( *destroyPtr )( void* ) )
{
    if ( !ourKeyFault.strikes() )
        return __real_pthread_key_create( keyPtr, destroyPtr );
    return std::exchange( errno, 0 ); // told by the result alone
}
extern "C" uid_t __wrap_getuid()
{
    return 4711;
}
extern "C" uid_t __wrap_geteuid()
{
    return 4711;
}

namespace Nuv::Mt {
namespace {

// Notes its end in a list; may use an older one of its thread on the way.
struct Noted : Threadleton
{
    Noted( int number, std::vector< int >* listPtr, Noted* olderPtr = nullptr )
        : myNumber( number )
        , myListPtr( listPtr )
        , myOlderPtr( olderPtr )
    {
        pushThreadleton( this );
    }
    ~Noted() override
    {
        EXPECT_TRUE( myOlderPtr == nullptr || myOlderPtr->myNumber == myNumber - 1 );
        myListPtr->push_back( myNumber );
        myNumber = -1;
    }

    int myNumber;
    std::vector< int >* myListPtr;
    Noted* myOlderPtr;
};

TEST( LocalStorage, EachThreadHasItsOwnValueOfAKey )
{
    const LocalStorageKey key = allocateLocalStorage();
    ASSERT_NE( key, invalidLocalStorageKey );
    int mine = 0;
    int other = 0;
    tlsValue( key, &mine );
    std::thread( [&] {
        EXPECT_EQ( tlsValue( key ), nullptr );
        tlsValue( key, &other );
        EXPECT_EQ( tlsValue( key ), &other );
    } ).join();
    EXPECT_EQ( tlsValue( key ), &mine );
    freeLocalStorage( key );
}

TEST( LocalStorage, ExhaustedOrInvalidKeysAreHarmless )
{
    ourKeyFault.arm( 1, EAGAIN );
    EXPECT_EQ( allocateLocalStorage(), invalidLocalStorageKey );
    EXPECT_EQ( errno, EAGAIN );
    ourKeyFault.disarm();
    int value = 0;
    tlsValue( invalidLocalStorageKey, &value );
    EXPECT_EQ( tlsValue( invalidLocalStorageKey ), nullptr );
    freeLocalStorage( invalidLocalStorageKey );
}

TEST( ThreadletonLife, WithoutAKeyFirstUseIsAResourceFailureAndTheNextSucceeds )
{
    for ( int n = 1; n <= 2; ++n ) { // the capabilities' own key, then the manager's
        SCOPED_TRACE( n );
        ourKeyFault.arm( n, EAGAIN );
        EXPECT_THROW( Utils::Capabilities::threadletonPtr(), ResourceException );
        EXPECT_EQ( ourKeyFault.nbrOfStrikes(), 1 );
    }
    ourKeyFault.disarm();
    EXPECT_NE( Utils::Capabilities::threadletonPtr(), nullptr );
}

TEST( ThreadletonLife, DeletesTheCallingThreadsNewestFirst )
{
    std::vector< int > ends;
    std::vector< int > otherEnds;
    std::thread( [&] {
        Noted* const firstPtr = new Noted( 1, &ends );
        new Noted( 3, &ends, new Noted( 2, &ends, firstPtr ) );
        std::thread( [&] {
            new Noted( 7, &otherEnds );
            ThreadletonMgr::singletonPtr()->deleteThreadletons();
        } ).join();
        EXPECT_EQ( otherEnds, ( std::vector< int >{ 7 } ) );
        EXPECT_TRUE( ends.empty() );
        ThreadletonMgr::singletonPtr()->deleteThreadletons();
    } ).join();
    EXPECT_EQ( ends, ( std::vector< int >{ 3, 2, 1 } ) );
    std::thread( [] { ThreadletonMgr::singletonPtr()->deleteThreadletons(); } ).join(); // none
    EXPECT_THROW( Threadleton::pushThreadleton( nullptr ), LogicException );
}

} // namespace
} // namespace Nuv::Mt
