#include "nuvctl.h"

#include "nuvConfig.h"
#include "nuvPathname.h"

#include <algorithm>
#include <climits>
#include <iostream>
#include <unistd.h>

namespace Nuv::Ctl {

namespace {

using Io::Pathname;

// What stands in for an absent key; a root of that name counts as not configured.
constexpr const char* notConfigured = "???";

/// The root as the library finds it: the home directory's file has the last word.
void findRoot( const Pathname& etc, const Pathname& home, std::string* rootPtr,
               std::string* sourcePtr )
{
    const std::string fileName = Utils::Config::masterConfFileNameCStr;
    *rootPtr = Pathname( home, Pathname::ourDefaultIxoRootFileName ).str();
    *sourcePtr = std::string( "no \"" ) + Pathname::ourIxoRootPathnameToken + "\" in " +
                 Pathname( etc, fileName ).str() + " or " + Pathname( home, fileName ).str();
    Utils::Config merged;
    for ( const Pathname& directory : { etc, home } ) {
        const Pathname file( directory, fileName );
        Utils::Config own;
        own.loadFrom( file.str() );
        if ( own.root().findValue( Pathname::ourIxoRootPathnameToken ) == nullptr )
            continue;
        merged.loadFrom( file.str() );
        const std::string text =
            merged.stringValue( "", Pathname::ourIxoRootPathnameToken, notConfigured );
        if ( text == notConfigured )
            continue;
        *rootPtr = Pathname( text ).str();
        *sourcePtr =
            std::string( "\"" ) + Pathname::ourIxoRootPathnameToken + "\" in " + file.str();
    }
}

std::string ownExecutable()
{
    char text[PATH_MAX];
    const ssize_t length = ::readlink( "/proc/self/exe", text, sizeof( text ) );
    return length > 0 ? std::string( text, static_cast< std::size_t >( length ) ) : std::string();
}

std::string kindOfFile( const std::string& path )
{
    const Pathname pathname{ Utils::String( path ) };
    if ( pathname.isDirectory() )
        return "directory";
    if ( pathname.isFile() )
        return "file";
    return pathname.exists() ? "other" : "missing";
}

} // namespace

Installation Installation::find()
{
    const Pathname etc( Io::FileSystem::pathnameOfSystemEtc() );
    const Pathname home( Io::FileSystem::pathnameOfUserHome() );
    Installation installation;
    std::string source;
    findRoot( etc, home, &installation.myRoot, &source );
    const char* const homePtr = ::getenv( "HOME" );
    installation.myIpcDirectory =
        Pathname( Pathname( Utils::String( installation.myRoot ) ), "tmp/ipc" ).str();
    installation.myEntries = {
        { "rootDirectory", installation.myRoot, source },
        { "systemEtcDirectory", etc.str(), "fixed" },
        { "userHomeDirectory", home.str(), homePtr != nullptr ? "HOME" : "HOME is not set" },
        { "executablePathname", ownExecutable(), "this program; every process has its own" },
        { "ipcDirectory", installation.myIpcDirectory, "\"tmp/ipc\" in the root" } };
    return installation;
}

int runPaths( const CommonOptions& common )
{
    const Installation installation = Installation::find();
    Table table( { "NAME", "PATHNAME", "IS", "FROM" } );
    Json document = Json::array();
    for ( const Installation::Entry& entry : installation.myEntries ) {
        const std::string kind = kindOfFile( entry.myPathname );
        table.add( { entry.myName, entry.myPathname, kind, entry.mySource } );
        document.push_back( { { "name", entry.myName },
                              { "pathname", entry.myPathname },
                              { "is", kind },
                              { "from", entry.mySource } } );
    }
    if ( common.myJson )
        printJson( document );
    else
        table.print();
    if ( kindOfFile( installation.myRoot ) == "directory" )
        return good;
    return complain( "the root does not exist: no process of this installation has run yet" );
}

namespace {

bool isNeededForLogging( const std::string& semaphoreName )
{
    return semaphoreName == "LogConfigManager" || semaphoreName == "shm_LogConfigManager" ||
           semaphoreName.find( "IpFifo_" ) != std::string::npos;
}

/// @return what is taken at this moment, with its holder; "" if nothing is
std::string takenLock( const Tools::Inventory& inventory,
                       std::initializer_list< const char* > alsoNeeded )
{
    const auto isNeeded = [&]( const std::string& name ) {
        return isNeededForLogging( name ) ||
               std::find( alsoNeeded.begin(), alsoNeeded.end(), name ) != alsoNeeded.end();
    };
    const auto text = [&]( const std::string& name, const Tools::SemaphoreState& state ) {
        return name + " is taken by process " + inventory.myProcesses.describe( state.myLastPid );
    };
    if ( inventory.myMaster && !inventory.myMaster->mySemaphores.empty() &&
         inventory.myMaster->mySemaphores[0].myValue == 0 )
        return text( "the master semaphore", inventory.myMaster->mySemaphores[0] );
    for ( const Tools::NamedSemaphore& semaphore : inventory.mySemaphores ) {
        if ( isNeeded( semaphore.myName ) && semaphore.isReadable() && semaphore.value() == 0 )
            return text( "semaphore " + semaphore.myName, semaphore.mySet->mySemaphores[0] );
    }
    return {};
}

} // namespace

bool refuseIfLocked( std::initializer_list< const char* > alsoNeeded )
{
    constexpr int nbrOfLooks = 20;
    std::string taken;
    for ( int i = 0; i < nbrOfLooks; ++i ) {
        taken =
            takenLock( Tools::Inventory::read( Installation::find().myIpcDirectory ), alsoNeeded );
        if ( taken.empty() )
            return true;
        ::usleep( 100000 );
    }
    complain( taken + "; see \"nuvctl ipc doctor\"" );
    return false;
}

} // namespace Nuv::Ctl
