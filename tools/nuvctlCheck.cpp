#include "nuvctlCheck.h"

#include "nuvPathname.h"

#include <iostream>

namespace Nuv::Ctl {

namespace {

using Io::Pathname;

/// What is checked of one file.
struct CheckedFile
{
    std::string myPath;
    bool myIsThere = false;
    std::vector< Mistake > myMistakes;
};

void addRemarks( const Utils::Config::Remarks& remarks, std::vector< Mistake >* mistakesPtr )
{
    for ( const Utils::Config::Remark& remark : remarks )
        mistakesPtr->push_back(
            { remark.lineNbr, remark.section, remark.key, remark.reasonStr() } );
}

CheckedFile check( const std::string& path, const std::string& root )
{
    CheckedFile file;
    file.myPath = path;
    Utils::Config config;
    Utils::Config::Remarks remarks;
    file.myIsThere = config.loadChecked( path, &remarks );
    addRemarks( remarks, &file.myMistakes );
    const Pathname pathname{ Utils::String( path ) };
    if ( pathname.nameStr() == Utils::Config::masterConfFileNameCStr )
        checkMasterConfiguration( config, &file.myMistakes );
    else if ( pathname.nameStr() == "log.conf" )
        checkLogConfiguration( config, root, &file.myMistakes );
    else if ( pathname.nameStr() == "mainApp.conf" )
        checkMainAppConfiguration( config, &file.myMistakes );
    else if ( pathname.nameStr() == "boot.info" && file.myIsThere )
        checkBootInfo( config, &file.myMistakes );
    return file;
}

std::vector< std::string > filesOfInstallation( const std::string& root )
{
    const std::string masterName = Utils::Config::masterConfFileNameCStr;
    const Pathname etc( Io::FileSystem::pathnameOfSystemEtc() );
    const Pathname home( Io::FileSystem::pathnameOfUserHome() );
    std::vector< std::string > files = { Pathname( etc, masterName ).str(),
                                         Pathname( home, masterName ).str() };
    const Pathname rootPathname{ Utils::String( root ) };
    for ( const char* namePtr : { "etc/log.conf", "etc/mainApp.conf", "etc/boot.info" } )
        files.push_back( Pathname( rootPathname, namePtr ).str() );
    return files;
}

void print( const CheckedFile& file )
{
    if ( !file.myIsThere ) {
        std::cout << file.myPath << ": cannot be read: the defaults hold\n";
        return;
    }
    for ( const Mistake& mistake : file.myMistakes ) {
        std::cout << file.myPath;
        if ( mistake.myLineNbr != 0 )
            std::cout << ':' << mistake.myLineNbr;
        std::cout << ": ";
        if ( !mistake.mySection.empty() )
            std::cout << '[' << printable( mistake.mySection ) << "] ";
        if ( !mistake.myKey.empty() )
            std::cout << '"' << printable( mistake.myKey ) << "\": ";
        std::cout << printable( mistake.myText ) << '\n';
    }
    if ( file.myMistakes.empty() )
        std::cout << file.myPath << ": no mistake found\n";
}

Json toJson( const CheckedFile& file )
{
    Json json = { { "file", file.myPath }, { "read", file.myIsThere } };
    json["mistakes"] = Json::array();
    for ( const Mistake& mistake : file.myMistakes )
        json["mistakes"].push_back(
            { { "line", mistake.myLineNbr != 0 ? Json( mistake.myLineNbr ) : Json( nullptr ) },
              { "section", mistake.mySection },
              { "key", mistake.myKey },
              { "text", mistake.myText } } );
    return json;
}

} // namespace

int checkConfiguration( const CommonOptions& common, const std::string& file )
{
    const std::string root = Installation::find().myRoot;
    std::vector< CheckedFile > files;
    for ( const std::string& path :
          file.empty() ? filesOfInstallation( root ) : std::vector< std::string >{ file } )
        files.push_back( check( path, root ) );
    bool isGood = true;
    Json document = Json::array();
    for ( const CheckedFile& checked : files ) {
        // Of the installation's own files each may be absent; a file that was named may not.
        isGood = isGood && checked.myMistakes.empty() && ( file.empty() || checked.myIsThere );
        document.push_back( toJson( checked ) );
        if ( !common.myJson )
            print( checked );
    }
    if ( common.myJson )
        printJson( document );
    return isGood ? good : problem;
}

} // namespace Nuv::Ctl
