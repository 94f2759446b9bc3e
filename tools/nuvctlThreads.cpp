#include "nuvctl.h"

#include "nuvSubsystemInfo.h"

#include <iostream>
#include <unistd.h>

namespace Nuv::Ctl {

namespace {

using Tools::Inventory;
using Tools::ThreadRecord;
using Info = Mt::SubsystemInfo;

/// A record as it is shown.
struct ThreadRow
{
    std::string myProcess; ///< the segment's name: that of the process
    ThreadRecord myRecord;
    bool myIsAlive = false; ///< its process is
    std::string myWait;
    int myHolder = 0; ///< process that last used what is waited for; 0: not known
};

const char* stateText( unsigned int state )
{
    switch ( state ) {
    case Info::stateNew:
        return "new";
    case Info::stateRunning:
        return "running";
    case Info::stateEndedNormally:
        return "ended";
    case Info::stateEndedByException:
        return "failed";
    case Info::stateCrashed:
        return "crashed";
    default:
        return "?";
    }
}

const char* waitKeyword( unsigned int kind )
{
    switch ( static_cast< Mt::WaitKind >( kind ) ) {
    case Mt::WaitKind::none:
        return "none";
    case Mt::WaitKind::masterSemaphore:
        return "master";
    case Mt::WaitKind::semaphore:
        return "semaphore";
    case Mt::WaitKind::events:
        return "events";
    }
    return "?";
}

/// The process that took a semaphore last.
int holderOf( const std::optional< Tools::SemaphoreSet >& set )
{
    return set && !set->mySemaphores.empty() ? set->mySemaphores[0].myLastPid : 0;
}

void addWait( const Inventory& inventory, ThreadRow* rowPtr )
{
    const ThreadRecord& record = rowPtr->myRecord;
    if ( record.myWaitKind == static_cast< unsigned int >( Mt::WaitKind::masterSemaphore ) ) {
        rowPtr->myWait = "master semaphore";
        rowPtr->myHolder = holderOf( inventory.myMaster );
    } else if ( record.myWaitKind == static_cast< unsigned int >( Mt::WaitKind::semaphore ) ) {
        const std::string name = inventory.nameOfSet( record.myWaitObject );
        const Tools::NamedSemaphore* const semaphorePtr = inventory.findSemaphore( name );
        rowPtr->myWait = name.empty() ? "set " + std::to_string( record.myWaitObject ) + " (gone)"
                                      : "semaphore " + name;
        if ( semaphorePtr != nullptr )
            rowPtr->myHolder = holderOf( semaphorePtr->mySet );
    } else if ( record.myWaitKind == static_cast< unsigned int >( Mt::WaitKind::events ) ) {
        rowPtr->myWait = "events";
    }
}

bool isWanted( const ThreadRow& row, const std::string& process )
{
    return process.empty() || row.myProcess == process ||
           std::to_string( row.myRecord.myPid ) == process;
}

std::vector< ThreadRow > wantedRows( const Inventory& inventory, const std::string& process )
{
    std::vector< ThreadRow > rows;
    for ( const ThreadRecord& record : inventory.myThreadRecords ) {
        ThreadRow row;
        row.myRecord = record;
        row.myProcess = record.mySegmentName.substr( record.mySegmentName.find( '_' ) + 1 );
        row.myIsAlive = inventory.myProcesses.isAlive( record.myPid );
        addWait( inventory, &row );
        if ( isWanted( row, process ) )
            rows.push_back( std::move( row ) );
    }
    return rows;
}

void printRows( const Inventory& inventory, const std::vector< ThreadRow >& rows )
{
    Table table(
        { "PROCESS", "PID", "NO", "THREAD", "STATE", "WAITS FOR", "LAST HOLDER", "STATUS" } );
    for ( const ThreadRow& row : rows ) {
        const ThreadRecord& record = row.myRecord;
        std::string state = stateText( record.myState );
        if ( !row.myIsAlive )
            state += " (process is dead)";
        table.add( { row.myProcess, std::to_string( record.myPid ),
                     std::to_string( record.myIndex ), record.myDescription, state, row.myWait,
                     row.myHolder != 0 ? inventory.myProcesses.describe( row.myHolder ) : "",
                     record.myStatusMessage } );
    }
    table.print();
}

Json rowsJson( const std::vector< ThreadRow >& rows )
{
    Json document = Json::array();
    for ( const ThreadRow& row : rows ) {
        const ThreadRecord& record = row.myRecord;
        const bool hasObject =
            record.myWaitKind == static_cast< unsigned int >( Mt::WaitKind::semaphore );
        document.push_back(
            { { "process", row.myProcess },
              { "pid", record.myPid },
              { "record", record.myIndex },
              { "alive", row.myIsAlive },
              { "state", stateText( record.myState ) },
              { "wait", waitKeyword( record.myWaitKind ) },
              { "waitSet", hasObject ? Json( record.myWaitObject ) : Json( nullptr ) },
              { "waitText", row.myWait },
              { "lastHolder", row.myHolder != 0 ? Json( row.myHolder ) : Json( nullptr ) },
              { "description", record.myDescription },
              { "status", record.myStatusMessage } } );
    }
    return document;
}

int showOnce( const CommonOptions& common, const ThreadsOptions& options )
{
    const Inventory inventory = Inventory::read( Installation::find().myIpcDirectory );
    const std::vector< ThreadRow > rows = wantedRows( inventory, options.myProcess );
    if ( common.myJson )
        printJson( rowsJson( rows ) );
    else
        printRows( inventory, rows );
    if ( !rows.empty() )
        return good;
    return complain( options.myProcess.empty()
                         ? "no thread records: no process of this installation runs"
                         : "no thread records of a process \"" + options.myProcess + "\"" );
}

} // namespace

int showThreads( const CommonOptions& common, const ThreadsOptions& options )
{
    if ( !options.myWatch )
        return showOnce( common, options );
    return watch( common, options.myIntervalMs, [&] { showOnce( common, options ); } );
}

} // namespace Nuv::Ctl
