// Passes, on the main thread.
#include "stats/pass_stats.h"

#include <algorithm>

#include "stats/stats_file.h"
#include "voq/reg_range.h"

namespace
{
StatsLoop& Loop = Stats.loop;

// Answered reads that belong to no counted read yet.
std::uint32_t AnsweredReads;
std::uint32_t AnsweredElements;

StatsPass& Of(Pass pass)
{
    return pass == Pass::RealTime ? Loop.realTime : pass == Pass::Fast ? Loop.fast : Loop.org;
}
}  // namespace

void CountPass(Pass pass)
{
    ++Of(pass).passes;
}

void CountRead(Pass pass, const RegKey& read, std::uint32_t ranges, std::uint32_t wanted)
{
    StatsPass& of = Of(pass);
    ++of.reads;
    of.ranges += ranges;
    of.wanted += wanted;
    of.read += read.width;
    of.longest = std::max(of.longest, ranges);
}

void CountRealTimeRead(const RegKey& read)
{
    CountRead(Pass::RealTime, read, AnsweredReads, AnsweredElements);
    AnsweredReads = 0;
    AnsweredElements = 0;
}

void CountAnswer(const RtItem& item)
{
    switch (item.result) {
        case PLC_SUCCESS:
            ++Loop.answeredOk;
            break;
        case PLC_TIMEOUT:
            ++Loop.answeredTimeout;
            break;
        default:
            ++Loop.answeredError;
    }
    if (!IsRead(item)) return;
    ++AnsweredReads;
    AnsweredElements += item.key.width;
}

void CountSlaveLoop()
{
    ++Loop.slaveLoops;
}

void CountListed(std::uint32_t listed, std::uint32_t subscribed)
{
    Loop.listed = listed;
    Loop.subscribed = subscribed;
}

void ShowPasses()
{
    Show(Loop);
}

void WantedElements::Add(const RegKey& range)
{
    const std::uint32_t unit = UnitBytes(range);
    const std::uint64_t end = range.addr + std::uint64_t{(GetRegBuffLen(&range) + unit - 1) / unit};
    const std::uint64_t start = std::max<std::uint64_t>(range.addr, end_);
    if (end <= start) return;
    units_ += static_cast<std::uint32_t>(end - start);
    end_ = end;
}

std::uint32_t WantedElements::Of(const RegKey& read) const
{
    return std::min<std::uint32_t>(units_ * UnitBytes(read) / ElemBytes(read), read.width);
}
