// Makes texts fit for a terminal: names of files and descriptions can hold anything. Pure but for Complain.
#include "tools/printable.h"

#include <cstdint>
#include <cstdio>

namespace
{

// Bytes of the character that the text begins with; 0 when it is a control character or none.
std::size_t CharacterBytes(std::string_view text)
{
    const auto byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<std::uint8_t>(text[i]) : std::uint8_t{0};
    };
    const std::uint8_t lead = byte(0), second = byte(1);
    if (lead < 0x80) return lead >= 0x20 && lead != 0x7F ? 1 : 0;
    const std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                               : lead >= 0xE0 && lead <= 0xEF ? 3
                               : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                              : 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    const bool control = lead == 0xC2 && second < 0xA0;
    const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
    const bool beyond = (lead == 0xED && second > 0x9F) || (lead == 0xF4 && second > 0x8F);
    return control || overlong || beyond ? 0 : length;
}

}  // namespace

std::string Printable(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const std::size_t length = CharacterBytes(text);
        if (length != 0) {
            result += text.substr(0, length);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", unsigned{static_cast<std::uint8_t>(text[0])});
            result += escaped;
        }
        text.remove_prefix(length != 0 ? length : 1);
    }
    return result;
}

std::string Cut(const std::string& text, std::size_t width)
{
    std::size_t end = 0;
    for (; end < text.size(); ++end) {
        const bool begins = (static_cast<std::uint8_t>(text[end]) & 0xC0) != 0x80;
        if (begins && width-- == 0) break;
    }
    return text.substr(0, end);
}

void Complain(const std::string& text)
{
    std::fprintf(stderr, "voqctl: %s\n", Printable(text).c_str());
}
