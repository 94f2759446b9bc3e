#include "nuvArchiver.h"
#include "nuvUtils.h"
#include "nuvctlEncode.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <type_traits>

namespace Nuv::Ctl {

namespace {

using Utils::InputArchiver;
using Utils::OutputArchiver;

/// A line that cannot be archived, or an archive that is not as its fields say; the text says why.
struct Refusal
{
    std::string myText;
};

/// The classes of an archive, numbered as its writer and its reader number them.
using ClassNames = std::vector< std::string >;

// --- texts on a line ----------------------------------------------------------------------------

/// Backslash and control characters as "\\" and "\x0a", wide characters beyond ASCII as "\u20ac".
template < class Char >
std::string escaped( const std::basic_string< Char >& text )
{
    std::string result;
    for ( const Char c : text ) {
        const unsigned int code = static_cast< std::make_unsigned_t< Char > >( c ) & 0xFFFF;
        char escape[8];
        if ( sizeof( Char ) > 1 && code > 0x7E )
            std::snprintf( escape, sizeof( escape ), "\\u%04x", code );
        else if ( code < 0x20 || code == 0x7F )
            std::snprintf( escape, sizeof( escape ), "\\x%02x", code );
        else
            std::snprintf( escape, sizeof( escape ), c == '\\' ? "\\\\" : "%c",
                           static_cast< int >( code ) );
        result += escape;
    }
    return result;
}

/// @return false if the text is not as escaped() writes it
template < class Char >
bool unescape( std::string_view text, std::basic_string< Char >* resultPtr )
{
    for ( std::size_t i = 0; i < text.size(); ++i ) {
        if ( text[i] != '\\' ) {
            if ( sizeof( Char ) > 1 && ( text[i] & 0x80 ) != 0 )
                return false;
            *resultPtr += static_cast< Char >( text[i] );
            continue;
        }
        const char kind = ++i < text.size() ? text[i] : '\0';
        if ( kind == '\\' ) {
            *resultPtr += static_cast< Char >( kind );
            continue;
        }
        const std::size_t nbrOfDigits = kind == 'x' ? 2 : sizeof( Char ) > 1 && kind == 'u' ? 4 : 0;
        const std::string_view digits = text.substr( std::min( i + 1, text.size() ), nbrOfDigits );
        unsigned int code = 0;
        const auto end =
            std::from_chars( digits.data(), digits.data() + digits.size(), code, 16 ).ptr;
        if ( nbrOfDigits == 0 || digits.size() != nbrOfDigits ||
             end != digits.data() + nbrOfDigits )
            return false;
        *resultPtr += static_cast< Char >( code );
        i += nbrOfDigits;
    }
    return true;
}

// --- the types ----------------------------------------------------------------------------------

template < class Number >
std::string readNumber( InputArchiver& in )
{
    Number number{};
    in.get( &number );
    if constexpr ( std::is_floating_point_v< Number > ) {
        char text[64];
        return std::string( text, std::to_chars( text, text + sizeof( text ), number ).ptr );
    } else {
        return std::to_string( number );
    }
}

/// What a number must fit into: in the archive a long has four bytes and a wide character two.
template < class Number >
using Archived = std::conditional_t<
    std::is_same_v< Number, wchar_t >, std::int16_t,
    std::conditional_t<
        std::is_same_v< Number, long >, std::int32_t,
        std::conditional_t< std::is_same_v< Number, unsigned long >, std::uint32_t, Number > > >;

template < class Number >
bool writeNumber( OutputArchiver& out, const std::string& text )
{
    Archived< Number > number{};
    const char* const endPtr = text.data() + text.size();
    const auto result = std::from_chars( text.data(), endPtr, number );
    if ( result.ec != std::errc() || result.ptr != endPtr )
        return false;
    out.put( static_cast< Number >( number ) );
    return true;
}

std::string readBool( InputArchiver& in )
{
    bool value = false;
    in.get( &value );
    return value ? "true" : "false";
}

bool writeBool( OutputArchiver& out, const std::string& text )
{
    if ( text != "true" && text != "false" )
        return false;
    out.put( text == "true" );
    return true;
}

template < class Text >
std::string readText( InputArchiver& in )
{
    Text text;
    in >> text;
    return escaped( text );
}

template < class Text >
bool writeText( OutputArchiver& out, const std::string& line )
{
    Text text;
    if ( !unescape( line, &text ) )
        return false;
    out << text;
    return true;
}

std::string readRawText( InputArchiver& in )
{
    std::string text;
    in.getString( &text );
    return escaped( text );
}

bool writeRawText( OutputArchiver& out, const std::string& line )
{
    std::string text;
    if ( !unescape( line, &text ) )
        return false;
    out.putString( text );
    return true;
}

/// How the values of one type become texts and texts values; writing returns false for no value.
struct Type
{
    std::string ( *myRead )( InputArchiver& );
    bool ( *myWrite )( OutputArchiver&, const std::string& );
};

template < class Number >
constexpr Type numberType = { &readNumber< Number >, &writeNumber< Number > };

using Types = Utils::StaticMap< const char*, Type >;
constexpr Types::Pair typePairs[] = {
    { "bool", { &readBool, &writeBool } },
    { "char", numberType< char > },
    { "double", numberType< double > },
    { "float", numberType< float > },
    { "int", numberType< int > },
    { "long", numberType< long > },
    { "longlong", numberType< long long > },
    { "rawstring", { &readRawText, &writeRawText } },
    { "short", numberType< short > },
    { "string", { &readText< std::string >, &writeText< std::string > } },
    { "uchar", numberType< unsigned char > },
    { "uint", numberType< unsigned int > },
    { "ulong", numberType< unsigned long > },
    { "ulonglong", numberType< unsigned long long > },
    { "ushort", numberType< unsigned short > },
    { "wchar", numberType< wchar_t > },
    { "wstring", { &readText< std::wstring >, &writeText< std::wstring > } },
};
constexpr Types types( typePairs );
static_assert( types.isSorted() );

constexpr std::string_view objectType = "object";
constexpr std::string_view nullType = "null";

const Type& typeOf( const std::string& name )
{
    const auto i = types.find( std::string_view( name ) );
    if ( i != types.end() )
        return i->value;
    std::string known;
    for ( const auto& pair : types )
        known += std::string( pair.key ) + ", ";
    throw Refusal{ "there is no type \"" + name + "\"; there are " + known + "object and null" };
}

// --- objects: the record alone, their data are values like others
// ---------------------------------

void writeObject( OutputArchiver& out, const std::string& className, ClassNames* namesPtr )
{
    const auto i = std::find( namesPtr->begin(), namesPtr->end(), className );
    if ( i == namesPtr->end() ) {
        out.put( 'c' );
        out << className;
        namesPtr->push_back( className );
    } else {
        out.put( 'C' );
        out.put( static_cast< int >( i - namesPtr->begin() ) );
    }
    out.put( 'd' );
}

/// @return the class; "" for a null object
std::string readObject( InputArchiver& in, ClassNames* namesPtr )
{
    char tag = 0;
    in.get( &tag );
    std::string name;
    if ( tag == 'N' )
        return name;
    if ( tag == 'c' ) {
        in >> name;
        namesPtr->push_back( name );
    } else if ( tag == 'C' ) {
        unsigned int index = 0;
        in.get( &index );
        if ( index >= namesPtr->size() )
            throw Refusal{ "an object has class index " + std::to_string( index ) +
                           ", which no object has brought" };
        name = ( *namesPtr )[index];
    } else {
        throw Refusal{ "there is no object" };
    }
    in.get( &tag );
    if ( tag != 'd' )
        throw Refusal{ "no data follow the class " + name };
    return name;
}

// --- decoding -----------------------------------------------------------------------------------

struct Value
{
    std::string myType;
    std::string myText;
};

Value readValue( InputArchiver& in, const std::string& field, ClassNames* namesPtr )
{
    if ( field != objectType )
        return { field, typeOf( field ).myRead( in ) };
    const std::string name = readObject( in, namesPtr );
    return name.empty() ? Value{ std::string( nullType ), "" } : Value{ field, escaped( name ) };
}

std::vector< std::string > split( const std::string& fields )
{
    std::vector< std::string > result;
    Utils::TokenScanner< std::string > scanner( fields );
    for ( std::string field; scanner.next( &field, ", " ); ) {
        if ( field != objectType )
            typeOf( field );
        result.push_back( field );
    }
    return result;
}

void print( const CommonOptions& common, const std::vector< Value >& values )
{
    if ( common.myJson ) {
        Json list = Json::array();
        for ( const Value& value : values )
            list.push_back( { { "type", value.myType }, { "value", bytesJson( value.myText ) } } );
        printJson( list );
        return;
    }
    for ( const Value& value : values )
        std::cout << value.myType << ( value.myText.empty() ? "" : " " ) << value.myText << '\n';
}

/// Reads the fields again and again until the archive ends.
int decodeFields( const CommonOptions& common, InputArchiver& in, std::streambuf* bufPtr,
                  const std::vector< std::string >& fields )
{
    std::vector< Value > values;
    ClassNames names;
    std::size_t i = 0;
    std::string fault;
    try {
        while ( bufPtr->sgetc() != std::streambuf::traits_type::eof() ) {
            const Value value = readValue( in, fields[i], &names );
            if ( !in.isComplete() )
                throw Refusal{ "it is cut" };
            values.push_back( value );
            i = ( i + 1 ) % fields.size();
        }
        if ( i != 0 )
            fault = "it ends";
    } catch ( const Refusal& refusal ) {
        fault = refusal.myText;
    } catch ( const Utils::Archiver::Exception& exception ) {
        fault = exception.what();
    }
    print( common, values );
    return fault.empty() ? good
                         : complain( "the archive does not hold the given fields: where " +
                                     fields[i] + " should come, as number " +
                                     std::to_string( values.size() + 1 ) + ", " + fault );
}

/// The name in a class record that begins here with "ca"; "" if there is none. Names are short and
/// hold no NUL, which also keeps the work linear whatever the bytes are.
std::string classNameAt( std::string_view bytes, std::size_t offset )
{
    constexpr std::size_t maxLength = 1024;
    constexpr std::size_t headSize = 6; // the tags and the count
    unsigned char head[headSize];
    if ( bytes.size() - offset <= headSize )
        return "";
    bytes.copy( reinterpret_cast< char* >( head ), headSize, offset );
    const std::size_t length = Utils::BigEndianPackedData( head, headSize ).unsigned32BitValue( 2 );
    const std::string_view rest = bytes.substr( offset + headSize );
    if ( length > maxLength || length >= rest.size() || rest[length] != 'd' )
        return "";
    const std::string_view name = rest.substr( 0, length );
    return name.find( '\0' ) == name.npos ? std::string( name ) : "";
}

int showClasses( const CommonOptions& common, const std::string& bytes )
{
    Json classes = Json::array();
    for ( std::size_t i = bytes.find( "ca", 0 ); i != std::string::npos;
          i = bytes.find( "ca", i + 1 ) ) {
        const std::string name = classNameAt( bytes, i );
        if ( !name.empty() )
            classes.push_back( { { "name", name }, { "offset", i } } );
    }
    if ( common.myJson ) {
        printJson( { { "version", Utils::Archiver::version },
                     { "size", bytes.size() },
                     { "classes", classes } } );
        return good;
    }
    std::cout << "archive of version " << Utils::Archiver::version << ", " << bytes.size()
              << " bytes\n";
    for ( const Json& entry : classes )
        std::cout << "class " << escaped( entry["name"].get< std::string >() ) << " at offset "
                  << entry["offset"] << '\n';
    std::cout << "An archive does not tell the types of its values; give them by --fields.\n";
    return good;
}

} // namespace

int encodeArchive( const std::string& lines )
try {
    std::stringbuf buf;
    OutputArchiver out( &buf );
    ClassNames names;
    std::istringstream stream( lines );
    std::string line;
    for ( int nbr = 1; std::getline( stream, line ); ++nbr ) {
        const std::size_t typeEnd = std::min( line.find( ' ' ), line.size() );
        const std::string type = line.substr( 0, typeEnd );
        const std::string text = line.substr( std::min( typeEnd + 1, line.size() ) );
        std::string className;
        if ( type.empty() )
            continue;
        if ( type == nullType )
            out.put( 'N' );
        else if ( type == objectType && !text.empty() && unescape( text, &className ) )
            writeObject( out, className, &names );
        else if ( type == objectType || !typeOf( type ).myWrite( out, text ) )
            throw Refusal{ "line " + std::to_string( nbr ) + ": \"" + text +
                           "\" is no value of type " + type };
    }
    return writeOutput( buf.str() );
} catch ( const Refusal& refusal ) {
    return complain( refusal.myText );
}

int decodeArchive( const CommonOptions& common, const std::string& bytes,
                   const std::string& fields )
try {
    const std::vector< std::string > fieldList = split( fields );
    std::stringbuf buf( bytes );
    InputArchiver in( &buf );
    return fieldList.empty() ? showClasses( common, bytes )
                             : decodeFields( common, in, &buf, fieldList );
} catch ( const Refusal& refusal ) {
    return complain( refusal.myText ), wrongUsage;
}

} // namespace Nuv::Ctl
