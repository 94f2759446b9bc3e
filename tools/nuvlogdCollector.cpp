#include "nuvlogdCollector.h"

#include "nuvPathname.h"
#include "nuvSubsystemInfo.h"
#include "nuvTime.h"

#include <algorithm>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::LogApp {

namespace {

constexpr unsigned int idleMs = 1000;

ino_t inodeOf( const std::string& path )
{
    struct stat status
    {
    };
    return ::stat( path.c_str(), &status ) == 0 ? status.st_ino : 0;
}

std::string flatName( std::string name )
{
    std::replace( name.begin(), name.end(), '/', '-' );
    return name;
}

std::string ipcPath( const std::string& name )
{
    return Io::Pathname( Io::Pathname::ipcDirectory, name ).str();
}

} // namespace

std::uint64_t LossAccount::update( std::uint64_t nbrAnnounced, std::uint64_t nbrRead, bool isExact )
{
    const std::int64_t difference =
        static_cast< std::int64_t >( nbrAnnounced ) - static_cast< std::int64_t >( nbrRead );
    std::uint64_t nbrNew = 0;
    if ( difference > myDifference )
        nbrNew = static_cast< std::uint64_t >( difference - myDifference );
    // Fewer announced than read: their signals are still to come, or if not, a reader before this
    // one took them.
    if ( nbrNew > 0 || isExact )
        myDifference = difference;
    myNbrLost += nbrNew;
    return nbrNew;
}

Collector::Collector( Io::InterprocessFifo* fifoPtr, Log::Drain* drainPtr,
                      const std::string& fifoName )
    : myFifoPtr( fifoPtr )
    , myDrainPtr( drainPtr )
    , myFiles{ ipcPath( "sem_IpFifo_" + flatName( fifoName ) ),
               ipcPath( "shm_IpFifo_" + flatName( fifoName ) ),
               ipcPath( "sem_evt_IpFifo_" + flatName( fifoName ) ),
               ipcPath( "evt_IpFifo_" + fifoName ) }
{
    std::transform( myFiles.begin(), myFiles.end(), myInodes.begin(), inodeOf );
}

std::string Collector::timeText()
{
    std::tm time{};
    unsigned int milliseconds = 0;
    myDrainPtr->timeStamp( &time, &milliseconds );
    char day[64];
    char text[80];
    std::strftime( day, sizeof( day ), "%d%b%Y %H:%M:%S", &time );
    std::snprintf( text, sizeof( text ), "%s.%03u", day, milliseconds );
    return text;
}

/// Straight into the file, in the form of other lines: through a zone it would go into the ring.
void Collector::say( Log::Severity severity, const std::string& text )
{
    const std::string name( myDrainPtr->name().view() );
    const std::string line = timeText() + " nuvlogd[" + std::to_string( ::getpid() ) + "] " + name +
                             "/" + Log::severityLetter( severity ) + " " + text;
    myDrainPtr->outputMessage( severity, Utils::Buffer( line.c_str() ), name.c_str() );
}

bool Collector::emptyRing()
{
    while ( myFifoPtr->read( &myLine ) ) {
        myDrainPtr->outputMessage( Log::warning, myLine, "" );
        ++myNbrRead;
    }
    const std::uint64_t nbrAnnounced = myFifoPtr->event().nbrOfSignalsTaken();
    const bool isExact = !myFifoPtr->event().readAndReset();
    const std::uint64_t nbrLost = myAccount.update( nbrAnnounced, myNbrRead, isExact );
    if ( nbrLost > 0 )
        reportLoss( nbrLost );
    if ( isExact )
        myAccountedTime = timeText();
    return isExact;
}

void Collector::reportLoss( std::uint64_t nbrOfLines )
{
    say( Log::warning, std::to_string( nbrOfLines ) +
                           " lines were overwritten in the FIFO before they were read, since " +
                           myAccountedTime );
    myAccountedTime = timeText();
}

void Collector::reportStatus( const char* whatPtr )
{
    say( Log::warning, std::string( whatPtr ) + ": " + std::to_string( myNbrRead ) +
                           " lines written, " + std::to_string( myAccount.nbrLost() ) + " lost" );
}

void Collector::watchFiles()
{
    std::array< ino_t, 4 > inodes{};
    std::transform( myFiles.begin(), myFiles.end(), inodes.begin(), inodeOf );
    const bool isCutOff = inodes != myInodes;
    if ( isCutOff && !myIsCutOff )
        say( Log::error,
             "files of the FIFO were removed or replaced: programs that start from now on "
             "do not reach this process; restart it" );
    myIsCutOff = isCutOff;
}

void Collector::run()
{
    enum
    {
        stop,
        status,
        line
    };
    const std::vector< Mt::Event* > events = { &myStop, &myStatus, &myFifoPtr->event() };
    Mt::SubsystemInfo* const infoPtr = Mt::SubsystemInfo::threadletonPtr();
    myAccountedTime = timeText();
    reportStatus( "started" );
    for ( ;; ) {
        const int fired = Mt::MultiEvent::waitOnEvents( events, idleMs );
        if ( fired == stop )
            break;
        // A ring whose event was cut off is looked at all the same.
        while ( !emptyRing() && fired == line )
            continue;
        if ( fired == status )
            reportStatus( "status" );
        else if ( fired < 0 )
            watchFiles();
        infoPtr->detail()->statusMessage( ( std::to_string( myNbrRead ) + " lines, " +
                                            std::to_string( myAccount.nbrLost() ) + " lost" )
                                              .c_str() );
    }
    finish();
}

void Collector::finish()
{
    const Utils::MsTimer timer;
    while ( !emptyRing() ) {
        if ( timer.totalTime() > maxFinalMs ) {
            say( Log::warning, "others go on writing: what they write now stays in the FIFO" );
            break;
        }
    }
    reportStatus( "stopped" );
}

} // namespace Nuv::LogApp
