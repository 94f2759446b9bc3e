#pragma once

#include "nuvTimeZone.h"

#include <optional>
#include <string>

/// What the commands about times share: none of them logs, as that would join the installation.
namespace Nuv::Ctl {

/// A zone, and why it is that one.
struct ZoneChoice
{
    Utils::TimeZone myZone{ "UTC", Utils::Buffer() };
    std::string myName;
    std::string myReason;
    std::string myFile;
    std::string myFault; ///< why it is taken as UTC; empty if it is not
    bool myIsSlim = false;
};

/// @param name empty: the zone in force on this machine
ZoneChoice chooseZone( const std::string& name );

/// Chooses, and complains about a zone that is taken as UTC.
/// @return false if it was asked for by name and cannot be had
bool chooseZoneOrComplain( const std::string& name, ZoneChoice* choicePtr );

/// "2026-11-24 20:30:00 CET +0100"
std::string localText( std::int64_t utc, const Utils::TimeZone& zone );

/// Reads seconds since 1970, or YYYY-MM-DD HH:MM[:SS] (also with "T" between; with "Z" behind it in
/// UTC, else in local time).
/// @param secondsPtr as written: *isUtcPtr tells of what
/// @return false for a text of another form
bool readTime( const std::string& text, std::int64_t* secondsPtr, bool* isUtcPtr );

/// The UTC times that a local time may mean: one, or two if it comes twice or is skipped.
struct Readings
{
    std::int64_t myFirst = 0;
    std::optional< std::int64_t > mySecond;
    bool myIsSkipped = false;
};
Readings readingsOf( std::int64_t local, const Utils::TimeZone& zone );

} // namespace Nuv::Ctl
