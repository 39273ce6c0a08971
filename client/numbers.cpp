// Codes numbers into images and back. Pure; any thread.
#include "client/numbers.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <optional>

#include "client/error.h"
#include "value/decimal.h"

namespace voq
{

namespace
{

void RequireNumbers(const ValueCoding& coding, bool fractions)
{
    if (coding.type.kind == ValueKind::Raw || (IsFloating(coding.type.kind) && !fractions)) {
        throw Error("a " + TypeName(coding.type) + " is no " + (fractions ? "number" : "integer"));
    }
}

// Nothing for packed BCD that is none.
std::optional<std::int64_t> IntegerOf(const ValueCoding& coding, std::uint64_t value)
{
    const auto low = static_cast<std::uint32_t>(value);
    if (coding.bcd) {
        const int bytes = static_cast<int>(coding.ElemBytes());
        const std::uint32_t number = CvtBcd2Bin(low, bytes);
        if (CvtBin2Bcd(number, bytes) != low) return std::nullopt;
        return number;
    }
    if (coding.type.kind == ValueKind::S16) return static_cast<std::int16_t>(low);
    if (coding.type.kind == ValueKind::S32) return static_cast<std::int32_t>(low);
    return low;
}

double NumberOf(const ValueCoding& coding, std::uint64_t value)
{
    if (coding.type.kind == ValueKind::Double) return std::bit_cast<double>(value);
    if (coding.type.kind == ValueKind::Float) return std::bit_cast<float>(static_cast<std::uint32_t>(value));
    const auto integer = IntegerOf(coding, value);
    return integer ? static_cast<double>(*integer) : std::numeric_limits<double>::quiet_NaN();
}

template <typename Number, typename Convert>
std::size_t Decode(const ValueCoding& coding, std::span<const std::uint8_t> image, std::span<Number> values,
                   Convert convert)
{
    const std::size_t size = coding.ElemBytes();
    const std::size_t count = std::min(values.size(), image.size() / size);
    for (std::size_t i = 0; i < count; ++i) {
        values[i] = convert(LoadElement(coding, image.subspan(i * size, size)));
    }
    return count;
}

std::string Text(double value)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

void RequireWithin(const ValueCoding& coding, double value, double low, double high)
{
    if (value >= low && value <= high) return;
    throw Error(Text(value) + " does not fit " + TypeName(coding.type) + (coding.bcd ? " in BCD" : "") + ": " +
                Text(low) + " to " + Text(high));
}

template <typename Value>
HostValue Host(const ValueCoding& coding, Value value)
{
    HostValue host{{}, static_cast<double>(value)};
    PutRecord(host.bytes, 0, value);
    host.bytes.resize(coding.ElemBytes());
    return host;
}

template <typename Number, typename ToHost>
Bytes Encode(const ValueCoding& coding, std::span<const Number> values, ToHost toHost)
{
    const double low = LowestValue(coding).number, high = HighestValue(coding).number;
    Bytes image;
    for (const Number value : values) {
        RequireWithin(coding, static_cast<double>(value), low, high);
        const Bytes element = EncodeHostValue(coding, toHost(value));
        image.insert(image.end(), element.begin(), element.end());
    }
    return image;
}

}  // namespace

std::size_t DecodeNumbers(const ValueCoding& coding, std::span<const std::uint8_t> image, std::span<double> values)
{
    RequireNumbers(coding, true);
    return Decode(coding, image, values, [&](std::uint64_t value) { return NumberOf(coding, value); });
}

std::size_t DecodeIntegers(const ValueCoding& coding, std::span<const std::uint8_t> image,
                           std::span<std::int64_t> values)
{
    RequireNumbers(coding, false);
    return Decode(coding, image, values, [&](std::uint64_t value) {
        const auto integer = IntegerOf(coding, value);
        if (!integer) throw Damaged("a value that is no packed BCD");
        return *integer;
    });
}

Bytes EncodeNumbers(const ValueCoding& coding, std::span<const double> values)
{
    RequireNumbers(coding, true);
    return Encode(coding, values, [&](double value) {
        if (coding.type.kind == ValueKind::Double) return Host(coding, value);
        if (coding.type.kind == ValueKind::Float) return Host(coding, static_cast<float>(value));
        if (value != std::trunc(value)) throw Error(Text(value) + " is not an integer");
        return Host(coding, static_cast<std::int64_t>(value));
    });
}

Bytes EncodeIntegers(const ValueCoding& coding, std::span<const std::int64_t> values)
{
    RequireNumbers(coding, false);
    return Encode(coding, values, [&](std::int64_t value) { return Host(coding, value); });
}

}  // namespace voq
