// restartProbe COMMAND [ARGUMENT...]: asks for COMMAND, with the arguments from number 0 on, at its
// exit, and exits with 3. A forked child exits before.
// restartProbe itself as COMMAND, with "show" as argument 1, prints its arguments and
// descriptor 10.

#include "nuvProcessHelper.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

int main( int argc, char** argv )
{
    if ( argc > 1 && std::strcmp( argv[1], "show" ) == 0 ) {
        for ( char** argumentPtr = argv; *argumentPtr != nullptr; ++argumentPtr )
            std::printf( "%s|", *argumentPtr );
        std::printf( "%s\n", ::fcntl( 10, F_GETFD ) < 0 ? "closed" : "open" );
        return 0;
    }
    ::dup2( STDOUT_FILENO, 10 );
    Nuv::Utils::ProcessHelper& helper = *Nuv::Utils::ProcessHelper::singletonPtr();
    Nuv::Utils::Buffer args( "replaced by the second call" );
    helper.setArgs( "/bin/false", &args );
    for ( int i = 2; i < argc; ++i )
        args.append( argv[i], std::strlen( argv[i] ) + 1 );
    helper.setArgs( argv[1], &args );
    if ( args.view() != "replaced by the second call" )
        return 4;
    const pid_t pid = ::fork();
    if ( pid == 0 )
        std::exit( 0 );
    ::waitpid( pid, nullptr, 0 );
    std::exit( 3 );
}
