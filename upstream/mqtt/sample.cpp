// Values as numbers and texts.
#include "upstream/mqtt/sample.h"

#include <cmath>

#include "client/numbers.h"
#include "client/utf8.h"
#include "client/value_text.h"

namespace voq::mqtt
{

namespace
{

std::string ValidUtf8(std::string_view text)
{
    std::string valid;
    while (!text.empty()) {
        const std::size_t length = CharacterBytes(text);
        valid += length == 0 ? "\xEF\xBF\xBD" : text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return valid;
}

Element ReadElement(const Meaning& meaning, const ValueCoding& coding, std::span<const std::uint8_t> image)
{
    if (coding.type.kind == ValueKind::Raw) return ValueText(coding, image, 1);
    double number = 0;
    DecodeNumbers(coding, image, {&number, 1});
    if (!std::isfinite(number)) return {};
    if (!meaning.Scaled() && !IsFloating(coding.type.kind)) {
        std::int64_t whole = 0;
        DecodeIntegers(coding, image, {&whole, 1});
        return whole;
    }
    const double scaled = number * meaning.scale + meaning.offset;
    return std::isfinite(scaled) ? Element(scaled) : Element();
}

}  // namespace

Value ReadValue(const Meaning& meaning, const ValueCoding& coding, std::span<const std::uint8_t> image)
{
    if (meaning.text != 0) {
        const auto shown = ShowElements(meaning, coding, image);
        return {ValidUtf8(shown.empty() ? "" : shown[0].text)};
    }
    Value value;
    const std::size_t bytes = coding.ElemBytes();
    for (; image.size() >= bytes; image = image.subspan(bytes)) {
        value.push_back(ReadElement(meaning, coding, image.first(bytes)));
    }
    return value;
}

const char* StateWord(State state)
{
    constexpr const char* Words[States] = {"not read yet", "ok",          "time-out",  "error",
                                           "refused",      "station off", "no service"};
    return Words[static_cast<std::size_t>(state)];
}

}  // namespace voq::mqtt
