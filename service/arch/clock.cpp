// Wall clock, steady clock, elapsed milliseconds and sleeping, on any thread.
#include "arch/clock.h"

#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

Stamp VoqStartTime;

std::int32_t MsBetween(const Stamp& earlier, const Stamp& later)
{
    const std::int64_t wholeSeconds = std::int64_t{later.seconds} - earlier.seconds;
    return static_cast<std::int32_t>(wholeSeconds * 1000 + later.microseconds / 1000 - earlier.microseconds / 1000);
}

void GetCurrentTime(Stamp* now)
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    now->seconds = static_cast<std::int32_t>(tv.tv_sec);
    now->microseconds = static_cast<std::int32_t>(tv.tv_usec);
}

std::int64_t WallMicroseconds()
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return std::int64_t{tv.tv_sec} * 1000000 + tv.tv_usec;
}

std::uint64_t MonoMicroseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

std::int32_t GetTimePassed(std::int32_t seconds, std::int32_t microseconds)
{
    Stamp now;
    GetCurrentTime(&now);
    return MsBetween({seconds, microseconds}, now);
}

std::int32_t GetMsFormStart()
{
    return GetTimePassed(VoqStartTime.seconds, VoqStartTime.microseconds);
}

std::int32_t NodeTimePassed(std::int32_t seconds, std::int32_t microseconds)
{
    Stamp now;
    GetCurrentTime(&now);
    const std::int32_t passed = MsBetween({seconds, microseconds}, now);
    if (passed < 0) {
        std::printf("*VOQ*!NodeTimePassed wrong =%d!cur_sec=%d,node_sec=%d,cur_us=%d,Node_us=%d\r\n", passed,
                    now.seconds, seconds, now.microseconds, microseconds);
    }
    return passed;
}

std::uint64_t SteadyMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

void TaskSleep(std::int32_t milliseconds)
{
    if (milliseconds > 0) usleep(static_cast<useconds_t>(milliseconds) * 1000);
}

void SleepMicroseconds(std::uint32_t microseconds)
{
    usleep(microseconds);
}

void SleepSeconds(std::uint32_t seconds)
{
    while (seconds > 0) seconds = sleep(seconds);
}
