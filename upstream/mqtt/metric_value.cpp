// Numbers of arrays lie in little-endian order, whatever the machine's.
#include "upstream/mqtt/metric_value.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <limits>

#include "client/error.h"

namespace voq::mqtt
{

namespace
{

using sparkplug::Carried;
using sparkplug::DataType;

bool IsArray(const Metric& metric)
{
    return metric.described.meaning.text == 0 && metric.described.reg.key.width > 1;
}

// Of one element.
DataType ElementType(const Metric& metric)
{
    const Meaning& meaning = metric.described.meaning;
    const ValueType type = metric.described.reg.type;
    if (meaning.text != 0 || type.kind == ValueKind::Raw) return DataType::String;
    if (meaning.Scaled()) return DataType::Double;
    switch (type.kind) {
        case ValueKind::Bit:
            return DataType::Boolean;
        case ValueKind::U16:
            return DataType::UInt16;
        case ValueKind::S16:
            return DataType::Int16;
        case ValueKind::U32:
            return DataType::UInt32;
        case ValueKind::S32:
            return DataType::Int32;
        case ValueKind::Float:
            return DataType::Float;
        default:
            return DataType::Double;
    }
}

DataType ArrayOf(DataType type)
{
    switch (type) {
        case DataType::Boolean:
            return DataType::BooleanArray;
        case DataType::UInt16:
            return DataType::UInt16Array;
        case DataType::Int16:
            return DataType::Int16Array;
        case DataType::UInt32:
            return DataType::UInt32Array;
        case DataType::Int32:
            return DataType::Int32Array;
        case DataType::Float:
            return DataType::FloatArray;
        case DataType::Double:
            return DataType::DoubleArray;
        default:
            return DataType::StringArray;
    }
}

std::size_t BytesOf(DataType type)
{
    switch (type) {
        case DataType::UInt16:
        case DataType::Int16:
            return 2;
        case DataType::Double:
            return 8;
        default:
            return 4;
    }
}

bool Fits(DataType type, std::int64_t number)
{
    switch (type) {
        case DataType::Boolean:
            return number == 0 || number == 1;
        case DataType::UInt16:
            return number >= 0 && number <= std::numeric_limits<std::uint16_t>::max();
        case DataType::Int16:
            return number >= std::numeric_limits<std::int16_t>::min() &&
                   number <= std::numeric_limits<std::int16_t>::max();
        case DataType::UInt32:
            return number >= 0 && number <= std::numeric_limits<std::uint32_t>::max();
        default:
            return number >= std::numeric_limits<std::int32_t>::min() &&
                   number <= std::numeric_limits<std::int32_t>::max();
    }
}

// One element as it is carried; null for what cannot be said, nothing for what does not fit.
std::optional<Carried> Carry(DataType type, const Element& element)
{
    if (std::holds_alternative<std::monostate>(element)) return Carried();
    const auto* text = std::get_if<std::string>(&element);
    if (type == DataType::String) return text == nullptr ? std::nullopt : std::optional<Carried>(*text);
    if (text != nullptr) return std::nullopt;
    const auto* whole = std::get_if<std::int64_t>(&element);
    const double real = whole != nullptr ? static_cast<double>(*whole) : std::get<double>(element);
    if (type == DataType::Double) return real;
    if (type == DataType::Float) {
        if (std::abs(real) > std::numeric_limits<float>::max()) return std::nullopt;
        return static_cast<float>(real);
    }
    if (whole == nullptr || !Fits(type, *whole)) return std::nullopt;
    if (type == DataType::Boolean) return *whole != 0;
    return static_cast<std::uint32_t>(*whole);
}

void AppendLittle(std::string& bytes, std::uint64_t number, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) bytes += static_cast<char>(number >> 8 * i & 0xFF);
}

// The bits of a carried number.
std::uint64_t Bits(const Carried& number)
{
    if (const auto* whole = std::get_if<std::uint32_t>(&number)) return *whole;
    if (const auto* single = std::get_if<float>(&number)) return std::bit_cast<std::uint32_t>(*single);
    if (const auto* real = std::get_if<double>(&number)) return std::bit_cast<std::uint64_t>(*real);
    const auto* flag = std::get_if<bool>(&number);
    return flag != nullptr && *flag ? 1 : 0;
}

// An array has no place for a null: the whole of it is null then.
std::optional<Carried> CarryAll(DataType type, const Value& value)
{
    sparkplug::Bytes all;
    if (type == DataType::Boolean) AppendLittle(all.bytes, value.size(), 4);
    for (std::size_t i = 0; i < value.size(); ++i) {
        const auto carried = Carry(type, value[i]);
        if (!carried || std::holds_alternative<std::monostate>(*carried)) return carried;
        if (type == DataType::String) {
            all.bytes += std::get<std::string>(*carried) + '\0';
        } else if (type == DataType::Boolean) {
            if (i % 8 == 0) all.bytes += '\0';
            all.bytes.back() = static_cast<char>(all.bytes.back() | static_cast<char>(Bits(*carried) << (7 - i % 8)));
        } else {
            AppendLittle(all.bytes, Bits(*carried), BytesOf(type));
        }
    }
    return all;
}

template <typename Number>
std::string Digits(Number number)
{
    char text[64];
    return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

// A number by its bits.
std::string NumberText(DataType type, std::uint64_t bits)
{
    switch (type) {
        case DataType::Int16:
            return Digits(static_cast<std::int16_t>(bits));
        case DataType::Int32:
            return Digits(static_cast<std::int32_t>(bits));
        case DataType::Float:
            return Digits(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
        case DataType::Double:
            return Digits(std::bit_cast<double>(bits));
        default:
            return Digits(bits);
    }
}

std::vector<std::string> ArrayTexts(DataType type, const std::string& bytes, std::size_t count)
{
    std::vector<std::string> texts;
    const auto byte = [&](std::size_t at) { return static_cast<std::uint8_t>(bytes[at]); };
    if (type == DataType::String) {
        for (std::size_t at = 0; at < bytes.size() && texts.size() <= count; at = bytes.find('\0', at) + 1) {
            if (bytes.find('\0', at) == std::string::npos) throw Error("a text without its end");
            texts.push_back(bytes.c_str() + at);
        }
        return texts;
    }
    const bool flags = type == DataType::Boolean;
    const std::size_t size = flags ? 0 : BytesOf(type);
    std::string counted;
    if (flags) AppendLittle(counted, count, 4);
    if (bytes.size() != (flags ? 4 + (count + 7) / 8 : count * size) || !bytes.starts_with(counted)) {
        throw Error("an array of " + std::to_string(count) + " element(s) has other bytes");
    }
    for (std::size_t i = 0; i < count; ++i) {
        std::uint64_t bits = flags ? byte(4 + i / 8) >> (7 - i % 8) & 1 : 0;
        for (std::size_t k = 0; k < size; ++k) bits |= std::uint64_t{byte(i * size + k)} << 8 * k;
        texts.push_back(NumberText(type, bits));
    }
    return texts;
}

}  // namespace

DataType DataTypeOf(const Metric& metric)
{
    const DataType type = ElementType(metric);
    return IsArray(metric) ? ArrayOf(type) : type;
}

std::optional<Carried> CarriedOf(const Metric& metric, const Value& value)
{
    if (value.empty()) return Carried();
    const std::size_t count = IsArray(metric) ? metric.described.reg.key.width : 1;
    if (value.size() != count) return std::nullopt;
    return IsArray(metric) ? CarryAll(ElementType(metric), value) : Carry(ElementType(metric), value[0]);
}

std::vector<std::string> TextsOf(const Metric& metric, const Carried& value)
{
    const DataType type = ElementType(metric);
    if (const auto* bytes = std::get_if<sparkplug::Bytes>(&value)) {
        if (!IsArray(metric)) throw Error("the register has one element, not bytes");
        return ArrayTexts(type, bytes->bytes, metric.described.reg.key.width);
    }
    if (std::holds_alternative<std::monostate>(value)) throw Error("null cannot be written");
    if (const auto* text = std::get_if<std::string>(&value)) return {*text};
    // Of a type that is not the register's, a negative number looks like a large one.
    const bool floating = type == DataType::Float || type == DataType::Double;
    const auto* wide = std::get_if<std::uint64_t>(&value);
    const auto* whole = std::get_if<std::uint32_t>(&value);
    if (floating && ((wide != nullptr && *wide >> 63 != 0) || (whole != nullptr && *whole >> 31 != 0))) {
        throw Error("a whole number that may be a negative one: the register's type is Float or Double");
    }
    if (wide != nullptr) return {Digits(*wide)};
    if (whole != nullptr) {
        const bool narrow = type == DataType::Int16 || type == DataType::Int32;
        return {narrow ? Digits(static_cast<std::int32_t>(*whole)) : Digits(*whole)};
    }
    if (const auto* single = std::get_if<float>(&value)) return {Digits(*single)};
    if (const auto* real = std::get_if<double>(&value)) return {Digits(*real)};
    return {std::get<bool>(value) ? "1" : "0"};
}

}  // namespace voq::mqtt
