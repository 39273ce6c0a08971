// When a station counts as lost, and when it is asked again.
#include <gtest/gtest.h>

#include "drivers/modbus/stations.h"

TEST(Stations, AreLostAskedEverMoreRarelyAndFound)
{
    StationTable table = {};
    std::uint64_t now = 1000;
    for (int i = 0; i < 2; i++) NoteTimeout(table, 9, now);
    NoteAnswer(table, 9);
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(MayAsk(table, 9, now)) << i;
        EXPECT_EQ(TakeNotice(table, 9, now), Notice::None);
        NoteFailure(table, 9, now);  // says nothing of the station
        NoteTimeout(table, 9, now);
    }
    EXPECT_EQ(TakeNotice(table, 9, now), Notice::Lost);
    for (const unsigned interval : {250u, 500u, 1000u, 2000u, 4000u, 8000u, 8000u}) {
        EXPECT_FALSE(MayAsk(table, 9, now + interval - 1)) << interval;
        EXPECT_TRUE(MayAsk(table, 9, now += interval)) << interval;
        interval % 1000 == 0 ? NoteTimeout(table, 9, now) : NoteFailure(table, 9, now);
    }
    EXPECT_FALSE(MayAsk(table, 9, now));
    ProbeAll(table);
    EXPECT_TRUE(MayAsk(table, 9, now));
    for (const std::uint8_t other : {0, 8, 10, 255}) EXPECT_TRUE(MayAsk(table, other, now));

    // It comes and goes: one message in ten seconds, the last of them true.
    int notices = 0;
    Notice last = Notice::Lost;
    for (const std::uint64_t end = now + 60000; now < end; now += 100) {
        now % 1000 < 500 ? NoteAnswer(table, 9) : NoteTimeout(table, 9, now);
        const Notice notice = TakeNotice(table, 9, now);
        notices += notice != Notice::None;
        if (notice != Notice::None) last = notice;
    }
    EXPECT_GE(notices, 5);
    EXPECT_LE(notices, 7);
    NoteAnswer(table, 9);
    if (const Notice notice = TakeNotice(table, 9, now + NoticeEveryMs); notice != Notice::None) last = notice;
    EXPECT_EQ(last, Notice::Found);
    NoteTimeout(table, 9, now);
    EXPECT_TRUE(MayAsk(table, 9, now));
}
