#pragma once

#include "nuvLog.h"
#include "nuvMutex.h"
#include "nuvTime.h"
#include "nuvUtils.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace Nuv::Log {

/// A category of messages of which one at most is emitted per interval; that one tells how often
/// they have occurred since the one before.
///
/// | zone of the set      | an occurrence                                                        |
/// |----------------------|----------------------------------------------------------------------|
/// | lets debug pass      | is counted and emitted as any message                                |
/// | lets it pass         | is counted; emitted, with the count, once the interval has passed    |
/// | blocks it            | is counted                                                           |
///
/// The first occurrence passes always. After a step of the clock to before the last emission the
/// next one passes, too, and tells 0 seconds.
///
/// Threads: any; occurrences of one entry wait for each other, the emission included.
/// Owns:    a copy of the name; the source set is borrowed for the entry's life.
/// Example: nuvThrottledLogTo( Log::warning, entryPtr.get() ) << "link " << n << " is down";
class NUV_API ThrottledLogEntry
{
public:
    /// @param categoryPtr not null
    ThrottledLogEntry( const SourceSet& sourceSet, const char* categoryPtr,
                       unsigned int intervalInSeconds );
    ThrottledLogEntry( const ThrottledLogEntry& ) = delete;
    ThrottledLogEntry& operator=( const ThrottledLogEntry& ) = delete;

    const std::string& category() const { return myCategory; }
    unsigned int intervalInSeconds() const { return myIntervalInSeconds; }
    /// Occurrences since the last one emitted with a count.
    unsigned int count() const;

private:
    friend class ThrottleLogHelper;

    const SourceSet* mySourceSetPtr;
    const std::string myCategory;
    const unsigned int myIntervalInSeconds;
    mutable Mt::Mutex myMutex; // a leaf, but for what the emission takes
    unsigned int myCount NUV_GUARDED_BY( myMutex ) = 0;
    std::uint64_t myLastEmitTime NUV_GUARDED_BY( myMutex ) = 0; // 0 before the first
};

/// One occurrence: decides in its constructor, emits in its destructor.
///
///     text "\nMessages, like this one, in the category - " category " - were logged "
///     count " times in the last " seconds " seconds."
///
/// Threads: one; the entry's mutex is held for the helper's life.
/// Errors:  as Helper. A severity outside 1 to 5 is counted and never emitted.
/// Cost:    suppressed: one lock, one clock reading.
class NUV_API ThrottleLogHelper
{
public:
    /// @param entryPtr borrowed for the helper's life
    ThrottleLogHelper( Severity severity, ThrottledLogEntry* entryPtr );
    ThrottleLogHelper( const ThrottleLogHelper& ) = delete;
    ThrottleLogHelper& operator=( const ThrottleLogHelper& ) = delete;
    ~ThrottleLogHelper();

    /// Whether the occurrence is emitted: to be asked before logStream().
    bool mayEmit() const { return myEmit; }
    /// The stream of the text. Of an occurrence that is not emitted: nuvAssert "myLogStreamPtr !=
    /// NULL".
    Utils::OBufferStream& logStream()
    {
        nuvAssert( myLogStreamPtr != NULL );
        return *myLogStreamPtr;
    }
    /// For the statement form. @return mayEmit() at the first call, then false
    bool beginStatement() { return !std::exchange( myIsBegun, true ) && myEmit; }

private:
    bool isDue();

    [[maybe_unused]] Severity mySeverity;
    ThrottledLogEntry* myEntryPtr;
    Mt::MutexLock myLock;
    bool myUnthrottled = false;
    bool myEmit = false;
    bool myIsBegun = false;
    std::uint64_t myNow = 0;
    std::uint64_t myElapsedSeconds = 0;
    std::optional< Helper > myHelper;
    Utils::OBufferStream* myLogStreamPtr = nullptr;
};

/// Entries by key, for code parts that share a category without knowing each other.
///
/// Threads: any.
/// Owns:    a share of each entry; one that is still held elsewhere outlives its key.
/// Example: auto e = Log::ThrottledLogMgr::singletonPtr()->getThrottledEntry( "linkDown" );
class NUV_API ThrottledLogMgr
{
public:
    using EntryPtr = Utils::CountedPtr< ThrottledLogEntry >;

    static ThrottledLogMgr* singletonPtr();

    /// Stores a new entry under the key, in place of one that may be there. The texts are not null.
    EntryPtr createThrottledEntry( const char* keyPtr, const SourceSet& sourceSet,
                                   const char* categoryPtr, unsigned int intervalInSeconds );
    /// @return null for an unknown key
    EntryPtr getThrottledEntry( const char* keyPtr ) const;
    void deleteThrottledEntry( const char* keyPtr );

private:
    friend class Utils::Singleton< ThrottledLogMgr >;
    ThrottledLogMgr() = default;
    ~ThrottledLogMgr() = default;

    mutable Mt::Mutex myMutex; // a leaf
    std::map< std::string, EntryPtr, std::less<> > myEntries NUV_GUARDED_BY( myMutex );
};

} // namespace Nuv::Log

/// The throttled logging statement: nuvThrottledLogTo( severity, entryPtr ) << "text"; the operands
/// are evaluated only if the occurrence is emitted.
#define nuvThrottledLogTo( severity, entryPtr )                                                    \
    for ( ::Nuv::Log::ThrottleLogHelper nuvThrottleHelper( ( severity ), ( entryPtr ) );           \
          nuvThrottleHelper.beginStatement(); )                                                    \
    nuvThrottleHelper.logStream()
