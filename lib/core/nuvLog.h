#pragma once

#include "nuvBuffer.h"
#include "nuvString.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Nuv::Utils {
template < class T >
class Singleton;
}

namespace Nuv::Log {

/// 1 to 5 are message severities, 6 is only a zone's threshold, 0 only a source's severity.
enum Severity : std::int32_t
{
    off = 0,
    debug = 1,
    timing = 2,
    warning = 3,
    error = 4,
    fatal = 5,
    none = 6
};

inline constexpr int nbrOfMessageSeverities = 5;

/// The one-character code of a severity 0 to 5, out of "_DTWEF"; '?' for any other value.
NUV_API char severityLetter( Severity severity );

/// The keyword of a severity 1 to 6 ("debug" ... "none"); "off" for 0, "?" for any other value.
NUV_API const char* severityKeyword( Severity severity );

/// @param keywordPtr compared exactly (lower case) with the keywords of the severities 1 to 6
/// @return false, with *severityPtr unchanged, for an unknown keyword
NUV_API bool severityFromKeyword( const char* keywordPtr, Severity* severityPtr );

/// Which fields the line preamble writes before the text.
enum ZoneFlags : std::uint32_t
{
    sequenceNbr = 0x01,
    currentTime = 0x02,
    elapsedTime = 0x04,
    appName = 0x08,
    threadId = 0x10,
    zoneName = 0x20,
    severityLetterFlag = 0x40
};

/// All fields but the sequence number.
inline constexpr std::uint32_t defaultZoneFlags = 0x7E;

/// @return the bit of a flag keyword ("appname" ...; compared exactly, lower case), 0 if unknown
NUV_API std::uint32_t zoneFlagFromKeyword( const char* keywordPtr );

/// @return the bits of the flag keywords in text, any case, separated by ',' ';' '+' space or tab;
/// unknown words are ignored
NUV_API std::uint32_t zoneFlagsFromText( const std::string& text );

/// @return the keywords of the bits, in the order of the bits, separated by ','
NUV_API std::string zoneFlagsText( std::uint32_t flags );

using ZoneName = Utils::FixedString< char, 16 >;
using DrainName = Utils::FixedString< char, 16 >;

/// A zone's settings as all processes share them; one of 100 in the shared zone table.
///
/// Threads: written under the named semaphore "LogConfigManager"; severity and flags are read
///          without it, so they are accessed atomically (relaxed).
struct Zone
{
    std::int32_t mySeverity; ///< threshold, a Severity 1 to 6
    std::uint32_t myFlags;   ///< ZoneFlags
    ZoneName myName;
    DrainName myDrainName; ///< drain that receives the zone's lines

    Severity severity() const
    {
        return static_cast< Severity >( __atomic_load_n( &mySeverity, __ATOMIC_RELAXED ) );
    }
    void severity( Severity value ) { __atomic_store_n( &mySeverity, value, __ATOMIC_RELAXED ); }
    std::uint32_t flags() const { return __atomic_load_n( &myFlags, __ATOMIC_RELAXED ); }
    void flags( std::uint32_t value ) { __atomic_store_n( &myFlags, value, __ATOMIC_RELAXED ); }
};
static_assert( sizeof( Zone ) == 40 );
static_assert( offsetof( Zone, myName ) == 8 && offsetof( Zone, myDrainName ) == 24 );

class Drain;

/// Where messages come from: one severity, bound to a zone and the zone's drain.
///
/// | state   | zone                       | drain | emits                            |
/// |---------|----------------------------|-------|----------------------------------|
/// | unbound | placeholder, threshold 6   | null  | nothing                          |
/// | bound   | record in the shared table | set   | severity >= the zone's threshold |
///
/// A source is bound by its constructor, except while the log configuration manager is being
/// built: then it is bound, by its address, right after that, in the order of creation. A source
/// of severity fatal is bound to the zone "Syslog", whatever zone it names. A source that outlives
/// the manager (at process exit) is unbound again.
///
/// Threads: any may log through a source; init() belongs to the thread that made it.
/// Errors:  logging reports no error, a message that cannot be written is lost. The first binding
///          of a process builds the manager, whose ResourceException passes on to whoever
///          constructs the source.
/// Owns:    one reference to its drain, given back by the destructor.
/// Cost:    the emission test is inline: severity, zone, threshold, one compare.
/// Example: Log::Source source( Log::warning, "myZone" ); nuvLogTo( source ) << "low " << n;
class NUV_API Source
{
public:
    /// @param zoneNamePtr cut to 15 characters; null means "Nuv"
    Source( Severity severity, const char* zoneNamePtr );
    /// Unbound, severity debug; for init() later.
    Source() = default;
    Source( const Source& ) = delete;
    Source& operator=( const Source& ) = delete;
    ~Source();

    /// Binds an unbound source; one that is bound stays as it is.
    /// @param zoneNamePtr not null
    void init( const char* zoneNamePtr );

    /// To be set before init(), since severity fatal decides the zone.
    void severity( Severity severity ) { mySeverity.store( severity, std::memory_order_relaxed ); }

    /// Writes a hexadecimal dump of the bytes as one message, 16 bytes a row.
    /// @param titlePtr first line of the dump; null leaves that line empty
    void dump( const void* dataPtr, unsigned int length, const char* titlePtr ) const;

    Severity severity() const { return mySeverity.load( std::memory_order_relaxed ); }
    /// The emission test.
    bool mayEmit() const { return severity() >= zone().severity(); }
    /// For the logging statement. @return this, null if it may not emit
    const Source* ptrIfMayEmit() const { return mayEmit() ? this : nullptr; }
    const Zone& zone() const { return *myZonePtr.load( std::memory_order_acquire ); }
    /// Null while unbound.
    Drain* drainPtr() const { return myDrainPtr.load( std::memory_order_relaxed ); }

private:
    // Link seam: init(), initImpl(), unbind() and the destructor are defined in
    // nuvLogConfigManager.cpp, whose unit owns zones and drains.
    void initImpl( const char* zoneNamePtr );
    void unbind();
    friend class ConfigManager;
    friend class SourceBinding;

    static Zone ourPlaceholderZone;

    // The drain is stored before the zone, so that who finds a zone that lets a message pass finds
    // the drain too.
    std::atomic< Zone* > myZonePtr = &ourPlaceholderZone;
    std::atomic< Drain* > myDrainPtr = nullptr;
    std::atomic< Severity > mySeverity = debug;
};

enum Preference : int
{
    includeDebug = 0,
    excludeDebug = 1
};

/// Five sources of one zone, one for each severity.
///
/// Threads, Errors: as Source.
/// Example: Log::SourceSet sources( "myZone" ); nuvLogTo( sources.source( Log::error ) ) << "no";
class NUV_API SourceSet
{
public:
    /// @param zoneNamePtr cut to 15 characters, not null
    explicit SourceSet( const char* zoneNamePtr );

    /// Any value but includeDebug switches the debug source off.
    void preference( Preference preference );
    Preference preference() const;

    /// @param severity 1 to 5, the caller's duty
    Source& source( Severity severity ) { return mySources[index( severity )]; }
    const Source& source( Severity severity ) const { return mySources[index( severity )]; }

protected:
    /// The five severities, unbound.
    SourceSet();
    /// Binds those that are unbound.
    void init( const char* zoneNamePtr );

private:
    static std::size_t index( Severity severity )
    {
        return static_cast< std::size_t >( severity - 1 );
    }

    std::array< Source, nbrOfMessageSeverities > mySources;
};

/// The library's own sources, zone "Nuv"; made on first use, unbound at exit.
///
/// Never throws: where the log configuration manager cannot be built (say, without access to the
/// interprocess objects), or while it is being built, the sources are unbound, and binding is tried
/// again by calls that are at least a second apart.
/// @param severity 1 to 5, the caller's duty
NUV_API Source& getStandardSource( Severity severity );

/// Link seam, defined in nuvLogConfigManager.cpp: builds the manager unless it exists, and binds
/// the standard sources. Nothing is done while the manager is being built and after its end at
/// exit.
/// @throws ResourceException what the manager's constructor throws
void ensureConfigManager();
/// The other end, defined in nuvLog.cpp and called, with the manager's mutex held, when a source
/// has been bound: makes and binds the standard sources too, so that a failing assertion finds them
/// ready.
void bindStandardSources();

/// One message under construction: writes the preamble, takes the text, hands the whole to the
/// drain in its destructor. A helper made while another one of the same thread is alive discards
/// its text, so that a drain's own failure cannot recurse.
///
/// The stream is the calling thread's, in its default format whatever the previous message set;
/// it keeps its storage from message to message (up to 64 KiB), so that a message allocates
/// nothing. A text may hold any bytes; nothing is added after it.
///
/// Threads: one; not shared.
/// Errors:  throws nothing and preserves errno. An exception thrown by an operand of the statement
///          passes; what was written until then is emitted.
class NUV_API Helper
{
public:
    /// @param source bound; may emit (the statement has tested it); outlives the helper
    explicit Helper( const Source& source ) noexcept;
    Helper( const Helper& ) = delete;
    Helper& operator=( const Helper& ) = delete;
    ~Helper();

    Utils::OBufferStream& logStream() { return *myStreamPtr; }

private:
    // Link seam: these two are defined in nuvLogDrain.cpp, which owns the line format.
    void preamble();
    void emit();

    const Source& mySource;
    Utils::OBufferStream* myStreamPtr;
    bool myReentered;
    // Used when the thread's own stream is taken, or gone because the thread is ending.
    alignas( Utils::OBufferStream ) std::byte myStorage[sizeof( Utils::OBufferStream )];
};

} // namespace Nuv::Log

/// The logging statement: nuvLogTo( source ) << "text"; the operands are evaluated only if the
/// source may emit. One statement without an "else", so that it may be the body of an "if" as it
/// is.
#define nuvLogTo( source )                                                                         \
    for ( const ::Nuv::Log::Source* nuvLogSourcePtr = ( source ).ptrIfMayEmit();                   \
          nuvLogSourcePtr != nullptr; nuvLogSourcePtr = nullptr )                                  \
    ::Nuv::Log::Helper( *nuvLogSourcePtr ).logStream()

namespace Nuv {

/// Logs, at debug severity through the standard source, prefix and the Buffer's text up to its
/// first NUL; at most maxLength bytes, then "  ... <buffer too long>".
NUV_API void logBuffer( const char* prefixPtr, const Utils::Buffer& buffer,
                        unsigned int maxLength );

} // namespace Nuv

namespace Nuv::Utils {

/// The sources of the zone "ctlTransImpl", to be picked by severity - 1.
class NUV_API CtlTransImplLogSourceSet : public Log::SourceSet
{
public:
    /// Made on first use; unbound, not destroyed, at exit.
    static CtlTransImplLogSourceSet* singletonPtr();
    static constexpr bool outlivesExit = true;

    Log::Source* sourcePtr( unsigned int index ) const { return mySourcePtrs[index]; }

private:
    friend class Singleton< CtlTransImplLogSourceSet >;
    CtlTransImplLogSourceSet();
    ~CtlTransImplLogSourceSet() = default;

    std::array< Log::Source*, Log::nbrOfMessageSeverities > mySourcePtrs;
};

} // namespace Nuv::Utils
