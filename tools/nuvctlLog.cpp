#include "nuvctl.h"

#include "nuvConfig.h"
#include "nuvLogConfigManager.h"
#include "nuvLogFile.h"
#include "nuvPathname.h"

#include <deque>
#include <iostream>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::Ctl {

namespace {

// --- log emit -----------------------------------------------------------------------------------

/// Whether somebody else has the ring open, so that a line in it outlives this process.
bool hasReaderOfRing( const std::string& fifoName )
{
    const Tools::Inventory inventory =
        Tools::Inventory::read( Installation::find().myIpcDirectory );
    const Tools::NamedSegment* const segmentPtr =
        inventory.findSegment( "IpFifo_" + Tools::flatName( fifoName ) );
    return segmentPtr != nullptr && segmentPtr->nbrOfAttached() > 1;
}

int emit( const CommonOptions& common, const EmitOptions& options, Log::Severity severity )
{
    const Log::Source source( severity, options.myZone.c_str() );
    const std::string zoneName( source.zone().myName.view() );
    if ( !source.mayEmit() )
        return complain( "not emitted: zone " + zoneName + " passes \"" +
                         Log::severityKeyword( source.zone().severity() ) +
                         "\" and what is graver" );
    const Log::Drain::Options& drain = source.drainPtr()->options();
    if ( drain.type == Log::Drain::Options::null )
        return complain( "not emitted: the drain " +
                         std::string( source.drainPtr()->name().view() ) + " discards everything" );
    const bool isLost =
        drain.type == Log::Drain::Options::fifo && !hasReaderOfRing( drain.fileName );
    std::string text;
    for ( const std::string& word : options.myWords )
        text += ( text.empty() ? "" : " " ) + word;
    nuvLogTo( source ) << text;
    if ( isLost )
        return complain( "no other process has the FIFO " + drain.fileName +
                         " open: the line is lost (is nuvlogd running?)" );
    if ( common.myJson )
        printJson( { { "zone", zoneName },
                     { "severity", Log::severityKeyword( severity ) },
                     { "drain", std::string( source.drainPtr()->name().view() ) } } );
    return good;
}

// --- log cat, log follow ------------------------------------------------------------------------

struct LogFile
{
    std::string myPath;
    std::uint64_t myMaxSize = 0; ///< 0: does not wrap, or not known
};

/// The file that lines go to where nothing else is configured, or the given one; its size as the
/// log configuration has it.
LogFile findLogFile( const std::string& file )
{
    const Installation installation = Installation::find();
    const Io::Pathname root{ Utils::String( installation.myRoot ) };
    const Utils::Config config( Io::Pathname( root, "etc/log.conf" ).str() );
    const bool isEnabled = config.stringValue( "logApp", "enabled", "false" ) == "true";
    const Log::Drain::Options defaults;
    const unsigned int defaultSizeInK = static_cast< unsigned int >( defaults.maxSize / 1024 );
    const std::string logAppFile = config.stringValue( "logApp", "fileName", defaults.fileName );

    LogFile found;
    std::string name = file;
    if ( name.empty() )
        name = isEnabled ? logAppFile : defaults.fileName;
    const Io::Pathname logDirectory( root, "log" );
    found.myPath = name.find( '/' ) != std::string::npos
                       ? std::string( Io::Pathname( Utils::String( name ) ).str() )
                       : std::string( Io::Pathname( logDirectory, name ).str() );
    const auto isFound = [&]( const std::string& other ) {
        return found.myPath == Io::Pathname( logDirectory, other ).str();
    };
    if ( isFound( defaults.fileName ) )
        found.myMaxSize = defaults.maxSize;
    for ( auto iter = config.begin( "drain" ); iter != config.end( "drain" ); ++iter ) {
        if ( isFound( config.stringValue( iter, "fileName", iter->first + ".log" ) ) )
            found.myMaxSize =
                std::uint64_t{ config.uIntValue( iter, "fileMaxSizeInK", defaultSizeInK ) } * 1024;
    }
    if ( isEnabled && isFound( logAppFile ) )
        found.myMaxSize =
            std::uint64_t{ config.uIntValue( "logApp", "fileMaxSizeInK", defaultSizeInK ) } * 1024;
    return found;
}

/// Writes a line; as JSON, an object a line. @return false when nobody reads any more
bool put( const CommonOptions& common, const std::string& line, bool isFragment )
{
    if ( !common.myJson )
        std::cout << line << '\n';
    else
        std::cout << Json( { { "line", line }, { "fragment", isFragment } } )
                         .dump( -1, ' ', false, Json::error_handler_t::replace )
                  << '\n';
    return static_cast< bool >( std::cout );
}

int follow( const CommonOptions& common, Log::LogFileReader* readerPtr )
{
    constexpr std::size_t nbrOfOldLines = 10;
    constexpr useconds_t pauseUs = 100000;
    std::string line;
    std::deque< std::pair< std::string, bool > > last;
    while ( readerPtr->readLine( &line ) ) {
        last.emplace_back( line, readerPtr->isFragment() );
        if ( last.size() > nbrOfOldLines )
            last.pop_front();
    }
    for ( const auto& [text, isFragment] : last )
        put( common, text, isFragment );
    while ( std::cout << std::flush ) {
        while ( readerPtr->readLine( &line ) )
            put( common, line, readerPtr->isFragment() );
        std::cout << std::flush;
        ::usleep( pauseUs );
    }
    return problem;
}

} // namespace

int emitLog( const CommonOptions& common, const EmitOptions& options )
{
    Log::Severity severity = Log::none;
    if ( !Log::severityFromKeyword( options.mySeverity.c_str(), &severity ) ||
         severity == Log::none )
        return complain( "unknown severity \"" + options.mySeverity +
                         "\"; there are debug, timing, warning, error, fatal" ),
               wrongUsage;
    if ( !refuseIfLocked() )
        return problem;
    return runInFrame( [&] { return emit( common, options, severity ); } );
}

int readLog( const CommonOptions& common, const ReadLogOptions& options )
{
    const LogFile file = findLogFile( options.myFile );
    struct stat status
    {
    };
    if ( ::stat( file.myPath.c_str(), &status ) == 0 && !S_ISREG( status.st_mode ) )
        return complain( file.myPath + " is no regular file" );
    Log::LogFileReader reader( file.myPath, file.myMaxSize );
    if ( options.myFollow )
        return follow( common, &reader );
    std::string line;
    while ( reader.readLine( &line ) && put( common, line, reader.isFragment() ) )
        continue;
    std::cout.flush();
    return reader.isOpen() ? good : complain( file.myPath + " cannot be read" );
}

} // namespace Nuv::Ctl
