#pragma once

#include "nuv.h"
#include "nuvTestSupport.h"

#include <cstdio>
#include <fstream>
#include <string>
#include <unistd.h>

namespace NuvTest {

/// Expects the action to fail an assertion or a resource check with this text in its message.
template < class Action >
void expectFailure( const std::string& text, const Action& action )
{
    try {
        action();
        ADD_FAILURE() << "no exception: " << text;
    } catch ( const Nuv::FixedTextException& exception ) {
        EXPECT_NE( std::string( exception.what() ).find( text ), std::string::npos )
            << exception.what();
    }
}

/// Tests of named objects, whose files lie in one folder below the root.
class InterprocessFixture : public RootFixture
{
public:
    static std::string ipc( const std::string& name ) { return root( "ixoRoot/tmp/ipc/" + name ); }
    static bool exists( const std::string& name )
    {
        return ::access( ipc( name ).c_str(), F_OK ) == 0;
    }
    /// @return number of lines below the title of a table of the kernel: "sem", "shm"
    static int nbrOfKernelObjects( const std::string& table )
    {
        std::ifstream file( "/proc/sysvipc/" + table );
        int count = -1;
        for ( std::string line; std::getline( file, line ); ++count ) {
        }
        return count;
    }
};

} // namespace NuvTest
