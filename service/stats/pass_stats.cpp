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
    const std::uint64_t end = PollEnd(range);
    const std::uint64_t start = std::max<std::uint64_t>(range.addr, end_);
    if (end > start)
        count_ += static_cast<std::uint32_t>(std::min<std::uint64_t>(ElementsOfSpan(end - start, range), range.width));
    end_ = std::max(end_, end);
}
