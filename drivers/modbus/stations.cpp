// Records of lost stations; no I/O, no clock of its own.
#include "stations.h"

#include <algorithm>

namespace
{

bool Lost(const Station& station)
{
    return station.timeouts >= LostAfter;
}

void PutOff(Station& station, std::uint64_t nowMs)
{
    station.probeMs = station.probeMs == 0 ? FirstProbeMs : std::min(2 * station.probeMs, LastProbeMs);
    station.nextProbeMs = nowMs + station.probeMs;
}

}  // namespace

bool MayAsk(const StationTable& table, std::uint8_t station, std::uint64_t nowMs)
{
    const Station& record = table.stations[station];
    return !Lost(record) || nowMs >= record.nextProbeMs;
}

void NoteAnswer(StationTable& table, std::uint8_t station)
{
    table.stations[station].timeouts = 0;
    table.stations[station].probeMs = 0;
}

void NoteTimeout(StationTable& table, std::uint8_t station, std::uint64_t nowMs)
{
    Station& record = table.stations[station];
    record.timeoutMs = nowMs;
    if (!Lost(record)) record.timeouts++;
    if (Lost(record)) PutOff(record, nowMs);
}

void NoteFailure(StationTable& table, std::uint8_t station, std::uint64_t nowMs)
{
    if (Lost(table.stations[station])) PutOff(table.stations[station], nowMs);
}

void ProbeAll(StationTable& table)
{
    for (Station& station : table.stations) {
        station.nextProbeMs = 0;
        station.probeMs = 0;
    }
}

Notice TakeNotice(StationTable& table, std::uint8_t station, std::uint64_t nowMs)
{
    Station& record = table.stations[station];
    if (record.announcedLost == Lost(record)) return Notice::None;
    if (record.noticeMs != 0 && nowMs - record.noticeMs < NoticeEveryMs) return Notice::None;
    record.announcedLost = Lost(record);
    record.noticeMs = nowMs;
    return record.announcedLost ? Notice::Lost : Notice::Found;
}
