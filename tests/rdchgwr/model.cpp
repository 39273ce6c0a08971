#include "model.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{
// Where byte i of a group of n comes from.
unsigned SourceIndex(unsigned code, unsigned n, unsigned i)
{
    const unsigned words = n / 2;
    const auto wordReversed = [&](unsigned at) { return at / 2 < words ? 2 * (words - 1 - at / 2) + at % 2 : at; };
    if (code == 3) return n - 1 - i;
    if (code == 2) return wordReversed(i);
    return code == 1 ? n - 1 - wordReversed(i) : i;
}

void Reorder(Bytes& work, std::size_t len, const ModelChange& c)
{
    unsigned code = 0;
    if (c.type == 3)
        code = c.orderWord / 256 % 4;
    else if (c.size == 4)
        code = c.orderWord / 16 % 4;
    else if (c.size == 2)
        code = c.orderWord % 4;
    if (c.type == 0 || c.size == 0) return;
    const Bytes before = work;
    for (std::size_t group = 0; group < len; group += c.size) {
        for (unsigned i = 0; i < c.size; ++i) work[group + i] = before[group + SourceIndex(code, c.size, i)];
    }
}

template <typename T>
T At(const Bytes& bytes, std::size_t offset, std::size_t size = sizeof(T))
{
    T value{};
    if (size > 0) std::memcpy(&value, bytes.data() + offset, std::min(size, sizeof value));
    return value;
}

std::int64_t Wrapped(std::int64_t value, bool isSigned)
{
    value &= 0xFFFFFFFF;
    return isSigned && value > INT32_MAX ? value - (std::int64_t{1} << 32) : value;
}

// One step towards the near limit, upwards or downwards.
template <typename T, typename Narrow>
bool StepTo(T& value, const T* operands, bool up, const ModelChange& c, Narrow narrow)
{
    const T step = operands[0], nearLimit = operands[up ? 2 : 1], farLimit = operands[up ? 1 : 2];
    const auto beyond = [up](T a, T b) { return up ? a > b : a < b; };
    const T exact = up ? value + step : value - step;
    const T next = narrow(exact);
    const bool ranOut = exact != next && exact == exact;
    if (!ranOut && beyond(nearLimit, next)) return value = next, false;
    if (!ranOut && next != nearLimit && !beyond(next, nearLimit)) return false;
    if (c.wrap) return value = !ranOut && next == nearLimit ? nearLimit : farLimit, false;
    const T back = narrow(up ? nearLimit - step : nearLimit + step);
    const bool fromLimit = c.bounce && !beyond(nearLimit, value);
    value = !fromLimit ? nearLimit : beyond(back, farLimit) || back == farLimit ? back : farLimit;
    return c.bounce;
}

bool StepInteger(Bytes& work, const ModelChange& c, const Bytes& operands, bool up)
{
    std::int64_t v[4] = {At<std::uint32_t>(work, 0)};
    for (unsigned i = 0; i < 3; ++i) v[i + 1] = At<std::uint32_t>(operands, i * c.size, c.size);
    for (std::int64_t& each : v) {
        if (c.type == 1 && c.size == 2) each = static_cast<std::int16_t>(each);
        each = Wrapped(each, c.type == 1);
    }
    const bool turned = StepTo(v[0], v + 1, up, c, [&](std::int64_t x) { return Wrapped(x, c.type == 1); });
    const auto result = static_cast<std::uint32_t>(v[0]);
    std::memcpy(work.data(), &result, sizeof result);
    return turned;
}

template <typename T>
bool StepReal(Bytes& work, const ModelChange& c, const Bytes& operands, bool up)
{
    T v[4] = {At<T>(work, 0)};
    for (unsigned i = 0; i < 3; ++i) v[i + 1] = At<T>(operands, i * c.size, c.size);
    const bool turned = StepTo(v[0], v + 1, up, c, [](T x) { return x; });
    std::memcpy(work.data(), v, sizeof(T));
    return turned;
}

void StepDigit(Bytes& work, const ModelChange& c, const Bytes& operands)
{
    static const char* const TopDigits[] = {"1", "255", "65535", "16777215", "4294967295"};
    const unsigned pos = At<std::uint32_t>(operands, 0, c.size);
    char text[11];
    std::snprintf(text, sizeof text, "%010u", At<std::uint32_t>(work, 0));
    char& digit = text[pos >= 1 && pos <= 10 ? 10 - pos : 9];
    const bool top = pos >= std::strlen(TopDigits[c.size]);
    const char highest = top ? TopDigits[c.size][0] : '9';
    digit = static_cast<char>(digit + (c.operation == 0x101 ? 1 : -1));
    if (digit > highest) digit = '0';
    if (digit < '0') digit = highest;
    const auto value = static_cast<std::uint32_t>(std::strtoull(text, nullptr, 10));
    std::memcpy(work.data(), &value, sizeof value);
}

void Bcd(Bytes& work, std::size_t len, bool decode)
{
    const std::size_t digits = std::min<std::size_t>(2 * len, 8);
    std::uint64_t out = 0;
    if (decode) {
        for (std::size_t i = digits; i-- > 0;) out = out * 10 + (work[i / 2] >> i % 2 * 4) % 16;
    } else {
        char text[12];
        std::snprintf(text, sizeof text, "%010u", At<std::uint32_t>(work, 0));
        out = std::strtoull(text + 10 - digits, nullptr, 16);
    }
    std::memcpy(work.data(), &out, std::min<std::size_t>(len, 4));
}
}  // namespace

bool ModelChg(Bytes& image, const ModelChange& c, const Bytes& operands)
{
    const std::size_t len = image.size();
    Bytes work = image;
    work.resize(len + 16);
    bool turned = false;
    if (c.operation == 1 || c.operation == 2 || c.operation == 0x101 || c.operation == 0x102) {
        const bool up = (c.operation == 1) != c.reversed;
        Reorder(work, len, c);
        if (c.bcd) Bcd(work, len, true);
        if (c.operation > 2)
            StepDigit(work, c, operands);
        else if (c.type == 1 || c.type == 2)
            turned = StepInteger(work, c, operands, up);
        else if (c.type == 3)
            turned = StepReal<float>(work, c, operands, up);
        else if (c.type == 4)
            turned = StepReal<double>(work, c, operands, up);
        if (c.bcd) Bcd(work, len, false);
        Reorder(work, len, c);
    }
    const unsigned first = c.operation == 0x1001 ? At<std::uint16_t>(operands, 0) : 0;
    const unsigned count = c.operation == 0x1001 ? At<std::uint16_t>(operands, 2) : 0;
    for (unsigned i = 0; i < 8 * len; ++i) {
        const bool old = work[i / 8] >> i % 8 & 1;
        const bool masked = i < 8 * c.size && i < 8 * operands.size() && (operands[i / 8] >> i % 8 & 1) != 0;
        bool now = old;
        if (c.operation == 3) now = old && masked;
        if (c.operation == 4) now = old || masked;
        if (c.operation == 5) now = old != masked;
        if (c.operation == 6) now = !old;
        if (c.operation == 10) now = old != (i == c.bit && c.bit < 32);
        if (i >= first && i - first < count) now = operands[4 + (i - first) / 8] >> (i - first) % 8 & 1;
        if (now != old) work[i / 8] = static_cast<unsigned char>(work[i / 8] ^ 1u << i % 8);
    }
    std::copy_n(work.begin(), len, image.begin());
    return turned;
}
