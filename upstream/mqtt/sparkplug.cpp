// Births, data and deaths. What is not born is told by nothing else; every message but the death of the node counts.
#include "upstream/mqtt/sparkplug.h"

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>

#include "client/clock.h"
#include "client/error.h"
#include "upstream/mqtt/metric_value.h"

namespace voq::mqtt
{

namespace
{

using sparkplug::DataType;
using sparkplug::Encode;
using sparkplug::Payload;

constexpr const char* Namespace = "spBv1.0/";
constexpr const char* Rebirth = "Node Control/Rebirth";
constexpr std::uint64_t BdSeqAlias = 1, FirstAlias = 2;  // of the ports, then of the registers
constexpr std::chrono::minutes RepeatedWithin{1};        // a broker sends again at once, if it does
constexpr std::size_t LongestState = 4096;               // of a host: two fields, and copies of lists in lists go deep
constexpr std::uint64_t RebirthsApart = 1000;            // ms; those asked for meanwhile are one
constexpr int Good = 192, Stale = 500, Bad = 0;          // the published numbers of quality

std::uint64_t Milliseconds(std::int64_t us)
{
    return static_cast<std::uint64_t>(std::max<std::int64_t>(us, 0)) / 1000;
}

std::uint64_t Now()
{
    return Milliseconds(NowMicroseconds());
}

int QualityOf(State state)
{
    if (state == State::Good) return Good;
    return state == State::Failed || state == State::Refused ? Bad : Stale;
}

std::string NameOf(const sparkplug::Metric& metric)
{
    return metric.name.empty() && metric.alias ? "alias " + std::to_string(*metric.alias) : "\"" + metric.name + "\"";
}

sparkplug::Property Quality(int quality)
{
    return {"Quality", DataType::Int32, static_cast<std::uint32_t>(quality)};
}

}  // namespace

Sparkplug::Sparkplug(const Settings& settings, const Catalogue& catalogue, const BoxState& box, Outlet& outlet)
    : settings_(settings),
      catalogue_(catalogue),
      box_(box),
      outlet_(outlet),
      devicesBorn_(catalogue.devices.size()),
      toldQuality_(catalogue.metrics.size(), {Good, Good})
{
}

std::string Sparkplug::Topic(const char* type) const
{
    return Namespace + settings_.base + "/" + type + "/" + settings_.box;
}

std::string Sparkplug::Topic(const char* type, std::uint32_t device) const
{
    return Topic(type) + "/" + catalogue_.devices[device].name;
}

bool Sparkplug::Send(const std::string& topic, Payload payload)
{
    payload.timestamp = Now();
    payload.seq = seq_++;
    return outlet_.Publish({topic, Encode(payload), 0, false}).has_value();
}

sparkplug::Metric Sparkplug::BdSeq() const
{
    return {"bdSeq", std::nullopt, Now(), DataType::Int64, false, std::uint64_t{bdSeq_}, {}};
}

Message Sparkplug::Will()
{
    bdSeq_ = nextBdSeq_++;
    return {Topic("NDEATH"), Encode({Now(), {BdSeq()}, std::nullopt}), 1, false};
}

void Sparkplug::Up()
{
    connected_ = true;
    outlet_.Subscribe(Topic("NCMD"), 1);
    for (std::uint32_t i = 0; i < catalogue_.devices.size(); ++i) {
        const auto& metrics = catalogue_.devices[i].metrics;
        const bool writable = std::any_of(metrics.begin(), metrics.end(), [&](std::uint32_t metric) {
            return catalogue_.metrics[metric].rule.writable;
        });
        if (writable) outlet_.Subscribe(Topic("DCMD", i), 1);
    }
    if (settings_.primaryHost.empty()) return Birth();
    outlet_.Subscribe(std::string(Namespace) + "STATE/" + settings_.primaryHost, 1, true);
}

void Sparkplug::Down()
{
    connected_ = born_ = hostOnline_ = rebirth_ = false;
    std::fill(devicesBorn_.begin(), devicesBorn_.end(), false);
}

void Sparkplug::EachSecond()
{
    if (born_ && rebirth_) Birth();
}

void Sparkplug::Goodbye()
{
    if (born_) outlet_.Publish({Topic("NDEATH"), Encode({Now(), {BdSeq()}, std::nullopt}), 1, false});
    born_ = false;
}

std::optional<int> Sparkplug::Probe()
{
    return outlet_.Subscribe(Topic("NCMD"), 1);
}

std::string Sparkplug::HeldUp() const
{
    if (settings_.primaryHost.empty() || !connected_ || hostOnline_) return "";
    return "the primary host " + settings_.primaryHost + " is not online: nothing is told before it is";
}

sparkplug::Metric Sparkplug::PortMetric(std::uint32_t port) const
{
    constexpr const char* Words[] = {"no service", "ok", "time-out", "error"};
    const std::string word = Words[static_cast<std::size_t>(box_.ports[port])];
    return {"Ports/" + catalogue_.ports[port].name, FirstAlias + port, Now(), DataType::String, false, word, {}};
}

// A host may take the quality of what is history for that of what is live, or not: it hears it unless both are good.
sparkplug::Metric Sparkplug::MetricOf(const Sample& sample, As as)
{
    const Metric& metric = catalogue_.metrics[sample.metric];
    const int quality = QualityOf(sample.state);
    sparkplug::Metric told;
    told.alias = FirstAlias + catalogue_.ports.size() + sample.metric;
    told.timestamp = Milliseconds(sample.time);
    if (const auto carried = CarriedOf(metric, sample.value)) told.value = *carried;
    ToldQuality& before = toldQuality_[sample.metric];
    if (as == As::Birth || quality != Good || before.live != Good || before.history != Good) {
        told.properties.push_back(Quality(quality));
    }
    if (as != As::Live) before.history = quality;
    if (as != As::History) before.live = quality;
    told.historical = as == As::History;
    if (as != As::Birth) return told;
    const Meaning& meaning = metric.described.meaning;
    told.name = metric.name;
    told.datatype = DataTypeOf(metric);
    if (!meaning.unit.empty()) told.properties.push_back({"engUnit", DataType::String, meaning.unit});
    if (meaning.minimum) told.properties.push_back({"engLow", DataType::Double, *meaning.minimum});
    if (meaning.maximum) told.properties.push_back({"engHigh", DataType::Double, *meaning.maximum});
    told.properties.push_back({"readOnly", DataType::Boolean, !metric.rule.writable});
    return told;
}

bool Sparkplug::Alive(std::uint32_t device) const
{
    return box_.devices[device] && box_.ports[catalogue_.devices[device].port] != PortState::Away;
}

void Sparkplug::Birth()
{
    Payload payload;
    payload.metrics.push_back(BdSeq());
    payload.metrics.back().alias = BdSeqAlias;
    payload.metrics.push_back({Rebirth, std::nullopt, Now(), DataType::Boolean, false, false, {}});
    for (std::uint32_t i = 0; i < catalogue_.ports.size(); ++i) payload.metrics.push_back(PortMetric(i));
    seq_ = 0;
    rebirth_ = false;
    bornAt_ = Now();
    born_ = Send(Topic("NBIRTH"), std::move(payload));
    for (std::uint32_t i = 0; born_ && i < catalogue_.devices.size(); ++i) {
        devicesBorn_[i] = false;
        if (Alive(i)) BirthOf(i);
    }
}

bool Sparkplug::BirthOf(std::uint32_t device)
{
    Payload payload;
    for (const std::uint32_t each : catalogue_.devices[device].metrics) {
        payload.metrics.push_back(MetricOf(box_.samples[each], As::Birth));
    }
    std::stable_sort(payload.metrics.begin(), payload.metrics.end(),
                     [](const auto& a, const auto& b) { return *a.timestamp < *b.timestamp; });
    devicesBorn_[device] = Send(Topic("DBIRTH", device), std::move(payload));
    return devicesBorn_[device];
}

bool Sparkplug::DeathOf(std::uint32_t device)
{
    devicesBorn_[device] = false;
    return Send(Topic("DDEATH", device), {});
}

void Sparkplug::PortChanged(std::uint32_t port)
{
    if (!Ready()) return;
    Payload payload;
    payload.metrics.push_back(PortMetric(port));
    payload.metrics.back().name.clear();
    payload.metrics.back().datatype.reset();
    Send(Topic("NDATA"), std::move(payload));
    for (const std::uint32_t device : catalogue_.ports[port].devices) DeviceChanged(device);
}

void Sparkplug::DeviceChanged(std::uint32_t device)
{
    if (!Ready() || Alive(device) == devicesBorn_[device]) return;
    Alive(device) ? BirthOf(device) : DeathOf(device);
}

std::optional<int> Sparkplug::Tell(std::span<const Sample> samples, bool historical)
{
    bool sent = Ready();
    while (sent && !samples.empty()) {
        const auto device = [&](const Sample& sample) { return catalogue_.metrics[sample.metric].device; };
        const std::uint32_t first = device(samples[0]);
        const auto end =
            std::find_if(samples.begin(), samples.end(), [&](const auto& each) { return device(each) != first; });
        const auto count = static_cast<std::size_t>(end - samples.begin());
        sent = TellDevice(first, samples.first(count), historical);
        samples = samples.subspan(count);
    }
    return sent ? std::optional(0) : std::nullopt;
}

// Of a device that is dead: its death says that what is live is so no more; what was before is told between a birth and
// a death of its own.
bool Sparkplug::TellDevice(std::uint32_t device, std::span<const Sample> samples, bool historical)
{
    const bool dead = !devicesBorn_[device];
    if (dead && !historical) return true;
    const auto fits = [&](const Sample& each) {
        return CarriedOf(catalogue_.metrics[each.metric], each.value).has_value();
    };
    const auto fit = static_cast<std::size_t>(std::count_if(samples.begin(), samples.end(), fits));
    unfit_ += samples.size() - fit;
    if (fit == 0) return true;
    if (dead && !BirthOf(device)) return false;
    Payload payload;
    for (const Sample& each : samples) {
        if (fits(each)) payload.metrics.push_back(MetricOf(each, historical ? As::History : As::Live));
    }
    const bool sent = Send(Topic("DDATA", device), std::move(payload));
    if (dead) DeathOf(device);
    return sent;
}

// A state of the host that is older than what is known of it is passed over.
void Sparkplug::HearHost(const std::string& payload)
{
    if (payload.size() > LongestState) return;
    const auto state = nlohmann::json::parse(payload, nullptr, false);
    const auto field = [&](const char* name) {
        return state.is_object() && state.contains(name) ? state[name] : nullptr;
    };
    const nlohmann::json online = field("online"), time = field("timestamp");
    if (!online.is_boolean() || !time.is_number_integer() || time.get<std::int64_t>() < hostTime_) return;
    hostTime_ = time.get<std::int64_t>();
    hostOnline_ = online.get<bool>();
    if (hostOnline_) return born_ ? void() : Birth();
    if (!born_) return;
    Goodbye();
    outlet_.Close(true);
}

// A broker may send once more what it is not sure has arrived; its time tells it from a second command.
bool Sparkplug::Repeated(const Message& message)
{
    // The box's time of day may be set in between.
    const Heard heard{std::hash<std::string>()(message.topic + '\0' + message.payload),
                      std::chrono::steady_clock::now()};
    const bool repeated = std::any_of(heard_.begin(), heard_.end(), [&](const Heard& each) {
        return each.hash == heard.hash && heard.at - each.at < RepeatedWithin;
    });
    if (!repeated) heard_[nextHeard_++ % heard_.size()] = heard;
    return repeated;
}

std::optional<Command> Sparkplug::CommandOf(std::uint32_t device, const sparkplug::Metric& metric) const
{
    const std::uint64_t first = FirstAlias + catalogue_.ports.size();
    Command command;
    command.metric = catalogue_.Find(metric.name);
    if (metric.alias && *metric.alias >= first && *metric.alias - first < catalogue_.metrics.size()) {
        command.metric = static_cast<std::uint32_t>(*metric.alias - first);
    }
    if (command.metric == catalogue_.metrics.size()) return std::nullopt;
    const Metric& known = catalogue_.metrics[command.metric];
    if (known.device != device) return std::nullopt;
    try {
        if (!known.rule.writable) throw Error("not to be written: its [[tell]] says no writes = true");
        command.texts = TextsOf(known, metric.value);
    } catch (const Error& error) {
        command.refused = error.what();
    }
    return command;
}

std::vector<Command> Sparkplug::Arrived(const Message& message)
{
    if (message.topic == std::string(Namespace) + "STATE/" + settings_.primaryHost) {
        HearHost(message.payload);
        return {};
    }
    if (message.retain || !born_) return {};
    const auto payload = sparkplug::Decode(message.payload);
    if (!payload) remark_ = "what arrived at " + message.topic + " is no payload of Sparkplug, or too large a one";
    if (!payload || (payload->timestamp && Repeated(message))) return {};
    std::vector<Command> commands;
    if (message.topic == Topic("NCMD")) {
        const bool rebirth = std::any_of(payload->metrics.begin(), payload->metrics.end(), [](const auto& each) {
            const auto* flag = std::get_if<bool>(&each.value);
            return each.name == Rebirth && flag != nullptr && *flag;
        });
        // Nothing is told from now on until it is born again.
        rebirth_ = rebirth_ || rebirth;
        if (Now() - bornAt_ >= RebirthsApart) EachSecond();
        return {};
    }
    for (std::uint32_t device = 0; device < catalogue_.devices.size(); ++device) {
        if (message.topic != Topic("DCMD", device)) continue;
        for (const sparkplug::Metric& each : payload->metrics) {
            auto command = CommandOf(device, each);
            if (!command) remark_ = message.topic + ": the device has no such metric as " + NameOf(each);
            if (command) commands.push_back(std::move(*command));
        }
    }
    return commands;
}

// A write that was carried out shows in the next reading. After any other the host hears what is still so.
void Sparkplug::Answered(const Command& command, bool written, const std::string&)
{
    if (!written) Tell({&box_.samples[command.metric], 1}, false);
}

}  // namespace voq::mqtt
