// Which stations are lost, so that one that is switched off does not hold up the others: after LostAfter time-outs in a
// row a station is asked only now and then, and not for long, until it answers. What was learnt of a station besides:
// how long its answers take, and how it takes single writes. Pure functions; the caller hands in the clock.
#pragma once

#include <cstdint>

inline constexpr unsigned LostAfter = 3;
inline constexpr std::uint32_t FirstProbeMs = 250;  // from the loss, doubled by every probe that fails
inline constexpr std::uint32_t LastProbeMs = 2000;  // the longest interval
inline constexpr std::uint32_t AloneProbeMs = 750;  // the longest while no other station answers
inline constexpr std::uint64_t NoticeEveryMs = 10000;

// A probe waits for so many of the station's usual answer times. Every eighth waits for the whole time-out, for a
// station that has become slower.
inline constexpr std::uint32_t UsualAnswers = 4;
inline constexpr std::uint32_t LeastWaitMs = 100;
inline constexpr unsigned FullProbeEvery = 8;

// While other stations answer, the port rests from probes for so many times as long as the last one took.
inline constexpr std::uint32_t RestAfterProbe = 2;
inline constexpr std::uint64_t AnswersForMs = 10000;  // for so long after an answer a station is one that answers

// All zero: never asked, taken for alive.
struct Station {
    std::uint8_t timeouts;  // in a row, LostAfter at most; lost with the last one
    std::uint8_t probes;    // that failed since it was lost
    bool announcedLost;     // what the log says of it
    bool oneAsMany[2];      // one coil, one register: written with the functions for many
    std::uint32_t probeMs;  // interval between the last probe and the next
    std::uint32_t usual;    // smoothed answer time in eighths of a millisecond, 0 before the first answer
    std::uint64_t nextProbeMs;
    std::uint64_t timeoutMs;  // when the last time-out was
    std::uint64_t answerMs;   // when the last answer was
    std::uint64_t noticeMs;   // of the last message about it, 0 before the first
};

struct StationTable {
    Station stations[256];
    std::uint64_t restUntilMs;  // no station is probed before
};

enum class Notice { None, Lost, Found };

// Whether the station is to be asked now; if not, the answer is a time-out.
[[nodiscard]] bool MayAsk(const StationTable& table, std::uint8_t station, std::uint64_t nowMs);

// How long to wait for it, `timeoutMs` at most.
[[nodiscard]] std::uint32_t AnswerLimitMs(const StationTable& table, std::uint8_t station, std::uint32_t timeoutMs);

// What came of asking it at `askedMs`. An answer is any that it gave, a refusal too. NoteFailure is for everything that
// tells nothing about the station itself; it only puts off the next probe of a lost one.
void NoteAnswer(StationTable& table, std::uint8_t station, std::uint64_t askedMs, std::uint64_t nowMs);
void NoteTimeout(StationTable& table, std::uint8_t station, std::uint64_t askedMs, std::uint64_t nowMs);
void NoteFailure(StationTable& table, std::uint8_t station, std::uint64_t askedMs, std::uint64_t nowMs);

// After a change of the parameters: every lost station is asked at its next turn, and what was learnt is forgotten.
void ForgetDevices(StationTable& table);

// The message that is due about the station: one in ten seconds at most, and the last one always says how it stands.
[[nodiscard]] Notice TakeNotice(StationTable& table, std::uint8_t station, std::uint64_t nowMs);
