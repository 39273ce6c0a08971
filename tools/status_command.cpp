// "voqctl status": does the service run, and how is its link? Main thread; only reads.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "client/heartbeat.h"
#include "client/port_status.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/printable.h"

namespace
{

using Clock = std::chrono::steady_clock;

// Reads the counter until it changes or the time is over. True when it moved.
bool WatchdogMoves(const Target& target, double seconds)
{
    const auto first = voq::ReadWatchdog(target.port, target.index);
    std::printf("watchdog    ");
    if (!first) {
        std::printf("no counter in %s\n", Printable(target.port.Srw()).c_str());
        return false;
    }
    std::printf("%u", *first);
    std::fflush(stdout);
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const auto now = voq::ReadWatchdog(target.port, target.index);
        if (now && *now != *first) {
            std::printf(" -> %u, moving\n", *now);
            return true;
        }
    }
    std::printf(seconds > 0 ? ", not moving for %g s\n" : ", not watched\n", seconds);
    return false;
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

}  // namespace

int Status(const PortOptions& options, double waitSeconds)
{
    const Target target = Resolve(options);
    if (!std::filesystem::exists(target.port.Dir())) throw voq::Error(target.port.Dir() + ": no such directory");
    // First, and shown at once: what follows may wait for the lock that the service waits for.
    const auto heartbeat = LookAtHeartbeat(target.port, voq::DriverCallAtMost);
    std::printf("directory   %s\n", Printable(target.port.Dir()).c_str());
    PrintHeartbeat(heartbeat);
    std::fflush(stdout);
    const voq::PortStatus status = voq::ReadPortStatus(target.port);
    Print(status);
    const bool moves = WatchdogMoves(target, waitSeconds);
    const bool read = status.gui == voq::FifoState::Read || status.mek == voq::FifoState::Read;
    const bool unread = status.gui == voq::FifoState::NoReader && status.mek == voq::FifoState::NoReader;
    // The counter may be another port's.
    const bool doubtful = moves && unread && !target.indexKnown;
    const bool runs = (waitSeconds > 0 ? moves && !doubtful : read) && !Hangs(heartbeat);
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
