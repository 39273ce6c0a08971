// What the whole process does not show: the time of a pulse to the millisecond.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "rdchgwr/rd_chg_wr.h"
#include "voq/rt_item.h"

namespace
{
constexpr RegKey Key = {0, 0, 0, 1, 0x22, 7, 1, 0, 0};

// A register of 16 bits, and what was done with it.
std::uint16_t Device = 0x12F7;
std::string Accesses;
constexpr DrvOps Ops = {[](RegKey, void* to) { return Accesses += 'r', std::memcpy(to, &Device, 2), 1; },
                        [](RegKey, void* from) { return Accesses += 'w', std::memcpy(&Device, from, 2), 1; }};

TEST(Pulse, EndsInTimeWheneverItBegins)
{
    std::uint32_t started = 0;
    const auto step = [&](std::uint32_t now) {
        unsigned char pulse[] = {12, 0, 3, 0, 1, 0, 5, 0};  // bit 3, on, for 500 ms
        return DoRdChgWr(Key, 0x2000, pulse, &started, now, Ops);
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
