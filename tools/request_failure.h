// What a one-shot request failed of: the sentence for people, the word for programs, the exit status.
#pragma once

#include <chrono>
#include <span>
#include <string>

#include "client/one_shot.h"

struct RequestFailure {
    int status;
    std::string state;
    std::string sentence;
};

// Of an answer whose result is not PLC_SUCCESS.
RequestFailure FailureOf(const voq::ResultFile& result);

// "no answer within 10000 ms", or "interrupted" when a signal came.
RequestFailure UnansweredFailure(long long timeoutMs);

// Leaves a process behind that removes the answers of requests which got none, and returns how the sentence about them
// goes on.
std::string LeftToRemover(const voq::PortDir& port, std::span<const voq::OneShot> requests, double graceSeconds);

inline std::chrono::milliseconds Milliseconds(double seconds)
{
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}
