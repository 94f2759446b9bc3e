#pragma once

#include <nuvEvent.h>
#include <nuvLog.h>
#include <nuvThreadedTask.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace Sensor {

/// @return false, with *textPtr unchanged, if the file cannot be read
bool readFile( const char* pathPtr, std::string* textPtr );

/// What an operator may set in "etc/sensord.conf"; read at the start and on SIGHUP.
///
/// | section | key            | default | meaning                                            |
/// |---------|----------------|---------|----------------------------------------------------|
/// | sensord | intervalMs     | 1000    | pause between two samples, at least 10             |
/// | mem     | lowPercent     | 10      | less available memory than this is a warning       |
/// | load    | highPerCpu     | 200     | hundredths of load for each processor: a warning   |
/// | irq     | stormPerSecond | 100000  | interrupts of one line in a second: a warning      |
struct Settings
{
    std::atomic< unsigned int > myIntervalMs{ 1000 };
    std::atomic< unsigned int > myLowPercent{ 10 };
    std::atomic< unsigned int > myHighPerCpu{ 200 };
    std::atomic< unsigned int > myStormPerSecond{ 100000 };

    void load();
};

/// Samples one file under /proc on a thread of its own, at the settings' interval: values at debug,
/// the sample's duration at timing, limits that are passed at warning, a file that cannot be read
/// or understood at error, each in the sampler's own zone.
class Sampler
{
public:
    /// @param namePtr of the zone and of the task @param pathPtr both outlive the sampler
    Sampler( const char* namePtr, const char* pathPtr, const Settings& settings );
    Sampler( const Sampler& ) = delete;
    Sampler& operator=( const Sampler& ) = delete;
    virtual ~Sampler() = default;

    void start();
    void requestExit();
    void waitForEnd();
    /// The next sample says at warning what it found.
    void requestReport() { myReport.signal(); }
    /// The next sample dereferences a null pointer: to show the crash report.
    void requestCrash() { myIsCrashing = true; }

protected:
    /// Looks at the file's text. @param seconds since the last sample; 0 for the first
    /// @return what was found, in one line of a few words; empty if the text cannot be understood
    virtual std::string sample( const std::string& text, double seconds ) = 0;

    const Nuv::Log::Source& source( Nuv::Log::Severity severity ) const
    {
        return mySources.source( severity );
    }
    const Settings& settings() const { return mySettings; }

private:
    void run( Nuv::Mt::ThreadedTask* taskPtr );
    void sampleOnce( bool isReport );

    const char* myName;
    const char* myPath;
    const Settings& mySettings;
    Nuv::Log::SourceSet mySources;
    Nuv::Mt::Event myReport;
    std::atomic< bool > myIsCrashing{ false };
    std::uint64_t myLastNs = 0;
    unsigned int myNbrOfSamples = 0;
    Nuv::Utils::Ptr< Nuv::Mt::ThreadedTask > myTaskPtr;
};

} // namespace Sensor
