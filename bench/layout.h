// Random layouts of ranges for the polling passes, and the least number of driver calls that reads them all. Plain
// arithmetic of its own: nothing here is taken from the service.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "support/scratch.h"

struct Limits {
    std::int64_t words, wordGap, bits, bitGap;
};

struct Range {
    RegKey key;
    bool subscribed;
    bool due;
    std::uint32_t offset;
};

// The model's own arithmetic, in plain integers.
inline std::int64_t Element(const RegKey& key)
{
    return std::max(1, key.layout & 15);
}
inline std::int64_t Unit(const RegKey& key)
{
    return std::max(1, key.layout >> 4);
}
inline std::int64_t Span(std::int64_t elements, const RegKey& key)
{
    return elements * Element(key) / Unit(key);
}
inline bool OneGroup(const RegKey& a, const RegKey& b)
{
    return a.plcno == b.plcno && a.regid == b.regid && a.layout == b.layout &&
           (a.subaddr & 0xFFFF) == (b.subaddr & 0xFFFF);
}

// Behind its group's ranges that sort before it, groups in order of their first range.
inline void Place(std::vector<Range>& list, const Range& range)
{
    auto at = std::ranges::find_if(list, [&](const Range& r) { return OneGroup(r.key, range.key); });
    while (at != list.end() && OneGroup(at->key, range.key) &&
           std::pair(at->key.addr, at->key.width) < std::pair(range.key.addr, range.key.width)) {
        ++at;
    }
    list.insert(at, range);
}

using Random = std::mt19937;

inline std::int64_t Pick(Random& random, std::int64_t from, std::int64_t to)
{
    return std::uniform_int_distribution<std::int64_t>(from, to)(random);
}

struct Shape {
    std::size_t ranges;
    bool gapped;   // else every range begins where the last one ends
    bool mixed;    // several groups of several element sizes, in random order
    bool aligned;  // elements fill address units
};

// Ranges whose addresses do not overlap within their group.
inline std::vector<Range> Layout(Random& random, const Shape& shape, std::int64_t widest, std::int64_t widestGap)
{
    static constexpr std::uint8_t Aligned[] = {0x22, 0x00, 0x24, 0x11, 0x48, 0x02, 0x18},
                                  Odd[] = {0x41, 0x23, 0x20, 0x46};
    std::map<std::tuple<int, int, int>, std::uint32_t> ends;
    std::vector<Range> ranges;
    while (ranges.size() < shape.ranges) {
        RegKey key = WordKey(0, static_cast<std::uint16_t>(Pick(random, shape.aligned ? 1 : 0, widest)));
        if (shape.mixed) {
            key.layout = Aligned[Pick(random, 0, 6)];
            key.plcno = static_cast<std::uint8_t>(Pick(random, 1, 2));
            key.subaddr = static_cast<std::uint32_t>(Pick(random, 0, 1));
        }
        if (!shape.aligned && Pick(random, 0, 2) == 0) key.layout = Odd[Pick(random, 0, 3)];
        std::uint32_t& end = ends[{key.layout, key.plcno, key.subaddr}];
        // A gap that is no whole number of elements is rounded up by the start of the read: fewer reads may be
        // possible.
        const std::int64_t gap = shape.gapped ? Pick(random, 0, 2 * widestGap) : 0;
        key.addr = end + static_cast<std::uint32_t>(shape.aligned ? Span(gap, key) : gap);
        end = key.addr + static_cast<std::uint32_t>(Span(key.width, key)) + (shape.aligned ? 0 : 1);
        ranges.push_back({key, true, true, 0});
    }
    if (shape.mixed) std::shuffle(ranges.begin(), ranges.end(), random);
    return ranges;
}

// The least number of driver calls that reads of neighbours can make, by trying every way to cut each group into reads.
// For ranges whose addresses do not overlap and whose elements fill address units.
inline std::size_t LeastCalls(const std::vector<Range>& list, const Limits& limits)
{
    std::vector<std::size_t> least(list.size() + 1, SIZE_MAX);
    least[0] = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const RegKey& first = list[i].key;
        const bool bits = (first.layout & 15) == 0;
        const std::int64_t most = bits ? limits.bits : limits.words, gap = bits ? limits.bitGap : limits.wordGap;
        const std::size_t alone = most == 0 ? 1 : static_cast<std::size_t>((first.width + most - 1) / most);
        least[i + 1] = std::min(least[i + 1], least[i] + alone);
        std::int64_t width = first.width;  // whole elements
        for (std::size_t j = i + 1; j < list.size() && OneGroup(first, list[j].key); ++j) {
            const RegKey& key = list[j].key;
            const std::int64_t span = key.addr + Span(key.width, first) - first.addr;
            if (first.width >= most || key.width >= most || span > Span(most, first)) break;
            if (key.addr >= first.addr + Span(width, first) + Span(gap, first)) break;
            while (Span(width, first) < span) ++width;
            least[j + 1] = std::min(least[j + 1], least[i] + 1);
        }
    }
    return least[list.size()];
}
