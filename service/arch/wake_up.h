// A wait that another thread can end. Any thread may wake, one waits.
#pragma once

#include <pthread.h>

#include <cstdint>

class WakeUp
{
public:
    constexpr WakeUp() = default;
    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;

    void Wake();
    // Forgets what woke so far. Whoever waits clears first, looks at what there is to do, and waits when there is
    // nothing: what comes up after the look ends the wait.
    void Clear();
    // Returns when Wake() was called since the last Clear(), or after `microseconds`; no sooner.
    void Wait(std::uint32_t microseconds);

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t woken_ = PTHREAD_COND_INITIALIZER;
    bool awake_ = false;  // under mutex_
};
