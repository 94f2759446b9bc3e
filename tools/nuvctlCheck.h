#pragma once

#include "nuvctl.h"

#include "nuvConfig.h"

#include <string>
#include <vector>

namespace Nuv::Ctl {

/// Something in a configuration file that the forgiving reader, or the reader of its values, takes
/// otherwise than its author can have meant.
struct Mistake
{
    unsigned int myLineNbr = 0; ///< 0 where it is no matter of one line
    std::string mySection;
    std::string myKey;
    std::string myText;
};

/// Checks sections, keys and values of nuvs.conf.
void checkMasterConfiguration( const Utils::Config& config, std::vector< Mistake >* mistakesPtr );

/// The same of log.conf, and whether its drains could be opened in the installation at root.
/// Nothing is opened or created; servers of HTTP drains are called, for at most 2 s each.
void checkLogConfiguration( const Utils::Config& config, const std::string& root,
                            std::vector< Mistake >* mistakesPtr );

/// Of mainApp.conf what the pipes read; the rest is the main application's.
void checkMainAppConfiguration( const Utils::Config& config, std::vector< Mistake >* mistakesPtr );

/// Of boot.info what every process reads: the model and its capabilities.
void checkBootInfo( const Utils::Config& config, std::vector< Mistake >* mistakesPtr );

} // namespace Nuv::Ctl
