// Byte order, BCD, changes of a value, read-change-write and pulses, against worked examples, a second model and a
// device in memory.
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

Bytes Limits(std::uint64_t step, std::uint64_t minimum, std::uint64_t maximum, std::size_t size)
{
    return Number(step, size) + Number(minimum, size) + Number(maximum, size);
}

Bytes Field(unsigned first, unsigned count, std::uint64_t bits)
{
    return Desc(0x1001, 0, 0, Number(first | count << 16, 4) + Number(bits, (count + 31) / 32 * 4));
}

template <typename To, typename From>
To Bits(From value)
{
    return std::bit_cast<To>(value);
}

// A device of addresses; every read and write is logged as "r100x2 " or "w100x2 ".
struct Device {
    Bytes memory = Bytes(256);
    std::string log;
    std::vector<int> results;  // of the next accesses; 1 when used up
} device;

int Access(char kind, const RegKey& key, void* to, const void* from)
{
    device.log += kind + std::to_string(key.addr) + "x" + std::to_string(key.width) + " ";
    int result = PLC_SUCCESS;
    if (!device.results.empty()) {
        result = device.results.front();
        device.results.erase(device.results.begin());
    }
    if (result == PLC_SUCCESS) std::memcpy(to, from, GetRegBuffLen(&key));
    return result;
}

unsigned char* Place(const RegKey& key)
{
    return device.memory.data() + key.addr * UnitBytes(key);
}
constexpr DrvOps Ops = {[](RegKey key, void* buf) { return Access('r', key, buf, Place(key)); },
                        [](RegKey key, void* data) { return Access('w', key, Place(key), data); }};

int Do(const RegKey& key, unsigned flags, Bytes data, std::uint32_t* pulseTime = nullptr, std::uint32_t now = 0)
{
    device.log.clear();
    return DoRdChgWr(key, flags, data, pulseTime, now, Ops);
}

class RdChgWr : public testing::Test
{
protected:
    void SetUp() override
    {
        device = {};
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

// By hand, and beyond the limits that the model keeps to.
TEST_F(RdChgWr, WorkedExamples)
{
    constexpr unsigned Wrap = 0x8000, Bounce = 0x4000, Reversed = 0x4000;
    const Bytes count = Limits(1, 0, 100, 2);
    const struct {
        Bytes desc, image, expected;
        unsigned flags, direction;
        std::uint32_t keyFlag;
    } cases[] = {
        {Desc(1, 2 | Wrap, 2, count), Number(100, 2), Number(0, 2), 0, 0, 0},
        {Desc(1, 2 | Bounce, 2, count), Number(100, 2), Number(99, 2), Reversed, Reversed, 0},
        {Desc(10, 0, 0, {}, 40), Number(0, 8), Number(0, 8), 0, 0, 0},
        {Desc(7, 2, 2), Number(77, 2), Number(77, 2), Reversed, Reversed, 0},
        {Desc(1, 9, 2), Number(77, 2), Number(77, 2), 0, 0, 0},
        {Desc(0x101, 2, 4, Number(17, 4)), Number(77, 4), Number(77, 4), 0, 0, 0},  // no such position
        {Desc(0x101, 2, 5, Number(1, 5)), Number(0xFF, 4), Number(0xFF, 4), 0, 0, REG_FLAG_BCD},
        {Desc(1, 2, 9, Bytes(27)), Number(0xFF, 4), Number(0xFF, 4), 0, 0, REG_FLAG_BCD},  // no such operand
        {Field(4, 13, 0xABC), Number(0x7777, 2), Number(0x7777, 2), 0, 0, 0},              // one bit too far
    };
    for (const auto& each : cases) {
        Bytes image = each.image;
        const auto len = static_cast<std::uint32_t>(image.size());
        EXPECT_EQ(Chg(image.data(), each.desc, len, each.flags, Key(0x22, 1, each.keyFlag)), each.direction);
        EXPECT_EQ(image, each.expected) << "case " << &each - cases;
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
        if (type == 3 && below(8)) return Bits<std::uint32_t>(static_cast<float>(real));
        if (type == 4 && below(8)) return Bits<std::uint64_t>(real);
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

TEST_F(RdChgWr, WritesRetriesAndRefusals)
{
    EXPECT_EQ(DoRdChgWr(Key(0x22, 1), 0, {}, nullptr, 0, Ops), 1);
    device.results = {3, 3, 1};
    EXPECT_EQ(Do(Key(0x22, 2), 0, Number(0x04030201, 4)), 1);
    EXPECT_EQ(device.log, "w0x2 w0x2 w0x2 ");
    EXPECT_EQ(device.memory[3], 4);
    device.results = {2, 3, 2};
    EXPECT_EQ(Do(Key(0x22, 2), 0x4000, Number(0, 4)), 2);
    const Bytes add = Desc(1, 2 | 0x4000, 2, Limits(1, 0, 100, 2));
    device.results = {3};
    EXPECT_EQ(Do(Key(0x22, 1), 0x8000, add), 3);
    EXPECT_EQ(device.log, "r0x1 ");
    device.memory[0] = 99, device.memory[1] = 0;
    EXPECT_EQ(Do(Key(0x22, 1), 0x8000, add), 0x4001);
    EXPECT_EQ(Do(Key(0x22, 1), 0xC000, add), 0x4001);  // the direction it came with
    EXPECT_EQ(device.memory[0], 99);

    // One byte less than the operation takes never reaches the device.
    for (const Bytes& desc : {add, Desc(2, 4, 8, Bytes(24)), Desc(3, 0, 4, Bytes(4)), Desc(0x101, 2, 2, Number(1, 2)),
                              Field(0, 8, 0), Field(0, 33, 0), Desc(6, 0, 0), Desc(99, 0, 0)}) {
        EXPECT_EQ(Do(Key(0x22, 4), 0x8000, desc) & 0xFF, 1);
        EXPECT_EQ(Do(Key(0x22, 4), 0x8000, {desc.begin(), desc.end() - 1}), 3);
        EXPECT_EQ(device.log, "");
    }
    EXPECT_EQ(Do(Key(0x22, 2001), 0x8000, Desc(6, 0, 0)), 3);
    EXPECT_EQ(Do(Key(0x22, 2), 0, Bytes(3)), 3);
    std::uint32_t pulse = 0;
    EXPECT_EQ(Do(Key(0x22, 3), 0x2000, Desc(11, 1, 0), &pulse), 3);
    EXPECT_EQ(Do(Key(0x22, 1), 0x2000, Bytes(7), &pulse), 3);
    EXPECT_EQ(Do(Key(0x22, 1), 0x2000, Desc(1, 2, 2), &pulse), RT_PENDING);
    EXPECT_EQ(device.log + std::to_string(pulse), "0");
}

TEST_F(RdChgWr, BitFieldReadsItsEdges)
{
    const struct {
        std::uint8_t layout;
        std::uint16_t width;
        unsigned first, count;
        const char* log;
    } cases[] = {{0x22, 3, 4, 40, "r10x1 r12x1 w10x3 "}, {0x22, 1, 4, 12, "r10x1 w10x1 "},
                 {0x22, 3, 4, 44, "r10x1 w10x3 "},       {0x22, 2, 4, 20, "r10x2 w10x2 "},
                 {0x24, 3, 1, 70, "r10x1 r14x1 w10x3 "}, {0x10, 9, 0, 70, "r10x1 w10x9 "},
                 {0x22, 3, 4, 45, "r10x3 w10x3 "}};
    for (const auto& each : cases) {
        for (unsigned i = 0; i < device.memory.size(); ++i) device.memory[i] = static_cast<unsigned char>(i * 37 + 1);
        const RegKey key = Key(each.layout, each.width, 0, 10);
        Bytes expected(Place(key), Place(key) + GetRegBuffLen(&key));
        const Bytes field = Field(each.first, each.count, 0x123456789ABCDEF0);
        const bool inside = each.first + each.count <= 8 * expected.size();
        if (inside) ModelChg(expected, {.operation = 0x1001}, {field.begin() + 8, field.end()});
        EXPECT_EQ(Do(key, 0x8000, field), 1);
        EXPECT_EQ(device.log, each.log);
        if (each.layout == 0x10) expected = Bytes(Place(key), Place(key) + 9);  // whole bytes of a bit run go unread
        EXPECT_EQ(Bytes(Place(key), Place(key) + expected.size()), expected) << each.log;
    }
}

TEST_F(RdChgWr, PulseInTime)
{
    const RegKey word = Key(0x22, 1), bit = Key(0x10, 1);
    const Bytes pulse = Desc(12, 1, 5, {}, 3);
    std::uint32_t started = 0;
    const auto step = [&](const RegKey& key, std::uint32_t now) { return Do(key, 0x2000, pulse, &started, now); };
    for (const std::uint32_t start : {0u, 1000u, 0xFFFFFF00u}) {
        device.memory[0] = 0xF7, device.memory[1] = 0x12;
        EXPECT_EQ(step(word, start), RT_PENDING);
        EXPECT_EQ(device.log, "r0x1 w0x1 ");
        EXPECT_EQ(device.memory[0], 0xFF);
        EXPECT_EQ(started, start == 0 ? 1 : start);
        EXPECT_EQ(step(word, start), RT_PENDING);
        EXPECT_EQ(step(word, started + 499), RT_PENDING);
        EXPECT_EQ(device.log, "");
        EXPECT_EQ(step(word, started + 500), 1);
        EXPECT_EQ(device.log, "r0x1 w0x1 ");
        EXPECT_EQ(device.memory[0] | device.memory[1] << 8, 0x12F7);
        EXPECT_EQ(started, 0u);
    }
    EXPECT_EQ(step(bit, 7), RT_PENDING);
    EXPECT_EQ(device.log + std::to_string(device.memory[0]), "w0x1 1");
    EXPECT_EQ(step(bit, 507), 1);
    EXPECT_EQ(device.log + std::to_string(device.memory[0]), "w0x1 0");

    device.results = {2};
    EXPECT_EQ(step(word, 100), RT_PENDING);  // first read fails: the time runs all the same
    EXPECT_EQ(started, 100u);
    device.results = {3};
    EXPECT_EQ(step(word, 600), RT_PENDING);  // so does the second phase's read
    EXPECT_EQ(started, 600u);
    device.results = {1, 3, 2, 3};
    EXPECT_EQ(step(word, 1100), 3);
    EXPECT_EQ(device.log, "r0x1 w0x1 w0x1 w0x1 ");
    EXPECT_EQ(started, 0u);

    device.memory[1] = 0;
    EXPECT_EQ(Do(word, 0x2000, Desc(11, 1, 0, {}, 9), &started), 1);
    EXPECT_EQ(device.memory[1], 2);
    EXPECT_EQ(Do(word, 0x2000, Desc(11, 0, 0, {}, 200), &started), 1);
    EXPECT_EQ(device.memory[1], 2);
    device.results = {3};
    EXPECT_EQ(Do(word, 0x2000, Desc(11, 1, 0), &started), RT_PENDING);
}
}  // namespace
