// The option parser on any options and arguments: it ends, stays within its arguments and returns
// nothing but options and '?'.

#include "nuvFuzz.h"
#include "nuvGetopt.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

using NuvFuzz::require;

bool isWithin( const char* ptr, const std::vector< std::string >& texts )
{
    for ( const std::string& text : texts ) {
        if ( ptr >= text.data() && ptr <= text.data() + text.size() )
            return true;
    }
    return *ptr == '\0'; // the empty text of a missing argument
}

void parse( std::vector< std::string >* textsPtr )
{
    std::vector< char* > argv;
    std::size_t nbrOfSteps = 1;
    for ( std::string& text : *textsPtr ) {
        argv.push_back( text.data() );
        nbrOfSteps += text.size();
    }
    const int argc = static_cast< int >( argv.size() );
    const std::string options = textsPtr->front(); // the program's name serves as the options
    Nuv::opterr = 0;
    for ( ;; ) {
        const int c = Nuv::getopt( argc, argv.data(), options.c_str() );
        require( Nuv::optind >= 1 && Nuv::optind <= argc + 1 );
        if ( c == -1 )
            return;
        require( c == '?' || std::strchr( options.c_str(), c ) != nullptr );
        require( Nuv::optarg == nullptr || isWithin( Nuv::optarg, *textsPtr ) );
        require( nbrOfSteps-- > 0 );
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    std::vector< std::string > texts( 1 );
    for ( std::size_t i = 0; i < nbrOfBytes; ++i ) {
        if ( dataPtr[i] == 0 )
            texts.emplace_back();
        else
            texts.back().push_back( static_cast< char >( dataPtr[i] ) );
    }
    Nuv::optind = 1;
    parse( &texts );
    // Once more over shorter arguments, from wherever the first parse was left.
    texts.resize( ( texts.size() + 1 ) / 2 );
    for ( std::string& text : texts ) {
        text.resize( text.size() / 2 );
    }
    Nuv::optind = 1;
    parse( &texts );
    return 0;
}
