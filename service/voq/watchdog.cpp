// The watchdog thread. Touches the SRW file only, under the local register lock; may wait for another process's lock.
#include "voq/watchdog.h"

#include <cstring>

#include "arch/clock.h"
#include "arch/work_file.h"
#include "comm/local_reg.h"
#include "state/paths.h"
#include "stats/heartbeat.h"

std::uint32_t GlobeWatchDogAddr;

namespace
{
constexpr std::uint32_t PeriodSeconds = 10;

// A failed open skips this write; the counter goes on.
void WriteCounter(const char* path, std::uint32_t counter)
{
    const MutexLock lock(LocalRegLock);
    WorkFile file;
    if (file.OpenRW(path)) static_cast<void>(file.WriteRecord(GlobeWatchDogAddr * 2, counter));
}

void Pause()
{
    const Waiting waiting(StatsWait::Pause);
    SleepSeconds(PeriodSeconds);
}
}  // namespace

void watchdog_thread()
{
    char path[PathBytes];
    std::memcpy(path, SRWName, sizeof path);
    std::uint32_t counter = 0;
    NameThread(StatsThreadOf::Watchdog);
    while (true) {
        Pause();
        BeginTurn();
        WriteCounter(path, ++counter);
    }
}
