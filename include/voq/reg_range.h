// Which keys belong together, how the ranges of a group are ordered, how many bytes a range takes and where it ends.
// Pure functions on RegKey; the register database, the subscriptions and every pass rely on these and no others.
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

// Where a range ends: the first address behind it. Each operation counts that in its own way, and they differ where an
// element is no whole number of address units.

// PLC address units that `elements` elements of the key's kind span: rounded down once, over all of them, since a
// packed read counts whole units only.
constexpr std::uint64_t AddressSpan(std::uint64_t elements, const RegKey& key)
{
    return elements * ElemBytes(key) / UnitBytes(key);
}

// Elements of the key's kind that cover `span` address units: rounded up, since a widened read holds all of them.
constexpr std::uint64_t ElementsOfSpan(std::uint64_t span, const RegKey& key)
{
    return (span * UnitBytes(key) + ElemBytes(key) - 1) / ElemBytes(key);
}

// Planning, polling and widening a read: where the key's range would end with a width of `elements`. 64 bits, so that a
// range at the last address does not wrap.
constexpr std::uint64_t PollEnd(const RegKey& key, std::uint64_t elements)
{
    return key.addr + AddressSpan(elements, key);
}
constexpr std::uint64_t PollEnd(const RegKey& key)
{
    return PollEnd(key, key.width);
}

// Answers of one-shots: rounded down for each element, since an answer is cut out of a read at whole elements; an
// element smaller than a unit counts as none. 64 bits, as above.
constexpr std::uint64_t AnswerEnd(const RegKey& key)
{
    return key.addr + std::uint64_t{ElemBytes(key) / UnitBytes(key)} * key.width;
}

// A write carried into the database: one address for each element, whatever its size, so there is nothing to round.
// Wraps at 32 bits.
constexpr std::uint32_t WriteEnd(const RegKey& key)
{
    return key.addr + key.width;
}

// Changes (read-change-write): one address for each bit of a bit register, whatever its unit; else rounded down once,
// over all bytes, since only a whole address is read again. Element sizes 9 to 15 cover nothing. Wraps at 32 bits.
constexpr std::uint32_t ChangeEnd(const RegKey& key)
{
    const std::uint32_t size = key.layout & 0x0Fu;
    if (size == 0) return key.addr + key.width;
    return size > 8 ? key.addr : key.addr + size * key.width / UnitBytes(key);
}

// Byte of a source block at which the value of a range begins that starts inside it. Both are of one layout.
constexpr std::uint64_t ValueOffset(const RegKey& source, const RegKey& range)
{
    return std::uint64_t{range.addr - source.addr} * UnitBytes(range);
}

// True when the range's whole value lies inside the `length` bytes of a source block.
constexpr bool ValueWithin(const RegKey& source, std::uint64_t length, const RegKey& range)
{
    return range.addr >= source.addr && ValueOffset(source, range) + GetRegBuffLen(&range) <= length;
}

// Which keys belong together, from the widest kinship to the narrowest.

// Station, register area and layout: the lookup of a record's offset searches through all of these.
constexpr bool SameStationArea(const RegKey& a, const RegKey& b)
{
    return a.plcno == b.plcno && a.regid == b.regid && a.layout == b.layout;
}

// What one driver read may join: the group bit is the service's own.
constexpr bool SameReadArea(const RegKey& a, const RegKey& b)
{
    return SameStationArea(a, b) && SubaddrLow(a) == SubaddrLow(b);
}

// One group of the register database: plcno, regid, layout, the low half of subaddr and the group bit of flag.
constexpr bool SameGroup(const RegKey& a, const RegKey& b)
{
    return SameReadArea(a, b) && GroupFlag(a) == GroupFlag(b);
}

// The group with all of the second address word: what a subscription or a one-shot write is looked up by.
constexpr bool SameGroupAndSubaddr(const RegKey& a, const RegKey& b)
{
    return SameGroup(a, b) && a.subaddr == b.subaddr;
}

// Order inside a group: 1 when a sorts before b, 2 when after, 0 when both name the same range.
constexpr int NodeCompare(const RegKey& a, const RegKey& b)
{
    if (a.addr != b.addr) return a.addr < b.addr ? 1 : 2;
    if (a.width != b.width) return a.width < b.width ? 1 : 2;
    return 0;
}

// What one record of the register database stands for.
constexpr bool SameRange(const RegKey& a, const RegKey& b)
{
    return SameGroup(a, b) && NodeCompare(a, b) == 0;
}

// The range with all of the second address word: two one-shot writes of it may share one access.
constexpr bool SameRangeAndSubaddr(const RegKey& a, const RegKey& b)
{
    return SameGroupAndSubaddr(a, b) && NodeCompare(a, b) == 0;
}
