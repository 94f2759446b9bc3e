// logEmitter ZONE COUNT PREFIX: emits COUNT lines "PREFIX <number> <filler>" at warning, prints
// "done", and ends when its standard input does; for every line "more" there it emits another
// COUNT.

#include "nuvLog.h"

#include <cstdlib>
#include <iostream>
#include <string>

int main( int, char** argv )
{
    const Nuv::Log::Source source( Nuv::Log::warning, argv[1] );
    const int count = std::atoi( argv[2] );
    int number = 0;
    std::string line;
    do {
        for ( int i = 0; i < count; ++i )
            nuvLogTo( source ) << argv[3] << ' ' << number++
                               << " ........................................";
        std::cout << "done" << std::endl;
    } while ( std::getline( std::cin, line ) && line == "more" );
}
