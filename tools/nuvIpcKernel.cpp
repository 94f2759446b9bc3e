#include "nuvIpcKernel.h"

#include <cerrno>
#include <charconv>
#include <ctime>
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

namespace Nuv::Tools {

namespace {

/// Takes numbers off the front of a line of a kernel table.
class NumberReader
{
public:
    explicit NumberReader( std::string_view line )
        : myRest( line )
    {
    }

    template < class T >
    NumberReader& read( T* valuePtr, int base = 10 )
    {
        const std::size_t begin = myRest.find_first_not_of( ' ' );
        myRest.remove_prefix( begin == std::string_view::npos ? myRest.size() : begin );
        const auto result =
            std::from_chars( myRest.data(), myRest.data() + myRest.size(), *valuePtr, base );
        myOk = myOk && result.ec == std::errc();
        myRest.remove_prefix( static_cast< std::size_t >( result.ptr - myRest.data() ) );
        return *this;
    }

    bool isOk() const { return myOk; }

private:
    std::string_view myRest;
    bool myOk = true;
};

/// Calls function( line ) for every line after the heading.
template < class F >
void forEachRow( std::string_view text, F function )
{
    bool isHeading = true;
    while ( !text.empty() ) {
        const std::size_t end = text.find( '\n' );
        if ( !isHeading )
            function( text.substr( 0, end ) );
        isHeading = false;
        text.remove_prefix( end == std::string_view::npos ? text.size() : end + 1 );
    }
}

int semControl( int setId, int index, int command )
{
    return ::semctl( setId, index, command );
}

bool semOperate( int setId, sembuf* operationsPtr, std::size_t nbrOfOperations )
{
    int result;
    do
        result = ::semop( setId, operationsPtr, nbrOfOperations );
    while ( result == -1 && errno == EINTR );
    return result == 0;
}

std::int64_t monotonicMs()
{
    timespec now{};
    ::clock_gettime( CLOCK_MONOTONIC, &now );
    return std::int64_t{ now.tv_sec } * 1000 + now.tv_nsec / 1000000;
}

} // namespace

std::vector< SemaphoreSet > parseSemaphoreSets( std::string_view text )
{
    std::vector< SemaphoreSet > sets;
    forEachRow( text, [&sets]( std::string_view line ) {
        SemaphoreSet set;
        uid_t creatorUid = 0;
        gid_t creatorGid = 0;
        NumberReader reader( line );
        reader.read( &set.myKey ).read( &set.myId ).read( &set.myMode, 8 );
        reader.read( &set.myNbrOfSemaphores ).read( &set.myUid ).read( &set.myGid );
        reader.read( &creatorUid ).read( &creatorGid );
        reader.read( &set.myOperationTime ).read( &set.myChangeTime );
        if ( reader.isOk() )
            sets.push_back( std::move( set ) );
    } );
    return sets;
}

std::vector< Segment > parseSegments( std::string_view text )
{
    std::vector< Segment > segments;
    forEachRow( text, [&segments]( std::string_view line ) {
        Segment segment;
        uid_t creatorUid = 0;
        gid_t creatorGid = 0;
        NumberReader reader( line );
        reader.read( &segment.myKey ).read( &segment.myId ).read( &segment.myMode, 8 );
        reader.read( &segment.mySize ).read( &segment.myCreatorPid ).read( &segment.myLastPid );
        reader.read( &segment.myNbrOfAttached ).read( &segment.myUid ).read( &segment.myGid );
        reader.read( &creatorUid ).read( &creatorGid );
        reader.read( &segment.myAttachTime ).read( &segment.myDetachTime );
        reader.read( &segment.myChangeTime );
        segment.myMode &= 0777; // the bits above tell of locking and pending removal
        if ( reader.isOk() )
            segments.push_back( segment );
    } );
    return segments;
}

std::vector< SemaphoreState > readSemaphoreStates( int setId, int nbrOfSemaphores )
{
    std::vector< SemaphoreState > states;
    for ( int index = 0; index < nbrOfSemaphores; ++index ) {
        SemaphoreState state;
        state.myValue = semControl( setId, index, GETVAL );
        state.myLastPid = semControl( setId, index, GETPID );
        state.myNbrOfWaiters = semControl( setId, index, GETNCNT );
        if ( state.myValue < 0 || state.myLastPid < 0 || state.myNbrOfWaiters < 0 )
            return {};
        states.push_back( state );
    }
    return states;
}

std::vector< SemaphoreSet > readSemaphoreSets()
{
    std::string text;
    readWholeFile( "/proc/sysvipc/sem", &text );
    std::vector< SemaphoreSet > sets = parseSemaphoreSets( text );
    for ( SemaphoreSet& set : sets ) {
        // Sets of the library have one or two semaphores; of others no values are wanted.
        if ( set.myNbrOfSemaphores <= 2 )
            set.mySemaphores = readSemaphoreStates( set.myId, set.myNbrOfSemaphores );
    }
    return sets;
}

std::vector< Segment > readSegments()
{
    std::string text;
    readWholeFile( "/proc/sysvipc/shm", &text );
    return parseSegments( text );
}

UndoLock::UndoLock( int setId, unsigned int timeoutMs )
    : mySetId( setId )
{
    if ( mySetId < 0 ) {
        myIsHeld = true;
        return;
    }
    const std::int64_t endMs = monotonicMs() + timeoutMs;
    sembuf take{ 0, -1, IPC_NOWAIT | SEM_UNDO };
    while ( !( myIsHeld = semOperate( mySetId, &take, 1 ) ) ) {
        if ( errno == EINVAL || errno == EIDRM ) {
            mySetId = -1; // the set is gone: nobody can hold it
            myIsHeld = true;
            return;
        }
        if ( errno != EAGAIN || monotonicMs() >= endMs )
            return;
        ::usleep( 2000 );
    }
}

UndoLock::~UndoLock()
{
    if ( !myIsHeld || mySetId < 0 )
        return;
    sembuf give{ 0, +1, IPC_NOWAIT | SEM_UNDO };
    semOperate( mySetId, &give, 1 );
}

bool postIfZero( int setId )
{
    sembuf operations[] = { { 0, 0, IPC_NOWAIT }, { 0, +1, IPC_NOWAIT } };
    return semOperate( setId, operations, 2 );
}

SegmentView::SegmentView( const Segment& segment, int guardSetId )
    : myGuard( guardSetId, 20 )
    , myPtr( static_cast< const char* >( ::shmat( segment.myId, nullptr, SHM_RDONLY ) ) )
{
    if ( myPtr == reinterpret_cast< const char* >( -1 ) )
        myPtr = nullptr;
}

SegmentView::~SegmentView()
{
    if ( myPtr != nullptr )
        ::shmdt( myPtr );
}

std::string copySegment( const Segment& segment, std::size_t nbrOfBytes, int guardSetId )
{
    if ( segment.mySize < nbrOfBytes )
        return {};
    const SegmentView view( segment, guardSetId );
    return view.ptr() != nullptr ? std::string( view.ptr(), nbrOfBytes ) : std::string();
}

std::string copySettled( const Segment& segment, std::size_t nbrOfBytes, int guardSetId,
                         bool* settledPtr )
{
    constexpr int maxNbrOfAttempts = 500;
    std::string bytes = copySegment( segment, nbrOfBytes, guardSetId );
    *settledPtr = false;
    for ( int i = 0; i < maxNbrOfAttempts && !*settledPtr; ++i ) {
        std::string again = copySegment( segment, nbrOfBytes, guardSetId );
        *settledPtr = again == bytes;
        bytes = std::move( again );
        if ( !*settledPtr )
            ::usleep( 1000 );
    }
    return bytes;
}

bool readWholeFile( const std::string& path, std::string* textPtr )
{
    textPtr->clear();
    const int fd = ::open( path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK );
    if ( fd < 0 )
        return false;
    char chunk[16384];
    for ( ;; ) {
        const ssize_t nbrOfBytes = ::read( fd, chunk, sizeof( chunk ) );
        if ( nbrOfBytes > 0 )
            textPtr->append( chunk, static_cast< std::size_t >( nbrOfBytes ) );
        else if ( nbrOfBytes == 0 || errno != EINTR )
            break;
    }
    ::close( fd );
    return true;
}

} // namespace Nuv::Tools
