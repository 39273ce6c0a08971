// The passes against a device with holes: what each read may change, how soon every range has its value, what a round
// costs, and how it heals. Both clocks are the test's.
#include <gtest/gtest.h>
#include <time.h>

#include <map>
#include <random>
#include <set>

#include "list/log_on_off.h"
#include "list/rt_file.h"
#include "list/rt_list.h"
#include "oper/fast_pass.h"
#include "oper/halving.h"
#include "oper/org_pass.h"
#include "oper/refusals.h"
#include "oper/rt_pass.h"
#include "support/scratch.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

extern std::int64_t NowUs;

extern "C" int clock_gettime(clockid_t, timespec* now) noexcept
{
    *now = {NowUs / 1000000, NowUs % 1000000 * 1000};
    return 0;
}

namespace
{
std::mt19937 Random;
std::set<std::uint32_t> Holes;
bool Failing;        // one read in four ends with a time-out or an error
std::uint8_t Value;  // every byte of every register
RegKey Asked;
int Result;

bool Answers(const RegKey& range)
{
    const auto hole = Holes.lower_bound(range.addr);
    return hole == Holes.end() || *hole >= range.addr + range.width;
}

std::int32_t Device(const char* command, void*, void** args)
{
    if (std::strcmp(command, "RdOne") != 0) return PLC_DRV_OK;
    const auto* request = static_cast<PlcRequest*>(args[0]);
    Asked = *request->key;
    std::memset(request->data, Value, static_cast<std::size_t>(request->length));
    Result = Answers(Asked) ? PLC_DRV_OK : PLC_DRV_REFUSED;
    if (Failing && Random() % 4 == 0) Result = Random() % 2 == 0 ? PLC_DRV_TIMEOUT : PLC_DRV_ERROR;
    return Result;
}

class Refusals : public testing::Test
{
protected:
    // Ranges of two areas, of a seed that is not even also some inside others. Each begins at an address of its own.
    void MakeRanges(unsigned seed)
    {
        Scratch::ResetDatabase();
        records.clear();
        Random.seed(seed);
        std::uint32_t addr = 0;
        for (std::uint16_t n = 0; n < 40; ++n) {
            requests[n] = {WordKey(addr, static_cast<std::uint16_t>(1 + Random() % 8)), 1, 0, n, 0};
            requests[n].key.regid = n < 25 ? 1 : 2;
            LogOnOff2OrgList(&requests[n], OrgMode::Register, n);
            addr += (seed % 2 == 0 || Random() % 4 != 0 ? requests[n].key.width : 1) + Random() % 6;
        }
        for (Holes.clear(); Holes.size() < 1 + seed % 6;) Holes.insert(Random() % addr);
        for (std::uint32_t at = sizeof(OrgHeader); records.size() < requests.size(); at += sizeof(OrgNode))
            records[at] = ReadOrgNode(FileBytes(OrgFileName), at);
    }

    // One pass, checked: only what was read changes, and a refusal is one range's, or nobody's. False: nothing to read.
    bool Pass(void (*pass)())
    {
        Asked.width = 0;
        NowUs += 1000;
        const int errors = GlobeComError;
        pass();
        refused = Asked.width != 0 && Result == PLC_DRV_REFUSED;
        EXPECT_TRUE(!refused || (GlobeTimeout == 0 && GlobeComError == errors));
        again = refused;
        const std::string org = FileBytes(OrgFileName);
        for (auto& [at, record] : records) {
            const OrgNode before = std::exchange(record, ReadOrgNode(org, at));
            const bool stamped = std::memcmp(&before.stamp, &record.stamp, sizeof before.stamp) != 0;
            const bool inside = SameGroup(Asked, record.key) && ValueWithin(Asked, GetRegBuffLen(&Asked), record.key);
            EXPECT_EQ(stamped, refused ? stamped && SameRange(Asked, record.key) : inside) << at;
            const int state = refused ? PLC_ERROR : Result == PLC_DRV_OK ? PLC_SUCCESS : Result;
            EXPECT_EQ(stamped ? state : before.state, record.state) << at;
            if (stamped) again = false;
        }
        return Asked.width != 0;
    }

    // Polls so many times round; returns the reads of the last time, and how many of all were refused.
    std::pair<int, int> Rounds(int rounds)
    {
        std::pair<int, int> reads;
        for (; rounds > 0; --rounds) {
            reads.first = 0;
            do {
                reads.first += Pass(OperFastList);
                reads.second += refused;
            } while (again || CurrentFastList != FastHead().head);
        }
        return reads;
    }

    void ExpectValues()
    {
        const std::string data = FileBytes(DataFileName);
        for (const auto& [at, record] : records) {
            const std::string value(GetRegBuffLen(&record.key), static_cast<char>(Value));
            EXPECT_EQ(Answers(record.key) ? PLC_SUCCESS : PLC_ERROR, record.state) << at;
            EXPECT_TRUE(!Answers(record.key) || data.substr(record.dataoffset, value.size()) == value) << at;
        }
    }

    Scratch scratch;
    std::array<RegRequest, 40> requests;
    std::map<std::uint32_t, OrgNode> records;
    bool refused = false;
    bool again = false;  // refused, and nobody's state changed
};

TEST_F(Refusals, ReadsAreTakenApartLearntFromAndHealed)
{
    ComInfo.wordLimit = 64;
    ComInfo.wordGap = 10;
    _cmd = Device;
    for (unsigned seed = 0; seed < 30; ++seed) {
        SCOPED_TRACE(seed);
        MakeRanges(seed);
        const auto holes = static_cast<int>(Holes.size());
        CurrentNode = LoopReStart = 0;
        Value = 1;
        for (int idle = 0; LoopReStart == 0 && idle < 3;) idle = Pass(OperOrgList) ? 0 : idle + 1;
        ExpectValues();

        for (const RegRequest& each : requests) LogOnOff2OrgList(&each, OrgMode::LogOn, each.fileno);
        std::set<std::uint32_t> dug;
        Holes.swap(dug);
        const int whole = Rounds(1).first;
        Holes.swap(dug);
        Value = 2;
        Rounds(3);
        ExpectValues();
        Rounds(6);
        const auto steady = Rounds(1);
        const int facts = RefusedAlone.Count() + Barriers.Count();
        EXPECT_EQ(0, steady.second);
        EXPECT_LE(steady.first, whole + 2 * holes);
        EXPECT_LE(facts, seed % 2 == 0 ? holes : 8 * holes);
        NowUs += FirstRetryMs * 1000ll;
        EXPECT_LE(Rounds(1).first, steady.first + 2 * facts);

        Failing = seed % 3 == 0;
        Holes.insert(Random() % 100);
        Rounds(6);
        Failing = false;
        Rounds(1);
        Holes.clear();
        NowUs += LongestRetryMs * 1000ll;
        Rounds(6);
        ExpectValues();
        EXPECT_EQ(std::make_pair(whole, 0), Rounds(1));
        EXPECT_EQ(0, RefusedAlone.Count());
    }
}

TEST_F(Refusals, OneShotsThatWereJoinedAreReadAlone)
{
    ComInfo.wordLimit = 16;
    Holes = {2};
    ResetRtList();
    _cmd = Device;
    RegKey keys[] = {WordKey(4, 2), WordKey(0, 2), WordKey(2, 1), WordKey(40, 2), WordKey(4, 2)};
    keys[4].regid = 9;
    for (std::uint16_t n = 0; n < 5; ++n) AddRtList({keys[n], 0, 0, n, 0}, 3, n, nullptr, 0);
    for (int passes = 0; passes < 2; ++passes) OperRtList();
    for (std::uint16_t n = 0; n < 5; ++n)
        EXPECT_EQ(n == 2 ? PLC_ERROR : PLC_SUCCESS, FileBytes(RtPath::Result(n).Text()).at(26)) << n;
}

TEST_F(Refusals, RetriesBecomeRarer)
{
    LearntTable table;
    table.Note({5, 1}, 1000);
    EXPECT_TRUE(table.Waits({5, 1}, 60999) && !table.Waits({5, 1}, 61000) && !table.Known({5, 2}) && !table.Known({}));
    for (const unsigned minutes : {2, 4, 8, 16, 32, 60, 60}) {
        const std::uint64_t at = table.RetryAt({5, 1});
        table.Note({5, 1}, at);
        EXPECT_EQ(at + minutes * 60000, table.RetryAt({5, 1}));
    }
    EXPECT_EQ(1000u, table.Since({5, 1}));
}

TEST_F(Refusals, HalvingEndsWhereTheListHasChanged)
{
    Halving halves;
    for (const RegKey& start : {WordKey(9, 1), WordKey(19, 1), WordKey(12, 1, 0x12)}) {
        halves.Refused(WordKey(10, 8), 6);
        EXPECT_EQ(3u, halves.Most(WordKey(10, 1)));
        EXPECT_EQ(Halving::AnyNumber, halves.Most(start));
        EXPECT_EQ(Halving::AnyNumber, halves.Most(WordKey(10, 1)));
    }
    halves.Refused(WordKey(10, 8), 6);
    halves.Refused(WordKey(12, 4), 4);  // of another number than was to be read
    EXPECT_EQ(Halving::AnyNumber, halves.Most(WordKey(10, 1)));
}
}  // namespace
