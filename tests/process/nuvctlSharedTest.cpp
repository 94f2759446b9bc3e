#include "nuvToolFixture.h"
#include "nuvctlHealth.h"
#include "nuvctlRecords.h"

#include "nuvGlobal.h"
#include "nuvGlobalHealthStatusAccessor.h"

#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace {

using namespace NuvTest;
using Json = nlohmann::json;
using Nuv::Ctl::RecordField;
using Nuv::Ctl::RecordFields;
using Data = Nuv::Utils::Global::Data;

class NuvctlShared : public ToolFixture
{
protected:
    static Json json( std::vector< std::string > arguments, int expectedStatus = 0 )
    {
        arguments.emplace_back( "--json" );
        const Outcome outcome = nuvctl( arguments );
        EXPECT_EQ( outcome.exitStatus(), expectedStatus ) << outcome.output << outcome.errors;
        return Json::parse( outcome.output, nullptr, false );
    }

    static std::unique_ptr< ChildProcess > start( const char* toolPtr,
                                                  std::vector< std::string > arguments )
    {
        auto daemonPtr = std::make_unique< ChildProcess >( tool( toolPtr ),
                                                           Start{ std::move( arguments ), {} } );
        EXPECT_EQ( daemonPtr->readLine(), std::string( toolPtr ) + ": ready" );
        return daemonPtr;
    }
    static std::unique_ptr< ChildProcess > startSensor()
    {
        writeFile( installation( "etc/boot.info" ),
                   "[Platform]\nmodel = nip500\n[nip500/Capabilities]\nbypass = yes\n" );
        return start( "sensord", { "--control", "--interval-ms", "50" } );
    }

    static std::string ask( const std::string& command )
    {
        const Outcome outcome = nuvctl( { "send", "sensord", command } );
        EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
        return outcome.output;
    }

    static void stop( ChildProcess& daemon )
    {
        daemon.kill( SIGTERM );
        EXPECT_EQ( daemon.wait().exitStatus(), 0 );
    }
};

const RecordField* find( const RecordFields& record, const std::string& name )
{
    for ( const RecordField& field : record.myFields ) {
        if ( field.myName == name )
            return &field;
    }
    return nullptr;
}

bool contains( const std::string& text, const std::string& part )
{
    return text.find( part ) != std::string::npos;
}

} // namespace

TEST_F( NuvctlShared, WhatIsNotThereIsOneAndWrongUsageTwoAndNothingIsCreated )
{
    const std::string longText( 100, 'x' );
    const struct
    {
        std::vector< std::string > arguments;
        int status;
        std::string text;
    } cases[] = {
        { { "health" }, 1, "no segment global-data" },
        { { "health", "--watch", "--interval-ms", "1" }, 2, "interval" },
        { { "global" }, 1, "no segment global-data" },
        { { "global", "set" }, 2, "nothing to set" },
        { { "global", "set", "--dns", "on" }, 1, "nobody would keep" },
        { { "global", "set", "--dns", "maybe" }, 2, "dns" },
        { { "global", "set", "--proxy", "10.0.0.1" }, 2, "ADDRESS:PORT" },
        { { "global", "set", "--proxy", "10.0.0.1:0" }, 2, "ADDRESS:PORT" },
        { { "global", "set", "--proxy", "10.0.0.1:65536" }, 2, "ADDRESS:PORT" },
        { { "global", "set", "--proxy", longText + ":80" }, 2, "longer than 19" },
        { { "global", "set", "--time-zone", longText }, 2, "longer than 99" },
        { { "global", "set", "--offset", "90000" }, 2, "offset" },
        { { "send", "nobody", "m" }, 1, "no server pipe" },
        { { "send", "nobody" }, 2, "message" },
        { { "send", "nobody", "m", "--timeout", "0" }, 2, "timeout" },
        { { "serve", "x" }, 2, "exec" },
        { { "serve", "x", "--exec", "/no/such" }, 1, "cannot be executed" },
        { { "decode" }, 2, "give a format" },
        { { "decode", "base64", "--segment", "x" }, 2, "give a format" },
        { { "decode", "nonsense", "file" }, 2, "no format" },
        { { "decode", "missing" }, 1, "cannot be read" },
        { { "decode", "--segment", "x" }, 1, "no segment" },
        { { "decode", "/proc/self/stat" }, 1, "no shared record" },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.text );
        const Outcome outcome = nuvctl( row.arguments );
        EXPECT_EQ( outcome.exitStatus(), row.status ) << outcome.output << outcome.errors;
        EXPECT_TRUE( contains( outcome.output + outcome.errors, row.text ) )
            << outcome.output << outcome.errors;
    }
    EXPECT_NE( ::access( installation( "" ).c_str(), F_OK ), 0 );
    EXPECT_TRUE( Nuv::Tools::readSegments().empty() );
}

TEST_F( NuvctlShared, TwoDaemonsTalkAndShowTheirHealth )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    const auto sensorPtr = startSensor();
    const auto mainPtr = start( "mainApp", { "--interval-ms", "50" } );
    EXPECT_TRUE( contains( ask( "help" ), "kill-helper\n" ) );
    EXPECT_TRUE( contains( ask( " model\n" ), "model nip500 bypass" ) );
    EXPECT_TRUE( contains( ask( "nonsense" ), "no command \"nonsense\"" ) );
    EXPECT_TRUE( contains( json( { "send", "sensord", "counters" } )["answer"], "lo.received " ) );
    EXPECT_TRUE( waitFor( [] { return contains( ask( "averages" ), "load " ); } ) );

    EXPECT_TRUE( waitFor( [] { return json( { "health" } )["mainApp"]["state"] == "running"; } ) );
    const Json before = json( { "health" } );
    EXPECT_EQ( before["sensor"]["state"], "running" );
    EXPECT_EQ( before["sensor"]["parameters"][0], 50 );
    EXPECT_EQ( before["mainApp"]["text"], "sensor running" );
    EXPECT_LT( before["sensor"]["ageSeconds"], 30.0 );
    bool hasLoopback = false;
    for ( const Json& sensor : before["sensor"]["virtualSensors"] )
        hasLoopback =
            hasLoopback || ( sensor["name"] == "lo" && sensor["buckets"]["last-hour"].size() == 7 );
    EXPECT_TRUE( hasLoopback ) << before["sensor"];
    EXPECT_TRUE( waitFor(
        [&] { return json( { "health" } )["sensor"]["commits"] > before["sensor"]["commits"]; } ) );
    EXPECT_TRUE( contains( nuvctl( { "health", "--prometheus" } ).output,
                           "\nnuv_health_state{record=\"main-app\"} 2\n" ) );
    ChildProcess watch( tool( "nuvctl" ), { { "health", "--watch", "--json" }, {} } );
    for ( int i = 0; i < 2; ++i )
        EXPECT_EQ( Json::parse( watch.readLine() )["sensor"]["whole"], true );
    watch.kill( SIGINT );
    EXPECT_EQ( watch.wait().signal(), SIGINT );

    ask( "kill-helper" );
    EXPECT_TRUE(
        waitFor( [] { return json( { "health" } )["sensor"]["feedshareNumOfFailures"] == 1; } ) );
    EXPECT_TRUE( waitFor( [] { return contains( ask( "averages" ), "load " ); } ) );

    stop( *mainPtr );
    stop( *sensorPtr );
    EXPECT_TRUE( json( { "ipc" } )["semaphores"].empty() );
    EXPECT_TRUE( json( { "ipc", "doctor" } )["findings"].empty() );
}

TEST_F( NuvctlShared, SettingsAreSetForAllAndDecodedAtTheirOffsets )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    const auto sensorPtr = startSensor();
    const Json change =
        json( { "global", "set", "--time-zone", "Europe/Zurich", "--offset", "-3600", "--proxy",
                "10.1.2.3:8080", "--proxy-enabled", "on", "--dns", "on", "--ftp-timeout", "60" } );
    EXPECT_EQ( change["before"]["ftpTimeout"], 300 );
    const Json now = json( { "global" } );
    EXPECT_EQ( now["settings"], change["after"] );
    EXPECT_EQ( now["model"], "nip500" );
    EXPECT_EQ( now["capabilities"], Json::array( { "bypass" } ) );
    json( { "global", "set", "--offset", "7200", "--dns", "off" } ); // the zone's name stays

    const std::string copy = root( "copy" );
    const Json segment = json( { "decode", "--segment", "shm_global-data", "--save", copy } );
    EXPECT_EQ( json( { "decode", copy } ), segment );
    const std::map< std::string, std::pair< int, Json > > expected = {
        { "localTimeOffset", { 0, 7200 } }, { "timeZoneName", { 4, "Europe/Zurich" } },
        { "dnsEnabled", { 104, 0 } },       { "httpProxyEnabled", { 105, 1 } },
        { "httpProxyPort", { 106, 8080 } }, { "httpProxyAddressText", { 108, "10.1.2.3" } },
        { "ftpTimeoutValue", { 140, 60 } }, { "keystoreLength", { 152, 0 } },
    };
    std::size_t nbrOfFound = 0;
    for ( const Json& field : segment["fields"] ) {
        if ( const auto iter = expected.find( field["field"] ); iter != expected.end() ) {
            EXPECT_EQ( field["offset"], iter->second.first );
            EXPECT_EQ( field["value"], iter->second.second );
            ++nbrOfFound;
        }
    }
    EXPECT_EQ( nbrOfFound, expected.size() );
    stop( *sensorPtr );
}

TEST_F( NuvctlShared, NameOfAKilledSensorIsSaidToBeLeftOverAndFreedByRepair )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    auto sensorPtr = startSensor();
    sensorPtr->kill( SIGKILL );
    sensorPtr->wait();
    EXPECT_TRUE(
        contains( nuvctl( { "send", "sensord", "status" } ).errors, "has ended without" ) );
    EXPECT_TRUE( contains( nuvctl( { "health" } ).errors, "the last ones left" ) );
    EXPECT_EQ( ChildProcess( tool( "sensord" ), { { "--control" }, {} } ).wait().exitStatus(), 1 );
    EXPECT_EQ( nuvctl( { "ipc", "repair", "--yes" } ).exitStatus(), 0 );
    sensorPtr = startSensor();
    EXPECT_TRUE( contains( ask( "status" ), "running" ) );
    stop( *sensorPtr );
}

TEST_F( NuvctlShared, ServeAnswersByAProgramThatMayFailOrHang )
{
    NUV_SKIP_IF_SIGNALS_BREAK_THREADS();
    const std::string message( 300000, 'm' ); // more than the program's pipes hold
    const struct
    {
        std::vector< std::string > program;
        std::string answer;
        const char* outcomePtr;
    } cases[] = {
        { { "/bin/sh", "tr m M" }, std::string( 300000, 'M' ), "ended with status 0" },
        { { "/bin/sh", "echo no input taken" }, "no input taken\n", "ended with status 0" },
        { { "/bin/sh", "echo part; exit 3" }, "part\n", "ended with status 3" },
        { { "/bin/sh", "kill -9 $$" }, "", "ended by signal 9" },
        { { "/bin/sh", "exec sleep 100" }, "", "its time being over" },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.program[1] );
        ChildProcess server( tool( "nuvctl" ), { { "serve", "test", "--timeout", "1", "--exec",
                                                   row.program[0], "--", "-c", row.program[1] },
                                                 {} } );
        ASSERT_EQ( server.readLine(), "serving the pipe \"test\"" );
        ChildProcess client( tool( "nuvctl" ), { { "send", "test", "-" }, {} } );
        client.writeInput( message );
        client.closeInput();
        const Outcome outcome = client.wait();
        EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.errors;
        EXPECT_TRUE( outcome.output == row.answer ) << outcome.output.substr( 0, 100 );
        EXPECT_TRUE( contains( server.readLine(), row.outcomePtr ) );
        stop( server );
    }
}

TEST_F( NuvctlShared, CommitThatNeverEndsIsSaidAndItsRecordNotShownAsWhole )
{
    ChildProcess writer( [] {
        Nuv::HealthAndSecurity::MainAppStatusSetter mainApp;
        mainApp.setExecutionState( Nuv::HealthAndSecurity::stateRunning );
        mainApp.commitToSharedMemory();
        Nuv::Io::SharedMemory memory( "global-data", sizeof( Data ),
                                      Nuv::Io::SharedMemory::readWrite );
        reinterpret_cast< Data* >( memory.memoryPtr() )->sensor.version = 0x80000007;
        std::cout << "busy" << std::endl;
        std::string line;
        std::getline( std::cin, line );
    } );
    ASSERT_EQ( writer.readLine(), "busy" );
    const Json health = json( { "health" }, 1 );
    EXPECT_EQ( health["mainApp"]["whole"], true );
    EXPECT_EQ( health["mainApp"]["state"], "running" );
    EXPECT_EQ( health["sensor"]["whole"], false );
    EXPECT_EQ( health["sensor"]["commits"], 7 );
    EXPECT_GT( health["sensor"]["tornReads"], 1 );
    writer.closeInput();
    EXPECT_EQ( writer.wait().exitStatus(), 0 );
}

TEST_F( NuvctlShared, CheckKnowsMainAppConfAndBootInfo )
{
    const struct
    {
        const char* filePtr;
        const char* bytesPtr;
        const char* textPtr; // null: no mistake
    } cases[] = {
        { "mainApp.conf", "[ControlTransaction]\nmaxWaitTimeForPipeRead = 5\n[own]\nx = 1\n",
          nullptr },
        { "mainApp.conf", "[ControlTransaction]\nmaxWaitTimeForPipeRead = 0\n",
          "out of the range" },
        { "mainApp.conf", "[ControlTransaction]\nmaxWaitTimeForPipeRead = 5s\n", "is no number" },
        { "mainApp.conf", "[ControlTransaction]\nmaxWait = 5\n", "\"maxWait\": unknown" },
        { "mainApp.conf", "[controltransaction]\nx = 5\n", "meant is \"ControlTransaction\"" },
        { "boot.info", "[Platform]\nmodel = m\n[m/Capabilities]\na = 1\nb = no\n[x]\ny = 1\n",
          nullptr },
        { "boot.info", "[Platform]\nserial = 1\n", "names no model" },
        { "boot.info", "[platform]\nmodel = m\n", "meant is \"Platform\"" },
        { "boot.info", "[Platform]\nmodel = m\n[M/Capabilities]\na = 1\n", "no such section" },
        { "boot.info", "[Platform]\nmodel = m\n[m/Capabilities]\na = maybe\n", "is absent" },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.bytesPtr );
        const std::string path = root( row.filePtr );
        writeFile( path, row.bytesPtr );
        const Outcome outcome = nuvctl( { "check", path } );
        EXPECT_EQ( outcome.exitStatus(), row.textPtr == nullptr ? 0 : 1 );
        EXPECT_TRUE(
            contains( outcome.output, row.textPtr == nullptr ? "no mistake" : row.textPtr ) )
            << outcome.output;
    }
}

TEST( SharedRecords, EveryFieldHasItsPlaceAndNoCountLeadsBeyondTheBytes )
{
    const RecordFields global = RecordFields::of( std::string( sizeof( Data ), '\xff' ), true );
    EXPECT_FALSE( global.myIsSound ); // the key store's length
    const std::map< std::string, std::pair< std::size_t, std::size_t > > places = {
        { "sensor.version", { 30156, 4 } },
        { "sensor.sensorLoadValue", { 30352, 4 } },
        { "sensor.virtualSensors[0].buckets[last-hour]", { 30472, 28 } },
        { "sensor.virtualSensors[255].topServices[9].values", { 100000, 8 } },
        { "mainApp.statusText", { 100040, 65 } },
    };
    for ( const auto& [name, place] : places ) {
        const RecordField* const fieldPtr = find( global, name );
        ASSERT_NE( fieldPtr, nullptr ) << name;
        EXPECT_EQ( fieldPtr->myOffset, place.first ) << name;
        EXPECT_EQ( fieldPtr->myNbrOfBytes, place.second ) << name;
    }
    EXPECT_EQ( find( global, "mainApp.version" )->myMeaning,
               "2147483647 commits, one is going on" );
    const RecordFields zones = RecordFields::of( std::string( 6044, '\xff' ), false );
    EXPECT_EQ( zones.myKind, "LogConfigManager" );
    EXPECT_FALSE( zones.myIsSound );
    EXPECT_EQ( find( zones, "zones[0].name" ), nullptr ); // their number is -1
    EXPECT_NE( find( zones, "presets[100].severity" ), nullptr );
    std::string threads( 8804, '\0' );
    threads[0] = 2;
    threads[4 + 88 * 99] = 1;
    EXPECT_TRUE( RecordFields::of( threads, false ).myIsSound );
    EXPECT_EQ( find( RecordFields::of( threads, false ), "records[99].state" )->myMeaning, "new" );
    EXPECT_EQ( RecordFields::of( "", true ).myKind, "" );
}

TEST( HealthMetrics, NamesAreEscapedAndUnusedSensorsLeftOut )
{
    Nuv::Ctl::HealthLook look;
    look.mySensorStatusPtr = std::make_shared< Nuv::HealthAndSecurity::SensorStatus >();
    look.mySensor.myIsWhole = true;
    EXPECT_FALSE( contains( healthMetrics( look ), "nuv_sensor_load" ) ); // never committed
    look.myTimeNs = 3500000000;
    look.mySensor.myCommon.commitTime = 2000000000;
    auto& sensor = look.mySensorStatusPtr->virtualSensors[7];
    std::strcpy( sensor.name, "a\"b\\\n" );
    sensor.topServices[1] = { 17, { 5, 6 } };
    const std::string text = healthMetrics( look );
    EXPECT_TRUE( contains( text, "\nnuv_health_age_seconds{record=\"sensor\"} 1.500\n" ) );
    EXPECT_TRUE( contains( text,
                           "\nnuv_virtual_sensor_service{number=\"7\",sensor=\"a\\\"b\\\\\\\\x0a\","
                           "rank=\"1\",protocol=\"udp\",value=\"2\"} 6\n" ) )
        << text;
    EXPECT_FALSE( contains( text, "number=\"6\"" ) );
}
