// The places of the project file that the service reads, byte offsets; all integers little-endian.
//
// where                                 size content
// whole file                                 at least 200 bytes
// 20                                    4    T: offset of the segment table
// T + 0                                 4    S: offset of the system segment
// S + 38                                2    system byte-order word
// T + 32                                4    K: offset of the communication segment
// K                                     4    number of ports
// K + 4 + 4 i                           4    offset of port i's ComInfoRecord, relative to K
// T + 40                                4    G: offset of the register segment
// G                                     4    L: offset of the register table
// L                                     4    number of registers N
// L + 4 + 4 i, i < N                    4    not read
// L + 4 + 4 (N + i)                     4    offset of register i's RegKey, relative to L
#pragma once

#include <cstdint>

inline constexpr std::uint32_t ProjectMinBytes = 200;
inline constexpr std::uint32_t ProjectSegmentTable = 20;
inline constexpr std::uint32_t SegmentSystem = 0;
inline constexpr std::uint32_t SegmentComm = 32;
inline constexpr std::uint32_t SegmentRegister = 40;
inline constexpr std::uint32_t SystemByteOrder = 38;
