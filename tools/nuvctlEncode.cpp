#include "nuvctlEncode.h"
#include "nuvctl.h"

#include "nuvBEncoder.h"
#include "nuvBase64.h"
#include "nuvCrc.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

namespace Nuv::Ctl {

bool readInput( const std::string& file, std::string* bytesPtr )
{
    const bool isStandardInput = file.empty() || file == "-";
    std::ifstream stream;
    if ( !isStandardInput )
        stream.open( file, std::ios::binary );
    std::istream& input = isStandardInput ? std::cin : stream;
    try {
        bytesPtr->assign( std::istreambuf_iterator< char >( input ), {} );
    } catch ( const std::ios_base::failure& ) { // a directory opens, but cannot be read
        input.setstate( std::ios_base::badbit );
    }
    // The standard library takes a failed read of standard input for its end.
    if ( !input.fail() && !( isStandardInput && std::ferror( stdin ) != 0 ) )
        return true;
    complain( ( isStandardInput ? "standard input" : file ) +
              " cannot be read: " + std::strerror( errno ) );
    return false;
}

int writeOutput( std::string_view bytes )
{
    std::cout.write( bytes.data(), static_cast< std::streamsize >( bytes.size() ) ).flush();
    return std::cout ? good
                     : complain( std::string( "standard output cannot be written: " ) +
                                 std::strerror( errno ) );
}

namespace {

using Utils::Base64;
using Utils::BEncoder;
using Utils::Buffer;

// In JSON, bytes that are no text stand in an object of this one member.
constexpr const char* base64Member = "$base64";

std::string toBase64( std::string_view bytes, bool hasLines )
{
    Base64 base64( Base64::growOutput );
    Buffer text;
    base64.forwardUpdate( Buffer( bytes ), &text );
    base64.forwardFinal( &text );
    std::string result = text.str();
    if ( !hasLines )
        std::erase( result, '\n' );
    return result;
}

/// The library's decoder ignores what follows the padding or a NUL; here that is lost input.
Buffer fromBase64( std::string_view text )
{
    const std::size_t end = text.find_first_of( std::string_view( "=\0", 2 ) );
    if ( end != text.npos && text.find_first_not_of( "= \t\r\n", end ) != text.npos )
        throw Base64::Exception( "", Base64::reasonInvalidText, 0 );
    Base64 base64( Base64::growOutput );
    Buffer bytes;
    base64.reverseUpdate( Buffer( text ), &bytes );
    base64.reverseFinal( &bytes );
    return bytes;
}

/// A value that has no form in the encoding asked for.
struct NoForm : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// --- b-encoding to text and JSON ----------------------------------------------------------------

template < class Item >
const Item& as( const BEncoder::Item& item )
{
    return static_cast< const Item& >( item );
}

/// Whether JSON holds the bytes as they are: whether they are UTF-8.
bool isText( std::string_view bytes )
{
    try {
        Json( bytes ).dump();
        return true;
    } catch ( const Json::exception& ) {
        return false;
    }
}

} // namespace

Json bytesJson( std::string_view bytes )
{
    if ( isText( bytes ) )
        return bytes;
    return { { base64Member, toBase64( bytes, false ) } };
}

namespace {

Json itemJson( const BEncoder::Item& item )
{
    switch ( item.type() ) {
    case BEncoder::typeInteger:
        return as< BEncoder::IntegerItem >( item ).value();
    case BEncoder::typeString:
        return bytesJson( as< BEncoder::StringItem >( item ).bytes() );
    case BEncoder::typeList: {
        Json list = Json::array();
        for ( const BEncoder::ItemPtr& itemPtr : as< BEncoder::List >( item ).items() )
            list.push_back( itemJson( *itemPtr ) );
        return list;
    }
    case BEncoder::typeDictionary:
        break;
    }
    Json dictionary = Json::object();
    for ( const auto& [key, itemPtr] : as< BEncoder::Dictionary >( item ).entries() ) {
        if ( !isText( key ) )
            throw NoForm( "the key \"" + printable( key ) + "\" is no text, which JSON needs" );
        dictionary[key] = itemJson( *itemPtr );
    }
    return dictionary;
}

std::string bytesText( std::string_view bytes )
{
    constexpr std::size_t nbrOfShown = 60;
    if ( bytes.size() <= nbrOfShown )
        return '"' + printable( std::string( bytes ) ) + '"';
    return '"' + printable( std::string( bytes.substr( 0, nbrOfShown ) ) ) + "\" ... (" +
           std::to_string( bytes.size() ) + " bytes)";
}

/// A line for each item, containers before what they hold.
void printItem( const BEncoder::Item& item, const std::string& name, const std::string& indent )
{
    std::cout << indent << name;
    const std::string deeper = indent + "  ";
    switch ( item.type() ) {
    case BEncoder::typeInteger:
        std::cout << as< BEncoder::IntegerItem >( item ).value() << '\n';
        return;
    case BEncoder::typeString:
        std::cout << bytesText( as< BEncoder::StringItem >( item ).bytes() ) << '\n';
        return;
    case BEncoder::typeList:
        std::cout << "list\n";
        for ( const BEncoder::ItemPtr& itemPtr : as< BEncoder::List >( item ).items() )
            printItem( *itemPtr, "- ", deeper );
        return;
    case BEncoder::typeDictionary:
        std::cout << "dictionary\n";
        for ( const auto& [key, itemPtr] : as< BEncoder::Dictionary >( item ).entries() )
            printItem( *itemPtr, printable( key ) + ": ", deeper );
        return;
    }
}

int decodeBencode( const CommonOptions& common, const std::string& bytes )
try {
    Utils::IBufferStream stream( bytes );
    const BEncoder::ItemPtr itemPtr = BEncoder::decode( stream );
    if ( itemPtr == nullptr )
        return complain( "an 'e' stands where an item should begin" );
    if ( common.myJson )
        printJson( itemJson( *itemPtr ) );
    else
        printItem( *itemPtr, "", "" );
    const std::streamoff nbrOfUsed = stream.tellg();
    const std::string_view rest =
        std::string_view( bytes ).substr( static_cast< std::size_t >( nbrOfUsed ) );
    return rest.find_first_not_of( "\r\n" ) == std::string_view::npos
               ? good
               : complain( std::to_string( rest.size() ) + " bytes follow the item" );
} catch ( const BEncoder::DecodeException& exception ) {
    std::string text = exception.what();
    text.pop_back(); // its line feed
    return complain( text );
}

// --- JSON to b-encoding -------------------------------------------------------------------------

BEncoder::ItemPtr itemOf( const Json& json )
{
    if ( json.is_number_integer() ) {
        const auto value = json.get< std::int64_t >();
        if ( value != static_cast< std::int32_t >( value ) ||
             ( json.is_number_unsigned() && value < 0 ) )
            throw NoForm( json.dump() + " needs more than 32 bits" );
        return BEncoder::ItemPtr(
            new BEncoder::IntegerItem( static_cast< std::int32_t >( value ) ) );
    }
    if ( json.is_string() )
        return BEncoder::ItemPtr(
            new BEncoder::StringItem( Buffer( json.get_ref< const std::string& >() ) ) );
    if ( json.is_array() ) {
        auto* const listPtr = new BEncoder::List();
        BEncoder::ItemPtr itemPtr( listPtr );
        for ( const Json& element : json )
            listPtr->add( itemOf( element ) );
        return itemPtr;
    }
    if ( !json.is_object() )
        throw NoForm( json.dump() + " has no form in b-encoding" );
    if ( json.size() == 1 && json.contains( base64Member ) && json[base64Member].is_string() )
        return BEncoder::ItemPtr(
            new BEncoder::StringItem( fromBase64( json[base64Member].get< std::string >() ) ) );
    auto* const dictionaryPtr = new BEncoder::Dictionary();
    BEncoder::ItemPtr itemPtr( dictionaryPtr );
    for ( const auto& [key, value] : json.items() )
        dictionaryPtr->set( key, itemOf( value ) );
    return itemPtr;
}

int encodeBencode( const std::string& text )
try {
    constexpr int maxDepth = BEncoder::defaultMaxNbrOfLevels;
    const Json json = Json::parse( text, []( int depth, Json::parse_event_t event, Json& ) {
        const bool isBegin =
            event == Json::parse_event_t::array_start || event == Json::parse_event_t::object_start;
        if ( isBegin && depth >= maxDepth ) // the outermost has depth 0
            throw NoForm( "nested too deeply to be decoded again" );
        return true;
    } );
    Utils::OBufferStream stream;
    itemOf( json )->encode( &stream );
    return writeOutput( stream.view() );
} catch ( const Json::exception& exception ) {
    return complain( std::string( "the input is no JSON: " ) + exception.what() );
}

int decodeBase64( const CommonOptions& common, const std::string& text )
{
    const Buffer bytes = fromBase64( text );
    if ( !common.myJson )
        return writeOutput( bytes );
    printJson( { { "size", bytes.size() }, { "bytes", bytesJson( bytes ) } } );
    return good;
}

int encodeBase64( const CommonOptions& common, const std::string& bytes )
{
    if ( common.myJson )
        printJson( { { "size", bytes.size() }, { base64Member, toBase64( bytes, false ) } } );
    else {
        const std::string text = toBase64( bytes, true );
        return writeOutput( text.empty() || text.back() == '\n' ? text : text + '\n' );
    }
    return good;
}

} // namespace

int encode( const CommonOptions& common, const CodecOptions& options )
{
    std::string bytes;
    if ( !readInput( options.myFile, &bytes ) )
        return problem;
    if ( options.myFormat == "base64" )
        return encodeBase64( common, bytes );
    return options.myFormat == "bencode" ? encodeBencode( bytes ) : encodeArchive( bytes );
}

int decode( const CommonOptions& common, const CodecOptions& options )
{
    const std::string& format = options.myFormat;
    if ( format.empty() == options.mySegment.empty() )
        return complain( "decode: give a format, a file or --segment" ), wrongUsage;
    if ( format != "base64" && format != "bencode" && format != "archive" )
        return options.myFile.empty() ? decodeRecord( common, options )
                                      : ( complain( "decode: there is no format \"" + format +
                                                    "\"; there are base64, bencode, archive" ),
                                          wrongUsage );
    std::string bytes;
    if ( !readInput( options.myFile, &bytes ) )
        return problem;
    if ( format == "base64" )
        return decodeBase64( common, bytes );
    return format == "bencode" ? decodeBencode( common, bytes )
                               : decodeArchive( common, bytes, options.myFields );
}

int showCrc( const CommonOptions& common, const CrcOptions& options )
{
    if ( options.myWidth == 16 && options.myInitial > 0xFFFF )
        return complain( "crc: --initial of a CRC-16 has 16 bits" ), wrongUsage;
    std::string bytes;
    if ( !readInput( options.myFile, &bytes ) )
        return problem;
    const bool is32 = options.myWidth == 32;
    const std::uint32_t initial = options.myHasInitial ? options.myInitial : 0xFFFFFFFF;
    // Without --initial the sum that is commonly given: of the CRC-32 that is the inverted
    // register.
    std::uint32_t crc = Utils::Crc16( static_cast< std::uint16_t >( initial ) )
                            .update( bytes.data(), bytes.size() )
                            .value();
    if ( is32 )
        crc = options.myHasInitial
                  ? Utils::Crc32( initial ).update( bytes.data(), bytes.size() ).value()
                  : Utils::Crc32::checksum( bytes.data(), bytes.size() );
    char text[9];
    std::snprintf( text, sizeof( text ), "%0*x", is32 ? 8 : 4, crc );
    if ( common.myJson )
        printJson( { { "crc", crc }, { "hex", text }, { "size", bytes.size() } } );
    else
        std::cout << text << '\n';
    return good;
}

} // namespace Nuv::Ctl
