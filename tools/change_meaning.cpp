// Puts changes into the register's own numbers. Pure.
#include "tools/change_meaning.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "client/error.h"

namespace
{

using voq::Meaning;
using voq::ValueCoding;
using voq::ValueKind;

std::string Plain(const ValueCoding& coding, double number)
{
    char text[400];
    std::snprintf(text, sizeof text, voq::IsFloating(coding.type.kind) ? "%.17g" : "%.0f", number);
    return text;
}

std::string Step(const Meaning& meaning, const ValueCoding& coding, const std::string& text)
{
    if (!meaning.Scaled()) return text;
    const double wanted = voq::ParseValue({{ValueKind::Double, 8}, 0, false}, text).number;
    const double step = wanted / std::abs(meaning.scale);
    if (!voq::IsFloating(coding.type.kind) && std::abs(step - std::round(step)) > 1e-6) {
        char one[40];
        std::snprintf(one, sizeof one, "%.9g", std::abs(meaning.scale));
        throw voq::Error("the step " + text + " is no multiple of " + one);
    }
    return Plain(coding, step);
}

std::string Limit(const Meaning& meaning, const ValueCoding& coding, const std::string& text, bool raw)
{
    const voq::HostValue value = raw ? voq::ParseValue(coding, text) : voq::ParseScaled(meaning, coding, text);
    voq::RequireWithinLimits(meaning, coding, voq::EncodeHostValue(coding, value));
    return Plain(coding, value.number);
}

// A limit of the description; nothing where the type's own is nearer.
std::optional<std::string> Described(const Meaning& meaning, const ValueCoding& coding, std::optional<double> scaled,
                                     bool lower)
{
    if (!scaled) return std::nullopt;
    double number = (*scaled - meaning.offset) / meaning.scale;
    constexpr double slack = 1e-9;  // what the division may be off
    const double off = slack * std::max(1.0, std::abs(number));
    if (!voq::IsFloating(coding.type.kind)) number = lower ? std::ceil(number - off) : std::floor(number + off);
    const double low = voq::LowestValue(coding).number, high = voq::HighestValue(coding).number;
    if (!(number >= low && number <= high)) return std::nullopt;
    return Plain(coding, number);
}

void Arithmetic(const Meaning& meaning, const ValueCoding& coding, voq::ChangeText& change, bool raw)
{
    const bool falling = meaning.scale < 0;
    if (falling && !raw) {
        change.operation = change.operation == "add" ? "sub" : "add";
        std::swap(change.minimum, change.maximum);
    }
    for (std::string& step : change.operands) {
        if (!raw) step = Step(meaning, coding, step);
    }
    for (auto* limit : {&change.minimum, &change.maximum}) {
        if (*limit) *limit = Limit(meaning, coding, **limit, raw);
    }
    if (!change.minimum) change.minimum = Described(meaning, coding, falling ? meaning.maximum : meaning.minimum, true);
    if (!change.maximum)
        change.maximum = Described(meaning, coding, falling ? meaning.minimum : meaning.maximum, false);
}

void NameBits(const voq::NamedNumbers& names, voq::ChangeText& change)
{
    for (std::string& bit : change.operands) {
        if (bit.find_first_not_of("0123456789") == std::string::npos) continue;
        const auto named = std::find_if(names.begin(), names.end(), [&](const auto& each) { return each.name == bit; });
        if (named == names.end()) throw voq::Error("\"" + bit + "\" is no bit of the register");
        bit = std::to_string(named->number);
    }
}

}  // namespace

voq::ChangeText AsItLies(const voq::DescribedRegister& described, std::uint16_t byteOrder, voq::ChangeText change,
                         bool raw)
{
    const Meaning& meaning = described.meaning;
    const std::string& operation = change.operation;
    const ValueKind kind = described.reg.type.kind;
    const bool number = meaning.text == 0 && kind != ValueKind::Raw && kind != ValueKind::Bit;
    if (number && (operation == "add" || operation == "sub")) {
        Arithmetic(meaning, voq::CodingOf(described.reg, byteOrder), change, raw);
    } else if (meaning.bitNames && (operation == "toggle" || operation == "set" || operation == "clear")) {
        NameBits(*meaning.bitNames, change);
    }
    return change;
}
