// Does the main loop of a service go on, and if not, what holds it? From the statistics, and from who holds a lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "client/lock_holder.h"
#include "client/stats.h"

namespace voq
{

// A driver call that lasts longer hangs: two of the longest time-outs that the Modbus drivers can be given, and a
// margin.
inline constexpr std::chrono::seconds DriverCallAtMost{150};
// A lock is held for the length of a read: a client that keeps one so long holds the service up.
inline constexpr std::chrono::seconds LockAtMost{10};

enum class Beat : std::uint8_t {
    Beats,    // or not known to stand still for long enough
    Driver,   // hangs in a driver command
    Lock,     // waits for another process's lock
    Unknown,  // stands still, and not for any of these
};

struct Heartbeat {
    Beat beat = Beat::Beats;
    std::uint64_t turns = 0;
    std::chrono::microseconds age{0};      // since the turn began
    std::chrono::microseconds waiting{0};  // of Driver and Lock, since the wait began
    RegKey key = {};                       // of Driver: all zeros for a command that is no read or write
    std::string file;                      // of Lock
    LockHolder holder;                     // of Lock
};

// Whether the process that wrote the statistics lives, as far as its number tells.
bool WriterLives(const Statistics& stats);

// `driverCallAtMost`: when the main loop, or another thread that it then waits for, counts as hanging; a shorter one
// than `lockAtMost` goes for locks too. Who holds a lock is asked at the moment of the call: nobody, and it holds
// nothing up.
Heartbeat ReadHeartbeat(const Statistics& stats, std::chrono::microseconds driverCallAtMost = DriverCallAtMost,
                        std::chrono::microseconds lockAtMost = LockAtMost);

// In words: "turn 123, begun 3 ms ago", "hangs in the driver for 160 s: read of ...".
std::string HeartbeatText(const Heartbeat& heartbeat);

}  // namespace voq
