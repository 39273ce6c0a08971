// One-shot reads of several ranges, under way at the same time.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "client/bytes.h"
#include "tools/commands.h"
#include "tools/request_failure.h"
#include "tools/selection.h"

struct ReadAnswer {
    std::int64_t at = 0;  // when it came, microseconds
    std::optional<voq::Bytes> value;
    std::optional<RequestFailure> failure;  // one of the two
};

// The answers, in the order of the ranges; a signal ends the waiting. Answers that come later do not stay either. Tells
// how far it is.
std::vector<ReadAnswer> ReadTogether(const Target& target, const voq::FileNumberRange& numbers,
                                     const RequestTimes& times, const std::vector<Selected>& ranges);
