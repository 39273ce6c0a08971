// "voqctl status": does the service run, and how is its link? Main thread; only reads.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "client/bridge_state.h"
#include "client/clock.h"
#include "client/heartbeat.h"
#include "client/locked_file.h"
#include "client/port_status.h"
#include "client/troubles.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/progress.h"
#include "voq/rt_item.h"

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr std::chrono::seconds SlowLock{1};      // a lock that holds the service up for longer is told of
constexpr std::chrono::seconds LongestLock{10};  // then the process that holds it is named

// What a service that lives shows of itself.
struct Shown {
    voq::Statistics statistics;
    voq::Heartbeat heartbeat;
};

struct Counter {
    std::optional<std::uint32_t> first;
    bool moved = false;
    std::uint32_t last = 0;
};

// Reads the counter until it changes or the time is over.
void Watch(const Target& target, double seconds, Counter& counter)
{
    Progress progress("status: seconds of looking at the watchdog");
    const auto begin = Clock::now();
    const auto end = begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (counter.first && !counter.moved && Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const auto now = voq::ReadWatchdog(target.port, target.index);
        counter.moved = now && *now != *counter.first;
        if (counter.moved) counter.last = *now;
        const auto passed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
        progress.At(static_cast<std::size_t>(passed), static_cast<std::size_t>(std::ceil(seconds)));
    }
}

void PrintCounter(const Target& target, double seconds, Counter& counter)
{
    std::printf("watchdog    ");
    if (!counter.first) {
        std::printf("no counter in %s\n", Printable(target.port.Srw()).c_str());
        return;
    }
    std::printf("%u", *counter.first);
    std::fflush(stdout);
    Watch(target, seconds, counter);
    if (counter.moved) {
        std::printf(" -> %u, moving\n", counter.last);
    } else {
        std::printf(seconds > 0 ? ", not moving for %g s\n" : ", not watched\n", seconds);
    }
}

const char* FifoText(voq::FifoState state)
{
    return state == voq::FifoState::Read       ? "read by the service"
           : state == voq::FifoState::NoReader ? "no reader"
                                               : "missing";
}

std::string StationsText(const std::optional<std::vector<std::uint8_t>>& off)
{
    if (!off) return "unknown";
    std::string text = off->empty() ? "all on" : "off:";
    for (const std::uint8_t station : *off) text += " " + std::to_string(station);
    return text;
}

std::string MarkerText(bool there, std::int64_t since, const std::optional<Shown>& shown)
{
    if (!there) return "not set";
    std::string text = "set for " + voq::AgeText(voq::NowMicroseconds() - since);
    if (shown && since < shown->statistics.header.started) text += ", by an earlier run";
    return text;
}

void PrintStates(const char* name, const std::map<std::uint8_t, unsigned>& states, const char* more = "")
{
    std::printf("%-11s %u%s%s%s\n", name, voq::CountOf(states), states.empty() ? "" : ", ",
                voq::StatesText(states).c_str(), more);
}

void PrintRecords(const voq::PortStatus& status, const std::optional<Shown>& shown)
{
    if (!status.org) {
        std::printf("records     no org file\n");
        return;
    }
    PrintStates("records", status.states, status.org->badLink ? ", chain damaged" : "");
    if (!shown) return;
    const auto split = voq::SplitBySubscription(status, shown->statistics);
    PrintStates("subscribed", split->subscribed);
    PrintStates("others", split->others);
}

void Print(const voq::PortStatus& status, const std::optional<Shown>& shown)
{
    std::printf("timeout     %s\n", MarkerText(status.timeout, status.timeoutSince, shown).c_str());
    std::printf("comerror    %s\n", MarkerText(status.comerror, status.comerrorSince, shown).c_str());
    std::printf("guififo     %s\n", FifoText(status.gui));
    std::printf("mekfifo     %s\n", FifoText(status.mek));
    const std::string oldest = status.waiting == 0 ? "" : ", the oldest for " + voq::AgeText(status.oldestWaiting);
    std::printf("one-shots   %u write(s) and change(s) waiting%s\n", status.waiting, oldest.c_str());
    std::printf("stations    %s\n", StationsText(status.stationsOff).c_str());
    PrintRecords(status, shown);
}

// Nothing when the service that runs shows no statistics, or when none runs.
std::optional<Shown> LookAtService(const voq::PortDir& port, microseconds driverCallAtMost, microseconds lockAtMost)
{
    auto stats = voq::ReadStatistics(port.Stats());
    if (!stats || !voq::WriterLives(*stats)) return std::nullopt;
    const voq::Heartbeat heartbeat = voq::ReadHeartbeat(*stats, driverCallAtMost, lockAtMost);
    return Shown{std::move(*stats), heartbeat};
}

std::vector<voq::Trouble> TroublesOf(const std::optional<Shown>& shown, const voq::PortStatus& status)
{
    if (!shown) return {};
    return voq::Troubles(shown->statistics, shown->heartbeat, status.stationsOff.value_or(std::vector<std::uint8_t>{}),
                         voq::NowMicroseconds());
}

const char* DriverText(const std::optional<Shown>& shown)
{
    if (!shown) return "nothing known";
    return shown->statistics.port.driver != 0 ? "loaded" : "none";
}

void PrintService(const std::optional<Shown>& shown)
{
    const std::string loop = shown ? voq::HeartbeatText(shown->heartbeat) : "nothing known";
    std::printf("main loop   %s\n", Printable(loop).c_str());
}

bool Hangs(const std::optional<Shown>& shown)
{
    return shown && (shown->heartbeat.beat == voq::Beat::Driver || shown->heartbeat.beat == voq::Beat::Unknown);
}

const char* FifoWord(voq::FifoState state)
{
    return state == voq::FifoState::Read ? "read" : FifoText(state);
}

Cell StationsCell(const std::optional<std::vector<std::uint8_t>>& off)
{
    if (!off) return {};
    std::vector<Cell> stations;
    for (const std::uint8_t station : *off) stations.push_back(Cell::Number(station));
    return Cell::List(std::move(stations));
}

using States = std::map<std::uint8_t, unsigned>;

Cell StateCell(bool known, const States& states, std::uint8_t state)
{
    const auto found = states.find(state);
    return known ? Cell::Number(found == states.end() ? 0 : found->second) : Cell{};
}

// What came later stands behind the rest.
void AddDiagnosis(Row& row, const voq::PortStatus& status, const std::optional<Shown>& shown)
{
    const auto split = shown ? voq::SplitBySubscription(status, shown->statistics) : std::nullopt;
    const States subscribed = split ? split->subscribed : States{};
    const auto age = [](bool there, std::int64_t since) {
        return there ? Cell::Seconds(voq::NowMicroseconds() - since) : Cell{};
    };
    std::vector<Cell> failing, problems;
    for (const voq::Trouble& trouble : TroublesOf(shown, status)) {
        problems.push_back(Cell::Text(trouble.text));
        if (trouble.kind == voq::Trouble::Kind::Refused) continue;  // it answers
        for (const std::uint8_t station : trouble.stations) failing.push_back(Cell::Number(station));
    }
    const bool locked = shown && shown->heartbeat.beat == voq::Beat::Lock && shown->heartbeat.holder.pid != 0;
    row.emplace_back("timeout_age_s", age(status.timeout, status.timeoutSince));
    row.emplace_back("comerror_age_s", age(status.comerror, status.comerrorSince));
    row.emplace_back("driver", shown ? Cell::Flag(shown->statistics.port.driver != 0) : Cell{});
    row.emplace_back("subscribed", split ? Cell::Number(voq::CountOf(subscribed)) : Cell{});
    row.emplace_back("subscribed_never_read", StateCell(split.has_value(), subscribed, 0));
    row.emplace_back("subscribed_ok", StateCell(split.has_value(), subscribed, PLC_SUCCESS));
    row.emplace_back("subscribed_time_out", StateCell(split.has_value(), subscribed, PLC_TIMEOUT));
    row.emplace_back("subscribed_error", StateCell(split.has_value(), subscribed, PLC_ERROR));
    row.emplace_back("lock_holder", locked ? Cell::Number(shown->heartbeat.holder.pid) : Cell{});
    row.emplace_back("stations_failing", shown ? Cell::List(std::move(failing)) : Cell{});
    row.emplace_back("problems", shown ? Cell::List(std::move(problems)) : Cell{});
}

Row StatusRow(const Target& target, const voq::PortStatus& status, const Counter& counter,
              const std::optional<Shown>& shown, bool runs)
{
    const bool org = status.org.has_value();
    const auto records = [&](std::uint8_t state) { return StateCell(org, status.states, state); };
    Row row;
    row.emplace_back("time", Cell::Text(IsoTime(voq::NowMicroseconds())));
    row.emplace_back("link", Cell::Text(std::string(voq::LinkName(target.port.link))));
    row.emplace_back("port", Cell::Number(target.port.number));
    row.emplace_back("running", Cell::Flag(runs));
    row.emplace_back("timeout", Cell::Flag(status.timeout));
    row.emplace_back("comerror", Cell::Flag(status.comerror));
    row.emplace_back("guififo", Cell::Text(FifoWord(status.gui)));
    row.emplace_back("mekfifo", Cell::Text(FifoWord(status.mek)));
    row.emplace_back("waiting", Cell::Number(status.waiting));
    row.emplace_back("oldest_waiting_s", status.waiting == 0 ? Cell{} : Cell::Seconds(status.oldestWaiting));
    row.emplace_back("stations_off", StationsCell(status.stationsOff));
    row.emplace_back("records", org ? Cell::Number(static_cast<std::int64_t>(status.org->records.size())) : Cell{});
    row.emplace_back("never_read", records(0));
    row.emplace_back("ok", records(PLC_SUCCESS));
    row.emplace_back("time_out", records(PLC_TIMEOUT));
    row.emplace_back("error", records(PLC_ERROR));
    row.emplace_back("chain_damaged", org ? Cell::Flag(status.org->badLink.has_value()) : Cell{});
    row.emplace_back("watchdog", counter.first ? Cell::Number(counter.moved ? counter.last : *counter.first) : Cell{});
    row.emplace_back("watchdog_moved", Cell::Flag(counter.moved));
    row.emplace_back("main_loop", shown ? Cell::Text(voq::HeartbeatText(shown->heartbeat)) : Cell{});
    row.emplace_back("directory", Cell::Text(target.port.Dir()));
    AddDiagnosis(row, status, shown);
    return row;
}

// A bridge upstream, where one is or was: it writes its state once a second.
void PrintUpstream(const Target& target)
{
    constexpr std::int64_t second = 1000000, late = 10 * second;
    auto state = voq::ReadBridgeState(target.port.user + "/" + voq::MqttStateFile);
    if (target.port.user.empty() || state.empty()) return;
    const auto age = [&](const char* name) {
        return voq::NowMicroseconds() - std::strtoll(state[name].c_str(), nullptr, 10) * second;
    };
    std::string text = (state["state"] == "away" ? "no connection to " : "connected to ") + state["broker"] + " for " +
                       voq::AgeText(age("since"));
    if (age("updated") > late)
        text = "voq-mqtt does not run, its last word is " + voq::AgeText(age("updated")) + " old";
    text += ", " + state["messages_sent"] + " message(s) sent, " + state["spooled"] + " value(s) wait, " +
            state["spool_dropped"] + " dropped";
    std::printf("upstream    %s\n", Printable(text).c_str());
    if (!state["held_up"].empty()) std::printf("upstream    %s\n", Printable(state["held_up"]).c_str());
    if (state["last_error"].empty()) return;
    std::printf("upstream    last error %s ago: %s\n", voq::AgeText(age("last_error_at")).c_str(),
                Printable(state["last_error"]).c_str());
}

}  // namespace

int Status(const PortOptions& options, double waitSeconds, const OutputOptions& output)
{
    const bool text = output.rows == RowForm::None;
    const Target target = Resolve(options);
    if (!std::filesystem::exists(target.port.Dir())) throw voq::Error(target.port.Dir() + ": no such directory");
    // First, and shown at once: what follows may wait for the lock that the service waits for.
    const auto shown = LookAtService(target.port, voq::DriverCallAtMost, SlowLock);
    if (text) {
        std::printf("directory   %s\n", Printable(target.port.Dir()).c_str());
        PrintService(shown);
        std::printf("driver      %s\n", DriverText(shown));
        std::fflush(stdout);
    }
    const voq::LockPatience patience(LongestLock);
    const voq::PortStatus status = voq::ReadPortStatus(target.port);
    if (text) Print(status, shown);
    Counter counter{voq::ReadWatchdog(target.port, target.index)};
    if (text) PrintCounter(target, waitSeconds, counter);
    if (!text) Watch(target, waitSeconds, counter);
    const bool read = status.gui == voq::FifoState::Read || status.mek == voq::FifoState::Read;
    const bool unread = status.gui == voq::FifoState::NoReader && status.mek == voq::FifoState::NoReader;
    // The counter may be another port's.
    const bool doubtful = counter.moved && unread && !target.indexKnown;
    const bool runs = (waitSeconds > 0 ? counter.moved && !doubtful : read) && !Hangs(shown);
    if (!text) {
        RowWriter(output.rows).Write(StatusRow(target, status, counter, shown, runs));
        return runs ? ExitOk : ExitNegative;
    }
    PrintUpstream(target);
    for (const voq::Trouble& trouble : TroublesOf(shown, status)) {
        std::printf("problem     %s\n", Printable(trouble.text).c_str());
    }
    std::printf("service     %s%s\n", runs ? "running" : "not running",
                doubtful ? ": nobody reads its FIFOs; is the counter that of --index 0?" : "");
    return runs ? ExitOk : ExitNegative;
}

int StatusOfHeartbeat(const PortOptions& options, double driverSeconds)
{
    const auto atMost = std::chrono::duration_cast<microseconds>(std::chrono::duration<double>(driverSeconds));
    const auto shown = LookAtService(Resolve(options).port, atMost, voq::LockAtMost);
    if (!shown || shown->heartbeat.beat == voq::Beat::Beats) {
        PrintService(shown);
        return ExitOk;
    }
    std::fprintf(stderr, "voqctl: main loop: %s\n", Printable(voq::HeartbeatText(shown->heartbeat)).c_str());
    return Hangs(shown) ? ExitNegative : ExitLocked;
}
