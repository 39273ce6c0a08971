// Tells characters from what is none: overlong forms, surrogates, what lies beyond the last one.
#include "client/utf8.h"

#include <cstdint>

namespace voq
{

std::size_t CharacterBytes(std::string_view text)
{
    const auto byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<std::uint8_t>(text[i]) : std::uint8_t{0};
    };
    const std::uint8_t lead = byte(0), second = byte(1);
    if (lead < 0x80) return 1;
    const std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                               : lead >= 0xE0 && lead <= 0xEF ? 3
                               : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                              : 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
    const bool beyond = (lead == 0xED && second > 0x9F) || (lead == 0xF4 && second > 0x8F);
    return overlong || beyond ? 0 : length;
}

}  // namespace voq
