#include "procText.h"

#include <gtest/gtest.h>
#include <tuple>

namespace Sensor {

TEST( SensordProcText, NetDevGivesEveryInterfaceAndCountsWhatItCannotRead )
{
    unsigned int nbrOfBad = 0;
    const auto interfaces = parseNetDev(
        "Inter-|   Receive                                                |  Transmit\n"
        " face |bytes packets errs drop fifo frame compressed multicast|bytes packets errs drop\n"
        "    lo:     1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
        "eth0:1:18446744073709551615 0 0 0 0 0 0 0 21 0 0 0 0 0 0 0\n"
        "short: 1 2 3\n"
        "big: 18446744073709551616 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n"
        "minus: -1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n"
        ": 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n"
        "no colon",
        &nbrOfBad );
    EXPECT_EQ( nbrOfBad, 5u );
    ASSERT_EQ( interfaces.size(), 2u );
    const Interface& lo = interfaces[0];
    EXPECT_EQ( lo.myName, "lo" );
    EXPECT_EQ( std::tuple( lo.myReceiveErrors, lo.myReceiveDrops, lo.mySentBytes, lo.mySendDrops ),
               std::tuple( 3u, 4u, 9u, 12u ) );
    EXPECT_EQ( interfaces[1].myName, "eth0:1" );
    EXPECT_EQ( interfaces[1].myReceivedBytes, 18446744073709551615u );
}

TEST( SensordProcText, MemInfoNeedsTotalAndAvailable )
{
    Memory memory;
    EXPECT_TRUE( parseMemInfo( "MemTotal:  100 kB\nMemFree: x kB\nMemAvailable: 60 kB", &memory ) );
    EXPECT_TRUE( memory.myTotal == 100 && memory.myAvailable == 60 && memory.myFree == 0 );
    for ( const char* textPtr : { "", "MemTotal: 1 kB\nMemTotal: 1 kB\n", "MemAvailable: 1 kB\n",
                                  "MemTotal: 1 kB\nMemAvailable: many\n" } )
        EXPECT_FALSE( parseMemInfo( textPtr, &memory ) ) << textPtr;
}

TEST( SensordProcText, LoadAvgIsReadWholeOrNotAtAll )
{
    Load load;
    EXPECT_TRUE( parseLoadAvg( "0.05 12.30 1.999 2/345 6789\n", &load ) );
    for ( const char* textPtr : { "", "1 2 3 4/5 6", "1.0 2.00 3.00 4/5", "1.00 2.00 3.00 45 6",
                                  "1.00 2.00 99999999.00 4/5 6", "1.00 2.00 3.00 /5 6" } )
        EXPECT_FALSE( parseLoadAvg( textPtr, &load ) ) << textPtr;
    EXPECT_EQ( std::tuple( load.myOneMinute, load.myFiveMinutes, load.myFifteenMinutes,
                           load.myNbrRunning, load.myNbrOfThreads ),
               std::tuple( 5u, 1230u, 199u, 2u, 345u ) );
}

TEST( SensordProcText, InterruptsAreSummedOverTheProcessors )
{
    unsigned int nbrOfProcessors = 0;
    const auto interrupts =
        parseInterrupts( "           CPU0       CPU1\n"
                         "  1:          9          1   IO-APIC   1-edge      i8042\n"
                         "LOC:    1000000    2000000   Local timer interrupts\n"
                         "ERR:          7\n"
                         "garbage\n",
                         &nbrOfProcessors );
    EXPECT_EQ( nbrOfProcessors, 2u );
    ASSERT_EQ( interrupts.size(), 3u );
    EXPECT_TRUE( interrupts[0].myName == "1" && interrupts[0].myTotal == 10 );
    EXPECT_EQ( interrupts[0].myDescription, "IO-APIC   1-edge      i8042" );
    EXPECT_TRUE( interrupts[1].myTotal == 3000000 && interrupts[2].myTotal == 7 );
    EXPECT_TRUE( parseInterrupts( "no heading\n1: 2\n", &nbrOfProcessors ).empty() );
    EXPECT_EQ( nbrOfProcessors, 0u );
}

} // namespace Sensor
