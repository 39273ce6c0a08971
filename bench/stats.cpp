// What the statistics cost: the calls that a refresh of neighbouring one-word ranges makes to them, turn by turn, made
// alone. Which calls those are is held against a refresh.
//     stats RANGES SAMPLES DRIVER
#include "changes.h"
#include "list/log_on_off.h"
#include "oper/fast_pass.h"
#include "oper/priority.h"
#include "stats/heartbeat.h"
#include "stats/pass_stats.h"
#include "stats/range_stats.h"
#include "stats/stats_file.h"
#include "support/scratch.h"
#include "word_sources.h"

namespace
{
constexpr std::uint16_t Limit = 64;

std::uint32_t OffsetOf(std::uint16_t range)
{
    return OrgFirstRecord + std::uint32_t{sizeof(OrgNode)} * range;
}

void Subscribe(std::uint16_t ranges)
{
    InitPriRange();
    for (std::uint16_t i = 0; i < ranges; ++i) {
        const RegKey key = BenchKey(i);
        CheckOrgList(&key);
        if (AddFastIndex(key, i, OffsetOf(i)) != i + 1) Fail("a slot out of order");
    }
}

void Refresh()
{
    do {
        OperFastList();
    } while (CurrentFastList != FastHead().head);
}

// As the main loop and the fast-list pass make them.
void Turn(std::uint16_t first, std::uint16_t amount)
{
    static ReadRange joined[Limit];
    RegKey read = BenchKey(first);
    read.width = amount;
    BeginTurn();
    CountListed(0, amount);
    CountPass(Pass::Fast);
    WantedElements wanted;
    for (std::uint16_t i = 0; i < amount; ++i) {
        joined[i] = {static_cast<std::uint16_t>(first + i + 1), OffsetOf(static_cast<std::uint16_t>(first + i))};
        wanted.Add(BenchKey(static_cast<std::uint16_t>(first + i)));
    }
    FastRead stats;
    TimedCall(TimedCall::Kind::Read, read).Ended(PLC_DRV_OK);
    {
        const ReadLock lock(fast_rwlock);
        stats.Ended(read, {joined, amount}, wanted.Of(read), PLC_SUCCESS);
    }
    ShowPasses();
    const Waiting pause(StatsWait::Pause);
}

void StatisticsAlone(std::uint16_t ranges)
{
    for (std::uint16_t first = 0; first < ranges; first += Limit) {
        Turn(first, std::min<std::uint16_t>(Limit, static_cast<std::uint16_t>(ranges - first)));
    }
    EndRound();
}
}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) return 2;
    const Report report;
    const Scratch scratch;
    const auto ranges = static_cast<std::uint16_t>(std::atoi(argv[1]));
    const int samples = std::atoi(argv[2]);
    ComInfo.wordLimit = Limit;
    ComInfo.wordGap = 1;
    _cmd = LoadDriver(argv[3]);
    StartStats((scratch.Folder() + "stats").c_str(), 0);
    StartHeartbeat();
    Subscribe(ranges);
    Refresh();
    if (Stats.loop.fast.ranges != ranges) Fail("a refresh that was not counted");
    const std::uint64_t reads = Stats.loop.fast.reads;
    StatisticsAlone(ranges);
    if (Stats.loop.fast.ranges != 2u * ranges || Stats.loop.fast.reads != 2 * reads)
        Fail("other calls than a refresh makes");

    std::vector<double> times;
    for (int i = 0; i < samples; ++i) {
        Refresh();  // the memory that it uses comes between, as in the service
        const double start = NowUs();
        StatisticsAlone(ranges);
        times.push_back(NowUs() - start);
    }
    report.Figure("statistics", ranges, "us", times);
}
