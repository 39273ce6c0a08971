// How many bits, bytes and addresses a register takes, and which addresses it covers. Pure functions.
#pragma once

#include <cstdint>

#include "voq/reg_key.h"
#include "voq/reg_range.h"

// Bits of one element by elemsize; a bit register is held as one byte per bit. 9 to 15 name no size.
inline constexpr std::uint8_t RegBits[16] = {8, 8, 16, 24, 32, 40, 48, 56, 64, 0, 0, 0, 0, 0, 0, 0};

// Non-zero when the flag is set.
constexpr std::uint32_t isBigEnd(std::uint32_t flag)
{
    return flag & REG_FLAG_BIG_ENDIAN;
}
constexpr std::uint32_t isBcd(std::uint32_t flag)
{
    return flag & REG_FLAG_BCD;
}
constexpr std::uint32_t isDwChg(std::uint32_t flag)
{
    return flag & REG_FLAG_DWORD_CHANGE;
}

constexpr int GetMax(int a, int b)
{
    return a > b ? a : b;
}

constexpr std::uint32_t uBits(RegKey key)
{
    return RegBits[key.layout & 0x0Fu];
}

constexpr bool isWord(RegKey key)
{
    return (key.layout & 0x0Fu) == 2;
}

// Bytes of the register's value image.
constexpr std::uint32_t nBytes(RegKey key)
{
    return (uBits(key) * key.width + 7) / 8;
}

// Makes the register cover the addresses `first` to `last`; counts of addresses and elements wrap at 16 bits.
constexpr void setAddrs(RegKey& key, std::uint32_t first, std::uint32_t last)
{
    const std::uint32_t addresses = (last - first + 1) & 0xFFFFu;
    const std::uint32_t size = key.layout & 0x0Fu;
    key.addr = first;
    key.width = static_cast<std::uint16_t>(size == 0 ? addresses : (addresses * UnitBytes(key) + size - 1) / size);
}

// The register's last address; one before its first when it covers none.
constexpr std::uint32_t lastAddr(RegKey key)
{
    return ChangeEnd(key) - 1;
}

// 1 when `a` covers every address of `b`, else 0.
constexpr int contain(RegKey a, RegKey b)
{
    return a.addr <= b.addr && lastAddr(a) >= lastAddr(b) ? 1 : 0;
}

static_assert(nBytes(RegKey{0, 0, 0, 0, 0x00, 0, 10, 0, 0}) == 10);
static_assert(nBytes(RegKey{0, 0, 0, 0, 0x22, 0, 3, 0, 0}) == 6);
static_assert(nBytes(RegKey{0, 0, 0, 0, 0x29, 0, 3, 0, 0}) == 0);
