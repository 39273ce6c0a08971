// "voqctl refresh": every range that the port knows, read once. Main thread; waits for the service, never without
// limit.
//
// A range counts as read when its record has another stamp than at the beginning, whoever made the service read it.
// What another client has logged on is only waited for: the service keeps one entry for all subscribers of a range and
// ends it by the number that made it, so that a log-on beside that one would stay behind its log-off.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <map>
#include <set>

#include "client/database.h"
#include "client/locked_file.h"
#include "client/port_status.h"
#include "client/station_off.h"
#include "client/stats.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/port.h"
#include "tools/printable.h"
#include "tools/progress.h"
#include "tools/stop.h"
#include "voq/rt_item.h"

namespace
{

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr std::size_t AtOnce = 200;       // log-ons: other clients find room in the list
constexpr milliseconds BetweenLooks{50};  // at the records; a signal is seen then
constexpr milliseconds LongestLock{1000};
constexpr std::size_t MostNamed = 20;  // ranges that were not read

struct Known {
    std::uint32_t offset = 0;
    OrgNode node = {};  // as it was at first, then as it was read
    voq::Range range = {};
    bool done = false;
    bool ours = false;  // logged on
};

std::vector<voq::OrgRecord> RecordsOf(const voq::PortDir& port)
{
    const auto bytes = voq::ReadLocked(port.Org());
    if (!bytes) throw voq::Error(port.Org() + ": no such file");
    return voq::WalkChain(voq::OrgImage{*bytes}).records;
}

// The records that clients have subscribed now.
std::set<std::uint32_t> SubscribedNow(const voq::PortDir& port)
{
    const auto statistics = voq::ReadStatistics(port.Stats());
    if (!statistics) throw voq::Error(port.Stats() + ": no statistics: what have other clients subscribed?");
    return voq::SubscribedRecords(*statistics);
}

// The records are looked at here, all of them; the library need not.
voq::PortSettings OnlyEvents()
{
    voq::PortSettings settings;
    settings.interval = std::chrono::hours(1);
    return settings;
}

class Refreshing
{
public:
    Refreshing(const Target& target, const PortOptions& options)
        : directory_(target.port), port_(OpenPort(target, options, OnlyEvents()))
    {
        const std::vector<std::uint8_t> off = voq::StationsOff(target.port.number);
        for (const voq::OrgRecord& record : RecordsOf(target.port)) {
            if (std::find(off.begin(), off.end(), record.node.key.plcno) != off.end()) {
                ++switchedOff_;
            } else {
                known_[record.offset] = {record.offset, record.node};
                waiting_.push_back(record.offset);
            }
        }
    }

    // Until all are read, the time is over, or a signal came. Throws ServiceNotRunning when the service is away or
    // ends.
    void Run(Clock::time_point until)
    {
        Progress progress("refresh: ranges");
        while (done_ < known_.size() && Stopped == 0 && Clock::now() < until) {
            LogOn();
            Dispatch(std::min(until, Clock::now() + BetweenLooks));
            Look();
            progress.At(done_, known_.size());
        }
    }

    std::size_t Left() const { return known_.size() - done_; }
    std::size_t SwitchedOff() const { return switchedOff_; }
    const std::map<std::uint32_t, Known>& Ranges() const { return known_; }

private:
    // A new lot when half of the last one is read: what lies side by side is then read together.
    void LogOn()
    {
        if (waiting_.empty() || port_->Subscribed() > AtOnce / 2) return;
        const auto subscribed = SubscribedNow(directory_);
        const std::size_t room = StatsRanges - std::min<std::size_t>(subscribed.size(), StatsRanges);
        for (std::size_t n = 0; n < room && !waiting_.empty() && port_->Subscribed() < AtOnce; ++n) {
            Known& known = known_.at(waiting_.front());
            waiting_.pop_front();
            if (known.done || subscribed.contains(known.offset)) continue;
            known.range.key = known.node.key;
            port_->Subscribe(known.range);
            known.ours = true;
        }
    }

    void Dispatch(Clock::time_point until)
    {
        do {
            Await(*port_, until);
            if (!port_->Running()) throw voq::ServiceNotRunning(directory_.Dir() + ": service not running");
            while (port_->NextEvent()) {
            }
        } while (Stopped == 0 && Clock::now() < until);
    }

    void Look()
    {
        for (const voq::OrgRecord& record : RecordsOf(directory_)) {
            const auto found = known_.find(record.offset);
            if (found == known_.end() || found->second.done) continue;
            Known& known = found->second;
            if (voq::StampMicroseconds(record.node.stamp) == voq::StampMicroseconds(known.node.stamp)) continue;
            known.node = record.node;
            known.done = true;
            ++done_;
            if (known.ours) port_->Unsubscribe(known.range);
        }
    }

    voq::PortDir directory_;
    std::map<std::uint32_t, Known> known_;  // by the place of the record
    std::deque<std::uint32_t> waiting_;     // to be logged on
    std::size_t done_ = 0;
    std::size_t switchedOff_ = 0;
    std::unique_ptr<voq::Port> port_;  // goes before the ranges that it follows, and logs them off
};

int StatusOf(const Known& known)
{
    if (!known.done) return ExitNoAnswer;
    return known.node.state == PLC_SUCCESS ? ExitOk : known.node.state == PLC_TIMEOUT ? ExitPlcTimeout : ExitComError;
}

// What was not read, by name; the status of the first of it.
int Report(const Target& target, const Refreshing& refreshing)
{
    std::map<std::uint8_t, unsigned> states;
    std::size_t failed = 0;
    int status = ExitOk;
    for (const auto& [offset, known] : refreshing.Ranges()) {
        if (known.done) ++states[known.node.state];
        const int its = StatusOf(known);
        if (its == ExitOk) continue;
        if (status == ExitOk) status = its;
        if (++failed > MostNamed) continue;
        Complain(SelectedOf(target, known.node.key).name + ": " +
                 (known.done ? voq::StateName(known.node.state) : "not read in time"));
    }
    if (failed > MostNamed) Complain("and " + std::to_string(failed - MostNamed) + " more");
    std::printf("%zu range(s)%s%s", refreshing.Ranges().size(), states.empty() ? "" : ": ",
                voq::StatesText(states).c_str());
    if (refreshing.Left() != 0) std::printf(", not read %zu", refreshing.Left());
    if (refreshing.SwitchedOff() != 0) {
        std::printf("; %zu more of stations that are switched off", refreshing.SwitchedOff());
    }
    std::printf("\n");
    return status;
}

}  // namespace

int Refresh(const PortOptions& options, double timeoutSeconds)
{
    const Target target = Resolve(options);
    const auto until =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeoutSeconds));
    CatchSignals();
    const voq::LockPatience patience(LongestLock);
    Refreshing refreshing(target, options);
    try {
        refreshing.Run(until);
    } catch (const voq::ServiceNotRunning& error) {
        Complain(error.what());
        return ExitNotRunning;
    }
    if (Stopped != 0) return ExitSignalBase + Stopped;
    const int status = Report(target, refreshing);
    if (refreshing.Left() == 0) return status;
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g", timeoutSeconds);
    Complain(std::to_string(refreshing.Left()) + " range(s) were not read within " + seconds +
             " s (--timeout); voqctl status says what holds the service up");
    return ExitNoAnswer;
}
