#include "nuvLogFile.h"

#include "nuvTestSupport.h"
#include "nuvTestWrap.h"

#include <algorithm>
#include <fcntl.h>
#include <memory>
#include <random>
#include <sys/stat.h>
#include <sys/uio.h>
#include <tuple>
#include <unistd.h>

namespace {
NuvTest::Fault ourFault;
bool ourWritesPieces = false; // half of what the first part is
} // namespace

NUV_FAIL_CALLS( ourFault, -1, ssize_t, NUV_OFF64( pwrite ),
                ( int fd, const void* p, size_t n, ::off_t at ), ( fd, p, n, at ) )
NUV_FAIL_CALLS( ourFault, -1, int, NUV_OFF64( ftruncate ), ( int fd, ::off_t size ), ( fd, size ) )
NUV_WRAP_REAL( ssize_t, NUV_OFF64( pwritev ), ( int fd, const iovec* p, int n, ::off_t at ),
               ourFault.strikes() ? -1
               : ourWritesPieces
                   ? NUV_REAL( NUV_OFF64( pwrite ) )( fd, p->iov_base, ( p->iov_len + 1 ) / 2, at )
                   : NUV_REAL( NUV_OFF64( pwritev ) )( fd, p, n, at ) )

namespace Nuv::Log {
namespace {

using Lines = std::vector< std::string >;

const std::string ourMarker( endOfFileMarker );

class LogFile : public ::testing::Test
{
protected:
    ~LogFile() override { ourFault.disarm(), ourWritesPieces = false; }

    std::string content() const { return NuvTest::readFile( myPath ); }

    /// What a process leaves that opens the file, writes the text and ends.
    void write( std::uint64_t maxSize, const std::string& text )
    {
        LogFileWriter writer;
        EXPECT_TRUE( writer.open( myPath, maxSize ) && writer.write( text ) );
    }

    /// All lines that are there now; a fragment is put in angle brackets.
    static Lines readAll( LogFileReader&& reader ) { return readAll( reader ); }
    static Lines readAll( LogFileReader& reader )
    {
        Lines lines;
        for ( std::string line; reader.readLine( &line ); )
            lines.push_back( reader.isFragment() ? "<" + line + ">" : line );
        return lines;
    }

    NuvTest::TemporaryFolder myFolder;
    std::string myPath = myFolder.path( "x.log" );
};

// The rules of the file, in the plainest form. @return whether the file has wrapped
bool put( const std::string& message, std::size_t limit, std::string* bytesPtr,
          std::size_t* positionPtr )
{
    const auto replace = [=]( const std::string& text ) {
        bytesPtr->resize( std::max( bytesPtr->size(), *positionPtr + text.size() ) );
        bytesPtr->replace( *positionPtr, text.size(), text );
    };
    replace( message + "\n" );
    *positionPtr += message.size() + 1;
    const bool wraps = limit != 0 && *positionPtr > limit;
    if ( wraps )
        *positionPtr = 0;
    if ( limit != 0 )
        replace( ourMarker );
    return wraps;
}

TEST_F( LogFile, WritersAndRestartsLeaveTheBytesOfTheRulesAndAreFollowed )
{
    std::mt19937 random( 4711 );
    for ( std::size_t run = 0; run < 40; ++run ) {
        SCOPED_TRACE( run );
        const std::size_t limit = run % 4 == 0 ? 0 : 500 + random() % 500;
        const std::size_t nbrOfWriters = 1 + run / 4 % 2;
        ::unlink( myPath.c_str() );
        LogFileReader reader( myPath, limit );
        std::unique_ptr< LogFileWriter > writerPtrs[2];
        std::string bytes;
        std::size_t position = 0;
        Lines written;
        Lines read;
        for ( int i = 0; i < 60; ++i ) {
            auto& writerPtr = writerPtrs[random() % nbrOfWriters];
            if ( writerPtr == nullptr || random() % 8 == 0 ) {
                writerPtr = std::make_unique< LogFileWriter >();
                ASSERT_TRUE( writerPtr->open( myPath, limit ) );
                if ( nbrOfWriters == 2 )
                    writerPtr->share();
            }
            const std::size_t maxLength = random() % 2 == 0 ? 20 : 150;
            written.push_back( std::to_string( i ) + std::string( random() % maxLength, 'x' ) );
            const bool wraps = put( written.back(), limit, &bytes, &position );
            ourWritesPieces = random() % 4 == 0;
            ourFault.arm( ourWritesPieces ? 99 : 2 + wraps, EIO ); // one call, two at the wrap
            ASSERT_TRUE( writerPtr->write( written.back() ) );
            ASSERT_EQ( bytes, content() );
            if ( i % 3 == 0 || i == 59 || wraps )
                for ( const std::string& line : readAll( reader ) )
                    read.push_back( line );
            Lines whole = readAll( LogFileReader( myPath, limit ) );
            std::erase_if( whole, []( const auto& line ) { return line.starts_with( '<' ); } );
            ASSERT_LE( std::min( written.size(), limit / 200 ), whole.size() );
            ASSERT_TRUE( std::equal( whole.rbegin(), whole.rend(), written.rbegin() ) );
        }
        EXPECT_EQ( written, read );
    }
}

TEST_F( LogFile, OpenedOneContinuesWhereItSaysSo )
{
    const std::string text( "n\0%s", 4 );
    const std::string line = text + "\n";
    const std::string begin = line + ourMarker;
    const std::string old( 3049, 'o' );
    const std::pair< std::string, std::string > cases[] = {
        { "", begin },
        { "old\n" + ourMarker, "old\n" + begin },
        { ourMarker + old.substr( 0, 90 ), begin + old.substr( 0, 85 ) },
        { ourMarker.substr( 0, 80 ), begin },
        { ourMarker.substr( 0, 79 ), ourMarker.substr( 0, 79 ) + begin },
        { "old " + ourMarker, "old " + ourMarker + begin },
        { "old", "old" + begin },
        { old.substr( 0, 1000 ), ourMarker + old.substr( 0, 919 ) + line },
        { old.substr( 0, 1001 ), begin + old.substr( 0, 1001 - begin.size() ) },
        { old.substr( 0, 3048 ), begin + old.substr( 0, 3048 - begin.size() ) },
        { old, begin },
    };
    for ( const auto& [before, after] : cases ) {
        NuvTest::writeFile( myPath, before );
        write( 1000, text );
        EXPECT_EQ( after, content() ) << before;
    }
    write( 0xFFFFFFFFFFFFFFFF, text );
    EXPECT_EQ( line + begin, content() );
    for ( std::size_t length = 65536 - 90; length < 65536 + 3; ++length ) { // around a chunk's end
        NuvTest::writeFile( myPath, std::string( length, 'x' ) + "\n" + ourMarker + "old\n" );
        LogFileWriter writer;
        ASSERT_TRUE( writer.open( myPath, 100000 ) );
        ASSERT_EQ( length + 1, writer.position() );
    }
}

TEST_F( LogFile, OnlyARegularFileIsOpenedAboveTheStandardDescriptorsAndMadeWritable )
{
    LogFileWriter writer;
    ASSERT_EQ( 0, ::mkfifo( myFolder.path( "fifo" ).c_str(), 0600 ) );
    for ( const char* namePtr : { "missing/x.log", "", "fifo" } ) {
        EXPECT_FALSE( writer.open( myFolder.path( namePtr ), 1000 ) || writer.isOpen() ) << namePtr;
        EXPECT_FALSE( LogFileReader( myFolder.path( namePtr ) ).isOpen() ) << namePtr;
    }
    NuvTest::writeFile( myPath, "old\n" );
    ASSERT_EQ( 0, ::chmod( myPath.c_str(), 0444 ) );
    NuvTest::passInChild( [&] {
        ::close( 0 );
        EXPECT_TRUE( writer.open( myPath, 1000 ) && writer.write( "new" ) );
        EXPECT_EQ( -1, ::fcntl( 0, F_GETFD ) );
    } );
    EXPECT_EQ( "old\nnew\n" + ourMarker, content() );
}

TEST_F( LogFile, LostMessageLeavesTheFileAsItWasAndTheNextTriesAgain )
{
    const std::string text( 120, 't' );
    LogFileWriter writer;
    // Within a lap, in a later lap, and in a file that has nothing yet.
    for ( const std::string& before :
          { "old\n" + ourMarker, "new\n" + ourMarker + std::string( 500, 'o' ), std::string() } ) {
        SCOPED_TRACE( before.size() );
        NuvTest::writeFile( myPath, before );
        ASSERT_TRUE( writer.open( myPath, 5000 ) );
        ourFault.arm( 1, ENOSPC );
        EXPECT_FALSE( writer.write( text ) );
        EXPECT_EQ( before, content() );
        const std::uint64_t position = writer.position();
        EXPECT_TRUE( writer.write( text ) );
        EXPECT_EQ( text + "\n" + ourMarker, content().substr( position, 121 + 81 ) );
    }
    ourFault.arm( 2, EIO ); // the marker at the wrap: the message is there
    ASSERT_TRUE( writer.open( myPath, 100 ) && writer.write( text ) );
    EXPECT_TRUE( content().starts_with( text + "\n" ) );
    EXPECT_TRUE( writer.write( "b" ) );
    EXPECT_TRUE( content().starts_with( "b\n" + ourMarker ) );
}

TEST_F( LogFile, FullFileSystemLosesMessagesAndKeepsTheFileWhole )
{
    NuvTest::TmpfsMount disk( 64 * 1024 );
    if ( !disk.isMounted() )
        GTEST_SKIP() << "no privilege to mount";
    myPath = disk.path( "x.log" );
    LogFileWriter writer;
    ASSERT_TRUE( writer.open( myPath, 1000000 ) );
    const std::string text( 999, 'x' );
    std::size_t nbrOfWritten = 0;
    while ( nbrOfWritten < 70 && writer.write( text ) )
        ++nbrOfWritten;
    EXPECT_FALSE( writer.write( text ) );
    EXPECT_EQ( nbrOfWritten * 1000 + 81, content().size() );
    EXPECT_TRUE( writer.write( "short" ) ); // fits into the page that is there
    EXPECT_TRUE( content().ends_with( "x\nshort\n" + ourMarker ) );
}

TEST_F( LogFile, ReaderGivesLinesInTheOrderOfTime )
{
    const std::string x( LogFileReader::maxLineLength, 'x' );
    const std::string lap = ourMarker + "rest\nlast\n";
    const std::tuple< std::string, std::uint64_t, Lines > cases[] = {
        { "", 0, {} },
        { "a\n\nb", 0, { "a", "", "<b>" } },
        { "a\nb\n" + ourMarker, 0, { "a", "b" } },
        { "c\nd\n" + ourMarker + "rest\na\nb\n", 0, { "<rest>", "a", "b", "c", "d" } },
        { lap + ourMarker.substr( 2 ), 0, { "<rest>", "last" } }, // of the lap's marker
        { lap + "zz\n", 90, { "<rest>", "last", "<zz>" } },       // of an earlier lap
        { lap + "zz\n", 99, { "<rest>", "last", "zz" } },
        { x + "yy\na\n", 0, { "<" + x + ">", "<yy>", "a" } },
        { std::string( "a\0b\n", 4 ), 0, { std::string( "a\0b", 3 ) } },
    };
    for ( const auto& [bytes, maxSize, lines] : cases ) {
        NuvTest::writeFile( myPath, bytes );
        EXPECT_EQ( lines, readAll( LogFileReader( myPath, maxSize ) ) );
    }
}

TEST_F( LogFile, FollowedOneMayAppearGrowWrapBeReplacedOrCut )
{
    const std::string old( 1100, 'o' );
    LogFileReader reader( myPath );
    const auto readAfter = [&]( const std::string& bytes ) {
        NuvTest::writeFile( myPath, bytes );
        return readAll( reader );
    };
    EXPECT_EQ( Lines(), readAll( reader ) );
    EXPECT_EQ( Lines(), readAfter( "" ) );
    EXPECT_EQ( ( Lines{ "a", "<b>" } ), readAfter( "a\nb" ) );
    EXPECT_EQ( ( Lines{ "<c>", "d", "<e>" } ), readAfter( "a\nbc\nd\ne" ) );
    EXPECT_EQ( Lines{ "f" }, readAfter( "f\n" ) ) << "cut and written anew";
    ::unlink( myPath.c_str() );
    EXPECT_EQ( Lines(), readAll( reader ) );
    EXPECT_EQ( Lines{ old }, readAfter( old + "\n" ) );
    write( 1000, "at the begin" );
    EXPECT_EQ( Lines{ "at the begin" }, readAll( reader ) );
    write( 1000, "skipped" );
    reader.seekEnd();
    write( 1000, "g" );
    EXPECT_EQ( Lines{ "g" }, readAll( reader ) );
}

} // namespace
} // namespace Nuv::Log
