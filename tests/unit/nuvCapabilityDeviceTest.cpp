#include "nuvCapabilityDevice.h"

#include "nuvTestWrap.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>

// The real face on a module of the test's own: "/dev/nuvmodcap" opens as /dev/null, and the
// requests that arrive there are kept.

namespace {

int ourFd = -1;
int ourNbrOfInterruptions = 0;
bool ourIsRefusing = false;
unsigned long ourRequest = 0;
std::uint32_t ourBlock[4];

int openModule( const char* pathPtr, int flags, mode_t mode )
{
    if ( std::strcmp( pathPtr, "/dev/nuvmodcap" ) != 0 )
        return ::openat( AT_FDCWD, pathPtr, flags, flags & O_CREAT ? mode : 0 );
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
    auto* const blockPtr = reinterpret_cast< std::uint32_t* >( argument );
    ourBlock[0] = static_cast< std::uint32_t >( argument );
    if ( request == 0x40046B08 )
        return 0;
    std::memcpy( ourBlock, blockPtr, request == 0x80046B06 ? 8 : 16 );
    if ( request == 0x80046B05 )
        blockPtr[1] = blockPtr[2] = 0x00A00001;
    else if ( request == 0x80046B06 )
        blockPtr[1] = 123456;
    return 0;
}

} // namespace

// A further argument that a caller does not give is not looked at.
NUV_WRAP( int, open, ( const char* pathPtr, int flags, mode_t mode ),
          openModule( pathPtr, flags, mode ) )
NUV_WRAP( int, open64, ( const char* pathPtr, int flags, mode_t mode ),
          openModule( pathPtr, flags, mode ) )
NUV_WRAP( int, ioctl, ( int fd, unsigned long request, unsigned long argument ),
          requestOfModule( fd, request, argument ) )
NUV_WRAP( int, __ioctl_time64, ( int fd, unsigned long request, unsigned long argument ),
          requestOfModule( fd, request, argument ) )

namespace Nuv::Utils {
namespace {

TEST( CapabilityDeviceReal, RequestsCarryTheModulesNumbersAndBlocks )
{
    CapabilityDevice& device = CapabilityDevice::instance();
    EXPECT_EQ( ::fcntl( ourFd, F_GETFL ) & O_ACCMODE, O_RDONLY );
    EXPECT_EQ( ::fcntl( ourFd, F_GETFD ), FD_CLOEXEC );
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
    EXPECT_EQ( ourBlock[0], 0x80000001u );
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
    EXPECT_EQ( value, 5u );
    ourIsRefusing = false;
}

} // namespace
} // namespace Nuv::Utils
