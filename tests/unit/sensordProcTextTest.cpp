#include "procText.h"

#include <gtest/gtest.h>

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
    EXPECT_EQ( interfaces[0].myName, "lo" );
    EXPECT_EQ( interfaces[0].myReceiveErrors, 3u );
    EXPECT_EQ( interfaces[0].myReceiveDrops, 4u );
    EXPECT_EQ( interfaces[0].mySentBytes, 9u );
    EXPECT_EQ( interfaces[0].mySendDrops, 12u );
    EXPECT_EQ( interfaces[1].myName, "eth0:1" );
    EXPECT_EQ( interfaces[1].myReceivedBytes, 18446744073709551615u );
    EXPECT_EQ( interfaces[1].mySentBytes, 21u );
}

TEST( SensordProcText, MemInfoNeedsTotalAndAvailable )
{
    Memory memory;
    EXPECT_TRUE( parseMemInfo( "MemTotal:  100 kB\nMemFree: x kB\nMemAvailable: 60 kB", &memory ) );
    EXPECT_EQ( memory.myTotal, 100u );
    EXPECT_EQ( memory.myAvailable, 60u );
    EXPECT_EQ( memory.myFree, 0u );
    for ( const char* textPtr : { "", "MemTotal: 1 kB\nMemTotal: 1 kB\n", "MemAvailable: 1 kB\n",
                                  "MemTotal: 1 kB\nMemAvailable: many\n" } ) {
        SCOPED_TRACE( textPtr );
        EXPECT_FALSE( parseMemInfo( textPtr, &memory ) );
    }
}

TEST( SensordProcText, LoadAvgIsReadWholeOrNotAtAll )
{
    Load load;
    EXPECT_TRUE( parseLoadAvg( "0.05 12.30 1.999 2/345 6789\n", &load ) );
    EXPECT_EQ( load.myOneMinute, 5u );
    EXPECT_EQ( load.myFiveMinutes, 1230u );
    EXPECT_EQ( load.myFifteenMinutes, 199u );
    EXPECT_EQ( load.myNbrRunning, 2u );
    EXPECT_EQ( load.myNbrOfThreads, 345u );
    for ( const char* textPtr : { "", "1 2 3 4/5 6", "1.0 2.00 3.00 4/5", "1.00 2.00 3.00 45 6",
                                  "1.00 2.00 99999999.00 4/5 6", "1.00 2.00 3.00 /5 6" } ) {
        SCOPED_TRACE( textPtr );
        EXPECT_FALSE( parseLoadAvg( textPtr, &load ) );
    }
    EXPECT_EQ( load.myOneMinute, 5u );
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
    EXPECT_EQ( interrupts[0].myName, "1" );
    EXPECT_EQ( interrupts[0].myTotal, 10u );
    EXPECT_EQ( interrupts[0].myDescription, "IO-APIC   1-edge      i8042" );
    EXPECT_EQ( interrupts[1].myTotal, 3000000u );
    EXPECT_EQ( interrupts[2].myTotal, 7u );
    EXPECT_TRUE( parseInterrupts( "no heading\n1: 2\n", &nbrOfProcessors ).empty() );
    EXPECT_EQ( nbrOfProcessors, 0u );
}

} // namespace Sensor
