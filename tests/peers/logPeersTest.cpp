// The system log drain against a real daemon, in a /dev of this test's own.

#include "nuvTestSupport.h"

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace {

NuvTest::Outcome shell( const std::string& command )
{
    return NuvTest::runProgram( "/bin/sh", { { "-ec", command }, {} } );
}

class LogSyslog : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if ( shell( "busybox --list | grep -qx syslogd" ).exitStatus() != 0 )
            GTEST_SKIP() << "busybox with its syslogd is not installed";
        // The daemon makes /dev/log: over /dev comes a folder with the devices that programs need.
        const std::string folder = myFolder.path();
        if ( shell( "mount -t tmpfs none " + folder +
                    "; for f in null zero random urandom; do touch " + folder +
                    "/$f; mount --bind /dev/$f " + folder + "/$f; done; mount --rbind " + folder +
                    " /dev" )
                 .exitStatus() != 0 )
            GTEST_SKIP() << "no privilege to mount";
        myIsMounted = true;
    }
    ~LogSyslog() override
    {
        if ( myIsMounted )
            shell( "umount -R /dev; umount -R " + myFolder.path() );
    }

    std::string messages() const
    {
        struct stat status;
        return ::stat( myMessages.c_str(), &status ) == 0 ? NuvTest::readFile( myMessages ) : "";
    }

    NuvTest::TemporaryFolder myFolder;
    NuvTest::TemporaryFolder myHome;
    const std::string myMessages = myHome.path( "messages" );
    bool myIsMounted = false;
};

TEST_F( LogSyslog, DaemonGetsIdentFacilityLevelAndTextUnchanged )
{
    NuvTest::writeFile( myHome.path( "ixoRoot/etc/log.conf" ),
                        "[syslog]\nfacility = local3\n[drain/s]\ntype = syslog\n"
                        "[zone/x]\ndrain = s\nflags = zonename\n"
                        "[zone/Syslog]\ndrain = s\nflags = severity\n" );
    NuvTest::ChildProcess daemon( "/bin/busybox", { { "syslogd", "-n", "-O", myMessages }, {} } );
    ASSERT_TRUE( NuvTest::waitFor( [] { return ::access( "/dev/log", F_OK ) == 0; } ) );
    const NuvTest::Outcome outcome =
        NuvTest::runProgram( NuvTest::program( "logProbe" ),
                             { { "severity x debug", "log x debug 100%", "log x timing %s%n",
                                 "log x warning w", "log x error e", "log any fatal f" },
                               { "HOME=" + myHome.path() } } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.errors;
    EXPECT_TRUE(
        NuvTest::waitFor( [this] { return messages().find( "/F f\n" ) != std::string::npos; } ) )
        << messages();
    for ( const char* linePtr :
          { "local3.debug nuvs: x 100%\n", "local3.info nuvs: x %s%n\n", "local3.warn nuvs: x w\n",
            "local3.err nuvs: x e\n", "local3.crit nuvs: /F f\n" } )
        EXPECT_TRUE( messages().find( linePtr ) != std::string::npos ) << linePtr << messages();
    daemon.kill( SIGKILL ); // it inherits the blocked signals of this process
    daemon.wait();
}

} // namespace
