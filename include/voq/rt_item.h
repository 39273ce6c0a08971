// A one-shot request as the service lists it; the same 40 bytes are the head of its result file.
//
// offset size field      meaning
//  0     24   key        the range
// 24     2    command    low byte 3, 6 or 7; for 6 the high byte is the request's subcmd
// 26     1    result     0 waiting, 0x10 pending, 1 done, else a failure code
// 27     1    inuse      1 while the slot holds a request
// 28     2    prev       slot of the previous entry, 0 for the head
// 30     2    next       slot of the next entry, 0xFFFF for the tail
// 32     2    fileno     the client's request number
// 34     2    reserved   0
// 36     4    pulsetime  start of a running pulse in milliseconds since service start, 0 when none runs
//
// A result file holds this record, then only when result is 1: the value read (command 3) or the u16 result of the
// change (command 6). Result codes: 1 success, 2 time-out, 3 communication error or refused, 4 refused while the port
// is in time-out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "voq/reg_key.h"
#include "voq/request.h"

struct RtItem {
    RegKey key;
    std::uint16_t command;
    std::uint8_t result;
    std::uint8_t inuse;
    std::uint16_t prev;
    std::uint16_t next;
    std::uint16_t fileno;
    std::uint16_t reserved;
    std::uint32_t pulsetime;
};

static_assert(sizeof(RtItem) == 40 && std::is_trivially_copyable_v<RtItem>);
static_assert(offsetof(RtItem, key) == 0 && offsetof(RtItem, command) == 24 && offsetof(RtItem, result) == 26);
static_assert(offsetof(RtItem, inuse) == 27 && offsetof(RtItem, prev) == 28 && offsetof(RtItem, next) == 30);
static_assert(offsetof(RtItem, fileno) == 32 && offsetof(RtItem, reserved) == 34 && offsetof(RtItem, pulsetime) == 36);

// The command of a listed request; the high byte of `listcmd` is the subcmd of a change.
constexpr RequestCommand CommandOf(std::uint16_t listcmd)
{
    return static_cast<RequestCommand>(listcmd & 0xFF);
}
constexpr bool IsRead(const RtItem& item)
{
    return CommandOf(item.command) == RequestCommand::Read;
}
constexpr bool IsWrite(const RtItem& item)
{
    return CommandOf(item.command) == RequestCommand::Write;
}
constexpr bool IsChange(const RtItem& item)
{
    return CommandOf(item.command) == RequestCommand::ReadChangeWrite;
}

// Results of a PLC access, in the state of an OrgNode and in result files.
inline constexpr int PLC_SUCCESS = 1;
inline constexpr int PLC_TIMEOUT = 2;
inline constexpr int PLC_ERROR = 3;
inline constexpr int RT_REFUSED_TIMEOUT = 4;
inline constexpr int RT_PENDING = 0x10;
