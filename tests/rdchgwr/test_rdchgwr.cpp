// What the whole process does not show: the time of a pulse to the millisecond, changes that end too soon for what they
// say, and the limits of the operations on values.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "rdchgwr/byte_order.h"
#include "rdchgwr/chg.h"
#include "rdchgwr/geometry.h"
#include "rdchgwr/rd_chg_wr.h"
#include "value/decimal.h"
#include "value/shuffle.h"
#include "voq/chg_desc.h"
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

TEST(Change, WhatIsTooShortOrTooLargeLeavesDeviceAndImage)
{
    std::uint32_t started = 0;
    unsigned char field[] = {1, 0x10, 0, 0, 1, 0, 0, 0, 3, 0, 2, 0, 1, 0, 0, 0}, image[] = {7, 7};
    for (std::size_t size = 1; size < sizeof field; ++size) {
        const std::span part(field, size);
        EXPECT_EQ(3, DoRdChgWr(Key, CMD_CHANGE, part, &started, 0, Ops)) << size;
        EXPECT_EQ(3, DoRead(image, part, Key, Ops)) << size;
        EXPECT_EQ(0u, Chg(image, part, 2, 0, Key)) << size;
    }
    EXPECT_EQ(0u, Chg(image, field, MaxChangeBytes + 1, 0, Key));
    EXPECT_EQ(1, DoRdChgWr(Key, CMD_CHANGE, {}, &started, 0, Ops));  // nothing to be changed
    EXPECT_TRUE(Accesses.empty() && image[0] == 7 && image[1] == 7);
}

TEST(Values, NothingHappensBeyondTheLimits)
{
    unsigned char bytes[] = "\x12\x34\x56\x78";
    for (const int size : {-1, MaxDigitSize + 1}) {
        CvtBcds2Bins(bytes, 1, size);
        EXPECT_EQ(12, CalPosVal(12, 1, size));
    }
    for (const int size : {0, MaxUnitBytes + 1}) {
        SwapMem(bytes, bytes + 2, size);
        Reverse(bytes, 4, size);
    }
    ReverseBytes(bytes, -1);
    std::uint32_t value = 1234;
    SetPosVal(&value, 9, MaxDigitPosition + 1);
    EXPECT_EQ(1234u, value + CvtBcd2Bin(0x99, -1) + CvtBin2Bcd(99, 0));
    RegKey key = Key;
    for (const unsigned layout : {0x22, 0x20, 0x22}) {
        EXPECT_EQ(0, std::memcmp("\x12\x34\x56\x78", bytes, 4)) << layout;
        key.layout = static_cast<std::uint8_t>(layout);
        operBigEndEx(key, bytes, 4);
        key.flag = REG_FLAG_BIG_ENDIAN;
    }
    EXPECT_EQ(0, std::memcmp("\x34\x12\x78\x56", bytes, 4));
    key.layout = 0;  // bits
    setAddrs(key, 7, 9);
    EXPECT_TRUE(key.width == 3 && contain(key, key) == 1 && contain(key, Key) == 0);
}
}  // namespace
