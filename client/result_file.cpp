// Reads result files under the service's lock.
#include "client/result_file.h"

#include <unistd.h>

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

void RemoveResult(const PortDir& port, std::uint16_t fileno)
{
    unlink(port.Result(fileno).c_str());
}

}  // namespace voq
