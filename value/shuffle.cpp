// Exchanges of bytes, words and units, on any thread.
#include "value/shuffle.h"

#include <algorithm>
#include <utility>

void VSwap(unsigned char& a, unsigned char& b)
{
    std::swap(a, b);
}

void SwapMem(void* a, void* b, int n)
{
    if (n <= 0 || n > MaxUnitBytes || a == b) return;
    auto* bytes = static_cast<unsigned char*>(a);
    std::swap_ranges(bytes, bytes + n, static_cast<unsigned char*>(b));
}

void Reverse(void* buf, int len, int unit)
{
    if (unit <= 0 || unit > MaxUnitBytes) return;
    auto* bytes = static_cast<unsigned char*>(buf);
    const int count = len / unit;
    for (int i = 0; i < count / 2; ++i) SwapMem(bytes + i * unit, bytes + (count - 1 - i) * unit, unit);
}

void ReverseBytes(void* buf, int len)
{
    auto* bytes = static_cast<unsigned char*>(buf);
    if (len > 0) std::reverse(bytes, bytes + len);
}

void DoByteOrder(void* buf, int code, int len)
{
    constexpr int WordBytes = 2;
    if (code == ORDER_SWAP_BYTES || code == ORDER_REVERSE_BYTES) ReverseBytes(buf, len);
    if (code == ORDER_SWAP_BYTES || code == ORDER_REVERSE_WORDS) Reverse(buf, len, WordBytes);
}
