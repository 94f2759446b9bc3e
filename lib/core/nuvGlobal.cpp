#include "nuvGlobal.h"

#include "nuvConfig.h"
#include "nuvOs.h"
#include "nuvPathname.h"
#include "nuvSingleton.h"
#include "nuvUtils.h"
#include "nuvVersionedRecord.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace Nuv::Utils {

extern Mt::Mutex GlobalSingletonPtrMutex;
Mt::Mutex GlobalSingletonPtrMutex;

// Link seam, declared in nuvOs.h.
const std::string& applicationGroupName()
{
    static const std::string defaultName = "nuvs";
    const std::string& name = Global::singletonPtr()->groupName();
    return name.empty() ? defaultName : name;
}

namespace {

using HealthAndSecurity::VersionedRecord;

template < class Word >
Word loadWord( Word& word )
{
    return std::atomic_ref< Word >( word ).load( std::memory_order_relaxed );
}

template < class Word >
void storeWord( Word* wordPtr, std::type_identity_t< Word > value )
{
    std::atomic_ref< Word >( *wordPtr ).store( value, std::memory_order_relaxed );
}

std::uint32_t randomVersion()
{
    std::uint32_t version = 0;
    const Handle device(
        retryOnEintr( [] { return ::open( "/dev/urandom", O_RDONLY | O_CLOEXEC ); } ) );
    if ( !device.isValid() || retryOnEintr( [&] {
                                  return ::read( device, &version, sizeof( version ) );
                              } ) != sizeof( version ) )
        version = 0;
    return version != 0 ? version : 1;
}

void initialise( Global::Data* dataPtr )
{
    dataPtr->localTimeOffset = 0;
    dataPtr->timeZoneName = "UTC";
    dataPtr->dnsEnabled = 0;
    dataPtr->httpProxyAddressText = "";
    dataPtr->myReserved[0] = 2;
    dataPtr->myReserved[1] = 0;
    dataPtr->myReserved[2] = 0;
    dataPtr->ftpTimeoutValue = 300;
    dataPtr->certificateStoreVersion = 1;
    dataPtr->keystoreVersion = randomVersion();
    dataPtr->keystoreLength = 0;
    std::memset( dataPtr->sensor.common.executionParameters, 0,
                 sizeof( dataPtr->sensor.common.executionParameters ) );
    std::memset( dataPtr->mainApp.common.executionParameters, 0,
                 sizeof( dataPtr->mainApp.common.executionParameters ) );
    std::memset( dataPtr->sensor.sensor.myReserved2, 0,
                 sizeof( dataPtr->sensor.sensor.myReserved2 ) );
}

// The private side of a commit is only read.
template < class Record >
VersionedRecord::Part part( Record* sharedPtr, const Record* privatePtr )
{
    return { sharedPtr, const_cast< Record* >( privatePtr ), sizeof( Record ) };
}

} // namespace

PlatformFacts PlatformFacts::of( const Config& bootInfo )
{
    PlatformFacts facts;
    facts.model = bootInfo.stringValue( "Platform", "model", "" );
    if ( facts.model.empty() )
        return facts;
    const std::string section = facts.model + "/Capabilities";
    const auto end = bootInfo.tspEnd( section );
    for ( auto i = bootInfo.tspBegin( section ); i != end; ++i ) {
        if ( bootInfo.boolValue( section, i->first, false ) )
            facts.capabilities.insert( i->first );
    }
    return facts;
}

Global* Global::singletonPtr()
{
    return Singleton< Global >::ptr( GlobalSingletonPtrMutex );
}

Global::Global()
{
    const Config master( Config::masterConfFileNameCStr );
    myGroupName = master.stringValue( "", "groupName", "" );
    myIncludeSelf = master.boolValue( "WinNt", "includeSelf", true );
    myIncludeAdministrators = master.boolValue( "WinNt", "includeAdministrators", true );
    myIncludeLocalSystem = master.boolValue( "WinNt", "includeLocalSystem", true );

    const Io::Pathname bootInfo( Io::Pathname::rootDirectory, "/etc/boot.info" );
    myPlatform = PlatformFacts::of( Config( bootInfo.cStr() ) );
}

bool Global::platformHasCapability( const char* namePtr ) const
{
    return namePtr != nullptr && myPlatform.capabilities.contains( namePtr );
}

Global::Data& Global::data() const
{
    if ( Data* const dataPtr = myDataPtr.load( std::memory_order_acquire ) )
        return *dataPtr;
    const Mt::MutexLock lock( myMutex );
    if ( myDataPtr.load( std::memory_order_relaxed ) == nullptr )
        initSharedMemory();
    return *myDataPtr.load( std::memory_order_relaxed );
}

// The semaphore is held from before the segment exists, so that nobody sees it half made.
void Global::initSharedMemory() const
{
    auto semaphorePtr = std::make_unique< Mt::Semaphore >( "global-shm", 1 );
    const Mt::SemaphoreLock lock( semaphorePtr.get() );
    nuvAssertText( myDataPtr.load( std::memory_order_relaxed ) == nullptr, "myDataPtr == NULL" );
    auto sharedMemoryPtr = std::make_unique< Io::SharedMemory >(
        "global-data", static_cast< unsigned int >( sizeof( Data ) ), Io::SharedMemory::readWrite );
    auto* const dataPtr = reinterpret_cast< Data* >( sharedMemoryPtr->memoryPtr() );
    if ( sharedMemoryPtr->isCreated() )
        initialise( dataPtr );
    mySemaphorePtr = std::move( semaphorePtr );
    mySharedMemoryPtr = std::move( sharedMemoryPtr );
    myDataPtr.store( dataPtr, std::memory_order_release );
}

void Global::localTimeOffsetAndZone( int offsetSeconds, const char* zoneNamePtr )
{
    const FixedString< char, 100 > zoneName( zoneNamePtr );
    Data& shared = data();
    const Mt::SemaphoreLock lock( mySemaphorePtr.get() );
    shared.localTimeOffset = offsetSeconds;
    shared.timeZoneName = zoneName;
}

void Global::localTimeOffsetAndZone( int* offsetSecondsPtr, std::string* zoneNamePtr ) const
{
    const Data& shared = data();
    const Mt::SemaphoreLock lock( mySemaphorePtr.get() );
    *offsetSecondsPtr = shared.localTimeOffset;
    *zoneNamePtr = shared.timeZoneName.view(); // another process may have destroyed its end
}

void Global::httpProxyAddress( unsigned short port, const char* addressPtr )
{
    const FixedString< char, 20 > address( addressPtr );
    Data& shared = data();
    const Mt::SemaphoreLock lock( mySemaphorePtr.get() );
    shared.httpProxyPort = port;
    shared.httpProxyAddressText = address;
}

void Global::httpProxyAddress( unsigned short* portPtr, std::string* addressPtr ) const
{
    const Data& shared = data();
    const Mt::SemaphoreLock lock( mySemaphorePtr.get() );
    *portPtr = shared.httpProxyPort;
    *addressPtr = shared.httpProxyAddressText.view();
}

void Global::httpProxyIsEnabled( bool enabled )
{
    Data& shared = data();
    const Mt::SemaphoreLock lock( mySemaphorePtr.get() );
    storeWord( &shared.httpProxyEnabled, enabled ? 1 : 0 );
}

bool Global::httpProxyIsEnabled() const
{
    return loadWord( data().httpProxyEnabled ) != 0;
}

void Global::dnsIsEnabled( bool enabled )
{
    Data& shared = data();
    const Mt::SemaphoreLock lock( mySemaphorePtr.get() );
    storeWord( &shared.dnsEnabled, enabled ? 1 : 0 );
}

bool Global::dnsIsEnabled() const
{
    return loadWord( data().dnsEnabled ) != 0;
}

void Global::ftpTimeout( unsigned int seconds )
{
    storeWord( &data().ftpTimeoutValue, seconds );
}

unsigned int Global::ftpTimeout() const
{
    return loadWord( data().ftpTimeoutValue );
}

void Global::incrementCertificateStoreVersionNbr()
{
    Data& shared = data();
    const Mt::SemaphoreLock lock( mySemaphorePtr.get() );
    storeWord( &shared.certificateStoreVersion, shared.certificateStoreVersion + 1 );
}

unsigned int Global::certificateStoreVersionNbr() const
{
    return loadWord( data().certificateStoreVersion );
}

bool Global::setKeystore( const Buffer& bytes )
{
    if ( bytes.size() > maxNbrOfKeystoreBytes )
        return false;
    Data& shared = data();
    const Mt::SemaphoreLock lock( mySemaphorePtr.get() );
    shared.keystoreLength = bytes.size();
    std::memcpy( shared.keystoreBytes, bytes.data(), bytes.size() );
    const std::uint32_t version = shared.keystoreVersion + 1;
    shared.keystoreVersion = version != 0 ? version : 1;
    return true;
}

bool Global::getKeystore( int* versionPtr, Buffer* bytesPtr ) const
{
    const Data& shared = data();
    const Mt::SemaphoreLock lock( mySemaphorePtr.get() );
    if ( static_cast< std::uint32_t >( *versionPtr ) == shared.keystoreVersion )
        return false;
    // The length is another process's word: it is not followed beyond the field.
    bytesPtr->assign( shared.keystoreBytes,
                      std::min< std::size_t >( shared.keystoreLength, maxNbrOfKeystoreBytes ) );
    *versionPtr = static_cast< int >( shared.keystoreVersion );
    return true;
}

void Global::setMainAppStatus( const HealthAndSecurity::CommonAppStatus& common )
{
    Data& shared = data();
    const VersionedRecord::Part parts[] = { part( &shared.mainApp.common, &common ) };
    VersionedRecord::commit( &shared.mainApp.version, parts, 1 );
}

void Global::setSensorStatus( const HealthAndSecurity::CommonAppStatus& common,
                              const HealthAndSecurity::SensorStatus& sensor )
{
    Data& shared = data();
    const VersionedRecord::Part parts[] = { part( &shared.sensor.common, &common ),
                                            part( &shared.sensor.sensor, &sensor ) };
    VersionedRecord::commit( &shared.sensor.version, parts, 2 );
}

bool Global::conditionalGetMainAppStatus( HealthAndSecurity::CommonAppStatus* commonPtr ) const
{
    Data& shared = data();
    const VersionedRecord::Part parts[] = { part( &shared.mainApp.common, commonPtr ) };
    return VersionedRecord::read( &shared.mainApp.version, parts, 1 );
}

bool Global::conditionalGetSensorStatus( HealthAndSecurity::CommonAppStatus* commonPtr,
                                         HealthAndSecurity::SensorStatus* sensorPtr ) const
{
    Data& shared = data();
    const VersionedRecord::Part parts[] = { part( &shared.sensor.common, commonPtr ),
                                            part( &shared.sensor.sensor, sensorPtr ) };
    return VersionedRecord::read( &shared.sensor.version, parts, 2 );
}

} // namespace Nuv::Utils
