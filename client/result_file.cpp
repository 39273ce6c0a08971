// Reads result files under the service's lock. May sleep while it waits for an answer.
#include "client/result_file.h"

#include <unistd.h>

#include <thread>

#include "client/locked_file.h"
#include "voq/reg_range.h"

namespace voq
{

std::optional<ResultFile> ReadResult(const PortDir& port, std::uint16_t fileno)
{
    const auto bytes = ReadLockedRange(port.Result(fileno), 0, sizeof(RtItem) + MaxRegionBytes);
    if (!bytes) return std::nullopt;
    const auto item = RecordAt<RtItem>(*bytes, 0);
    if (!item) return std::nullopt;
    return ResultFile{*item, Bytes(bytes->begin() + sizeof(RtItem), bytes->end())};
}

std::optional<ResultFile> WaitResult(const PortDir& port, std::uint16_t fileno, std::chrono::milliseconds timeout,
                                     const std::function<bool()>& stopped)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (auto result = ReadResult(port, fileno)) return result;
        if (std::chrono::steady_clock::now() >= end || (stopped && stopped())) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void RemoveResult(const PortDir& port, std::uint16_t fileno)
{
    unlink(port.Result(fileno).c_str());
}

}  // namespace voq
