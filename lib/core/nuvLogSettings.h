#pragma once

#include "nuvConfig.h"
#include "nuvLogDrain.h"

#include <istream>
#include <string>

namespace Nuv::Log {

/// What the log configuration file says, with a default for everything.
///
///     timemode = local                        or utc
///     [logApp]
///     enabled = false                         true: zones write into the log application's FIFO
///     zoneAndDrainName = logApp               the log application's own zone and file drain
///     fileName = main.log                     its file
///     fileMaxSizeInK = 240
///     fifoName = logAppFifo
///     fifoSizeInK = 240
///     [syslog]
///     facility = local6                       local0 to local7, user
///     [zone/myZone]
///     severity = warning                      debug timing warning error fatal none
///     flags = currenttime,elapsedtime,appname,threadid,zonename,severity
///     drain = main
///     [drain/myDrain]
///     type = file                             null stderr stdout file syslog http
///     fileName = myDrain.log                  of a file; without a section: main.log
///     fileMaxSizeInK = 240                    0 never wraps
///     remoteAddr = 127.1.128.1                of an HTTP drain
///     remotePort = 80
///
/// What is missing has the value shown; an unknown keyword counts as missing. Names count with
/// their first 15 characters; of two sections that agree in these the first by byte order is read.
/// Sizes are multiplied by 1024 in 32 bits; one that the FIFO cannot have counts as missing.
///
/// Threads: loaded by one; readers may then run concurrently.
/// Errors:  std::bad_alloc alone: nothing that the file says is reported.
/// Example: Settings settings; settings.load( pathname ); Zone zone = settings.zone( "myZone" );
class NUV_API Settings
{
public:
    void load( const std::string& pathname ) { myConfig.loadFrom( pathname ); }
    void load( std::istream& stream ) { myConfig.loadFrom( stream ); }

    Drain::TimeMode timeMode() const;
    /// Of the system log.
    int facility() const;

    bool isLogAppEnabled() const;
    /// Of its zone and of its file drain.
    DrainName logAppName() const;
    Drain::Options logAppOptions() const;
    /// The FIFO's name is the drain's, too.
    Drain::Options fifoOptions() const;

    /// The zone as a table without overrides and presets makes it.
    Zone zone( const ZoneName& name ) const;
    /// Changes what the drain's section says, leaves the rest.
    void drainOptions( const DrainName& name, Drain::Options* optionsPtr ) const;

private:
    const Utils::Config::Node* findNamed( const char* kindPtr, const ZoneName& name ) const;

    Utils::Config myConfig;
};

} // namespace Nuv::Log
