#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace NuvTest {

/// The content of a zone file, made from its tables.
struct ZoneBytes
{
    struct Type
    {
        int offset;
        int isDst;
        int abbreviation;
    };

    std::vector< std::pair< int, int > > transitions; // time, type
    std::vector< Type > types;
    std::string characters;
    std::vector< std::pair< int, int > > leapSeconds = {};
    std::string stdIndicators = {};
    std::string gmtIndicators = {};

    /// @param timeSize 4 for a file's first block, 8 for its second
    std::string str( int timeSize = 4 ) const
    {
        std::string bytes = "TZif2" + std::string( 15, '\0' );
        for ( const std::size_t count :
              { gmtIndicators.size(), stdIndicators.size(), leapSeconds.size(), transitions.size(),
                types.size(), characters.size() } )
            add( &bytes, static_cast< std::int64_t >( count ), 4 );
        for ( const auto& [time, type] : transitions )
            add( &bytes, time, timeSize );
        for ( const auto& [time, type] : transitions )
            add( &bytes, type, 1 );
        for ( const Type& type : types ) {
            add( &bytes, type.offset, 4 );
            add( &bytes, type.isDst, 1 );
            add( &bytes, type.abbreviation, 1 );
        }
        bytes += characters;
        for ( const auto& [time, correction] : leapSeconds ) {
            add( &bytes, time, timeSize );
            add( &bytes, correction, 4 );
        }
        return bytes + stdIndicators + gmtIndicators;
    }

private:
    static void add( std::string* bytesPtr, std::int64_t value, int size )
    {
        for ( int shift = 8 * ( size - 1 ); shift >= 0; shift -= 8 )
            *bytesPtr += static_cast< char >( value >> shift );
    }
};

} // namespace NuvTest
