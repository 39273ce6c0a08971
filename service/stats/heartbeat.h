// What each thread of the service does now, and since when. Every thread tells it of itself; a thread without a name
// (of a driver, of a test) tells nothing.
#pragma once

#include <cstdint>

#include "voq/stats.h"

// The main thread's begins, and every thread's waits for locks are told from now on. Start-up.
void StartHeartbeat();

// Names the calling thread. Each thread once, at its start.
void NameThread(StatsThreadOf which);

// The number of the calling thread's FIFO among the intakes; -1 for a thread that is no intake.
int OwnIntake();

// The calling thread begins a turn: nothing is waited for.
void BeginTurn();

// The calling thread waits for something while one lives. One inside another counts alone.
class Waiting
{
public:
    explicit Waiting(StatsWait what, const RegKey* key = nullptr);
    ~Waiting() { End(); }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

    // Ends the wait before the scope does. Its length in microseconds, 0 when it had ended.
    std::uint64_t End();

private:
    std::uint64_t began_;
    std::uint32_t outer_;
    bool ended_ = false;
};
