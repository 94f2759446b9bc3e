#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Readers of the text files under /proc that sensord samples.
///
/// Each takes the whole text, of whatever origin: what is not of the expected form is left out and
/// counted, never guessed; numbers beyond 64 bits are not of the expected form.
namespace Sensor {

/// One line of /proc/net/dev.
struct Interface
{
    std::string myName;
    std::uint64_t myReceivedBytes = 0;
    std::uint64_t myReceivedPackets = 0;
    std::uint64_t myReceiveErrors = 0;
    std::uint64_t myReceiveDrops = 0;
    std::uint64_t mySentBytes = 0;
    std::uint64_t mySentPackets = 0;
    std::uint64_t mySendErrors = 0;
    std::uint64_t mySendDrops = 0;
};

/// @param nbrOfBadPtr number of lines left out (the two heading lines do not count)
std::vector< Interface > parseNetDev( std::string_view text, unsigned int* nbrOfBadPtr );

/// The lines of /proc/meminfo that matter here, in KiB.
struct Memory
{
    std::uint64_t myTotal = 0;
    std::uint64_t myFree = 0;
    std::uint64_t myAvailable = 0;
    std::uint64_t mySwapTotal = 0;
    std::uint64_t mySwapFree = 0;
};

/// @return false if total or available memory is missing
bool parseMemInfo( std::string_view text, Memory* memoryPtr );

/// /proc/loadavg; loads in hundredths.
struct Load
{
    std::uint32_t myOneMinute = 0;
    std::uint32_t myFiveMinutes = 0;
    std::uint32_t myFifteenMinutes = 0;
    std::uint32_t myNbrRunning = 0;
    std::uint32_t myNbrOfThreads = 0;
};

/// @return false, with *loadPtr unchanged, for a text of another form
bool parseLoadAvg( std::string_view text, Load* loadPtr );

/// One line of /proc/interrupts, summed over the processors.
struct Interrupt
{
    std::string myName; ///< "24", "LOC"
    std::uint64_t myTotal = 0;
    std::string myDescription; ///< "PCI-MSI 512000-edge virtio0"
};

/// @param nbrOfProcessorsPtr columns of the heading; 0 where the heading is no such
/// @return the interrupts; none without a heading
std::vector< Interrupt > parseInterrupts( std::string_view text, unsigned int* nbrOfProcessorsPtr );

} // namespace Sensor
