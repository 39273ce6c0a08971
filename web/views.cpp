// Builds the JSON.
#include "web/views.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>

#include "client/clock.h"
#include "client/value_text.h"
#include "voq/reg_range.h"

namespace voq::web
{

namespace
{

constexpr std::int64_t Second = 1000000;

void Milliseconds(JsonWriter& json, std::uint64_t us)
{
    if (us == 0) {
        json.Null();
    } else {
        json.Real(std::round(static_cast<double>(us) / 10) / 100);
    }
}

void Age(JsonWriter& json, std::int64_t stamp, std::int64_t now)
{
    stamp == 0 ? json.Null() : json.Number(std::max<std::int64_t>(now - stamp, 0) / 1000);
}

void Limit(JsonWriter& json, const char* name, const std::optional<double>& limit)
{
    json.Key(name);
    limit ? json.Real(*limit) : json.Null();
}

// A running mean trembles: told is what a person would notice.
bool OtherPeriod(std::uint32_t told, std::uint32_t now)
{
    const std::uint32_t apart = told > now ? told - now : now - told;
    return (told == 0) != (now == 0) || apart > told / 5;
}

std::string NameOf(const RangeNames& names, const RegKey& key)
{
    const auto found =
        std::find_if(names.begin(), names.end(), [&](const auto& each) { return SameRange(each.first, key); });
    return found == names.end() ? Expression({key, TypeOfSize(RegElemSize(&key))}) : found->second;
}

void AppendRound(JsonWriter& json, const RoundExplained& round)
{
    json.Begin('{').Key("reads").Number(round.reads).Key("ranges").Number(round.ranges).Key("ms");
    Milliseconds(json, round.length);
    json.Key("driver_ms");
    Milliseconds(json, round.driver);
    json.Key("pauses_ms");
    Milliseconds(json, round.pauses);
    json.Key("lost_ms");
    Milliseconds(json, round.lost);
    json.Key("lost_station");
    round.lostStation ? json.Number(*round.lostStation) : json.Null();
    json.End('}');
}

void AppendExplained(JsonWriter& json, const RangeExplained& range, const RangeNames& names)
{
    json.Key("asked").Text(PeriodText(range.asked)).Key("achieved");
    range.achieved == 0 ? json.Null() : json.Text(DurationText(range.achieved));
    json.Key("read").Number(range.read).Key("elements").Number(range.width).Key("gaps").Number(range.gaps);
    json.Key("others").Number(range.others).Key("failed").Flag(range.result > 1);
    json.Key("station_off").Flag(range.stationOff).Key("refused_since");
    range.refusedSince == 0 ? json.Null() : json.Number(range.refusedSince);
    json.Key("apart_from");
    range.apartFrom ? json.Text(NameOf(names, *range.apartFrom)) : json.Null();
}

std::set<std::uint8_t> StationsOf(const PortView& port, const Description& description)
{
    std::set<std::uint8_t> stations;
    for (const auto& range : port.ranges) stations.insert(range->node.key.plcno);
    for (const DescribedRegister& each : description.registers) {
        if (each.reg.key.portno == port.dir.number) stations.insert(each.reg.key.plcno);
    }
    if (!port.statistics) return stations;
    for (std::size_t i = 0; i < port.statistics->stations.size(); ++i) {
        if (port.statistics->stations[i].calls != 0) stations.insert(static_cast<std::uint8_t>(i));
    }
    return stations;
}

std::string StationName(const PortView& port, const Description& description, std::uint8_t station)
{
    for (const DescribedRegister& each : description.registers) {
        const RegKey& key = each.reg.key;
        if (key.portno == port.dir.number && key.plcno == station && !each.station.empty()) return each.station;
    }
    return "";
}

void AppendStation(JsonWriter& json, const PortView& port, const Description& description, std::uint8_t number)
{
    json.Begin('{').Key("station").Number(number).Key("name").Text(StationName(port, description, number));
    json.Key("state").Text(StationWord(StateOf(port, number)));
    const StatsStation none = {};
    const StatsStation& row = port.statistics ? port.statistics->stations[number] : none;
    const std::uint64_t answers = row.ok + row.refused;
    json.Key("calls").Number(static_cast<std::int64_t>(row.calls));
    json.Key("timeouts").Number(static_cast<std::int64_t>(row.timeouts));
    json.Key("errors").Number(static_cast<std::int64_t>(row.errors));
    json.Key("refused").Number(static_cast<std::int64_t>(row.refused)).Key("answer_ms");
    Milliseconds(json, answers == 0 ? 0 : row.answerTime / answers);
    json.Key("last_answer");
    row.lastGood == 0 ? json.Null() : json.Number(row.lastGood / 1000);
    json.End('}');
}

}  // namespace

void AppendFloat(JsonWriter& json, float value)
{
    if (!std::isfinite(value)) {
        json.Null();
        return;
    }
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    json.Literal({text, static_cast<std::size_t>(end - text)});
}

void AppendRange(JsonWriter& json, const PortView& port, const RangeView& range, std::int64_t now)
{
    const RegKey& key = range.node.key;
    const Meaning& meaning = range.described.meaning;
    const std::string expression = Expression(range.described.reg);
    json.Begin('{').Key("id").Number(range.id).Key("port").Text(port.name).Key("name").Text(range.name);
    json.Key("station").Number(key.plcno).Key("station_name").Text(range.described.station);
    json.Key("expression").Text(expression).Key("type").Text(TypeName(range.described.reg.type));
    json.Key("count").Number(key.width).Key("unit").Text(meaning.unit).Key("comment").Text(meaning.comment);
    json.Key("decimals");
    range.decimals ? json.Number(*range.decimals) : json.Null();
    Limit(json, "minimum", meaning.minimum);
    Limit(json, "maximum", meaning.maximum);
    json.Key("state").Text(range.state).Key("age_ms");
    Age(json, range.stamp, now);
    json.Key("period_ms");
    Milliseconds(json, range.period);
    json.Key("subscribed").Flag(range.subscribed).Key("value").Literal(range.shown);
    json.Key("more").Flag(range.more).End('}');
}

bool AppendChange(JsonWriter& json, RangeView& range, std::int64_t now)
{
    const bool value = range.shown != range.toldShown;
    const bool state = range.state != range.toldState || range.subscribed != range.toldSubscribed ||
                       OtherPeriod(range.toldPeriod, range.period);
    const std::int64_t apart = range.stamp - range.toldStamp;
    if (!value && !state && (apart == 0 || (apart > 0 && apart < Second))) return false;
    json.Begin('[').Number(range.id);
    Age(json, range.stamp, now);
    range.toldStamp = range.stamp;
    if (value || state) json.Literal(value ? range.shown : "0");
    if (value) range.toldShown = range.shown;
    if (state) {
        json.Text(range.state);
        Milliseconds(json, range.period);
        json.Flag(range.subscribed);
        range.toldState = range.state;
        range.toldPeriod = range.period;
        range.toldSubscribed = range.subscribed;
    }
    json.End(']');
    return true;
}

StationState StateOf(const PortView& port, std::uint8_t station)
{
    if (port.StationOff(station)) return StationState::Off;
    if (!port.statistics) return StationState::Silent;
    return voq::StateOf(port.statistics->stations[station]);
}

const char* StationWord(StationState state)
{
    constexpr const char* Words[] = {"silent", "answers", "dead", "off"};
    return Words[static_cast<std::size_t>(state)];
}

void AppendPort(JsonWriter& json, const PortView& port, const Description& description)
{
    constexpr const char* States[] = {"runs", "away", "hangs"};
    json.Begin('{').Key("name").Text(port.name).Key("link").Text(LinkName(port.dir.link));
    json.Key("service").Text(States[static_cast<std::size_t>(port.State())]).Key("text").Text(port.StateText());
    json.Key("timeout").Flag(port.status.timeout).Key("comerror").Flag(port.status.comerror);
    json.Key("waiting").Number(port.status.waiting).Key("started");
    port.statistics ? json.Number(port.statistics->header.started / 1000) : json.Null();
    json.Key("round_ms");
    port.statistics ? Milliseconds(json, port.statistics->loop.round.length) : void(json.Null());
    json.Key("subscribed").Number(port.statistics ? port.statistics->loop.subscribed : 0);
    json.Key("stations").Begin('[');
    for (const std::uint8_t station : StationsOf(port, description)) AppendStation(json, port, description, station);
    json.End(']').End('}');
}

std::string ExplanationJson(const PortExplained& port, const RegKey& key, const RangeNames& names)
{
    const auto found = std::find_if(port.ranges.begin(), port.ranges.end(),
                                    [&](const RangeExplained& range) { return SameRange(range.key, key); });
    JsonWriter json;
    json.Begin('{').Key("subscribed").Flag(found != port.ranges.end());
    if (found != port.ranges.end()) {
        AppendExplained(json, *found, names);
        json.Key("together").Begin('[');
        for (const RangeExplained& other : port.ranges) {
            const bool same = found->read != 0 && other.read == found->read && &other != &*found &&
                              other.key.plcno == key.plcno && other.key.regid == key.regid;
            if (same) json.Text(NameOf(names, other.key));
        }
        json.End(']');
    }
    json.Key("round");
    port.polled ? AppendRound(json, port.round) : void(json.Null());
    json.Key("advice").Begin('[');
    for (const Advice& advice : port.advice) {
        json.Begin('{').Key("text").Text(advice.text).Key("saves");
        advice.saves == 0 ? json.Null() : json.Text(DurationText(advice.saves));
        json.End('}');
    }
    return json.End(']').End('}').Take();
}

}  // namespace voq::web
