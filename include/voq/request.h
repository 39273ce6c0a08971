// What a client writes into its FIFO.
//
// request frame: 0xFE, u16 total length (little-endian), 32-byte RegRequest, payload of commands 6 and 7
// reload frame (GUI FIFO only): 0xFD, two bytes not read, 60-byte ComInfoRecord; 63 bytes in all
//
// request record
// offset size field      meaning
//  0     24   key        the range
// 24     1    cmd        see RequestCommand
// 25     1    subcmd     of command 6: 0x20 pulse, 0x80 read-change-write, 0x40 reversed direction
// 26     2    fileno     the client's request number: names the result file, identifies a subscription
// 28     4    orgoffset  org file offset of the range's record when the client knows it, else 0
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "voq/com_info.h"
#include "voq/reg_key.h"

struct RegRequest {
    RegKey key;
    std::uint8_t cmd;
    std::uint8_t subcmd;
    std::uint16_t fileno;
    std::uint32_t orgoffset;
};

static_assert(sizeof(RegRequest) == 32 && std::is_trivially_copyable_v<RegRequest>);
static_assert(offsetof(RegRequest, key) == 0 && offsetof(RegRequest, cmd) == 24 && offsetof(RegRequest, subcmd) == 25);
static_assert(offsetof(RegRequest, fileno) == 26 && offsetof(RegRequest, orgoffset) == 28);

enum class RequestCommand : std::uint8_t { LogOn = 1, LogOff = 2, Read = 3, ReadChangeWrite = 6, Write = 7 };

inline constexpr std::uint8_t FrameMarker = 0xFE;
inline constexpr std::uint8_t ReloadMarker = 0xFD;
inline constexpr std::size_t FrameHeaderBytes = 3;
inline constexpr std::size_t FrameMinBytes = FrameHeaderBytes + sizeof(RegRequest);
inline constexpr std::size_t ReloadFrameBytes = FrameHeaderBytes + sizeof(ComInfoRecord);
// Heads the payload of a read-change-write: u16 length of the operand, which follows, and two bytes that carry nothing.
inline constexpr std::size_t ChangeHeadBytes = 4;
