// Follows the ports.
#include "upstream/mqtt/source.h"

#include <algorithm>
#include <utility>

#include "client/clock.h"
#include "client/port_status.h"
#include "client/stats.h"
#include "client/value_text.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace voq::mqtt
{

namespace
{

using std::chrono::milliseconds;

// What changes more often is told once in between; the service writes far more often than that.
constexpr milliseconds ReadingsApart{25};
constexpr milliseconds LongestLock{100};
constexpr milliseconds LongTrouble{5000};  // a lock may well be held for a while

}  // namespace

Source::Source(const Catalogue& catalogue, Heard heard)
    : catalogue_(catalogue), heard_(std::move(heard)), byMetric_(catalogue.metrics.size())
{
    box_.samples.resize(catalogue.metrics.size());
    box_.ports.resize(catalogue.ports.size(), PortState::Away);
    box_.devices.resize(catalogue.devices.size(), true);
    for (const PortOf& each : catalogue.ports) {
        ports_.push_back(std::make_unique<OnePort>(each.dir));
        PortSettings settings;
        settings.lockPatience = LongestLock;
        settings.interval = ReadingsApart;
        ports_.back()->port.Set(settings);
    }
    for (std::uint32_t i = 0; i < catalogue.metrics.size(); ++i) {
        OnePort& port = *ports_[catalogue.metrics[i].port];
        auto followed = std::make_unique<Followed>();
        followed->key = catalogue.metrics[i].described.reg.key;
        followed->metric = i;
        box_.samples[i] = {i, State::NoService, NowMicroseconds(), 0, {}};
        byMetric_[i] = followed.get();
        port.ranges.push_back(std::move(followed));
    }
    for (const auto& each : ports_) Subscribe(*each);
}

// Before a service has made its directory nothing can be subscribed there.
void Source::Subscribe(OnePort& port)
{
    try {
        for (const auto& each : port.ranges) {
            if (each->followed == nullptr) port.port.Subscribe(*each);
        }
    } catch (const std::exception& error) {
        if (port.port.Running()) heard_.trouble(error.what());
    }
}

void Source::Dispatch(std::uint32_t at)
{
    OnePort& port = *ports_[at];
    try {
        port.port.Dispatch();
        port.troubledSince = {};
    } catch (const std::exception& error) {
        const auto now = Port::Clock::now();
        if (port.troubledSince == Port::Clock::time_point()) port.troubledSince = now;
        if (now - port.troubledSince > LongTrouble) heard_.trouble(error.what());
    }
    while (const auto event = port.port.NextEvent()) {
        switch (event->type) {
            case EventType::Changed:
                Take(port, *static_cast<Followed*>(event->range));
                break;
            case EventType::Answered:
                heard_.answered(*event->request);
                break;
            default:
                LookAtLink(at);
                TakeAll(port);
        }
    }
}

void Source::Look()
{
    for (std::uint32_t i = 0; i < ports_.size(); ++i) {
        Subscribe(*ports_[i]);
        try {
            LookAtStatistics(i);
        } catch (const std::exception& error) {
            heard_.trouble(error.what());
        }
    }
}

State Source::StateOf(const OnePort& port, const Followed& range) const
{
    if (!port.port.Running() || range.followed == nullptr) return State::NoService;
    if (std::find(port.off.begin(), port.off.end(), range.key.plcno) != port.off.end()) return State::StationOff;
    if (range.refused) return State::Refused;
    switch (range.followed->state) {
        case PLC_SUCCESS:
            return range.followed->live ? State::Good : State::NeverRead;
        case PLC_TIMEOUT:
            return State::Timeout;
        case StateUnknown:
        case 0:
            return State::NeverRead;
        default:
            return State::Failed;
    }
}

void Source::Take(const OnePort& port, const Followed& range)
{
    if (range.followed == nullptr) return;
    const voq::Followed& followed = *range.followed;
    Sample& sample = box_.samples[range.metric];
    const State state = StateOf(port, range);
    const bool old = followed.value.empty() || StampMicroseconds(followed.valueStamp) == sample.valueAt;
    if (old && state == sample.state) return;
    const Metric& metric = catalogue_.metrics[range.metric];
    const bool read = state == State::Good || state == State::Timeout || state == State::Failed;
    sample.state = state;
    sample.time = read ? StampMicroseconds(followed.stamp) : NowMicroseconds();
    if (!old) {
        sample.value = ReadValue(metric.described.meaning, metric.coding, followed.value);
        sample.valueAt = StampMicroseconds(followed.valueStamp);
    }
    heard_.metric(range.metric);
}

void Source::TakeAll(const OnePort& port)
{
    for (const auto& each : port.ranges) Take(port, *each);
}

const Sample& Source::Freshen(std::uint32_t metric)
{
    Sample& sample = box_.samples[metric];
    const voq::Followed* const followed = byMetric_[metric]->followed;
    if (sample.state == State::Good) sample.time = sample.valueAt = StampMicroseconds(followed->valueStamp);
    return sample;
}

void Source::LookAtLink(std::uint32_t at)
{
    constexpr PortState Running[] = {PortState::Runs, PortState::Timeout, PortState::Failing};
    const Port& port = ports_[at]->port;
    const PortState now = port.Running() ? Running[static_cast<std::size_t>(port.Link())] : PortState::Away;
    if (std::exchange(box_.ports[at], now) != now) heard_.port(at);
}

// Which stations answer, which are off, and what the devices refuse.
void Source::LookAtStatistics(std::uint32_t at)
{
    OnePort& port = *ports_[at];
    if (!port.port.Running()) return;
    const auto statistics = ReadStatistics(port.port.Directory().Stats());
    const auto off = ReadPortMarkers(port.port.Directory()).stationsOff.value_or(port.off);
    bool changed = std::exchange(port.off, off) != off;
    if (!statistics) return changed ? TakeAll(port) : void();
    std::vector<const RegKey*> refused;
    for (const StatsRange& row : statistics->ranges) {
        const bool subscribed = (row.flags & STATS_RANGE_SUBSCRIBED) != 0;
        if (subscribed && (row.flags & STATS_RANGE_REFUSED) != 0) refused.push_back(&row.key);
    }
    for (const auto& each : port.ranges) {
        const bool is =
            std::any_of(refused.begin(), refused.end(), [&](const RegKey* key) { return SameRange(*key, each->key); });
        changed = std::exchange(each->refused, is) != is || changed;
    }
    for (const std::uint32_t device : catalogue_.ports[at].devices) {
        const std::uint8_t station = catalogue_.devices[device].station;
        const bool isOff = std::find(off.begin(), off.end(), station) != off.end();
        const bool answers = !isOff && voq::StateOf(statistics->stations[station]) != StationState::Dead;
        if (box_.devices[device] == answers) continue;
        box_.devices[device] = answers;
        heard_.device(device);
    }
    if (changed) TakeAll(port);
}

}  // namespace voq::mqtt
