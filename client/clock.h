// The wall clock, as stamps show it.
#pragma once

#include <sys/time.h>

#include <cstdint>

namespace voq
{

inline std::int64_t NowMicroseconds()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return std::int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

}  // namespace voq
