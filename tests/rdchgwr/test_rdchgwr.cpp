// What the whole process does not show: the swap of big-endian ranges, and the time of a pulse to the millisecond.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "rdchgwr/byte_order.h"
#include "rdchgwr/rd_chg_wr.h"
#include "value/shuffle.h"
#include "voq/rt_item.h"

namespace
{
using Bytes = std::vector<unsigned char>;

RegKey Key(std::uint8_t layout, std::uint16_t width, std::uint32_t flag = 0)
{
    return {flag, 0, 0, 1, layout, 7, width, 0, 0};
}

TEST(BigEndian, RangesSwapTheirElements)
{
    Bytes value = {1, 2, 3, 4, 5, 6};
    operBigEndEx(Key(0x22, 2, REG_FLAG_BIG_ENDIAN), value.data(), 4);
    operBigEndEx(Key(0x22, 2), value.data(), 6);
    operBigEndEx(Key(0x10, 6, REG_FLAG_BIG_ENDIAN), value.data(), 6);
    EXPECT_EQ(value, (Bytes{2, 1, 4, 3, 5, 6}));
    Reverse(value.data(), 6, 3);
    EXPECT_EQ(value, (Bytes{3, 5, 6, 2, 1, 4}));
}

// A register of 16 bits, and what was done with it.
std::uint16_t Device = 0x12F7;
std::string Accesses;
constexpr DrvOps Ops = {[](RegKey, void* to) { return Accesses += 'r', std::memcpy(to, &Device, 2), 1; },
                        [](RegKey, void* from) { return Accesses += 'w', std::memcpy(&Device, from, 2), 1; }};

TEST(Pulse, EndsInTimeWheneverItBegins)
{
    std::uint32_t started = 0;
    const auto step = [&](std::uint32_t now) {
        Bytes pulse = {12, 0, 3, 0, 1, 0, 5, 0};  // bit 3, on, for 500 ms
        return DoRdChgWr(Key(0x22, 1), 0x2000, pulse, &started, now, Ops);
    };
    for (const std::uint32_t start : {0u, 1000u, 0xFFFFFF00u}) {
        EXPECT_EQ(step(start), RT_PENDING);
        EXPECT_EQ(Device, 0x12FF);
        EXPECT_EQ(started, start == 0 ? 1 : start);
        EXPECT_EQ(step(start), RT_PENDING);
        EXPECT_EQ(step(started + 499), RT_PENDING);
        EXPECT_EQ(Accesses, "rw");
        EXPECT_EQ(step(started + 500), 1);
        EXPECT_EQ(std::exchange(Accesses, {}), "rwrw");
        EXPECT_EQ(Device, 0x12F7);
        EXPECT_EQ(started, 0u);
    }
}
}  // namespace
