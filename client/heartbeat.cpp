// Judges heartbeats.
#include "client/heartbeat.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>

#include "client/register.h"
#include "client/value_text.h"

namespace voq
{

namespace
{

using std::chrono::microseconds;

microseconds Since(std::uint64_t mono, std::uint64_t now)
{
    return microseconds(now > mono ? now - mono : 0);
}

bool IsWait(const StatsThread& thread, StatsWait what)
{
    return thread.wait == static_cast<std::uint32_t>(what);
}

// The first thread, the main loop before all others, that has waited so for so long.
const StatsThread* Waits(const Statistics& stats, StatsWait what, microseconds atLeast, std::uint64_t now)
{
    for (const StatsThread& thread : stats.threads) {
        if (IsWait(thread, what) && Since(thread.since, now) >= atLeast) return &thread;
    }
    return nullptr;
}

std::string KeyText(const RegKey& key)
{
    if (key.width == 0) return "in a command that is no read or write";
    return "reading or writing " + Expression({key, TypeOfSize(RegElemSize(&key))});
}

}  // namespace

bool WriterLives(const Statistics& stats)
{
    return kill(static_cast<pid_t>(stats.header.pid), 0) == 0 || errno == EPERM;
}

Heartbeat ReadHeartbeat(const Statistics& stats, microseconds driverCallAtMost, microseconds lockAtMost)
{
    const std::uint64_t now = NowMono();
    const StatsThread& main = stats.Thread(StatsThreadOf::Main);
    Heartbeat heartbeat;
    heartbeat.turns = main.turns;
    heartbeat.age = Since(main.turnMono, now);

    if (const StatsThread* const locked = Waits(stats, StatsWait::Lock, std::min(lockAtMost, driverCallAtMost), now)) {
        if (const auto holder = HolderOf(locked->file)) {
            heartbeat.beat = Beat::Lock;
            heartbeat.waiting = Since(locked->since, now);
            heartbeat.file = locked->file;
            heartbeat.holder = *holder;
            return heartbeat;
        }
    }
    if (heartbeat.age < driverCallAtMost) return heartbeat;
    if (const StatsThread* const driven = Waits(stats, StatsWait::Driver, driverCallAtMost, now)) {
        heartbeat.beat = Beat::Driver;
        heartbeat.waiting = Since(driven->since, now);
        heartbeat.key = driven->key;
        return heartbeat;
    }
    // A turn may make many calls, each within its time.
    if (!IsWait(main, StatsWait::Driver) && Since(main.since, now) >= driverCallAtMost) heartbeat.beat = Beat::Unknown;
    return heartbeat;
}

std::string HeartbeatText(const Heartbeat& heartbeat)
{
    switch (heartbeat.beat) {
        case Beat::Beats:
            break;
        case Beat::Driver:
            return "hangs in the driver for " + AgeText(heartbeat.waiting.count()) + ", " + KeyText(heartbeat.key);
        case Beat::Lock:
            return "the lock on " + heartbeat.file + " is waited for since " + AgeText(heartbeat.waiting.count()) +
                   ", held by " + HolderText(heartbeat.holder);
        case Beat::Unknown:
            return "stands still for " + AgeText(heartbeat.age.count());
    }
    return "turn " + std::to_string(heartbeat.turns) + ", begun " + AgeText(heartbeat.age.count()) + " ago";
}

}  // namespace voq
