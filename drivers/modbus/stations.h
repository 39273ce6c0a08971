// Which stations are lost, so that one that is switched off does not hold up the others: after LostAfter time-outs in a
// row a station is asked only now and then, at growing intervals, until it answers. Pure functions; the caller hands in
// the clock.
#pragma once

#include <cstdint>

inline constexpr unsigned LostAfter = 3;
inline constexpr std::uint32_t FirstProbeMs = 250;  // from the loss, doubled by every probe that fails
inline constexpr std::uint32_t LastProbeMs = 8000;  // the longest interval
inline constexpr std::uint64_t NoticeEveryMs = 10000;

// All zero: never asked, taken for alive.
struct Station {
    std::uint8_t timeouts;  // in a row, LostAfter at most; lost with the last one
    bool announcedLost;     // what the log says of it
    std::uint32_t probeMs;  // interval between the last probe and the next
    std::uint64_t nextProbeMs;
    std::uint64_t timeoutMs;  // when the last time-out was
    std::uint64_t noticeMs;   // of the last message about it, 0 before the first
};

struct StationTable {
    Station stations[256];
};

enum class Notice { None, Lost, Found };

// Whether the station is to be asked now; if not, the answer is a time-out.
[[nodiscard]] bool MayAsk(const StationTable& table, std::uint8_t station, std::uint64_t nowMs);

// What came of asking it. An answer is any that it gave, a refusal too. NoteFailure is for everything that tells
// nothing about the station itself; it only puts off the next probe of a lost one.
void NoteAnswer(StationTable& table, std::uint8_t station);
void NoteTimeout(StationTable& table, std::uint8_t station, std::uint64_t nowMs);
void NoteFailure(StationTable& table, std::uint8_t station, std::uint64_t nowMs);

// After a change of the parameters: every lost station is asked at its next turn.
void ProbeAll(StationTable& table);

// The message that is due about the station: one in ten seconds at most, and the last one always says how it stands.
[[nodiscard]] Notice TakeNotice(StationTable& table, std::uint8_t station, std::uint64_t nowMs);
