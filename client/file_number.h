// Request numbers. They name result files and subscriptions of the whole port, so every client keeps to a range of its
// own.
#pragma once

#include <cstdint>

#include "client/port_dir.h"

namespace voq
{

struct FileNumberRange {
    std::uint16_t first = 50000;
    std::uint16_t last = 59999;
};

// Hands out numbers of the range for which neither a result file nor a payload file exists, each once, from a random
// start. Subscriptions leave no file: two clients that share a range can, rarely, pick the same number.
class FileNumbers
{
public:
    // Throws Error when the range is empty.
    FileNumbers(PortDir port, FileNumberRange range = {});

    // Throws Error when every number of the range is taken.
    std::uint16_t Next();

private:
    PortDir port_;
    FileNumberRange range_;
    std::uint32_t offset_;    // of the next candidate in the range
    std::uint32_t used_ = 0;  // candidates tried so far
};

}  // namespace voq
