#pragma once

#include "nuvHealthRecords.h"

#include <array>
#include <memory>

namespace Nuv::HealthAndSecurity {

/// Fills a private copy of an application's health record and publishes it as a whole.
///
/// Threads: one at a time; one process writes each record. See VersionedRecord for readers.
/// Errors:  committing attaches the segment "global-data" on first use, whose resource failures
///          pass through.
class NUV_API BaseStatusSetter
{
public:
    BaseStatusSetter();
    BaseStatusSetter( const BaseStatusSetter& ) = delete;
    BaseStatusSetter& operator=( const BaseStatusSetter& ) = delete;
    virtual ~BaseStatusSetter();

protected:
    virtual void commitToSharedMemoryImpl() = 0;

public:
    /// @param textPtr its first 64 characters; null gives the empty text
    void setExtendedExecutionStatus( ExtendedExecutionStates state, unsigned int parameter0,
                                     unsigned int parameter1, unsigned int parameter2,
                                     unsigned int parameter3, const char* textPtr );
    /// The same with four zeros and no text.
    void setExecutionState( ExtendedExecutionStates state );

    /// Stamps the record with the time and publishes it: no lock, no allocation.
    void commitToSharedMemory();

    const CommonAppStatus& commonStatus() const { return myCommonStatus; }

private:
    CommonAppStatus myCommonStatus;
};

/// The main application's record.
///
/// Example: MainAppStatusSetter s; s.setExecutionState( stateRunning ); s.commitToSharedMemory();
class NUV_API MainAppStatusSetter : public BaseStatusSetter
{
protected:
    void commitToSharedMemoryImpl() override;
};

/// Fills one virtual sensor's part of a sensor record, to which it is attached.
///
/// Threads: one at a time, as the record.
/// Errors:  attaching to null, and any other use before attaching, fails nuvAssert.
class NUV_API VirtualSensorStatusSetter
{
public:
    /// Attaches; empties flag and name and zeroes the values of the top services.
    /// @param statusPtr borrowed until the next call or the object's end
    void virtualStatusPtr( VirtualSensorStatus* statusPtr );

    /// @param namePtr its first 64 characters; null gives the empty name
    void name( const char* namePtr );
    /// @param bucket 0, 1 or 2, the caller's duty (nuvAssert)
    void setBucketStatus( BucketName bucket, unsigned int value0, unsigned int value1,
                          unsigned int value2, unsigned int value3, unsigned int value4,
                          unsigned int value5, unsigned int value6 );
    /// @param serviceNumber below 10: nuvAssert "serviceNumber < maxNbrOfTopServices"
    void setTopService( unsigned int serviceNumber, TopService::ProtocolType protocol,
                        unsigned int value0, unsigned int value1 );

private:
    VirtualSensorStatus* myVirtualStatusPtr = nullptr;
};

/// The sensor's record with its virtual sensors. A fresh setter's record is zero throughout.
class NUV_API SensorStatusSetter : public BaseStatusSetter
{
public:
    SensorStatusSetter();
    ~SensorStatusSetter() override;

    void setSensorLoadValue( unsigned int value ) { myStatusPtr->sensorLoadValue = value; }
    void setMemoryUsedPct( unsigned int percent ) { myStatusPtr->memoryUsedPct = percent; }
    void setMissedPacketPct( unsigned int percent ) { myStatusPtr->missedPacketPct = percent; }
    /// @param seconds since 1970-01-01 UTC, cut to 32 bits
    void setMeshrankTimeOfLastUpdateSuccess( long seconds )
    {
        myStatusPtr->meshrankTimeOfLastUpdateSuccess = static_cast< std::int32_t >( seconds );
    }
    void setMeshrankEnabled( bool enabled ) { myStatusPtr->meshrankEnabled = enabled ? 1 : 0; }
    void setFeedshareNumOfFailures( unsigned int number )
    {
        myStatusPtr->feedshareNumOfFailures = number;
    }
    /// @param vsNumber below 256: nuvAssert "vsNumber < maxNbrOfVirtualsSensors"
    VirtualSensorStatusSetter& virtualSensorSetter( unsigned int vsNumber );

    const SensorStatus& sensorStatus() const { return *myStatusPtr; }

protected:
    void commitToSharedMemoryImpl() override;

private:
    std::unique_ptr< SensorStatus > myStatusPtr;
    std::array< VirtualSensorStatusSetter, maxNbrOfVirtualsSensors > myVirtualSensorSetters;
};

} // namespace Nuv::HealthAndSecurity
