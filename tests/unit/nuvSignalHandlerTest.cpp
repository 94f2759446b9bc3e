#include "nuvSignalHandler.h"

#include "nuvCrashReport.h"
#include "nuvPathname.h"
#include "nuvTestInterprocess.h"
#include "nuvTestWrap.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {
NuvTest::Fault ourPipeFault;
} // namespace

NUV_FAIL_CALLS( ourPipeFault, -1, int, pipe2, ( int* fdsPtr, int flags ), ( fdsPtr, flags ) )

namespace Nuv::Mt {
namespace {

using namespace NuvTest;

const std::vector< int > interruptSignals = { 1,  2,  3,  10, 12, 13, 14, 15,
                                              17, 18, 21, 22, 23, 29, 30 };
const std::vector< int > crashSignals = { 4, 6, 7, 8, 11 };

// The handler is the process's: each test has a child for it.
class SignalHandling : public InterprocessFixture
{
protected:
    void TearDown() override { removeInterprocessObjects(); }
};

std::vector< int > members( const sigset_t& set )
{
    std::vector< int > signals;
    for ( int sig = 1; sig < 32; ++sig )
        if ( sigismember( &set, sig ) == 1 )
            signals.push_back( sig );
    return signals;
}

std::vector< int > blockedHere()
{
    sigset_t mask;
    ::pthread_sigmask( SIG_BLOCK, nullptr, &mask );
    return members( mask );
}

} // namespace

TEST_F( SignalHandling, ConstructionInstallsBothKindsOfHandlersAndMayBeTriedAgain )
{
    passInChild( [] {
        ourPipeFault.arm( 1, EMFILE );
        expectFailure( "Condition failed: ourSigReadOnlyFd.isValid() && "
                       "ourSigWriteOnlyFd.isValid(),  Too many open files",
                       [] { SignalHandler::singletonPtr(); } );
        EXPECT_EQ( SignalHandler::readFd(), -1 );
        const sigset_t before = CrashReport::signals(); // anything
        ::pthread_sigmask( SIG_SETMASK, &before, nullptr );
        SignalHandler::blockSignals();
        EXPECT_EQ( members( SignalHandler::interruptSet() ), interruptSignals );
        EXPECT_EQ( members( SignalHandler::defaultAppSet() ), crashSignals );
        SignalHandler::singletonPtr();
        EXPECT_EQ( blockedHere(), crashSignals );
        for ( int sig = 1; sig < 32; ++sig ) {
            const bool isInterrupt = std::ranges::count( interruptSignals, sig ) == 1;
            const bool isCrash = std::ranges::count( crashSignals, sig ) == 1;
            struct sigaction action = {};
            ::sigaction( sig, nullptr, &action );
            EXPECT_EQ( action.sa_handler != SIG_DFL, isInterrupt || isCrash ) << sig;
            EXPECT_EQ( action.sa_flags & ( SA_RESTART | SA_SIGINFO | SA_ONSTACK ),
                       isCrash ? SA_SIGINFO | SA_ONSTACK : 0 );
            if ( isInterrupt || isCrash ) {
                EXPECT_EQ( members( action.sa_mask ), isCrash ? crashSignals : interruptSignals );
            }
        }
        EXPECT_NE( ::fcntl( SignalHandler::readFd(), F_GETFL ) & O_NONBLOCK, 0 );
        EXPECT_NE( ::fcntl( SignalHandler::readFd(), F_GETFD ) & FD_CLOEXEC, 0 );
    } );
}

TEST_F( SignalHandling, CoreDirectoryIsNamedAfterTheProgram )
{
    for ( const std::string name : { "--sensor.d.bin", "plain" } ) {
        passInChild( [&name] {
            Io::Pathname::setPathnameOfExecutable( ( "/opt/bin/" + name ).c_str() );
            ::umask( 077 );
            SignalHandler::singletonPtr();
            struct stat info = {};
            for ( const char* const pathPtr : { "", name == "plain" ? "plain" : "sensor.d" } ) {
                EXPECT_EQ(
                    ::stat( root( std::string( "ixoRoot/core/" ) + pathPtr ).c_str(), &info ), 0 );
                EXPECT_EQ( info.st_mode & 07777, 0770u ) << pathPtr;
            }
            EXPECT_EQ( ::umask( 0 ), 077u );
        } );
    }
}

TEST_F( SignalHandling, HandlerWritesOneByteAndDropsSignalsInsteadOfBlocking )
{
    passInChild( [] {
        SignalHandler::singletonPtr();
        errno = 0;
        SignalHandler::raise( SIGUSR2 ); // to the process, without a dispatcher
#if !defined( __SANITIZE_THREAD__ )      // which delivers late and puts errno back
        EXPECT_EQ( errno, EINTR );
#endif
        std::vector< char > bytes( 100000 );
        EXPECT_EQ( ::read( SignalHandler::readFd(), bytes.data(), bytes.size() ), 1 );
        EXPECT_EQ( bytes[0], SIGUSR2 );
        for ( int i = 0; i < 70000; ++i )
            ::raise( SIGUSR1 );
        const ssize_t n = ::read( SignalHandler::readFd(), bytes.data(), bytes.size() );
        EXPECT_TRUE( n > 60000 && n < 70000 ) << n;
        EXPECT_THROW( SignalHandler::raise( 0 ), LogicException );
        EXPECT_THROW( SignalHandler::raise( 1000 ), LogicException );
        EXPECT_THROW( SignalHandler::interruptSystemCall( 0 ), LogicException );
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
