// A wall-clock time as files and records hold it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct Stamp {
    std::int32_t seconds;       // since 1970
    std::int32_t microseconds;  // 0 to 999999
};

static_assert(sizeof(Stamp) == 8 && offsetof(Stamp, microseconds) == 4 && std::is_trivially_copyable_v<Stamp>);
