// Keeps the model. What a look has read is taken over under the mutex; messages are built there and published behind
// it.
#include "web/model.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "client/clock.h"
#include "client/json.h"
#include "client/value_text.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"
#include "web/views.h"

namespace voq::web
{

namespace
{

constexpr std::int64_t Second = 1000000;

std::uint16_t ByteOrder(const Description& description, const PortView& port, const RegKey& key)
{
    return description.ByteOrderOf(key.portno, static_cast<std::uint8_t>(port.dir.link));
}

// As many as the numbers of a described range are shown with; nothing for those that are shown as they are.
std::optional<unsigned> DecimalsOf(const Meaning& meaning, const ValueCoding& coding)
{
    if (!meaning.Scaled() && !meaning.decimals) return std::nullopt;
    const auto zero = ShowElements(meaning, coding, Bytes(coding.ElemBytes()));
    if (zero.empty() || !zero[0].isNumber) return std::nullopt;
    const std::size_t point = zero[0].text.find('.');
    return point == std::string::npos ? 0 : static_cast<unsigned>(zero[0].text.size() - point - 1);
}

const char* StateWord(const PortView& port, const RangeView& range, bool refused)
{
    if (port.StationOff(range.node.key.plcno)) return "station off";
    if (refused) return "refused";
    switch (range.node.state) {
        case 0:
            return "never read";
        case PLC_SUCCESS:
            return "ok";
        case PLC_TIMEOUT:
            return "time-out";
        default:
            return "error";
    }
}

}  // namespace

Model::Model(Description description, const std::string& userDirectory) : description_(std::move(description))
{
    generation_ = static_cast<std::uint64_t>(NowMicroseconds()) / 1000;
    for (std::size_t i = 0; i < description_.ports.size(); ++i) {
        const ComInfoRecord& record = description_.ports[i].record;
        PortDir dir{userDirectory, LinkFromByte(record.linkType).value_or(LinkType::Ethernet), record.portNo};
        ports_.push_back({.dir = dir, .index = static_cast<std::uint16_t>(i), .name = dir.Name()});
    }
}

void Model::Look(Feed& feed)
{
    std::vector<PortLook> looks;
    for (const PortView& port : ports_) looks.push_back(LookAt(port, gather_));  // only this thread changes ports
    const std::int64_t now = NowMicroseconds();
    std::string list, changes, ports;
    {
        const std::lock_guard lock(mutex_);
        for (std::size_t i = 0; i < looks.size(); ++i) Take(ports_[i], std::move(looks[i]), now);
        const bool newSecond = now / Second != second_;
        if (newSecond) NoteHistories(second_ = now / Second);
        if (generation_ != toldGeneration_) list = std::to_string(toldGeneration_ = generation_);
        changes = Changes(now);
        if (std::string all = newSecond ? PortsJson() : ""; !all.empty() && all != toldPorts_) ports = toldPorts_ = all;
        if (!list.empty() || !changes.empty() || !ports.empty()) ++sequence_;
    }
    if (!list.empty()) feed.Publish("list", sequence_, list);
    if (!changes.empty()) feed.Publish("ranges", sequence_, changes);
    if (!ports.empty()) feed.Publish("ports", sequence_, ports);
}

void Model::Take(PortView& port, PortLook look, std::int64_t now)
{
    port.error = look.error;
    if (look.watchdog && (*look.watchdog != port.counter || port.counterSince == 0)) {
        port.counter = *look.watchdog;
        port.counterSince = now;
    }
    port.status = std::move(look.status);
    port.heartbeat = std::move(look.heartbeat);
    if (look.statistics) port.statistics = std::move(look.statistics);
    if (!look.error.empty()) return TakeStatistics(port);
    if (port.status.org) TakeRecords(port, port.status.org->records);
    for (std::size_t i = 0; i < look.changed.size(); ++i) {
        const std::uint32_t number = OrgRecordNumber(look.changed[i].offset);
        RangeView* range = number < port.byRecord.size() ? port.byRecord[number] : nullptr;
        if (range == nullptr) continue;
        range->node = look.changed[i].node;
        range->stamp = range->node.state == 0 ? 0 : StampMicroseconds(range->node.stamp);
        if (!look.values[i].empty()) TakeValue(*range, look.values[i]);
    }
    TakeStatistics(port);
    if (port.status.org) port.status.org->records = {};  // the ranges hold what matters
}

void Model::TakeRecords(PortView& port, const std::vector<OrgRecord>& records)
{
    const auto matches = [](const RangeView& range, const OrgRecord& record) {
        return std::memcmp(&range.node.key, &record.node.key, sizeof(RegKey)) == 0;
    };
    const auto known = [&](const OrgRecord& record) {
        const std::uint32_t number = OrgRecordNumber(record.offset);
        return number < port.byRecord.size() ? port.byRecord[number] : nullptr;
    };
    bool same = port.ranges.size() + port.leftOut == records.size();
    for (std::size_t i = 0; same && i < port.ranges.size(); ++i) {
        same = port.ranges[i].get() == known(records[i]) && matches(*port.ranges[i], records[i]);
    }
    if (same) return;
    std::vector<std::unique_ptr<RangeView>> before;
    before.swap(port.ranges);
    const std::vector<RangeView*> byRecord = std::move(port.byRecord);
    port.byRecord.clear();
    port.leftOut = 0;
    const std::size_t room = MaxRanges - std::min(MaxRanges, byId_.size() - before.size());
    std::map<const RangeView*, std::size_t> place;
    for (std::size_t i = 0; i < before.size(); ++i) place[before[i].get()] = i;
    for (const OrgRecord& record : records) {
        const std::uint32_t number = OrgRecordNumber(record.offset);
        if (port.ranges.size() >= room) {
            ++port.leftOut;
            continue;
        }
        RangeView* old = number < byRecord.size() ? byRecord[number] : nullptr;
        auto& kept = port.ranges.emplace_back(old != nullptr && matches(*old, record) ? std::move(before[place[old]])
                                                                                      : NewRange(port, record));
        if (port.byRecord.size() <= number) port.byRecord.resize(number + 1);
        port.byRecord[number] = kept.get();
    }
    for (const auto& gone : before) {
        if (gone) byId_.erase(gone->id);
    }
    ++generation_;
}

std::unique_ptr<RangeView> Model::NewRange(const PortView& port, const OrgRecord& record)
{
    auto range = std::make_unique<RangeView>();
    range->id = nextId_++;
    range->port = static_cast<std::size_t>(&port - ports_.data());
    const RegKey& key = record.node.key;
    if (const auto* found = description_.Find(key)) {
        range->described = *found;
        range->described.reg.key = key;
    } else {
        range->described.reg = {key, TypeOfSize(RegElemSize(&key))};
    }
    range->name = range->described.name;
    if (range->name.empty()) {
        const std::string expression = Expression(range->described.reg);
        range->name = expression.substr(expression.find(':') + 1);  // without the port
    }
    range->coding = CodingOf(range->described.reg, ByteOrder(description_, port, key));
    range->decimals = DecimalsOf(range->described.meaning, range->coding);
    range->node.key = key;
    range->shown = "null";
    range->number = std::nan("");
    byId_[range->id] = range.get();
    return range;
}

void Model::TakeValue(RangeView& range, const Bytes& value)
{
    if (value.size() != GetRegBuffLen(&range.node.key) || value == range.value) return;
    range.value = value;
    const std::size_t bytes = range.described.meaning.text != 0
                                  ? value.size()
                                  : std::min(value.size(), ShownElements * range.coding.ElemBytes());
    range.more = bytes < value.size();
    const auto elements = ShowElements(range.described.meaning, range.coding, {value.data(), bytes});
    range.number = std::nan("");
    if (!elements.empty() && elements[0].number) range.number = *elements[0].number;
    JsonWriter json;
    json.Begin('[');
    for (const ShownElement& element : elements) {
        element.isNumber ? json.Literal(element.text) : json.Text(element.text);
    }
    range.shown = json.End(']').Take();
}

void Model::TakeStatistics(PortView& port)
{
    for (const auto& range : port.ranges) {
        range->subscribed = static_cast<std::int16_t>(range->node.logtimes) > 0;
        range->period = 0;
        range->state = StateWord(port, *range, false);
    }
    if (!port.statistics || port.status.mek != FifoState::Read) return;
    for (const StatsRange& row : port.statistics->ranges) {
        if ((row.flags & STATS_RANGE_SUBSCRIBED) == 0 || row.orgOffset < OrgFirstRecord) continue;
        const std::uint32_t number = OrgRecordNumber(row.orgOffset);
        RangeView* range = number < port.byRecord.size() ? port.byRecord[number] : nullptr;
        if (range == nullptr || !SameRange(range->node.key, row.key)) continue;
        range->subscribed = true;
        range->period = row.period;
        if ((row.flags & STATS_RANGE_REFUSED) != 0) range->state = StateWord(port, *range, true);
    }
}

void Model::NoteHistories(std::int64_t second)
{
    for (const PortView& port : ports_) {
        const bool served = port.State() != Service::Away;
        for (const auto& range : port.ranges) {
            const bool good = served && range->node.state == PLC_SUCCESS;
            if (range->history.Last() == 0) {
                if (!good || std::isnan(range->number) || histories_ == MaxHistories) continue;
                ++histories_;
            }
            range->history.Note(second, good ? range->number : std::nan(""));
        }
    }
}

std::string Model::Changes(std::int64_t now)
{
    JsonWriter json;
    json.Begin('[');
    bool any = false;
    for (const PortView& port : ports_) {
        for (const auto& range : port.ranges) any = AppendChange(json, *range, now) || any;
    }
    json.End(']');
    return any ? json.Take() : "";
}

const RangeView* Model::Find(std::uint32_t id) const
{
    const auto found = byId_.find(id);
    return found == byId_.end() ? nullptr : found->second;
}

std::string Model::Ranges() const
{
    const std::lock_guard lock(mutex_);
    const std::int64_t now = NowMicroseconds();
    JsonWriter json;
    json.Begin('{').Key("generation").Number(static_cast<std::int64_t>(generation_));
    json.Key("sequence").Number(static_cast<std::int64_t>(sequence_)).Key("ranges").Begin('[');
    std::size_t leftOut = 0;
    for (const PortView& port : ports_) {
        leftOut += port.leftOut;
        for (const auto& range : port.ranges) AppendRange(json, port, *range, now);
    }
    return json.End(']').Key("left_out").Number(static_cast<std::int64_t>(leftOut)).End('}').Take();
}

std::string Model::PortsJson() const
{
    JsonWriter json;
    json.Begin('[');
    for (const PortView& port : ports_) AppendPort(json, port, description_);
    return json.End(']').Take();
}

std::string Model::Ports() const
{
    const std::lock_guard lock(mutex_);
    return PortsJson();
}

std::string Model::Hello() const
{
    const std::lock_guard lock(mutex_);
    return std::to_string(generation_);
}

std::string Model::HistoryOf(std::uint32_t id) const
{
    const std::lock_guard lock(mutex_);
    const RangeView* range = Find(id);
    if (range == nullptr) return "";
    JsonWriter json;
    json.Begin('{').Key("end").Number(range->history.Last()).Key("values").Begin('[');
    for (const float value : range->history.Values()) AppendFloat(json, value);
    return json.End(']').End('}').Take();
}

std::string Model::ExplanationOf(std::uint32_t id) const
{
    std::optional<Statistics> statistics;
    std::vector<std::uint8_t> off;
    RegKey key;
    std::vector<std::pair<RegKey, std::string>> names;
    {
        const std::lock_guard lock(mutex_);
        const RangeView* range = Find(id);
        if (range == nullptr) return "";
        const PortView& port = ports_[range->port];
        statistics = port.statistics;
        off = port.status.stationsOff.value_or(off);
        key = range->node.key;
        for (const auto& each : port.ranges) names.emplace_back(each->node.key, each->name);
    }
    // Behind the lock: the reckoning takes a while.
    if (!statistics) return "{\"subscribed\":false}";
    return ExplanationJson(Explain(*statistics, off), key, names);
}

std::optional<Model::Writing> Model::WritingOf(std::uint32_t id) const
{
    const std::lock_guard lock(mutex_);
    const RangeView* range = Find(id);
    if (range == nullptr) return std::nullopt;
    const PortView& port = ports_[range->port];
    const bool known = !NeedsByteOrder(range->described.reg) || ByteOrder(description_, port, range->node.key) != 0;
    return Writing{port.dir, range->described.reg, range->described.meaning, range->coding, known, range->name};
}

}  // namespace voq::web
