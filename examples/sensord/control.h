#pragma once

#include <nuvLog.h>
#include <nuvPipe.h>
#include <nuvThreadedTask.h>
#include <nuvThrottledLog.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>

namespace Sensor {

/// Answers control messages through the server pipe "sensord", on a thread of its own: one message
/// for each connection, a command word.
///
/// | command        | answer                                        |
/// |----------------|-----------------------------------------------|
/// | help           | the commands                                  |
/// | any added one  | what its function returns                     |
/// | anything else  | a line that says so                           |
///
/// Threads: the functions are called on the thread "control".
class Control
{
public:
    /// @throws Io::ServerPipe::Exception if the pipe's name is in use
    Control();
    Control( const Control& ) = delete;
    Control& operator=( const Control& ) = delete;
    /// Ends the thread, at once unless a command is being answered.
    ~Control();

    /// Before start().
    void add( const std::string& command, std::function< std::string() > function );
    void start();

    unsigned int nbrOfMessages() const { return myNbrOfMessages; }

private:
    void run();
    void serveOne();
    std::string answerTo( const Nuv::Utils::Buffer& message );

    Nuv::Log::SourceSet mySources;
    Nuv::Log::ThrottledLogEntry myUnknownCommands;
    std::map< std::string, std::function< std::string() > > myFunctions;
    std::atomic< unsigned int > myNbrOfMessages = 0;
    std::atomic< bool > myIsStopping = false;
    Nuv::Io::ServerPipe myPipe;
    Nuv::Utils::Ptr< Nuv::Mt::ThreadedTask > myTaskPtr;
};

} // namespace Sensor
