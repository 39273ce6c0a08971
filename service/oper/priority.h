// Priority classes and the decision whether a range is due for polling. Main thread; no locks.
#pragma once

#include <cstdint>

#include "voq/org_record.h"

inline constexpr int PriorityRows = 5;  // the tables have one row more than there are classes

// Age band of each class in milliseconds; only the rows of classes 2 and 3 decide.
extern std::uint32_t PackPriStartTime[PriorityRows];
extern std::uint32_t PackPriTimeout[PriorityRows];

// Decisions in band, too young, too old, by class; statistics only.
extern std::uint32_t PackGoal[PriorityRows];
extern std::uint32_t PackForwardMiss[PriorityRows];
extern std::uint32_t PackBackwardMiss[PriorityRows];

// Fills the age bands; start-up.
void InitPriRange();

// Priority class 0 to 3 of a key, or -1 after a message.
std::int32_t GetRegPri(const RegKey& key);

// 0: not due now. Anything else: due.
std::int32_t PackOrNot(const OrgNode& record);
// The same at a moment not long ago.
std::int32_t PackOrNot(const OrgNode& record, const Stamp& now);

// Microseconds from `now` until a record falls due that is not; UINT32_MAX when time alone does not make it due.
[[nodiscard]] std::uint32_t UntilDueUs(const OrgNode& record, const Stamp& now);
