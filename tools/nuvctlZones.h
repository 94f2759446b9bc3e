#pragma once

#include "nuvctl.h"

#include "nuvLogConfigManager.h"
#include "nuvLogHttp.h"

#include <map>
#include <optional>

namespace Nuv::Ctl {

/// The shared zone table, at one moment.
struct ZoneTable
{
    struct Zone
    {
        std::string myName;
        Log::Severity mySeverity;
        std::uint32_t myFlags;
        std::string myDrain;
    };

    /// Copies the table of the installation, without its lock and without becoming a user of it.
    /// @return nothing if there is none
    static std::optional< ZoneTable > read();
    /// @return nothing for bytes of another size than the table's; counts out of range are cut
    static std::optional< ZoneTable > parse( const std::string& bytes );

    /// Reads the bytes of the table of lost messages; what is cut or damaged counts nothing.
    void parseLostMessages( const std::string& bytes );

    const Zone* find( const std::string& name ) const;

    std::vector< Zone > myZones; ///< in the order of the table
    std::optional< Log::Severity > mySeverityOverride;
    std::optional< std::uint32_t > myFlagsOverride;
    std::map< std::string, Log::Severity > myPresets;
    /// Messages that HTTP drains have lost, by the drain's name; only what is not 0.
    std::map< std::string, std::uint32_t > myLostMessages;
};

} // namespace Nuv::Ctl
