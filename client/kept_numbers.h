// The request numbers under which the service keeps the subscribed ranges, from its statistics. A range that several
// clients subscribe is one entry in the service, and every log-off of it must name the number of the log-on that made
// the entry, whoever's that was.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "client/port_dir.h"
#include "voq/stats.h"

namespace voq
{

class KeptNumbers
{
public:
    // Looks once; takes no lock.
    explicit KeptNumbers(const PortDir& port);

    // Which service it is: a number that no other start of it has, 0 when nothing is known.
    std::uint32_t Service() const { return service_; }
    // Whether it keeps a range under the number, and not this one.
    bool UsesForOther(std::uint16_t number, const RegKey& key) const;
    // The number to log a range off with that was logged on to `service` (0: not known which) by `number`; nothing when
    // that service is gone, and its subscriptions with it.
    std::optional<std::uint16_t> LogOffBy(const RegKey& key, std::uint16_t number, std::uint32_t service) const;

private:
    std::uint32_t service_ = 0;
    std::vector<StatsRange> ranges_;  // that are subscribed
};

}  // namespace voq
