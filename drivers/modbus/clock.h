// The clock of the drivers' time limits.
#pragma once

#include <time.h>

#include <cstdint>

inline std::uint64_t NowMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}
