// "voqctl status": does the service run, and how is its link? Main thread; only reads.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "client/clock.h"
#include "client/heartbeat.h"
#include "client/port_status.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/progress.h"
#include "voq/rt_item.h"

namespace
{

using Clock = std::chrono::steady_clock;

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

void Print(const voq::PortStatus& status)
{
    std::printf("timeout     %s\n", status.timeout ? "set" : "not set");
    std::printf("comerror    %s\n", status.comerror ? "set" : "not set");
    std::printf("guififo     %s\n", FifoText(status.gui));
    std::printf("mekfifo     %s\n", FifoText(status.mek));
    const std::string oldest = status.waiting == 0 ? "" : ", the oldest for " + voq::AgeText(status.oldestWaiting);
    std::printf("one-shots   %u write(s) and change(s) waiting%s\n", status.waiting, oldest.c_str());
    std::printf("stations    %s", StationsText(status.stationsOff).c_str());
    if (!status.org) {
        std::printf("\nrecords     no org file\n");
        return;
    }
    std::printf("\nrecords     %zu%s%s%s\n", status.org->records.size(), status.states.empty() ? "" : ", ",
                voq::StatesText(status).c_str(), status.org->badLink ? ", chain damaged" : "");
}

// Nothing when the service that runs shows no statistics, or when none runs.
std::optional<voq::Heartbeat> LookAtHeartbeat(const voq::PortDir& port, std::chrono::microseconds driverCallAtMost)
{
    const auto stats = voq::ReadStatistics(port.Stats());
    if (!stats || !voq::WriterLives(*stats)) return std::nullopt;
    return voq::ReadHeartbeat(*stats, driverCallAtMost);
}

void PrintHeartbeat(const std::optional<voq::Heartbeat>& heartbeat)
{
    std::printf("main loop   %s\n", heartbeat ? Printable(voq::HeartbeatText(*heartbeat)).c_str() : "nothing known");
}

bool Hangs(const std::optional<voq::Heartbeat>& heartbeat)
{
    return heartbeat && (heartbeat->beat == voq::Beat::Driver || heartbeat->beat == voq::Beat::Unknown);
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

Row StatusRow(const Target& target, const voq::PortStatus& status, const Counter& counter,
              const std::optional<voq::Heartbeat>& heartbeat, bool runs)
{
    const bool org = status.org.has_value();
    const auto records = [&](std::uint8_t state) {
        const auto found = status.states.find(state);
        if (!org) return Cell{};
        return Cell::Number(found == status.states.end() ? 0 : found->second);
    };
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
    row.emplace_back("main_loop", heartbeat ? Cell::Text(voq::HeartbeatText(*heartbeat)) : Cell{});
    row.emplace_back("directory", Cell::Text(target.port.Dir()));
    return row;
}

}  // namespace

int Status(const PortOptions& options, double waitSeconds, const OutputOptions& output)
{
    const bool text = output.rows == RowForm::None;
    const Target target = Resolve(options);
    if (!std::filesystem::exists(target.port.Dir())) throw voq::Error(target.port.Dir() + ": no such directory");
    // First, and shown at once: what follows may wait for the lock that the service waits for.
    const auto heartbeat = LookAtHeartbeat(target.port, voq::DriverCallAtMost);
    if (text) {
        std::printf("directory   %s\n", Printable(target.port.Dir()).c_str());
        PrintHeartbeat(heartbeat);
        std::fflush(stdout);
    }
    const voq::PortStatus status = voq::ReadPortStatus(target.port);
    if (text) Print(status);
    Counter counter{voq::ReadWatchdog(target.port, target.index)};
    if (text) PrintCounter(target, waitSeconds, counter);
    if (!text) Watch(target, waitSeconds, counter);
    const bool read = status.gui == voq::FifoState::Read || status.mek == voq::FifoState::Read;
    const bool unread = status.gui == voq::FifoState::NoReader && status.mek == voq::FifoState::NoReader;
    // The counter may be another port's.
    const bool doubtful = counter.moved && unread && !target.indexKnown;
    const bool runs = (waitSeconds > 0 ? counter.moved && !doubtful : read) && !Hangs(heartbeat);
    if (!text) {
        RowWriter(output.rows).Write(StatusRow(target, status, counter, heartbeat, runs));
        return runs ? ExitOk : ExitNegative;
    }
    std::printf("service     %s%s\n", runs ? "running" : "not running",
                doubtful ? ": nobody reads its FIFOs; is the counter that of --index 0?" : "");
    return runs ? ExitOk : ExitNegative;
}

int StatusOfHeartbeat(const PortOptions& options, double driverSeconds)
{
    const auto atMost =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::duration<double>(driverSeconds));
    const auto heartbeat = LookAtHeartbeat(Resolve(options).port, atMost);
    if (!heartbeat || heartbeat->beat == voq::Beat::Beats) {
        PrintHeartbeat(heartbeat);
        return ExitOk;
    }
    std::fprintf(stderr, "voqctl: main loop: %s\n", Printable(voq::HeartbeatText(*heartbeat)).c_str());
    return Hangs(heartbeat) ? ExitNegative : ExitLocked;
}
