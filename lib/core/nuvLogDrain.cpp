#include "nuvLogDrain.h"

#include "nuvLogCapture.h"
#include "nuvPathname.h"
#include "nuvSubsystemInfo.h"
#include "nuvTime.h"
#include "nuvUtils.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iostream>
#include <new>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

namespace Nuv::Log {

constinit std::atomic< std::uint32_t > Drain::ourFifoOverrunCount = 0;
constinit std::atomic< Drain::TimeMode > Drain::ourTimeMode = Drain::localTime;

namespace {

using TypeMap = Utils::StaticMap< const char*, Drain::Options::Type >;
constexpr TypeMap::Pair ourTypePairs[] = {
    { "file", Drain::Options::file },
    { "http", Drain::Options::http },
    { "null", Drain::Options::null },
    { "stderr", Drain::Options::standardError },
    { "stdout", Drain::Options::standardOutput },
    { "syslog", Drain::Options::syslog },
};
constexpr TypeMap ourTypeMap( ourTypePairs );
static_assert( ourTypeMap.isSorted() );

constexpr int ourSyslogLevels[] = { LOG_EMERG,   LOG_DEBUG, LOG_INFO,
                                    LOG_WARNING, LOG_ERR,   LOG_CRIT };

// ---------------------------------------------------------------------- state across a fork

std::atomic< ::pid_t > ourProcessId = 0; // 0 until first asked for

// Threads within the C library's system log. It has a lock that no fork handler opens: in a child
// that was forked while another thread held it, the system log would block for ever.
std::atomic< int > ourNbrOfSyslogUsers = 0;
std::atomic< bool > ourIsSyslogUsable = true;
std::atomic< bool > ourIsSyslogOpen = false;

// The conversion to local time has such a lock too. This one is taken before it, and by a fork, so
// that the child finds that one open. A mutex that the child's thread may open: of the plain kind.
constinit pthread_mutex_t ourZoneFileMutex = PTHREAD_MUTEX_INITIALIZER;

void prepareFork()
{
    ::pthread_mutex_lock( &ourZoneFileMutex );
}

void afterForkInParent()
{
    ::pthread_mutex_unlock( &ourZoneFileMutex );
}

void afterForkInChild()
{
    ourProcessId.store( ::getpid(), std::memory_order_relaxed );
    if ( ourNbrOfSyslogUsers.exchange( 0, std::memory_order_relaxed ) != 0 )
        ourIsSyslogUsable.store( false, std::memory_order_relaxed );
    ::pthread_mutex_unlock( &ourZoneFileMutex );
}

/// The process id is asked for once, not with every line.
NUV_STARTUP ::pid_t processId()
{
    ::pid_t id = ourProcessId.load( std::memory_order_relaxed );
    if ( id == 0 ) {
        static const int result =
            ::pthread_atfork( &prepareFork, &afterForkInParent, &afterForkInChild );
        id = ::getpid();
        if ( result == 0 )
            ourProcessId.store( id, std::memory_order_relaxed );
    }
    return id;
}

// ---------------------------------------------------------------------------------- time stamp

/// The broken-down time of a second and its text, kept for the other lines of that second.
struct SecondCache
{
    static constexpr std::size_t maxLength = 64;

    std::int64_t mySecond;
    Drain::TimeMode myMode;
    bool myIsSet;
    std::size_t myLength; // 0 until the text is first asked for
    std::int64_t myOffsetNs;
    std::tm myTime;
    char myText[maxLength];

    void set( std::int64_t second, Drain::TimeMode mode );
    void formText()
    {
        if ( myLength == 0 )
            myLength = std::strftime( myText, maxLength, "%d%b%Y %H:%M:%S.", &myTime );
    }
};

constinit thread_local SecondCache ourSecondCache = {};

void SecondCache::set( std::int64_t second, Drain::TimeMode mode )
{
    if ( myIsSet && second == mySecond && mode == myMode )
        return;
    const auto time = static_cast< std::time_t >( second );
    myTime = std::tm();
    if ( mode == Drain::localTime ) {
        ::pthread_mutex_lock( &ourZoneFileMutex );
        ::localtime_r( &time, &myTime );
        ::pthread_mutex_unlock( &ourZoneFileMutex );
        myOffsetNs = static_cast< std::int64_t >( myTime.tm_gmtoff ) *
                     static_cast< std::int64_t >( Utils::Time::nsPerSec );
    } else {
        ::gmtime_r( &time, &myTime );
        myOffsetNs = 0;
    }
    mySecond = second;
    myMode = mode;
    myIsSet = true;
    myLength = 0;
}

/// Puts the cache to the current second. @return the time of day where the clock on the wall stands
std::uint64_t takeTime()
{
    const std::uint64_t now = Utils::Time().ns();
    ourSecondCache.set( static_cast< std::int64_t >( now / Utils::Time::nsPerSec ),
                        Drain::ourTimeMode.load( std::memory_order_relaxed ) );
    return now + static_cast< std::uint64_t >( ourSecondCache.myOffsetNs );
}

unsigned int millisecond( std::uint64_t localNs )
{
    return static_cast< unsigned int >( localNs / Utils::Time::nsPerMs % Utils::Time::msPerSec );
}

// ---------------------------------------------------------------------------- application name

/// The program's name, kept for the thread's lines until the program's pathname is set anew.
struct ProgramName
{
    static constexpr std::size_t maxLength = 255;

    std::uint32_t myVersion;
    bool myIsSet;
    std::size_t myLength;
    char myText[maxLength];

    std::string_view text();
};

constinit thread_local ProgramName ourProgramName = {};

std::string_view ProgramName::text()
{
    const std::uint32_t version = Io::Pathname::executableVersion();
    if ( !myIsSet || version != myVersion ) {
        const Io::Pathname executable( Io::Pathname::executablePathname );
        Utils::String name = executable.nameStrSansExtension();
        if ( name.empty() ) {
            // Not recorded: a program that does not run on the library's main thread.
            name = ::program_invocation_short_name;
            name.resize( std::min( name.size(), name.rfind( '.' ) ) );
        }
        myLength = std::min( name.size(), maxLength );
        std::memcpy( myText, name.data(), myLength );
        myVersion = version;
        myIsSet = true;
    }
    return std::string_view( myText, myLength );
}

/// Valid until the thread's next call.
std::string_view applicationName()
{
    const Mt::SubsystemInfo* const infoPtr = Mt::SubsystemInfo::existingPtr();
    if ( infoPtr != nullptr && infoPtr->nameStrPtr() && !infoPtr->nameStrPtr()->empty() )
        return *infoPtr->nameStrPtr();
    return ourProgramName.text();
}

// ------------------------------------------------------------------------------------ preamble

/// Puts the fields of a preamble together before they go to the stream at once.
///
/// Unchecked: the storage is above what all fields need together.
class FieldWriter
{
public:
    void add( char c ) { *myEndPtr++ = c; }
    /// Copies NbrOfBytes, which takes no call, and keeps the first length of them.
    template < std::size_t NbrOfBytes >
    void add( const char* textPtr, std::size_t length )
    {
        std::memcpy( myEndPtr, textPtr, NbrOfBytes );
        myEndPtr += length;
    }
    void addName( std::string_view name )
    {
        std::memcpy( myEndPtr, name.data(), name.size() );
        myEndPtr += name.size();
    }
    void addNumber( std::uint32_t number )
    {
        if ( number < 10 )
            add( static_cast< char >( '0' + number ) );
        else
            myEndPtr = std::to_chars( myEndPtr, myEndPtr + maxNbrOfDigits, number ).ptr;
    }
    /// Three digits.
    void addThousandths( std::uint32_t number )
    {
        add( static_cast< char >( '0' + number / 100 ) );
        add( static_cast< char >( '0' + number / 10 % 10 ) );
        add( static_cast< char >( '0' + number % 10 ) );
    }
    /// At least eight digits.
    void addSequenceNbr( std::uint32_t number )
    {
        for ( std::uint32_t limit = 10000000; limit > std::max< std::uint32_t >( number, 1 );
              limit /= 10 ) {
            add( '0' );
        }
        addNumber( number );
    }
    void flush( Utils::OBufferStream& stream ) const
    {
        stream.writeBytes( myChars, static_cast< std::size_t >( myEndPtr - myChars ) );
    }

private:
    static constexpr std::size_t maxNbrOfDigits = 10;
    static constexpr std::size_t maxNbrOfChars =
        11 + ( SecondCache::maxLength + 4 ) + 15 + ProgramName::maxLength + 13 + 16 + 3;

    char myChars[maxNbrOfChars + SecondCache::maxLength];
    char* myEndPtr = myChars;
};

void addTime( FieldWriter& fields, std::uint32_t flags, std::uint64_t localNs,
              unsigned int elapsed )
{
    if ( flags & currentTime ) {
        ourSecondCache.formText();
        fields.add< SecondCache::maxLength >( ourSecondCache.myText, ourSecondCache.myLength );
        fields.addThousandths( millisecond( localNs ) );
        fields.add( ' ' );
    }
    if ( flags & elapsedTime ) {
        fields.addNumber( elapsed / 1000 );
        fields.add( '.' );
        fields.addThousandths( elapsed % 1000 );
        fields.add( ' ' );
    }
}

void addProcess( FieldWriter& fields, std::uint32_t flags )
{
    if ( flags & appName )
        fields.addName( applicationName().substr( 0, ProgramName::maxLength ) );
    if ( flags & threadId ) {
        fields.add( '[' );
        fields.addNumber( static_cast< std::uint32_t >( processId() ) );
        fields.add( ']' );
    }
    fields.add( ' ' );
}

void addSource( FieldWriter& fields, std::uint32_t flags, const Source& source )
{
    if ( flags & zoneName ) {
        const ZoneName& name = source.zone().myName;
        fields.add< sizeof( name ) >( name.cStr(), name.length() );
    }
    if ( flags & severityLetterFlag ) {
        fields.add( '/' );
        fields.add( severityLetter( source.severity() ) );
    }
    fields.add( ' ' );
}

} // namespace

// The other ends of the seams that nuvLog.h declares.

void Helper::preamble()
{
    Drain* const drainPtr = mySource.drainPtr();
    if ( drainPtr == nullptr )
        return;
    const std::uint32_t flags = mySource.zone().flags();
    FieldWriter fields;
    if ( flags & sequenceNbr ) {
        fields.addSequenceNbr( drainPtr->sequenceNbr() );
        fields.add( ' ' );
    }
    if ( flags & ( currentTime | elapsedTime ) ) {
        const std::uint64_t localNs = takeTime();
        addTime( fields, flags, localNs, drainPtr->elapsedMs( localNs ) );
    }
    if ( flags & ( appName | threadId ) )
        addProcess( fields, flags );
    if ( flags & ( zoneName | severityLetterFlag ) )
        addSource( fields, flags, mySource );
    fields.flush( *myStreamPtr );
}

void Helper::emit()
{
    Drain* const drainPtr = mySource.drainPtr();
    if ( drainPtr == nullptr )
        return;
    // A copy: the record is shared, and only a copy is sure to be terminated.
    const ZoneName zone( mySource.zone().myName.view() );
    drainPtr->outputMessage( mySource.severity(), *myStreamPtr->bufferPtr(), zone.cStr() );
    drainPtr->countMessage();
}

// --------------------------------------------------------------------------------------- Drain

bool Drain::typeFromKeyword( const char* keywordPtr, Options::Type* typePtr )
{
    const auto found = ourTypeMap.find( keywordPtr );
    if ( found == ourTypeMap.end() )
        return false;
    *typePtr = found->value;
    return true;
}

const char* Drain::typeKeyword( Options::Type type )
{
    for ( const TypeMap::Pair& pair : ourTypeMap ) {
        if ( pair.value == type )
            return pair.key;
    }
    return type == Options::fifo ? "fifo" : "?";
}

Drain::Drain( const char* namePtr, const Options& options, int facility )
    : myName( namePtr )
{
    open( options, facility );
}

void Drain::open( const Options& options, int facility )
{
    const Mt::MutexLock lock( myMutex );
    myOptions = options;
    switch ( myOptions.type ) {
    case Options::standardError:
        myStreamBufPtr = std::cerr.rdbuf();
        break;
    case Options::standardOutput:
        myStreamBufPtr = std::cout.rdbuf();
        break;
    case Options::file: {
        const Io::Pathname pathname( Io::Pathname::rootDirectory,
                                     Utils::String( "log/" + myOptions.fileName ) );
        if ( pathname.isValid() )
            myFile.open( pathname.str(), myOptions.maxSize );
        break;
    }
    case Options::syslog:
        if ( !ourIsSyslogOpen.exchange( true, std::memory_order_relaxed ) )
            ::openlog( "nuvs", 0, facility );
        break;
    case Options::fifo:
        myFifoPtr = std::make_unique< Io::InterprocessFifo >(
            myOptions.fileName.c_str(), static_cast< unsigned int >( myOptions.maxSize ) );
        break;
    case Options::http:
        myHttpPosterPtr = std::make_unique< HttpPoster >( myOptions.remoteAddr );
        try {
            myLostMessagesPtr = std::make_unique< LostMessages >( myName );
        } catch ( const ResourceException& ) {
            // The drain does without: what it loses is counted in this process only.
        }
        break;
    default:
        break;
    }
    const bool hasOutput = myStreamBufPtr != nullptr || myFile.isOpen() || myFifoPtr != nullptr;
    if ( !hasOutput && myOptions.type != Options::syslog && myOptions.type != Options::http )
        myOptions.type = Options::null;
    myIsNull.store( myOptions.type == Options::null, std::memory_order_relaxed );
    mySequenceNbr.store( 0, std::memory_order_relaxed );
    myNbrOfLost.store( 0, std::memory_order_relaxed );
    elapsedMs( takeTime() );
}

void Drain::close()
{
    const Mt::MutexLock lock( myMutex );
    myIsNull.store( true, std::memory_order_relaxed );
    myOptions.type = Options::null;
    myStreamBufPtr = nullptr;
    myFile.close();
    myFifoPtr.reset();
    myHttpPosterPtr.reset();
    myLostMessagesPtr.reset();
}

void Drain::leaveSharedMemory()
{
    const Mt::MutexLock lock( myMutex );
    myLostMessagesPtr.reset();
}

Drain::~Drain() = default;

void Drain::outputMessage( Severity severity, const Utils::Buffer& message,
                           const char* zoneNamePtr )
{
    if ( Capture::take( severity, message, zoneNamePtr ) ||
         myIsNull.load( std::memory_order_relaxed ) )
        return;
    const Mt::CancelState disabled;
    const Mt::MutexLock lock( myMutex );
    bool isWritten = false;
    try {
        isWritten = put( severity, message, zoneNamePtr );
    } catch ( ... ) {
        // What an output throws (a stream buffer of the application's, no memory, a semaphore that
        // is gone) must not reach who logs.
    }
    if ( !isWritten )
        countLost();
}

void Drain::countLost()
{
    myNbrOfLost.fetch_add( 1, std::memory_order_relaxed );
    if ( myLostMessagesPtr )
        myLostMessagesPtr->count();
}

namespace {

bool putSystemLog( int level, std::string_view message )
{
    if ( !ourIsSyslogUsable.load( std::memory_order_relaxed ) )
        return false;
    std::string copy;
    if ( message.find( '\0' ) != std::string_view::npos ) {
        copy = message;
        std::replace( copy.begin(), copy.end(), '\0', ' ' );
        message = copy;
    }
    ourNbrOfSyslogUsers.fetch_add( 1, std::memory_order_relaxed );
    ::syslog( level, "%.*s", static_cast< int >( message.size() ), message.data() );
    ourNbrOfSyslogUsers.fetch_sub( 1, std::memory_order_relaxed );
    return true;
}

} // namespace

bool Drain::put( Severity severity, const Utils::Buffer& message, const char* zoneNamePtr )
{
    switch ( myOptions.type ) {
    case Options::standardError:
        return putLine( message ) && myStreamBufPtr->pubsync() != -1;
    case Options::standardOutput:
        return putLine( message );
    case Options::file:
        return myFile.write( message );
    case Options::syslog:
        return putSystemLog( ourSyslogLevels[std::clamp< int >( severity, off, fatal )], message );
    case Options::fifo:
        // Straight from the message into the ring: a stream buffer between them would copy once
        // more.
        if ( !myFifoPtr->write( message ) )
            ourFifoOverrunCount.fetch_add( 1, std::memory_order_relaxed );
        return true;
    case Options::http:
        return myHttpPosterPtr->post( severity, message, zoneNamePtr );
    default:
        return false;
    }
}

/// Text and line feed at once, so that lines of several processes stay whole on a terminal.
bool Drain::putLine( std::string_view message )
{
    myLine.assign( message ).push_back( '\n' );
    const auto length = static_cast< std::streamsize >( myLine.size() );
    return myStreamBufPtr->sputn( myLine.data(), length ) == length;
}

unsigned int Drain::timeStamp( std::tm* outPtr, unsigned int* millisecondsPtr )
{
    const std::uint64_t localNs = takeTime();
    *outPtr = ourSecondCache.myTime;
    *millisecondsPtr = millisecond( localNs );
    return elapsedMs( localNs );
}

unsigned int Drain::elapsedMs( std::uint64_t localNs )
{
    const std::uint64_t last = myLastTime.exchange( localNs, std::memory_order_relaxed );
    return localNs < last
               ? 0
               : static_cast< unsigned int >( ( localNs - last ) / Utils::Time::nsPerMs );
}

void Drain::appName( std::string* namePtr )
{
    *namePtr = applicationName();
}

void Drain::seekFileMarker()
{
    const Mt::MutexLock lock( myMutex );
    if ( myFile.isOpen() )
        myFile.seekMarker();
}

NUV_STARTUP void Drain::registerForkHandlers()
{
    processId();
}

void Drain::afterForkInChild()
{
    if ( myHttpPosterPtr )
        myHttpPosterPtr->leaveConnection();
    myFile.share();
    new ( &myMutex ) Mt::Mutex();
    new ( &myLine ) std::string();
}

} // namespace Nuv::Log
