#include "nuvSignalHandler.h"

#include "nuvCrashReport.h"
#include "nuvPathname.h"
#include "nuvTestSupport.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {
NuvTest::Fault ourPipeFault;
} // namespace

extern "C" int __real_pipe2( int*, int );
extern "C" int __wrap_pipe2( int* fdsPtr, int flags )
{
    return ourPipeFault.strikes() ? -1 : __real_pipe2( fdsPtr, flags );
}

namespace Nuv::Mt {
namespace {

using namespace NuvTest;

const std::vector< int > interruptSignals = { 1,  2,  3,  10, 12, 13, 14, 15,
                                              17, 18, 21, 22, 23, 29, 30 };
const std::vector< int > crashSignals = { 4, 6, 7, 8, 11 };

// The handler is the process's: each test has a child for it.
class SignalHandling : public RootFixture
{
protected:
    static void passInChild( const std::function< void() >& body )
    {
        const Outcome outcome = runInChild( body );
        EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
    }
    void TearDown() override { removeInterprocessObjects(); }
};

struct Recorder : public Utils::Observer< SignalHandler >
{
    explicit Recorder( bool claims = false )
        : myClaims( claims )
    {
    }
    void update( SignalHandler& handler ) override
    {
        mySignals.push_back( handler.signalNumber() );
        if ( myClaims )
            handler.setSignalHandled();
    }

    bool myClaims;
    std::vector< int > mySignals;
};

std::vector< int > members( const sigset_t& set )
{
    std::vector< int > signals;
    for ( int sig = 1; sig < 32; ++sig ) {
        if ( sigismember( &set, sig ) == 1 )
            signals.push_back( sig );
    }
    return signals;
}

std::vector< int > blockedHere()
{
    sigset_t mask;
    ::pthread_sigmask( SIG_BLOCK, nullptr, &mask );
    return members( mask );
}

} // namespace

TEST_F( SignalHandling, ConstructionInstallsBothKindsOfHandlers )
{
    passInChild( [] {
        const sigset_t before = CrashReport::signals(); // anything
        ::pthread_sigmask( SIG_SETMASK, &before, nullptr );
        SignalHandler::blockSignals();
        EXPECT_EQ( members( SignalHandler::defaultAppSet() ), crashSignals );
        SignalHandler::singletonPtr();
        EXPECT_EQ( blockedHere(), crashSignals );
        for ( int sig = 1; sig < 32; ++sig ) {
            const bool isInterrupt = members( SignalHandler::interruptSet() ) == interruptSignals &&
                                     std::ranges::count( interruptSignals, sig ) == 1;
            const bool isCrash = std::ranges::count( crashSignals, sig ) == 1;
            struct sigaction action
            {
            };
            ::sigaction( sig, nullptr, &action );
            EXPECT_EQ( action.sa_handler != SIG_DFL, isInterrupt || isCrash ) << sig;
            EXPECT_EQ( action.sa_flags & ( SA_RESTART | SA_SIGINFO | SA_ONSTACK ),
                       isCrash ? SA_SIGINFO | SA_ONSTACK : 0 );
            EXPECT_EQ( members( action.sa_mask ), isInterrupt ? interruptSignals
                                                  : isCrash   ? crashSignals
                                                              : std::vector< int >() );
        }
        EXPECT_NE( ::fcntl( SignalHandler::readFd(), F_GETFL ) & O_NONBLOCK, 0 );
        EXPECT_NE( ::fcntl( SignalHandler::readFd(), F_GETFD ) & FD_CLOEXEC, 0 );
    } );
}

TEST_F( SignalHandling, MissingPipeIsAResourceFailureAndTheNextUseTriesAgain )
{
    passInChild( [] {
        ourPipeFault.arm( 1, EMFILE );
        try {
            SignalHandler::singletonPtr();
            ADD_FAILURE() << "no exception";
        } catch ( const ResourceException& e ) {
            EXPECT_NE( std::strstr( e.what(), "Condition failed: ourSigReadOnlyFd.isValid() && "
                                              "ourSigWriteOnlyFd.isValid(),  Too many open files" ),
                       nullptr )
                << e.what();
        }
        EXPECT_EQ( SignalHandler::readFd(), -1 );
        EXPECT_NE( SignalHandler::singletonPtr(), nullptr );
        EXPECT_GE( SignalHandler::readFd(), 0 );
    } );
}

TEST_F( SignalHandling, CoreDirectoryIsNamedAfterTheProgram )
{
    struct Row
    {
        const char* programPtr;
        const char* directoryPtr;
    };
    const Row rows[] = { { nullptr, "nuvSignalHandlerTest" },
                         { "/opt/bin/--sensor.d.bin", "sensor.d" },
                         { "/opt/bin/plain", "plain" } };
    for ( const Row& row : rows ) {
        SCOPED_TRACE( row.directoryPtr );
        passInChild( [&row] {
            if ( row.programPtr != nullptr )
                Io::Pathname::setPathnameOfExecutable( row.programPtr );
            ::umask( 077 );
            SignalHandler::singletonPtr();
            struct stat info
            {
            };
            for ( const std::string& path :
                  { std::string( "core" ), std::string( "core/" ) + row.directoryPtr } ) {
                EXPECT_EQ( ::stat( root( "ixoRoot/" + path ).c_str(), &info ), 0 ) << path;
                EXPECT_EQ( info.st_mode & 07777, 0770u ) << path;
            }
            EXPECT_EQ( ::umask( 0 ), 077u );
        } );
    }
}

TEST_F( SignalHandling, EachSignalIsClaimedAnew )
{
    passInChild( [] {
        SignalHandler& handler = *SignalHandler::singletonPtr();
        Recorder claiming( true );
        Recorder ignoring;
        EXPECT_FALSE( handler.handleSignal( SIGUSR1 ) );
        handler.attach( &claiming );
        handler.attach( &ignoring );
        EXPECT_TRUE( handler.handleSignal( SIGUSR2 ) );
        handler.detach( &claiming );
        EXPECT_FALSE( handler.handleSignal( SIGHUP ) );
        EXPECT_EQ( claiming.mySignals, std::vector< int >{ SIGUSR2 } );
        EXPECT_EQ( ignoring.mySignals, ( std::vector< int >{ SIGUSR2, SIGHUP } ) );
        handler.detach( &ignoring );
    } );
}

TEST_F( SignalHandling, DefaultTerminationSetEndsTheProcess )
{
    for ( const int sig :
          { 1, 2, 6, 15, 0, 3, 10, 17, 30, 33, 38, 255 } ) { // 33 is 1 beyond the mask
        SCOPED_TRACE( sig );
        const Outcome outcome = runInChild( [sig] {
            static Recorder ignoring;
            SignalHandler::singletonPtr()->attach( &ignoring );
            SignalHandler::sigHandlerRoutine( sig );
        } );
        if ( sig == SIGABRT )
            EXPECT_EQ( outcome.signal(), SIGABRT );
        else
            EXPECT_EQ( outcome.exitStatus(), sig == 1 || sig == 2 || sig == 15 ? 255 : 0 );
    }
    passInChild( [] {
        SignalHandler::sigHandlerRoutine( SIGTERM ); // nobody attached
        Recorder claiming( true );
        SignalHandler::singletonPtr()->attach( &claiming );
        SignalHandler::sigHandlerRoutine( SIGTERM );
        SignalHandler::sigHandlerRoutine( SIGABRT );
        SignalHandler::singletonPtr()->detach( &claiming );
    } );
}

TEST_F( SignalHandling, HandlerWritesOneByteAndLeavesErrnoAtEintr )
{
    passInChild( [] {
        SignalHandler::singletonPtr();
        errno = 0;
        SignalHandler::raise( SIGUSR2 ); // to the process, without a dispatcher
#if !defined( __SANITIZE_THREAD__ )      // which delivers late and puts errno back
        EXPECT_EQ( errno, EINTR );
#endif
        unsigned char bytes[4];
        EXPECT_EQ( ::read( SignalHandler::readFd(), bytes, sizeof( bytes ) ), 1 );
        EXPECT_EQ( bytes[0], SIGUSR2 );
        EXPECT_THROW( SignalHandler::raise( 0 ), LogicException );
        EXPECT_THROW( SignalHandler::raise( 1000 ), LogicException );
        EXPECT_THROW( SignalHandler::interruptSystemCall( 0 ), LogicException );
    } );
}

TEST_F( SignalHandling, FullPipeDropsSignalsInsteadOfBlocking )
{
    passInChild( [] {
        SignalHandler::singletonPtr();
        for ( int i = 0; i < 70000; ++i ) {
            ::raise( SIGUSR1 );
        }
        std::vector< unsigned char > bytes( 100000 );
        const ssize_t n = ::read( SignalHandler::readFd(), bytes.data(), bytes.size() );
        EXPECT_GT( n, 60000 );
        EXPECT_LT( n, 70000 );
    } );
}

TEST_F( SignalHandling, InterruptibleCallTakesTheSignalForItsScopeOnly )
{
    passInChild( [] {
        SignalHandler::singletonPtr();
        SignalHandler::blockSignals();
        const unsigned long self = ::pthread_self();
        SignalHandler::interruptSystemCall( self ); // pending
        {
            const InterruptibleCall call;
            EXPECT_TRUE( call.isInterrupted() ) << "came before the scope, arrives in it";
            const InterruptibleCall inner;
            EXPECT_FALSE( inner.isInterrupted() );
            SignalHandler::interruptSystemCall( self );
            EXPECT_TRUE( inner.isInterrupted() );
        }
        EXPECT_EQ( blockedHere(), interruptSignals );
        SignalHandler::interruptSystemCall( self );
        errno = 0;
        EXPECT_EQ( InterruptibleCall::poll( nullptr, 0, -1 ), -1 );
        EXPECT_EQ( errno, EINTR );
        EXPECT_EQ( InterruptibleCall::poll( nullptr, 0, 1 ), 0 );
        EXPECT_EQ( blockedHere(), interruptSignals );
    } );
}

} // namespace Nuv::Mt
