#include "nuvIpcInventory.h"

#include "nuvFileSystem.h"
#include "nuvLogConfigManager.h"
#include "nuvSubsystemInfo.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <set>
#include <sys/ipc.h>
#include <sys/stat.h>

namespace Nuv::Tools {

namespace {

constexpr std::uint64_t nbrOfGlobalDataBytes = 100108;
// An entry's length word, rounded up with its bytes to a multiple of four.
constexpr std::uint32_t entrySize( std::uint32_t length )
{
    return ( length + 7 ) / 4 * 4;
}

bool beginsWith( const std::string& text, const char* prefixPtr )
{
    return text.compare( 0, std::strlen( prefixPtr ), prefixPtr ) == 0;
}

std::string withoutPrefix( const std::string& text, const char* prefixPtr )
{
    return text.substr( std::strlen( prefixPtr ) );
}

/// Files below the directory; a FIFO's name may hold '/', so subdirectories are entered.
void listFiles( const std::string& directory, const std::string& below, int depth,
                std::vector< std::pair< IpcFile, mode_t > >* filesPtr )
{
    DIR* const directoryPtr = ::opendir( ( directory + "/" + below ).c_str() );
    if ( directoryPtr == nullptr )
        return;
    while ( const dirent* entryPtr = ::readdir( directoryPtr ) ) {
        const std::string name = entryPtr->d_name;
        struct stat status
        {
        };
        const std::string path = directory + "/" + below + name;
        if ( name == "." || name == ".." || ::lstat( path.c_str(), &status ) != 0 )
            continue;
        if ( S_ISDIR( status.st_mode ) && depth > 0 ) {
            listFiles( directory, below + name + "/", depth - 1, filesPtr );
            continue;
        }
        IpcFile file;
        file.myFileName = below + name;
        file.myId = FileId{ status.st_dev, status.st_ino };
        file.myKey = Io::FileSystem::ftok( path.c_str(), 1 );
        file.myChangeTime = status.st_ctime;
        filesPtr->emplace_back( std::move( file ), status.st_mode );
    }
    ::closedir( directoryPtr );
}

template < class T >
const T* findKey( const std::vector< T >& objects, ::key_t key )
{
    const auto iter = std::find_if( objects.begin(), objects.end(),
                                    [key]( const T& object ) { return object.myKey == key; } );
    return iter != objects.end() ? &*iter : nullptr;
}

template < class T >
const T* findName( const std::vector< T >& objects, const std::string& name )
{
    const auto iter = std::find_if( objects.begin(), objects.end(),
                                    [&]( const T& object ) { return object.myName == name; } );
    return iter != objects.end() ? &*iter : nullptr;
}

void addFile( const IpcFile& file, mode_t mode, const std::vector< SemaphoreSet >& sets,
              const std::vector< Segment >& segments, Inventory* inventoryPtr )
{
    if ( S_ISFIFO( mode ) ) {
        inventoryPtr->myFifos.push_back(
            NamedFifo{ file.myFileName, file, inventoryPtr->myProcesses.usersOf( file.myId ) } );
    } else if ( S_ISREG( mode ) && beginsWith( file.myFileName, "sem_" ) ) {
        NamedSemaphore semaphore{ withoutPrefix( file.myFileName, "sem_" ), file, {} };
        if ( const SemaphoreSet* const setPtr = findKey( sets, file.myKey ) )
            semaphore.mySet = *setPtr;
        inventoryPtr->mySemaphores.push_back( std::move( semaphore ) );
    } else if ( S_ISREG( mode ) && beginsWith( file.myFileName, "shm_" ) ) {
        NamedSegment segment{ withoutPrefix( file.myFileName, "shm_" ), file, {}, {} };
        if ( const Segment* const segmentPtr = findKey( segments, file.myKey ) )
            segment.mySegment = *segmentPtr;
        inventoryPtr->mySegments.push_back( std::move( segment ) );
    } else {
        inventoryPtr->myOtherFiles.push_back( file );
    }
}

void readContents( Inventory* inventoryPtr )
{
    constexpr std::size_t nbrOfRecordBytes = sizeof( Mt::SubsystemInfo::ThreadDetailsArray );
    for ( NamedSegment& segment : inventoryPtr->mySegments ) {
        if ( !segment.mySegment )
            continue;
        if ( segment.isThreadRecords() ) {
            const std::string bytes = copySegment( *segment.mySegment, nbrOfRecordBytes, -1 );
            for ( ThreadRecord& record : parseThreadRecords( bytes ) ) {
                record.mySegmentName = segment.myName;
                inventoryPtr->myThreadRecords.push_back( std::move( record ) );
            }
        } else if ( beginsWith( segment.myName, "IpFifo_" ) && segment.nbrOfAttached() == 0 ) {
            const std::size_t size = static_cast< std::size_t >( segment.mySegment->mySize );
            const std::string bytes =
                copySegment( *segment.mySegment, size, inventoryPtr->guardSetId( segment ) );
            bool isSound = RingHeader::parse( bytes ).isSound( size );
            if ( isSound )
                segment.myNbrOfUnread =
                    static_cast< unsigned int >( ringEntries( bytes, &isSound ).size() );
        }
    }
}

bool hasFormOfOurs( const Segment& segment )
{
    if ( segment.myMode != 0660 )
        return false;
    if ( segment.mySize == sizeof( Log::ConfigManager::Data ) ||
         segment.mySize == sizeof( Mt::SubsystemInfo::ThreadDetailsArray ) ||
         segment.mySize == nbrOfGlobalDataBytes )
        return true;
    if ( segment.myNbrOfAttached != 0 || segment.mySize % 4 != 0 )
        return false;
    const std::string bytes = copySegment( segment, RingHeader::nbrOfBytes, -1 );
    return RingHeader::parse( bytes ).isSound( segment.mySize );
}

void addStrays( const std::vector< SemaphoreSet >& sets, const std::vector< Segment >& segments,
                const std::set< ::key_t >& keys, Inventory* inventoryPtr )
{
    for ( const SemaphoreSet& set : sets ) {
        if ( set.myNbrOfSemaphores == 2 && set.myMode == 0660 && set.myKey != IPC_PRIVATE &&
             keys.count( set.myKey ) == 0 )
            inventoryPtr->myStraySets.push_back( set );
    }
    for ( const Segment& segment : segments ) {
        if ( segment.myKey != IPC_PRIVATE && keys.count( segment.myKey ) == 0 &&
             hasFormOfOurs( segment ) )
            inventoryPtr->myStraySegments.push_back( segment );
    }
}

} // namespace

bool NamedSegment::isThreadRecords() const
{
    return beginsWith( myName, "ubrdebug_" );
}

Inventory Inventory::read( const std::string& directory )
{
    Inventory inventory;
    inventory.myDirectory = directory;
    inventory.myTime = ::time( nullptr );
    struct stat status
    {
    };
    inventory.myDirectoryExists =
        ::stat( directory.c_str(), &status ) == 0 && S_ISDIR( status.st_mode );
    inventory.myProcesses = ProcessTable::read();

    const std::vector< SemaphoreSet > sets = readSemaphoreSets();
    const std::vector< Segment > segments = readSegments();
    std::vector< std::pair< IpcFile, mode_t > > files;
    std::set< ::key_t > keys;
    if ( inventory.myDirectoryExists ) {
        const ::key_t masterKey = Io::FileSystem::ftok( directory.c_str(), 1 );
        keys.insert( masterKey );
        const SemaphoreSet* const masterPtr = findKey( sets, masterKey );
        if ( masterPtr != nullptr )
            inventory.myMaster = *masterPtr;
        listFiles( directory, "", 4, &files );
    }
    std::sort( files.begin(), files.end(), []( const auto& a, const auto& b ) {
        return a.first.myFileName < b.first.myFileName;
    } );
    for ( const auto& [file, mode] : files ) {
        keys.insert( file.myKey );
        addFile( file, mode, sets, segments, &inventory );
    }
    readContents( &inventory );
    addStrays( sets, segments, keys, &inventory );
    return inventory;
}

const NamedSemaphore* Inventory::findSemaphore( const std::string& name ) const
{
    return findName( mySemaphores, name );
}

const NamedSegment* Inventory::findSegment( const std::string& name ) const
{
    return findName( mySegments, name );
}

const NamedFifo* Inventory::findFifo( const std::string& name ) const
{
    const auto iter = std::find_if( myFifos.begin(), myFifos.end(), [&]( const NamedFifo& fifo ) {
        return flatName( fifo.myName ) == flatName( name );
    } );
    return iter != myFifos.end() ? &*iter : nullptr;
}

int Inventory::guardSetId( const NamedSegment& segment ) const
{
    const NamedSemaphore* const guardPtr = findSemaphore( "shm_" + segment.myName );
    return guardPtr != nullptr && guardPtr->mySet ? guardPtr->mySet->myId : -1;
}

bool Inventory::hasPipeServer( const std::string& pipeName ) const
{
    const NamedFifo* const fifoPtr = findFifo( toServerPrefix + pipeName );
    return fifoPtr != nullptr &&
           std::any_of( fifoPtr->myUsers.begin(), fifoPtr->myUsers.end(),
                        []( const auto& user ) { return user.second.myNbrOfReaders > 0; } );
}

std::string flatName( std::string name )
{
    std::replace( name.begin(), name.end(), '/', '-' );
    return name;
}

std::string Inventory::nameOfSet( int setId ) const
{
    for ( const NamedSemaphore& semaphore : mySemaphores ) {
        if ( semaphore.mySet && semaphore.mySet->myId == setId )
            return semaphore.myName;
    }
    return {};
}

RingHeader RingHeader::parse( std::string_view bytes )
{
    RingHeader header;
    static_assert( sizeof( header ) == nbrOfBytes );
    if ( bytes.size() >= nbrOfBytes )
        std::memcpy( &header, bytes.data(), nbrOfBytes );
    return header;
}

bool RingHeader::isSound( std::uint64_t segmentSize ) const
{
    if ( myFifoSize == 0 || myFifoSize % 4 != 0 || myFifoSize + nbrOfBytes != segmentSize )
        return false;
    if ( myReadOffset >= myFifoSize || myWriteOffset >= myFifoSize || myReadOffset % 4 != 0 ||
         myWriteOffset % 4 != 0 || myNbrOfBytesFree > myFifoSize )
        return false;
    const std::uint64_t used = myFifoSize - myNbrOfBytesFree;
    return ( myReadOffset + used ) % myFifoSize == myWriteOffset;
}

std::vector< std::string > ringEntries( std::string_view bytes, bool* soundPtr )
{
    const RingHeader header = RingHeader::parse( bytes );
    const std::string_view ring = bytes.substr( RingHeader::nbrOfBytes, header.myFifoSize );
    std::vector< std::string > entries;
    std::uint32_t left = header.myFifoSize - header.myNbrOfBytesFree;
    std::uint32_t offset = header.myReadOffset;
    *soundPtr = true;
    while ( left > 0 ) {
        std::uint32_t length = 0;
        std::memcpy( &length, ring.data() + offset, sizeof( length ) );
        if ( length > header.myFifoSize || entrySize( length ) > left ) {
            *soundPtr = false;
            break;
        }
        const std::uint32_t begin = ( offset + 4 ) % header.myFifoSize;
        const std::uint32_t beforeWrap = std::min( length, header.myFifoSize - begin );
        entries.emplace_back( ring.substr( begin, beforeWrap ) );
        entries.back().append( ring.substr( 0, length - beforeWrap ) );
        offset = ( offset + entrySize( length ) ) % header.myFifoSize;
        left -= entrySize( length );
    }
    return entries;
}

std::vector< ThreadRecord > parseThreadRecords( std::string_view bytes )
{
    using Details = Mt::SubsystemInfo::ThreadDetails;
    std::vector< ThreadRecord > records;
    if ( bytes.size() != sizeof( Mt::SubsystemInfo::ThreadDetailsArray ) )
        return records;
    for ( std::size_t i = 0; i < Mt::SubsystemInfo::ThreadDetailsArray::nbrOfRecords; ++i ) {
        Details details;
        std::memcpy( &details,
                     bytes.data() + offsetof( Mt::SubsystemInfo::ThreadDetailsArray, myRecords ) +
                         i * sizeof( Details ),
                     sizeof( Details ) );
        if ( details.myInUse == 0 )
            continue;
        ThreadRecord record;
        record.myIndex = static_cast< int >( i );
        record.myPid = details.myProcessId;
        record.myState = details.myState;
        record.myWaitKind = details.myWaitKind;
        record.myWaitObject = details.myWaitObject;
        record.myDescription = fieldText( details.myDescription );
        record.myStatusMessage = fieldText( details.myStatusMessage );
        records.push_back( std::move( record ) );
    }
    return records;
}

} // namespace Nuv::Tools
