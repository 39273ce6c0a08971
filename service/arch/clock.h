// Wall clock, steady clock, elapsed milliseconds and sleeping. Every operation may be called on any thread.
#pragma once

#include <cstdint>

#include "voq/stamp.h"

extern Stamp VoqStartTime;  // moment the service started; written once by the main thread, read by it alone

// Fills `now` with the wall clock.
void GetCurrentTime(Stamp* now);

// Microseconds since 1970, and of a clock that nobody sets (CLOCK_MONOTONIC).
std::int64_t WallMicroseconds();
std::uint64_t MonoMicroseconds();

// Milliseconds from an earlier moment to a later one, as below.
[[nodiscard]] std::int32_t MsBetween(const Stamp& earlier, const Stamp& later);

// Milliseconds from an earlier moment to now, negative when it lies in the future. Each microsecond part is divided
// before it is subtracted, so 9 s 1999 us to 10 s 999 us are 999 ms. Computed in 64 bits, the low 32 returned.
std::int32_t GetTimePassed(std::int32_t seconds, std::int32_t microseconds);

// The same against VoqStartTime.
std::int32_t GetMsFormStart();

// The same for the stamp of a record; a negative result (the clock went back) is reported and returned.
std::int32_t NodeTimePassed(std::int32_t seconds, std::int32_t microseconds);

// Milliseconds of a clock that nobody sets, from a moment before the start.
std::uint64_t SteadyMs();

void TaskSleep(std::int32_t milliseconds);
void SleepMicroseconds(std::uint32_t microseconds);
void SleepSeconds(std::uint32_t seconds);
