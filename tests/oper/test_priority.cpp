// When a range is due, by its priority class and the age of its value. The clock stands still unless a test moves it.
// And when nothing that is due need be looked for again.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <array>

#include "list/log_on_off.h"
#include "oper/fast_pass.h"
#include "oper/org_pass.h"
#include "oper/priority.h"
#include "state/counters.h"
#include "support/capture.h"
#include "support/scratch.h"

std::int64_t NowUs = 1'700'000'000'500'000;

extern "C" int gettimeofday(timeval* tv, void*) noexcept
{
    *tv = {NowUs / 1000000, NowUs % 1000000};
    return 0;
}

TEST(Priority, AgeDecidesByClass)
{
    InitPriRange();
    OrgNode record{};
    const auto due = [&](std::uint32_t flag, std::int64_t ageMs) {
        record.key.flag = flag;
        const std::int64_t us = NowUs - ageMs * 1000;
        record.stamp = {static_cast<std::int32_t>(us / 1000000), static_cast<std::int32_t>(us % 1000000)};
        return PackOrNot(record);
    };
    constexpr std::uint32_t Always = 1 << 16, Medium = 3 << 16, Slowest = 10 << 16;
    const std::tuple<std::uint32_t, int, int> cases[] = {
        {0, 0, 0},          {0, 1, 1},           {0, 70000, 70000},
        {Always, 0, 1},     {Medium, 9, 0},      {Medium, 10, 1},
        {Medium, 601, 2},   {Slowest, 1999, 0},  {Medium | REG_FLAG_URGENT, 600, 1},
        {Slowest, 2000, 1}, {Slowest, 10000, 1}, {Slowest, 10001, 2}};
    const Stamp now = {static_cast<std::int32_t>(NowUs / 1000000), static_cast<std::int32_t>(NowUs % 1000000)};
    for (const auto& [flag, ageMs, expected] : cases) {
        EXPECT_EQ(expected, due(flag, ageMs)) << flag << ", " << ageMs;
        EXPECT_EQ(expected != 0, UntilDueUs(record, now) == 0) << flag << ", " << ageMs;
    }
    EXPECT_EQ((std::array{1u, 2u, 1u}), (std::array{+PackForwardMiss[2], +PackGoal[2], +PackBackwardMiss[2]}));
    for (const std::uint32_t flag : {5u << 16, Medium | REG_FLAG_DWORD_CHANGE}) {
        EXPECT_EQ("GEt reg pri error!!!!!\n", Output([&] { EXPECT_NE(0, due(flag, 0)); }));
        Output([&] { EXPECT_EQ(0u, UntilDueUs(record, now)); });
    }
    EXPECT_EQ(0u, Output([&] { EXPECT_EQ(-5, due(0, -5)); }).find("*VOQ*!NodeTimePassed wrong =-5!"));
    EXPECT_NE("", Output([&] { EXPECT_EQ(1, due(Slowest, -5)); }));
    EXPECT_EQ(0u, UntilDueUs(record, now));
    record.key.plcno = 200;
    StationDisable[12] = 1 << 8;
    EXPECT_EQ(0, due(Always, 5000));
    EXPECT_EQ("", Output([&] { EXPECT_EQ(0, due(0, -5)); }));
}

// True when the pass looks at the records: it opens the org file, and says so when there is none.
static bool Looks(void (*pass)())
{
    const std::string away = std::string(OrgFileName) + "-away";
    std::filesystem::rename(OrgFileName, away);
    const std::string said = Output([pass] { pass(); });
    std::filesystem::rename(away, OrgFileName);
    return !said.empty();
}

TEST(Rest, LastsUntilThereMayBeSomethingToRead)
{
    const Scratch scratch;
    FakeDriver::Use();
    InitPriRange();
    ComInfo.wordLimit = 64;
    CurrentNode = 0;
    NowUs += 300;  // ages count the clock's whole milliseconds
    const auto ends = [](void (*pass)(), auto cause) {
        for (int turn = 0; turn < 5; ++turn) Output([pass] { pass(); });  // to the end, from the head, and again
        EXPECT_FALSE(Looks(pass));
        cause();
        EXPECT_TRUE(Looks(pass));
    };
    RegKey keys[] = {WordKey(0, 64), WordKey(100, 64)};
    for (RegKey& key : keys) {
        key.flag = 10u << REG_FLAG_PRIORITY_SHIFT;  // every two seconds
        ends(OperOrgList, [&key] { CheckOrgList(&key); });
    }
    AddFastIndex(keys[0], 1, 12);
    ends(OperFastList, [&] { AddFastIndex(keys[1], 2, 68); });
    ends(OperFastList, [] { DelFastIndex(2); });
    GlobeTimeout = 1;
    ends(OperOrgList, [] { GlobeTimeout = 0; });
    for (const auto pass : {OperOrgList, OperFastList}) ends(pass, [] { ++SwitchChanges; });
    NowUs -= 5'000'000;  // the clock goes back
    ++SwitchChanges;
    EXPECT_EQ(0u, Output(OperOrgList).find("*VOQ*!NodeTimePassed wrong ="));
    NowUs += 5'000'000;
    const auto after = [&ends](void (*pass)(), int us) {
        ends(pass, [=] {
            NowUs += us - 1;
            EXPECT_FALSE(Looks(pass));
            NowUs += 1;
        });
    };
    after(OperOrgList, 1'000'000);
    after(OperFastList, 1'000'000 - 300);  // one of the two that its records last has passed
}
