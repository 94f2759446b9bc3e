#include "nuvIpcProcess.h"

#include "nuvIpcKernel.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::Tools {

namespace {

bool isNumber( const char* textPtr )
{
    return *textPtr != '\0' &&
           std::string_view( textPtr ).find_first_not_of( "0123456789" ) == std::string_view::npos;
}

/// Calls function( name ) for every entry of a directory; false if it cannot be opened.
template < class F >
bool forEachEntry( const std::string& path, F function )
{
    DIR* const directoryPtr = ::opendir( path.c_str() );
    if ( directoryPtr == nullptr )
        return false;
    while ( const dirent* entryPtr = ::readdir( directoryPtr ) )
        function( entryPtr->d_name );
    ::closedir( directoryPtr );
    return true;
}

std::string linkText( const std::string& path )
{
    char text[PATH_MAX];
    const ssize_t length = ::readlink( path.c_str(), text, sizeof( text ) );
    return length > 0 ? std::string( text, static_cast< std::size_t >( length ) ) : std::string();
}

/// The access mode of an open descriptor of another process; O_RDWR where it cannot be read.
int accessMode( const std::string& processPath, const char* fdTextPtr )
{
    std::string text;
    readWholeFile( processPath + "fdinfo/" + fdTextPtr, &text );
    const std::size_t at = text.find( "flags:" );
    if ( at == std::string::npos )
        return O_RDWR;
    return static_cast< int >( std::strtoul( text.c_str() + at + 6, nullptr, 8 ) ) & O_ACCMODE;
}

/// The link's text is looked at before the file is: to examine any file of any process could
/// block, on a file server that is gone for instance.
void readFifo( const std::string& processPath, const char* fdTextPtr, Process* processPtr )
{
    const std::string path = processPath + "fd/" + fdTextPtr;
    const std::string target = linkText( path );
    if ( target.find( "/evt_" ) == std::string::npos &&
         target.find( "/pipe_" ) == std::string::npos )
        return;
    struct stat status
    {
    };
    if ( ::stat( path.c_str(), &status ) != 0 || !S_ISFIFO( status.st_mode ) )
        return;
    FifoUse& use = processPtr->myFifos[FileId{ status.st_dev, status.st_ino }];
    const int mode = accessMode( processPath, fdTextPtr );
    if ( mode != O_WRONLY )
        ++use.myNbrOfReaders;
    if ( mode != O_RDONLY )
        ++use.myNbrOfWriters;
}

void readAttachments( const std::string& processPath, Process* processPtr )
{
    std::string maps;
    // A thread of the kernel has an empty table of maps, and no descriptors.
    processPtr->myReadable = readWholeFile( processPath + "maps", &maps );
    parseProcessMaps( maps, processPtr );
    const auto readEntry = [&]( const char* namePtr ) {
        if ( isNumber( namePtr ) )
            readFifo( processPath, namePtr, processPtr );
    };
    if ( !forEachEntry( processPath + "fd", readEntry ) )
        processPtr->myReadable = false;
}

/// When the machine started, seconds since 1970; 0 where it is not known.
std::int64_t bootTime()
{
    std::string text;
    readWholeFile( "/proc/stat", &text );
    const std::size_t at = text.find( "\nbtime " );
    return at == std::string::npos ? 0 : std::strtoll( text.c_str() + at + 7, nullptr, 10 );
}

/// Everything but attachments and descriptors; false if the process has vanished.
bool readStat( const std::string& processPath, std::int64_t bootSeconds, Process* processPtr )
{
    std::string stat;
    std::uint64_t startTicks = 0;
    if ( !readWholeFile( processPath + "stat", &stat ) ||
         !parseProcessStat( stat, processPtr, &startTicks ) )
        return false;
    const long ticksPerSecond = ::sysconf( _SC_CLK_TCK );
    if ( bootSeconds != 0 && ticksPerSecond > 0 )
        processPtr->myStartTime =
            bootSeconds + static_cast< std::int64_t >(
                              startTicks / static_cast< std::uint64_t >( ticksPerSecond ) );
    return true;
}

bool isGone( const Process& process )
{
    return process.myState == 'Z' || process.myState == 'X';
}

} // namespace

bool parseProcessStat( std::string_view text, Process* processPtr, std::uint64_t* startTicksPtr )
{
    // The name may itself hold blanks and parentheses: it ends at the last one.
    const std::size_t begin = text.find( '(' );
    const std::size_t end = text.rfind( ')' );
    if ( begin == std::string_view::npos || end == std::string_view::npos || end < begin ||
         end + 2 >= text.size() )
        return false;
    processPtr->myName = text.substr( begin + 1, end - begin - 1 );
    text.remove_prefix( end + 2 );
    processPtr->myState = text.front();
    constexpr int fieldsFromStateToStart = 19;
    for ( int i = 0; i < fieldsFromStateToStart; ++i ) {
        const std::size_t blank = text.find( ' ' );
        if ( blank == std::string_view::npos )
            return false;
        text.remove_prefix( blank + 1 );
    }
    return std::from_chars( text.data(), text.data() + text.size(), *startTicksPtr ).ec ==
           std::errc();
}

void parseProcessMaps( std::string_view text, Process* processPtr )
{
    while ( !text.empty() ) {
        const std::size_t end = text.find( '\n' );
        const std::string_view line = text.substr( 0, end );
        text.remove_prefix( end == std::string_view::npos ? text.size() : end + 1 );
        // "08048000-08056000 rw-s 00000000 00:01 32769   /SYSV0001f3a2 (deleted)": the inode is
        // the segment's identifier, the offset 0 where an attachment begins.
        const std::size_t pathAt = line.find( '/' );
        if ( pathAt == std::string_view::npos )
            continue;
        const std::string_view path = line.substr( pathAt );
        if ( path.find( "/libnuvcore.so" ) != std::string_view::npos )
            processPtr->myUsesLibrary = true;
        if ( path.substr( 0, 5 ) != "/SYSV" )
            continue;
        std::string_view rest = line.substr( 0, pathAt );
        rest = rest.substr( 0, rest.find_last_not_of( ' ' ) + 1 );
        const std::size_t inodeAt = rest.rfind( ' ' );
        const std::size_t deviceAt = rest.rfind( ' ', inodeAt - 1 );
        int segmentId = -1;
        if ( inodeAt == std::string_view::npos || deviceAt == std::string_view::npos )
            continue;
        std::from_chars( rest.data() + inodeAt + 1, rest.data() + rest.size(), segmentId );
        const bool isBegin = deviceAt >= 9 && rest.substr( deviceAt - 9, 9 ) == " 00000000";
        if ( segmentId >= 0 && isBegin )
            ++processPtr->mySegments[segmentId];
    }
}

ProcessTable::ProcessTable( std::vector< Process > processes )
    : myProcesses( std::move( processes ) )
{
    std::sort( myProcesses.begin(), myProcesses.end(),
               []( const Process& a, const Process& b ) { return a.myPid < b.myPid; } );
    for ( const Process& process : myProcesses )
        myNbrOfUnreadable += process.myReadable ? 0 : 1;
}

ProcessTable ProcessTable::read()
{
    const std::string ownNamespace = linkText( "/proc/self/ns/ipc" );
    const std::int64_t bootSeconds = bootTime();
    std::vector< Process > processes;
    forEachEntry( "/proc", [&]( const char* namePtr ) {
        const std::string path = std::string( "/proc/" ) + namePtr + "/";
        Process process;
        if ( !isNumber( namePtr ) || !readStat( path, bootSeconds, &process ) )
            return;
        process.myPid = static_cast< int >( std::strtol( namePtr, nullptr, 10 ) );
        const std::string ipcNamespace = linkText( path + "ns/ipc" );
        if ( process.myPid != ::getpid() && !isGone( process ) &&
             ( ipcNamespace.empty() || ipcNamespace == ownNamespace ) )
            readAttachments( path, &process );
        // It may have ended while it was examined.
        if ( ::kill( process.myPid, 0 ) == 0 || errno != ESRCH )
            processes.push_back( std::move( process ) );
    } );
    ProcessTable table( std::move( processes ) );
    table.myTrustworthy = linkText( "/proc/self" ) == std::to_string( ::getpid() );
    return table;
}

bool ProcessTable::isGoneSince( int pid, std::int64_t time ) const
{
    if ( !isAlive( pid ) )
        return true;
    const Process* const processPtr = find( pid );
    return processPtr != nullptr && processPtr->myStartTime > time + 2;
}

const Process* ProcessTable::find( int pid ) const
{
    const auto iter =
        std::lower_bound( myProcesses.begin(), myProcesses.end(), pid,
                          []( const Process& process, int id ) { return process.myPid < id; } );
    return iter != myProcesses.end() && iter->myPid == pid ? &*iter : nullptr;
}

bool ProcessTable::isAlive( int pid ) const
{
    if ( pid == 0 )
        return true;
    const Process* const processPtr = find( pid );
    return processPtr != nullptr && !isGone( *processPtr );
}

std::vector< int > ProcessTable::attachedTo( int segmentId ) const
{
    std::vector< int > pids;
    for ( const Process& process : myProcesses ) {
        if ( process.mySegments.count( segmentId ) != 0 )
            pids.push_back( process.myPid );
    }
    return pids;
}

std::map< int, FifoUse > ProcessTable::usersOf( const FileId& fifo ) const
{
    std::map< int, FifoUse > users;
    for ( const Process& process : myProcesses ) {
        if ( const auto iter = process.myFifos.find( fifo ); iter != process.myFifos.end() )
            users.emplace( process.myPid, iter->second );
    }
    return users;
}

std::string ProcessTable::describe( int pid ) const
{
    if ( pid == 0 )
        return "?";
    const Process* const processPtr = find( pid );
    const bool ended = processPtr == nullptr || isGone( *processPtr );
    return std::to_string( pid ) + " (" + ( ended ? "ended" : processPtr->myName ) + ")";
}

} // namespace Nuv::Tools
