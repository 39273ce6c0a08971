// The index file: one 16-byte entry per group, in order of creation. The index map files: one per group, the group's
// ranges in chain order, 12 bytes each.
//
// index entry
// offset size field     meaning
//  0     2    plcno     PLC station of the group
//  2     2    regid     register area
//  4     2    subaddr   low half of the second address word
//  6     1    layout    element and address unit size (byte 11 of the key)
//  7     1    flagbit   group bit of the key's flag, 0 or 1
//  8     4    first     org file offset of the group's first record
// 12     4    mapcount  records written to the group's map file at its last refresh
//
// map record
// offset size field      meaning
//  0     4    addr       start address of the range
//  4     2    width      number of elements
//  6     2    subaddrhi  high half of the second address word
//  8     4    offset     org file offset of the range's record
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "voq/reg_range.h"

struct IndexItem {
    std::uint16_t plcno;
    std::uint16_t regid;
    std::uint16_t subaddr;
    std::uint8_t layout;
    std::uint8_t flagbit;
    std::uint32_t first;
    std::uint32_t mapcount;
};

static_assert(sizeof(IndexItem) == 16 && std::is_trivially_copyable_v<IndexItem>);
static_assert(offsetof(IndexItem, plcno) == 0 && offsetof(IndexItem, regid) == 2 && offsetof(IndexItem, subaddr) == 4);
static_assert(offsetof(IndexItem, layout) == 6 && offsetof(IndexItem, flagbit) == 7);
static_assert(offsetof(IndexItem, first) == 8 && offsetof(IndexItem, mapcount) == 12);

struct MapItem {
    std::uint32_t addr;
    std::uint16_t width;
    std::uint16_t subaddrhi;
    std::uint32_t offset;

    bool operator==(const MapItem&) const = default;
};

static_assert(sizeof(MapItem) == 12 && std::is_trivially_copyable_v<MapItem>);
static_assert(offsetof(MapItem, addr) == 0 && offsetof(MapItem, width) == 4);
static_assert(offsetof(MapItem, subaddrhi) == 6 && offsetof(MapItem, offset) == 8);

// The entry of the key's group, whose first record lies at `first`; nothing written to its map yet.
constexpr IndexItem IndexEntryOf(const RegKey& key, std::uint32_t first)
{
    const std::uint8_t flagbit = GroupFlag(key) ? 1 : 0;
    return {key.plcno, key.regid, SubaddrLow(key), key.layout, flagbit, first, 0};
}

// The map record of a range whose record lies at `offset`.
constexpr MapItem MapEntryOf(const RegKey& key, std::uint32_t offset)
{
    return {key.addr, key.width, SubaddrHigh(key), offset};
}

// A group as one number: equal for equal groups, and for no others.
constexpr std::uint64_t GroupNumber(const IndexItem& item)
{
    return std::uint64_t{item.plcno} << 48 | std::uint64_t{item.regid} << 32 | std::uint64_t{item.subaddr} << 16 |
           std::uint64_t{item.layout} << 8 | item.flagbit;
}
constexpr std::uint64_t GroupNumber(const RegKey& key)
{
    return GroupNumber(IndexEntryOf(key, 0));
}

// True when the entry is the key's group.
constexpr bool IndexMatches(const IndexItem& item, const RegKey& key)
{
    return GroupNumber(item) == GroupNumber(key);
}

inline constexpr std::size_t MapNameBytes = 32;

// Writes the name of the entry's map file, without its directory. Returns false when it does not fit `size` bytes.
inline bool MapFileName(const IndexItem& item, char* name, std::size_t size)
{
    const unsigned plcno = item.plcno, regid = item.regid, layout = item.layout, subaddr = item.subaddr;
    const int written = item.flagbit == 1
                            ? std::snprintf(name, size, "im%x_%x_%x_%x_%x", plcno, regid, layout, subaddr, 1u)
                            : std::snprintf(name, size, "im%x_%x_%x_%x", plcno, regid, layout, subaddr);
    return written > 0 && static_cast<std::size_t>(written) < size;
}
