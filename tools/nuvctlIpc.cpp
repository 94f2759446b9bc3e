#include "nuvctl.h"

#include "nuvIpcDoctor.h"
#include "nuvIpcRepair.h"

#include <algorithm>
#include <iostream>
#include <sstream>

namespace Nuv::Ctl {

namespace {

using Tools::Finding;
using Tools::Inventory;

constexpr unsigned int pauseBetweenLooksMs = 300;

std::string octal( unsigned int mode )
{
    std::ostringstream stream;
    stream << '0' << std::oct << mode;
    return stream.str();
}

std::string join( const std::vector< std::string >& texts )
{
    std::string result;
    for ( const std::string& text : texts )
        result += ( result.empty() ? "" : ", " ) + text;
    return result.empty() ? "-" : result;
}

Json lastProcess( const Inventory& inventory, int pid )
{
    if ( pid == 0 )
        return nullptr;
    const Tools::Process* const processPtr = inventory.myProcesses.find( pid );
    const bool isAlive = inventory.myProcesses.isAlive( pid );
    return {
        { "pid", pid },
        { "name", isAlive && processPtr != nullptr ? Json( processPtr->myName ) : Json( nullptr ) },
        { "alive", isAlive } };
}

std::string lastProcessText( const Inventory& inventory, int pid )
{
    return pid == 0 ? "-" : inventory.myProcesses.describe( pid );
}

// --- semaphores ---------------------------------------------------------------------------------

Json setJson( const Inventory& inventory, const Tools::SemaphoreSet& set )
{
    Json json = { { "setId", set.myId },
                  { "key", set.myKey },
                  { "mode", octal( set.myMode ) },
                  { "uid", set.myUid },
                  { "gid", set.myGid } };
    if ( !set.mySemaphores.empty() ) {
        json["value"] = set.mySemaphores[0].myValue;
        json["waiters"] = set.mySemaphores[0].myNbrOfWaiters;
        json["lastProcess"] = lastProcess( inventory, set.mySemaphores[0].myLastPid );
    }
    if ( set.mySemaphores.size() > 1 )
        json["useCount"] = set.mySemaphores[1].myValue;
    json["operationTime"] = set.myOperationTime;
    json["changeTime"] = set.myChangeTime;
    return json;
}

void addSet( const Inventory& inventory, const std::string& name,
             const std::optional< Tools::SemaphoreSet >& set, Table* tablePtr )
{
    if ( !set ) {
        tablePtr->add( { name, "no set" } );
        return;
    }
    std::string value = "?", useCount = "-", waiters = "?", last = "?";
    if ( !set->mySemaphores.empty() ) {
        value = std::to_string( set->mySemaphores[0].myValue );
        waiters = std::to_string( set->mySemaphores[0].myNbrOfWaiters );
        last = lastProcessText( inventory, set->mySemaphores[0].myLastPid );
    }
    if ( set->mySemaphores.size() > 1 )
        useCount = std::to_string( set->mySemaphores[1].myValue );
    tablePtr->add( { name, std::to_string( set->myId ), value, useCount, waiters, last,
                     ageText( inventory.myTime, set->myOperationTime ) } );
}

Table semaphoreTable( const Inventory& inventory )
{
    Table table( { "SEMAPHORE", "SET", "VALUE", "USERS", "WAITING", "LAST PROCESS", "LAST USED" } );
    if ( inventory.myMaster )
        addSet( inventory, "(master)", inventory.myMaster, &table );
    for ( const Tools::NamedSemaphore& semaphore : inventory.mySemaphores )
        addSet( inventory, semaphore.myName, semaphore.mySet, &table );
    for ( const Tools::SemaphoreSet& set : inventory.myStraySets )
        addSet( inventory, "(no key file)", set, &table );
    return table;
}

// --- segments -----------------------------------------------------------------------------------

std::vector< int > attachedPids( const Inventory& inventory, const Tools::Segment& segment )
{
    return inventory.myProcesses.attachedTo( segment.myId );
}

void addSegment( const Inventory& inventory, const std::string& name,
                 const Tools::Segment* segmentPtr, Table* tablePtr )
{
    if ( segmentPtr == nullptr ) {
        tablePtr->add( { name, "no segment" } );
        return;
    }
    std::vector< std::string > users;
    for ( const int pid : attachedPids( inventory, *segmentPtr ) )
        users.push_back( inventory.myProcesses.describe( pid ) );
    tablePtr->add( { name, std::to_string( segmentPtr->myId ), std::to_string( segmentPtr->mySize ),
                     std::to_string( segmentPtr->myNbrOfAttached ), join( users ),
                     lastProcessText( inventory, segmentPtr->myLastPid ),
                     ageText( inventory.myTime, segmentPtr->myChangeTime ) } );
}

Json segmentJson( const Inventory& inventory, const Tools::Segment& segment )
{
    return { { "segmentId", segment.myId },
             { "key", segment.myKey },
             { "mode", octal( segment.myMode ) },
             { "uid", segment.myUid },
             { "gid", segment.myGid },
             { "size", segment.mySize },
             { "useCount", segment.myNbrOfAttached },
             { "attached", attachedPids( inventory, segment ) },
             { "lastProcess", lastProcess( inventory, segment.myLastPid ) },
             { "createdTime", segment.myChangeTime } };
}

Table segmentTable( const Inventory& inventory )
{
    Table table(
        { "SEGMENT", "ID", "BYTES", "USERS", "ATTACHED PROCESSES", "LAST PROCESS", "AGE" } );
    for ( const Tools::NamedSegment& segment : inventory.mySegments )
        addSegment( inventory, segment.myName, segment.mySegment ? &*segment.mySegment : nullptr,
                    &table );
    for ( const Tools::Segment& segment : inventory.myStraySegments )
        addSegment( inventory, "(no key file)", &segment, &table );
    return table;
}

// --- FIFOs --------------------------------------------------------------------------------------

Table fifoTable( const Inventory& inventory )
{
    Table table( { "FIFO", "USERS", "OPEN IN", "AGE" } );
    for ( const Tools::NamedFifo& fifo : inventory.myFifos ) {
        int nbrOfUsers = 0;
        std::vector< std::string > users;
        for ( const auto& [pid, use] : fifo.myUsers ) {
            nbrOfUsers += std::max( use.myNbrOfReaders, use.myNbrOfWriters );
            users.push_back( inventory.myProcesses.describe( pid ) );
        }
        table.add( { fifo.myName, std::to_string( nbrOfUsers ), join( users ),
                     ageText( inventory.myTime, fifo.myFile.myChangeTime ) } );
    }
    return table;
}

Json fifosJson( const Inventory& inventory )
{
    Json fifos = Json::array();
    for ( const Tools::NamedFifo& fifo : inventory.myFifos ) {
        Json users = Json::array();
        for ( const auto& [pid, use] : fifo.myUsers )
            users.push_back( { { "pid", pid },
                               { "readers", use.myNbrOfReaders },
                               { "writers", use.myNbrOfWriters } } );
        fifos.push_back( { { "name", fifo.myName },
                           { "users", std::move( users ) },
                           { "changeTime", fifo.myFile.myChangeTime } } );
    }
    return fifos;
}

Json inventoryJson( const Inventory& inventory )
{
    Json document = { { "directory", inventory.myDirectory }, { "time", inventory.myTime } };
    document["master"] =
        inventory.myMaster ? setJson( inventory, *inventory.myMaster ) : Json( nullptr );
    document["semaphores"] = Json::array();
    for ( const Tools::NamedSemaphore& semaphore : inventory.mySemaphores ) {
        Json json = { { "name", semaphore.myName } };
        json.update( semaphore.mySet ? setJson( inventory, *semaphore.mySet )
                                     : Json( { { "setId", nullptr } } ) );
        document["semaphores"].push_back( std::move( json ) );
    }
    document["segments"] = Json::array();
    for ( const Tools::NamedSegment& segment : inventory.mySegments ) {
        Json json = { { "name", segment.myName } };
        json.update( segment.mySegment ? segmentJson( inventory, *segment.mySegment )
                                       : Json( { { "segmentId", nullptr } } ) );
        document["segments"].push_back( std::move( json ) );
    }
    document["fifos"] = fifosJson( inventory );
    document["straySets"] = Json::array();
    for ( const Tools::SemaphoreSet& set : inventory.myStraySets )
        document["straySets"].push_back( setJson( inventory, set ) );
    document["straySegments"] = Json::array();
    for ( const Tools::Segment& segment : inventory.myStraySegments )
        document["straySegments"].push_back( segmentJson( inventory, segment ) );
    document["otherFiles"] = Json::array();
    for ( const Tools::IpcFile& file : inventory.myOtherFiles )
        document["otherFiles"].push_back( file.myFileName );
    return document;
}

// --- findings -----------------------------------------------------------------------------------

Json findingJson( const Finding& finding )
{
    return { { "kind", kindKeyword( finding.myKind ) },
             { "certainty", certaintyKeyword( finding.myCertainty ) },
             { "object", finding.myObject },
             { "text", finding.myText },
             { "repair", finding.myRepair.empty() ? Json( nullptr ) : Json( finding.myRepair ) } };
}

void printFinding( const Finding& finding )
{
    std::cout << certaintyKeyword( finding.myCertainty ) << ": " << printable( finding.myObject )
              << ' ' << printable( finding.myText ) << '\n';
    if ( !finding.myRepair.empty() )
        std::cout << "    repair: " << finding.myRepair << '\n';
}

std::ptrdiff_t nbrOfProblems( const std::vector< Finding >& findings )
{
    return std::count_if( findings.begin(), findings.end(), []( const Finding& finding ) {
        return finding.myCertainty != Finding::note;
    } );
}

bool isConfirmed( const Finding& finding )
{
    printFinding( finding );
    std::cout << "    repair it? [y/N] " << std::flush;
    std::string answer;
    std::getline( std::cin, answer );
    if ( std::cin.eof() )
        std::cout << '\n';
    return answer == "y" || answer == "Y" || answer == "yes";
}

int reportRepair( const CommonOptions& common, const std::vector< Tools::RepairStep >& steps,
                  const std::vector< Finding >& left )
{
    const bool allDone = std::all_of( steps.begin(), steps.end(),
                                      []( const Tools::RepairStep& step ) { return step.myDone; } );
    const std::ptrdiff_t nbrLeft = nbrOfProblems( left );
    if ( common.myJson ) {
        Json document = { { "steps", Json::array() }, { "left", Json::array() } };
        for ( const Tools::RepairStep& step : steps ) {
            Json json = findingJson( step.myFinding );
            json["done"] = step.myDone;
            json["outcome"] = step.myOutcome;
            document["steps"].push_back( std::move( json ) );
        }
        for ( const Finding& finding : left )
            document["left"].push_back( findingJson( finding ) );
        printJson( document );
    } else {
        for ( const Tools::RepairStep& step : steps )
            std::cout << printable( step.myFinding.myObject ) << ": " << step.myFinding.myRepair
                      << ": " << step.myOutcome << '\n';
        if ( steps.empty() )
            std::cout << "nothing was repaired\n";
        for ( const Finding& finding : left ) {
            std::cout << "left: ";
            printFinding( finding );
        }
    }
    return allDone && nbrLeft == 0 ? good : problem;
}

} // namespace

int listIpc( const CommonOptions& common )
{
    const Inventory inventory = Inventory::read( Installation::find().myIpcDirectory );
    if ( common.myJson ) {
        printJson( inventoryJson( inventory ) );
    } else {
        std::cout << inventory.myDirectory << "\n";
        for ( const Table& table :
              { semaphoreTable( inventory ), segmentTable( inventory ), fifoTable( inventory ) } ) {
            if ( table.isEmpty() )
                continue;
            std::cout << '\n';
            table.print();
        }
        for ( const Tools::IpcFile& file : inventory.myOtherFiles )
            std::cout << "\nnot an interprocess object: " << printable( file.myFileName ) << '\n';
        if ( const int nbr = inventory.myProcesses.nbrOfUnreadable(); nbr > 0 )
            std::cout << "\n"
                      << nbr << " processes could not be examined (run as root to see all)\n";
    }
    if ( inventory.myDirectoryExists )
        return good;
    return complain( inventory.myDirectory + " does not exist: no process has run here yet" );
}

int doctorIpc( const CommonOptions& common )
{
    Inventory inventory;
    const std::string directory = Installation::find().myIpcDirectory;
    const std::vector< Finding > findings =
        Tools::examine( directory, pauseBetweenLooksMs, &inventory );
    const std::ptrdiff_t nbr = nbrOfProblems( findings );
    if ( common.myJson ) {
        Json document = { { "directory", directory }, { "findings", Json::array() } };
        for ( const Finding& finding : findings )
            document["findings"].push_back( findingJson( finding ) );
        printJson( document );
    } else {
        for ( const Finding& finding : findings )
            printFinding( finding );
        if ( nbr == 0 )
            std::cout << "no problem found in " << directory << '\n';
        else
            std::cout << nbr << ( nbr == 1 ? " problem" : " problems" )
                      << " found; \"nuvctl ipc repair\" puts right what can be\n";
    }
    return nbr == 0 ? good : problem;
}

int repairIpc( const CommonOptions& common, bool yes )
{
    const std::string directory = Installation::find().myIpcDirectory;
    if ( common.myJson && !yes )
        return complain( "repair --json asks nothing: it needs --yes" ), wrongUsage;
    const auto approval = [yes]( const Finding& finding ) { return yes || isConfirmed( finding ); };
    Tools::Repair repair( directory, approval, {} );
    std::string error;
    const bool isAttempted = repair.run( &error );
    const std::vector< Finding > left = Tools::examine( directory, pauseBetweenLooksMs, nullptr );
    const int status = reportRepair( common, repair.steps(), left );
    return isAttempted ? status : complain( error );
}

} // namespace Nuv::Ctl
