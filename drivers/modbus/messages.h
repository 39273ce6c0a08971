// What a master says of its stations, on standard output: who, which request, what came of it. A station that fails
// does so several times a second, so each station has a line of its own for each reason, at growing intervals. Tables
// of fixed size: no station and no reason pushes out another.
#pragma once

#include <cstdint>

#include "outcome.h"
#include "pdu.h"
#include "voq/reg_key.h"

inline constexpr unsigned Exceptions = 16;  // the codes that have a line of their own; the protocol's end at 11
inline constexpr unsigned Reasons = Exceptions + Outcomes + 2;  // the last two: slow, single writes
inline constexpr unsigned MaxNamedKeys = 64;  // projects that are wrong are wrong in a few places, or all over

struct Repeats {
    std::uint32_t saidAt;  // seconds, 0 before the first
    std::uint16_t held;    // repeats since then, 65535 at most
    std::uint8_t level;    // the interval is 10 seconds, doubled so many times
};

struct MessageTable {
    Repeats repeats[256][Reasons];
    RegKey named[MaxNamedKeys];  // keys that cannot be served
    unsigned namedCount;
};

void ReportFailure(MessageTable& table, const char* name, const Question& question, const Reply& reply);

// An answer that came after its time-out.
void ReportSlow(MessageTable& table, const char* name, const Question& question, std::uint64_t afterMs,
                std::uint32_t timeoutMs);

// A write of one coil or register goes with another function from now on.
void ReportSingleWrites(MessageTable& table, const char* name, std::uint8_t unit, std::uint8_t unknown,
                        std::uint8_t instead);

// A key that can never be served: once.
void ReportKey(MessageTable& table, const char* name, const RegKey& key, const char* why);
