#pragma once

#include "procText.h"
#include "sampler.h"

#include <map>
#include <string>

namespace Sensor {

/// Network interfaces: what was transferred since the last sample; new errors and drops.
class NetSampler : public Sampler
{
public:
    explicit NetSampler( const Settings& settings )
        : Sampler( "net", "/proc/net/dev", settings )
    {
    }

private:
    std::string sample( const std::string& text, double seconds ) override;
    void compare( const Interface& now, const Interface& before ) const;

    std::map< std::string, Interface > myBefore;
};

/// Memory and swap space.
class MemSampler : public Sampler
{
public:
    explicit MemSampler( const Settings& settings )
        : Sampler( "mem", "/proc/meminfo", settings )
    {
    }

private:
    std::string sample( const std::string& text, double seconds ) override;

    bool myIsLow = false;
};

/// Load of the machine.
class LoadSampler : public Sampler
{
public:
    explicit LoadSampler( const Settings& settings )
        : Sampler( "load", "/proc/loadavg", settings )
    {
    }

private:
    std::string sample( const std::string& text, double seconds ) override;

    bool myIsHigh = false;
};

/// Interrupts, by line.
class IrqSampler : public Sampler
{
public:
    explicit IrqSampler( const Settings& settings )
        : Sampler( "irq", "/proc/interrupts", settings )
    {
    }

private:
    std::string sample( const std::string& text, double seconds ) override;

    std::map< std::string, std::uint64_t > myBefore;
};

} // namespace Sensor
