#include "nuvThrottledLog.h"

#include "nuvSingleton.h"

namespace Nuv::Log {

extern Mt::Mutex ThrottledLogMgrSingletonPtrMutex;
Mt::Mutex ThrottledLogMgrSingletonPtrMutex;

ThrottledLogEntry::ThrottledLogEntry( const SourceSet& sourceSet, const char* categoryPtr,
                                      unsigned int intervalInSeconds )
    : mySourceSetPtr( &sourceSet )
    , myCategory( categoryPtr )
    , myIntervalInSeconds( intervalInSeconds )
{
}

unsigned int ThrottledLogEntry::count() const
{
    const Mt::MutexLock lock( myMutex );
    return myCount;
}

ThrottleLogHelper::ThrottleLogHelper( Severity severity,
                                      ThrottledLogEntry* entryPtr ) NUV_NO_THREAD_SAFETY_ANALYSIS
    : mySeverity( severity ),
      myEntryPtr( entryPtr ),
      myLock( entryPtr->myMutex )
{
    ++entryPtr->myCount;
    if ( severity < debug || severity > fatal )
        return;
    const Source& source = entryPtr->mySourceSetPtr->source( severity );
    myUnthrottled = myEmit = entryPtr->mySourceSetPtr->source( debug ).mayEmit();
    if ( !myUnthrottled && source.mayEmit() )
        myEmit = isDue();
    if ( myEmit )
        myLogStreamPtr = &myHelper.emplace( source ).logStream();
}

bool ThrottleLogHelper::isDue() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    const std::uint64_t lastEmitTime = myEntryPtr->myLastEmitTime;
    myNow = Utils::Time().ns();
    if ( lastEmitTime == 0 || myNow < lastEmitTime )
        return true;
    myElapsedSeconds = ( myNow - lastEmitTime ) / Utils::Time::nsPerSec;
    return myElapsedSeconds >= myEntryPtr->myIntervalInSeconds;
}

ThrottleLogHelper::~ThrottleLogHelper() NUV_NO_THREAD_SAFETY_ANALYSIS
{
    if ( !myEmit || myUnthrottled )
        return;
    Utils::OBufferStream& stream = *myLogStreamPtr;
    stream.flags( std::ios_base::dec ); // whatever the text has set
    stream.width( 0 );
    stream << "\nMessages, like this one, in the category - " << myEntryPtr->myCategory
           << " - were logged " << myEntryPtr->myCount << " times in the last " << myElapsedSeconds
           << " seconds.";
    myEntryPtr->myCount = 0;
    myEntryPtr->myLastEmitTime = myNow;
}

ThrottledLogMgr* ThrottledLogMgr::singletonPtr()
{
    return Utils::Singleton< ThrottledLogMgr >::ptr( ThrottledLogMgrSingletonPtrMutex );
}

ThrottledLogMgr::EntryPtr ThrottledLogMgr::createThrottledEntry( const char* keyPtr,
                                                                 const SourceSet& sourceSet,
                                                                 const char* categoryPtr,
                                                                 unsigned int intervalInSeconds )
{
    EntryPtr entryPtr( new ThrottledLogEntry( sourceSet, categoryPtr, intervalInSeconds ) );
    const Mt::MutexLock lock( myMutex );
    myEntries.insert_or_assign( keyPtr, entryPtr );
    return entryPtr;
}

ThrottledLogMgr::EntryPtr ThrottledLogMgr::getThrottledEntry( const char* keyPtr ) const
{
    const Mt::MutexLock lock( myMutex );
    const auto i = myEntries.find( keyPtr );
    return i != myEntries.end() ? i->second : EntryPtr();
}

void ThrottledLogMgr::deleteThrottledEntry( const char* keyPtr )
{
    const Mt::MutexLock lock( myMutex );
    const auto i = myEntries.find( keyPtr );
    if ( i != myEntries.end() )
        myEntries.erase( i );
}

} // namespace Nuv::Log
