#include "nuvLogHttp.h"
#include "nuvHttpCookieCache.h"
#include "nuvLogDrain.h"

#include "nuvTestHttp.h"
#include "nuvTestInterprocess.h"
#include "nuvTime.h"

#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <thread>

using namespace Nuv;
using namespace Nuv::Log;
using NuvTest::ScriptedServer;
using Peer = ScriptedServer::Peer;

namespace {

const Utils::Buffer ourMessage( "a\0b%s", 5 );
constexpr const char* ok = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

class LogHttp : public NuvTest::RootFixture
{
protected:
    static Drain::Options options( const Net::IpAddress& address )
    {
        Drain::Options options;
        options.type = Drain::Options::http;
        options.remoteAddr = static_cast< const Net::IpV4Address& >( address );
        return options;
    }
};

void serve( const Peer& peer )
{
    while ( peer.readRequest() )
        peer.send( ok );
}

std::uint32_t countOf( const DrainName& name )
{
    const Io::SharedMemory memory( LostMessages::segmentName, sizeof( LostMessages::Table ),
                                   Io::SharedMemory::readOnly );
    const auto* slotPtr = reinterpret_cast< const LostMessages::Slot* >( memory.memoryPtr() );
    for ( int i = 0; i < LostMessages::maxNbrOfSlots; ++i, ++slotPtr ) {
        if ( slotPtr->myState == LostMessages::inUse && slotPtr->myName == name )
            return slotPtr->myCount;
    }
    return 0xFFFFFFFF;
}

} // namespace

// Comes first: the zones are bound once for all tests. Posting takes the cookie cache's mutex under
// the drain's, so no other order may be: here the server takes it while it has not answered.
TEST_F( LogHttp, TakesWhatTheCookieCacheLogs )
{
    Net::HttpCookieCache& cache = *Net::HttpCookieCache::singletonPtr();
    ScriptedServer server( { [&cache]( const Peer& peer ) {
        while ( peer.readRequest() && cache.nbrOfCookies() == 1 )
            peer.send( ok );
    } } );
    NuvTest::writeFile( root( "ixoRoot/etc/log.conf" ),
                        "[zone/Nuv]\nseverity = debug\ndrain = web\n[drain/web]\ntype = http\n"
                        "remoteAddr = 127.0.0.1\nremotePort = " +
                            std::to_string( server.address().port() ) + "\n" );
    cache.cacheCookie( "h", "a=1; path=/p;" );
    cache.dumpHostsCookies( "h" );
    cache.removeCookie( "h", "b", "/p" );
    EXPECT_EQ( 3u, server.requests().size() ) << "each message once";
    const_cast< Zone& >( getStandardSource( debug ).zone() ).severity( error );
}

TEST_F( LogHttp, PostsEachMessageOnOneConnection )
{
    ScriptedServer server( { serve, []( const Peer& ) { ADD_FAILURE() << "second connection"; } } );
    Drain drain( "web", options( server.address() ), 0 );
    drain.outputMessage( error, ourMessage, "my zone" );
    drain.outputMessage( debug, Utils::Buffer(), "z" );
    EXPECT_EQ( 0u, drain.nbrOfLost() );
    const std::string rest = " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: Mozilla/4.76 [en] "
                             "(compatible; U)\r\nContent-Length: ";
    const std::string first = "POST /cgi-bin/sys-server?f=log&sev=E&zone=my+zone" + rest +
                              "5\r\nContent-Type: text/plain\r\n\r\n" + ourMessage.str();
    ASSERT_EQ( 2u, server.requests().size() );
    EXPECT_EQ( first, server.requests()[0] );
    EXPECT_EQ( 0, server.requests()[1].find( "POST /cgi-bin/sys-server?f=log&sev=D&zone=z" + rest +
                                             "0" ) );
}

TEST_F( LogHttp, TriesThreeTimesAndOnNewConnections )
{
    const auto refuse = []( const Peer& peer ) { peer.readRequest(); };
    const auto once = []( const Peer& peer ) {
        peer.readRequest();
        peer.send( "HTTP/1.1 404 No\r\nConnection: close\r\n\r\nwhatever" );
    };
    ScriptedServer server( { refuse, refuse, once, once, refuse, refuse, refuse, serve } );
    Drain drain( "web", options( server.address() ), 0 );
    for ( const unsigned int nbrOfLost : { 0, 0, 1, 1 } ) {
        drain.outputMessage( error, ourMessage, "z" );
        EXPECT_EQ( nbrOfLost, drain.nbrOfLost() );
    }
    EXPECT_EQ( 8u, server.requests().size() );
}

TEST_F( LogHttp, HoldsAThreadForAKnownTimeAndCountsWhatIsLost )
{
    std::unique_ptr< ScriptedServer > serverPtr(
        new ScriptedServer( { []( const Peer& peer ) { peer.stall(); } } ) );
    Drain drain( "dead", options( serverPtr->address() ), 0 );
    Drain other( "dead", options( serverPtr->address() ), 0 );
    Drain third( "third", options( serverPtr->address() ), 0 );
    const Utils::MsTimer timer;
    drain.outputMessage( error, ourMessage, "z" );
    EXPECT_LT( timer.totalTime(), 9000u ) << "three times two seconds, and some";
    serverPtr.reset();
    other.outputMessage( error, ourMessage, "z" );
    EXPECT_EQ( 1u, other.nbrOfLost() );
    EXPECT_EQ( 2u, countOf( "dead" ) );
    EXPECT_EQ( 0u, countOf( "third" ) );
    EXPECT_EQ( 0xFFFFFFFFu, countOf( "fourth" ) );
}

TEST_F( LogHttp, LeavesItsConnectionToTheParentAfterAFork )
{
    ScriptedServer server( { serve, serve } );
    HttpPoster poster( static_cast< const Net::IpV4Address& >( server.address() ) );
    EXPECT_TRUE( poster.post( error, ourMessage, "parent" ) );
    const NuvTest::Outcome outcome = NuvTest::runInChild( [&] { poster.leaveConnection(); } );
    EXPECT_EQ( 0, outcome.exitStatus() );
    EXPECT_TRUE( poster.post( error, ourMessage, "parent" ) );
    EXPECT_EQ( 2u, server.requests().size() ) << "none was tried again";
}
