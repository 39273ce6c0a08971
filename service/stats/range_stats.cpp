// Subscribed ranges and rounds.
#include "stats/range_stats.h"

#include <algorithm>
#include <cstring>

#include "arch/clock.h"
#include "stats/pass_stats.h"
#include "stats/stats_file.h"

namespace
{
constexpr std::int64_t Second = 1000000;
constexpr int PeriodWeight = 8;  // reads over which a period is smoothed

// The round that runs now.
struct Round {
    std::uint64_t began;  // mono; of its first read
    StatsRound sums;
    std::uint32_t lost[StatsStations];  // us, by station
};
Round Now;

std::uint64_t LastReadMono[StatsRanges];  // by slot: the wall clock may be set between two reads

std::uint32_t Capped(std::uint64_t us)
{
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(us, UINT32_MAX));
}

std::uint32_t WallSeconds()
{
    return static_cast<std::uint32_t>(WallMicroseconds() / Second);
}

void CountPeriod(StatsRange& row, std::uint64_t& lastMono, std::uint64_t now)
{
    const auto passed = static_cast<std::int64_t>(now - lastMono);
    lastMono = now;
    if (row.lastRead == 0) return;  // the first one
    const std::int64_t mean = row.period == 0 ? passed : row.period + (passed - row.period) / PeriodWeight;
    row.period = Capped(static_cast<std::uint64_t>(std::max<std::int64_t>(mean, 1)));
}

std::uint32_t StationThatLostMost()
{
    const auto* const most = std::max_element(std::begin(Now.lost), std::end(Now.lost));
    return *most == 0 ? StatsNoStation : static_cast<std::uint32_t>(most - Now.lost);
}

void SetFlag(StatsRange& row, std::uint32_t flag, bool set)
{
    row.flags = set ? row.flags | flag : row.flags & ~flag;
}
}  // namespace

void ShowLogOn(std::uint16_t slot, const RegKey& key, std::uint32_t orgOffset, std::uint16_t fileno)
{
    StatsRange& row = Stats.ranges[slot];
    const std::uint32_t sequence = row.sequence;
    row = {};
    row.sequence = sequence;
    row.flags = STATS_RANGE_SUBSCRIBED;
    row.key = key;
    row.orgOffset = orgOffset;
    row.fileno = fileno;
    row.subscribers = 1;
    row.since = WallSeconds();
    Show(row);
}

void ShowSubscribers(std::uint16_t slot, std::uint16_t subscribers)
{
    StatsRange& row = Stats.ranges[slot];
    row.subscribers = subscribers;
    if (subscribers == 0) row.flags = 0;
    Show(row);
}

FastRead::FastRead() : before_(TimeOfReads())
{
    if (Now.sums.reads == 0) Now.began = MonoMicroseconds();
}

void FastRead::Ended(const RegKey& read, std::span<const ReadRange> ranges, std::uint32_t wanted, int result)
{
    const auto amount = static_cast<std::uint32_t>(ranges.size());
    const DriverTime after = TimeOfReads();
    const std::uint32_t lost = Capped(after.lost - before_.lost);
    ++Now.sums.reads;
    Now.sums.ranges += amount;
    Now.sums.driverTime += Capped(after.all - before_.all);
    Now.sums.lostTime += lost;
    Now.lost[read.plcno] += lost;
    CountRead(Pass::Fast, read, amount, wanted);

    const std::int64_t now = WallMicroseconds();
    const std::uint64_t nowMono = MonoMicroseconds();
    for (const ReadRange& range : ranges) {
        StatsRange& row = Stats.ranges[range.slot];
        if ((row.flags & STATS_RANGE_SUBSCRIBED) == 0 || row.orgOffset != range.orgOffset) continue;
        row.readNumber = static_cast<std::uint16_t>(std::min<std::uint32_t>(Now.sums.reads, UINT16_MAX));
        row.readRanges = static_cast<std::uint16_t>(amount);
        row.readAddr = read.addr;
        row.readWidth = read.width;
        row.readWanted = static_cast<std::uint16_t>(std::min<std::uint32_t>(wanted, UINT16_MAX));
        row.result = static_cast<std::uint16_t>(result);
        CountPeriod(row, LastReadMono[range.slot], nowMono);
        row.lastRead = now;
        ShowRead(row);
    }
}

void EndRound()
{
    if (Now.sums.reads == 0) return;
    StatsRound& last = Stats.loop.round;
    const std::uint64_t rounds = last.rounds + 1;
    last = Now.sums;
    last.rounds = rounds;
    last.length = Capped(MonoMicroseconds() - Now.began);
    last.lostStation = StationThatLostMost();
    std::memset(&Now, 0, sizeof Now);
}

void ShowRefused(std::uint16_t slot, bool refused)
{
    StatsRange& row = Stats.ranges[slot];
    SetFlag(row, STATS_RANGE_REFUSED, refused);
    row.refusedSince = !refused ? 0 : row.refusedSince != 0 ? row.refusedSince : WallSeconds();
    Show(row);
}

void ShowApart(std::uint16_t slot, std::uint32_t neighbour)
{
    StatsRange& row = Stats.ranges[slot];
    SetFlag(row, STATS_RANGE_APART, neighbour != 0);
    row.apartFrom = neighbour;
    Show(row);
}
