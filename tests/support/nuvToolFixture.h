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

    /// Runs the tool. @param text occurs in what it writes
    static void expect( int status, const std::string& text,
                        const std::vector< std::string >& arguments )
    {
        const Outcome outcome = nuvctl( arguments );
        EXPECT_EQ( outcome.exitStatus(), status ) << outcome.output << outcome.errors;
        EXPECT_NE( ( outcome.output + outcome.errors ).find( text ), std::string::npos )
            << text << " not in " << outcome.output << outcome.errors;
    }

    /// The library leaves a segment of thread records for every process name.
    void TearDown() override
    {
        for ( const Nuv::Tools::Segment& segment : Nuv::Tools::readSegments() )
            ::shmctl( segment.myId, IPC_RMID, nullptr );
        for ( const Nuv::Tools::SemaphoreSet& set : Nuv::Tools::readSemaphoreSets() )
            ::semctl( set.myId, 0, IPC_RMID );
        ASSERT_EQ( std::system( ( "rm -rf " + root() + "/ixoRoot" ).c_str() ), 0 );
    }
};

} // namespace NuvTest
