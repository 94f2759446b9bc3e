#pragma once

#include "nuvIpcKernel.h"
#include "nuvTestSupport.h"

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace NuvTest {

/// For tests that run the tools and daemons: a fresh installation for each test.
class ToolFixture : public RootFixture
{
protected:
    static std::string installation( const std::string& relative )
    {
        return root( "ixoRoot/" + relative );
    }

    static void configure( const std::string& logConf )
    {
        writeFile( installation( "etc/log.conf" ), logConf );
    }

    static Outcome nuvctl( const std::vector< std::string >& arguments )
    {
        return runProgram( tool( "nuvctl" ), { arguments, {} } );
    }

    static nlohmann::json json( std::vector< std::string > arguments, int expectedStatus = 0 )
    {
        arguments.emplace_back( "--json" );
        const Outcome outcome = nuvctl( arguments );
        EXPECT_EQ( outcome.exitStatus(), expectedStatus ) << outcome.output << outcome.errors;
        return nlohmann::json::parse( outcome.output, nullptr, false );
    }

    /// Runs a tool. @param text occurs in what it writes
    static void expect( int status, const std::string& text,
                        const std::vector< std::string >& arguments,
                        const std::string& name = "nuvctl" )
    {
        const Outcome outcome = runProgram( tool( name ), { arguments, {} } );
        const std::string written = outcome.output + outcome.errors;
        EXPECT_EQ( outcome.exitStatus(), status ) << written;
        EXPECT_NE( written.find( text ), std::string::npos ) << text << " not in " << written;
    }

    /// The library leaves a segment of thread records for every process name.
    void TearDown() override
    {
        removeInterprocessObjects();
        ASSERT_EQ( std::system( ( "rm -rf " + root() + "/ixoRoot" ).c_str() ), 0 );
    }
};

} // namespace NuvTest
