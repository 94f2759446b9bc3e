#pragma once

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

/// What the benchmarks of interprocess objects share.
namespace NuvBench {

/// A root folder, and System V objects, of this program's own: made before main(), gone at exit.
class Root
{
public:
    Root()
    {
        // Without the privilege the objects' key files alone keep them apart from others'.
        [[maybe_unused]] const int ignored = ::unshare( CLONE_NEWIPC );
        std::string home = "/tmp/nuvbench-XXXXXX";
        if ( ::mkdtemp( home.data() ) == nullptr )
            std::abort();
        myHome = home;
        ::setenv( "HOME", myHome.c_str(), 1 );
    }
    Root( const Root& ) = delete;
    Root& operator=( const Root& ) = delete;
    ~Root()
    {
        std::error_code ignored;
        std::filesystem::remove_all( myHome, ignored );
    }

private:
    std::string myHome;
};

/// Keeps the calling thread on one core; the two sides of a benchmark take cores 0 and 1.
inline void pin( int core )
{
    cpu_set_t cores;
    CPU_ZERO( &cores );
    CPU_SET( core, &cores );
    ::sched_setaffinity( 0, sizeof( cores ), &cores );
}

/// Gives the thread all its cores back at the end of a scope.
class PinScope
{
public:
    explicit PinScope( int core )
    {
        ::sched_getaffinity( 0, sizeof( mySaved ), &mySaved );
        pin( core );
    }
    PinScope( const PinScope& ) = delete;
    PinScope& operator=( const PinScope& ) = delete;
    ~PinScope() { ::sched_setaffinity( 0, sizeof( mySaved ), &mySaved ); }

private:
    cpu_set_t mySaved;
};

/// The other side: a forked process on core 1, ended at the end of the scope.
class OtherSide
{
public:
    explicit OtherSide( const std::function< void() >& body )
        : myPid( ::fork() )
    {
        if ( myPid == 0 ) {
            pin( 1 );
            body();
            ::_exit( 0 );
        }
    }
    OtherSide( const OtherSide& ) = delete;
    OtherSide& operator=( const OtherSide& ) = delete;
    ~OtherSide()
    {
        ::kill( myPid, SIGKILL );
        ::waitpid( myPid, nullptr, 0 );
    }

private:
    pid_t myPid;
};

} // namespace NuvBench
