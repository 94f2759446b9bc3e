#pragma once

#include <nuvLog.h>
#include <nuvMutex.h>
#include <nuvProcess.h>

#include <string>

namespace Sensor {

/// The helper program, which keeps averages of the counters that it is fed: a child process that is
/// started anew whenever it has ended.
///
/// The program reads lines "NAME VALUE", and answers a line "?" by its averages and a line ".".
///
/// Threads: any.
/// Errors:  lines at warning in the zone "helper"; a helper that takes no more input, or does not
///          answer, is killed.
class Helper
{
public:
    /// @param pathname of the program
    explicit Helper( const std::string& pathname );
    Helper( const Helper& ) = delete;
    Helper& operator=( const Helper& ) = delete;
    /// Ends the program: by the end of its input, after a second by force.
    ~Helper();

    /// Starts the program if it does not run, and feeds it.
    void feed( const std::string& lines );
    /// @return its averages, or a line that says why there are none
    std::string averages();
    /// Ends it by SIGKILL; the next feed() starts it anew.
    /// @return false if it did not run
    bool kill();

    /// 0 if it does not run.
    int pid() const;
    unsigned int nbrOfRestarts() const;

private:
    bool isRunning();
    void start();
    bool write( const std::string& text );
    bool readAnswer( std::string* answerPtr );

    mutable Nuv::Mt::Mutex myMutex;
    Nuv::Log::SourceSet mySources;
    Nuv::Mt::Process myProcess;
    int myInput = -1; // descriptors of the process's pipes
    int myOutput = -1;
    unsigned int myNbrOfStarts = 0;
};

} // namespace Sensor
