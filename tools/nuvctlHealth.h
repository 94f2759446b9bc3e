#pragma once

#include "nuvctl.h"

#include "nuvHealthRecords.h"

#include <memory>
#include <optional>

namespace Nuv::Ctl {

/// One health record as it was found.
struct HealthRecord
{
    std::uint32_t myVersion = 0;        ///< the version word
    bool myIsWhole = false;             ///< false: a commit was going on in every attempt
    std::uint64_t myNbrOfTornReads = 0; ///< attempts that a commit overlapped
    HealthAndSecurity::CommonAppStatus myCommon{};

    bool isCommitted() const { return myCommon.commitTime != 0; }
    /// Modulo 2^31, as the word has it.
    std::uint32_t nbrOfCommits() const;
};

/// Both records of the installation, at one moment.
struct HealthLook
{
    /// Reads by the records' own protocol, as no user of the segment and without a lock; a read
    /// that a commit overlaps is tried again, for a quarter of a second at most.
    /// @return nothing if there is no segment
    static std::optional< HealthLook > take( const std::string& ipcDirectory );

    int myNbrOfUsers = 0;       ///< processes that have the segment
    std::uint64_t myTimeNs = 0; ///< since 1970
    HealthRecord myMainApp;
    HealthRecord mySensor;
    std::shared_ptr< HealthAndSecurity::SensorStatus > mySensorStatusPtr; ///< never null
};

/// The look as metrics, in the text form that monitoring systems scrape.
std::string healthMetrics( const HealthLook& look );

} // namespace Nuv::Ctl
