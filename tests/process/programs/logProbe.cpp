// logProbe COMMAND...: a process that logs; each argument is a command and its words.
//
// What concerns all zones has the zone name "*". Source objects live until the process ends, those
// of "log" only for the message.

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"
#include "nuvThreadleton.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Nuv;

namespace {

/// Destroyed after the manager, which is built later.
struct Late
{
    ~Late()
    {
        if ( mySource.severity() != Log::error )
            return;
        nuvLogTo( mySource ) << "too late";
        nuvLogTo( Log::getStandardSource( Log::error ) ) << "too late";
        Log::Source( Log::error, "late" ).dump( "x", 1, "too late" );
    }

    Log::Source mySource;
} ourLate;

/// A command and its words.
using Words = std::vector< std::string >;

std::vector< std::unique_ptr< Log::Source > > ourSources;

Log::ConfigManager& manager()
{
    return *Log::ConfigManager::singletonPtr();
}

const char* zoneArgument( const std::string& word )
{
    return word == "*" ? nullptr : word.c_str();
}

Log::Severity severityOf( const std::string& keyword )
{
    Log::Severity severity = Log::none;
    Log::severityFromKeyword( keyword.c_str(), &severity );
    return severity;
}

void emit( const Log::Source& source, const std::string& text )
{
    nuvLogTo( source ) << text;
}

void printZone( const Log::Zone& zone )
{
    std::cout << zone.myName.view() << ' ' << Log::severityKeyword( zone.severity() ) << ' '
              << std::hex << zone.flags() << std::dec << ' ' << zone.myDrainName.view()
              << std::endl;
}

void printDrain( const std::string& name )
{
    Log::Drain* const drainPtr = manager().openDrain( name.c_str() );
    const Log::Drain::Options& options = drainPtr->options();
    std::cout << drainPtr->name().view() << ' ' << Log::Drain::typeKeyword( options.type ) << ' '
              << options.fileName << ' ' << options.maxSize << ' ' << options.remoteAddr.asString()
              << ' ' << options.remoteAddr.port() << std::endl;
    manager().closeDrain( drainPtr );
}

void printFifo()
{
    Utils::Buffer entry;
    while ( Log::LogAppHelper::interprocessFifoPtr()->read( &entry ) )
        std::cout << '<' << entry.view() << '>' << std::endl;
}

/// As another process or a fault might leave the table.
void damage( const Words& words )
{
    auto& data = const_cast< Log::ConfigManager::Data& >( manager().data() );
    data.myNbrOfZones = std::stoi( words[1] );
    data.myNbrOfPresets = static_cast< std::uint16_t >( std::stoi( words[2] ) );
    for ( Log::Zone& zone : data.myZones ) {
        zone.mySeverity = std::stoi( words[3] );
        if ( data.myNbrOfZones != 0 )
            zone.myName = "#damaged";
    }
}

bool isBlocked( ::pid_t threadId )
{
    std::ifstream file( "/proc/self/task/" + std::to_string( threadId ) + "/stat" );
    std::string text;
    std::getline( file, text );
    return text.find( ") S " ) != std::string::npos;
}

/// Sources that are made while the manager is being built, one of which ends before that is done.
void pending()
{
    Mt::Semaphore semaphore( "LogConfigManager", 1 );
    semaphore.wait();
    std::atomic< ::pid_t > threadId = 0;
    std::thread builder( [&threadId] {
        threadId = ::gettid();
        emit( Log::Source( Log::error, "builder" ), "builder" );
        Mt::ThreadletonMgr::singletonPtr()->deleteThreadletons();
    } );
    while ( threadId == 0 || !isBlocked( threadId ) )
        std::this_thread::yield();
    for ( const char* namePtr : { "first", "second", "third" } )
        ourSources.push_back( std::make_unique< Log::Source >( Log::error, namePtr ) );
    ourSources.push_back( std::make_unique< Log::Source >( Log::fatal, "fourth" ) );
    ourSources.erase( ourSources.begin() + 1 );
    const auto emitAll = []( const char* textPtr ) {
        for ( const auto& sourcePtr : ourSources )
            emit( *sourcePtr, textPtr );
        emit( Log::getStandardSource( Log::error ), textPtr );
    };
    emitAll( "lost" );
    semaphore.post();
    builder.join();
    emitAll( "bound" );
}

/// Children of a process whose other threads hold any of the locks when it forks.
void forkWhileLogging()
{
    std::atomic< bool > isEnded = false;
    std::vector< std::thread > threads;
    for ( int t = 0; t < 3; ++t ) {
        threads.emplace_back( [&isEnded] {
            while ( !isEnded )
                emit( Log::Source( Log::error, "parent" ), "parent" );
        } );
    }
    int nbrOfGood = 0;
    for ( int i = 0; i < 100; ++i ) {
        const ::pid_t child = ::fork();
        if ( child == 0 ) {
            ::alarm( 30 );
            const Log::Source source( Log::error, "child" );
            nuvLogTo( source ) << "child";
            Log::LogAppHelper::zoneFlags( Log::defaultZoneFlags, "child" );
            ::_exit( source.drainPtr()->nbrOfLost() == 0 ? 0 : 1 );
        }
        int status = -1;
        if ( ::waitpid( child, &status, 0 ) == child && status == 0 )
            ++nbrOfGood;
    }
    isEnded = true;
    for ( std::thread& thread : threads )
        thread.join();
    std::cout << nbrOfGood << " children" << std::endl;
}

void exitWhileThreadsLog()
{
    static std::atomic< int > ourNbrOfLines = 0;
    for ( int t = 0; t < 3; ++t ) {
        std::thread( [] {
            static const Log::Source source( Log::error, "own" );
            for ( ;; ++ourNbrOfLines ) {
                nuvLogTo( source ) << "own";
                nuvLogTo( Log::getStandardSource( Log::error ) ) << "library's";
            }
        } ).detach();
    }
    while ( ourNbrOfLines < 100 )
        std::this_thread::yield();
    std::exit( 0 );
}

void logBeyondTheEnd()
{
    ourLate.mySource.severity( Log::error );
    ourLate.mySource.init( "late" );
    nuvLogTo( ourLate.mySource ) << "in time";
}

// @return whether the command is one of these
bool runOnSources( const Words& words )
{
    const std::string& command = words[0];
    if ( command == "log" )
        emit( Log::Source( severityOf( words[2] ), words[1].c_str() ), words[3] );
    else if ( command == "source" )
        ourSources.push_back(
            std::make_unique< Log::Source >( severityOf( words[2] ), words[1].c_str() ) );
    else if ( command == "emit" )
        emit( *ourSources.back(), words[1] );
    else if ( command == "standard" )
        emit( Log::getStandardSource( Log::error ), words[1] );
    else if ( command == "late" )
        logBeyondTheEnd();
    else if ( command == "pending" )
        pending();
    else if ( command == "fork" )
        forkWhileLogging();
    else if ( command == "exit" )
        exitWhileThreadsLog();
    else if ( command == "ready" )
        std::cout << "ready" << std::endl;
    else if ( command == "wait" )
        std::cin.get();
    else
        return false;
    return true;
}

void runOnTables( const Words& words )
{
    using Log::LogAppHelper;
    const std::string& command = words[0];
    const Log::ConfigManager::Data& data = manager().data();
    if ( command == "zone" )
        printZone( *manager().openZone( words[1].c_str() ) );
    else if ( command == "zones" )
        std::for_each( data.myZones, data.myZones + data.nbrOfZones(), &printZone );
    else if ( command == "fill" )
        for ( int i = 0; i < std::stoi( words[1] ); ++i )
            manager().openZone( ( "fill" + std::to_string( i ) ).c_str() );
    else if ( command == "severity" )
        std::cout << LogAppHelper::zoneSeverity( words[2].c_str(), zoneArgument( words[1] ) )
                  << std::endl;
    else if ( command == "flags" )
        LogAppHelper::zoneFlags( static_cast< unsigned >( std::stoul( words[2], nullptr, 16 ) ),
                                 zoneArgument( words[1] ) );
    else if ( command == "drain" )
        printDrain( words[1] );
    else if ( command == "timemode" )
        std::cout << ( Log::Drain::ourTimeMode == Log::Drain::localTime ? "local" : "universal" )
                  << std::endl;
    else if ( command == "fifo" )
        printFifo();
    else if ( command == "overruns" )
        for ( const auto mode : { LogAppHelper::keepCount, LogAppHelper::clearCount } )
            std::cout << LogAppHelper::fifoOverrunCount( mode ) << std::endl;
    else if ( command == "damage" )
        damage( words );
    else
        std::abort();
}

} // namespace

int main( int argc, char** argv )
{
    for ( int i = 1; i < argc; ++i ) {
        std::istringstream stream( argv[i] );
        const Words words( std::istream_iterator< std::string >( stream ), {} );
        try {
            if ( !runOnSources( words ) )
                runOnTables( words );
        } catch ( const FixedTextException& e ) {
            std::cout << "exception " << std::string( e.what() ).substr( 0, 59 ) << std::endl;
        }
    }
    return 0;
}
