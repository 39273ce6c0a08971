// The answer to a one-shot request: a file in the port's directory, named by the request number.
#pragma once

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

// True for the answer to a request that the service never listed: it stands in no list, not even as the last one.
inline bool WasRefused(const ResultFile& result)
{
    return result.item.result != PLC_SUCCESS && result.item.next == 0;
}

void RemoveResult(const PortDir& port, std::uint16_t fileno);

}  // namespace voq
