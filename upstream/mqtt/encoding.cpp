// A sample: its name; state and how `valueAt` is told; the time's distance from the sample's before; the value's
// distance from the time unless it is the same or there is none; the value as runs of one kind of element each, a
// number of elements, whether it is the last run, and the kind in one number. Numbers of seven bits a byte, low ones
// first, with the sign in the lowest bit where there may be one.
#include "upstream/mqtt/encoding.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace voq::mqtt
{

namespace
{

enum ValueTime : std::uint64_t { None, Same, Other };
enum Kind : std::uint64_t { Nothing, Whole, Short, Real, Text };
constexpr unsigned StateBits = 4, KindBits = 3;
constexpr std::size_t MaxElements = 65792;  // of a range: one byte each

void Put(std::string& bytes, std::uint64_t number)
{
    for (; number >= 0x80; number >>= 7) bytes += static_cast<char>(0x80 | (number & 0x7F));
    bytes += static_cast<char>(number);
}

// Differences wrap: any two times have one.
std::uint64_t Distance(std::int64_t from, std::int64_t to)
{
    return static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
}

void PutSigned(std::string& bytes, std::uint64_t number)
{
    Put(bytes, (number << 1) ^ (number >> 63 == 0 ? 0 : ~std::uint64_t{0}));
}

template <typename T>
void PutRaw(std::string& bytes, T number)
{
    const auto raw = std::bit_cast<std::array<char, sizeof number>>(number);
    bytes.append(raw.data(), raw.size());
}

bool FitsFloat(double number)
{
    return number >= -1e38 && number <= 1e38 &&
           std::bit_cast<std::uint64_t>(static_cast<double>(static_cast<float>(number))) ==
               std::bit_cast<std::uint64_t>(number);
}

Kind KindOf(const Element& element)
{
    switch (element.index()) {
        case 0:
            return Nothing;
        case 1:
            return Whole;
        case 2:
            return FitsFloat(std::get<double>(element)) ? Short : Real;
        default:
            return Text;
    }
}

void PutElement(std::string& bytes, const Element& element, Kind kind)
{
    switch (kind) {
        case Nothing:
            return;
        case Whole:
            return PutSigned(bytes, static_cast<std::uint64_t>(std::get<std::int64_t>(element)));
        case Short:
            return PutRaw(bytes, static_cast<float>(std::get<double>(element)));
        case Real:
            return PutRaw(bytes, std::get<double>(element));
        case Text:
            Put(bytes, std::get<std::string>(element).size());
            bytes += std::get<std::string>(element);
    }
}

void PutValue(std::string& bytes, const Value& value)
{
    std::size_t at = 0;
    do {
        const Kind kind = at < value.size() ? KindOf(value[at]) : Nothing;
        std::size_t end = at;
        while (end < value.size() && KindOf(value[end]) == kind) ++end;
        Put(bytes, (end - at) << (KindBits + 1) | std::uint64_t{end == value.size()} << KindBits | kind);
        for (; at < end; ++at) PutElement(bytes, value[at], kind);
    } while (at < value.size());
}

// What is left to be read; what is not there is marked and read as 0.
class Rest
{
public:
    explicit Rest(std::string_view bytes) : bytes_(bytes) {}
    bool Sound() const { return sound_; }
    std::size_t Left() const { return bytes_.size(); }

    std::uint64_t Number()
    {
        std::uint64_t number = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const std::string_view byte = Take(1);
            if (byte.empty()) return 0;
            const auto bits = static_cast<std::uint64_t>(static_cast<unsigned char>(byte[0]));
            number |= (bits & 0x7F) << shift;
            if (bits < 0x80) return number;
        }
        sound_ = false;
        return 0;
    }

    std::uint64_t Signed()
    {
        const std::uint64_t number = Number();
        return (number >> 1) ^ ((number & 1) == 0 ? 0 : ~std::uint64_t{0});
    }

    template <typename T>
    T Raw()
    {
        T number{};
        const std::string_view raw = Take(sizeof number);
        if (!raw.empty()) std::memcpy(&number, raw.data(), sizeof number);
        return number;
    }

    std::string_view Take(std::uint64_t count)
    {
        if (count > bytes_.size()) return sound_ = false, std::string_view();
        const std::string_view taken = bytes_.substr(0, count);
        bytes_.remove_prefix(count);
        return taken;
    }

    Element ReadElement(std::uint64_t kind)
    {
        switch (kind) {
            case Nothing:
                return {};
            case Whole:
                return static_cast<std::int64_t>(Signed());
            case Short:
                return static_cast<double>(Raw<float>());
            case Real:
                return Raw<double>();
            case Text:
                return std::string(Take(Number()));
            default:
                sound_ = false;
                return {};
        }
    }

    Value ReadValue()
    {
        Value value;
        for (bool last = false; !last && sound_;) {
            const std::uint64_t run = Number(), kind = run & ((1u << KindBits) - 1);
            last = (run >> KindBits & 1) != 0;
            const std::uint64_t count = run >> (KindBits + 1);
            // Only nothing takes no bytes.
            if (count > MaxElements - value.size() || (kind != Nothing && count > Left()) || (count == 0 && !last)) {
                sound_ = false;
            }
            for (std::uint64_t i = 0; i < count && sound_; ++i) value.push_back(ReadElement(kind));
        }
        return value;
    }

private:
    std::string_view bytes_;
    bool sound_ = true;
};

std::int64_t Later(std::int64_t from, std::uint64_t distance)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(from) + distance);
}

}  // namespace

void RowWriter::Add(const Sample& sample, std::uint64_t name)
{
    const ValueTime told = sample.valueAt == 0 ? None : sample.valueAt == sample.time ? Same : Other;
    Put(bytes_, name);
    Put(bytes_, static_cast<std::uint64_t>(sample.state) | told << StateBits);
    PutSigned(bytes_, Distance(time_, sample.time));
    if (told == Other) PutSigned(bytes_, Distance(sample.time, sample.valueAt));
    PutValue(bytes_, sample.value);
    time_ = sample.time;
    ++count_;
}

std::optional<RowReader::Read> RowReader::Next()
{
    Rest rest(std::string_view(bytes_).substr(at_));
    if (rest.Left() == 0) return std::nullopt;
    Read read{};
    read.name = rest.Number();
    const std::uint64_t head = rest.Number(), state = head & ((1u << StateBits) - 1), told = head >> StateBits;
    if (state >= States || told > Other) return std::nullopt;
    Sample& sample = read.sample;
    sample.state = static_cast<State>(state);
    sample.time = time_ = Later(time_, rest.Signed());
    if (told != None) sample.valueAt = told == Same ? sample.time : Later(sample.time, rest.Signed());
    sample.value = rest.ReadValue();
    if (!rest.Sound()) return std::nullopt;
    at_ = bytes_.size() - rest.Left();
    return read;
}

std::uint32_t Checksum(std::string_view bytes)
{
    std::uint32_t sum = 2166136261u;
    for (const char byte : bytes) sum = (sum ^ static_cast<unsigned char>(byte)) * 16777619u;
    return sum;
}

}  // namespace voq::mqtt
