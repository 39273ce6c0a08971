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
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/plot.h"
#include "tools/port.h"
#include "tools/printable.h"
#include "tools/range_rows.h"
#include "tools/stop.h"
#include "tools/watch_screen.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{

using Clock = std::chrono::steady_clock;

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
    voq::Range followed = {};
    std::int64_t counted = 0;  // stamp of the last live value that was
    unsigned liveCount = 0;
    std::optional<Shown> printed = {};
    std::optional<PlotHistory> history = {};
};

std::vector<Watched> Resolve(const Target& target, const SelectOptions& select)
{
    std::vector<Watched> ranges;
    for (Selected& selected : Select(target, select)) {
        const auto same = std::find_if(ranges.begin(), ranges.end(), [&](const Watched& other) {
            return SameRange(other.followed.key, selected.reg.key);
        });
        const bool asked = std::find(select.what.begin(), select.what.end(), selected.name) != select.what.end();
        if (same != ranges.end() && asked) {
            throw UsageError(same->range.name + " and " + selected.name + " are the same range");
        }
        const RegKey key = selected.reg.key;
        ranges.push_back({.range = std::move(selected), .followed = {.key = key}});
    }
    return ranges;
}

Shown ReadShown(Watched& range)
{
    Shown shown;
    const voq::Followed& followed = *range.followed.followed;
    if (followed.state == voq::StateUnknown) return shown;
    shown.state = voq::StateName(static_cast<std::uint8_t>(followed.state));
    shown.stamp = voq::StampMicroseconds(followed.stamp);
    if (followed.state != PLC_SUCCESS || followed.value.empty()) return shown;
    shown.value = followed.value;
    shown.live = followed.live;
    if (shown.live && shown.stamp != range.counted) {
        range.counted = shown.stamp;
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

// Shows what changes when it does, and everything once an interval.
void ShowUntilDone(voq::Port& port, const WatchOptions& watch, std::vector<Watched>& ranges, Output& output)
{
    const auto limit = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(watch.forSeconds));
    const auto end = watch.forSeconds > 0 ? Clock::now() + limit : Clock::time_point::max();
    auto next = Clock::now();
    while (Stopped == 0) {
        bool changed = false, served = port.Running();
        while (const auto event = port.NextEvent()) {
            changed = true;
            if (event->type == voq::EventType::ServiceLost) served = false;
        }
        if (changed || Clock::now() >= next) {
            std::vector<Shown> readings;
            for (Watched& range : ranges) {
                readings.push_back(served ? ReadShown(range) : Shown{"no service", {}, 0, false});
            }
            output.Show(readings);
            if (std::fflush(stdout) != 0 || AllCounted(ranges, watch.count)) break;
            next = Clock::now() + std::chrono::milliseconds(watch.intervalMs);
        }
        if (Clock::now() >= end) break;
        Await(port, std::min(next, end));
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
        voq::PortSettings settings;
        settings.interval = std::chrono::milliseconds(watch.intervalMs);
        const auto port = OpenPort(target, options, settings);
        for (Watched& range : ranges) port->Subscribe(range.followed);
        Await(*port, Clock::now());
        if (!port->Running()) voq::RequireReader(target.fifo);
        ShowUntilDone(*port, watch, ranges, shown);
    }
    for (const Watched& range : ranges) {
        if (range.liveCount != 0) return ExitOk;
    }
    return ExitNegative;
}
