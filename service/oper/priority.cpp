// Priority classes, on the main thread.
#include "oper/priority.h"

#include <cstdio>
#include <cstring>

#include "arch/clock.h"
#include "state/counters.h"

std::uint32_t PackPriStartTime[PriorityRows];
std::uint32_t PackPriTimeout[PriorityRows];
std::uint32_t PackGoal[PriorityRows];
std::uint32_t PackForwardMiss[PriorityRows];
std::uint32_t PackBackwardMiss[PriorityRows];

namespace
{
constexpr std::uint8_t PriCheckTable[4] = {0, 1, 3, 10};
constexpr std::uint32_t StartTimes[PriorityRows] = {60000, 100, 10, 2000, 5000};
constexpr std::uint32_t Timeouts[PriorityRows] = {120000, 300, 600, 10000, 20000};

std::int32_t DueByAge(std::int32_t priority, std::int32_t age)
{
    if (age < 0) return 1;
    if (static_cast<std::uint32_t>(age) < PackPriStartTime[priority]) {
        ++PackForwardMiss[priority];
        return 0;
    }
    if (static_cast<std::uint32_t>(age) > PackPriTimeout[priority]) {
        ++PackBackwardMiss[priority];
        return 2;
    }
    ++PackGoal[priority];
    return 1;
}
}  // namespace

void InitPriRange()
{
    std::memcpy(PackPriStartTime, StartTimes, sizeof StartTimes);
    std::memcpy(PackPriTimeout, Timeouts, sizeof Timeouts);
}

std::int32_t GetRegPri(const RegKey& key)
{
    const std::uint32_t value = key.flag >> REG_FLAG_PRIORITY_SHIFT & REG_FLAG_PRIORITY_MASK;
    for (std::int32_t priority = 0; priority < 4; ++priority) {
        if (PriCheckTable[priority] == value) return priority;
    }
    std::puts("GEt reg pri error!!!!!");
    return -1;
}

std::int32_t PackOrNot(const OrgNode& record)
{
    Stamp now;
    GetCurrentTime(&now);
    return PackOrNot(record, now);
}

std::int32_t PackOrNot(const OrgNode& record, const Stamp& now)
{
    if (StationDisabled(record.key.plcno)) return 0;
    std::int32_t age = MsBetween(record.stamp, now);
    // Reports a clock that went back.
    if (age < 0) age = NodeTimePassed(record.stamp.seconds, record.stamp.microseconds);
    const std::int32_t priority = GetRegPri(record.key);
    switch (priority) {
        case 0:
            return age;
        case 1:
            ++PackGoal[1];
            return 1;
        case 2:
        case 3:
            return DueByAge(priority, age);
        default:
            return 1;
    }
}

std::uint32_t UntilDueUs(const OrgNode& record, const Stamp& now)
{
    if (StationDisabled(record.key.plcno)) return UINT32_MAX;
    const std::int32_t priority = GetRegPri(record.key);
    if (priority == 1 || priority < 0) return 0;
    const std::uint32_t dueAt = priority == 0 ? 1 : PackPriStartTime[priority];
    const std::int32_t age = MsBetween(record.stamp, now);
    if (age < 0 || static_cast<std::uint32_t>(age) >= dueAt) return 0;
    // Ages count the clock's whole milliseconds.
    return (dueAt - static_cast<std::uint32_t>(age)) * 1000 - static_cast<std::uint32_t>(now.microseconds % 1000);
}
