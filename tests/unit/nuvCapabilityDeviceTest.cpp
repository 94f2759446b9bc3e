#include "nuvCapabilityDevice.h"

#include "nuvTestCapabilityDevice.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

// The real face on a module of the test's own: "/dev/nuvmodcap" opens as /dev/null, and the
// requests that arrive there are kept.

namespace {

int ourNbrOfOpens = 0;
int ourOpenFlags = 0;
int ourFd = -1;
int ourNbrOfInterruptions = 0;
bool ourIsRefusing = false;
unsigned long ourRequest = 0;
std::uint32_t ourBlock[4];
unsigned long ourArgument = 0;

int openModule( const char* pathPtr, int flags, mode_t mode )
{
    if ( std::strcmp( pathPtr, "/dev/nuvmodcap" ) != 0 )
        return ::openat( AT_FDCWD, pathPtr, flags, mode );
    ++ourNbrOfOpens;
    ourOpenFlags = flags;
    return ourFd = ::openat( AT_FDCWD, "/dev/null", flags );
}

int requestOfModule( int fd, unsigned long request, unsigned long argument )
{
    EXPECT_EQ( fd, ourFd );
    if ( ourNbrOfInterruptions > 0 || ourIsRefusing ) {
        errno = ourIsRefusing ? EPERM : EINTR;
        --ourNbrOfInterruptions;
        return -1;
    }
    ourRequest = request;
    ourArgument = argument;
    auto* const blockPtr = reinterpret_cast< std::uint32_t* >( argument );
    if ( request == 0x40046B08 )
        return 0;
    std::memcpy( ourBlock, blockPtr, request == 0x80046B06 ? 8 : 16 );
    if ( request == 0x80046B05 )
        blockPtr[1] = blockPtr[2] = 0x00A00001;
    else if ( request == 0x80046B06 )
        blockPtr[1] = 123456;
    return 0;
}

mode_t modeIn( int flags, va_list list )
{
    return flags & O_CREAT ? va_arg( list, mode_t ) : 0;
}

} // namespace

// NOLINTBEGIN: the linker gives these names
#define NUV_WRAP_OPEN( name )                                                                      \
    extern "C" int __wrap_##name( const char* pathPtr, int flags, ... )                            \
    {                                                                                              \
        va_list list;                                                                              \
        va_start( list, flags );                                                                   \
        const mode_t mode = modeIn( flags, list );                                                 \
        va_end( list );                                                                            \
        return openModule( pathPtr, flags, mode );                                                 \
    }
#define NUV_WRAP_IOCTL( name )                                                                     \
    extern "C" int __wrap_##name( int fd, unsigned long request, ... )                             \
    {                                                                                              \
        va_list list;                                                                              \
        va_start( list, request );                                                                 \
        const unsigned long argument = va_arg( list, unsigned long );                              \
        va_end( list );                                                                            \
        return requestOfModule( fd, request, argument );                                           \
    }
NUV_WRAP_OPEN( open )
NUV_WRAP_OPEN( open64 )
NUV_WRAP_IOCTL( ioctl )
NUV_WRAP_IOCTL( __ioctl_time64 )
// NOLINTEND

namespace Nuv::Utils {
namespace {

TEST( CapabilityDeviceReal, IsOpenedOnceReadOnlyAndNotInherited )
{
    EXPECT_TRUE( CapabilityDevice::instance().isOpen() );
    EXPECT_EQ( &CapabilityDevice::instance(), &CapabilityDevice::instance() );
    EXPECT_EQ( ourNbrOfOpens, 1 );
    EXPECT_EQ( ourOpenFlags & O_ACCMODE, O_RDONLY );
    EXPECT_EQ( ::fcntl( ourFd, F_GETFD ), FD_CLOEXEC );
}

TEST( CapabilityDeviceReal, RequestsCarryTheModulesNumbersAndBlocks )
{
    CapabilityDevice& device = CapabilityDevice::instance();
    std::uint32_t value = 0;
    ourNbrOfInterruptions = 2; // repeated, not reported
    EXPECT_TRUE( device.readCapabilities( &value ) );
    EXPECT_EQ( ourRequest, 0x80046B05u );
    EXPECT_EQ( value, 0x00A00001u );

    EXPECT_TRUE( device.setCapabilities( 0x80200000 ) );
    EXPECT_EQ( ourRequest, 0x40046B02u );
    const std::uint32_t expected[] = { 1, 0x80200000, 0x80200000, 0 };
    EXPECT_EQ( std::memcmp( ourBlock, expected, sizeof( expected ) ), 0 );

    EXPECT_TRUE( device.readClockMs( &value ) );
    EXPECT_EQ( ourRequest, 0x80046B06u );
    EXPECT_EQ( ourBlock[0], 1u );
    EXPECT_EQ( value, 123456u );

    EXPECT_TRUE( device.setAffinity( 0x80000001 ) );
    EXPECT_EQ( ourRequest, 0x40046B08u );
    EXPECT_EQ( ourArgument, 0x80000001u );
}

TEST( CapabilityDeviceReal, RefusedRequestTellsErrnoAndChangesNothing )
{
    CapabilityDevice& device = CapabilityDevice::instance();
    ourIsRefusing = true;
    std::uint32_t value = 5;
    errno = 0;
    EXPECT_FALSE( device.readCapabilities( &value ) );
    EXPECT_EQ( errno, EPERM );
    EXPECT_FALSE( device.readClockMs( &value ) );
    EXPECT_FALSE( device.setCapabilities( 1 ) );
    EXPECT_FALSE( device.setAffinity( 1 ) );
    EXPECT_EQ( value, 5u );
    ourIsRefusing = false;
}

TEST( CapabilityDeviceSubstitute, TakesThePlaceOfTheRealOneForItsLife )
{
    CapabilityDevice* const realPtr = &CapabilityDevice::instance();
    {
        NuvTest::CapabilityDeviceDouble device;
        EXPECT_EQ( &CapabilityDevice::instance(), &device );
    }
    EXPECT_EQ( &CapabilityDevice::instance(), realPtr );
}

} // namespace
} // namespace Nuv::Utils
