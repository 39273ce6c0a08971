// The driver's calls, altogether and by station. Main thread, but for the port's record.
#pragma once

#include <cstdint>

#include "stats/heartbeat.h"
#include "voq/reg_key.h"

// One read or write by the driver: the thread waits for the driver while it lives.
class TimedCall
{
public:
    enum class Kind { Read, Write };

    TimedCall(Kind kind, const RegKey& key) : kind_(kind), key_(key), waiting_(StatsWait::Driver, &key) {}
    // Counts the call, with the driver's own result.
    void Ended(std::int32_t driverResult);

private:
    Kind kind_;
    const RegKey& key_;
    Waiting waiting_;
};

// What the calls of one read took.
struct DriverTime {
    std::uint64_t all;   // us
    std::uint64_t lost;  // us of it; in calls that ended with a time-out
};

// The time of all reads so far.
DriverTime TimeOfReads();

// Shows what the service goes by. Under the driver lock, or before any other thread exists.
void ShowPort(bool driverLoaded);
