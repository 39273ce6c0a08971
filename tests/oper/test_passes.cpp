// Priorities, and the two polling passes against an independent model: which reads they make, that no fewer would do,
// and what each read leaves in the register database. The clock stands still unless a test moves it.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <algorithm>
#include <array>

#include "list/log_on_off.h"
#include "oper/fast_pass.h"
#include "oper/org_pass.h"
#include "oper/priority.h"
#include "support/capture.h"
#include "support/layout.h"
#include "support/scratch.h"
#include "voq/reg_range.h"

namespace
{
std::int64_t NowUs;  // what the clock of this process shows
}

extern "C" int gettimeofday(timeval* tv, void*) noexcept
{
    tv->tv_sec = NowUs / 1000000;
    tv->tv_usec = NowUs % 1000000;
    return 0;
}

namespace
{
constexpr std::int64_t StartUs = 1'700'000'000'000'000;

// The PLC's byte at a byte address; never 0, which is what a fresh region holds.
unsigned char PlcByte(std::uint64_t at)
{
    return static_cast<unsigned char>((at * 2654435761u >> 11) % 255 + 1);
}

void FillFromPlc(const PlcRequest& request, bool)
{
    const std::uint64_t start = std::uint64_t{request.key->addr} * UnitBytes(*request.key);
    for (std::int32_t i = 0; i < request.length; ++i) static_cast<unsigned char*>(request.data)[i] = PlcByte(start + i);
}

struct Read {
    std::size_t start;  // index in the list walked
    std::int64_t addr, width;
    bool operator==(const Read&) const = default;
};

void PrintTo(const Read& read, std::ostream* out)
{
    *out << read.addr << " x " << read.width;
}

// The reads of one whole round over a list, from its head. `once`: what lies inside a read is no longer due.
std::vector<Read> ModelRound(std::vector<Range> list, const Limits& limits, bool once = false)
{
    std::vector<Read> reads;
    for (std::size_t i = 0; i < list.size();) {
        const RegKey& first = list[i].key;
        if (!list[i].due) {
            ++i;
            continue;
        }
        const bool bits = (first.layout & 15) == 0;
        const std::int64_t most = bits ? limits.bits : limits.words, gap = bits ? limits.bitGap : limits.wordGap;
        const std::int64_t addr = first.addr, unit = Unit(first), element = Element(first);
        std::int64_t width = first.width;
        std::size_t next = i + 1;
        if (width < most) {
            next = i;
            for (; next < list.size() && OneGroup(first, list[next].key); ++next) {
                if (!list[next].due) continue;
                const RegKey& key = list[next].key;
                const std::int64_t packEnd = addr + Span(width, first), end = key.addr + Span(key.width, first);
                const std::int64_t last = addr + Span(most, first);
                if (key.addr >= last || key.addr >= packEnd + Span(gap, first) || key.width >= most || end > last)
                    break;
                width = ((std::max(packEnd, end) - addr) * unit + element - 1) / element;
            }
            next = std::max(next, i + 1);
        }
        reads.push_back({i, addr, width});
        for (std::size_t j = i; once && j < list.size() && OneGroup(first, list[j].key); ++j) {
            const RegKey& key = list[j].key;
            if (key.addr + Span(key.width, key) <= addr + Span(width, first)) list[j].due = false;
        }
        i = next;
    }
    return reads;
}

class Passes : public testing::Test
{
protected:
    Passes()
    {
        NowUs = StartUs;
        ComInfo = {};
        Use({64, 10, 64, 10});
        InitPriRange();
        FakeDriver::Use();
        FakeDriver::Serve = FillFromPlc;
        CurrentNode = 0;
        LoopReStart = 0;
    }

    void Use(const Limits& limits)
    {
        ComInfo.wordLimit = static_cast<std::uint16_t>(limits.words);
        ComInfo.wordGap = static_cast<std::uint8_t>(limits.wordGap);
        ComInfo.bitLimit = static_cast<std::uint16_t>(limits.bits);
        ComInfo.bitGap = static_cast<std::uint8_t>(limits.bitGap);
    }

    // Registers the ranges in the given order and subscribes those that are to be.
    void Build(std::vector<Range> ranges)
    {
        scratch.ResetDatabase();
        chain = fast = {};
        for (std::size_t i = 0; i < ranges.size(); ++i) {
            ranges[i].key.convpara = static_cast<std::uint32_t>(i);
            ranges[i].offset = static_cast<std::uint32_t>(12 + 56 * i);
            EXPECT_EQ(0, CheckOrgList(&ranges[i].key));
            Place(chain, ranges[i]);
            if (!ranges[i].subscribed) continue;
            Place(fast, ranges[i]);
            AddFastIndex(ranges[i].key, static_cast<std::uint16_t>(i), ranges[i].offset);
        }
        CurrentFastList = 0;
    }

    // The driver reads recorded since the last call, as reads: a read above the limit is put together again.
    std::vector<Read> TakeReads(const std::vector<Range>& list, std::vector<std::size_t>* calls = nullptr)
    {
        std::vector<Read> reads;
        for (const DriverCall& call : FakeDriver::Transfers()) {
            const auto at =
                std::ranges::find_if(list, [&](const Range& r) { return r.key.convpara == call.key.convpara; });
            const auto start = static_cast<std::size_t>(at - list.begin());
            if (!reads.empty() && reads.back().start == start) {
                reads.back().width += call.key.width;
                if (calls != nullptr) ++calls->back();
            } else {
                reads.push_back({start, call.key.addr, call.key.width});
                if (calls != nullptr) calls->push_back(1);
            }
        }
        return reads;
    }

    void FastRound(void (*pass)())
    {
        for (std::size_t i = 0; i < fast.size() + 2; ++i) {
            pass();
            if (CurrentFastList == FastHead().head) return;
        }
        ADD_FAILURE() << "the cursor does not come round";
    }

    // What the reads leave in every record, read or not.
    void ExpectWrittenBack(const std::vector<Range>& list, const std::vector<Read>& reads, int result) const
    {
        std::vector<bool> inside(chain.size()), copied(chain.size());
        for (const Read& read : reads) {
            const RegKey& first = list[read.start].key;
            const std::int64_t end = read.addr + Span(read.width, first);
            std::size_t at = 0;
            while (chain[at].key.convpara != first.convpara) ++at;
            for (; at < chain.size() && OneGroup(chain[at].key, first); ++at) {
                const RegKey& key = chain[at].key;
                if (key.addr + Span(key.width, key) > end) continue;
                inside[at] = true;
                const std::int64_t bytes = (key.addr - read.addr) * Unit(key) + key.width * Element(key);
                if (bytes <= read.width * Element(first)) copied[at] = true;
            }
        }
        const std::string org = FileBytes(OrgFileName), data = FileBytes(DataFileName);
        for (std::size_t i = 0; i < chain.size(); ++i) {
            const OrgNode node = ReadOrgNode(org, chain[i].offset);
            const RegKey& key = chain[i].key;
            ASSERT_EQ(key.convpara, node.key.convpara);
            EXPECT_EQ(inside[i] ? result : 0, node.state) << "record " << i;
            const std::int64_t stampUs = node.stamp.seconds * 1000000LL + node.stamp.microseconds;
            EXPECT_EQ(inside[i] ? NowUs : StartUs, stampUs) << "record " << i;
            std::string value(GetRegBuffLen(&key), '\0');
            for (std::size_t b = 0; copied[i] && result == 1 && b < value.size(); ++b) {
                value[b] = static_cast<char>(PlcByte(std::uint64_t{key.addr} * UnitBytes(key) + b));
            }
            EXPECT_TRUE(value == data.substr(node.dataoffset, value.size())) << "record " << i;
        }
    }

    Scratch scratch;
    std::vector<Range> chain, fast;  // the model of both lists, in their order
};

TEST_F(Passes, AgeDecidesByPriorityClass)
{
    OrgNode record{};
    NowUs = StartUs + 5'500'000;
    const auto due = [&](std::uint32_t flag, std::int64_t ageMs) {
        record.key.flag = flag;
        const std::int64_t us = NowUs - ageMs * 1000;
        record.stamp = {static_cast<std::int32_t>(us / 1000000), static_cast<std::int32_t>(us % 1000000)};
        return PackOrNot(record);
    };
    constexpr std::uint32_t Medium = 3 << 16, Slowest = 10 << 16;
    const struct {
        std::uint32_t flag;
        std::int64_t ageMs;
        int expected;
    } cases[] = {{0, 0, 0},          {0, 1, 1},           {0, 70000, 70000},
                 {1 << 16, 0, 1},    {Medium, 9, 0},      {Medium, 10, 1},
                 {Medium, 601, 2},   {Slowest, 1999, 0},  {Medium | REG_FLAG_URGENT, 600, 1},
                 {Slowest, 2000, 1}, {Slowest, 10000, 1}, {Slowest, 10001, 2}};
    for (const auto& each : cases) EXPECT_EQ(each.expected, due(each.flag, each.ageMs)) << &each - cases;
    EXPECT_EQ((std::array{1u, 2u, 1u}), (std::array{+PackForwardMiss[2], +PackGoal[2], +PackBackwardMiss[2]}));
    for (const std::uint32_t flag : {5u << 16, Medium | REG_FLAG_DWORD_CHANGE}) {
        EXPECT_EQ("GEt reg pri error!!!!!\n", Output([&] { EXPECT_NE(0, due(flag, 0)); }));
    }
    EXPECT_EQ(0u, Output([&] { EXPECT_EQ(-5, due(0, -5)); }).find("*VOQ*!NodeTimePassed wrong =-5!"));
    EXPECT_NE("", Output([&] { EXPECT_EQ(1, due(Slowest, -5)); }));
    record.key.plcno = 200;
    StationDisable[12] = 1 << 8;
    EXPECT_EQ(0, due(1 << 16, 5000));
    EXPECT_EQ("", Output([&] { EXPECT_EQ(0, due(0, -5)); }));
}

TEST_F(Passes, AFullRoundMakesTheFewestReads)
{
    Random random(7);
    std::vector<Shape> shapes = {{2000, false, false, true}, {2000, true, false, true}, {2000, true, true, true}};
    for (std::size_t i = 0; i < 40; ++i) {
        shapes.push_back({static_cast<std::size_t>(Pick(random, 1, 60)), i % 2 != 0, i % 3 != 0, true});
    }
    for (const Shape& shape : shapes) {
        const std::int64_t most = Pick(random, 1, 130), gap = Pick(random, 0, 20);
        const Limits limits{most, gap, Pick(random, 1, 130), Pick(random, 0, 20)};
        Use(limits);
        Build(Layout(random, shape, Pick(random, 1, most + 3), gap));
        NowUs += 1000;
        FastRound(OperFastList);
        std::vector<std::size_t> calls;
        const std::vector<Read> expected = ModelRound(fast, limits), made = TakeReads(fast, &calls);
        ASSERT_EQ(expected, made);
        std::size_t total = 0;
        for (const std::size_t count : calls) total += count;
        EXPECT_EQ(LeastCalls(fast, limits), total) << shape.ranges << " ranges, limit " << most << ", gap " << gap;
        ExpectWrittenBack(fast, made, 1);
        NowUs = StartUs;
    }
}

// Records that are not subscribed, not due or of a disabled station, element sizes that do not fill an address unit,
// failing reads, and the pass without packing.
TEST_F(Passes, MixedRoundsMatchTheModel)
{
    Random random(11);
    for (int round = 0; round < 60; ++round) {
        const bool aligned = round % 2 == 0;
        const std::int64_t least = aligned ? 0 : 13;  // a chunk step of 0 is tested elsewhere
        const Limits limits{Pick(random, least, 40), Pick(random, 0, 8), Pick(random, least, 40), Pick(random, 0, 8)};
        Use(limits);
        std::vector<Range> ranges =
            Layout(random, {static_cast<std::size_t>(Pick(random, 1, 50)), true, true, aligned}, 12, 6);
        for (Range& range : ranges) {
            const std::int64_t priority = std::array{1, 10, 0, 3}[Pick(random, 0, aligned ? 3 : 1)];
            range.key.flag = static_cast<std::uint32_t>(priority << 16);
            range.subscribed = Pick(random, 0, 3) != 0;
            range.due = priority != 10 && range.key.plcno != 2;
        }
        // Overlapping ranges nobody subscribed: they are written back when a read happens to hold them.
        for (int extra = 0; extra < 10; ++extra) {
            Range range = ranges[Pick(random, 0, std::ssize(ranges) - 1)];
            range.key.addr += static_cast<std::uint32_t>(Pick(random, 0, 9));
            range.key.width = static_cast<std::uint16_t>(Pick(random, 1, 9));
            range.subscribed = false;
            ranges.push_back(range);
        }
        std::vector<Range> unique;
        for (const Range& range : ranges) {
            const auto same = [&](const Range& r) {
                return OneGroup(r.key, range.key) && NodeCompare(r.key, range.key) == 0;
            };
            if (std::ranges::none_of(unique, same)) unique.push_back(range);
        }
        Build(unique);
        StationDisable[0] = 1 << 2;
        NowUs += 1000'000;
        const int result = round % 5 == 0 ? 2 : 1;
        if (result != 1) FakeDriver::Script.assign(1000, 2);
        const bool packed = round % 4 != 3;
        const std::string log = Output([&] { FastRound(packed ? OperFastList : OperFastList_NoPack); });
        FakeDriver::Script.clear();
        GlobeTimeout = 0;
        const std::vector<Read> expected = ModelRound(fast, packed ? limits : Limits{1, 1, 1, 1});
        if (result == 1) {  // a read without elements reaches no driver
            std::vector<Read> calling = expected;
            std::erase_if(calling, [](const Read& read) { return read.width == 0; });
            EXPECT_EQ(calling, TakeReads(fast));
            EXPECT_EQ(packed ? 0 : std::ssize(expected), std::ranges::count(log, '<'));
            ExpectWrittenBack(fast, expected, 1);
        } else if (std::ranges::none_of(expected, [](const Read& read) { return read.width == 0; })) {
            ExpectWrittenBack(fast, expected, 2);
        }
        FakeDriver::Calls.clear();

        // The org-list pass then reads what is left, each record once.
        std::vector<Range> left = chain;
        const std::string org = FileBytes(OrgFileName);
        for (Range& range : left) range.due = range.key.plcno != 2 && ReadOrgNode(org, range.offset).state == 0;
        CurrentNode = chain.front().offset;
        LoopReStart = 0;
        for (std::size_t i = 0; i < 2 * chain.size() && LoopReStart == 0; ++i) {
            packed ? OperOrgList() : OperOrgList_NoPack();
            if (CurrentNode == chain.front().offset) break;
        }
        std::vector<Read> rest = ModelRound(left, packed ? limits : Limits{1, 1, 1, 1}, true);
        std::erase_if(rest, [](const Read& read) { return read.width == 0; });
        EXPECT_EQ(rest, TakeReads(left)) << "round " << round;
        NowUs = StartUs;
    }
}

// An end of the address space, entries that name no record, an empty list, files that are gone.
TEST_F(Passes, EntriesWithoutARecordAreNeverPolled)
{
    OperFastList();
    EXPECT_EQ(0, CurrentFastList);
    Build({{WordKey(0, 2), true, true, 0}, {WordKey(0xFFFFFFF0, 16), true, true, 0}});
    Use({20, 1, 20, 1});
    const std::string log = Output([] {
        AddFastIndex(WordKey(10, 2), 90, 13);           // on no record
        AddFastIndex(WordKey(20, 2), 91, 12 + 56 * 2);  // behind the last record
        AddFastIndex(WordKey(60, 2), 92, 0xFFFFFFFF);
        AddFastIndex(WordKey(70, 2), 93, 0xFFFFFFF0);
        for (int i = 0; i < 4; ++i) OperFastList();
    });
    // Said once each; 0xFFFFFFFF is what a failed lookup left, and reported.
    EXPECT_EQ(3, std::ranges::count(log, ',')) << log;
    EXPECT_EQ((std::vector<Read>{{0, 0, 2}, {1, 0xFFFFFFF0, 16}, {0, 0, 2}, {1, 0xFFFFFFF0, 16}}), TakeReads(fast));
    std::filesystem::remove(OrgFileName);
    for (const auto& pass : {OperFastList, OperFastList_NoPack, OperOrgList}) pass();
    EXPECT_TRUE(FakeDriver::Calls.empty());
    const WriteLock list{fast_rwlock};  // both were given back
    const MutexLock database{DatabaseLock};
}
}  // namespace
