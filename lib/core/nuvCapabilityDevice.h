#pragma once

#include "nuv.h"

#include <cstdint>

namespace Nuv::Utils {

/// The appliance's kernel module behind "/dev/nuvmodcap": per-thread capabilities, processor masks
/// and a millisecond clock. The one place that knows its requests.
///
/// Two faces: the real device, opened read-only (and close-on-exec) during library start-up and
/// kept open until exit, and a substitute that tests plug in. On a machine without the module
/// isOpen() is false and every request fails without a system call; callers then take their path
/// for a capability that could not be raised. A device that appears later is not looked for.
///
/// | request    | argument                                         | operation        |
/// |------------|--------------------------------------------------|------------------|
/// | 0x80046B05 | block of 4 words; the set comes in words 1 and 2 | readCapabilities |
/// | 0x40046B02 | block { 1, set, set, 0 }                         | setCapabilities  |
/// | 0x80046B06 | block { 1, ms }; the clock comes in word 1       | readClockMs      |
/// | 0x40046B08 | the mask itself, by value                        | setAffinity      |
/// | 0x6B04     | block { 1, 0, 0, 0 }                 | prepareIdentityChange        |
/// | 0x40046B02 | block { 1, 128, 128, 0 }             | the same, to the superuser   |
///
/// Threads: any; requests act on the calling thread and hold no lock.
/// Errors:  false, with errno of the request (ENODEV without the device); outputs are unchanged.
class NUV_API CapabilityDevice
{
public:
    virtual ~CapabilityDevice();

    virtual bool isOpen() const = 0;
    /// Reads the calling thread's effective set: bit n is capability n. @return success
    virtual bool readCapabilities( std::uint32_t* maskPtr ) = 0;
    /// Sets the calling thread's effective and permitted set. @return success
    virtual bool setCapabilities( std::uint32_t mask ) = 0;
    /// @return success; *msPtr then holds the device's millisecond clock
    virtual bool readClockMs( std::uint32_t* msPtr ) = 0;
    /// Sets the calling thread's processor mask: bit n is processor n. @return success
    virtual bool setAffinity( std::uint32_t mask ) = 0;

    /// In a child process, before it changes its user identities: tells the module. Opens the
    /// device anew, calls async-signal-safe functions alone, and reports nothing: without the
    /// device the child only changes its identities.
    /// @param toSuperuser both identities become 0
    virtual void prepareIdentityChange( bool toSuperuser ) noexcept = 0;

    /// The device in force: the substitute if one is plugged in, else the real one.
    static CapabilityDevice& instance();
    /// For tests, while no other thread uses the device.
    /// @param substitutePtr borrowed until the next call; null takes it out again
    static void substitute( CapabilityDevice* substitutePtr );
};

/// Bit masks of the capabilities that the library raises.
inline constexpr std::uint32_t capSysAdminMask = 0x200000; ///< 21, system administration
inline constexpr std::uint32_t capSysNiceMask = 0x800000;  ///< 23, scheduling priority

} // namespace Nuv::Utils
