// "voqctl status": does the service run, and how is its link? Main thread; only reads.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <thread>

#include "client/database.h"
#include "client/frame.h"
#include "client/locked_file.h"
#include "tools/commands.h"

namespace
{

using Clock = std::chrono::steady_clock;

std::optional<std::uint32_t> ReadWatchdog(const Target& target)
{
    const auto bytes = voq::ReadLockedRange(target.port.Srw(), voq::WatchdogOffset(target.index), 4);
    if (!bytes) return std::nullopt;
    return voq::RecordAt<std::uint32_t>(*bytes, 0);
}

// Reads the counter until it changes or the time is over. True when it moved.
bool WatchdogMoves(const Target& target, double seconds)
{
    const auto first = ReadWatchdog(target);
    std::printf("watchdog    ");
    if (!first) {
        std::printf("no counter in %s\n", target.port.Srw().c_str());
        return false;
    }
    std::printf("%u", *first);
    std::fflush(stdout);
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const auto now = ReadWatchdog(target);
        if (now && *now != *first) {
            std::printf(" -> %u, moving\n", *now);
            return true;
        }
    }
    std::printf(seconds > 0 ? ", not moving for %g s\n" : ", not watched\n", seconds);
    return false;
}

void PrintRecords(const voq::PortDir& port)
{
    const auto bytes = voq::ReadLocked(port.Org());
    if (!bytes) {
        std::printf("records     no org file\n");
        return;
    }
    const voq::OrgFile org{*bytes};
    std::map<std::uint8_t, unsigned> states;
    const voq::Chain chain = voq::WalkChain(org);
    for (const voq::OrgRecord& record : chain.records) ++states[record.node.state];
    std::printf("records     %zu", chain.records.size());
    for (const auto& [state, count] : states) std::printf(", %s %u", voq::StateName(state).c_str(), count);
    std::printf(chain.badLink ? ", chain damaged\n" : "\n");
}

bool PrintFifo(const char* label, const std::string& path)
{
    const bool present = access(path.c_str(), F_OK) == 0;
    const bool reader = present && voq::FifoHasReader(path);
    std::printf("%s%s\n", label, reader ? "read by the service" : present ? "no reader" : "missing");
    return reader;
}

}  // namespace

int Status(const PortOptions& options, double waitSeconds)
{
    const Target target = Resolve(options);
    const voq::PortDir& port = target.port;
    if (access(port.Dir().c_str(), F_OK) != 0) throw voq::Error(port.Dir() + ": no such directory");
    const auto marker = [](const std::string& path) { return access(path.c_str(), F_OK) == 0 ? "set" : "not set"; };
    std::printf("directory   %s\n", port.Dir().c_str());
    std::printf("timeout     %s\n", marker(port.Timeout()));
    std::printf("comerror    %s\n", marker(port.ComError()));
    const bool gui = PrintFifo("guififo     ", port.GuiFifo());
    const bool mek = PrintFifo("mekfifo     ", port.MekFifo());
    PrintRecords(port);
    const bool moves = WatchdogMoves(target, waitSeconds);
    const bool runs = waitSeconds > 0 ? moves : gui || mek;
    std::printf("service     %s\n", runs ? "running" : "not running");
    return runs ? ExitOk : ExitNegative;
}
