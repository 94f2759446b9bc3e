#include "nuvThreadleton.h"

#include "nuvCapabilities.h"
#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <cerrno>
#include <thread>
#include <utility>

namespace {
NuvTest::Fault ourKeyFault;
}

// The failure is told by the result alone.
NUV_FAIL_CALLS( ourKeyFault, std::exchange( errno, 0 ), int, pthread_key_create,
                ( pthread_key_t * keyPtr, void ( *destroyPtr )( void* ) ), ( keyPtr, destroyPtr ) )
NUV_WRAP( uid_t, getuid, (), 4711 )
NUV_WRAP( uid_t, geteuid, (), 4711 )

namespace Nuv::Mt {
namespace {

// Notes its end in a list.
struct Noted : Threadleton
{
    Noted( int number, std::vector< int >* listPtr )
        : myNumber( number )
        , myListPtr( listPtr )
    {
        pushThreadleton( this );
    }
    ~Noted() override { myListPtr->push_back( myNumber ); }
    int myNumber;
    std::vector< int >* myListPtr;
};

TEST( ThreadletonLife, WithoutAKeyFirstUseIsAResourceFailureAndTheNextSucceeds )
{
    for ( int n = 1; n <= 2; ++n ) { // the capabilities' own key, then the manager's
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
        for ( const int number : { 1, 2, 3 } )
            new Noted( number, &ends );
        std::thread( [&] {
            new Noted( 7, &otherEnds );
            ThreadletonMgr::singletonPtr()->deleteThreadletons();
        } ).join();
        EXPECT_TRUE( otherEnds.size() == 1 && ends.empty() );
        ThreadletonMgr::singletonPtr()->deleteThreadletons();
    } ).join();
    EXPECT_EQ( ends, ( std::vector< int >{ 3, 2, 1 } ) );
    EXPECT_THROW( Threadleton::pushThreadleton( nullptr ), LogicException );
}

} // namespace
} // namespace Nuv::Mt
