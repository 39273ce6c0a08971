// Looks at a port's files. One lock at a time; may wait for the service.
#include "client/port_status.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "client/clock.h"
#include "client/fifo.h"
#include "client/locked_file.h"
#include "client/station_off.h"

namespace voq
{

namespace
{

bool Exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

// When the service made a marker.
std::int64_t Since(const std::string& path)
{
    struct stat file = {};
    if (stat(path.c_str(), &file) != 0) return 0;
    return std::int64_t{file.st_mtim.tv_sec} * 1000000 + file.st_mtim.tv_nsec / 1000;
}

FifoState LookAtFifo(const std::string& path)
{
    if (!Exists(path)) return FifoState::Missing;
    return FifoHasReader(path) ? FifoState::Read : FifoState::NoReader;
}

void CountWaiting(const std::string& directory, PortStatus& status)
{
    std::error_code error;
    std::int64_t since = NowMicroseconds();
    for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
        if (!at->path().filename().string().starts_with("rtData")) continue;
        const std::int64_t written = Since(at->path());
        if (written == 0) continue;
        ++status.waiting;
        since = std::min(since, written);
    }
    status.oldestWaiting = NowMicroseconds() - since;
}

}  // namespace

PortStatus ReadPortMarkers(const PortDir& port)
{
    PortStatus status;
    status.directory = Exists(port.Dir());
    if (!status.directory) return status;
    status.timeoutSince = Since(port.Timeout());
    status.comerrorSince = Since(port.ComError());
    status.timeout = status.timeoutSince != 0;
    status.comerror = status.comerrorSince != 0;
    status.gui = LookAtFifo(port.GuiFifo());
    status.mek = LookAtFifo(port.MekFifo());
    CountWaiting(port.Dir(), status);
    try {
        status.stationsOff = StationsOff(port.number);
    } catch (const Error&) {
        // The panel's own file: what cannot be read there says nothing about the service.
    }
    return status;
}

PortStatus ReadPortStatus(const PortDir& port)
{
    PortStatus status = ReadPortMarkers(port);
    if (!status.directory) return status;
    if (const auto bytes = ReadLocked(port.Org())) {
        status.org = WalkChain(OrgImage{*bytes});
        for (const OrgRecord& record : status.org->records) ++status.states[record.node.state];
    }
    return status;
}

std::optional<std::uint32_t> ReadWatchdog(const PortDir& port, std::uint16_t index)
{
    const auto bytes = ReadLockedRange(port.Srw(), WatchdogOffset(index), sizeof(std::uint32_t));
    return bytes ? RecordAt<std::uint32_t>(*bytes, 0) : std::nullopt;
}

std::string StatesText(const std::map<std::uint8_t, unsigned>& states)
{
    std::string text;
    for (const auto& [state, count] : states) {
        text += (text.empty() ? "" : ", ") + StateName(state) + " " + std::to_string(count);
    }
    return text;
}

std::optional<SplitStates> SplitBySubscription(const PortStatus& status, const Statistics& statistics)
{
    if (!status.org) return std::nullopt;
    const std::set<std::uint32_t> subscribed = SubscribedRecords(statistics);
    SplitStates split;
    for (const OrgRecord& record : status.org->records) {
        ++(subscribed.contains(record.offset) ? split.subscribed : split.others)[record.node.state];
    }
    return split;
}

unsigned CountOf(const std::map<std::uint8_t, unsigned>& states)
{
    unsigned all = 0;
    for (const auto& [state, count] : states) all += count;
    return all;
}

}  // namespace voq
