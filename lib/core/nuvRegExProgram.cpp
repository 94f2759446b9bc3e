#include "nuvRegExProgram.h"

#include <cstdio>
#include <cstring>

namespace Nuv::Utils::RegExProgram {
namespace {

const char* nameOf( NodeType type )
{
    switch ( type ) {
    case end:
        return "end";
    case bol:
        return "bol";
    case eol:
        return "eol";
    case any:
        return "any";
    case anyOf:
        return "anyOf";
    case anyBut:
        return "anyBut";
    case branch:
        return "branch";
    case repeat:
        return "repeat";
    case exactly:
        return "exactly";
    case open:
        return "open";
    case close:
        return "close";
    }
    return "?";
}

// In double quotes, with everything but printable ASCII as "\x1b".
std::string quoted( std::string_view text )
{
    std::string result = "\"";
    for ( const char c : text ) {
        char escaped[8];
        const unsigned int code = static_cast< unsigned char >( c );
        const bool isPlain = code >= 0x20 && code < 0x7F && c != '"' && c != '\\';
        std::snprintf( escaped, sizeof( escaped ), isPlain ? "%c" : "\\x%02x", code );
        result += escaped;
    }
    return result + '"';
}

std::string dataText( const Buffer& program, std::size_t pos )
{
    switch ( nodeType( program, pos ) ) {
    case anyOf:
    case anyBut:
    case exactly:
        return ' ' + quoted( nodeText( program, pos ) );
    case repeat: {
        const unsigned int max = byteAt( program, pos + headerSize + 1 );
        return " {" + std::to_string( byteAt( program, pos + headerSize ) ) + "," +
               ( max == 0 ? "" : std::to_string( max ) ) + "}";
    }
    case open:
    case close:
        return ' ' + std::to_string( nodeGroup( program, pos ) );
    default:
        return "";
    }
}

} // namespace

NodeType nodeType( const Buffer& program, std::size_t pos )
{
    const std::uint8_t type = byteAt( program, pos );
    if ( type > open )
        return type > close ? close : open;
    return static_cast< NodeType >( type );
}

unsigned int nodeGroup( const Buffer& program, std::size_t pos )
{
    const NodeType type = nodeType( program, pos );
    return type == open || type == close ? byteAt( program, pos ) - type : 0u;
}

std::size_t nextNodePos( const Buffer& program, std::size_t pos )
{
    const unsigned int offset =
        static_cast< unsigned int >( byteAt( program, pos + 1 ) << 8 | byteAt( program, pos + 2 ) );
    return offset == 0 ? noNode : pos + offset;
}

std::string_view nodeText( const Buffer& program, std::size_t pos )
{
    return program.data() + pos + headerSize;
}

std::size_t nodeSize( const Buffer& program, std::size_t pos )
{
    switch ( nodeType( program, pos ) ) {
    case anyOf:
    case anyBut:
    case exactly:
        return headerSize + nodeText( program, pos ).size() + 1;
    case repeat:
        return repeatNodeSize;
    default:
        return headerSize;
    }
}

std::string listing( const Buffer& program )
{
    std::string result;
    for ( std::size_t pos = 0; pos < program.size(); pos += nodeSize( program, pos ) ) {
        char position[16];
        std::snprintf( position, sizeof( position ), "%5zu ", pos );
        result += position;
        result += nameOf( nodeType( program, pos ) );
        result += dataText( program, pos );
        const std::size_t next = nextNodePos( program, pos );
        if ( next != noNode )
            result += " -> " + std::to_string( next );
        result += '\n';
    }
    return result;
}

} // namespace Nuv::Utils::RegExProgram
