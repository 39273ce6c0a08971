// Packed BCD and decimal digits, on any thread; computes in the caller's buffer.
#include "value/decimal.h"

#include <algorithm>
#include <cstring>

namespace
{
constexpr int WordNibbles = 8;

int Nibbles(int nbytes)
{
    return nbytes <= 0 ? 0 : std::min(nbytes, WordNibbles / 2) * 2;
}

std::uint32_t Weight(int pos)
{
    return static_cast<std::uint32_t>(Power10[std::clamp(pos, 1, MaxDigitPosition) - 1]);
}

void ConvertEach(void* buf, int count, int size, std::uint32_t (*convert)(std::uint32_t, int))
{
    if (size < 1 || size > 4) return;
    auto* at = static_cast<unsigned char*>(buf);
    for (int i = 0; i < count; ++i, at += size) {
        std::uint32_t value = 0;
        std::memcpy(&value, at, static_cast<std::size_t>(size));
        value = convert(value, size);
        std::memcpy(at, &value, static_cast<std::size_t>(size));
    }
}
}  // namespace

std::uint32_t CvtBcd2Bin(std::uint32_t value, int nbytes)
{
    std::uint32_t result = 0;
    for (int i = 0; i < Nibbles(nbytes); ++i) {
        result += (value >> (4 * i) & 0xFu) * static_cast<std::uint32_t>(Power10[i]);
    }
    return result;
}

std::uint32_t CvtBin2Bcd(std::uint32_t value, int nbytes)
{
    std::uint32_t result = 0;
    for (int i = 0; i < Nibbles(nbytes); ++i, value /= 10) result |= value % 10 << (4 * i);
    return result;
}

void CvtBcds2Bins(void* buf, int count, int size)
{
    ConvertEach(buf, count, size, CvtBcd2Bin);
}

void CvtBins2Bcds(void* buf, int count, int size)
{
    ConvertEach(buf, count, size, CvtBin2Bcd);
}

std::uint32_t GetPosVal(std::uint32_t value, int pos)
{
    return value / Weight(pos) % 10;
}

void SetPosVal(std::uint32_t* value, int digit, int pos)
{
    if (pos > MaxDigitPosition) return;
    // Differences wrap as the 32-bit value does.
    const std::uint32_t old = pos <= 1 ? *value % 10 : GetPosVal(*value, pos);
    *value += (static_cast<std::uint32_t>(digit) - old) * Weight(pos);
}

int CalPosVal(int digit, int pos, int size)
{
    if (size < 0 || size > MaxDigitSize) return digit;
    const int limit = pos >= maxPos[size] ? maxPosVal[size] : 9;
    if (digit > limit) return 0;
    return digit < 0 ? limit : digit;
}
