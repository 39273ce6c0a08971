// A ring by seconds.
#include "web/history.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace voq::web
{

void History::Note(std::int64_t second, double value)
{
    constexpr float Nothing = std::numeric_limits<float>::quiet_NaN();
    constexpr auto Size = static_cast<std::int64_t>(Seconds);
    if (ring_.empty()) {
        if (std::isnan(value)) return;
        ring_.assign(Seconds, Nothing);
    } else if (second <= last_ - Size || second >= last_ + Size) {  // the clock was set
        std::fill(ring_.begin(), ring_.end(), Nothing);
    } else {
        for (std::int64_t gap = last_ + 1; gap < second; ++gap) ring_[static_cast<std::size_t>(gap % Size)] = Nothing;
    }
    ring_[static_cast<std::size_t>(second % Size)] = static_cast<float>(value);
    last_ = second;
}

std::vector<float> History::Values() const
{
    std::vector<float> values;
    if (ring_.empty()) return values;
    const std::size_t newest = static_cast<std::size_t>(last_) % Seconds;
    for (std::size_t i = 1; i <= Seconds; ++i) values.push_back(ring_[(newest + i) % Seconds]);
    return values;
}

}  // namespace voq::web
