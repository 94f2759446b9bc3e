#include "nuvLogFile.h"

#include "nuvTestSupport.h"

#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

// Faults in the calls that write. The two names of each are those of the two widths.
namespace {
NuvTest::Fault ourFault;
NuvTest::Fault ourOpenFault;
int ourNbrOfCalls = 0;
bool ourWritesHalf = false; // a call that is struck has written some of its bytes
bool ourRestFails = true;   // and the next one fails
} // namespace

extern "C" {
ssize_t __real_pwritev( int, const iovec*, int, ::off_t );
ssize_t __real_pwrite( int, const void*, size_t, ::off_t );
int __real_ftruncate( int, ::off_t );
int __real_open( const char*, int, ... );
ssize_t __real_pwritev64( int, const iovec*, int, ::off_t );
ssize_t __real_pwrite64( int, const void*, size_t, ::off_t );
int __real_ftruncate64( int, ::off_t );
int __real_open64( const char*, int, ... );

#if defined( __i386__ )
#define NUV_REAL( name ) __real_##name##64
#define NUV_WRAP( name ) __wrap_##name##64
#else
#define NUV_REAL( name ) __real_##name
#define NUV_WRAP( name ) __wrap_##name
#endif

ssize_t NUV_WRAP( pwritev )( int fd, const iovec* partsPtr, int nbrOfParts, ::off_t position )
{
    ++ourNbrOfCalls;
    if ( !ourFault.strikes() )
        return NUV_REAL( pwritev )( fd, partsPtr, nbrOfParts, position );
    if ( !ourWritesHalf )
        return -1;
    ourWritesHalf = false;
    if ( ourRestFails )
        ourFault.arm( 1, ENOSPC );
    return NUV_REAL( pwrite )( fd, partsPtr->iov_base, partsPtr->iov_len / 2 + 1, position );
}

ssize_t NUV_WRAP( pwrite )( int fd, const void* bytesPtr, size_t nbrOfBytes, ::off_t position )
{
    ++ourNbrOfCalls;
    return ourFault.strikes() ? -1 : NUV_REAL( pwrite )( fd, bytesPtr, nbrOfBytes, position );
}

int NUV_WRAP( ftruncate )( int fd, ::off_t size )
{
    return ourFault.strikes() ? -1 : NUV_REAL( ftruncate )( fd, size );
}

int NUV_WRAP( open )( const char* pathPtr, int flags, ... )
{
    va_list arguments;
    va_start( arguments, flags );
    const unsigned int mode = va_arg( arguments, unsigned int );
    va_end( arguments );
    return ourOpenFault.strikes() ? -1 : NUV_REAL( open )( pathPtr, flags, mode );
}
}

namespace Nuv::Log {
namespace {

const std::string ourMarker( endOfFileMarker );

class LogFile : public ::testing::Test
{
protected:
    ~LogFile() override
    {
        ourFault.disarm();
        ourOpenFault.disarm();
    }

    std::string content() const { return NuvTest::readFile( myPath ); }

    void write( LogFileWriter& writer, const std::string& text )
    {
        EXPECT_TRUE( writer.write( text ) );
    }

    /// What a process leaves that opens the file, writes the texts and ends.
    void writeAll( std::uint64_t maxSize, const std::vector< std::string >& texts )
    {
        LogFileWriter writer;
        ASSERT_TRUE( writer.open( myPath, maxSize ) );
        for ( const std::string& text : texts )
            write( writer, text );
    }

    /// All lines that are there now; a fragment is put in angle brackets.
    static std::vector< std::string > readAll( LogFileReader& reader )
    {
        std::vector< std::string > lines;
        std::string line;
        while ( reader.readLine( &line ) )
            lines.push_back( reader.isFragment() ? "<" + line + ">" : line );
        return lines;
    }
    std::vector< std::string > readAll( std::uint64_t maxSize ) const
    {
        LogFileReader reader( myPath, maxSize );
        return readAll( reader );
    }

    NuvTest::TemporaryFolder myFolder;
    std::string myPath = myFolder.path( "x.log" );
};

using Lines = std::vector< std::string >;
using LogFileWrite = LogFile;
using LogFileOpen = LogFile;
using LogFileFault = LogFile;
using LogFileRead = LogFile;
using LogFileFollow = LogFile;

TEST_F( LogFileWrite, MarkerFollowsTheNewestMessageAcrossTheWrap )
{
    LogFileWriter writer;
    ASSERT_TRUE( writer.open( myPath, 1000 ) );
    const std::string a( 600, 'a' );
    const std::string b( 600, 'b' );
    const std::string c( 600, 'c' );
    write( writer, a );
    EXPECT_EQ( a + "\n" + ourMarker, content() );
    write( writer, b );
    const std::string lap = a + "\n" + b + "\n";
    EXPECT_EQ( ourMarker + lap.substr( 81 ), content() );
    write( writer, c );
    EXPECT_EQ( c + "\n" + ourMarker + lap.substr( 682 ), content() );
}

TEST_F( LogFileWrite, LimitItselfIsNotBeyondIt )
{
    writeAll( 100, { std::string( 99, 'a' ) } );
    EXPECT_EQ( std::string( 99, 'a' ) + "\n" + ourMarker, content() );
    writeAll( 100, { "b" } );
    EXPECT_EQ( ourMarker + std::string( 18, 'a' ) + "\nb\n" + ourMarker.substr( 2 ), content() )
        << "a message at the limit closes the lap and leaves the rest of the marker behind it";
}

TEST_F( LogFileWrite, AnyBytesAndNoMarkerWithoutLimit )
{
    const std::string bytes( "a\0%s\nb", 6 );
    writeAll( 0, { bytes, "" } );
    writeAll( 0, { "c" } );
    EXPECT_EQ( bytes + "\n\nc\n", content() );
}

TEST_F( LogFileWrite, OneCallForAMessageTwoAtTheWrap )
{
    LogFileWriter writer;
    ASSERT_TRUE( writer.open( myPath, 20 ) );
    ourNbrOfCalls = 0;
    write( writer, "0123456789" );
    EXPECT_EQ( 1, ourNbrOfCalls );
    write( writer, "0123456789" );
    EXPECT_EQ( 3, ourNbrOfCalls );
    write( writer, "0123456789" );
    EXPECT_EQ( 4, ourNbrOfCalls );
}

TEST_F( LogFileOpen, ContinuesWhereTheFileSaysSo )
{
    const std::string dots( 90, '.' );
    const std::string longLine( 70000, 'x' );
    const struct
    {
        const char* whatPtr;
        std::string before;
        std::string after;
    } cases[] = {
        { "no file", "", "new\n" + ourMarker },
        { "marker at the end", "old\n" + ourMarker, "old\nnew\n" + ourMarker },
        { "marker before older lines", "old\n" + ourMarker + dots + "\nolder\n",
          "old\nnew\n" + ourMarker + dots.substr( 4 ) + "\nolder\n" },
        { "marker without its line feed", "old\n" + ourMarker.substr( 0, 80 ),
          "old\nnew\n" + ourMarker },
        { "marker begun", "old\n" + ourMarker.substr( 0, 79 ),
          "old\n" + ourMarker.substr( 0, 79 ) + "new\n" + ourMarker },
        { "marker within a line", "old " + ourMarker, "old " + ourMarker + "new\n" + ourMarker },
        { "no marker", "old\n", "old\nnew\n" + ourMarker },
        { "no marker, open line", "old", "oldnew\n" + ourMarker },
        { "line beyond a chunk", longLine + "\n" + ourMarker + "z",
          longLine + "\nnew\n" + ourMarker },
    };
    for ( const auto& one : cases ) {
        SCOPED_TRACE( one.whatPtr );
        NuvTest::writeFile( myPath, one.before );
        if ( one.before.empty() )
            ::unlink( myPath.c_str() );
        writeAll( 100000, { "new" } );
        EXPECT_EQ( one.after, content() );
    }
}

TEST_F( LogFileOpen, MarkerIsFoundAtEveryPlaceOfAChunk )
{
    for ( std::size_t length = 65536 - 90; length < 65536 + 3; ++length ) {
        SCOPED_TRACE( length );
        NuvTest::writeFile( myPath, std::string( length, 'x' ) + "\n" + ourMarker + "old\n" );
        LogFileWriter writer;
        ASSERT_TRUE( writer.open( myPath, 100000 ) );
        EXPECT_EQ( length + 1, writer.position() );
    }
}

TEST_F( LogFileOpen, FileBeyondTheLimitIsContinuedAtItsBeginOrEmptied )
{
    const struct
    {
        std::size_t size;
        bool isEmptied;
    } cases[] = { { 1001, false }, { 3048, false }, { 3049, true }, { 100000, true } };
    for ( const auto& one : cases ) {
        SCOPED_TRACE( one.size );
        const std::string old( one.size, 'o' );
        NuvTest::writeFile( myPath, old );
        writeAll( 1000, { "new" } );
        const std::string begin = "new\n" + ourMarker;
        EXPECT_EQ( one.isEmptied ? begin : begin + old.substr( begin.size() ), content() );
    }
    NuvTest::writeFile( myPath, std::string( 1000, 'o' ) );
    writeAll( 1000, { "new" } );
    EXPECT_EQ( ourMarker, content().substr( 0, 81 ) ) << "continued at its end, and wrapped there";
    const std::string old( 3000, '\n' );
    NuvTest::writeFile( myPath, old );
    writeAll( 0xFFFFFFFFFFFFFFFF, { "new" } );
    EXPECT_EQ( old + "new\n" + ourMarker, content() );
}

TEST_F( LogFileOpen, WhatIsNoWritableFileIsRefused )
{
    LogFileWriter writer;
    EXPECT_FALSE( writer.open( myFolder.path( "missing/x.log" ), 1000 ) );
    EXPECT_FALSE( writer.open( myFolder.path(), 1000 ) );
    ASSERT_EQ( 0, ::mkfifo( myPath.c_str(), 0600 ) );
    EXPECT_FALSE( writer.open( myPath, 1000 ) );
    EXPECT_FALSE( writer.isOpen() );
    ::unlink( myPath.c_str() );
    ourOpenFault.arm( 1, EMFILE );
    EXPECT_FALSE( writer.open( myPath, 1000 ) );
}

TEST_F( LogFileOpen, ReadOnlyFileIsMadeWritable )
{
    NuvTest::writeFile( myPath, "old\n" );
    ASSERT_EQ( 0, ::chmod( myPath.c_str(), 0444 ) );
    writeAll( 1000, { "new" } );
    EXPECT_EQ( "old\nnew\n" + ourMarker, content() );
}

TEST_F( LogFileOpen, DescriptorIsAboveTheStandardOnesAndClosedByExec )
{
    const NuvTest::Outcome outcome = NuvTest::runInChild( [this] {
        ::close( 0 );
        LogFileWriter writer;
        ASSERT_TRUE( writer.open( myPath, 1000 ) );
        EXPECT_EQ( -1, ::fcntl( 0, F_GETFD ) );
        for ( int fd = 3; fd < 64; ++fd ) {
            struct stat status;
            const bool isLog = ::fstat( fd, &status ) == 0 && S_ISREG( status.st_mode );
            EXPECT_TRUE( !isLog || ( ::fcntl( fd, F_GETFD ) & FD_CLOEXEC ) != 0 );
        }
    } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.output << outcome.errors;
}

// ------------------------------------------------------------------------------------- faults

TEST_F( LogFileFault, LostMessageLeavesTheFileAsItWasAndTheNextTriesAgain )
{
    const std::string text( 120, 't' );
    for ( const bool writesHalf : { false, true } ) {
        // One message within a lap, in a later lap, and in a file that has nothing yet.
        for ( const std::string& before :
              { "old\n" + ourMarker, "new\n" + ourMarker + std::string( 500, 'o' ) + "\n",
                std::string() } ) {
            SCOPED_TRACE( before.size() );
            NuvTest::writeFile( myPath, before );
            LogFileWriter writer;
            ASSERT_TRUE( writer.open( myPath, 5000 ) );
            const std::uint64_t position = writer.position();
            ourWritesHalf = writesHalf;
            ourFault.arm( 1, ENOSPC );
            EXPECT_FALSE( writer.write( text ) );
            EXPECT_EQ( before.size(), content().size() );
            EXPECT_EQ( before.substr( 0, position + 81 ), content().substr( 0, position + 81 ) );
            write( writer, text );
            EXPECT_EQ( before.substr( 0, position ) + text + "\n" + ourMarker,
                       content().substr( 0, position + 121 + 81 ) );
        }
    }
}

TEST_F( LogFileFault, ShortWriteIsGoneOnWith )
{
    LogFileWriter writer;
    ASSERT_TRUE( writer.open( myPath, 5000 ) );
    for ( const char* textPtr : { "0123456789", "ab" } ) {
        ourRestFails = false;
        ourWritesHalf = true;
        ourFault.arm( 1, 0 );
        write( writer, textPtr );
        ourRestFails = true;
    }
    EXPECT_EQ( "0123456789\nab\n" + ourMarker, content() );
}

TEST_F( LogFileFault, MessageSurvivesAFailureOfTheMarkerAtTheWrap )
{
    LogFileWriter writer;
    ASSERT_TRUE( writer.open( myPath, 100 ) );
    const std::string text( 120, 'a' );
    ourFault.arm( 2, EIO ); // the first call writes the message
    write( writer, text );
    EXPECT_EQ( text + "\n", content() );
    write( writer, "b" );
    EXPECT_EQ( "b\n" + ourMarker, content().substr( 0, 83 ) );
}

TEST_F( LogFileFault, FullFileSystemLosesMessagesAndKeepsTheFileWhole )
{
    NuvTest::TmpfsMount disk( 64 * 1024 );
    if ( !disk.isMounted() )
        GTEST_SKIP() << "no privilege to mount";
    myPath = disk.path( "x.log" );
    LogFileWriter writer;
    ASSERT_TRUE( writer.open( myPath, 1000000 ) );
    const std::string text( 999, 'x' );
    int nbrOfWritten = 0;
    while ( writer.write( text ) && nbrOfWritten < 1000 )
        ++nbrOfWritten;
    ASSERT_LT( nbrOfWritten, 70 );
    EXPECT_FALSE( writer.write( text ) );
    EXPECT_EQ( static_cast< std::size_t >( nbrOfWritten ) * 1000 + 81, content().size() );
    EXPECT_TRUE( content().ends_with( "x\n" + ourMarker ) );
    write( writer, "short" ); // fits into the page that is there
    EXPECT_TRUE( content().ends_with( "x\nshort\n" + ourMarker ) );
}

// -------------------------------------------------------------------------------------- model

/// The file's bytes by the rules, in the plainest form.
struct Model
{
    std::string bytes;
    std::size_t position = 0;
    std::size_t limit;

    void put( std::size_t at, const std::string& text )
    {
        if ( bytes.size() < at + text.size() )
            bytes.resize( at + text.size() );
        bytes.replace( at, text.size(), text );
    }
    void write( const std::string& message )
    {
        put( position, message + "\n" );
        position += message.size() + 1;
        if ( position > limit )
            position = 0;
        put( position, ourMarker );
    }
};

TEST_F( LogFileWrite, EveryRunOfMessagesAndRestartsLeavesTheBytesOfTheRules )
{
    std::mt19937 random( 4711 );
    for ( int run = 0; run < 60; ++run ) {
        SCOPED_TRACE( run );
        ::unlink( myPath.c_str() );
        Model model{ .bytes = {}, .limit = 200 + random() % 400 };
        auto writerPtr = std::make_unique< LogFileWriter >();
        ASSERT_TRUE( writerPtr->open( myPath, model.limit ) );
        for ( int i = 0; i < 60; ++i ) {
            if ( random() % 8 == 0 ) {
                writerPtr = std::make_unique< LogFileWriter >();
                ASSERT_TRUE( writerPtr->open( myPath, model.limit ) );
            }
            const std::string text( random() % ( random() % 2 == 0 ? 20 : 150 ),
                                    static_cast< char >( 'a' + i % 26 ) );
            model.write( text );
            write( *writerPtr, text );
            ASSERT_EQ( model.bytes, content() );
        }
    }
}

TEST_F( LogFileWrite, SharedFileKeepsTheMessagesOfBothWriters )
{
    for ( const std::uint64_t maxSize : { 0u, 5000u, 300u } ) {
        SCOPED_TRACE( maxSize );
        ::unlink( myPath.c_str() );
        LogFileWriter a;
        LogFileWriter b;
        ASSERT_TRUE( a.open( myPath, maxSize ) && b.open( myPath, maxSize ) );
        a.share();
        b.share();
        LogFileReader reader( myPath, maxSize );
        Lines written;
        Lines read;
        for ( int i = 0; i < 40; ++i ) {
            written.push_back( "line " + std::to_string( i ) );
            write( i % 3 == 0 ? a : b, written.back() );
            for ( const std::string& line : readAll( reader ) )
                read.push_back( line );
        }
        EXPECT_EQ( written, read );
    }
}

// ------------------------------------------------------------------------------------ reading

TEST_F( LogFileRead, GivesLinesInTheOrderOfTime )
{
    const std::string longLine( LogFileReader::maxLineLength + 5, 'x' );
    const struct
    {
        const char* whatPtr;
        std::string bytes;
        std::uint64_t maxSize;
        Lines lines;
    } cases[] = {
        { "empty", "", 0, {} },
        { "no marker", "a\n\nb\n", 0, { "a", "", "b" } },
        { "open last line", "a\nb", 0, { "a", "<b>" } },
        { "marker at the end", "a\nb\n" + ourMarker, 0, { "a", "b" } },
        { "marker alone", ourMarker, 0, {} },
        { "older lap behind",
          "c\nd\n" + ourMarker + "rest\na\nb\n",
          0,
          { "<rest>", "a", "b", "c", "d" } },
        { "rest of the marker at the lap's end",
          ourMarker + "rest\na\n" + ourMarker.substr( 2 ),
          0,
          { "<rest>", "a" } },
        { "rest of an earlier lap",
          ourMarker + "rest\naaaaaaaaaaaa\nzz\n",
          90,
          { "<rest>", "aaaaaaaaaaaa", "<zz>" } },
        { "within the limit",
          ourMarker + "rest\naaaaaaaaaaaa\nzz\n",
          99,
          { "<rest>", "aaaaaaaaaaaa", "zz" } },
        { "long line",
          longLine + "\na\n",
          0,
          { "<" + longLine.substr( 5 ) + ">", "<xxxxx>", "a" } },
        { "NULs", std::string( "a\0b\n", 4 ), 0, { std::string( "a\0b", 3 ) } },
    };
    for ( const auto& one : cases ) {
        SCOPED_TRACE( one.whatPtr );
        NuvTest::writeFile( myPath, one.bytes );
        EXPECT_EQ( one.lines, readAll( one.maxSize ) );
    }
    EXPECT_FALSE( LogFileReader( myFolder.path( "missing" ) ).isOpen() );
}

TEST_F( LogFileFollow, GivesEveryMessageOnceAcrossManyWraps )
{
    std::mt19937 random( 815 );
    for ( const std::uint64_t maxSize : { 500u, 1000u, 3000u } ) {
        SCOPED_TRACE( maxSize );
        ::unlink( myPath.c_str() );
        LogFileWriter writer;
        ASSERT_TRUE( writer.open( myPath, maxSize ) );
        LogFileReader reader( myPath );
        Lines written;
        Lines read;
        for ( int i = 0; i < 3000; ++i ) {
            std::string text = std::to_string( i ) + std::string( 1 + random() % 90, 'a' );
            write( writer, text );
            written.push_back( std::move( text ) );
            if ( i % 4 != 0 && random() % 2 == 0 )
                continue; // several messages between two calls, but less than a lap
            for ( std::string& line : readAll( reader ) )
                read.push_back( std::move( line ) );
        }
        for ( std::string& line : readAll( reader ) )
            read.push_back( std::move( line ) );
        const auto [w, r] =
            std::mismatch( written.begin(), written.end(), read.begin(), read.end() );
        EXPECT_TRUE( w == written.end() && r == read.end() )
            << ( w == written.end() ? "-" : *w ) << " and " << ( r == read.end() ? "-" : *r );
    }
}

TEST_F( LogFileRead, LastLapIsWholeAtEveryMoment )
{
    LogFileWriter writer;
    ASSERT_TRUE( writer.open( myPath, 2000 ) );
    Lines written;
    for ( int i = 0; i < 500; ++i ) {
        written.push_back( std::to_string( i ) +
                           std::string( static_cast< std::size_t >( i * 7 % 60 ), 'a' ) );
        write( writer, written.back() );
        Lines whole;
        for ( const std::string& line : readAll( 2000 ) ) {
            if ( !line.starts_with( '<' ) )
                whole.push_back( line );
        }
        ASSERT_LE( std::min< std::size_t >( written.size(), 20 ), whole.size() );
        ASSERT_TRUE( std::equal( whole.rbegin(), whole.rend(), written.rbegin() ) ) << i;
    }
}

TEST_F( LogFileFollow, BeginsWhereItIsTold )
{
    writeAll( 1000, { "a", "b" } );
    LogFileReader reader( myPath );
    reader.seekEnd();
    writeAll( 1000, { "c" } );
    EXPECT_EQ( Lines{ "c" }, readAll( reader ) );
}

TEST_F( LogFileFollow, MeetsAFileThatAppearsIsReplacedCutOrBeganWithoutMarker )
{
    LogFileReader reader( myPath );
    EXPECT_EQ( Lines{}, readAll( reader ) );
    NuvTest::writeFile( myPath, "" );
    EXPECT_EQ( Lines{}, readAll( reader ) );
    writeAll( 1000, { "a" } );
    EXPECT_EQ( Lines{ "a" }, readAll( reader ) );
    writeAll( 1000, { "b" } );
    EXPECT_EQ( Lines{ "b" }, readAll( reader ) );
    ::unlink( myPath.c_str() );
    EXPECT_EQ( Lines{}, readAll( reader ) );
    writeAll( 1000, { "c" } );
    EXPECT_EQ( Lines{ "c" }, readAll( reader ) );
    NuvTest::writeFile( myPath, "" );
    writeAll( 1000, { "d" } );
    EXPECT_EQ( Lines{ "d" }, readAll( reader ) );
}

TEST_F( LogFileFollow, PlainFileGrowsAndThenWrapsToItsBegin )
{
    const std::string old( 1100, 'o' );
    NuvTest::writeFile( myPath, old + "\n" );
    LogFileReader reader( myPath );
    EXPECT_EQ( Lines{ old }, readAll( reader ) );
    writeAll( 1000, { "a", "b" } );
    EXPECT_EQ( ( Lines{ "a", "b" } ), readAll( reader ) );

    const std::string otherPath = myFolder.path( "y.log" );
    NuvTest::writeFile( otherPath, "a\nb" );
    LogFileReader other( otherPath );
    EXPECT_EQ( ( Lines{ "a", "<b>" } ), readAll( other ) );
    NuvTest::writeFile( otherPath, "a\nbc\nd\ne" );
    EXPECT_EQ( ( Lines{ "<c>", "d", "<e>" } ), readAll( other ) );
    NuvTest::writeFile( otherPath, "f\n" ); // cut and written anew
    EXPECT_EQ( Lines{ "f" }, readAll( other ) );
}

} // namespace
} // namespace Nuv::Log
