#pragma once

#include "nuv.h"
#include "nuvUtils.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <string>
#include <string_view>

namespace Nuv::Log {

/// What stands behind the newest message of a wrap-around file, a line of its own.
inline constexpr std::string_view endOfFileMarker =
    "================================= END OF FILE ==================================\n";
static_assert( endOfFileMarker.size() == 81 );

/// Writes messages into a file of bounded size: a wrap-around file.
///
///     first lap      message message message marker
///     later laps     newest messages  marker  rest of an old line  older messages
///
/// Each message overwrites the marker and is followed by it, so a restarted process continues
/// behind the last message. A message that ends beyond maxSize closes the lap: the marker goes to
/// the begin of the file and the next message overwrites it there. What an earlier, longer lap has
/// left behind the lap's end stays: it is overwritten or, behind the greatest lap, read as rest.
///
/// | found at open                      | the next message goes to        |
/// |------------------------------------|---------------------------------|
/// | marker, not beyond maxSize         | the marker's place              |
/// | no marker, size <= maxSize         | the end, also of an open line   |
/// | marker or end beyond maxSize       | 0                               |
/// | size > maxSize + 2048              | 0 of the file, cut to empty     |
///
/// Threads: one at a time. One process at a time writes a file, positions are not shared: of lines
///          that several write one overwrites the other. For parent and child of a fork, share()
///          makes that unlikely.
/// Errors:  nothing throws or waits. A message that cannot be written is lost: the file gets back
///          its marker and size, and the next message tries again.
/// Owns:    the descriptor (close-on-exec, above the three standard ones).
/// Cost:    one system call a message, two where a lap ends, one more when shared; no allocation.
/// Bytes:   text, line feed, marker; without marker if maxSize is 0. Only the first 80 bytes of the
///          marker are compared, at the begin of a line.
/// Example: LogFileWriter file; if ( file.open( path, 245760 ) ) file.write( text );
class NUV_API LogFileWriter
{
public:
    /// How far beyond maxSize a file may be before it is emptied when opened.
    static constexpr std::uint64_t nbrOfToleratedBytes = 2048;

    LogFileWriter() = default;
    LogFileWriter( const LogFileWriter& ) = delete;
    LogFileWriter& operator=( const LogFileWriter& ) = delete;
    ~LogFileWriter() = default;

    /// Creates or opens the file, which must be a regular one, and finds the place of the next
    /// message. A file that is not writable is made writable.
    /// @param pathname absolute
    /// @param maxSize bytes at which the file wraps; 0 never
    /// @return whether the file is open
    bool open( const std::string& pathname, std::uint64_t maxSize );

    /// @return false if the message was lost
    bool write( std::string_view message );

    void close() { myFile.reset(); }

    /// Finds the place of the next message anew, by what the file holds now.
    void seekMarker();

    /// From now on looks, before each message, for what another process has written. Callable on
    /// another thread than the writing one.
    void share() { myIsShared.store( true, std::memory_order_relaxed ); }

    bool isOpen() const { return myFile.isValid(); }
    /// Where the next message goes.
    std::uint64_t position() const { return myPosition; }

private:
    bool isPositionRight() const;
    bool put( std::string_view message, std::string_view marker );
    bool putMarker();
    void restore( std::uint64_t oldSize );

    Utils::Handle myFile;
    std::uint64_t myMaxSize = 0;
    std::uint64_t myPosition = 0;
    std::uint64_t myFileSize = 0;
    bool myHasMarker = false; // at myPosition
    std::atomic< bool > myIsShared = false;
};

/// Reads a wrap-around file, or any file of lines, in the order of time; then follows it.
///
/// A file with a marker is read from behind the marker to its end and from its begin to the marker;
/// one without from begin to end. What is written later follows, across the wrap, and also in a
/// file that has taken the name's place. Reading takes no lock: what is being written just now is
/// met at the next call. Of more than a whole lap between two calls only the last is read.
///
/// Threads: one at a time.
/// Errors:  a file that does not exist (yet) or cannot be read has no lines; std::bad_alloc.
/// Cost:    a file with a marker is held in memory as a whole, another is read in pieces of 64 KiB.
/// Example: LogFileReader reader( path, 245760 ); while ( reader.readLine( &line ) ) print( line );
class NUV_API LogFileReader
{
public:
    /// Longer lines are given in pieces.
    static constexpr std::size_t maxLineLength = 64 * 1024;

    /// @param maxSize the size at which the file's writer wraps; 0 if unknown, lines that an
    /// earlier and longer lap has left behind the last one's end are then taken for part of it
    explicit LogFileReader( std::string pathname, std::uint64_t maxSize = 0 );
    LogFileReader( const LogFileReader& ) = delete;
    LogFileReader& operator=( const LogFileReader& ) = delete;
    ~LogFileReader() = default;

    /// Skips to the end, so that only what is written from now on is read.
    void seekEnd();

    /// @param linePtr receives the next line, without its line feed
    /// @return false if there is none now; ask again later to follow the file
    bool readLine( std::string* linePtr );

    /// Whether the line read last may be less than a line: what is left of an overwritten one, a
    /// piece of a long one, or a last one without its line feed.
    bool isFragment() const { return myIsFragment; }

    /// Whether the file could be opened.
    bool isOpen() const { return myFile.isValid(); }

private:
    struct Line
    {
        std::string myText;
        bool myIsFragment;
    };

    bool open();
    bool isReplaced() const;
    void load();
    bool poll();
    void pollWrapped();
    void pollPlain();
    void pollBegin();
    bool takeSnapshot( std::string* bytesPtr, std::size_t* markerPtr );
    void addAll( std::size_t marker );
    bool isModified() const;
    std::size_t lapEnd( std::string_view now, std::string_view before ) const;
    void addRest( std::string_view bytes, std::size_t begin, bool beginsInLine );
    void addLines( std::string_view text, bool beginsInLine );

    std::string myPathname;
    std::uint64_t myMaxSize;
    Utils::Handle myFile;
    std::deque< Line > myLines; // read, not yet given
    bool myIsFragment = false;

    bool myHasMarker = false;
    std::uint64_t myPosition = 0; // of the marker as last seen; of the first byte not yet read
    std::string mySnapshot;       // of a file with a marker, as last seen
    bool myIsInLine = false;      // of a file without: a piece of the line at myPosition was given
    timespec myModified = {};     // when last looked at
};

} // namespace Nuv::Log
