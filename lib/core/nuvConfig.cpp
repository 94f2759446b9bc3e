#include "nuvConfig.h"

#include "nuvBuffer.h"
#include "nuvFileSystem.h"
#include "nuvString.h"

#include <charconv>
#include <fcntl.h>
#include <limits>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace Nuv::Utils {

// Sections

Config::Node::Node( std::string name, Node* parentPtr )
    : myName( std::move( name ) )
    , myParentPtr( parentPtr )
{
}

// A header line can nest as deep as it is long, so leaves are deleted one after the other.
Config::Node::~Node()
{
    Node* nodePtr = this;
    while ( nodePtr != this || !myChildren.empty() ) {
        if ( !nodePtr->myChildren.empty() ) {
            nodePtr = nodePtr->myChildren.begin()->second;
            continue;
        }
        Node* const parentPtr = nodePtr->myParentPtr;
        delete nodePtr;
        parentPtr->myChildren.erase( parentPtr->myChildren.begin() );
        nodePtr = parentPtr;
    }
}

Config::Node* Config::Node::addChild( std::string_view name )
{
    const auto pos = myChildren.lower_bound( name );
    if ( pos != myChildren.end() && pos->first == name )
        return pos->second;
    Ptr< Node > nodePtr( new Node( std::string( name ), this ) );
    myChildren.emplace_hint( pos, name, nodePtr.get() );
    return nodePtr.release();
}

Config::Value* Config::Node::addValue( std::string_view key )
{
    const auto pos = myValues.lower_bound( key );
    if ( pos != myValues.end() && pos->first == key )
        return &pos->second;
    return &myValues.emplace_hint( pos, key, Value() )->second;
}

void Config::Node::addTokenValuePair( std::string_view key, std::int32_t number )
{
    char digits[16];
    const auto end = std::to_chars( digits, digits + sizeof( digits ), number ).ptr;
    Value* const valuePtr = addValue( key );
    valuePtr->type = Value::integer;
    valuePtr->number = number;
    valuePtr->text.assign( digits, end );
}

void Config::Node::addTokenValuePair( std::string_view key, std::string text )
{
    Value* const valuePtr = addValue( key );
    valuePtr->type = Value::string;
    valuePtr->number = 0;
    valuePtr->text = std::move( text );
}

std::string Config::Node::path() const
{
    if ( myParentPtr == nullptr )
        return std::string();
    std::vector< const Node* > nodes;
    for ( const Node* nodePtr = this; nodePtr->myParentPtr != nullptr;
          nodePtr = nodePtr->myParentPtr ) {
        nodes.push_back( nodePtr );
    }
    std::string result = nodes.back()->myName;
    for ( auto i = nodes.rbegin() + 1; i != nodes.rend(); ++i ) {
        result.append( 1, '/' ).append( ( *i )->myName );
    }
    return result;
}

Config::Node* Config::Node::findChild( std::string_view name )
{
    const auto pos = myChildren.find( name );
    return pos == myChildren.end() ? nullptr : pos->second;
}

const Config::Node* Config::Node::findChild( std::string_view name ) const
{
    const auto pos = myChildren.find( name );
    return pos == myChildren.end() ? nullptr : pos->second;
}

const Config::Node* Config::Node::findChild( std::string_view name,
                                             Children::const_iterator* posPtr ) const
{
    *posPtr = myChildren.find( name );
    return *posPtr == myChildren.end() ? nullptr : ( *posPtr )->second;
}

const Config::Value* Config::Node::findValue( std::string_view key ) const
{
    const auto pos = myValues.find( key );
    return pos == myValues.end() ? nullptr : &pos->second;
}

int Config::Node::intValue( std::string_view key, int defaultValue ) const
{
    const Value* const valuePtr = findValue( key );
    return valuePtr != nullptr && valuePtr->type == Value::integer ? valuePtr->number
                                                                   : defaultValue;
}

unsigned int Config::Node::uIntValue( std::string_view key, unsigned int defaultValue ) const
{
    return static_cast< unsigned int >( intValue( key, static_cast< int >( defaultValue ) ) );
}

std::string Config::Node::stringValue( std::string_view key, std::string_view defaultValue ) const
{
    const Value* const valuePtr = findValue( key );
    return valuePtr != nullptr ? valuePtr->text : std::string( defaultValue );
}

namespace {

constexpr StaticMap< const char*, bool >::Pair ourBoolPairs[] = {
    { "F", false }, { "FALSE", false }, { "N", false }, { "NO", false },
    { "T", true },  { "TRUE", true },   { "Y", true },  { "YES", true },
    { "f", false }, { "false", false }, { "n", false }, { "no", false },
    { "t", true },  { "true", true },   { "y", true },  { "yes", true },
};
static_assert( StaticMap< const char*, bool >( ourBoolPairs ).isSorted() );

} // namespace

constinit const StaticMap< const char*, bool > Config::ourCstrToBoolMap( ourBoolPairs );

bool Config::Node::boolValue( std::string_view key, bool defaultValue ) const
{
    const Value* const valuePtr = findValue( key );
    if ( valuePtr == nullptr )
        return defaultValue;
    if ( valuePtr->type == Value::integer )
        return valuePtr->number != 0;
    const auto i = ourCstrToBoolMap.find( std::string_view( valuePtr->text ) );
    return i != ourCstrToBoolMap.end() ? i->value : defaultValue;
}

// Reading

namespace {

constexpr std::size_t minReadSize = 4096;
constexpr std::string_view ourBlanks = " \t";
constexpr std::string_view ourTrimSet = " \r\n\t";

std::string_view trimmed( std::string_view text )
{
    const std::size_t start = text.find_first_not_of( ourTrimSet );
    if ( start == std::string_view::npos )
        return std::string_view();
    return text.substr( start, text.find_last_not_of( ourTrimSet ) - start + 1 );
}

bool isDigit( char c )
{
    return c >= '0' && c <= '9';
}

// As strtol() with base 0, the whole text, without the limits of a 32-bit long.
bool parseInteger( std::string_view text, std::int32_t* numberPtr )
{
    const bool isNegative = text[0] == '-';
    if ( isNegative || text[0] == '+' )
        text.remove_prefix( 1 );
    int base = 10;
    if ( text.size() > 2 && text[0] == '0' && ( text[1] == 'x' || text[1] == 'X' ) ) {
        base = 16;
        text.remove_prefix( 2 );
    } else if ( !text.empty() && text[0] == '0' ) {
        base = 8;
    }
    const char* const endPtr = text.data() + text.size();
    std::uint32_t magnitude = 0;
    const auto result = std::from_chars( text.data(), endPtr, magnitude, base );
    const std::uint32_t limit = std::numeric_limits< std::int32_t >::max();
    if ( result.ec != std::errc() || result.ptr != endPtr ||
         magnitude > ( isNegative ? limit : limit - 1 ) )
        return false;
    const std::int32_t number = static_cast< std::int32_t >( magnitude );
    *numberPtr = isNegative ? -number : number;
    return true;
}

std::string unescaped( std::string_view text )
{
    std::string result;
    result.reserve( text.size() );
    for ( std::size_t i = 0; i < text.size(); ++i ) {
        char c = text[i];
        if ( c == '\\' && i + 1 < text.size() ) {
            c = text[++i];
            c = c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
        }
        result.push_back( c );
    }
    return result;
}

// Whether the first word is a number that intValue() will not give: out of range, "08", "0b1",
// "10k".
bool looksLikeNumber( std::string_view text )
{
    std::string_view word = text.substr( 0, text.find_first_of( " \t#;," ) );
    if ( word[0] == '+' || word[0] == '-' )
        word.remove_prefix( 1 );
    if ( word.empty() || !isDigit( word[0] ) )
        return false;
    const auto isLetter = []( char c ) { return ( c | 0x20 ) >= 'a' && ( c | 0x20 ) <= 'z'; };
    const auto isPrefix = [&word] {
        return word.size() > 2 && word[0] == '0' && std::string_view( "xXbB" ).find( word[1] ) < 4;
    };
    if ( isPrefix() )
        return true;
    const auto unit = std::find_if_not( word.begin(), word.end(), isDigit );
    return word.end() - unit <= 3 && std::all_of( unit, word.end(), isLetter );
}

// What is done with remarks: nothing at all on the reading path ...
struct NoRemarks
{
    static constexpr bool isWanted = false;
};

// ... or they are collected.
struct CollectRemarks
{
    static constexpr bool isWanted = true;

    Config::Remarks* myRemarksPtr;
    std::map< const Config::Node*, std::set< std::string, std::less<> > > myKeys =
        {}; // of this load
};

// Reads the lines of one text into the tree.
template < class Policy >
class Reader
{
public:
    Reader( Config::Node* rootPtr, Policy policy )
        : myRootPtr( rootPtr )
        , myNodePtr( rootPtr )
        , myPolicy( std::move( policy ) )
    {
    }

    void read( std::string_view text )
    {
        while ( !text.empty() ) {
            const std::size_t length = std::min( text.find( '\n' ), text.size() );
            ++myLineNbr;
            myLine = trimmed( text.substr( 0, length ) );
            readLine();
            text.remove_prefix( std::min( length + 1, text.size() ) );
        }
    }

private:
    using Reason = Config::Remark::Reason;
    using enum Config::Remark::Reason;

    void readLine()
    {
        if ( myLine.empty() || myLine[0] == '#' || myLine[0] == ';' )
            return;
        if ( myLine[0] == '[' )
            readHeader();
        else
            readPair();
    }

    void readHeader()
    {
        const std::string_view separators = "]/";
        Config::Node* nodePtr = myRootPtr;
        std::size_t start = myLine.find_first_not_of( separators, 1 );
        while ( start != std::string_view::npos ) {
            const std::size_t stop =
                std::min( myLine.find_first_of( separators, start ), myLine.size() );
            nodePtr = nodePtr->addChild( myLine.substr( start, stop - start ) );
            start = myLine.find_first_not_of( separators, stop );
        }
        myNodePtr = nodePtr;
        const std::size_t closing = myLine.rfind( ']' );
        remarkIf( closing == std::string_view::npos, unclosedHeader );
        remarkIf( closing < myLine.size() - 1, textAfterHeader );
    }

    void readPair()
    {
        const std::string_view keyEnd = "= \t";
        const std::size_t start = myLine.find_first_not_of( keyEnd );
        if ( start == std::string_view::npos )
            return remarkIf( true, noKey );
        const std::size_t stop = std::min( myLine.find_first_of( keyEnd, start ), myLine.size() );
        myKey = myLine.substr( start, stop - start );
        remarkIfOverwritten();
        const std::size_t equals = myLine.find( '=' );
        const std::size_t value = equals == std::string_view::npos
                                      ? std::string_view::npos
                                      : myLine.find_first_not_of( ourBlanks, equals + 1 );
        remarkIf( equals == std::string_view::npos, noEquals );
        remarkIf( equals != std::string_view::npos && hasWordsBefore( stop, equals ),
                  wordsBeforeEquals );
        if ( value == std::string_view::npos )
            myNodePtr->addTokenValuePair( myKey, std::string() );
        else
            readValue( myLine.substr( value ) );
        myKey = std::string_view();
    }

    void readValue( std::string_view text )
    {
        if ( text[0] == '"' )
            return readQuoted( text );
        if ( text[0] == '+' || text[0] == '-' || isDigit( text[0] ) ) {
            std::int32_t number = 0;
            if ( parseInteger( text, &number ) )
                return myNodePtr->addTokenValuePair( myKey, number );
            if constexpr ( Policy::isWanted )
                remarkIf( looksLikeNumber( text ), numberAsText );
        }
        myNodePtr->addTokenValuePair( myKey, std::string( text ) );
    }

    void readQuoted( std::string_view text )
    {
        const std::size_t closing = text.rfind( '"' );
        remarkIf( closing == 0, unclosedQuote );
        remarkIf( closing != 0 && closing + 1 != text.size(), textAfterQuote );
        myNodePtr->addTokenValuePair(
            myKey, closing == 0 ? std::string() : unescaped( text.substr( 1, closing - 1 ) ) );
    }

    // Whether anything but blanks stands between the key and the '=' behind it.
    bool hasWordsBefore( std::size_t keyStop, std::size_t equals ) const
    {
        if constexpr ( Policy::isWanted )
            return myLine.find_first_not_of( ourBlanks, keyStop ) < equals;
        return false;
    }

    void remarkIfOverwritten()
    {
        if constexpr ( Policy::isWanted ) {
            auto& keys = myPolicy.myKeys[myNodePtr];
            remarkIf( !keys.emplace( myKey ).second, keyOverwritten );
        }
    }

    void remarkIf( bool applies, Reason reason )
    {
        if constexpr ( Policy::isWanted ) {
            if ( applies )
                myPolicy.myRemarksPtr->push_back( { myLineNbr, reason, myNodePtr->path(),
                                                    std::string( myKey ), std::string( myLine ) } );
        }
    }

    Config::Node* myRootPtr;
    Config::Node* myNodePtr; // the current section
    [[no_unique_address]] Policy myPolicy;
    unsigned int myLineNbr = 0;
    std::string_view myLine;
    std::string_view myKey;
};

Buffer textOf( std::istream& stream )
{
    BufferOStreamBuf text;
    char block[8192];
    do {
        stream.read( block, sizeof( block ) );
        text.write( block, static_cast< std::size_t >( stream.gcount() ) );
    } while ( stream.good() );
    return text.takeBuffer();
}

// False if there is no such file or it cannot be read from its begin.
bool readFile( const std::string& fileName, Buffer* textPtr )
{
    const Handle handle(
        retryOnEintr( [&] { return ::open( fileName.c_str(), O_RDONLY | O_CLOEXEC ); } ) );
    struct stat status;
    if ( !handle.isValid() || ::fstat( handle, &status ) != 0 )
        return false;
    if ( status.st_size >= off_t( Buffer::maxSize ) )
        throw std::bad_alloc();
    // The size is a hint: files of /proc have none, and a file may grow while it is read.
    std::size_t room = std::max( static_cast< std::size_t >( status.st_size ) + 1, minReadSize );
    for ( std::size_t size = 0;; room = size ) {
        textPtr->resizeHelper( size + room, false, '\0' );
        const ssize_t n =
            retryOnEintr( [&] { return ::read( handle, textPtr->data() + size, room ); } );
        size += n > 0 ? static_cast< std::size_t >( n ) : 0;
        textPtr->resizeHelper( size, false, '\0' );
        if ( n <= 0 )
            return n == 0 || size > 0;
    }
}

// Loads the master file of the directory; a directory without a normal form has none.
void loadMaster( Config* configPtr, const String& directory )
{
    String path( directory + Io::FileSystem::ourNameSeparatorChar +
                 Config::masterConfFileNameCStr );
    if ( Io::FileSystem::normalize( &path ) != 0 )
        configPtr->loadFrom( path );
}

} // namespace

const char* Config::Remark::reasonStr() const
{
    static constexpr StaticMap< Reason, const char* >::Pair pairs[] = {
        { noKey, "no key: line ignored" },
        { noEquals, "no '=': the value is empty" },
        { wordsBeforeEquals, "text between key and '=' ignored" },
        { unclosedQuote, "quote not closed: the value is empty" },
        { textAfterQuote, "text behind the closing quote ignored" },
        { numberAsText, "reads as text, not as a number" },
        { keyOverwritten, "overwrites an earlier value of the key" },
        { unclosedHeader, "section header without ']'" },
        { textAfterHeader, "text behind ']' read as a section name" },
    };
    static constexpr StaticMap< Reason, const char* > map( pairs );
    static_assert( map.isSorted() );
    const auto i = map.find( reason );
    nuvAssert( i != map.end() );
    return i->value;
}

// Config

Config::Config()
{
    Ptr< Node > rootPtr( new Node( std::string() ) );
    mySections.emplace( std::string(), rootPtr.get() );
    rootPtr.release();
}

Config::Config( std::istream& stream )
    : Config()
{
    loadFrom( stream );
}

Config::Config( const std::string& fileName )
    : Config()
{
    if ( fileName != masterConfFileNameCStr ) {
        loadFrom( fileName );
        return;
    }
    loadMaster( this, Io::FileSystem::pathnameOfSystemEtc() );
    loadMaster( this, Io::FileSystem::pathnameOfUserHome() );
}

Config::~Config()
{
    delete mySections.begin()->second;
}

void Config::loadFrom( std::istream& stream )
{
    Reader( mySections.begin()->second, NoRemarks() ).read( textOf( stream ) );
}

bool Config::loadFrom( const std::string& fileName )
{
    Buffer text;
    if ( !readFile( fileName, &text ) )
        return false;
    Reader( mySections.begin()->second, NoRemarks() ).read( text );
    return true;
}

void Config::loadChecked( std::istream& stream, Remarks* remarksPtr )
{
    Reader( mySections.begin()->second, CollectRemarks{ remarksPtr } ).read( textOf( stream ) );
}

bool Config::loadChecked( const std::string& fileName, Remarks* remarksPtr )
{
    Buffer text;
    if ( !readFile( fileName, &text ) )
        return false;
    Reader( mySections.begin()->second, CollectRemarks{ remarksPtr } ).read( text );
    return true;
}

const Config::Node& Config::root() const
{
    return *mySections.begin()->second;
}

Config::KeyIterator Config::keyIterator( std::string_view path ) const
{
    KeyIterator section( mySections.begin(), mySections.end() );
    bool isMore = !path.empty();
    while ( isMore && section.isValid() ) {
        const std::size_t slash = path.find( '/' );
        const Children& children = section->second->children();
        section = KeyIterator( children.find( path.substr( 0, slash ) ), children.end() );
        isMore = slash != std::string_view::npos;
        path.remove_prefix( isMore ? slash + 1 : path.size() );
    }
    return section;
}

Config::Node* Config::findKey( std::string_view path )
{
    const KeyIterator section = keyIterator( path );
    return section.isValid() ? section->second : nullptr;
}

const Config::Node* Config::findKey( std::string_view path ) const
{
    const KeyIterator section = keyIterator( path );
    return section.isValid() ? section->second : nullptr;
}

Config::KeyIterator Config::begin( std::string_view path ) const
{
    return begin( keyIterator( path ) );
}

Config::KeyIterator Config::end( std::string_view path ) const
{
    return end( keyIterator( path ) );
}

// The empty range of a missing section is the end of the root's.
Config::KeyIterator Config::begin( const KeyIterator& section ) const
{
    if ( !section.isValid() )
        return end( section );
    const Children& children = section->second->children();
    return KeyIterator( children.begin(), children.end() );
}

Config::KeyIterator Config::end( const KeyIterator& section ) const
{
    const Children& children = ( section.isValid() ? *section->second : root() ).children();
    return KeyIterator( children.end(), children.end() );
}

Config::Values::const_iterator Config::tspBegin( std::string_view path ) const
{
    return tspBegin( keyIterator( path ) );
}

Config::Values::const_iterator Config::tspEnd( std::string_view path ) const
{
    return tspEnd( keyIterator( path ) );
}

Config::Values::const_iterator Config::tspBegin( const KeyIterator& section ) const
{
    return section.isValid() ? section->second->values().begin() : root().values().end();
}

Config::Values::const_iterator Config::tspEnd( const KeyIterator& section ) const
{
    return ( section.isValid() ? *section->second : root() ).values().end();
}

int Config::intValue( const KeyIterator& section, std::string_view key, int defaultValue ) const
{
    return section.isValid() ? section->second->intValue( key, defaultValue ) : defaultValue;
}

int Config::intValue( std::string_view path, std::string_view key, int defaultValue ) const
{
    return intValue( keyIterator( path ), key, defaultValue );
}

unsigned int Config::uIntValue( const KeyIterator& section, std::string_view key,
                                unsigned int defaultValue ) const
{
    return section.isValid() ? section->second->uIntValue( key, defaultValue ) : defaultValue;
}

unsigned int Config::uIntValue( std::string_view path, std::string_view key,
                                unsigned int defaultValue ) const
{
    return uIntValue( keyIterator( path ), key, defaultValue );
}

std::string Config::stringValue( const KeyIterator& section, std::string_view key,
                                 std::string_view defaultValue ) const
{
    return section.isValid() ? section->second->stringValue( key, defaultValue )
                             : std::string( defaultValue );
}

std::string Config::stringValue( std::string_view path, std::string_view key,
                                 std::string_view defaultValue ) const
{
    return stringValue( keyIterator( path ), key, defaultValue );
}

bool Config::boolValue( const KeyIterator& section, std::string_view key, bool defaultValue ) const
{
    return section.isValid() ? section->second->boolValue( key, defaultValue ) : defaultValue;
}

bool Config::boolValue( std::string_view path, std::string_view key, bool defaultValue ) const
{
    return boolValue( keyIterator( path ), key, defaultValue );
}

} // namespace Nuv::Utils
