// The answer to a one-shot request: a file in the port's directory, named by the request number.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "client/bytes.h"
#include "client/port_dir.h"
#include "voq/rt_item.h"

namespace voq
{

struct ResultFile {
    RtItem item;  // `item.result`: 1 done, 2 time-out, 3 communication error or refused, 4 refused during a time-out
    Bytes value;  // result 1: the value read, or the change's two result bytes; else empty
};

// The answer, or nothing while it is missing or shorter than its head (the service has created but not yet filled it).
std::optional<ResultFile> ReadResult(const PortDir& port, std::uint16_t fileno);

// Polls for the answer until it is there or the time is over. The file stays; RemoveResult frees the number.
std::optional<ResultFile> WaitResult(const PortDir& port, std::uint16_t fileno, std::chrono::milliseconds timeout);

void RemoveResult(const PortDir& port, std::uint16_t fileno);

}  // namespace voq
