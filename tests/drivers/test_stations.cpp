// When a station counts as lost, when it is asked again, and for how long.
#include <gtest/gtest.h>

#include "drivers/modbus/stations.h"

TEST(Stations, AreLostAskedMoreRarelyAndFound)
{
    StationTable table = {};
    std::uint64_t now = 1000;
    for (int i = 0; i < 2; i++) NoteTimeout(table, 9, now, now);
    NoteAnswer(table, 9, now, now);
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(MayAsk(table, 9, now)) << i;
        EXPECT_EQ(TakeNotice(table, 9, now), Notice::None);
        NoteFailure(table, 9, now, now);  // says nothing of the station
        NoteTimeout(table, 9, now, now);
    }
    EXPECT_EQ(TakeNotice(table, 9, now), Notice::Lost);
    for (const unsigned interval : {250u, 500u, 750u, 750u, 1500u, 2000u, 2000u}) {
        EXPECT_FALSE(MayAsk(table, 9, now + interval - 1)) << interval;
        EXPECT_TRUE(MayAsk(table, 9, now += interval)) << interval;
        if (table.stations[9].probes >= 4) NoteAnswer(table, 8, now, now);  // no longer alone
        interval % 500 == 0 ? NoteTimeout(table, 9, now, now) : NoteFailure(table, 9, now, now);
    }
    EXPECT_FALSE(MayAsk(table, 9, now));
    ForgetDevices(table);
    EXPECT_TRUE(MayAsk(table, 9, now));
    for (const std::uint8_t other : {0, 8, 10, 255}) EXPECT_TRUE(MayAsk(table, other, now));

    // It comes and goes: one message in ten seconds, the last of them true.
    int notices = 0;
    Notice last = Notice::Lost;
    for (const std::uint64_t end = now + 60000; now < end; now += 100) {
        now % 1000 < 500 ? NoteAnswer(table, 9, now, now) : NoteTimeout(table, 9, now, now);
        const Notice notice = TakeNotice(table, 9, now);
        notices += notice != Notice::None;
        if (notice != Notice::None) last = notice;
    }
    EXPECT_GE(notices, 5);
    EXPECT_LE(notices, 7);
    NoteAnswer(table, 9, now, now);
    if (const Notice notice = TakeNotice(table, 9, now + NoticeEveryMs); notice != Notice::None) last = notice;
    EXPECT_EQ(last, Notice::Found);
    NoteTimeout(table, 9, now, now);
    EXPECT_TRUE(MayAsk(table, 9, now));
}

// Dead stations take a third of the time of those that answer, and what a station needs is seen from its answers.
TEST(Stations, AreProbedNoLongerThanTheirAnswersTakeAndLeaveTimeToTheOthers)
{
    StationTable table = {};
    std::uint64_t now = 1000;
    for (const std::uint8_t slow : {1, 2})
        for (int i = 0; i < 50; i++) NoteAnswer(table, slow, now, now + (slow == 1 ? 10 : 80));
    for (const std::uint8_t dead : {1, 2, 3})
        for (unsigned i = 0; i < LostAfter; i++) {
            EXPECT_EQ(AnswerLimitMs(table, dead, 500), 500u);
            NoteTimeout(table, dead, now, now);
        }
    const std::uint32_t limits[] = {LeastWaitMs, 320, 500};
    for (const std::uint8_t dead : {1, 2, 3})
        EXPECT_NEAR(AnswerLimitMs(table, dead, 500), limits[dead - 1], 20) << +dead;
    EXPECT_EQ(AnswerLimitMs(table, 2, 200), 200u);
    while (table.stations[1].probes % FullProbeEvery != 0) NoteTimeout(table, 1, now, now);
    EXPECT_EQ(AnswerLimitMs(table, 1, 500), 500u);

    now += 5000;
    EXPECT_TRUE(MayAsk(table, 1, now) && MayAsk(table, 2, now));
    NoteTimeout(table, 1, now - 300, now);
    EXPECT_TRUE(MayAsk(table, 2, now));  // nobody whom it would hold up
    NoteAnswer(table, 4, now, now);
    NoteTimeout(table, 1, now - 300, now);
    EXPECT_FALSE(MayAsk(table, 2, now + 599));
    EXPECT_TRUE(MayAsk(table, 2, now + 600) && MayAsk(table, 4, now));
}
