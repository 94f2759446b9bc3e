// logProbe COMMAND...: a process that logs; each argument is a command and its words.
//
// What concerns all zones has the zone name "*". Source objects live until the process ends, those
// of "log" only for the message.

#include "nuvLogCapture.h"
#include "nuvLogConfigManager.h"
#include "nuvThreadleton.h"

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
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
              << options.fileName << ' ' << options.maxSize << ' ' << options.remoteAddr << ' '
              << options.remotePort << std::endl;
    manager().closeDrain( drainPtr );
}

void failAssertion()
{
    try {
        nuvAssert( 1 == 2 );
    } catch ( const LogicException& ) {
        std::cout << "LogicException" << std::endl;
    }
    const std::string keyFile =
        std::string( ::getenv( "HOME" ) ) + "/ixoRoot/tmp/ipc/shm_LogConfigManager";
    std::cout << ( std::ifstream( keyFile ) ? "manager" : "no manager" ) << std::endl;
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
        const Log::Source source( Log::error, "builder" );
        nuvLogTo( source ) << "builder";
        Mt::ThreadletonMgr::singletonPtr()->deleteThreadletons();
    } );
    while ( threadId == 0 || !isBlocked( threadId ) )
        std::this_thread::yield();
    for ( const char* namePtr : { "first", "second", "third" } )
        ourSources.push_back( std::make_unique< Log::Source >( Log::error, namePtr ) );
    ourSources.push_back( std::make_unique< Log::Source >( Log::fatal, "fourth" ) );
    ourSources.erase( ourSources.begin() + 1 );
    for ( const auto& sourcePtr : ourSources )
        nuvLogTo( *sourcePtr ) << "lost";
    nuvLogTo( Log::getStandardSource( Log::error ) ) << "lost";
    semaphore.post();
    builder.join();
    for ( const auto& sourcePtr : ourSources )
        nuvLogTo( *sourcePtr ) << "bound";
    nuvLogTo( Log::getStandardSource( Log::error ) ) << "bound";
}

/// Children of a process whose other threads hold any of the locks when it forks.
void forkWhileLogging()
{
    std::atomic< bool > isEnded = false;
    std::vector< std::thread > threads;
    for ( int t = 0; t < 3; ++t ) {
        threads.emplace_back( [&isEnded] {
            while ( !isEnded ) {
                const Log::Source source( Log::error, "parent" );
                nuvLogTo( source ) << "parent";
            }
        } );
    }
    int nbrOfGood = 0;
    for ( int i = 0; i < 100; ++i ) {
        const ::pid_t child = ::fork();
        if ( child == 0 ) {
            ::alarm( 5 );
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

const std::map< std::string, std::function< void( const Words& ) > > ourCommands = {
    { "log",
      []( const Words& words ) {
          const Log::Source source( severityOf( words[2] ), words[1].c_str() );
          nuvLogTo( source ) << words[3];
      } },
    { "source",
      []( const Words& words ) {
          ourSources.push_back(
              std::make_unique< Log::Source >( severityOf( words[2] ), words[1].c_str() ) );
      } },
    { "emit",
      []( const Words& words ) {
          for ( const auto& sourcePtr : ourSources )
              nuvLogTo( *sourcePtr ) << words[1];
      } },
    { "repeat",
      []( const Words& words ) {
          for ( int i = 0; i < std::stoi( words[1] ); ++i )
              nuvLogTo( *ourSources.back() ) << words[2] << ' ' << i;
      } },
    { "standard",
      []( const Words& words ) { nuvLogTo( Log::getStandardSource( Log::error ) ) << words[1]; } },
    { "severity",
      []( const Words& words ) {
          std::cout << Log::LogAppHelper::zoneSeverity( words[2].c_str(), zoneArgument( words[1] ) )
                    << std::endl;
      } },
    { "flags",
      []( const Words& words ) {
          Log::LogAppHelper::zoneFlags(
              static_cast< unsigned int >( std::stoul( words[2], nullptr, 16 ) ),
              zoneArgument( words[1] ) );
      } },
    { "zone", []( const Words& words ) { printZone( *manager().openZone( words[1].c_str() ) ); } },
    { "zones",
      []( const Words& ) {
          for ( int i = 0; i < manager().data().nbrOfZones(); ++i )
              printZone( manager().data().myZones[i] );
      } },
    { "fill",
      []( const Words& words ) {
          for ( int i = 0; i < std::stoi( words[1] ); ++i )
              manager().openZone( ( "fill" + std::to_string( i ) ).c_str() );
      } },
    { "presets",
      []( const Words& words ) {
          int nbrOfRefused = 0;
          for ( int i = 0; i < std::stoi( words[1] ); ++i )
              nbrOfRefused += !manager().zoneSeverity( Log::timing,
                                                       ( "preset" + std::to_string( i ) ).c_str() );
          std::cout << manager().data().nbrOfPresets() << " presets, " << nbrOfRefused << " refused"
                    << std::endl;
      } },
    { "drain", []( const Words& words ) { printDrain( words[1] ); } },
    { "fifo", []( const Words& ) { printFifo(); } },
    { "overruns",
      []( const Words& ) {
          for ( const auto mode : { Log::LogAppHelper::keepCount, Log::LogAppHelper::clearCount,
                                    Log::LogAppHelper::keepCount } )
              std::cout << Log::LogAppHelper::fifoOverrunCount( mode ) << std::endl;
      } },
    { "damage", []( const Words& words ) { damage( words ); } },
    { "assert", []( const Words& ) { failAssertion(); } },
    { "late",
      []( const Words& ) {
          ourLate.mySource.severity( Log::error );
          ourLate.mySource.init( "late" );
          nuvLogTo( ourLate.mySource ) << "in time";
      } },
    { "pending", []( const Words& ) { pending(); } },
    { "fork", []( const Words& ) { forkWhileLogging(); } },
    { "ready", []( const Words& ) { std::cout << "ready" << std::endl; } },
    { "wait",
      []( const Words& ) {
          std::string line;
          std::getline( std::cin, line );
      } },
};

} // namespace

int main( int argc, char** argv )
{
    for ( int i = 1; i < argc; ++i ) {
        std::istringstream stream( argv[i] );
        Words words;
        for ( std::string word; stream >> word; )
            words.push_back( word );
        try {
            ourCommands.at( words.at( 0 ) )( words );
        } catch ( const FixedTextException& e ) {
            std::cout << "exception " << std::string( e.what() ).substr( 0, 59 ) << std::endl;
        }
    }
    return 0;
}
