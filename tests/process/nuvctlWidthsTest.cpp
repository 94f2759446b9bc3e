#include "nuvToolFixture.h"

#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>

namespace {

using namespace NuvTest;
using Json = nlohmann::json;

class NuvctlWidths : public ToolFixture
{
protected:
    /// @return the tool of that width; "" when that build does not exist
    static std::string toolOf( const std::string& name, int width )
    {
        const std::string path = program( "logEmitter", width );
        return path.empty() ? "" : path.substr( 0, path.rfind( "/tests/" ) ) + "/bin/" + name;
    }

    static Json json( int width, std::vector< std::string > arguments )
    {
        arguments.emplace_back( "--json" );
        const Outcome outcome = runProgram( toolOf( "nuvctl", width ), { arguments, {} } );
        EXPECT_EQ( outcome.exitStatus(), 0 ) << width << ": " << outcome.output << outcome.errors;
        return Json::parse( outcome.output, nullptr, false );
    }

    /// What both widths show alike: all but what every look changes or times.
    static void expectSame( const std::vector< std::string >& arguments )
    {
        const auto strip = []( int, Json::parse_event_t event, Json& key ) {
            return event != Json::parse_event_t::key ||
                   ( key != "time" && key != "operationTime" && key != "changeTime" &&
                     key != "lastProcess" );
        };
        EXPECT_EQ( Json::parse( json( 32, arguments ).dump(), strip ),
                   Json::parse( json( 64, arguments ).dump(), strip ) );
    }
};

} // namespace

TEST_F( NuvctlWidths, ToolsOfOneWidthServeDaemonsOfTheOther )
{
    NUV_SKIP_WITHOUT( program( "logEmitter", 32 ) );
    NUV_SKIP_WITHOUT( program( "logEmitter", 64 ) );
    for ( const int width : { 32, 64 } ) {
        const int other = 96 - width;
        SCOPED_TRACE( "log application of " + std::to_string( width ) + " bits" );
        configure( "[logApp]\nenabled = true\nfileName = " + std::to_string( width ) + ".log\n" );
        ChildProcess daemon( toolOf( "nuvlogd", width ) );
        ASSERT_EQ( daemon.readLine(), "nuvlogd: ready" );
        ChildProcess writer( program( "logEmitter", other ), { { "zone", "50", "line" }, {} } );
        ASSERT_EQ( writer.readLine(), "done" );
        EXPECT_TRUE( waitFor( [width] {
            return nuvctl( { "log", "cat", std::to_string( width ) + ".log" } )
                       .output.find( "line 49" ) != std::string::npos;
        } ) );

        for ( const std::vector< std::string >& arguments : { std::vector< std::string >{ "zones" },
                                                              { "ipc" },
                                                              { "threads" },
                                                              { "fifo", "logAppFifo" } } )
            expectSame( arguments );
        json( width, { "zones", "set", "zone", "--severity", "none" } );
        EXPECT_EQ( json( other, { "zones" } )["presets"]["zone"], "none" );
        json( other, { "zones", "set", "zone", "--severity", "warning" } );

        writer.kill( SIGKILL ); // of the other width than the one that repairs
        writer.wait();
        EXPECT_FALSE( json( width, { "ipc", "repair", "--yes" } )["steps"].empty() );
        EXPECT_TRUE( json( other, { "ipc", "doctor" } )["findings"].empty() );
        daemon.kill( SIGKILL );
        daemon.wait();
        EXPECT_FALSE( json( other, { "ipc", "repair", "--yes" } )["steps"].empty() );
        EXPECT_TRUE( json( width, { "ipc", "list" } )["semaphores"].empty() );
    }
}
