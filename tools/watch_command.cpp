// "voqctl watch": subscribes ranges, shows their values as the service refreshes them, and logs off again, however it
// ends. Main thread. Needs SIGPIPE ignored, so that a closed output still logs off.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <optional>

#include "client/clock.h"
#include "client/database.h"
#include "client/fifo.h"
#include "client/frame.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/plot.h"
#include "tools/printable.h"
#include "tools/range_rows.h"
#include "tools/stop.h"
#include "tools/watch_screen.h"
#include "voq/reg_range.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::int64_t MostAsleep = 200'000'000;  // nanoseconds

constexpr std::size_t MostCurves = 4;
constexpr std::chrono::milliseconds CurvesApart{200};  // a terminal need not follow every reading

// What is known of a range.
struct Shown {
    std::string state = "not registered";
    std::optional<voq::Bytes> value;
    std::int64_t stamp = 0;  // microseconds, 0 for none
    bool live = false;

    bool Same(const Shown& other) const { return state == other.state && value == other.value && live == other.live; }
};

struct Watched {
    Selected range;
    std::optional<std::size_t> sharedWith;  // a watched range before it that is the same one under another name
    std::uint16_t fileno = 0;
    std::uint32_t offset = 0;     // of its record, 0 until found
    std::int64_t loggedOnAt = 0;  // microseconds; 0 while not logged on
    std::int64_t lastLive = 0;    // stamp of the last live value counted
    unsigned liveCount = 0;
    std::optional<Shown> printed;
    std::optional<PlotHistory> history;
};

std::vector<Watched> Resolve(const Target& target, const SelectOptions& select)
{
    std::vector<Watched> ranges;
    for (Selected& selected : Select(target, select)) {
        Watched range = {std::move(selected), {}, 0, 0, 0, 0, 0, {}, {}};
        const auto same = std::find_if(ranges.begin(), ranges.end(), [&](const Watched& other) {
            return SameRange(other.range.reg.key, range.range.reg.key);
        });
        if (same != ranges.end()) range.sharedWith = static_cast<std::size_t>(same - ranges.begin());
        const bool asked = std::find(select.what.begin(), select.what.end(), range.range.name) != select.what.end();
        if (range.sharedWith && asked) {
            throw UsageError(same->range.name + " and " + range.range.name + " are the same range");
        }
        ranges.push_back(std::move(range));
    }
    return ranges;
}

// The subscriptions, one for each range: the service would keep one entry for two, and the second log-off would not
// find it. Going out of scope ends those that were made.
class Subscriptions
{
public:
    Subscriptions(const Target& target, std::vector<Watched>& ranges, voq::FileNumberRange numbers)
        : target_(target), ranges_(ranges), numbers_(target.port, numbers)
    {
    }
    ~Subscriptions()
    {
        for (Watched& range : ranges_) {
            if (range.loggedOnAt == 0 || range.sharedWith) continue;
            try {
                voq::SendFrame(target_.fifo, voq::LogOffFrame(range.range.reg.key, range.fileno));
                numbers_.GiveBack(range.fileno);
            } catch (const std::exception& error) {
                Complain(range.range.name + " is still logged on: " + error.what());
            }
        }
    }
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;

    void Begin()
    {
        for (Watched& range : ranges_) {
            if (!range.sharedWith) range.fileno = numbers_.Next();
        }
        LogOn();
    }

    // A service that has ended forgot its subscriptions: they are made again when it is back. False while it is away.
    bool Keep()
    {
        if (!voq::FifoHasReader(target_.fifo)) {
            for (Watched& range : ranges_) range.loggedOnAt = 0;
            return false;
        }
        try {
            LogOn();
            return true;
        } catch (const voq::ServiceNotRunning&) {
            return false;
        }
    }

private:
    void LogOn()
    {
        for (Watched& range : ranges_) {
            if (range.loggedOnAt != 0) continue;
            const std::int64_t now = voq::NowMicroseconds();
            if (!range.sharedWith) LogOn(range);
            range.loggedOnAt = range.sharedWith ? ranges_[*range.sharedWith].loggedOnAt : now;
        }
    }

    void LogOn(const Watched& range)
    {
        const voq::Bytes frame = voq::LogOnFrame(range.range.reg.key, range.fileno);
        RegRequest note = *voq::RecordAt<RegRequest>(frame, FrameHeaderBytes);
        if (target_.fifo == target_.port.GuiFifo()) note.subcmd = ClaimThroughGui;
        numbers_.Note(range.fileno, note);
        voq::SendFrame(target_.fifo, frame);
    }

    const Target& target_;
    std::vector<Watched>& ranges_;
    voq::FileNumbers numbers_;
};

Shown ReadShown(const voq::PortDir& port, Watched& range)
{
    Shown shown;
    if (range.offset == 0) range.offset = voq::FindRange(port, range.range.reg.key);
    if (range.offset == 0) return shown;
    auto reading = voq::ReadRange(port, range.range.reg.key, range.offset);
    if (!reading) {
        range.offset = 0;
        return shown;
    }
    shown.state = voq::StateName(reading->node.state);
    shown.stamp = voq::StampMicroseconds(reading->node.stamp);
    if (reading->node.state != 1) return shown;
    shown.value = std::move(reading->value);
    shown.live = shown.stamp >= range.loggedOnAt;
    if (shown.live && shown.stamp != range.lastLive) {
        range.lastLive = shown.stamp;
        ++range.liveCount;
    }
    return shown;
}

std::string Age(const Shown& shown, std::int64_t now)
{
    return shown.stamp == 0 ? "-" : voq::AgeText(now - shown.stamp);
}

std::string ValueOf(const Watched& range, const Shown& shown, const OutputOptions& output)
{
    return shown.value ? ShownText(range.range, *shown.value, output) : "-";
}

std::string ClockText(std::int64_t now)
{
    const std::time_t seconds = now / 1000000;
    std::tm parts = {};
    char time[32];
    localtime_r(&seconds, &parts);
    const std::size_t length = std::strftime(time, sizeof time, "%H:%M:%S", &parts);
    std::snprintf(time + length, sizeof time - length, ".%03d", static_cast<int>(now / 1000 % 1000));
    return time;
}

// What is shown while watching, in one of three ways.
class Output
{
public:
    Output(const WatchOptions& watch, const OutputOptions& output, std::vector<Watched>& ranges)
        : output_(output), ranges_(ranges), rows_(output.rows), terminal_(isatty(STDOUT_FILENO) == 1)
    {
        if (!watch.plot || !terminal_ || output.rows != RowForm::None) return;
        for (Watched& range : ranges) range.history.emplace(static_cast<std::int64_t>(watch.plotMinutes * 60e6));
    }

    void Show(const std::vector<Shown>& readings)
    {
        const std::int64_t now = voq::NowMicroseconds();
        if (!terminal_ || output_.rows != RowForm::None) return ShowChanges(readings, now);
        for (std::size_t i = 0; i < ranges_.size(); ++i) {
            if (ranges_[i].history) ranges_[i].history->Add({now, Number(ranges_[i], readings[i])});
        }
        if (ranges_[0].history && Clock::now() < nextCurves_) return;
        nextCurves_ = Clock::now() + CurvesApart;
        Redraw(readings, now);
    }

private:
    // One line or row a change.
    void ShowChanges(const std::vector<Shown>& readings, std::int64_t now)
    {
        for (std::size_t i = 0; i < ranges_.size(); ++i) {
            Watched& range = ranges_[i];
            if (range.printed && range.printed->Same(readings[i])) continue;
            range.printed = readings[i];
            if (output_.rows == RowForm::None) {
                PrintLine(range, readings[i], now);
            } else {
                WriteRow(range, readings[i], now);
            }
        }
    }

    // Time, name, state, age, value, separated by tabs.
    void PrintLine(const Watched& range, const Shown& shown, std::int64_t now) const
    {
        std::printf("%s\t%s\t%s\t%s\t%s\n", (output_.iso ? IsoTime(now) : ClockText(now)).c_str(),
                    Printable(range.range.name).c_str(), shown.state.c_str(), Age(shown, now).c_str(),
                    ValueOf(range, shown, output_).c_str());
    }

    void WriteRow(const Watched& range, const Shown& shown, std::int64_t now)
    {
        RangeState state{shown.state, now, {}, {}};
        if (shown.stamp != 0) state.stamp = shown.stamp;
        if (shown.value) state.value = *shown.value;
        rows_.Write(RangeRow(range.range, state));
    }

    void Redraw(const std::vector<Shown>& readings, std::int64_t now)
    {
        std::vector<WatchLine> lines;
        for (std::size_t i = 0; i < ranges_.size(); ++i) {
            const Watched& range = ranges_[i];
            char head[160];
            std::snprintf(head, sizeof head, "%-24.60s  %-14s  %8s  ", Printable(range.range.name).c_str(),
                          readings[i].state.c_str(), Age(readings[i], now).c_str());
            lines.push_back({head + ValueOf(range, readings[i], output_), range.history ? &*range.history : nullptr});
        }
        screen_.Draw(lines);
    }

    double Number(const Watched& range, const Shown& shown) const
    {
        return shown.value ? NumberOf(range.range, *shown.value, output_.raw) : NAN;
    }

    const OutputOptions& output_;
    std::vector<Watched>& ranges_;
    RowWriter rows_;
    bool terminal_;
    WatchScreen screen_;
    Clock::time_point nextCurves_ = {};
};

bool AllCounted(const std::vector<Watched>& ranges, unsigned count)
{
    for (const Watched& range : ranges) {
        if (range.liveCount < count) return false;
    }
    return count != 0;
}

// Sleeps until the next reading, the end or a signal, and keeps the subscriptions meanwhile: a service can be started
// again between two readings. False when it was away.
bool Sleep(Subscriptions& subscriptions, Clock::time_point until)
{
    bool served = true;
    while (Stopped == 0) {
        if (!subscriptions.Keep()) served = false;
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(until - Clock::now()).count();
        if (left <= 0) break;
        const timespec time = {0, static_cast<long>(std::min<std::int64_t>(left, MostAsleep))};
        nanosleep(&time, nullptr);
    }
    return served;
}

void ShowUntilDone(const voq::PortDir& port, const WatchOptions& watch, Subscriptions& subscriptions,
                   std::vector<Watched>& ranges, Output& output)
{
    bool served = true;
    const auto limit = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(watch.forSeconds));
    const auto end = Clock::now() + limit;
    while (Stopped == 0) {
        std::vector<Shown> readings;
        for (Watched& range : ranges) {
            readings.push_back(served ? ReadShown(port, range) : Shown{"no service", {}, 0, false});
        }
        output.Show(readings);
        if (std::fflush(stdout) != 0) break;
        if (AllCounted(ranges, watch.count)) break;
        if (watch.forSeconds > 0 && Clock::now() >= end) break;
        const auto next = Clock::now() + std::chrono::milliseconds(watch.intervalMs);
        served = Sleep(subscriptions, watch.forSeconds > 0 ? std::min(next, end) : next);
    }
}

void RequireCurves(const std::vector<Watched>& ranges)
{
    if (ranges.size() > MostCurves) {
        throw UsageError("--plot draws up to " + std::to_string(MostCurves) + " values, not " +
                         std::to_string(ranges.size()));
    }
    for (const Watched& range : ranges) {
        if (range.range.coding.type.kind != voq::ValueKind::Raw && range.range.meaning.text == 0) continue;
        throw UsageError("--plot: " + range.range.name + " is no number");
    }
}

}  // namespace

int Watch(const PortOptions& options, const WatchOptions& watch, const OutputOptions& output)
{
    const Target target = Resolve(options);
    std::vector<Watched> ranges = Resolve(target, watch.select);
    if (watch.plot) RequireCurves(ranges);
    const auto missing = [&](const Watched& range) { return ByteOrderMissing(target, range.range.reg); };
    if (std::any_of(ranges.begin(), ranges.end(), missing)) NoteByteOrder();
    CatchSignals();
    {
        Output shown(watch, output, ranges);
        Subscriptions subscriptions(target, ranges, options.numbers);
        subscriptions.Begin();
        ShowUntilDone(target.port, watch, subscriptions, ranges, shown);
    }
    for (const Watched& range : ranges) {
        if (range.liveCount != 0) return ExitOk;
    }
    return ExitNegative;
}
