#include "nuvToolFixture.h"
#include "nuvctlHealth.h"

#include <csignal>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <tuple>
#include <unistd.h>

namespace {

using namespace NuvTest;
using Json = nlohmann::json;

class NuvctlShared : public ToolFixture
{
protected:
    class Daemon : public ChildProcess
    {
    public:
        Daemon( const char* toolPtr, std::vector< std::string > arguments )
            : ChildProcess( tool( toolPtr ), Start{ std::move( arguments ), {} } )
        {
            EXPECT_EQ( readLine(), std::string( toolPtr ) + ": ready" );
        }
        void stop()
        {
            kill( SIGTERM );
            EXPECT_EQ( wait().exitStatus(), 0 );
        }
    };
    static std::unique_ptr< Daemon > startSensor()
    {
        writeFile( installation( "etc/boot.info" ),
                   "[Platform]\nmodel = nip500\n[nip500/Capabilities]\nbypass = yes\n" );
        return std::make_unique< Daemon >(
            "sensord", std::vector< std::string >{ "--control", "--interval-ms", "50" } );
    }
    static bool answers( const std::string& command, const std::string& part )
    {
        return nuvctl( { "send", "sensord", command } ).output.find( part ) != std::string::npos;
    }
    static Json health( const char* recordPtr, const char* fieldPtr )
    {
        return json( { "health" } )[recordPtr][fieldPtr];
    }
};

} // namespace

TEST_F( NuvctlShared, WhatIsNotThereIsOneAndWrongUsageTwoAndNothingIsCreated )
{
    const std::string tooLong( 100, 'x' );
    expect( 1, "no segment global-data", { "health" } );
    expect( 1, "no segment global-data", { "global" } );
    expect( 2, "nothing to set", { "global", "set" } );
    expect( 1, "nobody would keep", { "global", "set", "--dns", "on" } );
    expect( 2, "dns", { "global", "set", "--dns", "maybe" } );
    for ( const char* proxyPtr : { "10.0.0.1", "10.0.0.1:0", "10.0.0.1:65536", "10.0.0.1:x" } )
        expect( 2, "ADDRESS:PORT", { "global", "set", "--proxy", proxyPtr } );
    expect( 2, "longer than 19", { "global", "set", "--proxy", tooLong + ":80" } );
    expect( 2, "longer than 99", { "global", "set", "--time-zone", tooLong } );
    expect( 1, "no server pipe", { "send", "nobody", "m" } );
    expect( 1, "cannot be executed", { "serve", "x", "--exec", "/no/such" } );
    expect( 2, "give a format", { "decode", "base64", "--segment", "x" } );
    expect( 2, "no format", { "decode", "nonsense", "file" } );
    expect( 1, "cannot be read", { "decode", "missing" } );
    expect( 1, "no segment", { "decode", "--segment", "x" } );
    expect( 1, "no shared record", { "decode", "/proc/self/stat" } );
    EXPECT_NE( ::access( installation( "" ).c_str(), F_OK ), 0 );
    EXPECT_TRUE( Nuv::Tools::readSegments().empty() );
}

TEST_F( NuvctlShared, TwoDaemonsTalkShowTheirHealthAndShareTheirSettings )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    const auto sensorPtr = startSensor();
    Daemon mainApp( "mainApp", { "--interval-ms", "50" } );
    expect( 0, "model nip500 bypass", { "send", "sensord", " model\n" } );
    expect( 0, "no command \"nonsense\"", { "send", "sensord", "nonsense" } );
    EXPECT_NE( json( { "send", "sensord", "help" } )["answer"].dump().find( "kill-helper" ),
               std::string::npos );
    EXPECT_TRUE( waitFor( [] { return answers( "averages", "load " ); } ) );
    answers( "kill-helper", "" );
    EXPECT_TRUE( waitFor( [] { return health( "sensor", "feedshareNumOfFailures" ) == 1; } ) );
    EXPECT_TRUE( waitFor( [] { return answers( "averages", "load " ); } ) );

    EXPECT_TRUE( waitFor( [] { return health( "mainApp", "state" ) == "running"; } ) );
    const Json sensor = json( { "health" } )["sensor"];
    EXPECT_EQ( sensor["parameters"][0], 50 );
    EXPECT_LT( sensor["ageSeconds"], 30.0 );
    EXPECT_NE( sensor["virtualSensors"].dump().find( "\"name\":\"lo\"" ), std::string::npos );
    EXPECT_TRUE( waitFor( [&] { return health( "sensor", "commits" ) > sensor["commits"]; } ) );
    expect( 0, "\nnuv_health_state{record=\"main-app\"} 2\n", { "health", "--prometheus" } );
    ChildProcess watch( tool( "nuvctl" ), { { "health", "--watch", "--json" }, {} } );
    for ( int i = 0; i < 2; ++i )
        EXPECT_EQ( Json::parse( watch.readLine() )["sensor"]["whole"], true );

    const Json change =
        json( { "global", "set", "--time-zone", "Europe/Zurich", "--offset", "-3600", "--proxy",
                "10.1.2.3:8080", "--proxy-enabled", "on", "--dns", "on", "--ftp-timeout", "60" } );
    EXPECT_EQ( change["before"]["ftpTimeout"], 300 );
    EXPECT_EQ( json( { "global" } )["settings"], change["after"] );
    EXPECT_EQ( json( { "global" } )["capabilities"], Json::array( { "bypass" } ) );
    json( { "global", "set", "--offset", "7200", "--dns", "off" } ); // the zone's name stays
    expect( 0, "Europe/Zurich", { "decode", "--segment", "shm_global-data", "--save", "copy" } );
    const Json fields = json( { "decode", "copy" } )["fields"];
    const Json expected = { { 0, 7200 }, { 4, "Europe/Zurich" }, { 104, 0 },
                            { 105, 1 },  { 106, 8080 },          { 108, "10.1.2.3" } };
    for ( std::size_t i = 0; i < expected.size(); ++i )
        EXPECT_EQ( Json( { fields[i]["offset"], fields[i]["value"] } ), expected[i] );

    mainApp.stop();
    sensorPtr->stop();
    EXPECT_TRUE( json( { "ipc" } )["semaphores"].empty() );
    EXPECT_TRUE( json( { "ipc", "doctor" } )["findings"].empty() );
}

TEST_F( NuvctlShared, NameOfAKilledSensorIsSaidToBeLeftOverAndFreedByRepair )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    auto sensorPtr = startSensor();
    sensorPtr->kill( SIGKILL );
    sensorPtr->wait();
    expect( 1, "has ended without", { "send", "sensord", "status" } );
    expect( 1, "the last ones left", { "health" } );
    EXPECT_EQ( runProgram( tool( "sensord" ), { { "--control" }, {} } ).exitStatus(), 1 );
    expect( 0, "FIFO pipe_toSrvr_sensord: remove it: done", { "ipc", "repair", "--yes" } );
    sensorPtr = startSensor();
    EXPECT_TRUE( answers( "status", "running" ) );
    sensorPtr->stop();
}

TEST_F( NuvctlShared, ServeAnswersByAProgramThatMayFailOrHang )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    const std::string message( 300000, 'm' ); // more than the program's pipes hold
    const std::tuple< const char*, std::string, const char* > cases[] = {
        { "tr m M", std::string( 300000, 'M' ), "ended with status 0" },
        { "echo no input taken", "no input taken\n", "ended with status 0" },
        { "echo part; exit 3", "part\n", "ended with status 3" },
        { "kill -9 $$", "", "ended by signal 9" },
        { "exec sleep 100", "", "its time being over" },
    };
    for ( const auto& [script, answer, outcome] : cases ) {
        SCOPED_TRACE( script );
        ChildProcess server( tool( "nuvctl" ), { { "serve", "test", "--timeout", "1", "--exec",
                                                   "/bin/sh", "--", "-c", script },
                                                 {} } );
        ASSERT_EQ( server.readLine(), "serving the pipe \"test\"" );
        ChildProcess client( tool( "nuvctl" ), { { "send", "test", "-" }, {} } );
        client.writeInput( message );
        client.closeInput();
        const Outcome sent = client.wait();
        EXPECT_TRUE( sent.exitStatus() == 0 && sent.output == answer ) << sent.errors;
        EXPECT_NE( server.readLine().find( outcome ), std::string::npos );
        server.kill( SIGTERM );
        EXPECT_EQ( server.wait().exitStatus(), 0 );
    }
}

TEST_F( NuvctlShared, CheckKnowsMainAppConfAndBootInfo )
{
    const char* const cases[][3] = {
        { "mainApp.conf", "[ControlTransaction]\nmaxWaitTimeForPipeRead = 5\n[own]\nx = 1\n",
          "no mistake" },
        { "mainApp.conf", "[ControlTransaction]\nmaxWaitTimeForPipeRead = 0\n", "of the range" },
        { "mainApp.conf", "[controltransaction]\nx = 5\n", "meant is \"ControlTransaction\"" },
        { "boot.info", "[Platform]\nmodel = m\n[m/Capabilities]\na = 1\n[x]\ny = 1\n",
          "no mistake" },
        { "boot.info", "[platform]\nmodel = m\n", "meant is \"Platform\"" },
        { "boot.info", "[Platform]\nmodel = m\n[M/Capabilities]\na = 1\n", "no such section" },
        { "boot.info", "[Platform]\nmodel = m\n[m/Capabilities]\na = maybe\n", "is absent" },
    };
    for ( const auto& [file, bytes, text] : cases ) {
        writeFile( root( file ), bytes );
        expect( std::string( text ) == "no mistake" ? 0 : 1, text, { "check", root( file ) } );
    }
}

TEST( HealthMetrics, NamesAreEscapedAndUnusedSensorsLeftOut )
{
    Nuv::Ctl::HealthLook look;
    look.mySensorStatusPtr = std::make_shared< Nuv::HealthAndSecurity::SensorStatus >();
    look.mySensor.myIsWhole = true;
    EXPECT_EQ( healthMetrics( look ).find( "nuv_sensor_load" ), std::string::npos ); // no commit
    look.myTimeNs = 3500000000;
    look.mySensor.myCommon.commitTime = 2000000000;
    auto& sensor = look.mySensorStatusPtr->virtualSensors[7];
    std::strcpy( sensor.name, "a\"b\\\n" );
    sensor.topServices[1] = { 17, { 5, 6 } };
    const std::string text = healthMetrics( look );
    for ( const char* linePtr :
          { "\nnuv_health_age_seconds{record=\"sensor\"} 1.500\n",
            "\nnuv_virtual_sensor_service{number=\"7\",sensor=\"a\\\"b\\\\\\\\x0a\","
            "rank=\"1\",protocol=\"udp\",value=\"2\"} 6\n" } )
        EXPECT_NE( text.find( linePtr ), std::string::npos ) << linePtr << text;
    EXPECT_EQ( text.find( "number=\"6\"" ), std::string::npos );
}
