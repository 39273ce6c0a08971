// What a port's statistics say about its polling, and what would make it faster. Pure; any thread.
//
// Everything follows from copies of the service's own figures; a saving is arithmetic on the last whole round: a read
// less is one driver read of the mean time and one pause less, a shorter pause counts once a read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/stats.h"

namespace voq
{

// The last whole round of polling; times in microseconds.
struct RoundExplained {
    std::uint32_t reads = 0;
    std::uint32_t ranges = 0;
    std::uint32_t length = 0;
    std::uint32_t driver = 0;  // in driver calls
    std::uint32_t pauses = 0;  // one a read, as the port's setting says
    std::uint32_t lost = 0;    // of `driver`: in calls that ended with a time-out
    std::optional<std::uint8_t> lostStation;
};

struct Advice {
    enum class Kind : std::uint8_t { Gap, Limit, Pause, Station, SlowStation, TimeOut };
    Kind kind;
    std::string text;         // what to do, a sentence without its full stop
    std::uint64_t saves = 0;  // us of a round; 0 where nothing can be reckoned
};

struct RangeExplained {
    RegKey key = {};
    std::uint32_t asked = 0;     // us between two reads; 0: every turn
    std::uint32_t achieved = 0;  // us; 0 before the second read
    std::uint16_t read = 0;      // the read that it travels in, from 1 on; 0: none yet
    std::uint16_t width = 0;     // elements of that read
    std::uint16_t gaps = 0;      // of them: wanted by no range
    std::uint16_t others = 0;    // ranges in it beside this one
    std::uint16_t result = 0;    // of that read: 1 to 3, 0 for none
    bool stationOff = false;
    std::int64_t refusedSince = 0;    // seconds since 1970; 0: not refused
    std::optional<RegKey> apartFrom;  // the neighbour that no read joins with it, as was learnt
};

struct PortExplained {
    bool polled = false;  // there was a whole round
    RoundExplained round;
    std::vector<RangeExplained> ranges;  // by station, area and address
    std::vector<Advice> advice;          // the greatest saving first
};

// `stationsOff` are the stations that the operator has switched off.
PortExplained Explain(const Statistics& statistics, const std::vector<std::uint8_t>& stationsOff);

// "every turn", "every 10 ms", "every 2 s".
std::string PeriodText(std::uint32_t us);
// "850 us", "12.3 ms", "4.0 s".
std::string DurationText(std::uint64_t us);

}  // namespace voq
