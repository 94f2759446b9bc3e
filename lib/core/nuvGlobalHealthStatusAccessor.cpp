#include "nuvGlobalHealthStatusAccessor.h"

#include "nuvGlobal.h"
#include "nuvTime.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace Nuv::HealthAndSecurity {

namespace {

// Fills the field with the text's first 64 characters and NULs; null is the empty text.
void setText( char ( &field )[maxNbrOfTextChars + 1], const char* textPtr )
{
    const std::size_t length = textPtr == nullptr ? 0 : ::strnlen( textPtr, maxNbrOfTextChars );
    std::memset( field, 0, sizeof( field ) );
    if ( length != 0 )
        std::memcpy( field, textPtr, length );
}

} // namespace

BaseStatusSetter::BaseStatusSetter()
    : myCommonStatus()
{
}

BaseStatusSetter::~BaseStatusSetter() = default;

void BaseStatusSetter::setExtendedExecutionStatus( ExtendedExecutionStates state,
                                                   unsigned int parameter0, unsigned int parameter1,
                                                   unsigned int parameter2, unsigned int parameter3,
                                                   const char* textPtr )
{
    const unsigned int parameters[] = { parameter0, parameter1, parameter2, parameter3 };
    myCommonStatus.executionState = state;
    std::copy( std::begin( parameters ), std::end( parameters ),
               myCommonStatus.executionParameters );
    setText( myCommonStatus.statusText, textPtr );
}

void BaseStatusSetter::setExecutionState( ExtendedExecutionStates state )
{
    setExtendedExecutionStatus( state, 0, 0, 0, 0, nullptr );
}

void BaseStatusSetter::commitToSharedMemory()
{
    myCommonStatus.commitTime = Utils::Time().ns();
    commitToSharedMemoryImpl();
}

void MainAppStatusSetter::commitToSharedMemoryImpl()
{
    Utils::Global::singletonPtr()->setMainAppStatus( commonStatus() );
}

void VirtualSensorStatusSetter::virtualStatusPtr( VirtualSensorStatus* statusPtr )
{
    nuvAssert( statusPtr != NULL );
    myVirtualStatusPtr = statusPtr;
    statusPtr->flag = 0;
    statusPtr->name[0] = '\0';
    for ( TopService& service : statusPtr->topServices ) {
        service.values[0] = 0;
        service.values[1] = 0;
    }
}

void VirtualSensorStatusSetter::name( const char* namePtr )
{
    nuvAssert( myVirtualStatusPtr != NULL );
    setText( myVirtualStatusPtr->name, namePtr );
}

void VirtualSensorStatusSetter::setBucketStatus( BucketName bucket, unsigned int value0,
                                                 unsigned int value1, unsigned int value2,
                                                 unsigned int value3, unsigned int value4,
                                                 unsigned int value5, unsigned int value6 )
{
    nuvAssert( myVirtualStatusPtr != NULL );
    nuvAssert( bucket < nbrOfBuckets );
    const unsigned int values[] = { value0, value1, value2, value3, value4, value5, value6 };
    std::copy( std::begin( values ), std::end( values ), myVirtualStatusPtr->buckets[bucket] );
}

void VirtualSensorStatusSetter::setTopService( unsigned int serviceNumber,
                                               TopService::ProtocolType protocol,
                                               unsigned int value0, unsigned int value1 )
{
    nuvAssert( myVirtualStatusPtr != NULL );
    nuvAssert( serviceNumber < maxNbrOfTopServices );
    myVirtualStatusPtr->topServices[serviceNumber] = { protocol, { value0, value1 } };
}

SensorStatusSetter::SensorStatusSetter()
    : myStatusPtr( std::make_unique< SensorStatus >() )
{
    for ( unsigned int i = 0; i < maxNbrOfVirtualsSensors; ++i ) {
        myVirtualSensorSetters[i].virtualStatusPtr( &myStatusPtr->virtualSensors[i] );
    }
}

SensorStatusSetter::~SensorStatusSetter() = default;

VirtualSensorStatusSetter& SensorStatusSetter::virtualSensorSetter( unsigned int vsNumber )
{
    nuvAssert( vsNumber < maxNbrOfVirtualsSensors );
    return myVirtualSensorSetters[vsNumber];
}

void SensorStatusSetter::commitToSharedMemoryImpl()
{
    Utils::Global::singletonPtr()->setSensorStatus( commonStatus(), *myStatusPtr );
}

} // namespace Nuv::HealthAndSecurity
