#include "nuvSingleton.h"

#include "nuvTestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <thread>

namespace Nuv::Utils {
namespace {

bool ourFails = false;

// Number 5 is asked for by the constructor of number 6.
template < int N >
class Numbered
{
public:
    static Numbered* singletonPtr() { return Singleton< Numbered >::ptr( ourMutex ); }
    static inline Mt::Mutex ourMutex;
    static inline std::atomic< int > ourNbrBuilt = 0;

private:
    friend class Singleton< Numbered >;
    Numbered()
    {
        if ( ourFails )
            throw RuntimeException( "not yet", 0, 0 );
        ++ourNbrBuilt;
        if constexpr ( N == 1 ) // long enough for threads that are let in by mistake to come in
            NuvTest::waitFor( [] { return ourNbrBuilt > 1; }, std::chrono::milliseconds( 50 ) );
        if constexpr ( N == 6 )
            Numbered< 5 >::singletonPtr();
    }
    // What a destructor calls may still ask for the object that is being destroyed.
    ~Numbered() { std::printf( "%d%s ", N, singletonPtr() == this ? "" : "?" ); }
};

TEST( SingletonCreation, ThreadsThatAskTogetherGetTheSameObjectAndAFailureIsTriedAgain )
{
    ourFails = true;
    EXPECT_THROW( Numbered< 1 >::singletonPtr(), RuntimeException );
    EXPECT_EQ( Singleton< Numbered< 1 > >::ptrIfBuilt(), nullptr );
    ourFails = false;
    std::thread other( [] { Numbered< 1 >::singletonPtr(); } );
    Numbered< 1 >* const objectPtr = Numbered< 1 >::singletonPtr();
    EXPECT_EQ( objectPtr, Singleton< Numbered< 1 > >::ptrIfBuilt() );
    other.join();
    EXPECT_EQ( Numbered< 1 >::ourNbrBuilt, 1 );
}

// The singletons that other tests have built before follow at the end.
TEST( SingletonDestruction, IsInReverseOrderOfCreationAndUseBringsOneBack )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [] {
        std::atexit( [] { Numbered< 3 >::singletonPtr(); } );
        Numbered< 3 >::singletonPtr();
        Numbered< 6 >::singletonPtr();
        Numbered< 3 >::singletonPtr();
        std::exit( 0 );
    } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
    EXPECT_EQ( outcome.output.find( "6 5 3 3 " ), 0u ) << outcome.output;
}

} // namespace
} // namespace Nuv::Utils
