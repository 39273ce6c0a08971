// Looks at a port. A value is read behind its record: it can be a little newer than its stamp, never older.
#include "web/port_view.h"

#include <algorithm>
#include <cstring>

#include "client/clock.h"
#include "client/locked_file.h"
#include "client/value_text.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace voq::web
{

namespace
{

constexpr std::int64_t Second = 1000000;

bool Unchanged(const PortView& port, const OrgRecord& record)
{
    const std::uint32_t number = OrgRecordNumber(record.offset);
    const RangeView* known = number < port.byRecord.size() ? port.byRecord[number] : nullptr;
    return known != nullptr && std::memcmp(&known->node, &record.node, sizeof(OrgNode)) == 0;
}

void ReadChanged(const PortView& port, Gather& gather, PortLook& look)
{
    if (!look.status.org) return;
    gather.Clear();
    for (const OrgRecord& record : look.status.org->records) {
        if (Unchanged(port, record)) continue;
        look.changed.push_back(record);
        const bool good = record.node.state == PLC_SUCCESS;
        gather.Add(record.node.dataoffset, good ? GetRegBuffLen(&record.node.key) : 0);
    }
    gather.Read(port.dir.Data());
    for (std::size_t i = 0; i < look.changed.size(); ++i) {
        const auto piece = gather[i];
        look.values.emplace_back(piece.begin(), piece.end());
    }
}

}  // namespace

PortLook LookAt(const PortView& port, Gather& gather)
{
    PortLook look;
    try {
        // First what waits for no lock: a service that stands still may hold any of them.
        look.status = ReadPortMarkers(port.dir);
        look.statistics = ReadStatistics(port.dir.Stats());
        if (look.statistics && WriterLives(*look.statistics)) look.heartbeat = ReadHeartbeat(*look.statistics);
        look.watchdog = ReadWatchdog(port.dir, port.index);
        look.status = ReadPortStatus(port.dir);
        ReadChanged(port, gather, look);
        if (!look.status.directory) look.error = port.dir.Dir() + ": no such directory";
    } catch (const std::exception& error) {
        look.error = error.what();
        look.changed.clear();
        look.values.clear();
    }
    return look;
}

// The counter is that of a thread of its own, which stands still with the whole process; the heartbeat is the main
// loop's.
bool PortView::Counts() const
{
    return counterSince == 0 || NowMicroseconds() - counterSince <= (WatchdogSeconds + 2) * Second;
}

Service PortView::State() const
{
    if (status.mek != FifoState::Read) return Service::Away;
    return (heartbeat && heartbeat->beat != Beat::Beats) || !Counts() ? Service::Hangs : Service::Runs;
}

std::string PortView::StateText() const
{
    switch (State()) {
        case Service::Away:
            return status.directory ? "no service runs on the port" : "there is no port directory " + dir.Dir();
        case Service::Hangs:
            return heartbeat && heartbeat->beat != Beat::Beats ? HeartbeatText(*heartbeat)
                                                               : "the service's watchdog counter stands still";
        default:
            return error;
    }
}

bool PortView::StationOff(std::uint8_t station) const
{
    return status.stationsOff &&
           std::find(status.stationsOff->begin(), status.stationsOff->end(), station) != status.stationsOff->end();
}

}  // namespace voq::web
