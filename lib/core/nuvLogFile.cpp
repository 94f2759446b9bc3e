#include "nuvLogFile.h"

#include "nuvFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace Nuv::Log {

namespace {

/// Of the marker only these are compared; its line feed may be missing.
constexpr std::string_view ourMarkerText = endOfFileMarker.substr( 0, 80 );
/// The same with the line feed before it, which tells that it stands at the begin of a line.
constexpr std::string_view ourMarkerLine =
    "\n================================= END OF FILE ==================================";
static_assert( ourMarkerLine.substr( 1 ) == ourMarkerText );

constexpr std::size_t chunkSize = 64 * 1024;

/// @return nbrOfBytes, less at the end of the file or after a failure
std::size_t readAt( int fd, char* bytesPtr, std::size_t nbrOfBytes, std::uint64_t position )
{
    std::size_t count = 0;
    while ( count < nbrOfBytes ) {
        const ssize_t n = Utils::retryOnEintr( [&] {
            return ::pread( fd, bytesPtr + count, nbrOfBytes - count,
                            static_cast< ::off_t >( position + count ) );
        } );
        if ( n <= 0 )
            break;
        count += static_cast< std::size_t >( n );
    }
    return count;
}

/// @return where the marker begins, npos if there is none
std::size_t findMarker( std::string_view bytes )
{
    if ( bytes.starts_with( ourMarkerText ) )
        return 0;
    const std::size_t pos = bytes.find( ourMarkerLine );
    return pos == std::string_view::npos ? pos : pos + 1;
}

/// The same of a file of any size.
/// @param sizePtr receives the number of bytes read, all of the file if there is no marker
std::optional< std::uint64_t > findMarker( int fd, std::uint64_t* sizePtr )
{
    std::string bytes = "\n"; // as if the file's begin followed a line
    *sizePtr = 0;
    for ( ;; ) {
        const std::size_t nbrOfKept = bytes.size();
        bytes.resize( nbrOfKept + chunkSize );
        const std::size_t count = readAt( fd, bytes.data() + nbrOfKept, chunkSize, *sizePtr );
        bytes.resize( nbrOfKept + count );
        *sizePtr += count;
        const std::size_t pos = bytes.find( ourMarkerLine );
        if ( pos != std::string::npos )
            return *sizePtr - ( bytes.size() - pos - 1 );
        if ( count < chunkSize )
            return std::nullopt;
        // What is found in two chunks begins in these.
        bytes.erase( 0, bytes.size() - ( ourMarkerLine.size() - 1 ) );
    }
}

bool isRegularFile( int fd, struct stat* statusPtr )
{
    return ::fstat( fd, statusPtr ) == 0 && S_ISREG( statusPtr->st_mode );
}

/// Opens the file, which is created if it does not exist, above the three standard descriptors: a
/// daemon that has closed those would else print into its log.
int openAboveStandard( const char* pathPtr, int flags )
{
    const int fd = Utils::retryOnEintr(
        [&] { return ::open( pathPtr, flags | O_CLOEXEC | O_NOCTTY, 0666 ); } );
    if ( fd < 0 || fd > STDERR_FILENO )
        return fd;
    const int duplicate = ::fcntl( fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1 );
    ::close( fd );
    return duplicate;
}

} // namespace

// ------------------------------------------------------------------------------ LogFileWriter

bool LogFileWriter::open( const std::string& pathname, std::uint64_t maxSize )
{
    using Io::FileSystem;
    myFile.reset();
    const Utils::String path( pathname );
    const std::uint32_t attributes = FileSystem::pathnameAttributes( path );
    if ( attributes != 0 && ( attributes & FileSystem::file ) == 0 )
        return false;
    if ( attributes != 0 && ( attributes & FileSystem::writeable ) == 0 &&
         !FileSystem::setPathnameAttributes( path, FileSystem::writeable ) )
        return false;
    Utils::Handle file( openAboveStandard( pathname.c_str(), O_RDWR | O_CREAT ) );
    struct stat status;
    if ( !file.isValid() || !isRegularFile( file, &status ) )
        return false;
    const auto size = static_cast< std::uint64_t >( status.st_size );
    if ( maxSize != 0 && size > maxSize && size - maxSize > nbrOfToleratedBytes )
        static_cast< void >( ::ftruncate( file, 0 ) == 0 );
    myFile = std::move( file );
    myMaxSize = maxSize;
    seekMarker();
    return true;
}

void LogFileWriter::seekMarker()
{
    struct stat status;
    std::uint64_t size = 0;
    const std::optional< std::uint64_t > marker = findMarker( myFile, &size );
    myFileSize =
        isRegularFile( myFile, &status ) ? static_cast< std::uint64_t >( status.st_size ) : 0;
    myHasMarker = marker.has_value();
    myPosition = marker.value_or( size );
    if ( myMaxSize != 0 && myPosition > myMaxSize ) {
        myHasMarker = false;
        myPosition = 0;
    }
}

bool LogFileWriter::write( std::string_view message )
{
    if ( myIsShared.load( std::memory_order_relaxed ) && !isPositionRight() )
        seekMarker();
    const std::uint64_t oldSize = myFileSize;
    const std::uint64_t end = myPosition + message.size() + 1;
    const bool wraps = myMaxSize != 0 && end > myMaxSize;
    if ( !put( message, wraps || myMaxSize == 0 ? std::string_view() : endOfFileMarker ) ) {
        restore( oldSize );
        return false;
    }
    myPosition = end;
    myHasMarker = myMaxSize != 0 && !wraps;
    if ( wraps ) {
        // Should this fail, the place is found without a marker too: the file's end is beyond
        // maxSize.
        myPosition = 0;
        myHasMarker = putMarker();
    }
    return true;
}

/// Whether the file is as this object left it.
bool LogFileWriter::isPositionRight() const
{
    char bytes[ourMarkerText.size()];
    struct stat status;
    if ( myHasMarker )
        return std::string_view( bytes, readAt( myFile, bytes, sizeof( bytes ), myPosition ) ) ==
               ourMarkerText;
    return isRegularFile( myFile, &status ) &&
           static_cast< std::uint64_t >( status.st_size ) == myFileSize;
}

/// Writes message, line feed and marker at myPosition.
bool LogFileWriter::put( std::string_view message, std::string_view marker )
{
    char lineFeed = '\n';
    iovec parts[] = { { const_cast< char* >( message.data() ), message.size() },
                      { &lineFeed, 1 },
                      { const_cast< char* >( marker.data() ), marker.size() } };
    std::uint64_t position = myPosition;
    iovec* partPtr = parts;
    iovec* const endPtr = parts + 3;
    while ( partPtr != endPtr ) {
        const ssize_t n = Utils::retryOnEintr( [&] {
            return ::pwritev( myFile, partPtr, static_cast< int >( endPtr - partPtr ),
                              static_cast< ::off_t >( position ) );
        } );
        if ( n <= 0 )
            return false;
        position += static_cast< std::size_t >( n );
        myFileSize = std::max( myFileSize, position );
        std::size_t rest = static_cast< std::size_t >( n );
        while ( partPtr != endPtr && rest >= partPtr->iov_len )
            rest -= partPtr++->iov_len;
        if ( partPtr != endPtr ) {
            partPtr->iov_base = static_cast< char* >( partPtr->iov_base ) + rest;
            partPtr->iov_len -= rest;
        }
    }
    return true;
}

bool LogFileWriter::putMarker()
{
    const ssize_t n = Utils::retryOnEintr( [&] {
        return ::pwrite( myFile, endOfFileMarker.data(), endOfFileMarker.size(),
                         static_cast< ::off_t >( myPosition ) );
    } );
    return n == static_cast< ssize_t >( endOfFileMarker.size() );
}

/// After a failure: part of the message may stand where the marker was, or behind the old end.
void LogFileWriter::restore( std::uint64_t oldSize )
{
    if ( myHasMarker )
        myHasMarker = putMarker();
    if ( myFileSize > oldSize && Utils::retryOnEintr( [&] {
                                     return ::ftruncate( myFile,
                                                         static_cast< ::off_t >( oldSize ) );
                                 } ) == 0 )
        myFileSize = oldSize;
}

// ------------------------------------------------------------------------------ LogFileReader

LogFileReader::LogFileReader( std::string pathname, std::uint64_t maxSize )
    : myPathname( std::move( pathname ) )
    , myMaxSize( maxSize )
{
    if ( open() )
        load();
}

bool LogFileReader::open()
{
    // Not blocking: a FIFO of that name has no lines, but must not stop the reader.
    Utils::Handle file( Utils::retryOnEintr( [&] {
        return ::open( myPathname.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK );
    } ) );
    struct stat status;
    if ( !file.isValid() || !isRegularFile( file, &status ) )
        return false;
    myFile = std::move( file );
    return true;
}

/// Whether the name stands for another file now, or the file was cut.
bool LogFileReader::isReplaced() const
{
    struct stat named;
    struct stat opened;
    if ( ::fstat( myFile, &opened ) != 0 )
        return false;
    if ( static_cast< std::uint64_t >( opened.st_size ) < myPosition )
        return true;
    return ::stat( myPathname.c_str(), &named ) == 0 &&
           ( named.st_ino != opened.st_ino || named.st_dev != opened.st_dev );
}

/// Begins with the file as it is now.
void LogFileReader::load()
{
    std::uint64_t size = 0;
    std::size_t marker = 0;
    mySnapshot.clear();
    myPosition = 0;
    myIsInLine = false;
    myHasMarker = findMarker( myFile, &size ).has_value() && takeSnapshot( &mySnapshot, &marker );
    if ( myHasMarker )
        addAll( marker );
}

/// Adds what the snapshot holds, in the order of time.
void LogFileReader::addAll( std::size_t marker )
{
    addRest( mySnapshot, marker + endOfFileMarker.size(), true );
    addLines( std::string_view( mySnapshot ).substr( 0, marker ), false );
    myPosition = marker;
}

/// @return false if there is no marker at this moment, as when a lap is just ending
bool LogFileReader::takeSnapshot( std::string* bytesPtr, std::size_t* markerPtr )
{
    struct stat status;
    if ( !isRegularFile( myFile, &status ) )
        return false;
    myModified = status.st_mtim;
    bytesPtr->resize( static_cast< std::size_t >( status.st_size ) );
    bytesPtr->resize( readAt( myFile, bytesPtr->data(), bytesPtr->size(), 0 ) );
    *markerPtr = findMarker( *bytesPtr );
    return *markerPtr != std::string::npos;
}

void LogFileReader::seekEnd()
{
    // Of a file with a marker one look takes all that is new; another is read in pieces.
    myLines.clear();
    while ( poll() && !myHasMarker )
        myLines.clear();
    myLines.clear();
}

bool LogFileReader::readLine( std::string* linePtr )
{
    if ( myLines.empty() && !poll() )
        return false;
    *linePtr = std::move( myLines.front().myText );
    myIsFragment = myLines.front().myIsFragment;
    myLines.pop_front();
    return true;
}

/// Looks for what is new. @return whether there are lines
bool LogFileReader::poll()
{
    if ( !myFile.isValid() ) {
        if ( !open() )
            return false;
        load();
    } else if ( isReplaced() && open() ) {
        load();
    }
    if ( myLines.empty() && myHasMarker )
        pollWrapped();
    else if ( myLines.empty() )
        pollPlain();
    return !myLines.empty();
}

void LogFileReader::pollWrapped()
{
    char bytes[ourMarkerText.size()];
    const std::size_t count = readAt( myFile, bytes, sizeof( bytes ), myPosition );
    if ( std::string_view( bytes, count ) == ourMarkerText && !isModified() )
        return;
    const std::string before = std::move( mySnapshot );
    std::size_t marker = 0;
    if ( !takeSnapshot( &mySnapshot, &marker ) ) {
        mySnapshot = before;
        return;
    }
    const std::string_view now = mySnapshot;
    const auto begin = static_cast< std::size_t >( myPosition );
    if ( marker < begin ) {
        const std::size_t first = std::max( begin, marker + endOfFileMarker.size() );
        const bool beginsInLine = first != begin || now[begin - 1] != '\n';
        addRest( now.substr( 0, lapEnd( now, before ) ), first, beginsInLine );
        addLines( now.substr( 0, marker ), false );
    } else if ( now.substr( 0, begin ) == std::string_view( before ).substr( 0, begin ) ) {
        addLines( now.substr( begin, marker - begin ), false );
    } else {
        addAll( marker ); // written anew, or more than a lap on
    }
    myPosition = marker;
}

/// Where the lap has ended that went on at myPosition: what stands at the end of the file as it did
/// before is left from an earlier lap.
std::size_t LogFileReader::lapEnd( std::string_view now, std::string_view before ) const
{
    const auto begin = static_cast< std::size_t >( myPosition );
    if ( now.size() != before.size() )
        return now.size();
    std::size_t end = now.size();
    while ( end > begin && now[end - 1] == before[end - 1] )
        --end;
    // The last bytes of the lap may be equal by chance, its last line feed too.
    const std::size_t lineFeed = now.find( '\n', end > begin ? end - 1 : begin );
    return lineFeed == std::string_view::npos ? now.size() : lineFeed + 1;
}

/// Whether the file was written to since the last look.
bool LogFileReader::isModified() const
{
    struct stat status;
    return isRegularFile( myFile, &status ) && ( status.st_mtim.tv_sec != myModified.tv_sec ||
                                                 status.st_mtim.tv_nsec != myModified.tv_nsec );
}

/// Adds what stands at begin and behind up to the end of a lap.
void LogFileReader::addRest( std::string_view bytes, std::size_t begin, bool beginsInLine )
{
    bool isLapEnded = false;
    for ( std::size_t pos = begin; pos < bytes.size(); ) {
        const std::size_t lineFeed = bytes.find( '\n', pos );
        const std::size_t end = lineFeed == std::string_view::npos ? bytes.size() : lineFeed + 1;
        const std::string_view piece = bytes.substr( pos, end - pos );
        // What a message at the end of a lap has left of the marker; an empty line may be that.
        const bool isMarkerRest =
            endOfFileMarker.ends_with( piece ) && ( isLapEnded || end == bytes.size() );
        if ( !isMarkerRest )
            addLines( piece, isLapEnded || ( beginsInLine && pos == begin ) );
        isLapEnded = isLapEnded || ( myMaxSize != 0 && end > myMaxSize );
        pos = end;
    }
}

void LogFileReader::addLines( std::string_view text, bool beginsInLine )
{
    while ( !text.empty() ) {
        const std::size_t lineFeed = text.find( '\n' );
        const bool isWhole = lineFeed <= maxLineLength;
        const std::size_t length = std::min( { lineFeed, text.size(), maxLineLength } );
        myLines.push_back(
            Line{ std::string( text.substr( 0, length ) ), beginsInLine || !isWhole } );
        beginsInLine = !isWhole;
        text.remove_prefix( isWhole ? length + 1 : length );
    }
}

/// A file without a marker; one may appear with the first message that is written.
void LogFileReader::pollPlain()
{
    std::string bytes( maxLineLength, '\0' );
    bytes.resize( readAt( myFile, bytes.data(), bytes.size(), myPosition ) );
    if ( bytes.empty() ) {
        pollBegin();
        return;
    }
    std::string_view text = bytes;
    if ( myIsInLine && text.front() == '\n' )
        text.remove_prefix( 1 ); // the rest of the line, all of which was given
    const bool isInLine = myIsInLine && text.size() == bytes.size();
    std::size_t marker = findMarker( text );
    if ( marker == 0 && isInLine )
        marker = std::string_view::npos;
    const std::size_t endOfLines = text.rfind( '\n' ) + 1; // none: npos + 1 is 0
    const std::size_t end = std::min( marker, endOfLines != 0 ? endOfLines : text.size() );
    addLines( text.substr( 0, end ), isInLine );
    myPosition += bytes.size() - text.size() + end;
    myIsInLine = marker != end && endOfLines == 0 && end != 0;
    if ( marker == end ) {
        myHasMarker = true;
        takeSnapshot( &mySnapshot, &marker );
    }
}

/// At the end of a file without a marker: its writer may have gone on at the begin.
void LogFileReader::pollBegin()
{
    struct stat status;
    std::size_t marker = 0;
    if ( !isModified() || !isRegularFile( myFile, &status ) )
        return;
    myModified = status.st_mtim;
    std::uint64_t size = 0;
    if ( findMarker( myFile, &size ) && takeSnapshot( &mySnapshot, &marker ) ) {
        addLines( std::string_view( mySnapshot ).substr( 0, marker ), false );
        myHasMarker = true;
        myPosition = marker;
    }
}

} // namespace Nuv::Log
