#include "nuvMemoryMappedFile.h"
#include "nuvRandomAccessFile.h"
#include "nuvTestSupport.h"

#include <cstring>
#include <stdexcept>
#include <unistd.h>

namespace Nuv::Io {
namespace {

class DataFile : public NuvTest::RootFixture
{
protected:
    Pathname pathname() const { return Pathname( Utils::String( myFolder.path( "data" ) ) ); }
    std::string bytes() const { return NuvTest::readFile( pathname().str() ); }

    static constexpr RandomAccessFile::AccessMode ourWrite = RandomAccessFile::readWrite;
    static constexpr MemoryMappedFile::AccessMode ourMapped = MemoryMappedFile::readWrite;
    NuvTest::TemporaryFolder myFolder;
};

constexpr auto outOfRangeText = []( const auto& call ) {
    return NuvTest::textOf< std::out_of_range >( call );
};

TEST_F( DataFile, RandomAccessKeepsBytesWithinItsSize )
{
    RandomAccessFile file( pathname(), 10, ourWrite );
    file.write( "abcdefghij", 10 );
    EXPECT_EQ( "Nuv::Io::RandomAccessFile::write() beyond end of file",
               outOfRangeText( [&] { file.write( "k", 1 ); } ) );
    EXPECT_EQ( "Nuv::Io::RandomAccessFile::seek() pos >= fileSize",
               outOfRangeText( [&] { file.seek( 10 ); } ) );
    EXPECT_THROW( file.read( nullptr, -1 ), LogicException );
    file.seek( 7 );
    char text[4] = {};
    EXPECT_EQ( "Nuv::Io::RandomAccessFile::read() beyond end of file",
               outOfRangeText( [&] { file.read( text, 4 ); } ) );
    file.read( text, 3 );
    EXPECT_STREQ( "hij", text );
    EXPECT_EQ( "abcdefghij", bytes() );
    EXPECT_EQ( 0660u, NuvTest::modeOf( pathname().str() ) );
    file.seek( 4 );
    ASSERT_EQ( 0, ::truncate( pathname().cStr(), 5 ) ); // another process cuts the file
    EXPECT_THROW( file.read( text, 4 ), ResourceException );
    EXPECT_EQ( 4, file.filePos() );
    file.write( "x", 1 );
    EXPECT_EQ( "abcdx", bytes() );
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
    const auto badMode = static_cast< RandomAccessFile::AccessMode >( 2 );
    EXPECT_THROW( RandomAccessFile( pathname(), 4, badMode ), LogicException );
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

TEST_F( DataFile, MappedWindowSlidesByPages )
{
    const long long page = MemoryMappedFile::offsetGranularity();
    MemoryMappedFile file( pathname(), 2 * page + 1, static_cast< unsigned int >( page + 1 ),
                           ourMapped );
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
    file.flush();
    EXPECT_EQ( 'b', bytes().at( page ) );
    EXPECT_EQ( 'c', bytes().back() );
    ASSERT_EQ( 0, ::truncate( pathname().cStr(), 2 * page ) );
    EXPECT_FALSE( file.isWindowBacked() ); // to touch it would be a bus error
    EXPECT_THROW( file.windowOffset( page ), ResourceException );
    file.windowOffset( 0 ); // the part that is left can be had again
    EXPECT_TRUE( file.isWindowBacked() );
}

TEST_F( DataFile, MappedLaterUserAdoptsTheFirstOnesSize )
{
    const long long page = MemoryMappedFile::offsetGranularity();
    MemoryMappedFile first( pathname(), 0, 0, ourMapped );
    first.windowPtr()[0] = 'a';
    const NuvTest::Outcome outcome = NuvTest::runInChild( [&] {
        MemoryMappedFile second( pathname(), 5 * page, 0, ourMapped );
        EXPECT_FALSE( second.isFirstUser() );
        EXPECT_EQ( page, second.fileSize() );
        EXPECT_EQ( 'a', second.windowPtr()[0] );
        second.windowPtr()[1] = 'b';
    } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.output << outcome.errors;
    EXPECT_EQ( 'b', first.windowPtr()[1] );
}

} // namespace
} // namespace Nuv::Io
