// Picks unused request numbers. One thread; looks at the port's directory, writes nothing.
#include "client/file_number.h"

#include <unistd.h>

#include <random>
#include <utility>

#include "client/error.h"

namespace voq
{

FileNumbers::FileNumbers(PortDir port, FileNumberRange range) : port_(std::move(port)), range_(range), offset_(0)
{
    if (range.first > range.last) throw Error("the range of request numbers is empty");
    std::random_device source;
    offset_ = std::uniform_int_distribution<std::uint32_t>(0, range.last - range.first)(source);
}

std::uint16_t FileNumbers::Next()
{
    const std::uint32_t size = std::uint32_t{range_.last} - range_.first + 1;
    while (used_ < size) {
        const auto fileno = static_cast<std::uint16_t>(range_.first + offset_);
        offset_ = (offset_ + 1) % size;
        ++used_;
        const bool taken =
            access(port_.Result(fileno).c_str(), F_OK) == 0 || access(port_.RtData(fileno).c_str(), F_OK) == 0;
        if (!taken) return fileno;
    }
    throw Error("no request number from " + std::to_string(range_.first) + " to " + std::to_string(range_.last) +
                " is free in " + port_.Dir());
}

}  // namespace voq
