// Records of stations; no I/O, no clock of its own.
#include "stations.h"

#include <algorithm>
#include <iterator>

namespace
{

bool Lost(const Station& station)
{
    return station.timeouts >= LostAfter;
}

bool OthersAnswer(const StationTable& table, const Station& but, std::uint64_t nowMs)
{
    return std::any_of(std::begin(table.stations), std::end(table.stations), [&](const Station& station) {
        return &station != &but && !Lost(station) && station.answerMs != 0 && nowMs - station.answerMs < AnswersForMs;
    });
}

void PutOff(StationTable& table, Station& station, std::uint64_t askedMs, std::uint64_t nowMs)
{
    const bool others = OthersAnswer(table, station, nowMs);
    const std::uint32_t longest = others ? LastProbeMs : AloneProbeMs;
    station.probeMs = station.probeMs == 0 ? FirstProbeMs : std::min(2 * station.probeMs, longest);
    station.nextProbeMs = nowMs + station.probeMs;
    station.probes++;
    table.restUntilMs = others ? nowMs + RestAfterProbe * (nowMs - askedMs) : 0;
}

}  // namespace

bool MayAsk(const StationTable& table, std::uint8_t station, std::uint64_t nowMs)
{
    const Station& record = table.stations[station];
    return !Lost(record) || (nowMs >= record.nextProbeMs && nowMs >= table.restUntilMs);
}

std::uint32_t AnswerLimitMs(const StationTable& table, std::uint8_t station, std::uint32_t timeoutMs)
{
    const Station& record = table.stations[station];
    if (!Lost(record) || record.usual == 0 || record.probes % FullProbeEvery == 0) return timeoutMs;
    return std::min(timeoutMs, std::max(LeastWaitMs, UsualAnswers * record.usual / 8));
}

void NoteAnswer(StationTable& table, std::uint8_t station, std::uint64_t askedMs, std::uint64_t nowMs)
{
    Station& record = table.stations[station];
    const auto took = static_cast<std::uint32_t>(std::max<std::uint64_t>(nowMs - askedMs, 1));
    record.usual = record.usual == 0 ? 8 * took : record.usual - record.usual / 8 + took;
    record.answerMs = nowMs;
    record.timeouts = 0;
    record.probes = 0;
    record.probeMs = 0;
}

void NoteTimeout(StationTable& table, std::uint8_t station, std::uint64_t askedMs, std::uint64_t nowMs)
{
    Station& record = table.stations[station];
    record.timeoutMs = nowMs;
    if (!Lost(record)) record.timeouts++;
    if (Lost(record)) PutOff(table, record, askedMs, nowMs);
}

void NoteFailure(StationTable& table, std::uint8_t station, std::uint64_t askedMs, std::uint64_t nowMs)
{
    if (Lost(table.stations[station])) PutOff(table, table.stations[station], askedMs, nowMs);
}

void ForgetDevices(StationTable& table)
{
    for (Station& station : table.stations) {
        station.nextProbeMs = 0;
        station.probeMs = 0;
        station.usual = 0;
        station.oneAsMany[0] = station.oneAsMany[1] = false;
    }
    table.restUntilMs = 0;
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
