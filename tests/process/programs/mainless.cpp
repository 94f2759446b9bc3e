// mainless: an application that defines no Nuv::main: it links, and starting the frame fails.

#include "nuvMainThread.h"

#include <cstdio>

int main( int argc, char** argv )
{
    try {
        return Nuv::Mt::startMainThread( argc, argv );
    } catch ( const Nuv::LogicException& e ) {
        std::puts( e.what() );
        return 3;
    }
}
