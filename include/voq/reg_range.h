// Which keys name the same group of ranges, how the ranges of a group are ordered, and how many bytes and addresses a
// range takes. Pure functions on RegKey; the register table, the subscriptions and every pass rely on these and no
// others.
#pragma once

#include <cstdint>

#include "voq/reg_key.h"

// The largest value region, in bytes; a range beyond it is refused everywhere.
inline constexpr std::uint32_t MaxRegionBytes = 0x10100;

// Bytes that one element takes in a buffer: a bit register holds one byte per bit.
constexpr std::uint32_t ElemBytes(const RegKey& key)
{
    const std::uint32_t size = key.layout & 0x0Fu;
    return size == 0 ? 1 : size;
}

// Bytes per PLC address unit, at least 1.
constexpr std::uint32_t UnitBytes(const RegKey& key)
{
    const std::uint32_t size = key.layout >> 4;
    return size == 0 ? 1 : size;
}

// Bytes of a range's value: in the data file, in a write's payload, in a read buffer.
constexpr std::uint32_t GetRegBuffLen(const RegKey* key)
{
    return key->width * ElemBytes(*key);
}

// PLC address units that `elements` elements of the key's kind span; integer division.
constexpr std::uint64_t AddressSpan(std::uint64_t elements, const RegKey& key)
{
    return elements * ElemBytes(key) / UnitBytes(key);
}

// Elements of the key's kind that cover `span` address units, rounded up.
constexpr std::uint64_t ElementsOfSpan(std::uint64_t span, const RegKey& key)
{
    return (span * UnitBytes(key) + ElemBytes(key) - 1) / ElemBytes(key);
}

constexpr std::uint16_t SubaddrLow(const RegKey& key)
{
    return static_cast<std::uint16_t>(key.subaddr);
}
constexpr std::uint16_t SubaddrHigh(const RegKey& key)
{
    return static_cast<std::uint16_t>(key.subaddr >> 16);
}
constexpr bool GroupFlag(const RegKey& key)
{
    return (key.flag & REG_FLAG_GROUP) != 0;
}

// The group key: plcno, regid, layout, the low half of subaddr and the group bit of flag.
constexpr bool SameGroup(const RegKey& a, const RegKey& b)
{
    return a.plcno == b.plcno && a.regid == b.regid && a.layout == b.layout && SubaddrLow(a) == SubaddrLow(b) &&
           GroupFlag(a) == GroupFlag(b);
}

// Order inside a group: 1 when a sorts before b, 2 when after, 0 when both name the same range.
constexpr int NodeCompare(const RegKey& a, const RegKey& b)
{
    if (a.addr != b.addr) return a.addr < b.addr ? 1 : 2;
    if (a.width != b.width) return a.width < b.width ? 1 : 2;
    return 0;
}

// What one record of the register table stands for.
constexpr bool SameRange(const RegKey& a, const RegKey& b)
{
    return SameGroup(a, b) && NodeCompare(a, b) == 0;
}
