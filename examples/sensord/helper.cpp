#include "helper.h"

#include <nuvSimpleStreamBuf.h>
#include <nuvTime.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace Sensor {

namespace {

using namespace Nuv;

constexpr unsigned int patienceMs = 1000;

} // namespace

Helper::Helper( const std::string& pathname )
    : mySources( "helper" )
    , myProcess( pathname.c_str() )
{
}

Helper::~Helper()
{
    const Mt::MutexLock lock( myMutex );
    if ( !isRunning() )
        return;
    myProcess.closeChildsStdin();
    if ( !myProcess.waitForExit( patienceMs ) )
        ::kill( myProcess.pid(), SIGKILL );
}

/// Collects the exit of one that has ended.
bool Helper::isRunning()
{
    if ( !myProcess.isRunning() )
        return false;
    if ( !myProcess.waitForExit( 0 ) )
        return true;
    nuvLogTo( mySources.source( Log::warning ) )
        << "helper " << myProcess.pid()
        << ( myProcess.isTerminatedBySignal() ? " was ended by signal " : " ended with status " )
        << myProcess.exitValue();
    return false;
}

void Helper::start()
{
    std::streambuf* inputPtr = nullptr;
    std::streambuf* outputPtr = nullptr;
    myProcess.spawn( &inputPtr, &outputPtr, nullptr );
    myInput = dynamic_cast< Io::SimpleOStreamBuf& >( *inputPtr ).fd();
    myOutput = dynamic_cast< Io::SimpleIStreamBuf& >( *outputPtr ).fd();
    ::fcntl( myInput, F_SETFL, O_NONBLOCK ); // a helper that hangs shall not hang the sensor
    ++myNbrOfStarts;
    nuvLogTo( mySources.source( Log::warning ) )
        << "helper " << myProcess.pid() << ( myNbrOfStarts > 1 ? " started anew" : " started" );
}

bool Helper::write( const std::string& text )
{
    const ssize_t n =
        Utils::retryOnEintr( [&] { return ::write( myInput, text.data(), text.size() ); } );
    if ( n == static_cast< ssize_t >( text.size() ) )
        return true;
    nuvLogTo( mySources.source( Log::warning ) )
        << "helper " << myProcess.pid() << " takes no input and is killed";
    ::kill( myProcess.pid(), SIGKILL );
    return false;
}

void Helper::feed( const std::string& lines )
{
    const Mt::MutexLock lock( myMutex );
    try {
        if ( !isRunning() )
            start();
        write( lines );
    } catch ( const RuntimeException& exception ) {
        nuvLogTo( mySources.source( Log::error ) ) << "no helper: " << exception.what();
    }
}

/// Up to the line ".".
bool Helper::readAnswer( std::string* answerPtr )
{
    const Utils::MsTimer timer;
    while ( timer.totalTime() < patienceMs ) {
        pollfd descriptor = { myOutput, POLLIN, 0 };
        if ( ::poll( &descriptor, 1, static_cast< int >( patienceMs ) ) <= 0 )
            continue;
        char bytes[4096];
        const ssize_t n =
            Utils::retryOnEintr( [&] { return ::read( myOutput, bytes, sizeof( bytes ) ); } );
        if ( n <= 0 )
            return false;
        answerPtr->append( bytes, static_cast< std::size_t >( n ) );
        const std::size_t end = answerPtr->size() - 2;
        if ( *answerPtr == ".\n" ||
             ( answerPtr->size() > 2 && answerPtr->compare( end - 1, 3, "\n.\n" ) == 0 ) ) {
            answerPtr->resize( end );
            return true;
        }
    }
    return false;
}

std::string Helper::averages()
{
    const Mt::MutexLock lock( myMutex );
    std::string answer;
    if ( !isRunning() )
        return "the helper does not run\n";
    if ( write( "?\n" ) && readAnswer( &answer ) )
        return answer;
    ::kill( myProcess.pid(), SIGKILL );
    return "the helper did not answer\n";
}

bool Helper::kill()
{
    const Mt::MutexLock lock( myMutex );
    return isRunning() && ::kill( myProcess.pid(), SIGKILL ) == 0;
}

int Helper::pid() const
{
    const Mt::MutexLock lock( myMutex );
    return myProcess.isRunning() ? myProcess.pid() : 0;
}

unsigned int Helper::nbrOfRestarts() const
{
    const Mt::MutexLock lock( myMutex );
    return myNbrOfStarts > 0 ? myNbrOfStarts - 1 : 0;
}

} // namespace Sensor
