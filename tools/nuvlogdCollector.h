#pragma once

#include "nuvEvent.h"
#include "nuvInterprocessFifo.h"
#include "nuvLogDrain.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <string>
#include <sys/types.h>

namespace Nuv::LogApp {

/// Counts lines that were overwritten in the ring before they were read.
///
/// The ring does not tell: what is overwritten leaves no trace in it, and every writer counts its
/// own overruns in its own memory. But every write puts one signal into the ring's event, and does
/// so while it holds the ring's lock. So once the ring has been found empty, every line whose
/// signal was taken before has been read or overwritten: what was announced and not read is lost.
///
/// The number is exact when no signal was pending after the ring was found empty; until then it is
/// a lower bound. The event's FIFO holds 65536 signals: should the reader fall further behind than
/// that, the number is too low.
class LossAccount
{
public:
    /// @param nbrAnnounced signals taken so far @param nbrRead lines read so far, up to an empty
    /// ring
    /// @param isExact no signal came after the ring was found empty
    /// @return how many lines are newly known to be lost
    std::uint64_t update( std::uint64_t nbrAnnounced, std::uint64_t nbrRead, bool isExact );

    std::uint64_t nbrLost() const { return myNbrLost; }

private:
    std::int64_t myDifference = 0; // announced but not read, as far as it has been accounted for
    std::uint64_t myNbrLost = 0;
};

/// Moves lines from the ring into the log application's file.
///
/// Threads: run() on one; the two requests from any.
class Collector
{
public:
    /// Both are borrowed for the object's life.
    Collector( Io::InterprocessFifo* fifoPtr, Log::Drain* drainPtr, const std::string& fifoName );

    /// Works until requestStop(), then takes what is left in the ring: until it is empty, at most
    /// for maxFinalMs while others go on writing.
    void run();

    void requestStop() { myStop.signal(); }
    /// A line in the log that says how much was written and lost.
    void requestStatus() { myStatus.signal(); }

    static constexpr unsigned int maxFinalMs = 5000;

private:
    /// @return whether no line can have been written that is not accounted for
    bool emptyRing();
    void finish();
    void reportLoss( std::uint64_t nbrOfLines );
    void reportStatus( const char* whatPtr );
    void watchFiles();
    void say( Log::Severity severity, const std::string& text );
    std::string timeText();

    Io::InterprocessFifo* myFifoPtr;
    Log::Drain* myDrainPtr;
    Mt::Event myStop;
    Mt::Event myStatus;
    LossAccount myAccount;
    Utils::Buffer myLine;
    std::uint64_t myNbrRead = 0;
    std::string myAccountedTime; // up to when losses have been reported
    // Files by which a writer finds the ring and its event, and their inodes at the start.
    std::array< std::string, 4 > myFiles;
    std::array< ino_t, 4 > myInodes{};
    bool myIsCutOff = false;
};

} // namespace Nuv::LogApp
