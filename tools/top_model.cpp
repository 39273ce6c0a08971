// Looks at the ports, keeps what the looks tell, sorts and filters. Main thread; one file lock at a time.
#include "tools/top_model.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <tuple>

#include "client/clock.h"
#include "client/heartbeat.h"
#include "client/locked_file.h"
#include "client/value_text.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{

constexpr std::size_t ShownValueBytes = 256;  // more than a line holds
constexpr std::int64_t Second = 1000000;
constexpr std::int64_t Never = std::numeric_limits<std::int64_t>::max();

TopRange NewRange(const TopPort& port, std::size_t index, const voq::OrgRecord& record)
{
    const RegKey& key = record.node.key;
    const voq::DescribedRegister described = Describe(port.target, key);
    TopRange range;
    range.port = index;
    range.offset = record.offset;
    range.name = described.name;
    if (range.name.empty()) {
        const std::string expression = voq::Expression(described.reg);
        range.name = expression.substr(expression.find(':') + 1);  // without the port
    }
    range.coding = voq::CodingOf(described.reg, ByteOrderOf(port.target, key));
    range.node = record.node;
    return range;
}

bool Failing(const TopRange& range)
{
    return range.node.state != PLC_SUCCESS;
}

// Descending in what the order is about.
bool Before(TopSort sort, const TopRange& a, const TopRange& b)
{
    switch (sort) {
        case TopSort::Age:
            return a.age > b.age;
        case TopSort::Period:
            return a.period > b.period;
        case TopSort::State:
            return std::tuple(Failing(a), a.node.state) > std::tuple(Failing(b), b.node.state);
        default:
            return false;
    }
}

}  // namespace

bool TopPort::StationOff(std::uint8_t station) const
{
    const std::vector<std::uint8_t> off = status.stationsOff.value_or(std::vector<std::uint8_t>{});
    return std::find(off.begin(), off.end(), station) != off.end();
}

TopModel::TopModel(std::vector<Target> targets, std::chrono::milliseconds interval) : interval_(interval)
{
    for (Target& target : targets) {
        std::string name = target.port.Dir();
        name.pop_back();
        name.erase(0, name.rfind('/') + 1);
        ports.push_back({std::move(target), name});
    }
}

void TopModel::SetInterval(std::chrono::milliseconds interval)
{
    interval_ = interval;
    for (TopPort& port : ports) {
        for (auto& [offset, range] : port.ranges) range.period = 0;  // found with the other limit
    }
}

void TopModel::Look()
{
    ++look_;
    apart_ = voq::NowMicroseconds() - began_;
    lateness_ = look_ > 1 && apart_ > interval_.count() * 1250 ? apart_ : 0;
    began_ += apart_;
    for (std::size_t i = 0; i < ports.size(); ++i) {
        try {
            LookAt(i);
            ports[i].error = ports[i].status.directory ? "" : ports[i].target.port.Dir() + ": no such directory";
        } catch (const voq::Error& error) {
            ports[i].error = error.what();
        }
    }
}

void TopModel::LookAt(std::size_t index)
{
    TopPort& port = ports[index];
    const bool missed = !port.error.empty();
    LookAtCounters(port);
    LookAtWatchdog(port);
    port.status = voq::ReadPortStatus(port.target.port);
    std::map<std::uint32_t, TopRange> before;
    before.swap(port.ranges);
    if (!port.status.org) return;
    for (const voq::OrgRecord& record : port.status.org->records) {
        const auto known = before.find(record.offset);
        const bool same =
            known != before.end() && std::memcmp(&known->second.node.key, &record.node.key, sizeof(RegKey)) == 0;
        TopRange& range = port.ranges[record.offset];
        range = same ? std::move(known->second) : NewRange(port, index, record);
        Refresh(range, record.node, missed);
    }
}

void TopModel::LookAtCounters(TopPort& port) const
{
    std::optional<TopCounters> before;
    before.swap(port.counters);
    auto statistics = voq::ReadStatistics(port.target.port.Stats());
    if (!statistics || !voq::WriterLives(*statistics)) return;
    port.counters.emplace().statistics = std::move(*statistics);
    port.counters->callRate.resize(StatsStations);
    const voq::Statistics& now = port.counters->statistics;
    if (!before || before->statistics.header.started != now.header.started || apart_ <= 0) return;
    const voq::Statistics& then = before->statistics;
    const auto rate = [this](std::uint64_t more, std::uint64_t less) {
        return static_cast<double>(more - less) * 1e6 / static_cast<double>(apart_);
    };
    port.counters->turnRate = rate(now.Thread(StatsThreadOf::Main).turns, then.Thread(StatsThreadOf::Main).turns);
    port.counters->readRate = rate(now.driver.reads.calls, then.driver.reads.calls);
    for (std::size_t i = 0; i < StatsStations; ++i) {
        port.counters->callRate[i] = rate(now.stations[i].calls, then.stations[i].calls);
    }
}

void TopModel::LookAtWatchdog(TopPort& port)
{
    const auto counter = voq::ReadWatchdog(port.target.port, port.target.index);
    const std::int64_t now = voq::NowMicroseconds();
    const bool first = port.watchdog == Watchdog::NoCounter;
    if (!counter) {
        port.watchdog = Watchdog::NoCounter;
    } else if (first || *counter != port.counter) {
        port.watchdog = first ? Watchdog::NotSeenYet : Watchdog::Moving;
        port.counter = *counter;
        port.counterSince = now;
    } else if (now - port.counterSince > voq::WatchdogSeconds * Second + LivelyAge()) {  // a look may come late
        port.watchdog = Watchdog::Late;
    }
}

void TopModel::Refresh(TopRange& range, const OrgNode& node, bool missed)
{
    const std::int64_t stamp = voq::StampMicroseconds(node.stamp);
    const std::int64_t before = voq::StampMicroseconds(range.node.stamp);
    // The stamp of a range that was never read is that of its creation, and a first read comes without a subscription.
    const bool again = stamp != before && range.node.state != 0;
    if (again && !missed) range.period = std::max(stamp - before, LivelyAge());
    // Log-ons that carry a record's offset are not counted in it: only refreshing tells.
    range.subscribed = range.subscribed || static_cast<std::int16_t>(node.logtimes) > 0 || again;
    range.age = std::max(voq::NowMicroseconds() - stamp, LivelyAge());
    if (node.state == 0) range.age = Never;
    range.node = node;
}

std::vector<TopRange*> TopModel::Listed()
{
    std::vector<TopRange*> listed;
    for (std::size_t i = 0; i < ports.size(); ++i) {
        if ((only && *only != i) || !ports[i].status.org) continue;
        for (const voq::OrgRecord& record : ports[i].status.org->records) {
            TopRange& range = ports[i].ranges[record.offset];
            if (filter == TopFilter::Subscribed && !range.subscribed) continue;
            if (filter == TopFilter::Failing && !Failing(range)) continue;
            if (range.name.find(find) != std::string::npos) listed.push_back(&range);
        }
    }
    std::stable_sort(listed.begin(), listed.end(),
                     [this](const TopRange* a, const TopRange* b) { return Before(sort, *a, *b); });
    if (reversed) std::reverse(listed.begin(), listed.end());
    return listed;
}

std::int64_t TopModel::AgeOf(std::int64_t time) const
{
    return time == 0 ? Never : std::max(voq::NowMicroseconds() - time, LivelyAge());
}

std::vector<TopStation> TopModel::Stations() const
{
    std::vector<TopStation> stations;
    for (std::size_t i = 0; i < ports.size(); ++i) {
        const TopPort& port = ports[i];
        if ((only && *only != i) || !port.counters) continue;
        const voq::Statistics& statistics = port.counters->statistics;
        std::vector<bool> wanted(StatsStations);
        for (const StatsRange& row : statistics.ranges) {
            if ((row.flags & STATS_RANGE_SUBSCRIBED) != 0) wanted[row.key.plcno] = true;
        }
        for (std::size_t n = 0; n < StatsStations; ++n) {
            const auto number = static_cast<std::uint8_t>(n);
            const StatsStation& counts = statistics.stations[n];
            if (counts.calls == 0 && !wanted[n] && !port.StationOff(number)) continue;
            stations.push_back(
                {i, number, counts, port.counters->callRate[n], AgeOf(counts.lastGood), AgeOf(counts.lastBad)});
        }
    }
    return stations;
}

void TopModel::ReadValue(TopRange& range)
{
    TopPort& port = ports[range.port];
    if (range.valueLook == look_) return;
    range.valueLook = look_;
    range.value = "-";
    // Where one lock was not to be had, no other is waited for.
    if (Failing(range) || !port.error.empty()) return;
    const std::size_t element = range.coding.ElemBytes();
    const std::size_t length = GetRegBuffLen(&range.node.key);
    const std::size_t shown = std::min(length, ShownValueBytes / element * element);
    try {
        const auto bytes = voq::ReadLockedRange(port.target.port.Data(), range.node.dataoffset, shown);
        if (!bytes || bytes->size() != shown) return;
        range.value = voq::ValueText(range.coding, *bytes, shown / element) + (shown < length ? " ..." : "");
    } catch (const voq::Error& error) {
        port.error = error.what();
    }
}

std::optional<voq::Bytes> TopModel::Value(const TopRange& range) const
{
    const TopPort& port = ports[range.port];
    if (Failing(range) || !port.error.empty()) return std::nullopt;
    const std::size_t length = GetRegBuffLen(&range.node.key);
    auto bytes = voq::ReadLockedRange(port.target.port.Data(), range.node.dataoffset, length);
    if (!bytes || bytes->size() != length) return std::nullopt;
    return bytes;
}

std::string TopModel::AgeText(std::int64_t microseconds) const
{
    if (microseconds == 0) return "-";
    if (microseconds == Never) return "never";
    if (microseconds <= LivelyAge() && LivelyAge() < Second) return "<" + voq::AgeText(LivelyAge());
    if (microseconds <= LivelyAge()) return "<" + std::to_string((LivelyAge() + Second - 1) / Second) + " s";
    if (microseconds < 120 * Second) return std::to_string(microseconds / Second) + " s";
    return voq::AgeText(microseconds);
}
