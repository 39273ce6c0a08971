// Exchanges of bytes, words and units, on any thread; fixed temporaries only.
#include "value/shuffle.h"

#include <cstring>

void VSwap(unsigned char& a, unsigned char& b)
{
    const unsigned char kept = a;
    a = b;
    b = kept;
}

void SwapMem(void* a, void* b, int n)
{
    if (n <= 0 || n > MaxUnitBytes || a == b) return;
    unsigned char kept[MaxUnitBytes];
    const auto size = static_cast<std::size_t>(n);
    std::memcpy(kept, a, size);
    std::memcpy(a, b, size);
    std::memcpy(b, kept, size);
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
    for (int i = 0; i < len / 2; ++i) VSwap(bytes[i], bytes[len - 1 - i]);
}

void DoByteOrder(void* buf, int code, int len)
{
    constexpr int WordBytes = 2;
    if (code == ORDER_SWAP_BYTES || code == ORDER_REVERSE_BYTES) ReverseBytes(buf, len);
    if (code == ORDER_SWAP_BYTES || code == ORDER_REVERSE_WORDS) Reverse(buf, len, WordBytes);
}
