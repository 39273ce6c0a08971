// Builds topics and JSON.
#include "upstream/mqtt/plain.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "client/clock.h"
#include "client/error.h"
#include "client/json.h"

namespace voq::mqtt
{

namespace
{

constexpr std::size_t LongestCommand = 4096;
constexpr std::string_view Values = "value/", History = "history/", Ports = "port/", Set = "/set", Result = "/result";

// "2026-11-26T17:40:00.123Z"
std::string TimeText(std::int64_t us)
{
    const std::time_t seconds = us / 1000000;
    std::tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[48];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(us / 1000 % 1000));
    return text;
}

void Append(JsonWriter& json, const Metric& metric, const Element& element)
{
    const Meaning& meaning = metric.described.meaning;
    const auto append = [&](const ShownElement& shown) {
        shown.isNumber ? json.Literal(shown.text) : json.Text(shown.text);
    };
    if (const auto* whole = std::get_if<std::int64_t>(&element)) {
        append(ShowInteger(meaning, metric.coding, *whole));
    } else if (const auto* real = std::get_if<double>(&element)) {
        append(ShowScaled(meaning, metric.coding, *real));
    } else if (const auto* text = std::get_if<std::string>(&element)) {
        json.Text(*text);
    } else {
        json.Null();
    }
}

// One element, or a list of several.
template <typename Each>
void AppendValue(JsonWriter& json, const Metric& metric, const Value& value, const Each& each)
{
    if (value.empty()) {
        json.Null();
        return;
    }
    const bool list = metric.described.meaning.text == 0 && metric.described.reg.key.width > 1;
    if (list) json.Begin('[');
    for (const Element& element : value) each(element);
    if (list) json.End(']');
}

std::string SampleText(const Metric& metric, const Sample& sample, std::int64_t now)
{
    const Meaning& meaning = metric.described.meaning;
    JsonWriter json;
    json.Begin('{').Key("value");
    AppendValue(json, metric, sample.value, [&](const Element& element) { Append(json, metric, element); });
    if (meaning.numberNames || meaning.bitNames) {
        json.Key("number");
        AppendValue(json, metric, sample.value, [&](const Element& element) {
            const auto* whole = std::get_if<std::int64_t>(&element);
            whole != nullptr ? json.Number(*whole) : json.Null();
        });
    }
    if (!meaning.unit.empty()) json.Key("unit").Text(meaning.unit);
    json.Key("state").Text(StateWord(sample.state)).Key("time").Text(TimeText(sample.time)).Key("age_ms");
    sample.valueAt == 0 ? json.Null() : json.Number(std::max<std::int64_t>(now - sample.valueAt, 0) / 1000);
    return json.End('}').Take();
}

// What somebody sends to be written. Throws Error.
void ReadCommand(const std::string& payload, Command& command)
{
    using nlohmann::json;
    const auto text = [](const json& value) {
        if (value.is_string()) return value.get<std::string>();
        if (value.is_boolean()) return std::string(value.get<bool>() ? "1" : "0");
        if (value.is_number()) return value.dump();
        throw Error("a value is a number, a text, true or false, or a list of them");
    };
    json parsed = json::parse(payload, nullptr, false);
    if (parsed.is_object()) {
        if (const auto id = parsed.find("id"); id != parsed.end()) command.id = text(*id);
        if (!parsed.contains("value")) throw Error("\"value\" is missing");
        parsed = json(parsed["value"]);
    }
    if (parsed.is_discarded()) {
        command.texts = {payload};
    } else if (parsed.is_array()) {
        for (const json& each : parsed) command.texts.push_back(text(each));
    } else {
        command.texts = {text(parsed)};
    }
}

}  // namespace

Plain::Plain(const Settings& settings, const Catalogue& catalogue, const BoxState& box, Outlet& link)
    : catalogue_(catalogue), box_(box), link_(link), top_(settings.base + "/" + settings.box + "/")
{
}

std::string Plain::BoxText(bool online) const
{
    JsonWriter json;
    json.Begin('{').Key("state").Text(online ? "online" : "offline").Key("ports").Begin('[');
    for (const PortOf& port : catalogue_.ports) json.Text(port.name);
    json.End(']');
    if (online) json.Key("since").Text(TimeText(NowMicroseconds())).Key("version").Text(VOQ_VERSION);
    return json.End('}').Take();
}

Message Plain::Will()
{
    return {top_ + "state", BoxText(false), 1, true};
}

void Plain::Up()
{
    link_.Publish({top_ + "state", BoxText(true), 1, true});
    Probe();
    up_ = true;
    for (std::uint32_t i = 0; i < catalogue_.ports.size(); ++i) PortChanged(i);
}

void Plain::Goodbye()
{
    link_.Publish(Will());
}

std::optional<int> Plain::Probe()
{
    return link_.Subscribe(top_ + std::string(Values) + "+" + std::string(Set), 2);
}

void Plain::PortChanged(std::uint32_t port)
{
    constexpr const char* Words[] = {"offline", "online", "online", "online"};
    constexpr const char* Links[] = {nullptr, "ok", "time-out", "error"};
    const auto state = static_cast<std::size_t>(box_.ports[port]);
    JsonWriter json;
    json.Begin('{').Key("state").Text(Words[state]).Key("link");
    Links[state] == nullptr ? json.Null() : json.Text(Links[state]);
    json.Key("time").Text(TimeText(NowMicroseconds()));
    if (!up_) return;
    link_.Publish({top_ + std::string(Ports) + catalogue_.ports[port].name, json.End('}').Take(), 1, true});
}

std::optional<int> Plain::Tell(std::span<const Sample> samples, bool historical)
{
    const std::int64_t now = NowMicroseconds();
    std::optional<int> last;
    for (const Sample& sample : samples) {
        const Metric& metric = catalogue_.metrics[sample.metric];
        const std::string topic = top_ + std::string(historical ? History : Values) + metric.name;
        last = link_.Publish({topic, SampleText(metric, sample, now), 1, !historical});
        if (!last) break;
    }
    return last;
}

std::vector<Command> Plain::Arrived(const Message& message)
{
    const std::string values = top_ + std::string(Values);
    std::string_view name = message.topic;
    if (!name.starts_with(values) || !name.ends_with(Set)) return {};
    name = name.substr(values.size(), name.size() - values.size() - Set.size());
    // An empty message is how a kept one is removed.
    if (message.payload.empty()) return {};
    Command command;
    command.metric = catalogue_.Find(name);
    try {
        if (message.retain) throw Error("a retained message is not carried out");
        if (command.metric == catalogue_.metrics.size()) throw Error("there is no such register");
        if (message.payload.size() > LongestCommand) throw Error("longer than any value");
        ReadCommand(message.payload, command);
        if (!catalogue_.metrics[command.metric].rule.writable) {
            throw Error("this register is not to be written: its [[tell]] says no writes = true");
        }
    } catch (const Error& error) {
        command.refused = error.what();
    }
    if (command.metric != catalogue_.metrics.size()) return {command};
    Answer(name, command.id, false, command.refused);
    return {};
}

void Plain::Answered(const Command& command, bool written, const std::string& text)
{
    Answer(catalogue_.metrics[command.metric].name, command.id, written, text);
}

void Plain::Answer(std::string_view name, const std::string& id, bool written, const std::string& text)
{
    JsonWriter json;
    json.Begin('{').Key("written").Flag(written).Key("text").Text(text);
    if (!id.empty()) json.Key("id").Text(id);
    json.Key("time").Text(TimeText(NowMicroseconds()));
    const std::string topic = top_ + std::string(Values) + std::string(name) + std::string(Result);
    link_.Publish({topic, json.End('}').Take(), 1, false});
}

}  // namespace voq::mqtt
