// "voqctl watch": subscribes ranges, shows their values as the service refreshes them, and logs off again, however it
// ends. Main thread. Needs SIGPIPE ignored, so that a closed output still logs off.
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <limits>

#include "client/clock.h"
#include "client/database.h"
#include "client/fifo.h"
#include "client/frame.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/stop.h"
#include "voq/reg_range.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::int64_t MostAsleep = 200'000'000;  // nanoseconds

// What is shown of a range.
struct Shown {
    std::string state = "not registered";
    std::string value = "-";
    std::int64_t stamp = 0;  // microseconds, 0 for none
    bool live = false;

    bool Same(const Shown& other) const { return state == other.state && value == other.value && live == other.live; }
};

struct Watched {
    std::string name;
    voq::Register reg;
    voq::ValueCoding coding;
    std::uint16_t fileno = 0;
    std::uint32_t offset = 0;     // of its record, 0 until found
    std::int64_t loggedOnAt = 0;  // microseconds; 0 while not logged on
    std::int64_t lastLive = 0;    // stamp of the last live value counted
    unsigned liveCount = 0;
    Shown shown;
    bool printed = false;
};

std::vector<Watched> ResolveRanges(const Target& target, const std::vector<std::string>& what)
{
    std::vector<Watched> ranges;
    for (const std::string& text : what) {
        Watched range;
        range.name = text;
        range.reg = ResolveRegister(target, text).reg;
        range.coding = voq::CodingOf(range.reg, ByteOrderOf(target, range.reg.key));
        // The service would keep one entry for both, and the second log-off would not find it.
        for (const Watched& other : ranges) {
            if (SameRange(other.reg.key, range.reg.key)) {
                throw UsageError(other.name + " and " + text + " are the same range");
            }
        }
        ranges.push_back(range);
    }
    return ranges;
}

// The subscriptions; going out of scope ends those that were made.
class Subscriptions
{
public:
    Subscriptions(const Target& target, std::vector<Watched>& ranges) : target_(target), ranges_(ranges) {}
    ~Subscriptions()
    {
        for (Watched& range : ranges_) {
            if (range.loggedOnAt == 0) continue;
            try {
                voq::SendFrame(target_.fifo, voq::LogOffFrame(range.reg.key, range.fileno));
            } catch (const std::exception& error) {
                Complain(range.name + " is still logged on: " + error.what());
            }
        }
    }
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;

    void Begin(voq::FileNumberRange numbers)
    {
        voq::FileNumbers filenos(target_.port, numbers);
        for (Watched& range : ranges_) range.fileno = filenos.Next();
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
            voq::SendFrame(target_.fifo, voq::LogOnFrame(range.reg.key, range.fileno));
            range.loggedOnAt = now;
        }
    }

    const Target& target_;
    std::vector<Watched>& ranges_;
};

Shown ReadShown(const voq::PortDir& port, Watched& range)
{
    Shown shown;
    if (range.offset == 0) range.offset = voq::FindRange(port, range.reg.key);
    if (range.offset == 0) return shown;
    const auto reading = voq::ReadRange(port, range.reg.key, range.offset);
    if (!reading) {
        range.offset = 0;
        return shown;
    }
    shown.state = voq::StateName(reading->node.state);
    shown.stamp = voq::StampMicroseconds(reading->node.stamp);
    if (reading->node.state != 1) return shown;
    shown.value = voq::ValueText(range.coding, reading->value, std::numeric_limits<std::size_t>::max());
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

// One line a change: time, name, state, age, value, separated by tabs.
void PrintChanges(std::vector<Watched>& ranges, const std::vector<Shown>& readings)
{
    const std::int64_t now = voq::NowMicroseconds();
    const std::time_t seconds = now / 1000000;
    std::tm parts = {};
    char time[32];
    localtime_r(&seconds, &parts);
    std::strftime(time, sizeof time, "%H:%M:%S", &parts);
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        Watched& range = ranges[i];
        if (range.printed && range.shown.Same(readings[i])) continue;
        range.shown = readings[i];
        range.printed = true;
        std::printf("%s.%03d\t%s\t%s\t%s\t%s\n", time, static_cast<int>(now / 1000 % 1000), range.name.c_str(),
                    range.shown.state.c_str(), Age(range.shown, now).c_str(), range.shown.value.c_str());
    }
}

// The same lines over and over, cut to the terminal's width.
void Redraw(std::vector<Watched>& ranges, const std::vector<Shown>& readings)
{
    winsize window = {};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 1;
    const std::size_t columns = known ? window.ws_col - 1u : 79;
    const std::int64_t now = voq::NowMicroseconds();
    if (ranges[0].printed) std::printf("\x1b[%zuA", ranges.size());
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        char head[128];
        std::snprintf(head, sizeof head, "%-24.60s  %-14s  %8s  ", ranges[i].name.c_str(), readings[i].state.c_str(),
                      Age(readings[i], now).c_str());
        const std::string line = (head + readings[i].value).substr(0, columns);
        std::printf("\r%s\x1b[K\n", line.c_str());
        ranges[i].printed = true;
    }
}

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
                   std::vector<Watched>& ranges)
{
    bool served = true;
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    const auto limit = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(watch.forSeconds));
    const auto end = Clock::now() + limit;
    while (Stopped == 0) {
        std::vector<Shown> readings;
        for (Watched& range : ranges) {
            readings.push_back(served ? ReadShown(port, range) : Shown{.state = "no service"});
        }
        if (terminal) {
            Redraw(ranges, readings);
        } else {
            PrintChanges(ranges, readings);
        }
        if (std::fflush(stdout) != 0) break;
        if (AllCounted(ranges, watch.count)) break;
        if (watch.forSeconds > 0 && Clock::now() >= end) break;
        const auto next = Clock::now() + std::chrono::milliseconds(watch.intervalMs);
        served = Sleep(subscriptions, watch.forSeconds > 0 ? std::min(next, end) : next);
    }
}

}  // namespace

int Watch(const PortOptions& options, const WatchOptions& watch)
{
    const Target target = Resolve(options);
    std::vector<Watched> ranges = ResolveRanges(target, watch.what);
    const auto missing = [&](const Watched& range) { return ByteOrderMissing(target, range.reg); };
    if (std::any_of(ranges.begin(), ranges.end(), missing)) NoteByteOrder();
    CatchSignals();
    {
        Subscriptions subscriptions(target, ranges);
        subscriptions.Begin(options.numbers);
        ShowUntilDone(target.port, watch, subscriptions, ranges);
    }
    for (const Watched& range : ranges) {
        if (range.liveCount != 0) return ExitOk;
    }
    return ExitNegative;
}
