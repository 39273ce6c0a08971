// Values as text. Pure; any thread.
#include "client/value_text.h"

#include <algorithm>
#include <bit>
#include <cstdio>

#include "value/decimal.h"

namespace voq
{

namespace
{

template <typename... Args>
std::string Format(const char* format, Args... args)
{
    char text[64];
    std::snprintf(text, sizeof text, format, args...);
    return text;
}

std::string BcdText(std::uint32_t value, int bytes)
{
    const std::uint32_t number = CvtBcd2Bin(value, bytes);
    // A nibble beyond 9 does not come back.
    if (CvtBin2Bcd(number, bytes) != value) return Format("0x%0*x(no bcd)", bytes * 2, value);
    return std::to_string(number);
}

std::string ElementText(const ValueCoding& coding, std::span<const std::uint8_t> element)
{
    if (coding.type.kind == ValueKind::Raw) return Hex(element);
    if (coding.type.kind == ValueKind::Bit) return std::to_string(element[0]);
    const std::uint64_t value = LoadElement(coding, element);
    const auto low = static_cast<std::uint32_t>(value);
    if (coding.type.kind == ValueKind::Float) return Format("%.9g", static_cast<double>(std::bit_cast<float>(low)));
    if (coding.type.kind == ValueKind::Double) return Format("%.17g", std::bit_cast<double>(value));
    if (coding.bcd) return BcdText(low, static_cast<int>(element.size()));
    if (coding.type.kind == ValueKind::S16) return std::to_string(static_cast<std::int16_t>(low));
    if (coding.type.kind == ValueKind::S32) return std::to_string(static_cast<std::int32_t>(low));
    return std::to_string(value);
}

}  // namespace

std::string ValueText(const ValueCoding& coding, std::span<const std::uint8_t> value, std::size_t limit)
{
    const std::size_t size = coding.ElemBytes();
    const std::size_t count = value.size() / size;
    std::string text;
    for (std::size_t i = 0; i < std::min(count, limit); ++i) {
        if (i != 0) text += ' ';
        text += ElementText(coding, value.subspan(i * size, size));
    }
    return count > limit ? text + " ..." : text;
}

std::string Hex(std::span<const std::uint8_t> bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

std::int64_t StampMicroseconds(const Stamp& stamp)
{
    return std::int64_t{stamp.seconds} * 1000000 + stamp.microseconds;
}

std::string AgeText(std::int64_t microseconds)
{
    const std::int64_t ms = std::max<std::int64_t>(0, microseconds / 1000);
    const auto whole = static_cast<long long>(ms);
    if (ms < 1000) return Format("%lld ms", whole);
    if (ms < 120 * 1000) return Format("%.1f s", static_cast<double>(ms) / 1000);
    if (ms < 120 * 60 * 1000) return Format("%lld min", whole / 60000);
    if (ms < 48LL * 3600 * 1000) return Format("%lld h", whole / 3600000);
    return Format("%lld d", whole / 86400000);
}

}  // namespace voq
