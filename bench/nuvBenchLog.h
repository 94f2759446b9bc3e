#pragma once

#include "nuvBenchProcess.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace NuvBench {

/// A root folder with a log configuration.
class LogRoot : public Root
{
public:
    /// @param logConf text of etc/log.conf
    explicit LogRoot( const std::string& logConf )
    {
        std::filesystem::create_directories( path( "ixoRoot/etc" ) );
        std::ofstream( path( "ixoRoot/etc/log.conf" ) ) << logConf;
    }

    static std::string path( const std::string& relative )
    {
        return std::string( std::getenv( "HOME" ) ) + "/" + relative;
    }
};

} // namespace NuvBench
