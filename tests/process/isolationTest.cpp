#include "nuvTestSupport.h"

#include <tuple>

using namespace NuvTest;

TEST( Isolation, LeftoversFailAPassingTest )
{
    const std::tuple< const char*, const char*, int > cases[] = {
        { "true", "", 0 },
        { "exit 3", "", 3 },
        { "ipcmk -S 1", "", 0 }, // the set that guards a root folder stays by contract
        { "ipcmk -S 2", "System V sem", 99 },
        { "ipcmk -M 10", "System V shm", 99 },
        { "ipcmk -Q", "System V msg", 99 },
        { "sleep 1000 & exit 0", "sleep 1000", 99 },
        { "ipcmk -M 10; exit 3", "System V shm", 3 },
    };
    for ( const auto& [commandPtr, messagePtr, status] : cases ) {
        SCOPED_TRACE( commandPtr );
        // An outer instance of this program's launcher.
        const Outcome outcome =
            runProgram( program( "../isolated" ), { { "/bin/sh", "-c", commandPtr }, {} } );
        EXPECT_EQ( outcome.exitStatus(), status );
        EXPECT_NE( outcome.errors.find( messagePtr ), std::string::npos );
        EXPECT_EQ( outcome.errors.empty(), *messagePtr == '\0' );
    }
}
