#include "nuvctlCheck.h"

#include "nuvLogDrain.h"
#include "nuvPathname.h"
#include "nuvSocket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstring>
#include <deque>
#include <grp.h>
#include <initializer_list>
#include <map>
#include <optional>
#include <unistd.h>

namespace Nuv::Ctl {

namespace {

using Utils::Config;
using Node = Config::Node;
using KnownKeys = std::initializer_list< const char* >;

constexpr std::size_t nbrOfNameCharacters = 15; // by which zones and drains are told apart

std::string lowerCase( std::string text )
{
    std::transform( text.begin(), text.end(), text.begin(), []( char c ) {
        return static_cast< char >( std::tolower( static_cast< unsigned char >( c ) ) );
    } );
    return text;
}

std::string inQuotes( const std::string& text )
{
    return "\"" + text + "\"";
}

/// Checks the values of one section and collects what is wrong.
class Section
{
public:
    Section( const Node& node, std::vector< Mistake >* mistakesPtr )
        : myNode( node )
        , myMistakesPtr( mistakesPtr )
    {
    }

    void add( const std::string& key, const std::string& text ) const
    {
        myMistakesPtr->push_back( { 0, myNode.path(), key, text } );
    }

    void keys( KnownKeys known ) const;
    void sections( KnownKeys known ) const;
    /// A section that differs from the known one in upper and lower case alone; others may be
    /// another reader's.
    void similarSections( const char* knownPtr ) const;
    /// The key, if it is there, has one of the words.
    void word( const char* keyPtr, KnownKeys words, const char* consequencePtr,
               bool anyCase ) const;
    /// The key, if it is there, is an integer in the range.
    void number( const char* keyPtr, int least, int most ) const;
    void boolean( const char* keyPtr ) const;
    std::optional< std::string > text( const char* keyPtr ) const
    {
        const Config::Value* const valuePtr = myNode.findValue( keyPtr );
        return valuePtr != nullptr ? std::optional( valuePtr->text ) : std::nullopt;
    }
    /// A key that another type of drain has, but not this one.
    void unused( const char* keyPtr, const std::string& type ) const
    {
        if ( text( keyPtr ) )
            add( keyPtr, "has no meaning for the type " + inQuotes( type ) );
    }

private:
    static std::string unknown( const std::string& name, KnownKeys known );

    const Node& myNode;
    std::vector< Mistake >* myMistakesPtr;
};

std::string Section::unknown( const std::string& name, KnownKeys known )
{
    for ( const char* wordPtr : known ) {
        if ( lowerCase( name ) == lowerCase( wordPtr ) )
            return std::string( "unknown; upper and lower case differ: meant is " ) +
                   inQuotes( wordPtr );
    }
    return "unknown: it is not read";
}

void Section::keys( KnownKeys known ) const
{
    for ( const auto& [key, value] : myNode.values() ) {
        const auto isKey = [&key = key]( const char* wordPtr ) { return key == wordPtr; };
        if ( std::none_of( known.begin(), known.end(), isKey ) )
            add( key, unknown( key, known ) );
    }
}

void Section::sections( KnownKeys known ) const
{
    for ( const auto& [name, childPtr] : myNode.children() ) {
        const auto isName = [&name = name]( const char* wordPtr ) { return name == wordPtr; };
        if ( std::none_of( known.begin(), known.end(), isName ) )
            myMistakesPtr->push_back(
                { 0, childPtr->path(), "", "section " + unknown( name, known ) } );
    }
}

void Section::similarSections( const char* knownPtr ) const
{
    for ( const auto& [name, childPtr] : myNode.children() ) {
        if ( name != knownPtr && lowerCase( name ) == lowerCase( knownPtr ) )
            myMistakesPtr->push_back(
                { 0, childPtr->path(), "", "section " + unknown( name, { knownPtr } ) } );
    }
}

void Section::word( const char* keyPtr, KnownKeys words, const char* consequencePtr,
                    bool anyCase ) const
{
    const std::optional< std::string > value = text( keyPtr );
    if ( !value )
        return;
    const std::string found = anyCase ? lowerCase( *value ) : *value;
    std::string all;
    for ( const char* wordPtr : words ) {
        if ( found == wordPtr )
            return;
        all += ( all.empty() ? "" : ", " ) + std::string( wordPtr );
    }
    add( keyPtr, inQuotes( *value ) + " is none of " + all + ": " + consequencePtr );
}

void Section::number( const char* keyPtr, int least, int most ) const
{
    const Config::Value* const valuePtr = myNode.findValue( keyPtr );
    if ( valuePtr == nullptr )
        return;
    if ( valuePtr->type != Config::Value::integer )
        add( keyPtr, inQuotes( valuePtr->text ) + " is no number: the default is taken" );
    else if ( valuePtr->number < least || valuePtr->number > most )
        add( keyPtr, valuePtr->text + " is out of the range " + std::to_string( least ) + " to " +
                         std::to_string( most ) );
}

void Section::boolean( const char* keyPtr ) const
{
    const Config::Value* const valuePtr = myNode.findValue( keyPtr );
    if ( valuePtr != nullptr &&
         myNode.boolValue( keyPtr, false ) != myNode.boolValue( keyPtr, true ) )
        add( keyPtr,
             inQuotes( valuePtr->text ) + " is neither true nor false: the default is taken" );
}

/// Checks log.conf.
class LogCheck
{
public:
    LogCheck( const Config& config, const std::string& root, std::vector< Mistake >* mistakesPtr )
        : myConfig( config )
        , myLogDirectory( Io::Pathname( Utils::String( root ) ), "log" )
        , myMistakesPtr( mistakesPtr )
    {
    }

    void run();

private:
    /// Calls function( name, node ) for every section below the one named; a name may hold '/'.
    template < class F >
    void forEachBelow( const char* sectionPtr, F function ) const;
    void logApp( const Node& node );
    void zone( const std::string& name, const Node& node );
    void drain( const std::string& name, const Node& node );
    void fileDrain( const std::string& name, const Section& section );
    void file( const Section& section, const char* keyPtr, const std::string& fileName,
               const std::string& drainName );
    void equalNames( const char* kindPtr, const std::vector< std::string >& names ) const;

    const Config& myConfig;
    const Io::Pathname myLogDirectory;
    std::vector< Mistake >* myMistakesPtr;
    std::vector< std::string > myZoneNames;
    std::vector< std::string > myDrainNames;
    std::map< std::string, std::string > myFiles; // pathname, drain that writes it
};

template < class F >
void LogCheck::forEachBelow( const char* sectionPtr, F function ) const
{
    const Node* const topPtr = myConfig.findKey( sectionPtr );
    if ( topPtr == nullptr )
        return;
    std::deque< std::pair< std::string, const Node* > > pending;
    for ( const auto& [name, childPtr] : topPtr->children() )
        pending.emplace_back( name, childPtr );
    while ( !pending.empty() ) {
        const auto [name, nodePtr] = pending.front();
        pending.pop_front();
        if ( !nodePtr->values().empty() || nodePtr->children().empty() )
            function( name, *nodePtr );
        for ( const auto& [below, childPtr] : nodePtr->children() )
            pending.emplace_back( name + "/" + below, childPtr );
    }
}

void LogCheck::run()
{
    const Section root( myConfig.root(), myMistakesPtr );
    root.keys( { "timemode" } );
    root.sections( { "logApp", "syslog", "zone", "drain" } );
    root.word( "timemode", { "local", "utc" }, "local time is taken", false );
    if ( const Node* const nodePtr = myConfig.findKey( "logApp" ) )
        logApp( *nodePtr );
    if ( const Node* const nodePtr = myConfig.findKey( "syslog" ) ) {
        const Section syslog( *nodePtr, myMistakesPtr );
        syslog.keys( { "facility" } );
        syslog.sections( {} );
        syslog.word( "facility",
                     { "local0", "local1", "local2", "local3", "local4", "local5", "local6",
                       "local7", "user" },
                     "local6 is taken", false );
    }
    for ( const char* namePtr : { "zone", "drain" } ) {
        if ( const Node* const nodePtr = myConfig.findKey( namePtr ) )
            Section( *nodePtr, myMistakesPtr ).keys( {} );
    }
    forEachBelow( "drain",
                  [this]( const std::string& name, const Node& node ) { drain( name, node ); } );
    forEachBelow( "zone",
                  [this]( const std::string& name, const Node& node ) { zone( name, node ); } );
    equalNames( "zone", myZoneNames );
    equalNames( "drain", myDrainNames );
}

void LogCheck::logApp( const Node& node )
{
    const Section section( node, myMistakesPtr );
    section.keys( { "enabled", "zoneAndDrainName", "fileName", "fileMaxSizeInK", "fifoName",
                    "fifoSizeInK" } );
    section.sections( {} );
    section.word( "enabled", { "true", "false" }, "the log application stays disabled", false );
    section.number( "fileMaxSizeInK", 0, 4194303 );
    section.number( "fifoSizeInK", 1, 4194303 );
    if ( section.text( "enabled" ) != "true" )
        return;
    const std::string name = section.text( "zoneAndDrainName" ).value_or( "logApp" );
    myZoneNames.push_back( name );
    myDrainNames.push_back( name );
    myDrainNames.push_back( section.text( "fifoName" ).value_or( "logAppFifo" ) );
    file( section, "fileName", section.text( "fileName" ).value_or( "main.log" ), name );
}

void LogCheck::zone( const std::string& name, const Node& node )
{
    myZoneNames.push_back( name );
    const Section section( node, myMistakesPtr );
    section.keys( { "severity", "flags", "drain" } );
    section.word( "severity", { "debug", "timing", "warning", "error", "fatal", "none" },
                  "warning is taken", true );
    const std::string flags = section.text( "flags" ).value_or( "" );
    for ( std::size_t begin = 0;
          ( begin = flags.find_first_not_of( ",;+ \t", begin ) ) != std::string::npos; ) {
        const std::size_t end = std::min( flags.find_first_of( ",;+ \t", begin ), flags.size() );
        const std::string flag = flags.substr( begin, end - begin );
        if ( Log::zoneFlagFromKeyword( lowerCase( flag ).c_str() ) == 0 )
            section.add( "flags", "unknown word " + inQuotes( flag ) + ": it is ignored" );
        begin = end;
    }
    const std::string drainName = section.text( "drain" ).value_or( "main" );
    if ( drainName != "main" && myConfig.findKey( "drain/" + drainName ) == nullptr )
        section.add( "drain",
                     "there is no section drain/" + drainName + ": the file main.log is taken" );
}

void LogCheck::drain( const std::string& name, const Node& node )
{
    myDrainNames.push_back( name );
    const Section section( node, myMistakesPtr );
    section.keys( { "type", "fileName", "fileMaxSizeInK", "remotePort", "remoteAddr" } );
    section.word( "type", { "null", "stderr", "stdout", "file", "syslog", "http" },
                  "the drain is a file", true );
    Log::Drain::Options::Type type = Log::Drain::Options::file;
    const std::string word = lowerCase( section.text( "type" ).value_or( "file" ) );
    Log::Drain::typeFromKeyword( word.c_str(), &type );
    if ( type == Log::Drain::Options::file ) {
        fileDrain( name, section );
    } else {
        section.unused( "fileName", word );
        section.unused( "fileMaxSizeInK", word );
    }
    if ( type != Log::Drain::Options::http ) {
        section.unused( "remotePort", word );
        section.unused( "remoteAddr", word );
        return;
    }
    section.number( "remotePort", 1, 65535 );
    in_addr address{};
    const std::string text = section.text( "remoteAddr" ).value_or( "127.1.128.1" );
    if ( ::inet_pton( AF_INET, text.c_str(), &address ) != 1 ) {
        section.add( "remoteAddr", inQuotes( text ) + " is no dotted address" );
        return;
    }
    const unsigned int port = node.uIntValue( "remotePort", 80 );
    if ( port < 1 || port > 0xFFFF )
        return;
    try {
        Net::TcpSocket socket( AF_INET, SOCK_STREAM, 0 );
        socket.connect( Net::IpV4Address( static_cast< std::uint16_t >( port ), address ), 2000 );
    } catch ( const Net::SocketException& e ) {
        section.add( "remoteAddr", "no server answers at " + text + ":" + std::to_string( port ) +
                                       ": " + std::strerror( e.errorNbr() ) );
    }
}

void LogCheck::fileDrain( const std::string& name, const Section& section )
{
    section.number( "fileMaxSizeInK", 0, 4194303 );
    file( section, "fileName", section.text( "fileName" ).value_or( name + ".log" ), name );
}

void LogCheck::file( const Section& section, const char* keyPtr, const std::string& fileName,
                     const std::string& drainName )
{
    const Io::Pathname pathname( myLogDirectory, fileName );
    const Io::Pathname parent( pathname.parentStr() );
    const std::string& path = pathname.str();
    if ( fileName.empty() || !pathname.isValid() || pathname.isDirectory() ||
         ( pathname.exists() && !pathname.isFile() ) )
        section.add( keyPtr, "the drain cannot be opened: " + path + " is no regular file" );
    else if ( pathname.exists() && pathname.writeableLevel() != 7 )
        section.add( keyPtr,
                     "the drain cannot be opened by this user: " + path + " is not writable" );
    else if ( !pathname.exists() && myLogDirectory.isDirectory() &&
              ( !parent.isDirectory() || ::access( parent.cStr(), W_OK ) != 0 ) )
        section.add( keyPtr, "the drain cannot be opened: " + path + " cannot be created" );
    const auto [iter, isNew] = myFiles.emplace( path, drainName );
    if ( !isNew && iter->second != drainName )
        section.add( keyPtr, "the drain " + iter->second + " writes the same file" );
}

void LogCheck::equalNames( const char* kindPtr, const std::vector< std::string >& names ) const
{
    std::map< std::string, std::string > firsts;
    for ( const std::string& name : names ) {
        const auto [iter, isNew] = firsts.emplace( name.substr( 0, nbrOfNameCharacters ), name );
        if ( !isNew && iter->second != name )
            myMistakesPtr->push_back( { 0, std::string( kindPtr ) + "/" + name, "",
                                        "equals " + inQuotes( iter->second ) +
                                            " in the first 15 characters: they are one " +
                                            kindPtr } );
    }
}

} // namespace

void checkMasterConfiguration( const Config& config, std::vector< Mistake >* mistakesPtr )
{
    const Section root( config.root(), mistakesPtr );
    root.keys( { Io::Pathname::ourIxoRootPathnameToken, "groupName" } );
    root.sections( { "WinNt" } );
    const std::string path = root.text( Io::Pathname::ourIxoRootPathnameToken ).value_or( "/" );
    if ( path.empty() || path[0] != '/' )
        root.add( Io::Pathname::ourIxoRootPathnameToken,
                  inQuotes( path ) + " is relative: every process starts from its own directory" );
    const std::string group = root.text( "groupName" ).value_or( "" );
    if ( !group.empty() && ::getgrnam( group.c_str() ) == nullptr )
        root.add( "groupName", "there is no group " + inQuotes( group ) );
    if ( const Node* const nodePtr = config.findKey( "WinNt" ) ) {
        const Section section( *nodePtr, mistakesPtr );
        section.keys( { "includeSelf", "includeAdministrators", "includeLocalSystem" } );
        section.sections( {} );
        for ( const char* keyPtr :
              { "includeSelf", "includeAdministrators", "includeLocalSystem" } )
            section.boolean( keyPtr );
    }
}

void checkLogConfiguration( const Config& config, const std::string& root,
                            std::vector< Mistake >* mistakesPtr )
{
    LogCheck( config, root, mistakesPtr ).run();
}

void checkMainAppConfiguration( const Config& config, std::vector< Mistake >* mistakesPtr )
{
    constexpr const char* name = "ControlTransaction";
    constexpr const char* key = "maxWaitTimeForPipeRead";
    Section( config.root(), mistakesPtr ).similarSections( name );
    const Node* const nodePtr = config.findKey( name );
    if ( nodePtr == nullptr )
        return;
    const Section section( *nodePtr, mistakesPtr );
    section.keys( { key } );
    section.number( key, 1, 86400 );
}

void checkBootInfo( const Config& config, std::vector< Mistake >* mistakesPtr )
{
    const Section root( config.root(), mistakesPtr );
    root.similarSections( "Platform" );
    const std::string model = config.stringValue( "Platform", "model", "" );
    if ( model.empty() ) {
        mistakesPtr->push_back(
            { 0, "Platform", "model", "names no model, so that there are no capabilities" } );
        return;
    }
    const Node* const nodePtr = config.findKey( model + "/Capabilities" );
    if ( nodePtr == nullptr ) {
        root.similarSections( model.c_str() );
        mistakesPtr->push_back( { 0, model + "/Capabilities", "",
                                  "there is no such section, so that the model has no "
                                  "capabilities" } );
        return;
    }
    const Section section( *nodePtr, mistakesPtr );
    for ( const auto& [key, value] : nodePtr->values() ) {
        if ( nodePtr->boolValue( key, false ) != nodePtr->boolValue( key, true ) )
            section.add( key, inQuotes( value.text ) +
                                  " is neither true nor false: the capability is absent" );
    }
}

} // namespace Nuv::Ctl
