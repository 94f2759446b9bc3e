#include "nuvLog.h"

#include "nuvSingleton.h"
#include "nuvUtils.h"

#include <cctype>
#include <cerrno>
#include <ctime>
#include <locale>
#include <new>
#include <string_view>
#include <utility>

namespace Nuv::Log {

namespace {

using SeverityMap = Utils::StaticMap< const char*, Severity >;
constexpr SeverityMap::Pair ourSeverityPairs[] = {
    { "debug", debug }, { "error", error },   { "fatal", fatal },
    { "none", none },   { "timing", timing }, { "warning", warning },
};
constexpr SeverityMap ourSeverityMap( ourSeverityPairs );
static_assert( ourSeverityMap.isSorted() );

using FlagMap = Utils::StaticMap< const char*, std::uint32_t >;
constexpr FlagMap::Pair ourFlagPairs[] = {
    { "appname", appName },
    { "currenttime", currentTime },
    { "elapsedtime", elapsedTime },
    { "sequencenbr", sequenceNbr },
    { "severity", severityLetterFlag },
    { "threadid", threadId },
    { "zonename", zoneName },
};
constexpr FlagMap ourFlagMap( ourFlagPairs );
static_assert( ourFlagMap.isSorted() );

constexpr char ourSeverityLetters[] = "_DTWEF";

/// Separators of the flag keywords in a configuration file.
constexpr char ourFlagSeparators[] = ",;+ \t";

/// A stream of a thread that has once written a longer message gives its storage back.
constexpr Utils::Buffer::size_type maxKeptCapacity = 64 * 1024;

} // namespace

char severityLetter( Severity severity )
{
    return severity >= off && severity <= fatal ? ourSeverityLetters[severity] : '?';
}

const char* severityKeyword( Severity severity )
{
    if ( severity == off )
        return "off";
    for ( const SeverityMap::Pair& pair : ourSeverityMap ) {
        if ( pair.value == severity )
            return pair.key;
    }
    return "?";
}

bool severityFromKeyword( const char* keywordPtr, Severity* severityPtr )
{
    const auto found = ourSeverityMap.find( keywordPtr );
    if ( found == ourSeverityMap.end() )
        return false;
    *severityPtr = found->value;
    return true;
}

std::uint32_t zoneFlagFromKeyword( const char* keywordPtr )
{
    const auto found = ourFlagMap.find( keywordPtr );
    return found == ourFlagMap.end() ? 0 : found->value;
}

std::uint32_t zoneFlagsFromText( const std::string& text )
{
    std::uint32_t flags = 0;
    Utils::String rest( text );
    rest.makeLower();
    Utils::String keyword;
    while ( rest.nextToken( &keyword, ourFlagSeparators ) )
        flags |= zoneFlagFromKeyword( keyword.c_str() );
    return flags;
}

std::string zoneFlagsText( std::uint32_t flags )
{
    std::string text;
    for ( std::uint32_t bit = sequenceNbr; bit <= severityLetterFlag; bit <<= 1 ) {
        for ( const FlagMap::Pair& pair : ourFlagMap ) {
            if ( pair.value == bit && ( flags & bit ) != 0 )
                text.append( text.empty() ? "" : "," ).append( pair.key );
        }
    }
    return text;
}

// ------------------------------------------------------------------------------------- Source

constinit Zone Source::ourPlaceholderZone = { none, 0, "", "" };

Source::Source( Severity severity, const char* zoneNamePtr )
    : mySeverity( severity )
{
    init( zoneNamePtr != nullptr ? zoneNamePtr : "Nuv" );
}

namespace {

constexpr unsigned int nbrOfDumpColumns = 16;

void appendHex( std::string* textPtr, unsigned int value, int nbrOfDigits )
{
    for ( int shift = 4 * ( nbrOfDigits - 1 ); shift >= 0; shift -= 4 )
        *textPtr += "0123456789ABCDEF"[( value >> shift ) & 0xF];
}

/// One row: offset, the bytes in hexadecimal, the bytes as characters.
void appendDumpRow( std::string* textPtr, const unsigned char* bytesPtr, unsigned int offset,
                    unsigned int length )
{
    textPtr->append( "  " );
    int nbrOfDigits = 4;
    while ( nbrOfDigits < 8 && offset >> ( 4 * nbrOfDigits ) != 0 )
        ++nbrOfDigits;
    appendHex( textPtr, offset, nbrOfDigits );
    textPtr->append( ": " );
    for ( unsigned int column = 0; column < nbrOfDumpColumns; ++column ) {
        if ( column < length - offset )
            appendHex( textPtr, bytesPtr[offset + column], 2 );
        else
            textPtr->append( "  " );
        textPtr->append( column == 7 ? " | " : " " );
    }
    textPtr->append( " [" );
    for ( unsigned int column = 0; column < nbrOfDumpColumns; ++column ) {
        const int byte = column < length - offset ? bytesPtr[offset + column] : ' ';
        const bool isShown = std::isprint( byte ) != 0 && std::iscntrl( byte ) == 0;
        *textPtr += isShown ? static_cast< char >( byte ) : '.';
    }
    textPtr->append( "]\n" );
}

} // namespace

void Source::dump( const void* dataPtr, unsigned int length, const char* titlePtr ) const
{
    if ( !mayEmit() )
        return;
    Helper helper( *this );
    if ( titlePtr != nullptr )
        helper.logStream() << titlePtr;
    helper.logStream() << '\n';
    try {
        std::string row;
        for ( unsigned int offset = 0; offset < length; offset += nbrOfDumpColumns ) {
            row.clear();
            appendDumpRow( &row, static_cast< const unsigned char* >( dataPtr ), offset, length );
            helper.logStream() << row;
            if ( length - offset <= nbrOfDumpColumns )
                break; // offset would wrap at the greatest lengths
        }
    } catch ( const std::bad_alloc& ) {
        // The message ends here: who logs must not fail for it.
    }
}

// ---------------------------------------------------------------------------------- SourceSet

SourceSet::SourceSet()
{
    for ( int i = 0; i < nbrOfMessageSeverities; ++i )
        mySources[static_cast< std::size_t >( i )].severity( static_cast< Severity >( i + 1 ) );
}

SourceSet::SourceSet( const char* zoneNamePtr )
    : SourceSet()
{
    init( zoneNamePtr );
}

void SourceSet::init( const char* zoneNamePtr )
{
    for ( Source& source : mySources )
        source.init( zoneNamePtr );
}

void SourceSet::preference( Preference preference )
{
    mySources[0].severity( preference == includeDebug ? debug : off );
}

Preference SourceSet::preference() const
{
    return mySources[0].severity() == debug ? includeDebug : excludeDebug;
}

// --------------------------------------------------------------------------- standard sources

// Behind the manager's mutex in the lock order, and like that taken by forks.
Mt::Mutex StandardSourceSetSingletonPtrMutex;

namespace {

constexpr char ourStandardZoneName[] = "Nuv";

class StandardSourceSet : public SourceSet
{
public:
    /// Other threads may log while the process exits. The manager's end unbinds the sources.
    static constexpr bool outlivesExit = true;

    static StandardSourceSet* singletonPtr();
    static StandardSourceSet* ptrIfBuilt()
    {
        return Utils::Singleton< StandardSourceSet >::ptrIfBuilt();
    }

    bool isBound() const { return source( fatal ).drainPtr() != nullptr; }
    /// With the manager's mutex held. A source that is bound stays so, and binding one of these
    /// comes here again.
    void bind()
    {
        if ( std::exchange( myIsBinding, true ) )
            return;
        try {
            init( ourStandardZoneName );
        } catch ( ... ) {
            myIsBinding = false;
            throw;
        }
        myIsBinding = false;
    }

private:
    friend class Utils::Singleton< StandardSourceSet >;
    StandardSourceSet() = default;
    ~StandardSourceSet() = default;

    bool myIsBinding = false;
};

/// When building the manager was last tried, in seconds of a monotonic clock.
std::atomic< std::int64_t > ourTriedAt = -1;

/// @return false if the last try was in this second
bool isTimeToTry()
{
    timespec now;
    ::clock_gettime( CLOCK_MONOTONIC_COARSE, &now );
    const std::int64_t second = now.tv_sec;
    return ourTriedAt.exchange( second, std::memory_order_relaxed ) != second;
}

StandardSourceSet* StandardSourceSet::singletonPtr()
{
    return Utils::Singleton< StandardSourceSet >::ptr( StandardSourceSetSingletonPtrMutex );
}

StandardSourceSet& makeStandardSources()
{
    const int errorNbr = errno;
    const Mt::CancelState disabled;
    try {
        if ( isTimeToTry() )
            ensureConfigManager();
    } catch ( ... ) {
        // Without the manager the sources stay unbound: who logs must not fail for it.
    }
    StandardSourceSet& set = *StandardSourceSet::singletonPtr();
    errno = errorNbr;
    return set;
}

} // namespace

Source& getStandardSource( Severity severity )
{
    StandardSourceSet* const setPtr = StandardSourceSet::ptrIfBuilt();
    if ( setPtr != nullptr && setPtr->isBound() )
        return setPtr->source( severity );
    return makeStandardSources().source( severity );
}

void bindStandardSources()
{
    StandardSourceSet* const setPtr = StandardSourceSet::ptrIfBuilt();
    if ( setPtr == nullptr || !setPtr->isBound() )
        StandardSourceSet::singletonPtr()->bind();
}

// ------------------------------------------------------------------------------------- Helper

namespace {

/// The calling thread's part in logging: the re-entry slot and the stream. Trivial, so that it may
/// be asked at any time of the thread's life.
struct ThreadLog
{
    bool myIsEmitting; // the re-entry slot
    bool myIsMade;
    bool myIsEnded;
    alignas( Utils::OBufferStream ) std::byte myStorage[sizeof( Utils::OBufferStream )];

    Utils::OBufferStream* streamPtr()
    {
        return std::launder( reinterpret_cast< Utils::OBufferStream* >( myStorage ) );
    }
};

constinit thread_local ThreadLog ourThreadLog = {};

/// Destroys the stream when the thread ends.
struct ThreadLogCleaner
{
    ~ThreadLogCleaner()
    {
        ourThreadLog.myIsEnded = true;
        if ( ourThreadLog.myIsMade )
            ourThreadLog.streamPtr()->~OBufferStream();
    }
};

void makeThreadStream()
{
    static thread_local ThreadLogCleaner ourCleaner;
    static_cast< void >( ourCleaner );
    new ( ourThreadLog.myStorage ) Utils::OBufferStream();
    ourThreadLog.myIsMade = true;
}

/// As a new stream would be, whatever the previous message did to this one.
void resetStream( Utils::OBufferStream& stream )
{
    stream.exceptions( std::ios_base::goodbit );
    stream.clear();
    stream.flags( std::ios_base::skipws | std::ios_base::dec );
    stream.width( 0 );
    stream.precision( 6 );
    stream.fill( ' ' );
    const std::locale locale;
    if ( stream.getloc() != locale )
        stream.imbue( locale );
    stream.reset();
}

} // namespace

Helper::Helper( const Source& source ) noexcept
    : mySource( source )
    , myReentered( ourThreadLog.myIsEmitting )
{
    const int errorNbr = errno;
    if ( myReentered || ourThreadLog.myIsEnded ) {
        myStreamPtr = new ( myStorage ) Utils::OBufferStream();
    } else {
        if ( !ourThreadLog.myIsMade )
            makeThreadStream();
        myStreamPtr = ourThreadLog.streamPtr();
        resetStream( *myStreamPtr );
    }
    if ( !myReentered ) {
        ourThreadLog.myIsEmitting = true;
        preamble();
    }
    errno = errorNbr;
}

Helper::~Helper()
{
    const int errorNbr = errno;
    if ( !myReentered )
        emit();
    if ( myStreamPtr != ourThreadLog.streamPtr() )
        myStreamPtr->~OBufferStream();
    else if ( myStreamPtr->bufferPtr()->capacity() > maxKeptCapacity )
        myStreamPtr->takeBuffer();
    if ( !myReentered )
        ourThreadLog.myIsEmitting = false;
    errno = errorNbr;
}

} // namespace Nuv::Log

// ------------------------------------------------------------------------- seams and utilities

namespace Nuv {

// The other end of the seam that nuv.h declares.
void AssertHelpers::emitFatalLine( const char* textPtr, std::size_t length ) noexcept
{
    Log::StandardSourceSet* const setPtr = Log::StandardSourceSet::ptrIfBuilt();
    if ( setPtr == nullptr || !setPtr->source( Log::fatal ).mayEmit() )
        return;
    Log::Helper( setPtr->source( Log::fatal ) ).logStream().writeBytes( textPtr, length );
}

void logBuffer( const char* prefixPtr, const Utils::Buffer& buffer, unsigned int maxLength )
{
    const Log::Source& source = Log::getStandardSource( Log::debug );
    if ( !source.mayEmit() )
        return;
    const bool isTooLong = buffer.size() > maxLength;
    const std::string_view text = buffer.view().substr( 0, maxLength );
    Log::Helper helper( source );
    helper.logStream() << prefixPtr << text.substr( 0, text.find( '\0' ) )
                       << ( isTooLong ? "  ... <buffer too long>" : "" );
}

} // namespace Nuv

namespace Nuv::Utils {

Mt::Mutex CtlTransImplLogSourceSetSingletonPtrMutex;

CtlTransImplLogSourceSet* CtlTransImplLogSourceSet::singletonPtr()
{
    return Singleton< CtlTransImplLogSourceSet >::ptr( CtlTransImplLogSourceSetSingletonPtrMutex );
}

CtlTransImplLogSourceSet::CtlTransImplLogSourceSet()
    : Log::SourceSet( "ctlTransImpl" )
{
    for ( std::size_t i = 0; i < mySourcePtrs.size(); ++i )
        mySourcePtrs[i] = &source( static_cast< Log::Severity >( i + 1 ) );
}

} // namespace Nuv::Utils
