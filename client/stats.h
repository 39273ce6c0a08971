// The statistics of a port, copied while the service goes on. Any thread; takes no lock and never waits for the
// service.
#pragma once

#include <array>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "voq/stats.h"

namespace voq
{

// A copy of voq/stats.h's sections, each as it was at one moment; their sequences mean nothing any more.
struct Statistics {
    StatsHeader header = {};
    StatsPort port = {};
    std::array<StatsThread, StatsThreads> threads = {};
    std::array<StatsIntake, StatsIntakes> intakes = {};
    StatsLoop loop = {};
    StatsDriver driver = {};
    std::vector<StatsStation> stations;  // by station number
    std::vector<StatsRange> ranges;      // by slot; a row without STATS_RANGE_SUBSCRIBED holds nothing

    const StatsThread& Thread(StatsThreadOf which) const { return threads[static_cast<std::size_t>(which)]; }
};

// Nothing when there is no such file, when it is none of this version, or when one of its sections did not stand still
// (a service that died in the middle of a change). The service that wrote it may be gone: it leaves the file behind.
// Throws Error when the file is there and cannot be opened.
std::optional<Statistics> ReadStatistics(const std::string& path);

// What is known of a station that has answered or failed, or is described.
enum class StationState : std::uint8_t { Silent, Answers, Dead, Off };
// By its answers alone, so never Off.
StationState StateOf(const StatsStation& station);

// The record offsets of the ranges that are subscribed.
std::set<std::uint32_t> SubscribedRecords(const Statistics& statistics);

// The service's monotonic clock, which "mono" times are compared with.
std::uint64_t NowMono();

}  // namespace voq
