#pragma once

#include "nuvctl.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Nuv::Ctl {

/// A field of a shared record, as it was found.
struct RecordField
{
    std::size_t myOffset = 0;
    std::size_t myNbrOfBytes = 0;
    std::string myName; ///< "sensor.virtualSensors[0].name"
    Json myValue;
    std::string myMeaning; ///< of a number that stands for something; else empty
};

/// A shared record, taken apart.
struct RecordFields
{
    std::string
        myKind; ///< "global-data", "LogConfigManager", "thread-records", "ring"; empty: none
    bool myIsSound = true; ///< false: counts or offsets contradict each other or the size
    std::vector< RecordField > myFields;

    /// The bytes of a segment; its size tells what it is. Bytes of any content are safe.
    /// @param all also zones, presets, records, virtual sensors and services that are not in use
    static RecordFields of( std::string_view bytes, bool all );
};

} // namespace Nuv::Ctl
