#include "nuvctl.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace Nuv::Ctl {

namespace {

/// The number of characters that the text takes on a terminal: bytes that continue a character do
/// not count.
std::size_t nbrOfColumns( const std::string& text )
{
    return static_cast< std::size_t >( std::count_if( text.begin(), text.end(), []( char c ) {
        return ( static_cast< unsigned char >( c ) & 0xC0 ) != 0x80;
    } ) );
}

} // namespace

Table::Table( std::vector< std::string > headings )
{
    myRows.push_back( std::move( headings ) );
}

void Table::add( std::vector< std::string > cells )
{
    cells.resize( myRows.front().size() );
    std::transform( cells.begin(), cells.end(), cells.begin(), printable );
    myRows.push_back( std::move( cells ) );
}

void Table::print() const
{
    if ( isEmpty() )
        return;
    std::vector< std::size_t > widths( myRows.front().size(), 0 );
    for ( const auto& row : myRows ) {
        for ( std::size_t i = 0; i < row.size(); ++i )
            widths[i] = std::max( widths[i], nbrOfColumns( row[i] ) );
    }
    for ( const auto& row : myRows ) {
        std::string line;
        for ( std::size_t i = 0; i < row.size(); ++i ) {
            line += row[i];
            line.append( widths[i] - nbrOfColumns( row[i] ) + 2, ' ' );
        }
        line.erase( line.find_last_not_of( ' ' ) + 1 );
        std::cout << line << '\n';
    }
}

void printJson( const Json& document )
{
    std::cout << document.dump( 2, ' ', false, Json::error_handler_t::replace ) << std::endl;
}

int complain( const std::string& text )
{
    std::cout.flush();
    std::cerr << "nuvctl: " << text << std::endl;
    return problem;
}

int watch( const CommonOptions& common, unsigned int intervalMs,
           const std::function< void() >& show )
{
    while ( std::cout ) {
        if ( !common.myJson && ::isatty( STDOUT_FILENO ) )
            std::cout << "\x1b[H\x1b[2J"; // cursor home, clear
        show();
        std::cout << std::flush;
        ::usleep( intervalMs * 1000 );
    }
    return problem;
}

std::string ageText( std::int64_t now, std::int64_t time )
{
    if ( time == 0 )
        return "-";
    const std::int64_t seconds = std::max< std::int64_t >( 0, now - time );
    if ( seconds < 120 )
        return std::to_string( seconds ) + " s";
    if ( seconds < 2 * 3600 )
        return std::to_string( seconds / 60 ) + " min";
    if ( seconds < 2 * 86400 )
        return std::to_string( seconds / 3600 ) + " h";
    return std::to_string( seconds / 86400 ) + " d";
}

std::string printable( const std::string& text )
{
    std::string result;
    for ( const char c : text ) {
        const unsigned char byte = static_cast< unsigned char >( c );
        if ( byte >= 0x20 && byte != 0x7F ) {
            result += c;
        } else {
            char escaped[8];
            std::snprintf( escaped, sizeof( escaped ), "\\x%02x", byte );
            result += escaped;
        }
    }
    return result;
}

} // namespace Nuv::Ctl
