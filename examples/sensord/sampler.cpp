#include "sampler.h"

#include <nuvConfig.h>
#include <nuvPathname.h>
#include <nuvSubsystemInfo.h>
#include <nuvTime.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace Sensor {

using namespace Nuv;

bool readFile( const char* pathPtr, std::string* textPtr )
{
    std::ifstream stream( pathPtr );
    std::ostringstream text;
    if ( !stream || !( text << stream.rdbuf() ) )
        return false;
    *textPtr = text.str();
    return true;
}

void Settings::load()
{
    const Io::Pathname pathname( Io::Pathname::rootDirectory, "etc/sensord.conf" );
    const Utils::Config config( pathname.str() );
    myIntervalMs = std::max( 10u, config.uIntValue( "sensord", "intervalMs", 1000 ) );
    myLowPercent = config.uIntValue( "mem", "lowPercent", 10 );
    myHighPerCpu = config.uIntValue( "load", "highPerCpu", 200 );
    myStormPerSecond = config.uIntValue( "irq", "stormPerSecond", 100000 );
}

Sampler::Sampler( const char* namePtr, const char* pathPtr, const Settings& settings )
    : myName( namePtr )
    , myPath( pathPtr )
    , mySettings( settings )
    , mySources( namePtr )
{
}

void Sampler::start()
{
    const auto function = []( Mt::ThreadedTask* taskPtr, void* samplerPtr ) {
        static_cast< Sampler* >( samplerPtr )->run( taskPtr );
        return 0u;
    };
    myTaskPtr = new Mt::ThreadedTask( function, myName, this, Mt::ThreadedTask::priorityNormal );
}

void Sampler::requestExit()
{
    if ( myTaskPtr )
        myTaskPtr->requestExit();
}

void Sampler::waitForEnd()
{
    if ( myTaskPtr )
        myTaskPtr->waitForTaskCompletion( Mt::ThreadedTask::infinite );
}

void Sampler::run( Mt::ThreadedTask* taskPtr )
{
    enum
    {
        exitRequest,
        report
    };
    const std::vector< Mt::Event* > events = { &taskPtr->exitEvent(), &myReport };
    int fired = -1;
    while ( fired != exitRequest ) {
        sampleOnce( fired == report );
        fired = Mt::MultiEvent::waitOnEvents( events, mySettings.myIntervalMs );
    }
}

void Sampler::sampleOnce( bool isReport )
{
    if ( myIsCrashing ) {
        nuvLogTo( source( Log::warning ) ) << "crashes now, as it was told to";
        volatile int* nowhere = nullptr;
        *nowhere = 0;
    }
    const Utils::Time begin;
    std::string text;
    std::string found;
    const double seconds =
        myLastNs == 0 ? 0.0
                      : static_cast< double >( begin.ns() - myLastNs ) / Utils::Time::nsPerSec;
    if ( !readFile( myPath, &text ) ) {
        nuvLogTo( source( Log::error ) ) << "cannot read " << myPath;
    } else if ( found = sample( text, std::max( seconds, 0.0 ) ); found.empty() ) {
        nuvLogTo( source( Log::error ) ) << "cannot understand " << myPath;
    } else {
        nuvLogTo( source( Log::debug ) ) << found;
        if ( isReport )
            nuvLogTo( source( Log::warning ) ) << "report: " << found;
    }
    myLastNs = begin.ns();
    ++myNbrOfSamples;
    const Utils::Time end;
    nuvLogTo( source( Log::timing ) )
        << "sample took " << ( end.ns() - begin.ns() ) / Utils::Time::nsPerUs << " us";
    Mt::SubsystemInfo::threadletonPtr()->detail()->statusMessage(
        ( std::to_string( myNbrOfSamples ) + " samples" ).c_str() );
}

} // namespace Sensor
