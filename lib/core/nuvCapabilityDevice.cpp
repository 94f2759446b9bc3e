#include "nuvCapabilityDevice.h"

#include "nuvSingleton.h"
#include "nuvUtils.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Nuv::Utils {

extern Mt::Mutex CapabilityDeviceSingletonPtrMutex;
Mt::Mutex CapabilityDeviceSingletonPtrMutex;

CapabilityDevice::~CapabilityDevice() = default;

namespace {

// The module's numbers. Their size field reads 4 whatever the block's size is.
constexpr unsigned long setCapabilitiesRequest = 0x40046B02;
constexpr unsigned long readCapabilitiesRequest = 0x80046B05;
constexpr unsigned long readClockRequest = 0x80046B06;
constexpr unsigned long setAffinityRequest = 0x40046B08;
constexpr unsigned long identityChangeRequest = 0x6B04;
constexpr const char* devicePathname = "/dev/nuvmodcap";

std::atomic< CapabilityDevice* > ourSubstitutePtr = nullptr;

class ModCapDevice final : public CapabilityDevice
{
public:
    bool isOpen() const override { return ourModCapFd >= 0; }

    bool readCapabilities( std::uint32_t* maskPtr ) override
    {
        std::uint32_t block[4] = { 1, 0, 0, 0 };
        if ( !request( readCapabilitiesRequest, block ) )
            return false;
        *maskPtr = block[1];
        return true;
    }

    bool setCapabilities( std::uint32_t mask ) override
    {
        std::uint32_t block[4] = { 1, mask, mask, 0 };
        return request( setCapabilitiesRequest, block );
    }

    bool readClockMs( std::uint32_t* msPtr ) override
    {
        std::uint32_t block[2] = { 1, 0 };
        if ( !request( readClockRequest, block ) )
            return false;
        *msPtr = block[1];
        return true;
    }

    bool setAffinity( std::uint32_t mask ) override
    {
        return request( setAffinityRequest, static_cast< unsigned long >( mask ) );
    }

    void prepareIdentityChange( bool toSuperuser ) noexcept override
    {
        const int fd = ::open( devicePathname, O_RDONLY | O_CLOEXEC | O_NOCTTY );
        if ( fd < 0 )
            return;
        std::uint32_t block[4] = { 1, 0, 0, 0 };
        ::ioctl( fd, identityChangeRequest, block );
        std::uint32_t superuserBlock[4] = { 1, 128, 128, 0 };
        if ( toSuperuser )
            ::ioctl( fd, setCapabilitiesRequest, superuserBlock );
        ::close( fd );
    }

private:
    friend class Singleton< ModCapDevice >;

    ModCapDevice()
        : ourModCapFd( retryOnEintr(
              [] { return ::open( devicePathname, O_RDONLY | O_CLOEXEC | O_NOCTTY ); } ) )
    {
    }
    ~ModCapDevice() override
    {
        if ( ourModCapFd >= 0 )
            ::close( ourModCapFd );
    }

    template < class Argument >
    bool request( unsigned long number, Argument argument ) const
    {
        if ( ourModCapFd < 0 ) {
            errno = ENODEV;
            return false;
        }
        return retryOnEintr( [=, this] { return ::ioctl( ourModCapFd, number, argument ); } ) == 0;
    }

    const int ourModCapFd;
};

} // namespace

NUV_STARTUP CapabilityDevice& CapabilityDevice::instance()
{
    if ( CapabilityDevice* const substitutePtr =
             ourSubstitutePtr.load( std::memory_order_acquire ) )
        return *substitutePtr;
    return *Singleton< ModCapDevice >::ptr( CapabilityDeviceSingletonPtrMutex );
}

void CapabilityDevice::substitute( CapabilityDevice* substitutePtr )
{
    ourSubstitutePtr.store( substitutePtr, std::memory_order_release );
}

} // namespace Nuv::Utils
