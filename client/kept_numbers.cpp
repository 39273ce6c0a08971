// Without the statistics every client goes by its own numbers.
#include "client/kept_numbers.h"

#include <algorithm>

#include "client/error.h"
#include "client/stats.h"
#include "voq/reg_range.h"

namespace voq
{

KeptNumbers::KeptNumbers(const PortDir& port)
{
    std::optional<Statistics> stats;
    try {
        stats = ReadStatistics(port.Stats());
    } catch (const SystemFailure&) {
        return;
    }
    if (!stats) return;
    service_ = std::max(static_cast<std::uint32_t>(stats->header.started), 1u);
    ranges_ = std::move(stats->ranges);
    std::erase_if(ranges_, [](const StatsRange& range) { return (range.flags & STATS_RANGE_SUBSCRIBED) == 0; });
}

bool KeptNumbers::UsesForOther(std::uint16_t number, const RegKey& key) const
{
    return std::any_of(ranges_.begin(), ranges_.end(),
                       [&](const StatsRange& range) { return range.fileno == number && !SameRange(range.key, key); });
}

std::optional<std::uint16_t> KeptNumbers::LogOffBy(const RegKey& key, std::uint16_t number, std::uint32_t service) const
{
    if (service_ == 0 || service == 0) return number;
    if (service != service_) return std::nullopt;
    const auto kept = std::find_if(ranges_.begin(), ranges_.end(),
                                   [&](const StatsRange& range) { return SameRange(range.key, key); });
    return kept == ranges_.end() ? number : kept->fileno;
}

}  // namespace voq
