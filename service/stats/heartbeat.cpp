// Heartbeats, on any thread.
#include "stats/heartbeat.h"

#include <algorithm>
#include <cstdio>

#include "arch/clock.h"
#include "arch/work_file.h"
#include "stats/stats_file.h"

namespace
{
thread_local StatsThread* Own = nullptr;
thread_local std::uint32_t WaitBeforeLock = 0;

void Wait(std::uint32_t what, std::uint64_t since)
{
    Own->wait = what;
    Own->since = since;
}

void NoteLockWait(const char* path)
{
    if (Own == nullptr) return;
    const std::uint64_t now = MonoMicroseconds();
    if (path != nullptr) {
        WaitBeforeLock = Own->wait;
        std::snprintf(Own->file, sizeof Own->file, "%s", path);
        Wait(static_cast<std::uint32_t>(StatsWait::Lock), now);
    } else {
        const std::uint64_t waited = now - Own->since;
        ++Own->lockWaits;
        Own->lockTime += waited;
        Own->longestLock = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(std::max<std::uint64_t>(Own->longestLock, waited), UINT32_MAX));
        Own->file[0] = '\0';
        Wait(WaitBeforeLock, now);
    }
    Show(*Own);
}
}  // namespace

void StartHeartbeat()
{
    OnLockWait = NoteLockWait;
    NameThread(StatsThreadOf::Main);
    BeginTurn();
}

void NameThread(StatsThreadOf which)
{
    Own = &Stats.threads[static_cast<std::size_t>(which)];
}

int OwnIntake()
{
    if (Own == &Stats.threads[static_cast<std::size_t>(StatsThreadOf::GuiIntake)]) return 0;
    return Own == &Stats.threads[static_cast<std::size_t>(StatsThreadOf::MekIntake)] ? 1 : -1;
}

void BeginTurn()
{
    if (Own == nullptr) return;
    ++Own->turns;
    Own->turnMono = MonoMicroseconds();
    Own->turnWall = WallMicroseconds();
    Wait(static_cast<std::uint32_t>(StatsWait::Nothing), Own->turnMono);
    Show(*Own);
}

Waiting::Waiting(StatsWait what, const RegKey* key) : began_(MonoMicroseconds()), outer_(Own == nullptr ? 0 : Own->wait)
{
    if (Own == nullptr) return;
    Wait(static_cast<std::uint32_t>(what), began_);
    Own->key = key == nullptr ? RegKey{} : *key;
    Show(*Own);
}

std::uint64_t Waiting::End()
{
    if (ended_) return 0;
    ended_ = true;
    const std::uint64_t now = MonoMicroseconds();
    if (Own != nullptr) {
        Wait(outer_, now);
        Own->key = {};
        Show(*Own);
    }
    return now - began_;
}
