// Reckons with the last whole round and with a model of packing: the rules of the service's own, over the subscribed
// ranges in the order of their groups.
#include "client/explain.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <set>
#include <tuple>

#include "voq/com_info.h"
#include "voq/reg_range.h"

namespace voq
{

namespace
{

constexpr std::uint32_t TenMilliseconds = 10000, TwoSeconds = 2000000;
constexpr std::uint32_t ShortestTimeOut = 1000;
constexpr std::uint32_t LittleTime = 1000;  // of a round: not worth a word
constexpr std::uint32_t WidestGap = 255;    // what a setting holds
// The longest request of Modbus, the usual limit of other protocols too.
constexpr std::uint32_t ManyWords = 125, ManyBits = 2000;

struct Packing {
    std::uint32_t limit;
    std::uint32_t gap;
};

bool IsBit(const RegKey& key)
{
    return RegElemSize(&key) == 0;
}

Packing SettingOf(const ComInfoRecord& port, bool bits)
{
    if (bits) return {port.bitLimit, port.bitGap};
    return {port.wordLimit, port.wordGap};
}

std::uint32_t Asked(const RegKey& key)
{
    switch (key.flag >> REG_FLAG_PRIORITY_SHIFT & REG_FLAG_PRIORITY_MASK) {
        case 3:
            return TenMilliseconds;
        case 10:
            return TwoSeconds;
        default:
            return 0;
    }
}

auto Place(const RegKey& key)
{
    return std::tuple(key.plcno, key.regid, key.layout, SubaddrLow(key), GroupFlag(key), key.addr, key.width);
}

// The ranges of one kind that every round asks for, by group and address; those that are rarely due when there are no
// others.
std::vector<StatsRange> OfEveryRound(const std::vector<StatsRange>& rows, bool bits)
{
    std::vector<StatsRange> often, all;
    for (const StatsRange& row : rows) {
        if (IsBit(row.key) != bits || (row.flags & STATS_RANGE_REFUSED) != 0) continue;
        all.push_back(row);
        if (Asked(row.key) < TwoSeconds) often.push_back(row);
    }
    std::vector<StatsRange>& taken = often.empty() ? all : often;
    std::sort(taken.begin(), taken.end(),
              [](const StatsRange& a, const StatsRange& b) { return Place(a.key) < Place(b.key); });
    return taken;
}

// Whether a read grows over the next range of its group: then `read` has its new width.
bool Joins(RegKey& read, const StatsRange& next, Packing packing)
{
    const std::uint64_t most = PollEnd(read, packing.limit), end = PollEnd(read), nextEnd = PollEnd(next.key);
    const bool apart = (next.flags & STATS_RANGE_APART) != 0;
    if (apart || read.width >= packing.limit || next.key.width >= packing.limit || next.key.addr >= most ||
        next.key.addr >= end + AddressSpan(packing.gap, read) || nextEnd > most) {
        return false;
    }
    read.width = static_cast<std::uint16_t>(ElementsOfSpan(std::max(end, nextEnd) - read.addr, read));
    return true;
}

std::uint32_t CountReads(const std::vector<StatsRange>& ranges, Packing packing)
{
    std::uint32_t reads = 0;
    RegKey read = {};
    for (const StatsRange& range : ranges) {
        if (reads != 0 && SameGroup(read, range.key) && Joins(read, range, packing)) continue;
        read = range.key;
        ++reads;
    }
    return reads;
}

// The gaps at which two neighbours would begin to be joined.
std::set<std::uint32_t> GapsBetween(const std::vector<StatsRange>& ranges)
{
    std::set<std::uint32_t> gaps;
    for (std::size_t i = 1; i < ranges.size(); ++i) {
        const RegKey &one = ranges[i - 1].key, &next = ranges[i].key;
        if (!SameGroup(one, next) || next.addr < PollEnd(one)) continue;
        const std::uint64_t gap = ElementsOfSpan(next.addr - PollEnd(one), one) + 1;
        if (gap <= WidestGap) gaps.insert(static_cast<std::uint32_t>(gap));
    }
    return gaps;
}

class Adviser
{
public:
    Adviser(const Statistics& statistics, const RoundExplained& round, const std::vector<StatsRange>& ranges)
        : port_(statistics.port),
          stations_(statistics.stations),
          rounds_(statistics.loop.round.rounds),
          round_(round),
          ranges_(ranges)
    {
    }

    std::vector<Advice> All()
    {
        if (port_.packing != 0) {
            Packed(false);
            Packed(true);
        }
        Pause();
        LostStations();
        SlowStation();
        TimeOuts();
        std::stable_sort(advice_.begin(), advice_.end(),
                         [](const Advice& a, const Advice& b) { return a.saves > b.saves; });
        return std::move(advice_);
    }

private:
    // A setting that joins more: what it is now, what it would be, the reads that it would leave.
    void Setting(Advice::Kind kind, const char* name, std::uint32_t now, std::uint32_t better, std::uint32_t reads)
    {
        const std::uint64_t each = round_.reads == 0 ? 0 : (round_.driver + round_.pauses) / round_.reads;
        advice_.push_back({kind,
                           std::string(name) + " = " + std::to_string(better) + " (now " + std::to_string(now) +
                               "): " + std::to_string(reads) + (reads == 1 ? " read" : " reads") + " less in a round",
                           each * reads});
    }

    void Packed(bool bits)
    {
        const std::vector<StatsRange> ranges = OfEveryRound(ranges_, bits);
        const Packing now = SettingOf(port_.comInfo, bits);
        const std::uint32_t reads = CountReads(ranges, now);
        std::uint32_t gap = now.gap, fewest = reads;
        for (const std::uint32_t wider : GapsBetween(ranges)) {
            const std::uint32_t then = wider > now.gap ? CountReads(ranges, {now.limit, wider}) : reads;
            if (then < fewest) std::tie(gap, fewest) = std::tie(wider, then);
        }
        if (fewest < reads) Setting(Advice::Kind::Gap, bits ? "bit_gap" : "word_gap", now.gap, gap, reads - fewest);
        const std::uint32_t limit = bits ? ManyBits : ManyWords;
        if (limit <= now.limit) return;
        const std::uint32_t longer = CountReads(ranges, {limit, now.gap});
        if (longer < reads) {
            Setting(Advice::Kind::Limit, bits ? "bit_limit" : "word_limit", now.limit, limit, reads - longer);
            advice_.back().text += ", if the PLC takes requests of that length";
        }
    }

    void Pause()
    {
        if (port_.pause <= 1 || round_.reads == 0) return;
        advice_.push_back({Advice::Kind::Pause, "pause_ms = 1 (now " + std::to_string(port_.pause) + ")",
                           std::uint64_t{port_.pause - 1} * 1000 * round_.reads});
    }

    // What a station that is away costs differs from round to round: the driver passes it over and tries it again.
    std::uint64_t LostFor(std::size_t number) const
    {
        const StatsStation& station = stations_[number];
        if (station.lastBad < station.lastGood || rounds_ == 0) return 0;
        const bool inLast = round_.lostStation && *round_.lostStation == number;
        return std::max<std::uint64_t>(station.lostTime / rounds_, inLast ? round_.lost : 0);
    }

    void LostStations()
    {
        for (std::size_t number = 0; number < stations_.size(); ++number) {
            const std::uint64_t lost = LostFor(number);
            if (lost < LittleTime || ReadsOf(number) == 0) continue;
            advice_.push_back({Advice::Kind::Station,
                               "station " + std::to_string(number) +
                                   " does not answer in time: mend it, or switch it off while it is away",
                               lost});
        }
    }

    // Its reads in the last round.
    std::size_t ReadsOf(std::size_t number) const
    {
        std::set<std::uint16_t> reads;
        for (const StatsRange& range : ranges_) {
            if (range.key.plcno == number && (range.flags & STATS_RANGE_REFUSED) == 0) reads.insert(range.readNumber);
        }
        return reads.size();
    }

    // A station that takes most of a round for its answers, much longer for each than the others, and need not be asked
    // at every turn.
    void SlowStation()
    {
        std::uint64_t allAnswers = 0, allTime = 0;
        for (const StatsStation& station : stations_) {
            allAnswers += station.ok + station.refused;
            allTime += station.answerTime;
        }
        for (std::size_t number = 0; number < stations_.size(); ++number) {
            const StatsStation& station = stations_[number];
            const std::uint64_t answers = station.ok + station.refused, others = allAnswers - answers;
            if (answers == 0 || others == 0 || station.lastBad > station.lastGood || !AskedOften(number)) continue;
            const std::uint64_t mean = station.answerTime / answers, takes = mean * ReadsOf(number);
            const bool slow = mean > 4 * ((allTime - station.answerTime) / others);
            if (!slow || takes < LittleTime || takes * 2 < round_.driver) continue;
            advice_.push_back({Advice::Kind::SlowStation,
                               "station " + std::to_string(number) + " takes " + DurationText(mean) +
                                   " for an answer and holds the others up: priority = 10 where 2 s will do",
                               takes});
        }
    }

    bool AskedOften(std::size_t number) const
    {
        return std::any_of(ranges_.begin(), ranges_.end(), [&](const StatsRange& range) {
            return range.key.plcno == number && Asked(range.key) < TwoSeconds;
        });
    }

    // A station that answers, and whose slowest answer took nearly as long as the driver waits.
    void TimeOuts()
    {
        for (std::size_t number = 0; number < stations_.size(); ++number) {
            const StatsStation& station = stations_[number];
            if (station.timeouts == 0 || station.ok + station.refused == 0) continue;
            // The longest: a driver that passes a lost station over does not wait at all.
            const std::uint64_t waited = station.longestLost;
            if (waited < ShortestTimeOut || station.longest < waited * 4 / 5) continue;
            advice_.push_back({Advice::Kind::TimeOut,
                               "station " + std::to_string(number) + " took " + DurationText(station.longest) +
                                   " for an answer, and the driver waits " + DurationText(waited) +
                                   ": give it a longer time-out",
                               0});
        }
    }

    const StatsPort& port_;
    const std::vector<StatsStation>& stations_;
    std::uint64_t rounds_;
    const RoundExplained& round_;
    const std::vector<StatsRange>& ranges_;
    std::vector<Advice> advice_;
};

RoundExplained ExplainRound(const Statistics& statistics)
{
    const StatsRound& last = statistics.loop.round;
    RoundExplained round;
    round.reads = last.reads;
    round.ranges = last.ranges;
    round.length = last.length;
    round.driver = last.driverTime;
    round.pauses = statistics.port.pause * 1000 * last.reads;
    if (last.lostTime < LittleTime) return round;  // a station passed over
    round.lost = last.lostTime;
    if (last.lostStation < StatsStations) round.lostStation = static_cast<std::uint8_t>(last.lostStation);
    return round;
}

RangeExplained ExplainRange(const StatsRange& row, const std::vector<StatsRange>& rows,
                            const std::vector<std::uint8_t>& off)
{
    RangeExplained range;
    range.key = row.key;
    range.asked = Asked(row.key);
    range.achieved = row.period;
    range.stationOff = std::find(off.begin(), off.end(), row.key.plcno) != off.end();
    range.refusedSince = (row.flags & STATS_RANGE_REFUSED) != 0 ? row.refusedSince : 0;
    if (row.readNumber != 0) {
        range.read = row.readNumber;
        range.width = row.readWidth;
        range.gaps = static_cast<std::uint16_t>(row.readWidth - std::min(row.readWidth, row.readWanted));
        range.others = static_cast<std::uint16_t>(row.readRanges - (row.readRanges != 0));
        range.result = row.result;
    }
    if ((row.flags & STATS_RANGE_APART) == 0) return range;
    for (const StatsRange& other : rows) {
        if (other.orgOffset == row.apartFrom) range.apartFrom = other.key;
    }
    return range;
}

}  // namespace

PortExplained Explain(const Statistics& statistics, const std::vector<std::uint8_t>& stationsOff)
{
    std::vector<StatsRange> rows, polled;
    for (const StatsRange& row : statistics.ranges) {
        if ((row.flags & STATS_RANGE_SUBSCRIBED) == 0) continue;
        rows.push_back(row);
        if (std::find(stationsOff.begin(), stationsOff.end(), row.key.plcno) == stationsOff.end())
            polled.push_back(row);
    }
    PortExplained port;
    port.polled = statistics.loop.round.rounds != 0;
    port.round = ExplainRound(statistics);
    for (const StatsRange& row : rows) port.ranges.push_back(ExplainRange(row, rows, stationsOff));
    std::sort(port.ranges.begin(), port.ranges.end(),
              [](const RangeExplained& a, const RangeExplained& b) { return Place(a.key) < Place(b.key); });
    if (port.polled) port.advice = Adviser(statistics, port.round, polled).All();
    return port;
}

std::string DurationText(std::uint64_t us)
{
    char text[32];
    const auto number = static_cast<double>(us);
    if (us < 1000) {
        std::snprintf(text, sizeof text, "%.0f us", number);
    } else if (us < 1000000) {
        std::snprintf(text, sizeof text, us < 100000 ? "%.1f ms" : "%.0f ms", number / 1e3);
    } else {
        std::snprintf(text, sizeof text, "%.1f s", number / 1e6);
    }
    return text;
}

std::string PeriodText(std::uint32_t us)
{
    if (us == 0) return "every turn";
    return us < 1000000 ? "every " + std::to_string(us / 1000) + " ms" : "every " + std::to_string(us / 1000000) + " s";
}

}  // namespace voq
