// The org file: the port's register table. A 12-byte header, then 56-byte records in order of creation, chained so that
// the ranges of one group lie together in ascending order. Offsets are byte offsets in the org file; 0 names no record.
//
// header
// offset size field  meaning
//  0     4    count  number of records
//  4     4    head   first record of the chain, 0 when the list is empty
//  8     4    tail   last record of the chain, 0 when the list is empty
//
// record
// offset size field       meaning
//  0     24   key         the range
// 24     8    stamp       wall clock of creation, then of the last PLC access recorded
// 32     2    logtimes    log-ons minus log-offs through the org list; wraps, never clamped
// 34     2    reserved1   0
// 36     1    state       0 never read, 1 value stored, else the result code of the last access
// 37     3    reserved2   0
// 40     4    reserved3   0
// 44     4    dataoffset  byte offset of the value region in the data file
// 48     4    prev        previous record of the chain, 0 for the first
// 52     4    next        next record of the chain, 0 for the last
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "voq/reg_key.h"
#include "voq/stamp.h"

struct OrgHeader {
    std::uint32_t count;
    std::uint32_t head;
    std::uint32_t tail;
};

static_assert(sizeof(OrgHeader) == 12 && std::is_trivially_copyable_v<OrgHeader>);
static_assert(offsetof(OrgHeader, count) == 0 && offsetof(OrgHeader, head) == 4 && offsetof(OrgHeader, tail) == 8);

struct OrgNode {
    RegKey key;
    Stamp stamp;
    std::uint16_t logtimes;
    std::uint16_t reserved1;
    std::uint8_t state;
    std::uint8_t reserved2[3];
    std::uint32_t reserved3;
    std::uint32_t dataoffset;
    std::uint32_t prev;
    std::uint32_t next;
};

static_assert(sizeof(OrgNode) == 56 && std::is_trivially_copyable_v<OrgNode>);
static_assert(offsetof(OrgNode, key) == 0 && offsetof(OrgNode, stamp) == 24 && offsetof(OrgNode, logtimes) == 32);
static_assert(offsetof(OrgNode, reserved1) == 34 && offsetof(OrgNode, state) == 36 &&
              offsetof(OrgNode, reserved2) == 37);
static_assert(offsetof(OrgNode, reserved3) == 40 && offsetof(OrgNode, dataoffset) == 44);
static_assert(offsetof(OrgNode, prev) == 48 && offsetof(OrgNode, next) == 52);

inline constexpr std::uint32_t OrgFirstRecord = sizeof(OrgHeader);
inline constexpr std::uint32_t OrgNone = 0xFFFFFFFF;

// Records are numbered from 0, in the order of the file. A number and the offset at which the record lies:
constexpr std::uint32_t OrgRecordNumber(std::uint32_t offset)
{
    return (offset - OrgFirstRecord) / sizeof(OrgNode);
}
constexpr std::uint32_t OrgRecordOffset(std::uint32_t number)
{
    return OrgFirstRecord + number * std::uint32_t{sizeof(OrgNode)};
}

// Whole records in an org file of `fileSize` bytes.
constexpr std::uint32_t OrgRecordsIn(std::uint64_t fileSize)
{
    return fileSize < OrgFirstRecord ? 0 : static_cast<std::uint32_t>((fileSize - OrgFirstRecord) / sizeof(OrgNode));
}

// True when an offset is that of a whole record in an org file of `fileSize` bytes.
constexpr bool OrgOffsetValid(std::uint32_t offset, std::uint64_t fileSize)
{
    return offset >= OrgFirstRecord && (offset - OrgFirstRecord) % sizeof(OrgNode) == 0 &&
           std::uint64_t{offset} + sizeof(OrgNode) <= fileSize;
}
