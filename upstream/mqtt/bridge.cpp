// The main loop.
#include "upstream/mqtt/bridge.h"

#include <poll.h>

#include <algorithm>
#include <cstdio>

#include "client/bridge_state.h"
#include "client/clock.h"
#include "client/error.h"
#include "upstream/mqtt/plain.h"
#include "upstream/mqtt/sparkplug.h"

namespace voq::mqtt
{

namespace
{

using std::chrono::milliseconds;

constexpr std::size_t MaxWindow = 4096;  // samples that the broker has not acknowledged
constexpr std::size_t DueAtOnce = 1024;
// History goes in pieces, one under way at a time, as large as passes quickly: what is live waits behind one at most.
constexpr std::size_t LeastChunk = 16, MostChunk = 1024;
constexpr milliseconds QuickPiece{100}, SlowPiece{400};
constexpr milliseconds ProbesApart{500}, RoomLater{50};
constexpr milliseconds GoodbyeWithin{2000};
constexpr milliseconds Together{5};  // what comes within that time is handled at once: every turn wakes the processor

std::unique_ptr<Mode> MakeMode(const Settings& settings, const Catalogue& catalogue, const BoxState& box,
                               Outlet& outlet)
{
    if (settings.convention == Convention::Sparkplug) {
        return std::make_unique<Sparkplug>(settings, catalogue, box, outlet);
    }
    return std::make_unique<Plain>(settings, catalogue, box, outlet);
}

std::vector<std::string> NamesOf(const Catalogue& catalogue)
{
    std::vector<std::string> names;
    for (const Metric& each : catalogue.metrics) names.push_back(each.name);
    return names;
}

}  // namespace

Bridge::Bridge(const Settings& settings, const Catalogue& catalogue, std::string stateFile)
    : settings_(settings),
      catalogue_(catalogue),
      stateFile_(std::move(stateFile)),
      source_(catalogue,
              {.metric = [this](std::uint32_t at) { pacer_.Changed(source_.Box().samples[at], Clock::now()); },
               .port =
                   [this](std::uint32_t at) {
                       if (connected_) mode_->PortChanged(at);
                   },
               .device =
                   [this](std::uint32_t at) {
                       if (connected_) mode_->DeviceChanged(at);
                   },
               .answered = [this](const Asked& asked) { commands_.Answered(asked); },
               .trouble = [this](const std::string& text) { Log("ports", text); }}),
      spool_(settings.spool, NamesOf(catalogue)),
      link_(settings.broker),
      mode_(MakeMode(settings, catalogue, source_.Box(), link_)),
      commands_(catalogue, source_,
                [this](const Command& command, bool written, const std::string& text) {
                    if (!written) Log("writes", catalogue_.metrics[command.metric].name + " is not written: " + text);
                    if (connected_) mode_->Answered(command, written, text);
                }),
      pacer_(catalogue),
      chunk_(LeastChunk),
      since_(NowMicroseconds())
{
}

void Bridge::Log(const std::string& subject, const std::string& text)
{
    if (text.empty() || std::exchange(logged_[subject], text) == text) return;
    std::fprintf(stderr, "voq-mqtt: %s\n", text.c_str());
}

void Bridge::Run(int ending)
{
    link_.Connect(mode_->Will());
    while (Sleep(ending)) {
        const auto now = Clock::now();
        while (const auto event = link_.Next()) Handle(*event, now);
        if (now >= nextSecond_) EachSecond();
        Tell(now);
        TellHistory(now);
        if (const auto oldest = window_.Unprobed(); oldest && now >= *oldest + ProbesApart) Probe(now);
        spool_.Tick(now);
    }
    End();
}

// Sleeps until something is to be done, and hears the ports. False when the program is to end.
bool Bridge::Sleep(int ending)
{
    auto until = nextSecond_;
    const auto sooner = [&](std::optional<Clock::time_point> time) {
        if (time && *time < until) until = *time;
    };
    sooner(pacer_.Next());
    sooner(spool_.Due());
    if (const auto oldest = window_.Unprobed()) sooner(*oldest + ProbesApart);
    std::vector<pollfd> waiting = {{ending, POLLIN, 0}, {link_.Descriptor(), POLLIN, 0}};
    for (std::uint32_t i = 0; i < catalogue_.ports.size(); ++i) waiting.push_back({source_.Descriptor(i), POLLIN, 0});
    pollfd end = {ending, POLLIN, 0};
    if (poll(&end, 1, static_cast<int>(Together.count())) > 0) return false;
    const auto left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
    if (poll(waiting.data(), waiting.size(), static_cast<int>(std::max<std::int64_t>(left, 0))) <= 0) return true;
    for (std::uint32_t i = 0; i < catalogue_.ports.size(); ++i) {
        if (waiting[i + 2].revents != 0) source_.Dispatch(i);
    }
    return waiting[0].revents == 0;
}

void Bridge::Handle(const LinkEvent& event, Clock::time_point now)
{
    switch (event.type) {
        case LinkEvent::Type::Up:
            connected_ = true;
            since_ = NowMicroseconds();
            chunk_ = LeastChunk;
            Log("link", "connected to " + settings_.broker.host + ":" + std::to_string(settings_.broker.port));
            mode_->Up();
            break;
        case LinkEvent::Type::Down:
            LostConnection(event.reason);
            link_.Connect(mode_->Will());
            break;
        case LinkEvent::Type::Arrived:
            for (const Command& each : mode_->Arrived(event.message)) commands_.Begin(each);
            Log("messages", mode_->Remark());
            break;
        case LinkEvent::Type::Acknowledged:
            Log("broker", event.reason);
            Acknowledged(event.number, now);
    }
}

void Bridge::LostConnection(const std::string& reason)
{
    if (std::exchange(connected_, false)) {
        since_ = NowMicroseconds();
        mode_->Down();
    }
    for (const Sample& each : window_.Lost()) spool_.Add(each);
    spool_.Rewind();
    if (reason.empty()) return;
    lastError_ = reason;
    lastErrorAt_ = NowMicroseconds();
    Log("link", reason);
}

void Bridge::Tell(Clock::time_point now)
{
    const bool telling = Telling();
    if (!std::exchange(telling_, telling) && telling && !mode_->BirthsHoldValues()) pacer_.All(now);
    const std::size_t room = telling ? MaxWindow - std::min(MaxWindow, window_.Samples()) : 0;
    std::vector<Sample> live;
    for (const Pacer::Due& due : pacer_.DueAt(now, DueAtOnce)) {
        const Sample& sample = source_.Freshen(due.metric);
        if (live.size() == room) {
            if (telling && due.why == Pacer::Why::Refresh) {
                pacer_.Delay(due.metric, now + RoomLater);
                continue;
            }
            if (due.why == Pacer::Why::Change) spool_.Add(sample);
        } else {
            live.push_back(sample);
        }
        pacer_.Told(sample, now);
    }
    if (live.empty()) return;
    std::stable_sort(live.begin(), live.end(), [](const Sample& a, const Sample& b) { return a.time < b.time; });
    if (const auto number = mode_->Tell(live, false)) return window_.Sent(std::move(live), false, *number, now);
    for (const Sample& each : live) spool_.Add(each);
}

void Bridge::TellHistory(Clock::time_point now)
{
    if (!Telling() || spool_.Empty() || window_.HoldsHistory()) return;
    std::vector<Sample> samples = spool_.Take(chunk_);
    if (samples.empty()) return;
    const auto number = mode_->Tell(samples, true);
    if (!number) return spool_.Rewind();
    window_.Sent(std::move(samples), true, *number, now);
    if (*number == 0) Probe(now);
}

void Bridge::Acknowledged(int number, Clock::time_point now)
{
    const Window::Arrived arrived = window_.Acknowledged(number);
    if (arrived.historical == 0) return;
    spool_.Done(arrived.historical);
    if (now - arrived.historicalSent < QuickPiece) chunk_ = std::min(chunk_ * 2, MostChunk);
    if (now - arrived.historicalSent > SlowPiece) chunk_ = std::max(chunk_ / 2, LeastChunk);
}

void Bridge::Probe(Clock::time_point)
{
    if (const auto number = mode_->Probe()) window_.Probed(*number);
}

void Bridge::EachSecond()
{
    nextSecond_ = Clock::now() + std::chrono::seconds(1);
    source_.Look();
    mode_->EachSecond();
    Log("spool", spool_.Remark());
    Log("host", mode_->HeldUp());
    try {
        WriteState();
    } catch (const Error& error) {
        Log("state", error.what());
    }
}

void Bridge::WriteState()
{
    const Link::Figures link = link_.Counted();
    const Spool::Figures spool = spool_.Counted();
    const auto seconds = [](std::int64_t us) { return std::to_string(us / 1000000); };
    const std::string held = mode_->HeldUp();
    const char* state = !connected_ ? "away" : held.empty() ? "connected" : "held-up";
    WriteBridgeState(stateFile_, {{"updated", seconds(NowMicroseconds())},
                                  {"broker", settings_.broker.host + ":" + std::to_string(settings_.broker.port)},
                                  {"state", state},
                                  {"since", seconds(since_)},
                                  {"registers", std::to_string(catalogue_.metrics.size())},
                                  {"connections", std::to_string(link.connections)},
                                  {"messages_sent", std::to_string(link.sent)},
                                  {"messages_received", std::to_string(link.received)},
                                  {"messages_refused", std::to_string(link.refused)},
                                  {"bytes_sent", std::to_string(link.bytesSent)},
                                  {"bytes_received", std::to_string(link.bytesReceived)},
                                  {"spooled", std::to_string(spool.samples)},
                                  {"spool_memory", std::to_string(spool.memory)},
                                  {"spool_bytes", std::to_string(spool.bytes)},
                                  {"spool_dropped", std::to_string(spool.dropped)},
                                  {"spool_writes", std::to_string(spool.writes)},
                                  {"spool_unfit", std::to_string(mode_->Unfit())},
                                  {"writes_done", std::to_string(commands_.Written())},
                                  {"writes_refused", std::to_string(commands_.Refused())},
                                  {"held_up", held},
                                  {"last_error_at", lastErrorAt_ == 0 ? "" : seconds(lastErrorAt_)},
                                  {"last_error", lastError_}});
}

// What was changed a moment ago is told, then the broker hears that the box goes; what it does not acknowledge any more
// is kept.
void Bridge::End()
{
    commands_.End();
    const auto until = Clock::now() + GoodbyeWithin;
    if (connected_) {
        Tell(Clock::now());
        if (window_.Unprobed()) Probe(Clock::now());
        mode_->Goodbye();
        link_.Close(settings_.convention == Convention::Sparkplug);
    }
    while (connected_ && Clock::now() < until) {
        pollfd waiting = {link_.Descriptor(), POLLIN, 0};
        poll(&waiting, 1, 50);
        while (const auto event = link_.Next()) {
            if (event->type == LinkEvent::Type::Down) LostConnection("");
            if (event->type == LinkEvent::Type::Acknowledged) Acknowledged(event->number, Clock::now());
        }
    }
    LostConnection("");
    spool_.Flush();
    WriteState();
}

}  // namespace voq::mqtt
