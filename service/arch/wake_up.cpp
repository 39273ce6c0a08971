// Waking and waiting, on any thread. The time is that of the monotonic clock.
#include "arch/wake_up.h"

#include <time.h>

void WakeUp::Wake()
{
    pthread_mutex_lock(&mutex_);
    awake_ = true;
    pthread_cond_signal(&woken_);
    pthread_mutex_unlock(&mutex_);
}

void WakeUp::Clear()
{
    pthread_mutex_lock(&mutex_);
    awake_ = false;
    pthread_mutex_unlock(&mutex_);
}

void WakeUp::Wait(std::uint32_t microseconds)
{
    constexpr long NanosPerSecond = 1000000000;
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(microseconds / 1000000);
    end.tv_nsec += static_cast<long>(microseconds % 1000000) * 1000;
    if (end.tv_nsec >= NanosPerSecond) {
        ++end.tv_sec;
        end.tv_nsec -= NanosPerSecond;
    }
    pthread_mutex_lock(&mutex_);
    while (!awake_ && pthread_cond_clockwait(&woken_, &mutex_, CLOCK_MONOTONIC, &end) == 0) {
    }
    pthread_mutex_unlock(&mutex_);
}
