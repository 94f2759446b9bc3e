#include "nuvSingleton.h"

#include "nuvTestSupport.h"

#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace Nuv::Utils {
namespace {

std::atomic< int > ourNbrBuilt = 0;
std::atomic< int > ourNbrOfFailuresToCome = 0;

template < int N >
class Counted
{
public:
    static Counted* singletonPtr();

    int myValue = 0;

private:
    friend class Singleton< Counted >;
    Counted()
    {
        if ( ourNbrOfFailuresToCome > 0 ) {
            --ourNbrOfFailuresToCome;
            throw RuntimeException( "not yet", 0, 0 );
        }
        ++ourNbrBuilt;
        // Long enough for threads that are let in by mistake to come in.
        if ( N == 1 )
            NuvTest::waitFor( [] { return ourNbrBuilt > 1; }, std::chrono::milliseconds( 50 ) );
        myValue = N;
    }
    ~Counted()
    {
        // What a destructor calls may still ask for the object that is being destroyed.
        std::printf( "%d%s ", myValue, singletonPtr() == this ? "" : "?" );
        std::fflush( stdout );
    }
};

template < int N >
Mt::Mutex ourMutex;

template < int N >
Counted< N >* Counted< N >::singletonPtr()
{
    return Singleton< Counted >::ptr( ourMutex< N > );
}

class User // of another singleton, while it is built and after that one has gone
{
public:
    static User* singletonPtr();

private:
    friend class Singleton< User >;
    User() { Counted< 5 >::singletonPtr(); }
    ~User() { std::printf( "user " ); }
};
Mt::Mutex UserSingletonPtrMutex;
User* User::singletonPtr()
{
    return Singleton< User >::ptr( UserSingletonPtrMutex );
}

TEST( SingletonCreation, ThreadsThatAskTogetherGetTheSameObject )
{
    constexpr int nbrOfThreads = 8;
    std::barrier start( nbrOfThreads );
    std::vector< Counted< 1 >* > found( nbrOfThreads );
    std::vector< std::thread > threads;
    const int nbrBuiltBefore = ourNbrBuilt;
    EXPECT_EQ( Singleton< Counted< 1 > >::ptrIfBuilt(), nullptr );
    for ( Counted< 1 >*& ptr : found ) {
        threads.emplace_back( [&start, &ptr] {
            start.arrive_and_wait();
            ptr = Counted< 1 >::singletonPtr();
            EXPECT_EQ( ptr->myValue, 1 );
        } );
    }
    for ( std::thread& thread : threads ) {
        thread.join();
    }
    EXPECT_EQ( ourNbrBuilt, nbrBuiltBefore + 1 );
    EXPECT_EQ( found, std::vector< Counted< 1 >* >( nbrOfThreads, found[0] ) );
    EXPECT_EQ( Singleton< Counted< 1 > >::ptrIfBuilt(), found[0] );
}

TEST( SingletonCreation, FailedConstructionLeavesNothingAndIsTriedAgain )
{
    ourNbrOfFailuresToCome = 2;
    for ( int i = 0; i < 2; ++i ) {
        EXPECT_THROW( Counted< 2 >::singletonPtr(), RuntimeException );
        EXPECT_EQ( Singleton< Counted< 2 > >::ptrIfBuilt(), nullptr );
    }
    EXPECT_EQ( Counted< 2 >::singletonPtr()->myValue, 2 );
}

std::string outputAtExit( void ( *body )() )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [body] {
        body();
        std::exit( 0 );
    } );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
    return outcome.output;
}

// The singletons that other tests have built before follow at the end.
TEST( SingletonDestruction, IsInReverseOrderOfCreationAndUseBringsOneBack )
{
    const std::string nested = outputAtExit( [] {
        Counted< 3 >::singletonPtr();
        Counted< 4 >::singletonPtr();
        User::singletonPtr(); // built within it: 5, destroyed after it
        Counted< 4 >::singletonPtr();
    } );
    EXPECT_EQ( nested.find( "user 5 4 3 " ), 0u ) << nested;
    const std::string late = outputAtExit( [] {
        std::atexit( [] { std::printf( "late %d ", Counted< 3 >::singletonPtr()->myValue ); } );
        Counted< 3 >::singletonPtr();
    } );
    EXPECT_EQ( late.find( "3 late 3 3 " ), 0u ) << late;
}

} // namespace
} // namespace Nuv::Utils
