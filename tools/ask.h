// One-shot requests, under way at the same time, and their answers. Main thread; waits for the service.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/requests.h"
#include "tools/commands.h"

// What a request failed of: the exit status, the word for programs, the sentence for people.
struct RequestFailure {
    int status;
    std::string state;
    std::string sentence;
};

struct Answer {
    std::int64_t at = 0;  // when it came, microseconds
    voq::Bytes value;
    std::optional<RequestFailure> failure;
};

struct AskOptions {
    RequestTimes times;
    bool onlyWriter = false;
    std::string progress = {};  // "read: ranges": tells how far it is; empty: does not
};

// The answers, in the order of the requests; a signal ends the waiting. Answers that come later do not stay either: a
// process is left behind that removes them. What is refused among others is asked again, one after the other.
std::vector<Answer> Ask(const Target& target, const PortOptions& port, const AskOptions& options,
                        const std::vector<voq::Requests::BuildFrame>& requests);
