// Processes of both widths on one root: one zone table, one file.

#include "nuvLogFile.h"
#include "nuvTestSupport.h"

#include <algorithm>
#include <memory>

namespace {

using Commands = std::vector< std::string >;

class LogWidths : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for ( const int width : { 32, 64 } ) {
            NUV_SKIP_WITHOUT( NuvTest::program( "logProbe", width ) );
        }
    }

    NuvTest::Start start( const Commands& commands ) const
    {
        return { commands, { "HOME=" + myHome.path() } };
    }

    std::string run( int width, const Commands& commands ) const
    {
        const NuvTest::Outcome outcome =
            NuvTest::runProgram( NuvTest::program( "logProbe", width ), start( commands ) );
        EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.errors;
        return outcome.output;
    }

    NuvTest::TemporaryFolder myHome;
};

TEST_F( LogWidths, EachSeesAtItsNextStatementWhatTheOtherChanges )
{
    for ( const int width : { 32, 64 } ) {
        SCOPED_TRACE( width );
        const std::string path = myHome.path( "ixoRoot/log/main.log" );
        NuvTest::writeFile( path, "" );
        NuvTest::ChildProcess holder(
            NuvTest::program( "logProbe", width ),
            start( { "source x debug", "emit first", "ready", "wait", "emit second" } ) );
        EXPECT_EQ( "ready", holder.readLine() );
        EXPECT_EQ( "x warning 7e main\n1\nx debug 20 main\n1\n",
                   run( 96 - width, { "zone x", "severity x debug", "flags x 20", "zone x",
                                      "severity y error" } ) );
        EXPECT_EQ( "y error 7e main\n", run( width, { "zone y" } ) ) << "a preset of the other's";
        holder.writeInput( "go\n" );
        EXPECT_EQ( 0, holder.wait().exitStatus() );
        EXPECT_EQ( "x second\n" + std::string( Nuv::Log::endOfFileMarker ),
                   NuvTest::readFile( path ) );
    }
}

TEST_F( LogWidths, ProcessesThatStartAtOnceMakeOneTable )
{
    std::vector< std::unique_ptr< NuvTest::ChildProcess > > processes;
    for ( int i = 0; i < 8; ++i ) {
        processes.push_back( std::make_unique< NuvTest::ChildProcess >(
            NuvTest::program( "logProbe", i % 2 == 0 ? 32 : 64 ),
            start( { "fill 20", "ready", "wait" } ) ) );
    }
    for ( const auto& processPtr : processes )
        EXPECT_EQ( "ready", processPtr->readLine() );
    const std::string rows = run( 64, { "zones" } );
    EXPECT_EQ( 20, std::count( rows.begin(), rows.end(), '\n' ) );
    for ( int i = 0; i < 20; ++i )
        EXPECT_NE( rows.find( "fill" + std::to_string( i ) + " " ), std::string::npos ) << rows;
    for ( const auto& processPtr : processes ) {
        processPtr->closeInput();
        EXPECT_EQ( 0, processPtr->wait().exitStatus() );
    }
    EXPECT_EQ( "", run( 64, { "zones" } ) ) << "the last user has removed it";
}

} // namespace
