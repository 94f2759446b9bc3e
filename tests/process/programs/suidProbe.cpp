// suidProbe: installed set-user-id, prints the real and effective user id that its threads have at
// each step, as "STEP REAL EFFECTIVE"; at its exit id(1) prints the effective one.

#include "nuvOs.h"
#include "nuvProcessHelper.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace Nuv::Utils;

namespace {

void print( const char* stepPtr )
{
    std::thread( [=] { // a thread's own ids, not what the C library believes
        std::printf( "%s %ld %ld\n", stepPtr, ::syscall( SYS_getuid ), ::syscall( SYS_geteuid ) );
    } )
        .join();
}

} // namespace

int main( int, char** argv )
{
    print( "main" );
    {
        Suid suid;
        std::printf( "%d\n", suid.euidToFileOwner() );
        print( "suid" );
        ::close( ::open( argv[1], O_CREAT | O_WRONLY, 0600 ) );
    }
    print( "after" );
    {
        SuperUser superUser( SuperUser::realToo );
        std::printf( "%d\n", superUser.enter() );
        print( "super" );
    }
    print( "after" );
    std::fflush( stdout );
    Buffer args( "id\0-u", 5 );
    ProcessHelper::singletonPtr()->setArgs( "/usr/bin/id", &args );
}
