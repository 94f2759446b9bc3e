#include "nuvLogConfigManager.h"

#include "nuvFileSystem.h"
#include "nuvPathname.h"
#include "nuvSingleton.h"

#include <algorithm>
#include <deque>
#include <list>
#include <new>
#include <pthread.h>
#include <string_view>
#include <utility>

namespace Nuv::Log {

namespace {

constexpr const char* ourSegmentName = "LogConfigManager";
constexpr const char* ourSyslogZoneName = "Syslog";
constexpr const char* ourSyslogDrainName = "syslog";

/// What an HTTP drain says in its request instead of in the line.
constexpr std::uint32_t ourFlagsOfHttpRequest =
    currentTime | elapsedTime | zoneName | severityLetterFlag;

} // namespace

// ------------------------------------------------------------------------- binding of sources

Mt::Mutex ConfigManagerSingletonPtrMutex;
extern Mt::Mutex StandardSourceSetSingletonPtrMutex; // nuvLog.cpp's

namespace {

using ManagerSingleton = Utils::Singleton< ConfigManager >;

/// A source that was made while the manager was being built.
struct PendingSource
{
    Source* mySourcePtr;
    std::string myZoneName;
};

// Before the manager's mutex in the lock order. It guards the list and changes of the flags.
Mt::Mutex ourBindingMutex;
constinit std::atomic< bool > ourIsComplete = false;
constinit bool ourIsUnderConstruction = false;
constinit std::atomic< bool > ourIsEnded = false; // at process exit
constinit thread_local bool ourIsBuilder = false;

/// Never destroyed: sources may outlive every static object.
std::deque< PendingSource >& pendingSources()
{
    static std::deque< PendingSource >& ourSources = *new std::deque< PendingSource >;
    return ourSources;
}

enum class Progress
{
    complete,
    underConstruction,
    ended,
    toBuild
};

/// Under construction, the source is put on the list; toBuild makes the caller the builder.
Progress enterProtocol( Source* sourcePtr, const char* zoneNamePtr )
{
    // Without the lock: who logs while he holds the manager's mutex must not wait for who binds the
    // pending sources, which takes the two in this order.
    if ( ourIsComplete.load( std::memory_order_acquire ) )
        return Progress::complete;
    if ( ourIsEnded.load( std::memory_order_relaxed ) ) // the lock may be gone
        return Progress::ended;
    const Mt::MutexLock lock( ourBindingMutex );
    if ( ourIsComplete.load( std::memory_order_relaxed ) )
        return Progress::complete;
    if ( ourIsEnded )
        return Progress::ended;
    if ( ourIsUnderConstruction ) {
        if ( sourcePtr != nullptr )
            pendingSources().push_back( { sourcePtr, zoneNamePtr } );
        return Progress::underConstruction;
    }
    ourIsUnderConstruction = true;
    return Progress::toBuild;
}

void leaveProtocol()
{
    const Mt::MutexLock lock( ourBindingMutex );
    ourIsUnderConstruction = false;
}

/// Removes a source from the list that ends before it could be bound.
void forgetPending( const Source* sourcePtr )
{
    const Mt::MutexLock lock( ourBindingMutex );
    std::erase_if( pendingSources(), [sourcePtr]( const PendingSource& pending ) {
        return pending.mySourcePtr == sourcePtr;
    } );
}

void buildManager()
{
    ourIsBuilder = true;
    try {
        ManagerSingleton::ptr( ConfigManagerSingletonPtrMutex );
    } catch ( ... ) {
        ourIsBuilder = false;
        leaveProtocol();
        throw;
    }
    ourIsBuilder = false;
}

} // namespace

/// The part of the protocol that reaches into sources.
class SourceBinding
{
public:
    /// @return whether the manager is complete
    static bool reach( Source* sourcePtr, const char* zoneNamePtr )
    {
        const Progress progress = enterProtocol( sourcePtr, zoneNamePtr );
        if ( progress != Progress::toBuild )
            return progress == Progress::complete;
        buildManager();
        bindPending();
        return true;
    }

private:
    static void bindPending()
    {
        const Mt::MutexLock lock( ourBindingMutex );
        ourIsComplete.store( true, std::memory_order_release );
        ourIsUnderConstruction = false;
        std::deque< PendingSource >& sources = pendingSources();
        while ( !sources.empty() ) {
            const PendingSource pending = sources.front();
            try {
                pending.mySourcePtr->initImpl( pending.myZoneName.c_str() );
            } catch ( ... ) {
                // Its own constructor has returned long ago: it stays unbound.
            }
            sources.pop_front();
        }
    }
};

// The other ends of the seams that nuvLog.h declares.

void ensureConfigManager()
{
    if ( SourceBinding::reach( nullptr, "" ) )
        ManagerSingleton::ptr( ConfigManagerSingletonPtrMutex )->bindStandard();
}

void Source::init( const char* zoneNamePtr )
{
    if ( drainPtr() != nullptr )
        return;
    const Mt::CancelState disabled;
    const char* const namePtr = severity() == fatal ? ourSyslogZoneName : zoneNamePtr;
    if ( !ourIsComplete.load( std::memory_order_acquire ) &&
         !SourceBinding::reach( this, namePtr ) )
        return;
    initImpl( namePtr );
    ManagerSingleton::ptr( ConfigManagerSingletonPtrMutex )->bindStandard();
}

void Source::initImpl( const char* zoneNamePtr )
{
    ManagerSingleton::ptr( ConfigManagerSingletonPtrMutex )->bind( *this, zoneNamePtr );
}

void Source::unbind()
{
    myZonePtr.store( &ourPlaceholderZone, std::memory_order_release );
    myDrainPtr.store( nullptr, std::memory_order_release );
}

Source::~Source()
{
    const Mt::CancelState disabled;
    if ( drainPtr() == nullptr )
        forgetPending( this ); // waits for a binding that is just being made
    ConfigManager* const managerPtr = ManagerSingleton::ptrIfBuilt();
    if ( drainPtr() != nullptr && managerPtr != nullptr )
        managerPtr->release( *this );
}

// ------------------------------------------------------------------------------- construction

ConfigManager* ConfigManager::singletonPtr()
{
    if ( ConfigManager* const managerPtr = ManagerSingleton::ptrIfBuilt() )
        return managerPtr;
    const Mt::CancelState disabled;
    nuvAssertText( !ourIsBuilder, "!ourIsBuilder", "the manager is used while it is being built" );
    SourceBinding::reach( nullptr, "" );
    // Waits for another thread that is building it.
    return ManagerSingleton::ptr( ConfigManagerSingletonPtrMutex );
}

ConfigManager::ConfigManager()
    : mySemaphore( ourSegmentName, 1 )
{
    const Mt::MutexLock lock( myMutex );
    Mt::SemaphoreLock semaphoreLock( &mySemaphore );
    mySharedMemoryPtr = std::make_unique< Io::SharedMemory >( ourSegmentName, sizeof( Data ),
                                                              Io::SharedMemory::readWrite );
    myDataPtr = reinterpret_cast< Data* >( mySharedMemoryPtr->memoryPtr() );
    mySettings.load( Io::Pathname( Io::Pathname::rootDirectory, "etc/log.conf" ).str() );
    Drain::ourTimeMode.store( mySettings.timeMode(), std::memory_order_relaxed );
    myFacility = mySettings.facility();
    if ( mySharedMemoryPtr->isCreated() )
        initialiseSegment();
    semaphoreLock.unlock();
    if ( mySettings.isLogAppEnabled() )
        openLogApp();
}

/// The segment is new, that is zero-filled.
void ConfigManager::initialiseSegment()
{
    myDataPtr->myOverrideSeverity = none;
    if ( !mySettings.isLogAppEnabled() )
        return;
    const ZoneName name = mySettings.logAppName();
    myDataPtr->myZones[0] = Zone{ none, 0, name, name };
    __atomic_store_n( &myDataPtr->myNbrOfZones, 1, __ATOMIC_RELEASE );
    myZoneMap[name] = &myDataPtr->myZones[0];
}

void ConfigManager::openLogApp()
{
    myLogAppDrainPtr = makeOwnDrain( mySettings.logAppName(), mySettings.logAppOptions() );
    const Drain::Options options = mySettings.fifoOptions();
    myFifoDrainName = options.fileName.c_str();
    myInterprocessDrainPtr = makeOwnDrain( myFifoDrainName, options );
    myIsLogAppEnabled = true;
}

namespace {

// What other threads may still use while the process exits is never destroyed.
Drain* ourRetiredDrainsPtr = nullptr;

/// Zones for which the shared table has no room. With the manager's mutex held.
std::list< Zone >& localZones()
{
    static std::list< Zone >& ourZones = *new std::list< Zone >;
    return ourZones;
}

} // namespace

void ConfigManager::retire( Drain* drainPtr )
{
    if ( drainPtr != nullptr )
        drainPtr->myNextRetiredPtr = std::exchange( ourRetiredDrainsPtr, drainPtr );
}

/// With the manager's own reference, which it never gives back.
std::unique_ptr< Drain > ConfigManager::makeOwnDrain( const DrainName& name,
                                                      const Drain::Options& options )
{
    auto drainPtr = std::make_unique< Drain >( name.cStr(), options, 0 );
    myDrainMap[name] = drainPtr.get();
    drainPtr->myReferenceCount = 1;
    return drainPtr;
}

ConfigManager::~ConfigManager()
{
    {
        const Mt::MutexLock bindingLock( ourBindingMutex );
        ourIsComplete.store( false, std::memory_order_release );
        ourIsEnded = true;
    }
    const Mt::MutexLock lock( myMutex );
    for ( Source* const sourcePtr : mySources )
        sourcePtr->unbind();
    Mt::SemaphoreLock semaphoreLock( &mySemaphore, Mt::SemaphoreLock::stateUnlocked );
    semaphoreLock.lockOrLog(); // if it is gone, there is nobody to be kept out
    if ( myInterprocessDrainPtr != nullptr )
        myInterprocessDrainPtr->close();
    mySharedMemoryPtr->detachLeavingCopy();
    mySharedMemoryPtr.reset();
    for ( const auto& [name, drainPtr] : myDrainMap ) {
        drainPtr->leaveSharedMemory();
        if ( drainPtr != myLogAppDrainPtr.get() && drainPtr != myInterprocessDrainPtr.get() )
            retire( drainPtr );
    }
    retire( myInterprocessDrainPtr.release() );
    retire( myLogAppDrainPtr.release() );
}

// -------------------------------------------------------------------------------------- zones

int ConfigManager::Data::nbrOfZones() const
{
    return std::clamp( __atomic_load_n( &myNbrOfZones, __ATOMIC_ACQUIRE ), 0, maxNbrOfZones );
}

int ConfigManager::Data::nbrOfPresets() const
{
    return std::min< int >( __atomic_load_n( &myNbrOfPresets, __ATOMIC_ACQUIRE ), maxNbrOfPresets );
}

namespace {

/// A severity as it may stand in damaged shared memory.
Severity sound( std::int32_t severity )
{
    return static_cast< Severity >( std::clamp< std::int32_t >( severity, debug, none ) );
}

} // namespace

Zone* ConfigManager::openZone( const char* namePtr )
{
    const ZoneName name( namePtr );
    const Mt::MutexLock lock( myMutex );
    const auto found = myZoneMap.find( name );
    if ( found != myZoneMap.end() )
        return found->second;
    return myZoneMap[name] = findOrCreateZone( name );
}

Zone* ConfigManager::findOrCreateZone( const ZoneName& name )
{
    const Mt::SemaphoreLock semaphoreLock( &mySemaphore );
    Zone* zonePtr = nullptr;
    if ( getZonePtr( name, &zonePtr ) ) {
        zonePtr->severity( sound( zonePtr->severity() ) );
        return zonePtr;
    }
    const Zone zone = newZone( name );
    if ( zonePtr == nullptr )
        return &localZones().emplace_back( zone );
    *zonePtr = zone;
    __atomic_store_n( &myDataPtr->myNbrOfZones, myDataPtr->nbrOfZones() + 1, __ATOMIC_RELEASE );
    return zonePtr;
}

/// The settings of a zone that is created now.
Zone ConfigManager::newZone( const ZoneName& name ) const
{
    Zone zone = mySettings.zone( name );
    if ( myDataPtr->mySeverityOverrideSet != 0 )
        zone.mySeverity = sound( myDataPtr->myOverrideSeverity );
    if ( myDataPtr->myFlagsOverrideSet != 0 )
        zone.myFlags = myDataPtr->myOverrideFlags;
    if ( myIsLogAppEnabled && zone.myDrainName != DrainName( ourSyslogDrainName ) )
        zone.myDrainName = myFifoDrainName;
    if ( const Preset* const presetPtr = findPreset( name ) )
        zone.mySeverity = sound( presetPtr->mySeverity );
    return zone;
}

bool ConfigManager::getZonePtr( const ZoneName& name, Zone** outPtr )
{
    Zone* const endPtr = myDataPtr->myZones + myDataPtr->nbrOfZones();
    *outPtr = std::find_if( myDataPtr->myZones, endPtr,
                            [&name]( const Zone& zone ) { return zone.myName == name; } );
    if ( *outPtr != endPtr )
        return true;
    if ( endPtr == myDataPtr->myZones + Data::maxNbrOfZones )
        *outPtr = nullptr;
    return false;
}

const ConfigManager::Preset* ConfigManager::findPreset( const ZoneName& name ) const
{
    const Preset* const firstPtr = myDataPtr->myPresets;
    const Preset* const endPtr = firstPtr + myDataPtr->nbrOfPresets();
    const Preset* const foundPtr = std::find_if(
        firstPtr, endPtr, [&name]( const Preset& preset ) { return preset.myName == name; } );
    return foundPtr == endPtr ? nullptr : foundPtr;
}

bool ConfigManager::storePreset( const ZoneName& name, Severity severity )
{
    const int count = myDataPtr->nbrOfPresets();
    if ( const Preset* const foundPtr = findPreset( name ) ) {
        myDataPtr->myPresets[foundPtr - myDataPtr->myPresets].mySeverity = severity;
        return true;
    }
    if ( count == Data::maxNbrOfPresets )
        return false;
    myDataPtr->myPresets[count] = Preset{ name, severity };
    __atomic_store_n( &myDataPtr->myNbrOfPresets, static_cast< std::uint16_t >( count + 1 ),
                      __ATOMIC_RELEASE );
    return true;
}

/// Applies the change to the zone of that name, or to all but the log application's own.
template < class Change >
void ConfigManager::changeZones( const char* zoneNamePtr, const Change& change )
{
    const int first = zoneNamePtr == nullptr && myIsLogAppEnabled ? 1 : 0;
    const ZoneName name( zoneNamePtr == nullptr ? "" : zoneNamePtr );
    const int count = myDataPtr->nbrOfZones();
    for ( int i = first; i < count; ++i ) {
        if ( zoneNamePtr == nullptr || myDataPtr->myZones[i].myName == name )
            change( myDataPtr->myZones[i] );
    }
    for ( Zone& zone : localZones() ) {
        if ( zoneNamePtr == nullptr || zone.myName == name )
            change( zone );
    }
}

bool ConfigManager::zoneSeverity( Severity severity, const char* zoneNamePtr )
{
    nuvAssert( severity >= debug && severity <= none );
    const Mt::MutexLock lock( myMutex );
    const Mt::SemaphoreLock semaphoreLock( &mySemaphore );
    changeZones( zoneNamePtr, [severity]( Zone& zone ) { zone.severity( severity ); } );
    if ( zoneNamePtr != nullptr )
        return storePreset( ZoneName( zoneNamePtr ), severity );
    myDataPtr->mySeverityOverrideSet = 1;
    myDataPtr->myOverrideSeverity = severity;
    return true;
}

void ConfigManager::zoneFlags( unsigned int flags, const char* zoneNamePtr )
{
    const Mt::MutexLock lock( myMutex );
    const Mt::SemaphoreLock semaphoreLock( &mySemaphore );
    changeZones( zoneNamePtr, [flags]( Zone& zone ) { zone.flags( flags ); } );
    if ( zoneNamePtr != nullptr )
        return;
    myDataPtr->myFlagsOverrideSet = 1;
    myDataPtr->myOverrideFlags = flags;
}

// ------------------------------------------------------------------------------------- drains

void ConfigManager::bind( Source& source, const char* zoneNamePtr )
{
    const Mt::MutexLock lock( myMutex );
    Zone* const zonePtr = openZone( zoneNamePtr );
    const DrainName drainName( zonePtr->myDrainName.view() );
    Drain* const drainPtr = openDrain( drainName.cStr() );
    try {
        mySources.insert( &source );
    } catch ( ... ) {
        closeDrain( drainPtr );
        throw;
    }
    if ( drainPtr->options().type == Drain::Options::http )
        __atomic_fetch_and( &zonePtr->myFlags, ~ourFlagsOfHttpRequest, __ATOMIC_RELAXED );
    source.myDrainPtr.store( drainPtr, std::memory_order_release );
    source.myZonePtr.store( zonePtr, std::memory_order_release );
}

void ConfigManager::bindStandard()
{
    const Mt::MutexLock lock( myMutex );
    bindStandardSources();
}

void ConfigManager::release( Source& source )
{
    const Mt::MutexLock lock( myMutex );
    Drain* const drainPtr = source.drainPtr();
    mySources.erase( &source );
    source.unbind();
    closeDrain( drainPtr );
}

Drain* ConfigManager::openDrain( const char* namePtr )
{
    const DrainName name( namePtr );
    const Mt::MutexLock lock( myMutex );
    Drain*& drainPtr = myDrainMap[name];
    if ( drainPtr == nullptr || drainPtr->myReferenceCount == 0 ) {
        try {
            Drain::Options options;
            getDrainOptions( name, &options );
            if ( drainPtr == nullptr )
                drainPtr = new Drain( name.cStr(), options, myFacility );
            else
                drainPtr->open( options, myFacility );
        } catch ( ... ) {
            if ( drainPtr == nullptr )
                myDrainMap.erase( name );
            throw;
        }
    }
    ++drainPtr->myReferenceCount;
    return drainPtr;
}

void ConfigManager::closeDrain( Drain* drainPtr )
{
    if ( drainPtr == nullptr )
        return;
    const Mt::MutexLock lock( myMutex );
    if ( drainPtr->myReferenceCount > 0 && --drainPtr->myReferenceCount == 0 )
        drainPtr->close();
}

void ConfigManager::getDrainOptions( const DrainName& name, Drain::Options* optionsPtr ) const
{
    mySettings.drainOptions( name, optionsPtr );
}

unsigned int ConfigManager::fifoOverrunCount( LogAppHelper::ClearMode mode )
{
    return mode == LogAppHelper::clearCount
               ? Drain::ourFifoOverrunCount.exchange( 0, std::memory_order_relaxed )
               : Drain::ourFifoOverrunCount.load( std::memory_order_relaxed );
}

Io::InterprocessFifo* ConfigManager::interprocessFifoPtr() const
{
    nuvAssert( myInterprocessDrainPtr != NULL );
    return myInterprocessDrainPtr->fifoPtr();
}

Drain* ConfigManager::logAppDrainPtr() const
{
    nuvAssert( myLogAppDrainPtr != NULL );
    return myLogAppDrainPtr.get();
}

// --------------------------------------------------------------------------------------- fork

namespace {

/// A recursive mutex taken before the fork is not this thread's in the child, so that exit() does
/// not open it: it tells a checker of locks alone.
void renew( Mt::Mutex& mutex ) NUV_NO_THREAD_SAFETY_ANALYSIS
{
    mutex.exit();
    new ( &mutex ) Mt::Mutex();
}

} // namespace

template < class Action >
void ConfigManager::forEachDrain( const Action& action )
{
    for ( const auto& [name, drainPtr] : myDrainMap )
        action( *drainPtr );
    // Not in the map if the FIFO's drain has its name.
    if ( myLogAppDrainPtr != nullptr )
        action( *myLogAppDrainPtr );
}

// In the order of locking. The drains' mutexes are not taken: one may be held for as long as an
// output takes. What they guard is sound for the child at every moment, see
// Drain::afterForkInChild().
void ConfigManager::prepareFork() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    ConfigManagerSingletonPtrMutex.enter();
    ourBindingMutex.enter();
    if ( ConfigManager* const managerPtr = ManagerSingleton::ptrIfBuilt() )
        managerPtr->myMutex.enter();
    StandardSourceSetSingletonPtrMutex.enter();
}

void ConfigManager::afterForkInParent() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    StandardSourceSetSingletonPtrMutex.exit();
    if ( ConfigManager* const managerPtr = ManagerSingleton::ptrIfBuilt() ) {
        managerPtr->forEachDrain( []( Drain& drain ) { drain.afterForkInParent(); } );
        managerPtr->myMutex.exit();
    }
    ourBindingMutex.exit();
    ConfigManagerSingletonPtrMutex.exit();
}

void ConfigManager::afterForkInChild()
{
    renew( StandardSourceSetSingletonPtrMutex );
    if ( ConfigManager* const managerPtr = ManagerSingleton::ptrIfBuilt() ) {
        renew( managerPtr->myMutex );
        managerPtr->forEachDrain( []( Drain& drain ) { drain.afterForkInChild(); } );
    }
    if ( ourIsUnderConstruction && !ourIsBuilder ) {
        // By a thread that the child does not have, and so are the sources that wait for it.
        ourIsUnderConstruction = false;
        ourIsComplete.store( ManagerSingleton::ptrIfBuilt() != nullptr, std::memory_order_relaxed );
        pendingSources().clear();
    }
    renew( ourBindingMutex );
    renew( ConfigManagerSingletonPtrMutex );
}

/// At start-up, before there are threads: a fork may come at any time after the first lock.
NUV_STARTUP bool ConfigManager::watchForks()
{
    // What these handlers lock comes behind the manager's mutex; before a fork the newest handler
    // runs first.
    Io::UmaskScope::watchForks();
    Drain::registerForkHandlers();
    return ::pthread_atfork( &prepareFork, &afterForkInParent, &afterForkInChild ) == 0;
}

const bool ConfigManager::ourWatchesForks = ConfigManager::watchForks();

// ------------------------------------------------------------------------------- LogAppHelper

bool LogAppHelper::zoneSeverity( const char* severityKeywordPtr, const char* zoneNamePtr )
{
    Severity severity;
    return severityFromKeyword( severityKeywordPtr, &severity ) &&
           ConfigManager::singletonPtr()->zoneSeverity( severity, zoneNamePtr );
}

void LogAppHelper::zoneFlags( unsigned int flags, const char* zoneNamePtr )
{
    ConfigManager::singletonPtr()->zoneFlags( flags, zoneNamePtr );
}

unsigned int LogAppHelper::fifoOverrunCount( ClearMode mode )
{
    return ConfigManager::singletonPtr()->fifoOverrunCount( mode );
}

Io::InterprocessFifo* LogAppHelper::interprocessFifoPtr()
{
    return ConfigManager::singletonPtr()->interprocessFifoPtr();
}

} // namespace Nuv::Log
