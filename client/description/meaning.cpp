// Values as their meaning says. Pure; any thread.
#include "client/description/meaning.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include "client/error.h"
#include "client/value_text.h"
#include "value/decimal.h"

namespace voq
{

namespace
{

constexpr unsigned MostDecimals = 9;

bool IsInteger(const ValueCoding& coding)
{
    return coding.type.kind != ValueKind::Float && coding.type.kind != ValueKind::Double &&
           coding.type.kind != ValueKind::Raw;
}

// The number in an element, exact for integers; nothing for what is no number.
std::optional<std::int64_t> IntegerOf(const ValueCoding& coding, std::span<const std::uint8_t> element)
{
    const std::uint64_t value = LoadElement(coding, element);
    const auto low = static_cast<std::uint32_t>(value);
    if (coding.type.kind == ValueKind::S16) return static_cast<std::int16_t>(low);
    if (coding.type.kind == ValueKind::S32) return static_cast<std::int32_t>(low);
    if (!coding.bcd) return static_cast<std::int64_t>(value);
    const int bytes = static_cast<int>(element.size());
    const std::uint32_t number = CvtBcd2Bin(low, bytes);
    if (CvtBin2Bcd(number, bytes) != low) return std::nullopt;
    return number;
}

std::optional<double> NumberOf(const ValueCoding& coding, std::span<const std::uint8_t> element)
{
    if (coding.type.kind == ValueKind::Raw) return std::nullopt;
    if (IsInteger(coding)) {
        const auto value = IntegerOf(coding, element);
        return value ? std::optional(static_cast<double>(*value)) : std::nullopt;
    }
    const std::uint64_t value = LoadElement(coding, element);
    const double number = coding.type.kind == ValueKind::Double
                              ? std::bit_cast<double>(value)
                              : static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(value)));
    return std::isfinite(number) ? std::optional(number) : std::nullopt;
}

// The digits behind the point that a factor needs; nothing when they are too many.
std::optional<unsigned> DecimalsOf(double factor)
{
    for (unsigned digits = 0; digits <= MostDecimals; ++digits, factor *= 10) {
        if (std::abs(factor - std::round(factor)) <= 1e-9 * std::max(1.0, std::abs(factor))) return digits;
    }
    return std::nullopt;
}

std::string Fixed(double number, unsigned decimals)
{
    char text[400];  // the largest double has 309 digits
    std::snprintf(text, sizeof text, "%.*f", static_cast<int>(decimals), number);
    const bool zero = std::string_view(text).find_first_not_of("-0.") == std::string_view::npos;
    return zero && text[0] == '-' ? text + 1 : text;
}

std::string NumberText(const Meaning& meaning, const ValueCoding& coding, double number)
{
    if (meaning.decimals) return Fixed(number, *meaning.decimals);
    const auto scale = DecimalsOf(meaning.scale), offset = DecimalsOf(meaning.offset);
    if (IsInteger(coding) && scale && offset) return Fixed(number, std::max(*scale, *offset));
    char text[40];
    std::snprintf(text, sizeof text, coding.type.kind == ValueKind::Double && !meaning.Scaled() ? "%.17g" : "%.9g",
                  number);
    return text;
}

const NamedNumber* NameOf(const NamedNumbers& names, std::int64_t number)
{
    const auto found =
        std::find_if(names.begin(), names.end(), [&](const auto& each) { return each.number == number; });
    return found == names.end() ? nullptr : &*found;
}

std::string BitText(const NamedNumbers& names, std::uint64_t value)
{
    std::string text;
    for (unsigned bit = 0; bit < 64; ++bit) {
        if ((value >> bit & 1) == 0) continue;
        const NamedNumber* named = NameOf(names, bit);
        text += (text.empty() ? "" : "|") + (named != nullptr ? named->name : "bit" + std::to_string(bit));
    }
    return text.empty() ? "-" : text;
}

ShownElement ShowElement(const Meaning& meaning, const ValueCoding& coding, std::span<const std::uint8_t> element)
{
    const auto number = NumberOf(coding, element);
    if (!number) return {ValueText(coding, element, 1), false, std::nullopt};
    if (IsInteger(coding) && !meaning.Scaled()) return ShowInteger(meaning, coding, *IntegerOf(coding, element));
    const double scaled = *number * meaning.scale + meaning.offset;
    if (!std::isfinite(scaled)) return {NumberText({}, coding, scaled), false, std::nullopt};
    return ShowScaled(meaning, coding, scaled);
}

std::string CharactersOf(const Meaning& meaning, std::span<const std::uint8_t> value)
{
    std::string text(value.begin(), value.end());
    if (meaning.textSwapped) {
        for (std::size_t i = 0; i + 1 < text.size(); i += 2) std::swap(text[i], text[i + 1]);
    }
    text.resize(std::min<std::size_t>(text.size(), meaning.text));
    text.resize(std::min(text.find('\0'), text.size()));
    text.resize(text.find_last_not_of(' ') + 1);
    return text;
}

std::string Listed(const NamedNumbers& names)
{
    constexpr std::size_t most = 16;
    std::string text;
    for (std::size_t i = 0; i < std::min(most, names.size()); ++i) {
        text += (i == 0 ? "" : ", ") + names[i].name + " (" + std::to_string(names[i].number) + ")";
    }
    return names.size() > most ? text + ", ..." : text;
}

std::optional<double> Decimal(std::string_view text)
{
    if (text.starts_with('+')) text.remove_prefix(1);
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

HostValue ParseNamed(const NamedNumbers& names, const ValueCoding& coding, const std::string& text)
{
    for (const NamedNumber& each : names) {
        if (each.name == text || std::to_string(each.number) == text) {
            return ParseValue(coding, std::to_string(each.number));
        }
    }
    throw Error("\"" + text + "\" is none of " + Listed(names));
}

std::optional<unsigned> BitOf(const NamedNumbers& names, std::string_view text)
{
    for (const NamedNumber& each : names) {
        if (each.name == text) return static_cast<unsigned>(each.number);
    }
    unsigned bit = 0;
    if (!text.starts_with("bit")) return std::nullopt;
    const auto [end, error] = std::from_chars(text.data() + 3, text.data() + text.size(), bit);
    return error == std::errc() && end == text.data() + text.size() && bit < 64 ? std::optional(bit) : std::nullopt;
}

HostValue ParseBits(const NamedNumbers& names, const ValueCoding& coding, const std::string& text)
{
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) return ParseValue(coding, text);
    std::uint64_t value = 0;
    for (std::string_view rest = text == "-" ? "" : std::string_view(text); !rest.empty();) {
        const std::string_view part = rest.substr(0, rest.find('|'));
        const auto bit = BitOf(names, part);
        if (!bit) throw Error("\"" + std::string(part) + "\" is none of the bits " + Listed(names));
        value |= std::uint64_t{1} << *bit;
        rest.remove_prefix(std::min(part.size() + 1, rest.size()));
    }
    // The bits of a signed number's pattern: its highest one stands for the sign.
    const bool narrow = coding.type.kind == ValueKind::S16;
    if (narrow && value <= 0xFFFF) return ParseValue(coding, std::to_string(static_cast<std::int16_t>(value)));
    if (coding.type.kind == ValueKind::S32 && value <= 0xFFFFFFFF) {
        return ParseValue(coding, std::to_string(static_cast<std::int32_t>(value)));
    }
    return ParseValue(coding, std::to_string(value));
}

void RequireWithin(const Meaning& meaning, double scaled, const std::string& text)
{
    // What the arithmetic on a scaled value may be off.
    const double slack = 1e-9 * std::max(std::abs(scaled), std::abs(meaning.scale));
    const auto limit = [&](double value) { return NumberText({}, {{ValueKind::Float, 4}, 0, false}, value); };
    if (meaning.minimum && scaled < *meaning.minimum - slack) {
        throw Error(text + " is below the minimum of " + limit(*meaning.minimum));
    }
    if (meaning.maximum && scaled > *meaning.maximum + slack) {
        throw Error(text + " is above the maximum of " + limit(*meaning.maximum));
    }
}

HostValue ParseNumber(const Meaning& meaning, const ValueCoding& coding, const std::string& text)
{
    if (!meaning.Scaled()) return ParseValue(coding, text);
    const auto scaled = Decimal(text);
    if (!scaled) throw Error("\"" + text + "\" is not a decimal number");
    RequireWithin(meaning, *scaled, text);
    const double number = (*scaled - meaning.offset) / meaning.scale;
    if (!IsInteger(coding)) {
        char exact[40];
        std::snprintf(exact, sizeof exact, "%.17g", number);
        return ParseValue(coding, exact);
    }
    const double low = LowestValue(coding).number, high = HighestValue(coding).number;
    const double nearest = std::round(number);
    if (!(nearest >= low && nearest <= high)) {
        const double ends[] = {low * meaning.scale + meaning.offset, high * meaning.scale + meaning.offset};
        throw Error(text + " does not fit " + TypeName(coding.type) + ": " +
                    NumberText(meaning, coding, std::min(ends[0], ends[1])) + " to " +
                    NumberText(meaning, coding, std::max(ends[0], ends[1])));
    }
    return ParseValue(coding, Fixed(nearest, 0));
}

Bytes EncodeCharacters(const Meaning& meaning, std::size_t bytes, const std::string& text)
{
    const std::size_t most = std::min<std::size_t>(meaning.text, bytes);
    if (text.size() > most) {
        throw Error("the text has " + std::to_string(text.size()) + " bytes, the range holds " + std::to_string(most));
    }
    Bytes image(text.begin(), text.end());
    image.resize(bytes);
    if (meaning.textSwapped) {
        for (std::size_t i = 0; i + 1 < image.size(); i += 2) std::swap(image[i], image[i + 1]);
    }
    return image;
}

}  // namespace

ShownElement ShowInteger(const Meaning& meaning, const ValueCoding& coding, std::int64_t number)
{
    const auto real = static_cast<double>(number);
    if (meaning.bitNames) {
        const std::size_t unused = 64 - 8 * std::min<std::size_t>(coding.ElemBytes(), 8);
        const auto bits = static_cast<std::uint64_t>(number) << unused >> unused;
        return {BitText(*meaning.bitNames, bits), false, real};
    }
    if (meaning.numberNames) {
        const NamedNumber* named = NameOf(*meaning.numberNames, number);
        return {named != nullptr ? named->name : std::to_string(number), named == nullptr, real};
    }
    if (meaning.decimals) return ShowScaled(meaning, coding, real);
    return {std::to_string(number), true, real};
}

ShownElement ShowScaled(const Meaning& meaning, const ValueCoding& coding, double scaled)
{
    return {NumberText(meaning, coding, scaled), true, scaled};
}

std::vector<ShownElement> ShowElements(const Meaning& meaning, const ValueCoding& coding,
                                       std::span<const std::uint8_t> value)
{
    if (meaning.text != 0) return {{CharactersOf(meaning, value), false, std::nullopt}};
    std::vector<ShownElement> shown;
    const std::size_t size = coding.ElemBytes();
    for (std::size_t at = 0; at + size <= value.size(); at += size) {
        shown.push_back(ShowElement(meaning, coding, value.subspan(at, size)));
    }
    return shown;
}

std::string ScaledText(const Meaning& meaning, const ValueCoding& coding, std::span<const std::uint8_t> value,
                       std::size_t limit)
{
    const std::size_t count = value.size() / coding.ElemBytes();
    const bool all = meaning.text != 0 || count <= limit;
    std::string text;
    for (const ShownElement& each :
         ShowElements(meaning, coding, all ? value : value.first(limit * coding.ElemBytes()))) {
        text += (text.empty() ? "" : " ") + each.text;
    }
    return all ? text : text + " ...";
}

HostValue ParseScaled(const Meaning& meaning, const ValueCoding& coding, const std::string& text)
{
    if (IsInteger(coding) && meaning.bitNames) return ParseBits(*meaning.bitNames, coding, text);
    if (IsInteger(coding) && meaning.numberNames) return ParseNamed(*meaning.numberNames, coding, text);
    if (coding.type.kind == ValueKind::Raw) return ParseValue(coding, text);
    const HostValue value = ParseNumber(meaning, coding, text);
    RequireWithin(meaning, value.number * meaning.scale + meaning.offset, text);
    return value;
}

Bytes EncodeScaled(const Meaning& meaning, const ValueCoding& coding, std::size_t elements,
                   std::span<const std::string> texts)
{
    const std::size_t wanted = meaning.text != 0 ? 1 : elements;
    if (texts.size() != wanted) {
        throw Error((meaning.text != 0 ? std::string("the range is one text, ")
                                       : "the range has " + std::to_string(elements) + " element(s), ") +
                    std::to_string(texts.size()) + " value(s) are given");
    }
    if (meaning.text != 0) return EncodeCharacters(meaning, elements * coding.ElemBytes(), texts[0]);
    Bytes image;
    for (const std::string& text : texts) {
        const Bytes element = EncodeHostValue(coding, ParseScaled(meaning, coding, text));
        image.insert(image.end(), element.begin(), element.end());
    }
    return image;
}

void RequireWithinLimits(const Meaning& meaning, const ValueCoding& coding, std::span<const std::uint8_t> value)
{
    if (meaning.text != 0 || meaning.bitNames) return;
    const std::size_t size = coding.ElemBytes();
    for (std::size_t at = 0; at + size <= value.size(); at += size) {
        const auto number = NumberOf(coding, value.subspan(at, size));
        if (!number) continue;
        const double scaled = *number * meaning.scale + meaning.offset;
        RequireWithin(meaning, scaled, NumberText(meaning, coding, scaled));
    }
}

}  // namespace voq
