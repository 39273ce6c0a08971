// The last ten minutes of one number, a value a second. One thread, or the caller's lock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace voq::web
{

class History
{
public:
    static constexpr std::size_t Seconds = 600;

    // The value in a second, not a number for none. Seconds that were left out are gaps, at most all of them.
    void Note(std::int64_t second, double value);
    // From the oldest on; the last one is that of the second that was noted last.
    std::vector<float> Values() const;
    std::int64_t Last() const { return last_; }

private:
    std::vector<float> ring_;  // by second, empty before the first
    std::int64_t last_ = 0;
};

}  // namespace voq::web
