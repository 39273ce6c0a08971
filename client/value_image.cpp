// Codes values into images and back. Pure; any thread.
#include "client/value_image.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <numeric>
#include <optional>

#include "client/error.h"
#include "value/decimal.h"
#include "value/shuffle.h"
#include "voq/reg_range.h"

namespace voq
{

namespace
{

struct IntegerRange {
    std::int64_t low, high;
};

bool IsInteger(ValueKind kind)
{
    return kind == ValueKind::U16 || kind == ValueKind::S16 || kind == ValueKind::U32 || kind == ValueKind::S32;
}

int OrderOfWord(ValueKind kind, std::uint16_t byteOrder)
{
    constexpr int CodeMask = 3;
    switch (kind) {
        case ValueKind::U16:
        case ValueKind::S16:
            return byteOrder & CodeMask;
        case ValueKind::U32:
        case ValueKind::S32:
            return byteOrder >> 4 & CodeMask;
        case ValueKind::Float:
            return byteOrder >> 8 & CodeMask;
        default:
            return ORDER_KEEP;
    }
}

IntegerRange RangeOf(const ValueCoding& coding)
{
    if (coding.bcd) return {0, coding.type.elemSize == 2 ? 9999 : 99999999};
    switch (coding.type.kind) {
        case ValueKind::Bit:
            return {0, 1};
        case ValueKind::U16:
            return {0, 0xFFFF};
        case ValueKind::S16:
            return {-0x8000, 0x7FFF};
        case ValueKind::S32:
            return {std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()};
        default:
            return {0, 0xFFFFFFFF};
    }
}

std::string TypeText(const ValueCoding& coding)
{
    return TypeName(coding.type) + (coding.bcd ? " in BCD" : "");
}

HostValue HostInteger(const ValueCoding& coding, std::int64_t value)
{
    HostValue host{{}, static_cast<double>(value)};
    PutRecord(host.bytes, 0, value);
    host.bytes.resize(coding.ElemBytes());
    return host;
}

template <typename Float>
HostValue HostFloat(Float value)
{
    HostValue host{{}, value};
    PutRecord(host.bytes, 0, value);
    return host;
}

std::optional<std::int64_t> Integer(std::string_view text)
{
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hexadecimal ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size() || value > INT64_MAX) return std::nullopt;
    return negative ? -static_cast<std::int64_t>(value) : static_cast<std::int64_t>(value);
}

HostValue ParseInteger(const ValueCoding& coding, const std::string& text)
{
    const auto value = Integer(text);
    if (!value) throw Error("\"" + text + "\" is not an integer");
    const IntegerRange range = RangeOf(coding);
    if (*value < range.low || *value > range.high) {
        throw Error(text + " does not fit " + TypeText(coding) + ": " + std::to_string(range.low) + " to " +
                    std::to_string(range.high));
    }
    return HostInteger(coding, *value);
}

template <typename Float>
HostValue ParseFloat(const ValueCoding& coding, const std::string& text)
{
    Float value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::result_out_of_range) throw Error(text + " does not fit " + TypeText(coding));
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
        throw Error("\"" + text + "\" is not a finite decimal number");
    }
    return HostFloat(value);
}

HostValue ParseRaw(const ValueCoding& coding, const std::string& text)
{
    HostValue host;
    host.bytes.resize(coding.ElemBytes());
    const char* at = text.data();
    bool good = text.size() == 2 * host.bytes.size();
    for (std::size_t i = 0; good && i < host.bytes.size(); ++i, at += 2) {
        const auto [end, error] = std::from_chars(at, at + 2, host.bytes[i], 16);
        good = error == std::errc() && end == at + 2;
    }
    if (!good) throw Error("\"" + text + "\" is not " + std::to_string(2 * host.bytes.size()) + " hexadecimal digits");
    return host;
}

template <typename Float>
constexpr Float Largest = std::numeric_limits<Float>::max();

}  // namespace

bool NeedsByteOrder(const Register& reg)
{
    return reg.type.kind != ValueKind::Bit && reg.type.kind != ValueKind::Raw &&
           (reg.key.flag & REG_FLAG_BIG_ENDIAN) == 0 && !reg.order;
}

ValueCoding CodingOf(const Register& reg, std::uint16_t byteOrder)
{
    ValueCoding coding{reg.type, OrderOfWord(reg.type.kind, byteOrder), false};
    const bool number = reg.type.kind != ValueKind::Bit && reg.type.kind != ValueKind::Raw;
    if (number && (reg.key.flag & REG_FLAG_BIG_ENDIAN) != 0) coding.order = ORDER_REVERSE_BYTES;
    if (number && reg.order) coding.order = *reg.order;
    coding.bcd = IsInteger(reg.type.kind) && (reg.key.flag & REG_FLAG_BCD) != 0;
    return coding;
}

bool ServiceAgrees(const Register& reg, std::uint16_t byteOrder)
{
    const ValueCoding byWord{reg.type, OrderOfWord(reg.type.kind, byteOrder), false};
    return BytePlaces(byWord) == BytePlaces(CodingOf(reg, byteOrder));
}

HostValue ParseValue(const ValueCoding& coding, const std::string& text)
{
    switch (coding.type.kind) {
        case ValueKind::Float:
            return ParseFloat<float>(coding, text);
        case ValueKind::Double:
            return ParseFloat<double>(coding, text);
        case ValueKind::Raw:
            return ParseRaw(coding, text);
        default:
            return ParseInteger(coding, text);
    }
}

HostValue LowestValue(const ValueCoding& coding)
{
    if (coding.type.kind == ValueKind::Float) return HostFloat(-Largest<float>);
    if (coding.type.kind == ValueKind::Double) return HostFloat(-Largest<double>);
    return HostInteger(coding, RangeOf(coding).low);
}

HostValue HighestValue(const ValueCoding& coding)
{
    if (coding.type.kind == ValueKind::Float) return HostFloat(Largest<float>);
    if (coding.type.kind == ValueKind::Double) return HostFloat(Largest<double>);
    return HostInteger(coding, RangeOf(coding).high);
}

Bytes EncodeHostValue(const ValueCoding& coding, const HostValue& value)
{
    Bytes element = value.bytes;
    const int size = static_cast<int>(coding.ElemBytes());
    if (coding.bcd) CvtBins2Bcds(element.data(), 1, size);
    DoByteOrder(element.data(), coding.order, size);
    return element;
}

Bytes EncodeValues(const ValueCoding& coding, std::span<const std::string> texts)
{
    Bytes image;
    for (const std::string& text : texts) {
        const Bytes element = EncodeHostValue(coding, ParseValue(coding, text));
        image.insert(image.end(), element.begin(), element.end());
    }
    return image;
}

std::uint64_t LoadElement(const ValueCoding& coding, std::span<const std::uint8_t> element)
{
    std::uint8_t bytes[sizeof(std::uint64_t)] = {};
    const std::size_t size = std::min(element.size(), sizeof bytes);
    std::copy_n(element.begin(), size, bytes);
    DoByteOrder(bytes, coding.order, static_cast<int>(size));
    std::uint64_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

std::array<std::uint8_t, 16> BytePlaces(const ValueCoding& coding)
{
    std::array<std::uint8_t, 16> places;
    std::iota(places.begin(), places.end(), std::uint8_t{0});
    // Every order is its own inverse: what lies at a place also says where that place's byte goes.
    DoByteOrder(places.data(), coding.order, static_cast<int>(coding.ElemBytes()));
    return places;
}

}  // namespace voq
