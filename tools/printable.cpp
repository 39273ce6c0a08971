// Makes texts fit for a terminal: names of files and descriptions can hold anything. Pure but for Complain.
#include "tools/printable.h"

#include <cstdint>
#include <cstdio>

#include "client/utf8.h"

namespace
{

// C0, DEL and C1, of which terminals make more than a character.
bool IsControl(std::string_view character)
{
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(character[i]); };
    return character.size() == 1 ? byte(0) < 0x20 || byte(0) == 0x7F
                                 : character.size() == 2 && byte(0) == 0xC2 && byte(1) < 0xA0;
}

}  // namespace

std::string Printable(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const std::size_t length = voq::CharacterBytes(text);
        const bool shown = length != 0 && !IsControl(text.substr(0, length));
        if (shown) {
            result += text.substr(0, length);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", unsigned{static_cast<std::uint8_t>(text[0])});
            result += escaped;
        }
        text.remove_prefix(shown ? length : 1);
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
