// The rest of a pass that found nothing to read. Main thread; no locks.
#pragma once

#include <cstdint>

// A second: what nobody tells the service, a clock that was set or a file that was changed, it sees after that.
inline constexpr std::uint32_t LongestRestUs = 1000000;

class Rest
{
public:
    // Begins now and ends after `us`, LongestRestUs at most, or with a change. `mark`: a number that differs as soon as
    // the pass may find something that it did not find; a changed station's switch is seen without it.
    void Begin(std::uint32_t us, std::uint32_t mark);
    [[nodiscard]] bool Holds(std::uint32_t mark) const;

private:
    bool begun_ = false;
    std::uint64_t start_ = 0;
    std::uint32_t us_ = 0;
    std::uint32_t mark_ = 0;
    std::uint32_t switches_ = 0;
};
