// Intakes, on the two service threads.
#include "stats/intake_stats.h"

#include <algorithm>

#include "stats/heartbeat.h"
#include "stats/stats_file.h"
#include "voq/rt_item.h"

namespace
{
StatsIntake* Own()
{
    const int number = OwnIntake();
    return number < 0 ? nullptr : &Stats.intakes[number];
}
}  // namespace

void CountArrival(Arrival what)
{
    StatsIntake* const own = Own();
    if (own == nullptr) return;
    switch (what) {
        case Arrival::Frame:
            ++own->frames;
            break;
        case Arrival::LogOn:
            ++own->logOns;
            break;
        case Arrival::LogOff:
            ++own->logOffs;
            break;
        case Arrival::Reload:
            ++own->reloads;
            break;
    }
}

void CountDropped(std::int32_t bytes)
{
    StatsIntake* const own = Own();
    if (own != nullptr) own->droppedBytes += static_cast<std::uint32_t>(bytes);
}

void CountListing(std::uint32_t listed)
{
    StatsIntake* const own = Own();
    if (own == nullptr) return;
    ++own->listed;
    own->longestQueue = std::max(own->longestQueue, listed);
}

void CountRefusal(int code)
{
    StatsIntake* const own = Own();
    if (own != nullptr) ++(code == RT_REFUSED_TIMEOUT ? own->refusedTimeout : own->refused);
}

void ShowIntake()
{
    StatsIntake* const own = Own();
    if (own != nullptr) Show(*own);
}
