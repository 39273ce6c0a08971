// Driver calls, on the main thread; the port's record on whichever thread changes it.
#include "stats/driver_stats.h"

#include <algorithm>

#include "arch/clock.h"
#include "state/com_state.h"
#include "stats/stats_file.h"
#include "voq/plc_driver.h"

namespace
{
DriverTime ReadTime;

void Raise(std::uint32_t& longest, std::uint64_t us)
{
    longest = static_cast<std::uint32_t>(std::min<std::uint64_t>(std::max<std::uint64_t>(longest, us), UINT32_MAX));
}

// Counts: StatsCalls or StatsStation, which name the same things alike.
template <typename Counts>
void CountCall(Counts& counts, std::int32_t driverResult, std::uint64_t us)
{
    ++counts.calls;
    switch (driverResult) {
        case PLC_DRV_OK:
            ++counts.ok;
            break;
        case PLC_DRV_TIMEOUT:
            ++counts.timeouts;
            counts.lostTime += us;
            return;
        case PLC_DRV_REFUSED:
            ++counts.refused;
            break;
        default:
            ++counts.errors;
            return;
    }
    counts.answerTime += us;
    Raise(counts.longest, us);
}

bool Answered(std::int32_t driverResult)
{
    return driverResult == PLC_DRV_OK || driverResult == PLC_DRV_REFUSED;
}
}  // namespace

void TimedCall::Ended(std::int32_t driverResult)
{
    const std::uint64_t us = waiting_.End();
    const std::int64_t now = WallMicroseconds();

    StatsCalls& calls = kind_ == Kind::Read ? Stats.driver.reads : Stats.driver.writes;
    CountCall(calls, driverResult, us);
    calls.elements += key_.width;
    if (Answered(driverResult)) ++calls.answers[StatsTimeStep(us)];
    Show(Stats.driver);

    StatsStation& station = Stats.stations[key_.plcno];
    CountCall(station, driverResult, us);
    (Answered(driverResult) ? station.lastGood : station.lastBad) = now;
    if (!Answered(driverResult)) station.lastBadResult = static_cast<std::uint32_t>(driverResult);
    if (driverResult == PLC_DRV_TIMEOUT) Raise(station.longestLost, us);
    Show(station);

    if (kind_ == Kind::Write) return;
    ReadTime.all += us;
    if (driverResult == PLC_DRV_TIMEOUT) ReadTime.lost += us;
}

DriverTime TimeOfReads()
{
    return ReadTime;
}

void ShowPort(bool driverLoaded)
{
    StatsPort& port = Stats.port;
    port.comInfo = ComInfo;
    port.pause = comIntervals;
    port.packing = pack_disable == 0 ? 1 : 0;
    port.driver = driverLoaded ? 1 : 0;
    port.panelOrder = sysByteOder;
    Show(port);
}
