#include "nuvMemoryMappedFile.h"
#include "nuvRandomAccessFile.h"
#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

NuvTest::Fault ourFtruncateFault;
NuvTest::Fault ourLseekFault;
int ourNbrOfSeeks = 0;

} // namespace

NUV_FAIL_CALLS( ourFtruncateFault, -1, int, NUV_OFF64( ftruncate ), ( int fd, off_t length ),
                ( fd, length ) )
NUV_WRAP_REAL( off_t, NUV_OFF64( lseek ), ( int fd, off_t offset, int whence ), ++ourNbrOfSeeks,
               ourLseekFault.strikes() ? -1 : NUV_REAL( NUV_OFF64( lseek ) )( fd, offset, whence ) )
namespace Nuv::Io {
namespace {

class DataFile : public NuvTest::RootFixture
{
protected:
    Pathname pathname( const char* namePtr = "data" ) const
    {
        return Pathname( Utils::String( myFolder.path( namePtr ) ) );
    }
    std::string bytes() const { return NuvTest::readFile( pathname().str() ); }

    static constexpr RandomAccessFile::AccessMode ourWrite = RandomAccessFile::readWrite;
    NuvTest::TemporaryFolder myFolder;
};

template < class Exception, class Call >
std::string textOf( Call&& call )
{
    try {
        call();
    } catch ( const Exception& exception ) {
        return exception.what();
    }
    return "no exception";
}
constexpr auto outOfRangeText = []( auto&& call ) { return textOf< std::out_of_range >( call ); };

TEST_F( DataFile, RandomAccessKeepsBytesWithinItsSize )
{
    RandomAccessFile file( pathname(), 10, ourWrite );
    file.write( "abcdefghij", 10 );
    EXPECT_EQ( "Nuv::Io::RandomAccessFile::write() beyond end of file",
               outOfRangeText( [&] { file.write( "k", 1 ); } ) );
    EXPECT_EQ( "Nuv::Io::RandomAccessFile::seek() pos >= fileSize",
               outOfRangeText( [&] { file.seek( 10 ); } ) );
    EXPECT_THROW( file.read( nullptr, -1 ), LogicException );
    EXPECT_EQ( 10, file.filePos() );
    file.seek( 7 );
    char text[4] = {};
    EXPECT_EQ( "Nuv::Io::RandomAccessFile::read() beyond end of file",
               outOfRangeText( [&] { file.read( text, 4 ); } ) );
    file.read( text, 3 );
    EXPECT_STREQ( "hij", text );
    EXPECT_EQ( "abcdefghij", bytes() );
    struct stat status;
    ASSERT_EQ( 0, ::stat( pathname().cStr(), &status ) );
    EXPECT_EQ( 0660u, status.st_mode & 07777u );
}

TEST_F( DataFile, RandomAccessSizeIsAdoptedCutOrExtended )
{
    NuvTest::writeFile( pathname().str(), "0123456789" );
    EXPECT_EQ( 10, RandomAccessFile( pathname(), 0, RandomAccessFile::readOnly ).fileSize() );
    EXPECT_EQ( 4, RandomAccessFile( pathname(), 4, ourWrite ).fileSize() );
    EXPECT_EQ( "0123", bytes() );
    const RandomAccessFile extended( pathname(), 6, ourWrite );
    EXPECT_EQ( std::string( "0123\0\0", 6 ), bytes() );
    EXPECT_THROW( RandomAccessFile( pathname(), 9, RandomAccessFile::readOnly ),
                  ResourceException );
    EXPECT_NE( std::string::npos,
               textOf< LogicException >( [&] {
                   RandomAccessFile( pathname(), 4,
                                     static_cast< RandomAccessFile::AccessMode >( 2 ) );
               } ).find( "false,  Invalid access mode." ) );
}

TEST_F( DataFile, RandomAccessWorksBeyondTwoAndFourGibibytes )
{
    constexpr long long size = 5LL << 30;
    RandomAccessFile file( pathname(), size, ourWrite ); // sparse
    for ( const long long pos : { ( 2LL << 30 ) + 1, ( 4LL << 30 ) + 1, size - 4 } ) {
        SCOPED_TRACE( pos );
        char text[4] = {};
        file.seek( pos );
        file.write( &pos, 4 );
        file.seek( pos );
        file.read( text, 4 );
        EXPECT_EQ( 0, std::memcmp( text, &pos, 4 ) );
    }
}

TEST_F( DataFile, FailedTransferLeavesThePositionWhereItWas )
{
    RandomAccessFile file( pathname(), 100, ourWrite );
    file.seek( 40 );
    ASSERT_EQ( 0, ::truncate( pathname().cStr(), 50 ) ); // another process cuts the file
    char buffer[20];
    EXPECT_THROW( file.read( buffer, 20 ), ResourceException );
    EXPECT_EQ( 40, file.filePos() );
    file.write( "x", 1 );
    EXPECT_EQ( 'x', bytes()[40] );

    ourNbrOfSeeks = 0;
    file.seek( 41 );
    EXPECT_EQ( 0, ourNbrOfSeeks );
    ourLseekFault.arm( 1, EIO );
    EXPECT_THROW( file.seek( 0 ), ResourceException );
    ourLseekFault.disarm();
    EXPECT_EQ( 41, file.filePos() );
    ourFtruncateFault.arm( 1, EFBIG );
    EXPECT_THROW( RandomAccessFile( pathname(), 7, ourWrite ), ResourceException );
    ourFtruncateFault.disarm();
}

TEST_F( DataFile, MappedWindowSlidesByPages )
{
    const long long page = MemoryMappedFile::offsetGranularity();
    MemoryMappedFile file( pathname(), 2 * page + 1, static_cast< unsigned int >( page + 1 ),
                           MemoryMappedFile::readWrite );
    EXPECT_TRUE( file.isFirstUser() );
    EXPECT_EQ( 3 * page, file.fileSize() );
    EXPECT_EQ( 2 * page, file.windowSize() );
    file.windowPtr()[page] = 'b';
    file.windowOffset( 3 * page - 1 );
    EXPECT_EQ( 2 * page, file.windowOffset() );
    EXPECT_EQ( page, file.windowSize() );
    file.windowPtr()[page - 1] = 'c';
    for ( const long long offset : { 3 * page, -1LL } )
        EXPECT_EQ( "Nuv::Io::MemoryMappedFile::windowOffset() windowOffset >= fileSize",
                   outOfRangeText( [&] { file.windowOffset( offset ); } ) );
    EXPECT_NO_THROW( file.flush() );
    const std::string content = bytes();
    EXPECT_EQ( 'b', content.at( page ) );
    EXPECT_EQ( 'c', content.back() );
}

TEST_F( DataFile, MappedLaterUserAdoptsTheFirstOnesSize )
{
    const long long page = MemoryMappedFile::offsetGranularity();
    MemoryMappedFile first( pathname(), 0, 0, MemoryMappedFile::readWrite );
    first.windowPtr()[0] = 'a';
    const NuvTest::Outcome outcome = NuvTest::runInChild( [&] {
        MemoryMappedFile second( pathname(), 5 * page, 0, MemoryMappedFile::readWrite );
        EXPECT_FALSE( second.isFirstUser() );
        EXPECT_EQ( page, second.fileSize() );
        EXPECT_EQ( 'a', second.windowPtr()[0] );
        second.windowPtr()[1] = 'b';
    } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.output << outcome.errors;
    EXPECT_EQ( 'b', first.windowPtr()[1] );
}

TEST_F( DataFile, MappedFileThatWasCutIsARefusalNotABusError )
{
    const long long page = MemoryMappedFile::offsetGranularity();
    MemoryMappedFile file( pathname(), 4 * page, static_cast< unsigned int >( page ),
                           MemoryMappedFile::readWrite );
    EXPECT_TRUE( file.isWindowBacked() );
    ASSERT_EQ( 0, ::truncate( pathname().cStr(), page ) );
    EXPECT_TRUE( file.isWindowBacked() );
    EXPECT_THROW( file.windowOffset( 2 * page ), ResourceException );
    EXPECT_FALSE( file.isWindowBacked() );
    file.windowOffset( 0 ); // the part that is left can be had again
    EXPECT_TRUE( file.isWindowBacked() );
}

} // namespace
} // namespace Nuv::Io
