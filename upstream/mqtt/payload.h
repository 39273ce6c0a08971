// Payloads of Sparkplug 3.0 (chapter "Sparkplug B payload"), between their bytes and plain values. Pure; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace voq::mqtt::sparkplug
{

// The published numbers.
enum class DataType : std::uint32_t {
    Int16 = 2,
    Int32 = 3,
    Int64 = 4,
    UInt8 = 5,
    UInt16 = 6,
    UInt32 = 7,
    UInt64 = 8,
    Float = 9,
    Double = 10,
    Boolean = 11,
    String = 12,
    Int16Array = 23,
    Int32Array = 24,
    UInt8Array = 26,
    UInt16Array = 27,
    UInt32Array = 28,
    FloatArray = 30,
    DoubleArray = 31,
    BooleanArray = 32,
    StringArray = 33
};

struct Bytes {
    std::string bytes;
    bool operator==(const Bytes&) const = default;
};

// By the field that carries it; the first: null.
using Carried = std::variant<std::monostate, std::uint32_t, std::uint64_t, float, double, bool, std::string, Bytes>;

struct Property {
    const char* key;
    DataType type;
    std::variant<std::uint32_t, double, bool, std::string> value;
};

struct Metric {
    std::string name;  // empty: left out
    std::optional<std::uint64_t> alias;
    std::optional<std::uint64_t> timestamp;  // ms since 1970
    std::optional<DataType> datatype;
    bool historical = false;
    Carried value;
    std::vector<Property> properties;  // not decoded
};

struct Payload {
    std::optional<std::uint64_t> timestamp;  // ms since 1970
    std::vector<Metric> metrics;
    std::optional<std::uint64_t> seq;
};

std::string Encode(const Payload& payload);

// More metrics than these, or longer texts, are no command of ours.
inline constexpr std::size_t MaxMetrics = 256, MaxText = 4096;
// Nothing when the bytes are no payload, or one beyond the limits.
std::optional<Payload> Decode(std::string_view bytes);

}  // namespace voq::mqtt::sparkplug
