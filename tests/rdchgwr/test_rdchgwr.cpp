// Changes of a value against a second model, and the time of a pulse. The ways to the device and back are tested with
// the whole process.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "model.h"
#include "rdchgwr/byte_order.h"
#include "rdchgwr/chg.h"
#include "rdchgwr/geometry.h"
#include "rdchgwr/rd_chg_wr.h"
#include "rdchgwr/shuffle.h"
#include "state/com_state.h"
#include "voq/rt_item.h"

namespace
{
RegKey Key(std::uint8_t layout, std::uint16_t width, std::uint32_t flag = 0, std::uint32_t addr = 0)
{
    return {flag, 0, 0, 1, layout, 7, width, addr, 0};
}

Bytes Number(std::uint64_t value, std::size_t size)
{
    Bytes out(size);
    if (size > 0) std::memcpy(out.data(), &value, std::min(size, sizeof value));
    return out;
}

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes Desc(unsigned operation, unsigned format, unsigned size, const Bytes& operands = {}, unsigned bit = 0)
{
    return Number(operation | bit << 16, 4) + Number(format, 2) + Number(size, 2) + operands;
}

// A register of 16 bits, and what was done with it.
std::uint16_t Device;
std::string Accesses;
constexpr DrvOps Ops = {[](RegKey, void* to) { return Accesses += 'r', std::memcpy(to, &Device, 2), 1; },
                        [](RegKey, void* from) { return Accesses += 'w', std::memcpy(&Device, from, 2), 1; }};

class RdChgWr : public testing::Test
{
protected:
    void SetUp() override
    {
        ComInfo = {};
        sysByteOder = 0;
    }
};

TEST_F(RdChgWr, BigEndianRangesSwapTheirElements)
{
    Bytes value = {1, 2, 3, 4, 5, 6};
    operBigEndEx(Key(0x22, 2, REG_FLAG_BIG_ENDIAN), value.data(), 4);
    operBigEndEx(Key(0x22, 2), value.data(), 6);
    operBigEndEx(Key(0x10, 6, REG_FLAG_BIG_ENDIAN), value.data(), 6);
    EXPECT_EQ(value, (Bytes{2, 1, 4, 3, 5, 6}));
    Reverse(value.data(), 6, 3);
    EXPECT_EQ(value, (Bytes{3, 5, 6, 2, 1, 4}));
}

TEST_F(RdChgWr, WhatTheDescriptorCannotMeanChangesNothing)
{
    const struct {
        Bytes desc;
        std::uint32_t keyFlag;
    } cases[] = {
        {Desc(10, 0, 0, {}, 40), 0},                      // no such bit
        {Desc(7, 2, 2), 0},                               // no such operation
        {Desc(1, 9, 2), 0},                               // no such type
        {Desc(0x101, 2, 4, Number(17, 4)), 0},            // no such position
        {Desc(0x101, 2, 5, Number(1, 5)), REG_FLAG_BCD},  // no such operand
        {Desc(1, 2, 9, Bytes(27)), REG_FLAG_BCD},
        {Desc(0x1001, 0, 0, Number(4 | 61 << 16, 4) + Bytes(8)), 0},  // one bit too far
    };
    for (const auto& each : cases) {
        for (const std::uint32_t direction : {0u, 0x4000u}) {
            Bytes image = Number(0x77FF00FF77, 8);
            const Bytes before = image;
            EXPECT_EQ(Chg(image.data(), each.desc, 8, direction, Key(0x22, 1, each.keyFlag)), direction);
            EXPECT_EQ(image, before) << "case " << &each - cases;
        }
    }
}

TEST_F(RdChgWr, AgreesWithTheModel)
{
    std::mt19937 random(1);
    const auto below = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    const auto someNumber = [&](unsigned type) -> std::uint64_t {
        static const std::uint32_t Corners[] = {0,      1,      2,      9,          99,         0x7F,       0xFF,
                                                0x7FFF, 0x8000, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFFFE};
        static const double Reals[] = {0, -0.0, 0.5, 1, 1.5, 2, -1, -2, 1e30, -1e300, HUGE_VAL, NAN};
        const double real = below(2) ? Reals[below(std::size(Reals))] : static_cast<double>(below(41)) - 20;
        if (type == 3 && below(8)) return std::bit_cast<std::uint32_t>(static_cast<float>(real));
        if (type == 4 && below(8)) return std::bit_cast<std::uint64_t>(real);
        if (below(3) == 0) return std::uint64_t{random()} << 32 | random();
        return below(2) ? Corners[below(std::size(Corners))] : below(12) - 3u;
    };
    constexpr unsigned Operations[] = {1, 2, 1, 2, 1, 2, 3, 4, 5, 6, 7, 10, 12, 0x101, 0x102, 0x1001};
    constexpr unsigned Sizes[] = {0, 1, 2, 2, 3, 4, 4, 4, 5, 8, 8};
    for (int round = 0; round < 200000 && !HasFailure(); ++round) {
        ModelChange c{};
        c.operation = Operations[below(std::size(Operations))];
        c.type = below(6);
        c.size = Sizes[below(std::size(Sizes))];
        if (c.operation > 0x100 && c.operation < 0x1000) c.size = below(5);
        c.wrap = below(3) == 0, c.bounce = below(2), c.reversed = below(3) == 0, c.bcd = below(4) == 0;
        c.bit = below(5) ? below(32) : below(256);
        c.orderWord = static_cast<std::uint16_t>(random());
        const bool local = below(2);
        (local ? sysByteOder : ComInfo.byteOrder) = static_cast<std::uint16_t>(c.orderWord);
        (local ? ComInfo.byteOrder : sysByteOder) = static_cast<std::uint16_t>(random());

        const unsigned len = round % 1000 == 0 ? MaxChangeBytes : below(3) ? GetMax(1, int(c.size)) : 1 + below(20);
        Bytes image = Number(someNumber(c.type), 8) + Number(someNumber(c.type), 8) + Bytes(len, 0x5A);
        image.resize(len);
        Bytes operands = Number(someNumber(c.type), c.size) + Number(someNumber(c.type), c.size) +
                         Number(someNumber(c.type), c.size);
        if (c.operation > 0x100) operands = Number(below(17), c.size);
        if (c.operation == 0x1001) {
            const unsigned first = below(8 * len), count = below(8 * len - first + 1);
            operands = Number(first | count << 16, 4);
            operands.resize(4 + (count + 31) / 32 * 4, 0xA6);
        }
        const unsigned format = c.type | (c.wrap ? 0x8000u : 0) | (c.bounce ? 0x4000u : 0);
        const Bytes desc = Desc(c.operation, format, c.size, operands, c.bit);
        RegKey key = Key(0x22, 1, c.bcd ? REG_FLAG_BCD : 0);
        if (local) key.portno = REG_PORT_LOCAL;

        Bytes expected = image;
        const Bytes before = image;
        const bool turned = ModelChg(expected, c, operands);
        const std::uint32_t direction = Chg(image.data(), desc, len, c.reversed ? 0xC000 : 0x8000, key);
        EXPECT_EQ(direction != 0, turned != c.reversed);
        EXPECT_EQ(image, expected) << "round " << round << " descriptor " << testing::PrintToString(desc) << " image "
                                   << testing::PrintToString(before);
    }
}

TEST_F(RdChgWr, PulseInTime)
{
    std::uint32_t started = 0;
    Device = 0x12F7;
    const auto step = [&](std::uint32_t now) {
        Bytes pulse = Desc(12, 1, 5, {}, 3);
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
