// widthProbe [PROGRAM...]: prints its width in bits and its HOME, then executes the programs, each
// with the rest of them as its arguments.

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

int main( int, char** argv )
{
    std::printf( "%zu %s\n", 8 * sizeof( void* ), std::getenv( "HOME" ) );
    std::fflush( stdout );
    if ( argv[1] == nullptr )
        return 0;
    ::execv( argv[1], argv + 1 );
    std::perror( argv[1] );
    return 1;
}
