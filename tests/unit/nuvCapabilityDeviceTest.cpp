#include "nuvCapabilityDevice.h"

#include "nuvTestWrap.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <utility>

// The real face on a module of the test's own: "/dev/nuvmodcap" opens as /dev/null, and the
// requests that arrive there are kept.

namespace {

int ourFd = -1;
int ourErrorNbr = 0; // of the next request; nothing but EINTR stays
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
    if ( ourErrorNbr != 0 ) {
        errno = std::exchange( ourErrorNbr, 0 );
        return -1;
    }
    ourRequest = request;
    ourBlock[0] = static_cast< std::uint32_t >( argument );
    if ( request == 0x40046B08 ) // the argument is the mask
        return 0;
    auto* const blockPtr = reinterpret_cast< std::uint32_t* >( argument );
    const std::size_t size = request == 0x80046B06 ? 8 : 16;
    std::memcpy( ourBlock, blockPtr, size );
    if ( request != 0x40046B02 )
        std::fill_n( blockPtr + 1, size / 8, 0x00A00001 );
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
    std::uint32_t value = 5;
    ourErrorNbr = EPERM;
    EXPECT_FALSE( device.readClockMs( &value ) );
    EXPECT_EQ( errno, EPERM );
    EXPECT_EQ( value, 5u );
    ourErrorNbr = EINTR; // repeated, not reported
    EXPECT_TRUE( device.readCapabilities( &value ) );
    EXPECT_EQ( ourRequest, 0x80046B05u );
    EXPECT_EQ( value, 0x00A00001u );

    EXPECT_TRUE( device.setCapabilities( 0x80200000 ) );
    EXPECT_EQ( ourRequest, 0x40046B02u );
    const std::uint32_t expected[] = { 1, 0x80200000, 0x80200000, 0 };
    EXPECT_EQ( std::memcmp( ourBlock, expected, sizeof( expected ) ), 0 );

    value = 0;
    EXPECT_TRUE( device.readClockMs( &value ) );
    EXPECT_EQ( ourRequest, 0x80046B06u );
    EXPECT_EQ( ourBlock[0], 1u );
    EXPECT_EQ( value, 0x00A00001u );

    EXPECT_TRUE( device.setAffinity( 0x80000001 ) );
    EXPECT_EQ( ourRequest, 0x40046B08u );
    EXPECT_EQ( ourBlock[0], 0x80000001u );
}

} // namespace
} // namespace Nuv::Utils
